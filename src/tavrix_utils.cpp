/*
 * Utilities: the shared null test, strings, MAC and IPv4 addresses, port and MZU ids, versions, enumerations, shell and
 * file helpers.
 *
 * Keeps one piece of process-wide state: the hidden cursor of strparse(), which tavrix_parse_mzu_port_id() uses too.
 */
#include "tavrix_utils.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <nanomsg/nn.h>
#include <sys/stat.h>

#include "common/handles.h"
#include "common/log.h"
#include "internal/tables.h"
#include "tavrix_error.h"
#include "tavrix_validation.h"

namespace {

constexpr char unit_name[] = "tavrix_utils";

constexpr size_t mac_entry_size = TAVRIX_MAC_TEXT_SIZE;
constexpr size_t mac_text_length = 17;
constexpr int mac_bytes = TAVRIX_MAC_SIZE;
constexpr int32_t first_mac_capacity = 8;
constexpr int ip_bytes = 4;
constexpr size_t ip_text_size = 16;
constexpr size_t port_id_limit = 14;
constexpr int max_unit = 1000;
constexpr int max_port = 999;
constexpr size_t max_stops = 11;
constexpr int list_capacity = sizeof(tavrix_port_list::ports) / sizeof(tavrix_port_list::ports[0]);
constexpr char digits[] = "0123456789";

constexpr size_t command_output_size = TAVRIX_COMMAND_OUTPUT_SIZE;
constexpr size_t md5_line_size = 255;
constexpr size_t stats_command_size = 3201;
constexpr size_t board_line_size = 256;
constexpr int default_board_revision = TAVRIX_DEFAULT_BOARD_REVISION;
constexpr size_t dump_size = 10000;
constexpr size_t dump_item_size = 5; // two blanks, two digits, a blank
constexpr size_t system_log_size = 8001;

// --- Characters ----------------------------------------------------------------------------------------------------

char to_upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }
char to_lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// A lone quote counts as both quotes of an empty text: a description must not contain one, not even by mistake.
bool is_quoted(const char *text, size_t length) { return length > 0 && text[0] == '"' && text[length - 1] == '"'; }

// --- Tokenizer -----------------------------------------------------------------------------------------------------

const char *strparse_cursor = nullptr;

// --- MAC vectors ---------------------------------------------------------------------------------------------------

/** Doubles a vector's capacity, or gives it its first. On failure the old entries stay. */
bool grow(tavrix_mac_vector *vector) {
    const int32_t capacity = vector->capacity > 0 ? vector->capacity * 2 : first_mac_capacity;
    void *entries = std::realloc(vector->array->entries, static_cast<size_t>(capacity) * mac_entry_size);
    if (entries == nullptr) {
        return false;
    }
    vector->array->entries = static_cast<char(*)[mac_entry_size]>(entries);
    vector->capacity = capacity;
    return true;
}

// --- Port ids ------------------------------------------------------------------------------------------------------

bool is_c(char prefix) { return prefix == 'c' || prefix == 'C'; }
bool is_d(char prefix) { return prefix == 'd' || prefix == 'D'; }
bool is_separator(char c) { return c == '-' || c == '/'; }
bool is_number(const char *text) { return text[0] != '\0' && isdigits(text) == 1; }

/** Converts a text of digits; a number that does not fit becomes the largest int. */
int to_number(const char *text) {
    const long long value = std::strtoll(text, nullptr, 10);
    return static_cast<int>(std::min<long long>(value, INT_MAX));
}

int number_too_large(char prefix) {
    if (is_c(prefix)) {
        return TAVRIX_ERR_INVALID_MZU_ID;
    }
    return is_d(prefix) ? TAVRIX_ERR_INVALID_PORT : TAVRIX_ERR_PARAMETER;
}

int store_port_id(int *unit, int *port, int unit_value, int port_value) {
    *unit = unit_value;
    *port = port_value;
    return TAVRIX_OK;
}

/** A prefix and one number: a D-port, or a whole unit. */
int parse_single_number(int *unit, int *port, char prefix, int number) {
    if (is_d(prefix)) {
        return store_port_id(unit, port, 0, number);
    }
    return is_c(prefix) ? store_port_id(unit, port, number, TAVRIX_WHOLE_UNIT_PORT) : TAVRIX_ERR_PARAMETER;
}

