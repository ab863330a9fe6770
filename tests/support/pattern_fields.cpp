#include "support/pattern_fields.h"

#include "tavrix_validation.h"

namespace support {

const std::vector<PatternField> &pattern_fields() {
    static const std::string ports = "cCdD0123456789-v\n /x";
    static const std::string hex = "0123456789abcdefABCDEFgG:-.\n \xff";
    static const std::string words = "abyzABYZ0189!?_@- \n\"#.\x80";
    static const std::vector<PatternField> fields = {
        {"PortId", "Port ID", validate_port_id, {"c1-1", "C128-99", "c10-10", "d4", "D1"}, ports},
        {"CPortId", "C Port ID", validate_c_port_id, {"c99-10", "C100-9", "c19-19", "c128-1"}, ports},
        {"DPortId", "D Port ID", validate_d_port_id, {"d1", "D4"}, ports},
        {"VlanNameId", "Vlan Name ID", validate_vlan_name_id, {"v1", "v4092", "v999", "v10"}, "vV0123456789-\n c"},
        {"MzuId", "MZU ID", validate_mzu_id, {"c1", "C128", "c119", "c20"}, ports},
        {"MzuFile", "MZU SW Upgrade Filename", validate_mzu_sw_upgrade_filename, {"", "a b\tc", "\xff"}, "ab\n\r\x85 "},
        {"UnitFile",
         "Unit SW Upgrade filename",
         validate_unit_sw_upgrade_filename,
         {"zqn1.2.3-004", "/tmp/zqn-h7-1.2.3-004.img", "zqnzqn 12.3.4-567\nx"},
         "zqn0123456789.-\nZ/"},
        {"Date", "Date", validate_date, {"2026-05-01", "2000-1-1", "2999-12-31", "2100-09-9"}, "0123456789-/\n "},
        {"Time", "Time", validate_time, {"00:00", "23:59", "19:05"}, "0123456789:.\n "},
        {"Uuid", "UUID", validate_uuid, {"01234567-89ab-cdef-ABCD-EF0123456789"}, hex},
        {"IpAddress",
         "IP Address",
         validate_ip_address,
         {"192.168.1.1", "0.0.0.0", "255.255.255.255", "1.10.100.249", "26.99.199.200"},
         "0123456789.:\n -"},
        {"MacAddress", "MAC Address", validate_mac_address, {"aa:BB:cc:00:11:22", "aa-BB-cc-00-11-22"}, hex},
        {"Description", "Description", validate_description, {"", "a text", std::string(50, 'x')}, words},
        {"Password", "Password", validate_password, {"abcd", "A!?_@-9", "0123456789abcde"}, words},
        {"Username", "Username", validate_username, {"abcd", "Operator7", "rooty", "haldaemons"}, words},
    };
    return fields;
}

} // namespace support
