/*
 * Discovery: what the service says of itself, an OpenRPC document made of the table's rows. It keeps no state: the
 * document is made when it is asked for, and given away.
 *
 * Bounds and words come from the functions that the check itself asks.
 */
#include <cstdio>
#include <utility>

#include "internal.h"
#include "tavrix_jrpc.h"

namespace kit {

namespace {

constexpr char unit_name[] = "service_discovery";
constexpr char unknown_version[] = "unversioned";
constexpr char discovery_suffix[] = ".Discover";
constexpr size_t description_size = 2 * allowed_size;
constexpr int64_t most_shown = 16; // of an example's elements
constexpr size_t example_text_size = 65;

constexpr char uint64_pattern[] = "^(0[xX][0-9A-Fa-f]+|0[0-7]*|[1-9][0-9]*)$";

constexpr tavrix_service_param port_hardware_members[] = {
    TAVRIX_PARAM("port_number", TAVRIX_KIND_PORT_NUMBER, "the port's number", 0),
    TAVRIX_PARAM("poe_status", TAVRIX_KIND_INTEGER, "its PoE status", 0),
    TAVRIX_PARAM("link_status", TAVRIX_KIND_INTEGER, "its link status", 0),
    TAVRIX_PARAM("link_speed", TAVRIX_KIND_INTEGER, "its link speed", 0),
    TAVRIX_PARAM_END,
};
constexpr tavrix_service_param port_members[] = {
    TAVRIX_PARAM("port_number", TAVRIX_KIND_PORT_NUMBER, "the port's number", 0),
    TAVRIX_PARAM("port_status", TAVRIX_KIND_INTEGER, "its status", 0),
    TAVRIX_PARAM("poe_status", TAVRIX_KIND_INTEGER, "its PoE status", 0),
    TAVRIX_PARAM("link_status", TAVRIX_KIND_INTEGER, "its link status", 0),
    TAVRIX_PARAM("link_speed", TAVRIX_KIND_INTEGER, "its link speed", 0),
    TAVRIX_PARAM("vlan_mode", TAVRIX_KIND_INTEGER, "its VLAN mode", 0),
    TAVRIX_PARAM("vlan_ids", TAVRIX_KIND_VLAN_IDS, "its VLANs", 0),
    TAVRIX_PARAM_END,
};
constexpr tavrix_service_param mac_filter_members[] = {
    TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "the address", 0),
    TAVRIX_PARAM("mask", TAVRIX_KIND_MAC_ADDRESS, "which of its bits count", 0),
    TAVRIX_PARAM_END,
};
constexpr tavrix_service_param one_vlan_id[] = {TAVRIX_PARAM("", TAVRIX_KIND_VLAN_ID, nullptr, 0), TAVRIX_PARAM_END};
constexpr tavrix_service_param document_result[] = {TAVRIX_PARAM("", TAVRIX_KIND_OBJECT, "an OpenRPC document", 0),
                                                    TAVRIX_PARAM_END};

/** Whether its value is a text. */
bool is_text(const tavrix_service_param &row) {
    return storage_of(row.kind) == stored_text || row.kind == TAVRIX_KIND_UINT64 || row.kind == TAVRIX_KIND_FLOAT;
}

/** Whether its value is an array. */
bool is_list(const tavrix_service_param &row) {
    return row.kind == TAVRIX_KIND_ARRAY || storage_of(row.kind) >= stored_integers;
}

/** The rows of a list's elements; null where they may be anything. */
const tavrix_service_param *elements_of(const tavrix_service_param &row) {
    constexpr const tavrix_service_param *records[] = {one_vlan_id, port_members, port_hardware_members,
                                                       mac_filter_members};
    static_assert(stored_mac_filters - stored_integers == 3, "one for each kind of records, in their order");
    if (storage_of(row.kind) >= stored_integers) {
        return records[storage_of(row.kind) - stored_integers];
    }
    return row.members != nullptr && row.members->name != nullptr ? row.members : nullptr;
}

// --- Examples ------------------------------------------------------------------------------------------------------

const char *example_of_port(unsigned flags) {
    return (flags & TAVRIX_ALLOW_C_PORT) != 0   ? "c1-1"
           : (flags & TAVRIX_ALLOW_D_PORT) != 0 ? "d1"
           : (flags & TAVRIX_ALLOW_MZU) != 0    ? "c1"
                                                : "all";
}

json_t *example_of_text(const tavrix_service_param &row) {
    if (const char *const *words = words_allowed(&row); words != nullptr) {
        const bool passes_over = words[1] != nullptr && std::strcmp(words[0], "unknown") == 0; // reported only
        return json_string(words[passes_over ? 1 : 0]);
    }
    if (row.kind == TAVRIX_KIND_PORT_ID) {
        return json_string(example_of_port(row.flags));
    }
    if (row.kind == TAVRIX_KIND_TEXT && has_bounds(&row) && (row.min > 4 || row.max < 4)) {
        char text[example_text_size] = "";
        const auto length = static_cast<size_t>(row.min > 4 ? row.min : row.max);
        if (row.min >= static_cast<int64_t>(sizeof text)) {
            return nullptr;
        }
        std::memset(text, 'x', length);
        return json_string(text);
    }
    const char *example = example_of_kind(row.kind);
    return example != nullptr ? json_string(example) : nullptr;
}

json_t *example_of_integer(const tavrix_service_param &row) {
    const int64_t lowest = lowest_of(&row);
    return json_integer(lowest > INT32_MIN ? lowest : 1 < highest_of(&row) ? 1 : highest_of(&row));
}

json_t *example_of_number(const tavrix_service_param &row) {
    constexpr double shown = 2.5;
    const bool fits = static_cast<double>(row.min) <= shown && static_cast<double>(row.max) >= shown;
    return has_bounds(&row) && !fits ? json_integer(row.min) : json_real(shown);
}

json_t *example_of(const tavrix_service_param &row);

/** The members that have to be there. */
json_t *example_of_object(const tavrix_service_param *rows) {
    Json object(json_object());
    for (; rows != nullptr && rows->name != nullptr; ++rows) {
        if ((rows->flags & TAVRIX_OPTIONAL) == 0 &&
            json_object_set_new(object.get(), rows->name, example_of(*rows)) != 0) {
            return nullptr;
        }
    }
    return object.release();
}

json_t *example_of_list(const tavrix_service_param &row) {
    const tavrix_service_param *elements = elements_of(row);
    const bool holds_none = row.kind == TAVRIX_KIND_ARRAY && has_bounds(&row) && row.max < 1;
    const int64_t count = row.min > 1 ? row.min : holds_none ? 0 : 1;
    Json list(count <= most_shown ? json_array() : nullptr);
    for (int64_t i = 0; list && i < count; ++i) {
        json_t *element = elements == nullptr ? json_integer(1)
                          : is_bare(elements) ? example_of(*elements)
                                              : example_of_object(elements);
        if (json_array_append_new(list.get(), element) != 0) {
            return nullptr;
        }
    }
    return list.release();
}

/** A value that the check lets through; null when there is none that could be shown. */
json_t *example_of(const tavrix_service_param &row) {
    const Storage storage = storage_of(row.kind);
    return is_text(row)                ? example_of_text(row)
           : is_list(row)              ? example_of_list(row)
           : storage == stored_integer ? example_of_integer(row)
           : storage == stored_boolean ? json_true()
           : storage == stored_real    ? example_of_number(row)
                                       : example_of_object(row.members);
}

// --- Writing -------------------------------------------------------------------------------------------------------

/** Puts values together, and knows in the end whether one could not be made: a part of a document would lie. */
struct Writer {
    bool complete = true;
    bool is_closed = false; ///< the objects of a strict method have no other members than those of the rows

