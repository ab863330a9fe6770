#include "support/fields.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <stdexcept>

#include "tavrix_jrpc_utils.h"
#include "tavrix_validation.h"

namespace support {

namespace {

constexpr int no_match = TAVRIX_INVALID_NO_MATCH;
constexpr int not_allowed = TAVRIX_INVALID_NOT_ALLOWED;
constexpr int too_long = TAVRIX_INVALID_TOO_LONG;
constexpr int too_short = TAVRIX_INVALID_TOO_SHORT;
constexpr int out_of_range = TAVRIX_INVALID_OUT_OF_RANGE;

int read_port_id(json_t *params, json_t **debug, const char *key, char *out, size_t size) {
    return tavrix_jrpc_utils_retrieve_input_port_id(params, debug, key, out, size, true, true, true, true);
}
int read_mzu_id(json_t *params, json_t **debug, const char *key, char *out, size_t size) {
    return tavrix_jrpc_utils_retrieve_input_mzu_id(params, debug, key, out, size, true);
}
int read_vlan_ids(json_t *params, json_t **debug, const char *key) {
    int ids[32];
    int count = 0;
    return tavrix_jrpc_utils_retrieve_input_vlan_ids(params, debug, key, ids, &count);
}
int read_ports(json_t *params, json_t **debug, const char *key) {
    tavrix_port_input records[3];
    int count = 0;
    return tavrix_jrpc_utils_retrieve_input_ports(params, debug, key, records, &count, 3);
}
int read_ports_hardware(json_t *params, json_t **debug, const char *key) {
    tavrix_port_hardware_input records[3];
    int count = 0;
    return tavrix_jrpc_utils_retrieve_input_ports_hardware(params, debug, key, records, &count, 3);
}
int read_mac_filters(json_t *params, json_t **debug, const char *key) {
    tavrix_mac_filter *filters = nullptr;
    int count = 0;
    const int rc = tavrix_jrpc_utils_retrieve_input_mac_filters(params, debug, key, &filters, &count, 1, 2);
    if ((rc == 0) != (filters != nullptr)) {
        std::abort();
    }
    std::free(filters);
    return rc;
}

#define READER(name) tavrix_jrpc_utils_retrieve_input_##name
#define TEXT(name) #name, READER(name), nullptr, nullptr, validate_##name, nullptr
#define TEXT_READ_BY(name, reader) #name, reader, nullptr, nullptr, validate_##name, nullptr
#define TEXT_READ_ONLY(name) #name, READER(name), nullptr, nullptr, nullptr, nullptr
#define TEXT_VALIDATED_ONLY(name) #name, nullptr, nullptr, nullptr, validate_##name, nullptr
#define NUMBER(name) #name, nullptr, READER(name), nullptr, nullptr, validate_##name
#define NUMBER_READ_ONLY(name) #name, nullptr, READER(name), nullptr, nullptr, nullptr
#define LIST(name) #name, nullptr, nullptr, read_##name, nullptr, nullptr

Field row(const char *name, decltype(Field::read_text) read_text, decltype(Field::read_number) read_number,
          decltype(Field::read_list) read_list, decltype(Field::validate) validate,
          decltype(Field::validate_number) validate_number, std::vector<std::string> valid, std::string invalid = "",
          int verdict = 0, const char *label = nullptr, std::string alphabet = "", int min_length = 0,
          int max_length = 0) {
    return {name,      read_text,       read_number,         read_list,
            validate,  validate_number, std::move(valid),    std::move(invalid),
            verdict,   label,           std::move(alphabet), min_length,
            max_length};
}

std::vector<Field> all_fields() {
    const std::string ports = "cCdD0123456789-v\n /x";
    const std::string hex = "0123456789abcdefABCDEFgG:-.\n \xff";
    const std::string words = "abyzABYZ0189!?_@- \n\"#.\x80";
    return {
        row(TEXT_READ_BY(port_id, read_port_id), {"c1-1", "C128-99", "c10-10", "d4", "D1"}, "d5", no_match, "Port ID",
            ports),
        row(TEXT_VALIDATED_ONLY(c_port_id), {"c99-10", "C100-9", "c19-19", "c128-1"}, "d1", no_match, "C Port ID",
            ports),
        row(TEXT_VALIDATED_ONLY(d_port_id), {"d1", "D4"}, "c1-1", no_match, "D Port ID", ports),
        row(TEXT_VALIDATED_ONLY(vlan_name_id), {"v1", "v4092", "v999", "v10"}, "V1", no_match, "Vlan Name ID",
            "vV0123456789-\n c"),
        row(TEXT_READ_BY(mzu_id, read_mzu_id), {"c1", "C128", "c119", "c20"}, "c129", no_match, "MZU ID", ports),
        row(TEXT(mzu_sw_upgrade_filename), {"any file", "", "a b\tc", "\xff"}, "two\nlines", no_match,
            "MZU SW Upgrade Filename", "ab\n\r\x85 "),
        row(TEXT(unit_sw_upgrade_filename), {"zqn1.2.3-004", "/tmp/zqn-h7-1.2.3-004.img", "zqnzqn 12.3.4-567\nx"},
            "1.2.3-004", no_match, "Unit SW Upgrade filename", "zqn0123456789.-\nZ/"),
        row(TEXT(date), {"2026-05-01", "2000-1-1", "2999-12-31", "2100-09-9"}, "1999-05-31", no_match, "Date",
            "0123456789-/\n "),
        row(TEXT(time), {"00:00", "23:59", "19:05"}, "24:00", no_match, "Time", "0123456789:.\n "),
        row(TEXT_VALIDATED_ONLY(uuid), {"01234567-89ab-cdef-ABCD-EF0123456789"}, "2524546b", no_match, "UUID", hex),
        row(TEXT(ip_address), {"192.168.1.1", "0.0.0.0", "255.255.255.255", "1.10.100.249", "26.99.199.200"}, "1.1.1",
            too_short, "IP Address", "0123456789.:\n -", 7, 15),
        row(TEXT(mac_address), {"aa:BB:cc:00:11:22", "aa-BB-cc-00-11-22"}, "00:11:22:33:44:5g", no_match, "MAC Address",
            hex, 17, 17),
        row(TEXT(description), {"a text", "", std::string(50, 'x')}, "a \" quote", no_match, "Description", words, 0,
            50),
        row(TEXT(password), {"abcd", "A!?_@-9", "0123456789abcde"}, "Aa1", too_short, "Password", words, 4, 15),
        row(TEXT(username), {"abcd", "Operator7", "rooty", "haldaemons"}, "root", not_allowed, "Username", words, 4,
            15),

        row(TEXT(status), {"enable", "disable"}, "enabled", not_allowed),
        row(TEXT(vlan_mode), {"trunk", "access"}, "tree", not_allowed),
        row(TEXT(mzu_model), {"Generic MZU", "unknown"}, "no model", not_allowed),
        row(TEXT(unit_sw_bank), {"previous", "current"}, "next", not_allowed),
        row(TEXT(entity_name), {"v4092", "c1-1"}, "v4093", no_match),
        row(TEXT(entity_extension), {"anything"}, std::string(1001, 'x'), too_long),
        row(TEXT_READ_ONLY(macaddr_allowed), {"aa:bb:cc:dd:ee:ff"}),
        row(TEXT_READ_ONLY(alias), {"AB1"}),

        row(NUMBER(vlan_id), {"1", "4092"}, "4093", out_of_range),
        row(NUMBER(unit_id), {"1"}, "2", out_of_range),
        row(NUMBER(laser_id), {"1", "0"}, "2", out_of_range),
        row(NUMBER(olt_id), {"0", "1"}, "2", out_of_range),
        row(NUMBER(onu_id), {"-1", "128"}, "129", out_of_range),
        row(NUMBER(port_number), {"128", "1"}, "0", out_of_range),
        row(NUMBER(periodic_interval), {"3600", "1"}, "3601", out_of_range),
        row(NUMBER(port_link_speed), {"-2147483648", "4"}),
        row(NUMBER_READ_ONLY(enable), {"1", "-7"}),

        row(LIST(vlan_ids), {"[2,3]"}),
        row(LIST(ports),
            {R"([{"port_number":7,"port_status":1,"poe_status":1,"link_status":1,"link_speed":4,"vlan_mode":1,"vlan_ids":[9]}])"}),
        row(LIST(ports_hardware), {R"([{"port_number":7,"poe_status":1,"link_status":1,"link_speed":4}])"}),
        row(LIST(mac_filters), {R"([{"mac":"aa:bb:cc:dd:ee:ff","mask":"ff:ff:ff:ff:ff:ff"}])"}),
    };
}

} // namespace

int Field::read(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size) const {
    if (read_text != nullptr) {
        return read_text(params, debug_message, key, out, out_size);
    }
    int number = 0;
    return read_number != nullptr ? read_number(params, debug_message, key, &number)
                                  : read_list(params, debug_message, key);
}

int Field::judge(const std::string &value) const {
    return validate != nullptr ? validate(value.c_str()) : validate_number(std::stoi(value));
}

int Field::judge_length(const std::string &value) const {
    const int length = static_cast<int>(value.size());
    return max_length == 0 || (length >= min_length && length <= max_length) ? TAVRIX_VALID
           : length < min_length                                             ? too_short
                                                                             : too_long;
}

std::string Field::params(const std::string &value) const {
    const char *quote = read_text != nullptr ? "\"" : "";
    return R"({"k":)" + (quote + value) + quote + "}";
}

const std::vector<Field> &fields() {
    static const std::vector<Field> all = all_fields();
    return all;
}

const Field &field(const std::string &name) {
    for (const Field &row : fields()) {
        if (row.name == name) {
            return row;
        }
    }
    throw std::invalid_argument("no field " + name);
}

const std::vector<Field> &pattern_fields() {
    static const std::vector<Field> following = [] {
        std::vector<Field> found;
        std::copy_if(fields().begin(), fields().end(), std::back_inserter(found),
                     [](const Field &field) { return field.label != nullptr; });
        return found;
    }();
    return following;
}

} // namespace support