/** One item of a port line: "c2-1", "d1", with the blank before it and the comma after it. */
size_t format_port_item(const tavrix_port_list *list, int index, bool first, char *item, size_t size) {
    const char *blank = first ? "" : " ";
    const char *comma = index + 1 < list->count ? "," : "";
    const uint16_t unit = list->units[index];
    const uint16_t port = list->ports[index];
    const int length = unit != 0 ? std::snprintf(item, size, "%sc%hu-%hu%s", blank, unit, port, comma)
                                 : std::snprintf(item, size, "%sd%hu%s", blank, port, comma);
    return static_cast<size_t>(length);
}

// --- Versions ------------------------------------------------------------------------------------------------------

/** Reads the numbers of a version one by one. */
class VersionReader {
  public:
    explicit VersionReader(const char *text) : start_(text), end_(text) { read(); }

    /** The number last read, as a signed 32-bit value; 0 when there was none. */
    int32_t number() const { return number_; }
    bool has_number() const { return end_ != start_; }

    void next() {
        start_ = end_;
        if (*start_ != '\0') {
            ++start_; // the separator, whatever it is
        }
        read();
    }

  private:
    void read() {
        char *end = nullptr;
        const long long value = std::strtoll(start_, &end, 10);
        // What strtoul does where long has 32 bits, so that every machine gives the same answer: a number that does not
        // fit becomes the largest one, which is -1 when signed.
        const bool fits = value >= -int64_t{UINT32_MAX} && value <= int64_t{UINT32_MAX};
        number_ = static_cast<int32_t>(fits ? static_cast<uint32_t>(value) : UINT32_MAX);
        end_ = end;
    }

    const char *start_;
    const char *end_;
    int32_t number_ = 0;
};

// --- Shell ---------------------------------------------------------------------------------------------------------

tavrix::Pipe run_command(const char *command) { return tavrix::Pipe(popen(command, "re")); }

/** Appends one stage to the command that lists a file and logs the command so far; false when it does not fit. */
TAVRIX_PRINTF(2, 3)
bool append_stage(char (&command)[stats_command_size], const char *format, ...) {
    const size_t used = std::strlen(command);
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(command + used, sizeof command - used, format, args);
    va_end(args);
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof command - used;
    if (fits) {
        LOG_VERBOSE("[%s]: cmd_str = %s\n", "tavrix_file_stats", command);
    }
    return fits;
}

bool is_set(const char *filter) { return filter != nullptr && filter[0] != '\0'; }

/** Reads a line and cuts it at its first blank; false when there is none. */
bool read_sum(FILE *file, char *line, size_t size) {
    if (std::fgets(line, static_cast<int>(size), file) == nullptr) {
        LOG_ERROR("No result from md5sum\n");
        return false;
    }
    line[std::strcspn(line, " ")] = '\0';
    return true;
}

} // namespace

// --- Enumeration tables: position = value --------------------------------------------------------------------------

const char *const tavrix_state_troubled_strings[4] = {"disabled", "enabled", "troubled", nullptr};
const char *const tavrix_state_failed_strings[4] = {"disabled", "enabled", "failed", nullptr};
const char *const tavrix_admin_status_strings[3] = {"disable", "enable", nullptr};
const char *const tavrix_port_status_strings[3] = {"disable", "enable", nullptr};
const char *const tavrix_poe_status_strings[6] = {"unknown", "disabled", "enabled", "offline", "unsupported", nullptr};
const char *const tavrix_link_status_strings[5] = {"unknown", "down", "up", "offline", nullptr};
const char *const tavrix_link_speed_strings[8] = {"unknown", "offline",  "N/A",       "unsupported",
                                                  "10 Mbps", "100 Mbps", "1000 Mbps", nullptr};
const char *const tavrix_vlan_mode_strings[6] = {"unknown", "local", "access", "trunk", "trans", nullptr};
// "Generic MZU" stays between the named models: databases in the field store positions, and later models came after.
const char *const tavrix_mzu_model_strings[12] = {"unknown", "ZQN-E09",     "ZQN-E10", "ZQN-E11", "ZQN-E12", "ZQN-E13",
                                                  "ZQN-E14", "Generic MZU", "ZQN-E15", "ZQN-E16", "ZQN-E17", nullptr};
const char *const tavrix_secure_option_strings[4] = {"current", "enable", "disable", nullptr};

