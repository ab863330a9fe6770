/*
 * Parameters of a method handler: typed parsers, validated field retrievers, composite inputs, and the one reply
 * builder.
 *
 * Keeps no state. The first failure is explained in the caller's debug message; later ones do not change it.
 */
#include "tavrix_jrpc_utils.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/handles.h"
#include "common/log.h"
#include "internal/tables.h"
#include "internal/tavrix_jrpc_utils_seam.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"
#include "tavrix_validation.h"

namespace {

using tavrix::count_of;
using tavrix::in_order;
using tavrix::Json;

constexpr char unit_name[] = "tavrix_jrpc_utils";

constexpr size_t debug_text_size = 100;
constexpr size_t value_text_size = 100;
constexpr int max_vlan_ids = sizeof(tavrix_port_input::vlan_ids) / sizeof(int32_t);
constexpr size_t max_alias_length = 8;
constexpr char everything[] = "all";
constexpr char no_mac[] = "none";

// --- Debug message -------------------------------------------------------------------------------------------------

/** Logs an explanation and stores it unless there is an earlier one. */
int explain(json_t **debug_message, const char *text) {
    LOG_DEBUG("Sending debug message: %s\n", text);
    if (*debug_message != nullptr) {
        return TAVRIX_OK;
    }
    *debug_message = json_pack("{s:s}", "message", text);
    return *debug_message != nullptr ? TAVRIX_OK : TAVRIX_ERR_JSON_RESPONSE;
}

// --- Types ---------------------------------------------------------------------------------------------------------

/** What a parser accepts and logs. Bools and texts are often optional, so a missing one is only a warning. */
struct TypeRule {
    const char *name;
    bool (*accepts)(const json_t *value);
    const char *announcement;
    int absent_level;
    const char *absent_text;
    const char *wrong_type_text;
};

constexpr TypeRule bool_rule = {
    "bool",
    [](const json_t *value) { return json_is_boolean(value); },
    "Parsing input bool for parameter: %s\n",
    TAVRIX_LOG_WARNING,
    "No parameter <%s> found\n",
    "parameter <%s> is not a bool\n",
};
constexpr TypeRule string_rule = {
    "string",
    [](const json_t *value) { return json_is_string(value); },
    "Parsing input string for parameter: %s\n",
    TAVRIX_LOG_WARNING,
    "No parameter by the name <%s> found\n",
    "Given parameter <%s> is not a string\n",
};
constexpr TypeRule integer_rule = {
    "integer",
    [](const json_t *value) { return json_is_integer(value); },
    "Parsing input integer for parameter: %s\n",
    TAVRIX_LOG_ERROR,
    "No parameter by the name <%s> found\n",
    "Given parameter <%s> is not an integer\n",
};
constexpr TypeRule array_rule = {
    "array",
    [](const json_t *value) { return json_is_array(value); },
    "Parsing input array for parameter: %s\n",
    TAVRIX_LOG_ERROR,
    "No parameter by the name <%s> found\n",
    "The given parameter <%s> is supposed to be an array.\n",
};

/** Looks up a member and checks its type; the member, or null, is stored before the check. */
int find_member(const TypeRule &rule, json_t *params, json_t **debug_message, const char *key, json_t **member) {
    LOG_VERBOSE(rule.announcement, key);
    *member = json_object_get(params, key);
    if (*member == nullptr) {
        TAVRIX_LOG_AT_(rule.absent_level, rule.absent_text, key);
        static_cast<void>(tavrix_jrpc_utils_set_missing_param_message(debug_message, key));
        return TAVRIX_ERR_PARAMETER_NOT_FOUND;
    }
    if (!rule.accepts(*member)) {
        LOG_ERROR(rule.wrong_type_text, key);
        static_cast<void>(tavrix_jrpc_utils_set_wrong_type_message(debug_message, key, rule.name));
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    return TAVRIX_OK;
}

/** Reads a number that clients send as a text. */
int find_number_text(json_t *params, json_t **debug_message, const char *key, const void *out,
                     char (&text)[value_text_size]) {
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    return tavrix_jrpc_utils_parse_input_string(params, debug_message, key, text, sizeof text);
}

// --- Fields --------------------------------------------------------------------------------------------------------

enum TextRowId {
    text_status,
    text_description,
    text_vlan_mode,
    text_mzu_model,
    text_mzu_sw_upgrade_filename,
    text_mac_address,
    text_unit_sw_bank,
    text_ip_address,
    text_unit_sw_upgrade_filename,
    text_username,
    text_password,
    text_date,
    text_time,
    text_entity_name,
    text_entity_extension,
    text_row_count
};

enum NumberRowId {
    number_vlan_id,
    number_unit_id,
    number_periodic_interval,
    number_laser_id,
    number_olt_id,
    number_onu_id,
    number_port_number,
    number_port_link_speed,
    number_enable,
    number_row_count
};

/** What a retriever of a text logs and checks; the check may rewrite the text. */
struct TextRow {
    TextRowId id;
    const char *announcement;
    int (*check)(char *text); ///< null: not validated
    const char *success;
};

struct NumberRow {
    NumberRowId id;
    int success_level;
    const char *announcement;
    int (*check)(int value); ///< null: not validated
    const char *success;
};

template <int (*Validator)(const char *)>
int checked(char *text) {
    return Validator(text);
}

int format_mac_address(char *text) { return tavrix_validate_and_format_mac_addr_string(text); }

constexpr TextRow text_rows[] = {
    {text_status, "Retrieving status...\n", checked<validate_status>, "Retrieved and validated status: %s\n"},
    {text_description, "Retrieving description...\n", checked<validate_description>,
     "Retrieved and validated description: %s\n"},
    {text_vlan_mode, "Retrieving vlan mode...\n", checked<validate_vlan_mode>,
     "Retrieved and validated vlan mode: %s\n"},
    {text_mzu_model, "Retrieving mzu model...\n", checked<validate_mzu_model>,
     "Retrieved and validated mzu model: %s\n"},
    {text_mzu_sw_upgrade_filename, "Retrieving mzu sw upgrade filename...\n", checked<validate_mzu_sw_upgrade_filename>,
     "Retrieved and validated mzu sw upgrade filename: %s\n"},
    {text_mac_address, "Retrieving mac address...\n", format_mac_address, "Retrieved and validated mac address: %s\n"},
    {text_unit_sw_bank, "Retrieving sw bank...\n", checked<validate_unit_sw_bank>,
     "Retrieved and validated sw bank: %s\n"},
    {text_ip_address, "Retrieving ip address...\n", checked<validate_ip_address>,
     "Retrieved and validated ip address: %s\n"},
    {text_unit_sw_upgrade_filename, "Retrieving unit sw upgrade filename...\n",
     checked<validate_unit_sw_upgrade_filename>, "Retrieved and validated unit sw upgrade filename: %s\n"},
    {text_username, "Retrieving username...\n", checked<validate_username>, "Retrieved and validated username: %s\n"},
    {text_password, "Retrieving password...\n", checked<validate_password>, "Retrieved and validated password: %s\n"},
    // The password's lines: log filters match them.
    {text_date, "Retrieving password...\n", checked<validate_date>, "Retrieved and validated password: %s\n"},
    {text_time, "Retrieving time...\n", checked<validate_time>, "Retrieved and validated time: %s\n"},
    // Not validated, despite the wording: handlers look up the name and refuse what they do not find.
    {text_entity_name, "Retrieving entity name...\n", nullptr, "Retrieved and validated entity name: %s\n"},
    {text_entity_extension, "Retrieving entity extension...\n", checked<validate_entity_extension>,
     "Retrieved and validated entity extension: %s\n"},
};
static_assert(count_of(text_rows) == text_row_count && in_order(text_rows));

constexpr NumberRow number_rows[] = {
    {number_vlan_id, TAVRIX_LOG_DEBUG, "Retrieving vlan id...\n", validate_vlan_id,
     "Retrieved and validated vlan id: %d\n"},
    {number_unit_id, TAVRIX_LOG_DEBUG, "Retrieving unit id...\n", validate_unit_id,
     "Retrieved and validated unit id: %d\n"},
    {number_periodic_interval, TAVRIX_LOG_DEBUG, "Retrieving periodic interval...\n", validate_periodic_interval,
     "Retrieved and validated periodic interval: %d\n"},
    // Verbose where the others are debug: lasers are polled and would flood a debug log.
    {number_laser_id, TAVRIX_LOG_VERBOSE, "Retrieving laser_id...\n", validate_laser_id,
     "Retrieved and validated laser_id: %d\n"},
    {number_olt_id, TAVRIX_LOG_DEBUG, "Retrieving olt id...\n", validate_olt_id,
     "Retrieved and validated olt id: %d\n"},
    {number_onu_id, TAVRIX_LOG_DEBUG, "Retrieving onu id...\n", validate_onu_id,
     "Retrieved and validated onu id: %d\n"},
    {number_port_number, TAVRIX_LOG_DEBUG, "Retrieving port number...\n", validate_port_number,
     "Retrieved and validated port_number: %d\n"},
    {number_port_link_speed, TAVRIX_LOG_DEBUG, "Retrieving port link speed...\n", validate_port_link_speed,
     "Retrieved and validated port link_speed: %d\n"},
    // Not validated: each handler decides which numbers mean something.
    {number_enable, TAVRIX_LOG_DEBUG, "Retrieving enable...\n", nullptr, "Retrieved and enable value: %d\n"},
};
static_assert(count_of(number_rows) == number_row_count && in_order(number_rows));

/** How every retriever of a text begins: null test, announcement, parsing. */
int fetch_text(const char *announcement, json_t *params, json_t **debug_message, const char *key, char *out,
               size_t out_size) {
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    LOG_VERBOSE("%s", announcement);
    const int rc = tavrix_jrpc_utils_parse_input_string(params, debug_message, key, out, out_size);
    // An empty buffer has no text to check; but a failure of the parser comes first.
    return rc == TAVRIX_OK && out_size == 0 ? TAVRIX_ERR_PARAMETER : rc;
}

int retrieve_text(TextRowId id, json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size) {
    const TextRow &row = text_rows[id];
    const int rc = fetch_text(row.announcement, params, debug_message, key, out, out_size);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (row.check != nullptr && row.check(out) != 0) {
        return TAVRIX_ERR_VALIDATION; // the rejected value stays in `out`: handlers quote it in their answer
    }
    LOG_DEBUG(row.success, out);
    return TAVRIX_OK;
}

int retrieve_number(NumberRowId id, json_t *params, json_t **debug_message, const char *key, int *out) {
    const NumberRow &row = number_rows[id];
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    LOG_VERBOSE("%s", row.announcement);
    const int rc = tavrix_jrpc_utils_parse_input_integer(params, debug_message, key, out);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (row.check != nullptr && row.check(*out) != 0) {
        return TAVRIX_ERR_VALIDATION; // the rejected value stays in `out`, as for a text
    }
    TAVRIX_LOG_GUARDED_(row.success_level, row.success, *out);
    return TAVRIX_OK;
}

/** Checks a port id against the port kinds that are allowed; each combination has a status of its own. */
int check_port_kinds(const char *value, bool allow_c_port, bool allow_d_port) {
    if (allow_c_port && allow_d_port) {
        return validate_port_id(value) == 0 ? TAVRIX_OK : TAVRIX_ERR_VALIDATION;
    }
    if (allow_c_port) {
        return validate_c_port_id(value) == 0 ? TAVRIX_OK : TAVRIX_ERR_EXPECTED_C_PORT;
    }
    if (allow_d_port) {
        return validate_d_port_id(value) == 0 ? TAVRIX_OK : TAVRIX_ERR_EXPECTED_D_PORT;
    }
    return TAVRIX_ERR_VALIDATION;
}

int check_port_id(const char *value, bool allow_all, bool allow_mzu_id, bool allow_c_port, bool allow_d_port) {
    if (allow_all && std::strcmp(value, everything) == 0) {
        return TAVRIX_OK;
    }
    const int rc = check_port_kinds(value, allow_c_port, allow_d_port);
    if (rc == TAVRIX_OK || !allow_mzu_id) {
        return rc;
    }
    // Whatever the port kinds said: a client that may name a unit is told that one was expected.
    return validate_mzu_id(value) == 0 ? TAVRIX_OK : TAVRIX_ERR_EXPECTED_MZU;
}

// --- Records -------------------------------------------------------------------------------------------------------

int element_count(const json_t *array) { return static_cast<int>(std::min<size_t>(json_array_size(array), INT_MAX)); }

/** Reads the members of one record; after the first failure nothing more is read. */
struct ElementReader {
    json_t *element;
    json_t **debug_message;
    bool ok;

    int32_t integer(const char *key) {
        int value = 0;
        if (ok) {
            ok = tavrix_jrpc_utils_parse_input_integer(element, debug_message, key, &value) == TAVRIX_OK;
        }
        return value;
    }
    void port_number(int32_t *out) {
        if (ok) {
            ok = retrieve_number(number_port_number, element, debug_message, "port_number", out) == TAVRIX_OK;
        }
    }
    void vlan_ids(int32_t *ids, int32_t *count) {
        if (ok) {
            ok = tavrix_jrpc_utils_retrieve_input_vlan_ids(element, debug_message, "vlan_ids", ids, count) == TAVRIX_OK;
        }
    }
};

bool read_port(json_t *element, json_t **debug_message, tavrix_port_input *record) {
    ElementReader reader{element, debug_message, true};
    reader.port_number(&record->port_number);
    const int32_t port_status = reader.integer("port_status");
    const int32_t poe_status = reader.integer("poe_status");
    const int32_t link_status = reader.integer("link_status");
    const int32_t link_speed = reader.integer("link_speed");
    const int32_t vlan_mode = reader.integer("vlan_mode");
    reader.vlan_ids(record->vlan_ids, &record->vlan_count);
    if (!reader.ok) {
        return false;
    }
    record->port_status = port_status;
    record->poe_status = poe_status;
    record->link_status = link_status;
    record->link_speed = link_speed;
    record->vlan_mode = vlan_mode;
    return true;
}

bool read_port_hardware(json_t *element, json_t **debug_message, tavrix_port_hardware_input *record) {
    ElementReader reader{element, debug_message, true};
    reader.port_number(&record->port_number);
    const int32_t poe_status = reader.integer("poe_status");
    const int32_t link_status = reader.integer("link_status");
    const int32_t link_speed = reader.integer("link_speed");
    if (!reader.ok) {
        return false;
    }
    record->poe_status = poe_status;
    record->link_status = link_status;
    record->link_speed = link_speed;
    return true;
}

/** What the reader of a list of records logs, and how it reads one. */
template <typename Record>
struct RecordList {
    const char *announcement;
    const char *element;
    const char *success;
    bool (*read)(json_t *element, json_t **debug_message, Record *record);
};

constexpr RecordList<tavrix_port_input> port_list = {
    "Retrieving ports input...\n",
    "Retrieving port #%d...\n",
    "Successfully retrieved %d ports.\n",
    read_port,
};
constexpr RecordList<tavrix_port_hardware_input> port_hardware_list = {
    "Retrieving ports hardware input...\n",
    "Retrieving port hardware #%d...\n",
    "Successfully retrieved %d ports hardware.\n",
    read_port_hardware,
};

template <typename Record>
int retrieve_records(const RecordList<Record> &list, json_t *params, json_t **debug_message, const char *key,
                     Record *records, int *count, int max) {
    if (key == nullptr || records == nullptr || count == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    LOG_VERBOSE("%s", list.announcement);
    json_t *elements = nullptr;
    const int rc = tavrix_jrpc_utils_parse_input_array(params, debug_message, key, &elements);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    *count = std::min(element_count(elements), max); // not an error: a newer switch may have more ports
    for (int i = 0; i < *count; ++i) {
        LOG_VERBOSE(list.element, i);
        if (!list.read(json_array_get(elements, static_cast<size_t>(i)), debug_message, &records[i])) {
            return TAVRIX_ERR_PARAMETER; // for every bad element: callers compare this status, the log has the reason
        }
    }
    LOG_VERBOSE(list.success, *count);
    return TAVRIX_OK;
}

int read_mac_filter(json_t *element, json_t **debug_message, tavrix_mac_filter *filter) {
    const int rc =
        tavrix_jrpc_utils_retrieve_input_mac_address(element, debug_message, "mac", filter->mac, sizeof filter->mac);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    return tavrix_jrpc_utils_retrieve_input_mac_address(element, debug_message, "mask", filter->mask,
                                                        sizeof filter->mask);
}

} // namespace

// --- Debug message -------------------------------------------------------------------------------------------------

int tavrix_jrpc_utils_set_missing_param_message(json_t **debug_message, const char *key) {
    if (debug_message == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    char text[debug_text_size];
    static_cast<void>(std::snprintf(text, sizeof text, "Missing expected parameter: '%s'", key));
    return explain(debug_message, text);
}

int tavrix_jrpc_utils_set_wrong_type_message(json_t **debug_message, const char *key, const char *type_name) {
    if (debug_message == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    char text[debug_text_size];
    static_cast<void>(std::snprintf(text, sizeof text, "Parameter '%s' is not of type '%s'.", key, type_name));
    return explain(debug_message, text);
}

// --- Typed parsers -------------------------------------------------------------------------------------------------

int tavrix_jrpc_utils_parse_input_bool(json_t *params, json_t **debug_message, const char *key, json_t **out) {
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    return find_member(bool_rule, params, debug_message, key, out);
}

int tavrix_jrpc_utils_parse_input_array(json_t *params, json_t **debug_message, const char *key, json_t **out) {
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    return find_member(array_rule, params, debug_message, key, out);
}

int tavrix_jrpc_utils_parse_input_string(json_t *params, json_t **debug_message, const char *key, char *out,
                                         size_t out_size) {
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    json_t *member = nullptr;
    const int rc = find_member(string_rule, params, debug_message, key, &member);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    std::memset(out, 0, out_size);
    static_cast<void>(std::snprintf(out, out_size, "%s", json_string_value(member)));
    LOG_VERBOSE("Parsed %s: %s\n", key, out_size > 0 ? out : "");
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_parse_input_integer(json_t *params, json_t **debug_message, const char *key, int *out) {
    if (key == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    json_t *member = nullptr;
    const int rc = find_member(integer_rule, params, debug_message, key, &member);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    *out = static_cast<int32_t>(
        static_cast<uint32_t>(json_integer_value(member))); // so that unsigned masks pass unchanged
    LOG_VERBOSE("Parsed %s: %d\n", key, *out);
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_parse_input_uint64_t(json_t *params, json_t **debug_message, const char *key, uint64_t *out) {
    char text[value_text_size] = "";
    const int rc = find_number_text(params, debug_message, key, out, text);
    if (rc == TAVRIX_OK) {
        *out = std::strtoull(text, nullptr, 0); // any other text reads as 0: clients send "" for none
    }
    return rc;
}

int tavrix_jrpc_utils_parse_input_float(json_t *params, json_t **debug_message, const char *key, float *out) {
    char text[value_text_size] = "";
    const int rc = find_number_text(params, debug_message, key, out, text);
    if (rc == TAVRIX_OK) {
        *out = static_cast<float>(std::strtod(text, nullptr)); // any other text reads as 0, as above
    }
    return rc;
}

// --- Field retrievers ----------------------------------------------------------------------------------------------

int tavrix_jrpc_utils_retrieve_input_status(json_t *params, json_t **debug_message, const char *key, char *out,
                                            size_t out_size) {
    return retrieve_text(text_status, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_description(json_t *params, json_t **debug_message, const char *key, char *out,
                                                 size_t out_size) {
    return retrieve_text(text_description, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_vlan_mode(json_t *params, json_t **debug_message, const char *key, char *out,
                                               size_t out_size) {
    return retrieve_text(text_vlan_mode, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_mzu_model(json_t *params, json_t **debug_message, const char *key, char *out,
                                               size_t out_size) {
    return retrieve_text(text_mzu_model, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_mzu_sw_upgrade_filename(json_t *params, json_t **debug_message, const char *key,
                                                             char *out, size_t out_size) {
    return retrieve_text(text_mzu_sw_upgrade_filename, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_mac_address(json_t *params, json_t **debug_message, const char *key, char *out,
                                                 size_t out_size) {
    return retrieve_text(text_mac_address, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_unit_sw_bank(json_t *params, json_t **debug_message, const char *key, char *out,
                                                  size_t out_size) {
    return retrieve_text(text_unit_sw_bank, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_ip_address(json_t *params, json_t **debug_message, const char *key, char *out,
                                                size_t out_size) {
    return retrieve_text(text_ip_address, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_unit_sw_upgrade_filename(json_t *params, json_t **debug_message, const char *key,
                                                              char *out, size_t out_size) {
    return retrieve_text(text_unit_sw_upgrade_filename, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_username(json_t *params, json_t **debug_message, const char *key, char *out,
                                              size_t out_size) {
    return retrieve_text(text_username, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_password(json_t *params, json_t **debug_message, const char *key, char *out,
                                              size_t out_size) {
    return retrieve_text(text_password, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_date(json_t *params, json_t **debug_message, const char *key, char *out,
                                          size_t out_size) {
    return retrieve_text(text_date, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_time(json_t *params, json_t **debug_message, const char *key, char *out,
                                          size_t out_size) {
    return retrieve_text(text_time, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_entity_name(json_t *params, json_t **debug_message, const char *key, char *out,
                                                 size_t out_size) {
    return retrieve_text(text_entity_name, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_entity_extension(json_t *params, json_t **debug_message, const char *key,
                                                      char *out, size_t out_size) {
    return retrieve_text(text_entity_extension, params, debug_message, key, out, out_size);
}

int tavrix_jrpc_utils_retrieve_input_vlan_id(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_vlan_id, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_unit_id(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_unit_id, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_periodic_interval(json_t *params, json_t **debug_message, const char *key,
                                                       int *out) {
    return retrieve_number(number_periodic_interval, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_laser_id(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_laser_id, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_olt_id(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_olt_id, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_onu_id(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_onu_id, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_port_number(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_port_number, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_port_link_speed(json_t *params, json_t **debug_message, const char *key,
                                                     int *out) {
    return retrieve_number(number_port_link_speed, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_enable(json_t *params, json_t **debug_message, const char *key, int *out) {
    return retrieve_number(number_enable, params, debug_message, key, out);
}

int tavrix_jrpc_utils_retrieve_input_port_id(json_t *params, json_t **debug_message, const char *key, char *out,
                                             size_t out_size, bool allow_all, bool allow_mzu_id, bool allow_c_port,
                                             bool allow_d_port) {
    int rc = fetch_text("Retrieving port id...\n", params, debug_message, key, out, out_size);
    if (rc == TAVRIX_OK) {
        rc = check_port_id(out, allow_all, allow_mzu_id, allow_c_port, allow_d_port);
    }
    if (rc == TAVRIX_OK) {
        LOG_DEBUG("Retrieved and validated port id: %s\n", out);
    }
    return rc;
}

int tavrix_jrpc_utils_retrieve_input_mzu_id(json_t *params, json_t **debug_message, const char *key, char *out,
                                            size_t out_size, bool allow_all) {
    const int rc = fetch_text("Retrieving mzu id...\n", params, debug_message, key, out, out_size);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const bool is_all = allow_all && std::strcmp(out, everything) == 0;
    if (!is_all && validate_mzu_id(out) != 0) {
        return TAVRIX_ERR_VALIDATION;
    }
    LOG_DEBUG("Retrieved and validated mzu id: %s\n", out);
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_retrieve_input_vlan_ids(json_t *params, json_t ** /*debug_message*/, const char *key, int *ids,
                                              int *count) {
    if (key == nullptr || ids == nullptr || count == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    // No announcement, which would be repeated for each port of a list, and no debug message, because the handler's own
    // names the port.
    const json_t *list = json_object_get(params, key);
    if (list == nullptr) {
        LOG_ERROR("Failed, vlan ID is null.\n");
        return TAVRIX_ERR_PARAMETER_NOT_FOUND;
    }
    *count = element_count(list); // 0 for anything but an array: clients send null for no VLANs
    if (*count > max_vlan_ids) {
        return TAVRIX_ERR_TOO_MANY_VLAN_IDS;
    }
    for (int i = 0; i < *count; ++i) {
        const json_t *element = json_array_get(list, static_cast<size_t>(i));
        const json_int_t value = json_integer_value(element); // 0 for anything but an integer, refused below
        const int vlan_id = static_cast<int32_t>(static_cast<uint32_t>(value));
        if (element == nullptr || validate_vlan_id(vlan_id) != 0) {
            return TAVRIX_ERR_INVALID_PARAMETER; // TAVRIX_ERR_VALIDATION would reach clients as "Unknown Error"
        }
        ids[i] = vlan_id;
    }
    return TAVRIX_OK;
}

// --- Composite inputs ----------------------------------------------------------------------------------------------

int tavrix_jrpc_utils_retrieve_input_ports(json_t *params, json_t **debug_message, const char *key,
                                           tavrix_port_input *records, int *count, int max) {
    return retrieve_records(port_list, params, debug_message, key, records, count, max);
}

int tavrix_jrpc_utils_retrieve_input_ports_hardware(json_t *params, json_t **debug_message, const char *key,
                                                    tavrix_port_hardware_input *records, int *count, int max) {
    return retrieve_records(port_hardware_list, params, debug_message, key, records, count, max);
}

int tavrix_jrpc_utils_retrieve_input_mac_filters(json_t *params, json_t **debug_message, const char *key,
                                                 tavrix_mac_filter **filters, int *count, int first, int second) {
    if (tavrix_check_for_null(5, params, debug_message, key, filters, count) != TAVRIX_OK) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    LOG_VERBOSE("jrpc utils input mac filters\n");
    json_t *list = nullptr;
    const int rc = tavrix_jrpc_utils_parse_input_array(params, debug_message, key, &list);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    *count = element_count(list);
    // One element even for an empty list: to callers, as to the test below, a null array means that memory ran out.
    const size_t allocated = static_cast<size_t>(std::max(*count, 1));
    std::unique_ptr<tavrix_mac_filter, tavrix::FreeMemory> owner(
        static_cast<tavrix_mac_filter *>(std::calloc(allocated, sizeof(tavrix_mac_filter))));
    if (!owner) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    tavrix_mac_filter *records = owner.get();
    for (size_t i = 0; i < allocated; ++i) {
        records[i].first = first;
        records[i].second = second;
    }
    for (int i = 0; i < *count; ++i) {
        const int status = read_mac_filter(json_array_get(list, static_cast<size_t>(i)), debug_message, &records[i]);
        if (status != TAVRIX_OK) {
            return status;
        }
    }
    *filters = owner.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_retrieve_input_macaddr_allowed(json_t *params, json_t **debug_message, const char *key, char *out,
                                                     size_t out_size) {
    const int rc = fetch_text("Retrieving mac address...\n", params, debug_message, key, out, out_size);
    if (rc != TAVRIX_OK || std::strcmp(out, no_mac) == 0) {
        return rc; // without the success line, which says that an address was validated
    }
    if (tavrix_validate_and_format_mac_addr_string(out) != TAVRIX_OK) {
        return TAVRIX_ERR_VALIDATION;
    }
    LOG_DEBUG("Retrieved and validated mac address allowed: %s\n", out);
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_retrieve_input_alias(json_t *params, json_t **debug_message, const char *key, char *out,
                                           size_t out_size) {
    const int rc = fetch_text("Retrieving alias\n", params, debug_message, key, out, out_size);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (std::strlen(out) > max_alias_length) {
        if (debug_message != nullptr) {
            json_decref(*debug_message); // replaced: the user who typed the alias has to see its limit
            *debug_message = json_pack("{s:s}", "message", "Alias must be 8 characters or fewer.");
        }
        return TAVRIX_ERR_VALIDATION;
    }
    static_cast<void>(tavrix_str_to_upper(out));
    LOG_DEBUG("Retrieved and validated alias: %s\n", out);
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_parse_input_secure_option(json_t *params, json_t **debug_message, const char *key, int *out) {
    if (key == nullptr || out == nullptr) {
        LOG_ERROR("tavrix_jrpc_utils_parse_input_secure_option received NULL input"); // no line end: filters match it
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    char word[value_text_size] = "";
    if (tavrix_jrpc_utils_parse_input_string(params, debug_message, key, word, sizeof word) != TAVRIX_OK) {
        return TAVRIX_ERR_INVALID_PARAMETER; // for every failure: callers compare no other status
    }
    LOG_CONFIG("Vaultline - %s: <%s>\n", key, word);
    if (tavrix_str_to_enum(out, word, tavrix_secure_option_strings) != TAVRIX_OK) {
        LOG_ERROR("Invalid parameter <%s> for field: <%s>\n", word, key);
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    return TAVRIX_OK;
}

int tavrix_jrpc_utils_populate_json_mac_addresses_array(json_t **array, char (*macs)[20], int count) {
    if (array == nullptr || (macs == nullptr && count != 0)) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    *array = nullptr;
    Json list(json_array());
    if (!list) {
        LOG_ERROR("Unable to create JSON array for MAC addresses\n");
        return TAVRIX_ERR_NO_MEMORY;
    }
    const int listed = tavrix_get_num_macs_to_list(count);
    for (int i = 0; i < listed; ++i) {
        const Json entry(json_stringn(macs[i], strnlen(macs[i], sizeof macs[i])));
        if (!entry) {
            LOG_WARNING("Failed to create JSON object for MAC address %d\n", i);
            break; // the answer is what was listed so far: part of the list is more use to a client than none
        }
        if (json_array_append(list.get(), entry.get()) != 0) {
            LOG_ERROR("Failed to append MAC address %d to array\n", i);
            return TAVRIX_ERR_GENERAL;
        }
    }
    *array = list.release();
    return TAVRIX_OK;
}
