/*
 * Parameters: one row of the kind table for each kind, the check of a request by its method's rows, the words of a
 * refusal.
 *
 * The library's retrievers decide. The kit looks first at what they let through by their own rules: numbers that do not
 * fit into 32 bits, which are cut there, control characters, values that read as an empty list.
 */
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "internal.h"
#include "tavrix_jrpc_utils.h"
#include "tavrix_utils.h"

namespace kit {

namespace {

constexpr char unit_name[] = "service_params";
constexpr size_t text_slack = 32; // a retriever may write a longer form: colons between a MAC address's pairs
constexpr int default_record_count = 128;
constexpr size_t path_size = 128;

using TextRetriever = int (*)(json_t *, json_t **, const char *, char *, size_t);
using IntegerRetriever = int (*)(json_t *, json_t **, const char *, int *);

constexpr const char *status_words[] = {"enable", "disable", nullptr};
constexpr const char *vlan_mode_words[] = {"local", "access", "trunk", nullptr};
constexpr const char *sw_bank_words[] = {"all", "current", "previous", "default", nullptr};

// --- Kinds ---------------------------------------------------------------------------------------------------------

struct KindRow {
    tavrix_kind kind;
    Storage storage;
    TextRetriever text;       ///< for stored_text
    IntegerRetriever integer; ///< for stored_integer
    int64_t lowest;           ///< of an integer: what the retriever lets through
    int64_t highest;
    const char *const *words;     ///< what is let through, where that is a list of words
    const char *const *positions; ///< where the word has its number; null: `words`
    const char *allowed;          ///< a noun: what is let through, for people
    const char *example;          ///< of a text: a value that is let through, if the row does not decide
};

constexpr KindRow other(tavrix_kind kind, Storage storage, const char *allowed, const char *example = nullptr) {
    return {kind, storage, nullptr, nullptr, INT32_MIN, INT32_MAX, nullptr, nullptr, allowed, example};
}
constexpr KindRow text(tavrix_kind kind, TextRetriever retriever, const char *allowed, const char *example = nullptr) {
    return {kind, stored_text, retriever, nullptr, 0, 0, nullptr, nullptr, allowed, example};
}
constexpr KindRow word(tavrix_kind kind, TextRetriever retriever, const char *const *words,
                       const char *const *positions) {
    return {kind, stored_text, retriever, nullptr, 0, 0, words, positions, nullptr, nullptr};
}
constexpr KindRow integer(tavrix_kind kind, IntegerRetriever retriever, int64_t lowest, int64_t highest) {
    return {kind, stored_integer, nullptr, retriever, lowest, highest, nullptr, nullptr, nullptr, nullptr};
}

constexpr KindRow kinds[] = {
    other(TAVRIX_KIND_NONE, stored_json, ""),
    text(TAVRIX_KIND_TEXT, tavrix_jrpc_utils_parse_input_string, "a text", "text"),
    integer(TAVRIX_KIND_INTEGER, tavrix_jrpc_utils_parse_input_integer, INT32_MIN, INT32_MAX),
    other(TAVRIX_KIND_BOOLEAN, stored_boolean, "true or false"),
    other(TAVRIX_KIND_NUMBER, stored_real, "a number"),
    other(TAVRIX_KIND_UINT64, stored_uint64, "a text with a number of 64 bits, such as \"4711\" or \"0x1267\"", "4711"),
    other(TAVRIX_KIND_FLOAT, stored_real, "a text with a number, such as \"2.5\"", "2.5"),
    text(TAVRIX_KIND_WORD, tavrix_jrpc_utils_parse_input_string, nullptr),
    other(TAVRIX_KIND_ARRAY, stored_json, "an array"),
    other(TAVRIX_KIND_OBJECT, stored_json, "an object"),
    other(TAVRIX_KIND_JSON, stored_json, "any value"),
    text(TAVRIX_KIND_PORT_ID, nullptr, nullptr),
    text(TAVRIX_KIND_MZU_ID, nullptr, "a unit: c1 to c128", "c1"),
    word(TAVRIX_KIND_STATUS, tavrix_jrpc_utils_retrieve_input_status, status_words, tavrix_admin_status_strings),
    text(TAVRIX_KIND_DESCRIPTION, tavrix_jrpc_utils_retrieve_input_description,
         "a text of up to 50 characters without double quotes", "Uplink"),
    word(TAVRIX_KIND_VLAN_MODE, tavrix_jrpc_utils_retrieve_input_vlan_mode, vlan_mode_words, tavrix_vlan_mode_strings),
    word(TAVRIX_KIND_MZU_MODEL, tavrix_jrpc_utils_retrieve_input_mzu_model, tavrix_mzu_model_strings, nullptr),
    text(TAVRIX_KIND_MZU_SW_UPGRADE_FILENAME, tavrix_jrpc_utils_retrieve_input_mzu_sw_upgrade_filename,
         "a file's name, one line", "zqn-1.2.3-004.img"),
    text(TAVRIX_KIND_UNIT_SW_UPGRADE_FILENAME, tavrix_jrpc_utils_retrieve_input_unit_sw_upgrade_filename,
         "a file's name with zqn and a version, such as zqn-1.2.3-004.img", "zqn-1.2.3-004.img"),
    word(TAVRIX_KIND_UNIT_SW_BANK, tavrix_jrpc_utils_retrieve_input_unit_sw_bank, sw_bank_words, nullptr),
    text(TAVRIX_KIND_MAC_ADDRESS, tavrix_jrpc_utils_retrieve_input_mac_address,
         "a MAC address, such as 00:1A:2B:3C:4D:5E", "00:1A:2B:3C:4D:5E"),
    text(TAVRIX_KIND_MACADDR_ALLOWED, tavrix_jrpc_utils_retrieve_input_macaddr_allowed,
         "none, or a MAC address such as 00:1A:2B:3C:4D:5E", "none"),
    text(TAVRIX_KIND_IP_ADDRESS, tavrix_jrpc_utils_retrieve_input_ip_address, "an IPv4 address, such as 192.168.1.10",
         "192.168.1.10"),
    text(TAVRIX_KIND_USERNAME, tavrix_jrpc_utils_retrieve_input_username,
         "a user name: 4 to 15 letters and digits, none of the system's own", "keeper1"),
    text(TAVRIX_KIND_PASSWORD, tavrix_jrpc_utils_retrieve_input_password,
         "a password: 4 to 15 letters, digits, and ! ? _ @ -", "Secret-1"),
    text(TAVRIX_KIND_DATE, tavrix_jrpc_utils_retrieve_input_date, "a date: YYYY-MM-DD, from the year 2000",
         "2026-01-31"),
    text(TAVRIX_KIND_TIME, tavrix_jrpc_utils_retrieve_input_time, "a time: HH:MM, 00:00 to 23:59", "12:30"),
    text(TAVRIX_KIND_ENTITY_NAME, tavrix_jrpc_utils_retrieve_input_entity_name, "a name", "attic"),
    text(TAVRIX_KIND_ENTITY_EXTENSION, tavrix_jrpc_utils_retrieve_input_entity_extension,
         "a text of up to 1000 characters", "text"),
    text(TAVRIX_KIND_ALIAS, tavrix_jrpc_utils_retrieve_input_alias, "a text of up to 8 characters", "ATTIC"),
    word(TAVRIX_KIND_SECURE_OPTION, nullptr, tavrix_secure_option_strings, nullptr),
    integer(TAVRIX_KIND_VLAN_ID, tavrix_jrpc_utils_retrieve_input_vlan_id, 1, 4092),
    integer(TAVRIX_KIND_UNIT_ID, tavrix_jrpc_utils_retrieve_input_unit_id, 1, 1),
    integer(TAVRIX_KIND_PERIODIC_INTERVAL, tavrix_jrpc_utils_retrieve_input_periodic_interval, 1, 3600),
    integer(TAVRIX_KIND_LASER_ID, tavrix_jrpc_utils_retrieve_input_laser_id, 0, 1),
    integer(TAVRIX_KIND_OLT_ID, tavrix_jrpc_utils_retrieve_input_olt_id, 0, 1),
    integer(TAVRIX_KIND_ONU_ID, tavrix_jrpc_utils_retrieve_input_onu_id, -1, 128),
    integer(TAVRIX_KIND_PORT_NUMBER, tavrix_jrpc_utils_retrieve_input_port_number, 1, 128),
    integer(TAVRIX_KIND_PORT_LINK_SPEED, tavrix_jrpc_utils_retrieve_input_port_link_speed, INT32_MIN, INT32_MAX),
    integer(TAVRIX_KIND_ENABLE, tavrix_jrpc_utils_retrieve_input_enable, INT32_MIN, INT32_MAX),
    other(TAVRIX_KIND_VLAN_IDS, stored_integers, nullptr),
    other(TAVRIX_KIND_PORTS, stored_ports,
          "an array of ports: port_number 1 to 128, port_status, poe_status, link_status, link_speed, vlan_mode, "
          "vlan_ids"),
    other(TAVRIX_KIND_PORTS_HARDWARE, stored_ports_hardware,
          "an array of ports: port_number 1 to 128, poe_status, link_status, link_speed"),
    other(TAVRIX_KIND_MAC_FILTERS, stored_mac_filters, "an array of filters: mac and mask, two MAC addresses each"),
};
static_assert(sizeof kinds / sizeof kinds[0] == TAVRIX_KIND_COUNT, "one row for each kind");

constexpr bool stand_in_order() {
    for (size_t i = 0; i < sizeof kinds / sizeof kinds[0]; ++i) {
        if (kinds[i].kind != static_cast<tavrix_kind>(i)) {
            return false;
        }
    }
    return true;
}
static_assert(stand_in_order(), "the rows stand in the order of the kinds");

} // namespace

// --- What is allowed -----------------------------------------------------------------------------------------------

/** Of numbers or records: a `max` of 0 is the kind's own. */
static bool is_list(tavrix_kind kind) { return kinds[kind].storage >= stored_integers; }

const char *const *words_allowed(const tavrix_service_param *row) {
    return row->kind == TAVRIX_KIND_WORD ? row->words : kinds[row->kind].words;
}

bool has_bounds(const tavrix_service_param *row) { return row->min != 0 || row->max != 0; }

int64_t lowest_of(const tavrix_service_param *row) { return has_bounds(row) ? row->min : kinds[row->kind].lowest; }
int64_t highest_of(const tavrix_service_param *row) { return has_bounds(row) ? row->max : kinds[row->kind].highest; }

int most_records(const tavrix_service_param *row) {
    const int most_of_kind = row->kind == TAVRIX_KIND_VLAN_IDS ? max_vlan_ids : default_record_count;
    return row->max > 0 && row->max < INT32_MAX ? static_cast<int>(row->max) : most_of_kind;
}

namespace {

// --- What is allowed, in words -------------------------------------------------------------------------------------

/** A text of bounded length that grows at its end. */
struct Words {
    char text[allowed_size] = "";
    size_t length = 0;