// The terminator comes after the last value.
static_assert(tavrix::count_of(tavrix_state_troubled_strings) == TAVRIX_STATE_TROUBLED_TROUBLED + 2);
static_assert(tavrix::count_of(tavrix_state_failed_strings) == TAVRIX_STATE_FAILED_FAILED + 2);
static_assert(tavrix::count_of(tavrix_admin_status_strings) == TAVRIX_ADMIN_STATUS_ENABLE + 2);
static_assert(tavrix::count_of(tavrix_port_status_strings) == TAVRIX_PORT_STATUS_ENABLE + 2);
static_assert(tavrix::count_of(tavrix_poe_status_strings) == TAVRIX_POE_STATUS_UNSUPPORTED + 2);
static_assert(tavrix::count_of(tavrix_link_status_strings) == TAVRIX_LINK_STATUS_OFFLINE + 2);
static_assert(tavrix::count_of(tavrix_link_speed_strings) == TAVRIX_LINK_SPEED_1000_MBPS + 2);
static_assert(tavrix::count_of(tavrix_vlan_mode_strings) == TAVRIX_VLAN_MODE_TRANS + 2);
static_assert(tavrix::count_of(tavrix_mzu_model_strings) == TAVRIX_MZU_MODEL_ZQN_E17 + 2);
static_assert(tavrix::count_of(tavrix_secure_option_strings) == TAVRIX_SECURE_OPTION_DISABLE + 2);

// --- MAC addresses -------------------------------------------------------------------------------------------------