    void put(json_t *object, const char *key, json_t *value) {
        complete = json_object_set_new(object, key, value) == 0 && complete;
    }
    void put_text(json_t *object, const char *key, const char *text) {
        if (text != nullptr && *text != '\0') {
            put(object, key, json_string(text));
        }
    }
    void add(json_t *array, json_t *value) { complete = json_array_append_new(array, value) == 0 && complete; }
};

// --- Schemas -------------------------------------------------------------------------------------------------------

json_t *schema_of(Writer *writer, const tavrix_service_param &row, const char *summary);

json_t *schema_of_object(Writer *writer, const tavrix_service_param *rows) {
    Json schema(json_pack("{s:s}", "type", "object"));
    if (rows == nullptr) {
        return schema.release();
    }
    Json properties(json_object());
    Json required(json_array());
    for (; rows->name != nullptr; ++rows) {
        writer->put(properties.get(), rows->name, schema_of(writer, *rows, rows->summary));
        if ((rows->flags & TAVRIX_OPTIONAL) == 0) {
            writer->add(required.get(), json_string(rows->name));
        }
    }
    writer->put(schema.get(), "properties", properties.release());
    if (json_array_size(required.get()) > 0) {
        writer->put(schema.get(), "required", required.release());
    }
    if (writer->is_closed) {
        writer->put(schema.get(), "additionalProperties", json_false());
    }
    return schema.release();
}

/** Of one value, or of an object with members. */
json_t *schema_of_rows(Writer *writer, const tavrix_service_param *rows) {
    return is_bare(rows) ? schema_of(writer, *rows, rows->summary) : schema_of_object(writer, rows);
}

void add_range(Writer *writer, json_t *schema, const char *least, int64_t lowest, const char *most, int64_t highest) {
    writer->put(schema, least, json_integer(lowest));
    writer->put(schema, most, json_integer(highest));
}

void add_text(Writer *writer, json_t *schema, const tavrix_service_param &row) {
    writer->put_text(schema, "type", "string");
    if (const char *const *words = words_allowed(&row); words != nullptr) {
        Json list(json_array());
        for (; *words != nullptr; ++words) {
            writer->add(list.get(), json_string(*words));
        }
        writer->put(schema, "enum", list.release());
    } else if (row.kind == TAVRIX_KIND_TEXT && has_bounds(&row)) {
        add_range(writer, schema, "minLength", row.min, "maxLength", row.max);
    } else if (row.kind == TAVRIX_KIND_UINT64) {
        writer->put_text(schema, "pattern", uint64_pattern);
    }
    if (row.kind == TAVRIX_KIND_UINT64 || row.kind == TAVRIX_KIND_FLOAT) {
        writer->put(schema, "maxLength", json_integer(max_number_text));
    }
}

void add_list(Writer *writer, json_t *schema, const tavrix_service_param &row) {
    const bool is_array = row.kind == TAVRIX_KIND_ARRAY;
    const tavrix_service_param *elements = elements_of(row);
    writer->put_text(schema, "type", "array");
    if (row.min > 0) {
        writer->put(schema, "minItems", json_integer(row.min));
    }
    if (!is_array || has_bounds(&row)) {
        writer->put(schema, "maxItems", json_integer(is_array ? row.max : most_records(&row)));
    }
    // The retriever of records passes over what it does not know.
    const bool is_closed = std::exchange(writer->is_closed, writer->is_closed && is_array);
    writer->put(schema, "items", elements == nullptr ? json_object() : schema_of_rows(writer, elements));
    writer->is_closed = is_closed;
}

/** What the member is for, and what its value has to look like where the schema's own words do not tell. */
void add_description(Writer *writer, json_t *schema, const tavrix_service_param &row, const char *summary) {
    char text[description_size] = "";
    char allowed[allowed_size] = "";
    const bool is_any_text = row.kind == TAVRIX_KIND_TEXT && !has_bounds(&row);
    const bool is_told = is_any_text || words_allowed(&row) != nullptr;
    if (is_text(row) && !is_told) {
        describe_allowed(&row, allowed);
    }
    const bool has_summary = summary != nullptr && *summary != '\0';
    std::snprintf(text, sizeof text, "%.*s%s%s", static_cast<int>(sizeof text - sizeof allowed - 3),
                  has_summary ? summary : "", has_summary && *allowed != '\0' ? ": " : "", allowed);
    writer->put_text(schema, "description", text);
}

json_t *schema_of(Writer *writer, const tavrix_service_param &row, const char *summary) {
    Json owner(row.kind == TAVRIX_KIND_OBJECT ? schema_of_object(writer, row.members) : json_object());
    json_t *schema = owner.get();
    const Storage storage = storage_of(row.kind);
    if (is_text(row)) {
        add_text(writer, schema, row);
    } else if (is_list(row)) {
        add_list(writer, schema, row);
    } else if (storage != stored_json) {
        writer->put_text(schema, "type",
                         storage == stored_boolean   ? "boolean"
                         : storage == stored_integer ? "integer"
                                                     : "number");
    }
    if (storage == stored_integer || (row.kind == TAVRIX_KIND_NUMBER && has_bounds(&row))) {
        add_range(writer, schema, "minimum", lowest_of(&row), "maximum", highest_of(&row));
    }
    add_description(writer, schema, row, summary);
    return owner.release();
}

// --- Methods -------------------------------------------------------------------------------------------------------

/** OpenRPC wants those that may be absent after those that may not. */
json_t *params_of(Writer *writer, const tavrix_service_method &method) {
    Json params(json_array());
    writer->is_closed = (method.flags & TAVRIX_METHOD_STRICT) != 0;
    for (const bool optional : {false, true}) {
        for (const tavrix_service_param *row = method.params; row != nullptr && row->name != nullptr; ++row) {
            if (((row->flags & TAVRIX_OPTIONAL) != 0) != optional) {
                continue;
            }
            Json param(json_pack("{s:s}", "name", row->name));
            writer->put_text(param.get(), "summary", row->summary);
            writer->put(param.get(), "required", json_boolean(!optional));
            writer->put(param.get(), "schema", schema_of(writer, *row, nullptr));
            writer->add(params.get(), param.release());
        }
    }
    writer->is_closed = false; // a result may hold more
    return params.release();
}

json_t *result_of(Writer *writer, const tavrix_service_method &method) {
    return json_pack("{s:s, s:o}", "name", "result", "schema",
                     method.result != nullptr ? schema_of_rows(writer, method.result)
                                              : json_pack("{s:s, s:[i]}", "type", "integer", "enum", 0));
}

/** The retriever's own code for a value of this row; TAVRIX_JRPC_INVALID_PARAMS if it has none. */
int error_of_row(const tavrix_service_param &row) {
    const unsigned kinds_of_port = row.flags & TAVRIX_ANY_PORT;
    if (row.kind != TAVRIX_KIND_PORT_ID) {
        return row.kind == TAVRIX_KIND_VLAN_IDS ? TAVRIX_JRPC_TOO_MANY_VLAN_IDS : TAVRIX_JRPC_INVALID_PARAMS;
    }
    return (row.flags & TAVRIX_ALLOW_MZU) != 0    ? TAVRIX_JRPC_EXPECTED_MZU
           : kinds_of_port == TAVRIX_ALLOW_C_PORT ? TAVRIX_JRPC_EXPECTED_C_PORT
           : kinds_of_port == TAVRIX_ALLOW_D_PORT ? TAVRIX_JRPC_EXPECTED_D_PORT
                                                  : TAVRIX_JRPC_INVALID_PARAMS;
}

/** Whether a value of one of the rows, or of their members, can be refused with this code. */
bool can_fail_with(const tavrix_service_param *rows, int code) {
    while (rows != nullptr && rows->name != nullptr && error_of_row(*rows) != code &&
           !can_fail_with(rows->members, code)) {
        ++rows;
    }
    return rows != nullptr && rows->name != nullptr;
}

/** What is answered without the handler; what it answers itself is any other row of the catalogue. */
json_t *errors_of(Writer *writer, const tavrix_service_method &method) {
    const bool is_checked = method.params != nullptr || (method.flags & TAVRIX_METHOD_STRICT) != 0;
    Json errors(json_array());
    const auto add = [writer, &errors](int code) {
        writer->add(errors.get(), json_pack("{s:i, s:s}", "code", code, "message", tavrix_jrpc_error_message(code)));
    };
    if (is_checked) {
        add(TAVRIX_JRPC_INVALID_PARAMS);
    }
    for (const int code : {TAVRIX_JRPC_EXPECTED_C_PORT, TAVRIX_JRPC_EXPECTED_D_PORT, TAVRIX_JRPC_EXPECTED_MZU,
                           TAVRIX_JRPC_TOO_MANY_VLAN_IDS}) {
        if (can_fail_with(method.params, code)) {
            add(code);
        }
    }
    add(TAVRIX_JRPC_TIMED_OUT);
    add(TAVRIX_JRPC_SYSTEM_BUSY);
    add(TAVRIX_JRPC_INTERNAL_ERROR);
    return errors.release();
}

/** An array of one example, with the required parameters; none when one of them has no value to show. */
json_t *examples_of(Writer *writer, const tavrix_service_method &method) {
    Json params(json_array());
    for (const tavrix_service_param *row = method.params; row != nullptr && row->name != nullptr; ++row) {
        if ((row->flags & TAVRIX_OPTIONAL) != 0) {
            continue;
        }
        json_t *value = example_of(*row);
        if (value == nullptr) {
            return json_array();
        }
        writer->add(params.get(), json_pack("{s:s, s:o}", "name", row->name, "value", value));
    }
    return json_pack("[{s:s, s:o}]", "name", "example", "params", params.release());
}

json_t *method_of(Writer *writer, const tavrix_service_method &method) {
    Json object(json_pack("{s:s}", "name", method.name));
    Json tags(json_array());
    for (const auto &[flag, tag] : {std::pair(TAVRIX_METHOD_READS, "reads"), {TAVRIX_METHOD_CHANGES, "changes"}}) {
        if ((method.flags & flag) != 0) {
            writer->add(tags.get(), json_pack("{s:s}", "name", tag));
        }
    }
    writer->put_text(object.get(), "summary", method.summary);
    writer->put(object.get(), "tags", tags.release());
    writer->put_text(object.get(), "paramStructure", "by-name");
    writer->put(object.get(), "params", params_of(writer, method));
    writer->put(object.get(), "result", result_of(writer, method));
    writer->put(object.get(), "errors", errors_of(writer, method));
    writer->put(object.get(), "examples", examples_of(writer, method));
    return object.release();
}

size_t prefix_length(const tavrix_service *service) { return std::strcspn(service->options.methods[0].name, "."); }

json_t *methods_of(Writer *writer, const tavrix_service *service) {
    Json methods(json_array());
    bool has_own = false; // a row of the table that has the discovery's name takes its place
    for (size_t i = 0; i < service->method_count; ++i) {
        writer->add(methods.get(), method_of(writer, service->options.methods[i]));
        has_own = has_own || is_discovery(service, service->options.methods[i].name);
    }
    if (!has_own && service->method_count > 0) {
        char name[256 + sizeof discovery_suffix];
        std::snprintf(name, sizeof name, "%.*s%s", static_cast<int>(prefix_length(service)),
                      service->options.methods[0].name, discovery_suffix);
        writer->add(methods.get(), method_of(writer, TAVRIX_METHOD(name, nullptr, "Describes the service.", nullptr,
                                                                   document_result, TAVRIX_METHOD_READS)));
    }
    return methods.release();
}

} // namespace

json_t *make_document(const tavrix_service *service) {
    Writer writer;
    const char *version = service->options.version != nullptr ? service->options.version : unknown_version;
    Json info(json_pack("{s:s, s:s}", "title", service->name, "version", version));
    writer.put_text(info.get(), "description", service->options.summary);
    Json document(json_pack("{s:s}", "openrpc", tavrix::openrpc_version));
    writer.put(document.get(), "info", info.release());
    writer.put(document.get(), "methods", methods_of(&writer, service));
    if (!writer.complete) {
        LOG_ERROR("%s cannot be described: there is no memory, or a text of its table is not UTF-8\n", service->name);
        return nullptr;
    }
    return document.release();
}

bool is_discovery(const tavrix_service *service, const char *method) {
    if (service->method_count == 0) {
        return false;
    }
    const size_t length = prefix_length(service);
    return std::strncmp(method, service->options.methods[0].name, length) == 0 &&
           std::strcmp(method + length, discovery_suffix) == 0;
}

} // namespace kit