    void add(const char *format, ...) TAVRIX_PRINTF(2, 3) {
        va_list arguments;
        va_start(arguments, format);
        const int count = std::vsnprintf(text + length, sizeof text - length, format, arguments);
        va_end(arguments);
        if (count > 0) {
            length += static_cast<size_t>(count);
            length = length < sizeof text ? length : sizeof text - 1;
        }
    }
};

void add_port_forms(unsigned flags, Words *words) {
    const struct {
        unsigned flag;
        const char *form;
    } forms[] = {{TAVRIX_ALLOW_C_PORT, "a port c1-1 to c128-99"},
                 {TAVRIX_ALLOW_D_PORT, "a port d1 to d4"},
                 {TAVRIX_ALLOW_MZU, "a unit c1 to c128"},
                 {TAVRIX_ALLOW_ALL, "all"}};
    const char *separator = "";
    for (const auto &form : forms) {
        if ((flags & form.flag) != 0) {
            words->add("%s%s", separator, form.form);
            separator = ", ";
        }
    }
}

void add_bounds(const tavrix_service_param *row, const char *unit, Words *words) {
    if (has_bounds(row)) {
        words->add(" of %lld to %lld %s", static_cast<long long>(row->min), static_cast<long long>(row->max), unit);
    }
}

void add_least(const tavrix_service_param *row, Words *words) {
    if (row->min > 0) {
        words->add(", at least %lld", static_cast<long long>(row->min));
    }
}

void describe_allowed(const tavrix_service_param *row, Words *words) {
    const KindRow &kind = kinds[row->kind];
    if (const char *const *list = words_allowed(row); list != nullptr) {
        const char *separator = "one of ";
        for (; *list != nullptr; ++list) {
            words->add("%s%s", separator, *list);
            separator = ", ";
        }
    } else if (row->kind == TAVRIX_KIND_PORT_ID) {
        add_port_forms(row->flags, words);
    } else if (kind.storage == stored_integer) {
        words->add("%lld to %lld", static_cast<long long>(lowest_of(row)), static_cast<long long>(highest_of(row)));
    } else if (row->kind == TAVRIX_KIND_VLAN_IDS) {
        words->add("an array of up to %d VLAN ids, each 1 to 4092", most_records(row));
        add_least(row, words);
    } else {
        words->add("%s", kind.allowed);
        if (row->kind == TAVRIX_KIND_MZU_ID && (row->flags & TAVRIX_ALLOW_ALL) != 0) {
            words->add(", or all");
        } else if (row->kind == TAVRIX_KIND_TEXT) {
            add_bounds(row, "characters", words);
        } else if (row->kind == TAVRIX_KIND_ARRAY) {
            add_bounds(row, "elements", words);
        } else if (row->kind == TAVRIX_KIND_NUMBER && has_bounds(row)) {
            words->add(" from %lld to %lld", static_cast<long long>(row->min), static_cast<long long>(row->max));
        } else if (is_list(row->kind)) {
            add_least(row, words);
            words->add(", at most %d", most_records(row));
        }
    }
}

// --- Refusals ------------------------------------------------------------------------------------------------------

/** The state of one check. */
struct Check {
    Arena *arena;
    json_t **data;                       ///< where the refusal goes
    const tavrix_service_method *strict; ///< the method, where members without a row are refused; or null
};

/** One row, the object that holds its value, and the value; `path` names it for people. */
struct Place {
    const tavrix_service_param *row;
    json_t *object;
    json_t *value; ///< null when it is absent
    const char *path;
};

/** 17 digits tell every real from the next, and show 4.9999 as 4.9999000000000002: 15 are enough for what people write.
 */
Text render(const json_t *value) {
    constexpr size_t flags = wire_flags | JSON_ENCODE_ANY;
    if (json_is_real(value)) {
        Text brief(json_dumps(value, flags | JSON_REAL_PRECISION(15)));
        if (brief && std::strtod(brief.get(), nullptr) == json_real_value(value)) {
            return brief;
        }
    }
    return Text(json_dumps(value, flags));
}

/** A value for a person: cut when it is long. */
void show_value(const json_t *value, Words *words) {
    constexpr size_t shown = 60;
    const Text rendering = render(value);
    if (rendering) {
        words->add("%.*s%s", static_cast<int>(shown), rendering.get(),
                   std::strlen(rendering.get()) > shown ? "..." : "");
    }
}

void explain(const Place &place, const char *complaint, const char *allowed, Words *reason) {
    if (place.value == nullptr) {
        reason->add("%s is missing: %s", place.path, allowed);
        return;
    }
    reason->add("%s: ", place.path);
    if (place.row->kind != TAVRIX_KIND_PASSWORD) {
        show_value(place.value, reason);
        reason->add(" ");
    }
    const bool is_range = kinds[place.row->kind].storage == stored_integer;
    if (complaint != nullptr) {
        reason->add("%s", complaint);
    } else if (is_range && json_is_integer(place.value)) {
        reason->add("is not in %s", allowed);
    } else {
        reason->add("is not %s%s", is_range ? "an integer in " : "", allowed);
    }
}

void set_text(json_t *object, const char *key, const char *text) {
    json_object_set_new(object, key, json_string(text)); // without memory the member is missing
}

int status_of_refusal(int status) {
    return status == TAVRIX_ERR_VALIDATION || status == TAVRIX_ERR_PARAMETER || status == TAVRIX_ERR_NULL_INPUT
               ? TAVRIX_ERR_INVALID_PARAMETER
               : status;
}

/**
 * Makes the error's data of a refused parameter: what the library says, or else the reason; the reason; the parameter,
 * what came and what is allowed. `library` is taken.
 */
int refuse(const Check &check, const Place &place, int status = TAVRIX_ERR_INVALID_PARAMETER, json_t *library = nullptr,
           const char *complaint = nullptr) {
    const Json library_owner(library);
    Words reason;
    Words allowed;
    describe_allowed(place.row, &allowed);
    explain(place, complaint, allowed.text, &reason);
    const char *message = json_string_value(json_object_get(library, "message"));
    Json data(json_object());
    set_text(data.get(), "message", message != nullptr ? message : reason.text);
    set_text(data.get(), "reason", reason.text);
    set_text(data.get(), "parameter", place.path);
    set_text(data.get(), "allowed", allowed.text);
    if (place.value != nullptr && place.row->kind != TAVRIX_KIND_PASSWORD) {
        Words shown;
        show_value(place.value, &shown);
        const bool is_short =
            json_is_number(place.value) || (json_is_string(place.value) && json_string_length(place.value) < 60);
        json_object_set_new(data.get(), "value", is_short ? json_copy(place.value) : json_string(shown.text));
    }
    *check.data = data.release();
    return status_of_refusal(status);
}

// --- One value -----------------------------------------------------------------------------------------------------

int check_rows_of(const Check &check, const tavrix_service_param *rows, json_t *object, const char *path,
                  Value *values);

/** Lets a retriever of the library's decide. */
template <class Retriever, class... Out>
int retrieve(const Check &check, const Place &place, Retriever retriever, Out... out) {
    json_t *library = nullptr;
    const int rc = retriever(place.object, &library, place.row->name, out...);
    return rc == TAVRIX_OK ? TAVRIX_OK : refuse(check, place, rc, library);
}

/** A number that 32 bits do not hold, anywhere in the value: the library would cut it to some other number. */
bool holds_wide_integer(const json_t *value, size_t depth = 0) {
    const json_int_t number = json_integer_value(value); // 0 for another type
    bool wide = number < INT32_MIN || number > INT32_MAX;
    for (size_t i = 0; i < json_array_size(value) && !wide && depth < max_depth; ++i) {
        wide = holds_wide_integer(json_array_get(value, i), depth + 1);
    }
    const char *key = nullptr;
    json_t *member = nullptr;
    json_object_foreach(const_cast<json_t *>(value), key, member) {
        wide = wide || (depth < max_depth && holds_wide_integer(member, depth + 1));
    }
    return wide;
}

int retrieve_text(const Check &check, const Place &place, char *out, size_t size) {
    const tavrix_service_param &row = *place.row;
    const bool all = (row.flags & TAVRIX_ALLOW_ALL) != 0;
    int position = 0;
    switch (row.kind) {
    case TAVRIX_KIND_PORT_ID:
        return retrieve(check, place, tavrix_jrpc_utils_retrieve_input_port_id, out, size, all,
                        (row.flags & TAVRIX_ALLOW_MZU) != 0, (row.flags & TAVRIX_ALLOW_C_PORT) != 0,
                        (row.flags & TAVRIX_ALLOW_D_PORT) != 0);
    case TAVRIX_KIND_MZU_ID:
        return retrieve(check, place, tavrix_jrpc_utils_retrieve_input_mzu_id, out, size, all);
    case TAVRIX_KIND_SECURE_OPTION:
        std::snprintf(out, size, "%s", json_is_string(place.value) ? json_string_value(place.value) : "");
        return retrieve(check, place, tavrix_jrpc_utils_parse_input_secure_option, &position);
    default:
        return retrieve(check, place, kinds[row.kind].text, out, size);
    }
}

/** -1 when the text is none of the words. */
int position_of(const char *const *words, const char *text) {
    int i = 0;
    while (words[i] != nullptr && std::strcmp(words[i], text) != 0) {
        ++i;
    }
    return words[i] != nullptr ? i : -1;
}

/** In UTF-8 each character has one byte that continues no other's: a schema's minLength and maxLength count those. */
int64_t count_characters(const char *text) {
    int64_t count = 0;
    for (; *text != '\0'; ++text) {
        count += (static_cast<unsigned char>(*text) & 0xc0) != 0x80 ? 1 : 0;
    }
    return count;
}

int check_text(const Check &check, const Place &place, Value *value) {
    const tavrix_service_param &row = *place.row;
    const size_t length = json_string_length(place.value); // 0 for another type
    const char *given = json_string_value(place.value);
    if (given != nullptr && (row.flags & TAVRIX_MULTILINE) == 0 && has_control_characters(given)) {
        return refuse(check, place, TAVRIX_ERR_INVALID_PARAMETER, nullptr, "holds a control character");
    }
    char *out = static_cast<char *>(arena_take(check.arena, length + text_slack));
    if (out == nullptr) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    const int rc = retrieve_text(check, place, out, length + text_slack);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    value->text = out;
    const bool is_bounded = row.kind == TAVRIX_KIND_TEXT && has_bounds(&row);
    const int64_t count = is_bounded ? count_characters(out) : 0;
    const bool fits = !is_bounded || (count >= row.min && count <= row.max);
    const char *const *positions = kinds[row.kind].positions;
    const char *const *words = positions != nullptr ? positions : words_allowed(&row);
    value->integer = words != nullptr ? position_of(words, out) : 0;
    return fits && value->integer >= 0 ? TAVRIX_OK : refuse(check, place);
}

int check_integer(const Check &check, const Place &place, Value *value) {
    const json_int_t given = json_integer_value(place.value); // 0 for another type
    const bool is_plain = place.row->kind == TAVRIX_KIND_INTEGER;
    if (json_is_integer(place.value) && !is_plain && holds_wide_integer(place.value)) {
        return refuse(check, place);
    }
    int number = 0;
    const int rc = retrieve(check, place, kinds[place.row->kind].integer, &number);
    const bool fits = given >= lowest_of(place.row) && given <= highest_of(place.row);
    value->integer = is_plain ? static_cast<int64_t>(given) : number;
    return rc == TAVRIX_OK && !fits ? refuse(check, place) : rc;
}

int check_boolean(const Check &check, const Place &place, Value *value) {
    json_t *found = nullptr;
    const int rc = retrieve(check, place, tavrix_jrpc_utils_parse_input_bool, &found);
    value->integer = json_is_true(found) ? 1 : 0;
    return rc;
}

/** The library takes what is no number for 0: the text has to be one from its beginning to its end. */
bool is_number_text(tavrix_kind kind, const char *text) {
    const bool is_whole = kind == TAVRIX_KIND_UINT64;
    if (*text == '\0' || std::strchr(is_whole ? "0123456789" : "0123456789+-.", *text) == nullptr) {
        return false; // blanks, and words such as nan
    }
    char *end = nullptr;
    errno = 0;
    const double number = is_whole ? static_cast<double>(std::strtoull(text, &end, 0)) : std::strtod(text, &end);
    const bool fits = is_whole || std::fabs(number) <= static_cast<double>(FLT_MAX); // false for what is no number
    return fits && *end == '\0' && errno == 0 && std::strlen(text) <= max_number_text;
}

int check_number_text(const Check &check, const Place &place, Value *value) {
    const char *given = json_string_value(place.value);
    if (given != nullptr && !is_number_text(place.row->kind, given)) {
        return refuse(check, place);
    }
    float real = 0;
    const int rc = place.row->kind == TAVRIX_KIND_UINT64
                       ? retrieve(check, place, tavrix_jrpc_utils_parse_input_uint64_t, &value->unsigned_integer)
                       : retrieve(check, place, tavrix_jrpc_utils_parse_input_float, &real);
    value->real = static_cast<double>(real);
    return rc;
}

int refuse_type(const Check &check, const Place &place) {
    return refuse(check, place, place.value == nullptr ? TAVRIX_ERR_PARAMETER_NOT_FOUND : TAVRIX_ERR_INVALID_PARAMETER,
                  nullptr);
}

int check_array(const Check &check, const Place &place) {
    json_t *array = nullptr;
    const tavrix_service_param &row = *place.row;
    int rc = retrieve(check, place, tavrix_jrpc_utils_parse_input_array, &array);
    const auto count = static_cast<int64_t>(json_array_size(array));
    if (rc == TAVRIX_OK && has_bounds(&row) && (count < row.min || count > row.max)) {
        return refuse(check, place);
    }
    for (size_t i = 0; rc == TAVRIX_OK && row.members != nullptr && i < json_array_size(array); ++i) {
        char path[path_size];
        std::snprintf(path, sizeof path, "%s[%zu]", place.path, i);
        json_t *element = json_array_get(array, i);
        const bool bare = is_bare(row.members);
        const Json holder(bare ? json_pack("{s:O}", "", element) : json_incref(element));
        rc = bare || json_is_object(element) ? check_rows_of(check, row.members, holder.get(), path, nullptr)
                                             : refuse(check, place, TAVRIX_ERR_INVALID_PARAMETER, nullptr,
                                                      "holds an element that is not an object");
    }
    return rc;
}

int check_json(const Check &check, const Place &place, Value * /*value*/) {
    if (place.row->kind == TAVRIX_KIND_ARRAY) {
        return check_array(check, place);
    }
    if (place.value == nullptr || (place.row->kind == TAVRIX_KIND_OBJECT && !json_is_object(place.value))) {
        return refuse_type(check, place);
    }
    if (place.row->kind != TAVRIX_KIND_OBJECT || place.row->members == nullptr) {
        return TAVRIX_OK;
    }
    return check_rows_of(check, place.row->members, place.value, place.path, nullptr);
}

bool is_within_bounds(const json_t *number, const tavrix_service_param &row) {
    if (!has_bounds(&row)) {
        return true;
    }
    if (json_is_integer(number)) { // which a real might round
        return json_integer_value(number) >= row.min && json_integer_value(number) <= row.max;
    }
    const double value = json_real_value(number);
    return value >= static_cast<double>(row.min) && value <= static_cast<double>(row.max);
}

int check_real(const Check &check, const Place &place, Value *value) {
    if (place.row->kind == TAVRIX_KIND_FLOAT) {
        return check_number_text(check, place, value);
    }
    if (!json_is_number(place.value)) {
        return refuse_type(check, place);
    }
    value->real = json_number_value(place.value);
    return is_within_bounds(place.value, *place.row) ? TAVRIX_OK : refuse(check, place);
}

// --- Lists of records ----------------------------------------------------------------------------------------------

int check_vlan_ids(const Check &check, const Place &place, Value *value) {
    bool all_integers = json_is_array(place.value);
    for (size_t i = 0; i < json_array_size(place.value); ++i) {
        all_integers = all_integers && json_is_integer(json_array_get(place.value, i));
    }
    if (place.value != nullptr && (!all_integers || holds_wide_integer(place.value))) {
        return refuse(check, place);
    }
    auto *ids = static_cast<int *>(arena_take(check.arena, max_vlan_ids * sizeof(int)));
    if (ids == nullptr) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    const int rc = retrieve(check, place, tavrix_jrpc_utils_retrieve_input_vlan_ids, ids, &value->count);
    const bool fits = value->count >= place.row->min && value->count <= most_records(place.row);
    value->records = ids;
    return rc == TAVRIX_OK && !fits ? refuse(check, place) : rc;
}

template <class Record, auto retriever>
int check_records(const Check &check, const Place &place, Value *value) {
    const size_t count = json_array_size(place.value);
    // The library cuts a list that is too long, and numbers that are too large, without a word.
    if (json_is_array(place.value) &&
        (holds_wide_integer(place.value) || count > static_cast<size_t>(most_records(place.row)) ||
         static_cast<int64_t>(count) < place.row->min)) {
        return refuse(check, place);
    }
    auto *records = static_cast<Record *>(arena_take(check.arena, (count + 1) * sizeof(Record)));
    if (records == nullptr) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    value->records = records;
    return retrieve(check, place, retriever, records, &value->count, static_cast<int>(count));
}

int retrieve_mac_filters(json_t *object, json_t **library, const char *key, tavrix_mac_filter *records, int *count,
                         int /*max*/) {
    tavrix_mac_filter *filters = nullptr;
    const int rc = tavrix_jrpc_utils_retrieve_input_mac_filters(object, library, key, &filters, count, 0, 0);
    if (rc == TAVRIX_OK) {
        std::memcpy(records, filters, static_cast<size_t>(*count) * sizeof *records);
        std::free(filters);
    }
    return rc;
}

// --- Rows ----------------------------------------------------------------------------------------------------------

/** By how the value is stored. */
constexpr int (*checks[])(const Check &check, const Place &place, Value *value) = {
    check_text,
    check_integer,
    check_number_text,
    check_real,
    check_boolean,
    check_json,
    check_vlan_ids,
    check_records<tavrix_port_input, tavrix_jrpc_utils_retrieve_input_ports>,
    check_records<tavrix_port_hardware_input, tavrix_jrpc_utils_retrieve_input_ports_hardware>,
    check_records<tavrix_mac_filter, retrieve_mac_filters>,
};
static_assert(stored_uint64 == 2 && stored_json == 5 && stored_mac_filters == sizeof checks / sizeof checks[0] - 1,
              "one for each way, in their order");

size_t count_rows(const tavrix_service_param *rows) {
    size_t count = 0;
    while (rows != nullptr && rows[count].name != nullptr) {
        ++count;
    }
    return count;
}

/** The whole path of a member of a value. */
struct Path {
    Path(const char *outer, const char *name, const char *suffix = "") {
        const char *separator = *outer != '\0' && *name != '\0' ? "." : "";
        std::snprintf(text, sizeof text, "%s%s%s%s", outer, separator, name, suffix);
    }
    char text[path_size];
};

int refuse_unknown(const Check &check, const tavrix_service_param *rows, json_t *object, const char *path) {
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(object, key, value) {
        if (find_row(rows, key) == nullptr) {
            const Path own_path(path, key);
            const Printable name(own_path.text);
            Words reason;
            reason.add("%s: %s has no such parameter", name.text, check.strict->name);
            *check.data =
                json_pack("{s:s, s:s, s:s}", "message", reason.text, "reason", reason.text, "parameter", name.text);
            return TAVRIX_ERR_UNEXPECTED_PARAMETER;
        }
    }
    return TAVRIX_OK;
}

/** `values` may be null: what lies inside another value is checked only. */
int check_rows_of(const Check &check, const tavrix_service_param *rows, json_t *object, const char *path,
                  Value *values) {
    int rc = check.strict != nullptr ? refuse_unknown(check, rows, object, path) : TAVRIX_OK;
    for (size_t i = 0; rc == TAVRIX_OK && rows != nullptr && rows[i].name != nullptr; ++i) {
        json_t *value = json_object_get(object, rows[i].name);
        if (value == nullptr && (rows[i].flags & TAVRIX_OPTIONAL) != 0) {
            continue;
        }
        const Path own_path(path, rows[i].name);
        Value unused{};
        Value *place_for_value = values != nullptr ? &values[i] : &unused;
        rc = checks[storage_of(rows[i].kind)](check, {&rows[i], object, value, own_path.text}, place_for_value);
        place_for_value->present = rc == TAVRIX_OK;
    }
    return rc;
}

// --- The table -----------------------------------------------------------------------------------------------------

/** Rows that stand somewhere in a method's table. */
struct Rows {
    const char *method;
    const tavrix_service_param *rows;
    const char *path;
    size_t depth;
    bool may_be_bare; ///< one row without a name is the value itself
};

bool complain(const char *method, const char *path, const char *what) {
    LOG_ERROR("Method %s: parameter %s %s\n", method, path, what);
    return false;
}

/** What is wrong with a row's bounds; null when nothing is. What nobody would look at is wrong too. */
const char *bounds_error(const tavrix_service_param *row) {
    const KindRow &kind = kinds[row->kind];
    const bool is_counted = is_list(row->kind) || row->kind == TAVRIX_KIND_TEXT || row->kind == TAVRIX_KIND_ARRAY;
    if (!has_bounds(row)) {
        return nullptr;
    }
    if (!is_counted && kind.storage != stored_integer && row->kind != TAVRIX_KIND_NUMBER) {
        return "has bounds, and its kind takes none";
    }
    if (row->min > (is_list(row->kind) ? most_records(row) : row->max)) {
        return "has bounds in the wrong order";
    }
    const bool has_own = kind.storage == stored_integer && row->kind != TAVRIX_KIND_INTEGER;
    if ((has_own && (row->min < kind.lowest || row->max > kind.highest)) ||
        (is_counted && (row->min < 0 || row->max < 0)) ||
        (row->kind == TAVRIX_KIND_VLAN_IDS && row->max > max_vlan_ids)) {
        return "has bounds beyond those of its kind";
    }
    return nullptr;
}

/** What is wrong with a row by itself; null when nothing is. */
const char *row_error(const tavrix_service_param *row) {
    if (row->kind <= TAVRIX_KIND_NONE || row->kind >= TAVRIX_KIND_COUNT) {
        return "is of no kind";
    }
    if (row->kind == TAVRIX_KIND_WORD && (row->words == nullptr || row->words[0] == nullptr)) {
        return "is a word without words";
    }
    if (row->kind == TAVRIX_KIND_PORT_ID && (row->flags & TAVRIX_ANY_PORTS) == 0) {
        return "is a port without a form that is allowed";
    }
    if (row->members != nullptr && row->kind != TAVRIX_KIND_OBJECT && row->kind != TAVRIX_KIND_ARRAY) {
        return "has members, and is neither an object nor an array";
    }
    return bounds_error(row);
}

static_assert(max_depth == 8, "what the complaint says");

bool check_table_rows(const Rows &place) {
    const size_t count = count_rows(place.rows);
    if (count > TAVRIX_SERVICE_MAX_PARAMS) {
        LOG_ERROR("Method %s: more than %d parameters%s%s\n", place.method, TAVRIX_SERVICE_MAX_PARAMS,
                  *place.path != '\0' ? " in " : "", place.path);
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        const tavrix_service_param *row = &place.rows[i];
        const bool is_array = row->kind == TAVRIX_KIND_ARRAY;
        const Path path(place.path, row->name);
        if (place.depth >= max_depth) {
            return complain(place.method, path.text, "lies too deep: a table has 8 levels, and does not hold itself");
        }
        if (row->name[0] == '\0' && !(place.may_be_bare && count == 1)) {
            return complain(place.method, path.text, "has a row without a name");
        }
        if (find_row(place.rows, row->name) != row) {
            return complain(place.method, path.text, "has two rows");
        }
        if (const char *error = row_error(row); error != nullptr) {
            return complain(place.method, path.text, error);
        }
        const Path inner(place.path, row->name, is_array ? "[]" : "");
        if (row->members != nullptr &&
            !check_table_rows({place.method, row->members, inner.text, place.depth + 1, is_array})) {
            return false;
        }
    }
    return true;
}

} // namespace

bool is_bare(const tavrix_service_param *rows) {
    return rows != nullptr && rows->name != nullptr && rows->name[0] == '\0';
}

const char *example_of_kind(tavrix_kind kind) { return kinds[kind].example; }

Storage storage_of(tavrix_kind kind) { return kinds[kind].storage; }

void describe_allowed(const tavrix_service_param *row, char (&out)[allowed_size]) {
    Words words;
    describe_allowed(row, &words);
    std::memcpy(out, words.text, sizeof out);
}

int check_params(const tavrix_service_method *method, json_t *params, Arena *arena, Value **values_out,
                 json_t **data_out) {
    const size_t count = count_rows(method->params);
    *values_out = count > 0 ? static_cast<Value *>(arena_take(arena, count * sizeof(Value))) : nullptr;
    if (count > 0 && *values_out == nullptr) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    const bool is_strict = (method->flags & TAVRIX_METHOD_STRICT) != 0;
    return check_rows_of({arena, data_out, is_strict ? method : nullptr}, method->params, params, "", *values_out);
}

bool check_rows(const tavrix_service_method &method) {
    return check_table_rows({method.name, method.params, "", 0, false}) &&
           check_table_rows({method.name, method.result, "", 0, true});
}

} // namespace kit