int16_t tavrix_validate_and_format_mac_addr_string(char *text) {
    if (text == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    LOG_DEBUG("Validating and reformatting given mac address string <%s>\n", text);
    if (std::strlen(text) != mac_text_length) {
        LOG_DEBUG("Incorrect mac address length, aborting reformation and validation\n");
        return TAVRIX_ERR_PARAMETER;
    }
    if (validate_mac_address(text) != 0) {
        return TAVRIX_ERR_PARAMETER;
    }
    LOG_VERBOSE("Converting all characters to uppercase\n");
    static_cast<void>(tavrix_to_upper_case(text, static_cast<int>(mac_text_length)));
    LOG_VERBOSE("Replacing delimiters with ':'\n");
    for (size_t position = 2; position < mac_text_length; position += 3) {
        text[position] = ':';
    }
    return TAVRIX_OK;
}

int tavrix_str_to_mac_address(char *text, unsigned char *bytes) {
    if (text == nullptr || bytes == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    const int rc = tavrix_validate_and_format_mac_addr_string(text);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    LOG_DEBUG("[%s]: Parsing MAC address <%s>\n", "tavrix_str_to_mac_address", text);
    // The caller's own text is cut into pieces: nothing is allocated, and daemons pass a copy that they can spare.
    char *rest = nullptr;
    const char *piece = strtok_r(text, ":", &rest);
    for (int i = 0; i < mac_bytes && piece != nullptr; ++i) {
        bytes[i] = static_cast<unsigned char>(std::strtol(piece, nullptr, 16));
        LOG_VERBOSE("Byte <%d>: <%02X>\n", i, bytes[i]);
        piece = strtok_r(nullptr, ":", &rest);
    }
    return TAVRIX_OK;
}

int tavrix_mac_address_to_char_array(const char *text, unsigned char *bytes) {
    if (text == nullptr || bytes == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    const int fields = std::sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &bytes[0], &bytes[1], &bytes[2], &bytes[3],
                                   &bytes[4], &bytes[5]);
    return fields == mac_bytes ? TAVRIX_OK : TAVRIX_ERR_PARAMETER;
}

int tavrix_bytes_to_mac_address_string(char *out, const unsigned char *bytes) {
    static_cast<void>(std::snprintf(out, mac_entry_size, "%02hhX:%02hhX:%02hhX:%02hhX:%02hhX:%02hhX", bytes[0],
                                    bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]));
    return TAVRIX_OK;
}

int tavrix_mac_last_4_bytes_to_uint32_t(const unsigned char *bytes, uint32_t *out) {
    *out = static_cast<uint32_t>(bytes[2]) << 24 | static_cast<uint32_t>(bytes[3]) << 16 |
           static_cast<uint32_t>(bytes[4]) << 8 | static_cast<uint32_t>(bytes[5]);
    return TAVRIX_OK;
}

int tavrix_get_num_macs_to_list(int n) { return std::min(n, TAVRIX_MAX_LISTED_MACS); }

int tavrix_mac_vector_init(tavrix_mac_vector *vector, tavrix_mac_array *array) {
    if (vector == nullptr || array == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    void *entries = std::calloc(first_mac_capacity, mac_entry_size);
    if (entries == nullptr) {
        static_cast<void>(tavrix_terminate_process());
        return TAVRIX_ERR_NO_MEMORY;
    }
    array->entries = static_cast<char(*)[mac_entry_size]>(entries);
    array->count = 0;
    vector->array = array;
    vector->capacity = first_mac_capacity;
    return TAVRIX_OK;
}

int tavrix_mac_vector_insert(tavrix_mac_vector *vector, const void *source, int is_text) {
    if (vector == nullptr || source == nullptr || vector->array == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    char entry[mac_entry_size] = ""; // made first: the source may be an entry of the array, which moves when it grows
    if (is_text == 1) {
        // Callers pass 17 characters; a longer text is cut to fit the entry.
        static_cast<void>(std::snprintf(entry, sizeof entry, "%s", static_cast<const char *>(source)));
    } else if (is_text == 0) {
        static_cast<void>(tavrix_bytes_to_mac_address_string(entry, static_cast<const unsigned char *>(source)));
    }
    tavrix_mac_array *array = vector->array;
    if (array->count >= vector->capacity && !grow(vector)) {
        static_cast<void>(tavrix_terminate_process());
        return TAVRIX_ERR_GENERAL;
    }
    if (is_text != 0 && is_text != 1) {
        return TAVRIX_ERR_PARAMETER; // checked last: when memory runs out the daemon stops, whatever the flag
    }
    std::memcpy(array->entries[array->count], entry, sizeof entry);
    ++array->count;
    return TAVRIX_OK;
}

void tavrix_free_port_macs_array(tavrix_port_macs *entries, int count) {
    if (entries == nullptr) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        std::free(entries[i].macs);
    }
    std::free(entries);
}

// --- IPv4 ----------------------------------------------------------------------------------------------------------

int tavrix_tokenize_ip_address(unsigned char *out, const char *text, int out_len) {
    if (out == nullptr || text == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (out_len != ip_bytes) {
        return TAVRIX_ERR_BUFFER_SPACE;
    }
    char work[ip_text_size + 1] = "";
    std::memcpy(work, text, strnlen(text, ip_text_size));
    char *rest = nullptr;
    const char *piece = strtok_r(work, ".", &rest);
    for (int i = 0; i < ip_bytes && piece != nullptr; ++i) {
        out[i] = static_cast<unsigned char>(std::strtol(piece, nullptr, 10));
        piece = strtok_r(nullptr, ".", &rest);
    }
    return TAVRIX_OK;
}

// --- Port and unit ids ---------------------------------------------------------------------------------------------

int tavrix_create_port_id_str(char *out, size_t out_size, int unit, int port) {
    if (out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    std::memset(out, 0, out_size);
    if (unit < 0) {
        LOG_DEBUG("Unable to create port id string due to mzu number being less than 0\n");
        return TAVRIX_ERR_GENERAL;
    }
    if (unit == 0) {
        static_cast<void>(std::snprintf(out, out_size, "d%d", port));
    } else {
        static_cast<void>(std::snprintf(out, out_size, "c%d-%d", unit, port));
    }
    return TAVRIX_OK;
}

int tavrix_create_mzu_id_str(char *out, size_t out_size, int unit) {
    if (out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    std::memset(out, 0, out_size);
    static_cast<void>(std::snprintf(out, out_size, "c%d", unit));
    return TAVRIX_OK;
}

int tavrix_parse_mzu_port_id(int *unit, int *port, const char *text) {
    if (tavrix_check_for_null(3, unit, port, text) != TAVRIX_OK || std::strlen(text) >= port_id_limit) {
        return TAVRIX_ERR_PARAMETER;
    }
    char prefix[port_id_limit] = "";
    char first[port_id_limit] = "";
    char separator[port_id_limit] = "";
    char second[port_id_limit] = "";
    static_cast<void>(strparse(text, digits, prefix));
    static_cast<void>(strparse(nullptr, "-/", first));
    if (!is_number(first) || std::strlen(prefix) != 1) {
        return TAVRIX_ERR_PARAMETER;
    }
    const int number = to_number(first);
    if (number > max_unit) {
        return number_too_large(prefix[0]);
    }
    static_cast<void>(strparse(nullptr, digits, separator));
    if (!is_separator(separator[0])) {
        return parse_single_number(unit, port, prefix[0], number);
    }
    static_cast<void>(strparse(nullptr, "", second));
    if (std::strlen(separator) != 1 || !is_number(second) || !is_c(prefix[0])) {
        return TAVRIX_ERR_PARAMETER;
    }
    *unit = number; // even if the port is refused: daemons name the unit in their message to the user
    const int port_number = to_number(second);
    if (port_number > max_port) {
        return TAVRIX_ERR_INVALID_PORT;
    }
    *port = port_number;
    return TAVRIX_OK;
}

int tavrix_port_str_create(const tavrix_port_list *list, int *cursor, char *out, int width) {
    if (list == nullptr || cursor == nullptr || out == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    // The line is built in the caller's buffer, which holds `width` characters and a terminator.
    const size_t line_width = static_cast<size_t>(std::max(width, 0));
    if (*cursor < list->count) {
        *cursor = std::max(*cursor, 0);
    }
    const int start = *cursor;
    size_t used = 0;
    while (*cursor < list->count && *cursor < list_capacity) {
        char item[32] = "";
        const size_t length = format_port_item(list, *cursor, *cursor == start, item, sizeof item);
        ++*cursor;
        if (used + length > line_width) {
            break; // not shown at all: the cursor has to move on, or a caller with a narrow line would never finish
        }
        std::memcpy(out + used, item, length);
        used += length;
    }
    if (*cursor >= list_capacity && *cursor < list->count) {
        *cursor = list->count; // a count beyond the arrays ends like any other
    }
    std::memset(out + used, ' ', line_width - used);
    out[line_width] = '\0';
    return TAVRIX_OK;
}

bool tavrix_mzu_is_online(const tavrix_mzu_record *record) { return record->connection_state > 0; }

// --- Versions ------------------------------------------------------------------------------------------------------

int tavrix_utils_sw_version_strcmp(const char *a, const char *b) {
    if (tavrix_check_for_null(2, a, b) != TAVRIX_OK) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    // The comparison goes as far as b does; a number that a lacks counts as 0.
    VersionReader left(a);
    VersionReader right(b);
    do {
        if (left.number() != right.number()) {
            return left.number() < right.number() ? -1 : 1;
        }
        left.next();
        right.next();
    } while (right.has_number());
    return 0;
}

// --- Null test and strings -----------------------------------------------------------------------------------------

int tavrix_check_for_null(int count, ...) {
    va_list args;
    va_start(args, count);
    int rc = TAVRIX_OK;
    for (int index = 0; index < count && rc == TAVRIX_OK; ++index) {
        if (va_arg(args, const void *) == nullptr) {
            LOG_WARNING("Found a null input parameter at varg index <%d>\n", index);
            rc = TAVRIX_ERR_GENERAL;
        }
    }
    va_end(args);
    return rc;
}

int strparse(const char *text, const char *stops, char *out) {
    if (stops == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    if (text != nullptr) {
        strparse_cursor = text;
    }
    if (strparse_cursor == nullptr) {
        return 1;
    }
    char stop_set[max_stops + 2] = "";
    const size_t stop_count = strnlen(stops, max_stops);
    std::memcpy(stop_set, stops, stop_count);
    stop_set[stop_count] = '\n';
    const size_t length = std::strcspn(strparse_cursor, stop_set);
    std::memcpy(out, strparse_cursor, length);
    out[length] = '\0';
    // The stop character is left for the next call, where callers see which one it was, as in "c12-5" and "c12/5".
    const char *stop = strparse_cursor + length;
    strparse_cursor = *stop != '\0' ? stop : nullptr;
    return 0;
}

int isdigits(const char *text) { return text[std::strspn(text, digits)] == '\0' ? 1 : 0; }

int tavrix_to_lower_case(char *out, size_t out_size, const char *text) {
    if (out == nullptr || text == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    std::memset(out, 0, out_size);
    for (size_t i = 0; i + 1 < out_size && text[i] != '\0'; ++i) {
        out[i] = to_lower(text[i]);
    }
    return TAVRIX_OK;
}

int tavrix_to_upper_case(char *text, int max) {
    if (text == nullptr) {
        LOG_VERBOSE("Received null value for tavrix_to_upper_case\n");
        return TAVRIX_ERR_PARAMETER;
    }
    for (int i = 0; i < max && text[i] != '\0'; ++i) {
        text[i] = to_upper(text[i]);
    }
    return TAVRIX_OK;
}

int tavrix_str_to_upper(char *text) {
    size_t length = 0;
    for (; text[length] != '\0'; ++length) {
        text[length] = to_upper(text[length]);
    }
    return static_cast<int>(length);
}

int tavrix_remove_surrounding_quotes(const char *text, char *out, size_t out_size) {
    if (text == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    std::memset(out, 0, out_size);
    const size_t length = std::strlen(text);
    // The closing quote stays: it tells callers that the text was quoted, and they remove it themselves.
    const size_t skipped = is_quoted(text, length) ? 1 : 0;
    std::memcpy(out, text + skipped, std::min(length - skipped, out_size));
    return TAVRIX_OK;
}

int tavrix_cli_desc_parse(const char *text, char *out) {
    if (text == nullptr || out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    const size_t length = std::strlen(text);
    if (is_quoted(text, length) && std::count(text, text + length, '"') == 2) {
        std::memcpy(out, text + 1, length - 1); // callers find the end by the closing quote
    } else {
        std::memcpy(out, text, length + 1);
    }
    return TAVRIX_OK;
}

// --- Enumerations --------------------------------------------------------------------------------------------------

int tavrix_enum_to_str(char *out, size_t out_size, int value, const char *const *table) {
    if (tavrix_check_for_null(2, out, table) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    std::memset(out, 0, out_size);
    const char *word = table[value] != nullptr ? table[value] : "";
    static_cast<void>(std::snprintf(out, out_size, "%s", word));
    LOG_VERBOSE("Mapped enum value <%d> to string <%s>\n", value, word);
    return TAVRIX_OK;
}

int tavrix_str_to_enum(int *out, const char *text, const char *const *table) {
    if (tavrix_check_for_null(3, out, text, table) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    for (int value = 0; table[value] != nullptr; ++value) {
        if (std::strcmp(table[value], text) == 0) {
            *out = value;
            LOG_VERBOSE("Mapped string <%s> to enum value <%d>\n", text, value);
            return TAVRIX_OK;
        }
    }
    LOG_VERBOSE("Unable to map string <%s> to enum value\n", text);
    return TAVRIX_ERR_GENERAL;
}

// --- Shell and files -----------------------------------------------------------------------------------------------

int mw_exec_command_line(const char *command, char *out) {
    const tavrix::Pipe pipe = command != nullptr && out != nullptr ? run_command(command) : nullptr;
    if (!pipe) {
        LOG_ERROR("Popen error.\n");
        return 1;
    }
    char line[command_output_size] = "";
    static_cast<void>(std::fgets(line, sizeof line, pipe.get()) != nullptr);
    std::memcpy(out, line, std::strlen(line) + 1);
    return TAVRIX_OK;
}

int file_exists(const char *path) {
    struct stat status {};
    return path != nullptr && stat(path, &status) == 0 ? 1 : 0;
}

char *tavrix_file_stats(const char *path, const char *filter1, const char *filter2, int column) {
    if (path == nullptr) {
        return nullptr;
    }
    char command[stats_command_size] = "";
    // A command that does not fit is not run: cut short, it could do something else.
    const bool fits = append_stage(command, "ls -l %s", path) &&
                      (!is_set(filter1) || append_stage(command, " | grep %s", filter1)) &&
                      (!is_set(filter2) || append_stage(command, " | grep %s", filter2)) &&
                      append_stage(command, " | awk '{print $%d}'", column);
    const tavrix::Pipe pipe = fits ? run_command(command) : nullptr;
    if (!pipe) {
        LOG_ERROR("System: Command failed. Aborting.\n");
        return nullptr;
    }
    char line[stats_command_size] = "";
    if (std::fgets(line, sizeof line, pipe.get()) == nullptr) {
        LOG_ERROR("Tavrix Firmware not found in root folder of USB.\n");
        return nullptr;
    }
    LOG_VERBOSE("[%s]: cmd_ret = %s\n", "tavrix_file_stats", line);
    return strdup(line);
}

int tavrix_check_md5(const char *file, const char *md5_file, bool *match) {
    if (tavrix_check_for_null(3, file, md5_file, match) != TAVRIX_OK) {
        return TAVRIX_ERR_GENERAL;
    }
    char command[md5_line_size];
    const int length = std::snprintf(command, sizeof command, "md5sum %s", file);
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof command;
    if (!fits) {
        errno = ENAMETOOLONG; // a command that does not fit is not run
    }
    tavrix::Pipe pipe = fits ? run_command(command) : nullptr;
    if (!pipe) {
        std::perror("popen");
        return TAVRIX_ERR_GENERAL;
    }
    char computed[md5_line_size] = "";
    if (!read_sum(pipe.get(), computed, sizeof computed)) {
        return TAVRIX_ERR_GENERAL;
    }
    pipe.reset();
    const tavrix::File stored_file(std::fopen(md5_file, "re"));
    if (!stored_file) {
        std::perror("fopen");
        return TAVRIX_ERR_GENERAL;
    }
    char stored[md5_line_size] = "";
    if (!read_sum(stored_file.get(), stored, sizeof stored)) {
        return TAVRIX_ERR_GENERAL;
    }
    *match = std::strcmp(computed, stored) == 0;
    return TAVRIX_OK;
}

int tavrix_get_board_rev_number(void) {
    const tavrix::Pipe pipe = run_command("fw_printenv brdrev 2>&1");
    if (!pipe) {
        LOG_ERROR("Could not open pipe\n");
        return default_board_revision;
    }
    char line[board_line_size] = "";
    if (std::fgets(line, sizeof line, pipe.get()) == nullptr) {
        LOG_ERROR("Couldn't get result from syscall\n");
        return default_board_revision;
    }
    if (std::strstr(line, "not installed") != nullptr) {
        return default_board_revision;
    }
    if (line[0] == '#') {
        LOG_ERROR("Board rev# env var not set\n");
        return default_board_revision;
    }
    const char *equals_sign = std::strchr(line, '=');
    if (equals_sign == nullptr || !is_digit(equals_sign[1])) {
        return default_board_revision;
    }
    return equals_sign[1] - '0'; // the first digit alone, by which daemons tell boards apart
}

int tavrix_terminate_process(void) {
    LOG_ERROR("CRITICAL ERROR, raise SIGTERM\n");
    return raise(SIGTERM);
}

int tavrix_utils_format_seconds_as_time_sentence(int seconds, char *out) {
    if (out == nullptr) {
        return TAVRIX_ERR_PARAMETER;
    }
    // "days" even for one day: scripts split the sentence at this word.
    static_cast<void>(std::sprintf(out, "%d days %02d:%02d:%02d", seconds / 86400, (seconds / 3600) % 24,
                                   (seconds / 60) % 60, seconds % 60));
    LOG_VERBOSE("Finished formatting seconds <%ld> into <%s>\n", static_cast<long>(seconds), out);
    return TAVRIX_OK;
}

void tavrix_debug_print_bytes(const void *bytes, int length, const char *title) {
    const tavrix::Text text(static_cast<char *>(std::malloc(dump_size)));
    if (!text) {
        return;
    }
    const unsigned char *byte = static_cast<const unsigned char *>(bytes);
    static_cast<void>(std::snprintf(text.get(), dump_size, "%s", title != nullptr ? title : ""));
    size_t used = std::strlen(text.get());
    // Bytes that no longer fit are left out.
    for (int i = 0; byte != nullptr && i < length && used + dump_item_size < dump_size; ++i) {
        const char *gap = i % 16 == 0 ? "\n" : (i % 8 == 0 ? "  " : "");
        used += static_cast<size_t>(std::snprintf(text.get() + used, dump_size - used, "%s%02hhX ", gap, byte[i]));
    }
    LOG_INFO("%s\n", text.get());
}

void tavrix_utils_system_log(const char *tag, const char *file, int line, const char *format, ...) {
    char message[system_log_size] = "";
    va_list args;
    va_start(args, format);
    static_cast<void>(std::vsnprintf(message, sizeof message, format, args));
    va_end(args);
    timespec now{};
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    tm utc{};
    static_cast<void>(gmtime_r(&now.tv_sec, &utc));
    char time_text[80] = "";
    static_cast<void>(std::strftime(time_text, sizeof time_text, "%Y-%m-%d %X", &utc));
    std::fprintf(stderr, "[%s.%06ld] [%s] [%s:%d] %s", time_text, static_cast<long>(now.tv_nsec / 1000), tag, file,
                 line, message);
}

int tavrix_get_nn_rcvfd(int socket, int *fd) {
    if (fd == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    size_t size = sizeof *fd;
    return nn_getsockopt(socket, NN_SOL_SOCKET, NN_RCVFD, fd, &size) < 0 ? TAVRIX_ERR_GENERAL : TAVRIX_OK;
}
