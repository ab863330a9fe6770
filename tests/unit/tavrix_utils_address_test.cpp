#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/nulls.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_utils";

/** A writable copy of a text, with a guard behind it. */
struct Writable {
    char text[64];
    explicit Writable(const char *value) {
        std::memset(text, '~', sizeof text);
        std::strcpy(text, value);
    }
};

std::string bytes_text(const unsigned char *bytes, int count) {
    std::string text;
    char pair[4];
    for (int i = 0; i < count; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        text += pair;
    }
    return text;
}

// --- MAC addresses ---

TEST(MacFormat, BringsBothFormsIntoTheCanonicalOne) {
    for (const char *value : {"aa:bb:cc:dd:ee:ff", "aa-bb-cc-dd-ee-ff", "AA-bb-Cc-DD-eE-fF", "AA:BB:CC:DD:EE:FF"}) {
        Writable mac(value);
        EXPECT_EQ(tavrix_validate_and_format_mac_addr_string(mac.text), 0) << value;
        EXPECT_STREQ(mac.text, "AA:BB:CC:DD:EE:FF");
        EXPECT_EQ(mac.text[18], '~');
    }
}

TEST(MacFormat, LeavesWhatIsNoAddressAlone) {
    for (const char *value : {"", "aa:bb:cc:dd:ee:f", "aa:bb:cc:dd:ee:fff", "aa:bb:cc:dd:ee:gg", "aa:bb-cc:dd:ee:ff"}) {
        Writable mac(value);
        EXPECT_EQ(tavrix_validate_and_format_mac_addr_string(mac.text), TAVRIX_ERR_PARAMETER) << value;
        EXPECT_STREQ(mac.text, value);
    }
    EXPECT_EQ(tavrix_validate_and_format_mac_addr_string(nullptr), TAVRIX_ERR_PARAMETER);
}

TEST(MacFormat, SaysWhatItDoes) {
    const LogCapture log("verbose");
    Writable mac("aa-bb-cc-dd-ee-ff");
    tavrix_validate_and_format_mac_addr_string(mac.text);
    EXPECT_TRUE(log.has(debug, unit, "Validating and reformatting given mac address string <aa-bb-cc-dd-ee-ff>\n"));
    EXPECT_TRUE(log.has(verbose, unit, "Converting all characters to uppercase\n"));
    EXPECT_TRUE(log.has(verbose, unit, "Replacing delimiters with ':'\n"));
    Writable bad("short");
    const LogCapture refusal("debug");
    tavrix_validate_and_format_mac_addr_string(bad.text);
    EXPECT_TRUE(refusal.said({"DEBUG|Validating and reformatting given mac address string <short>",
                              "DEBUG|Incorrect mac address length, aborting reformation and validation"}));
}

TEST(MacToBytes, ConsumesTheText) {
    Writable mac("0a-1B-2c-3D-4e-fF");
    unsigned char bytes[6] = {};
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_str_to_mac_address(mac.text, bytes), 0);
    EXPECT_EQ(bytes_text(bytes, 6), "0a1b2c3d4eff");
    EXPECT_STREQ(mac.text, "0A") << "cut into its pieces";
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_str_to_mac_address]: Parsing MAC address <0A:1B:2C:3D:4E:FF>\n"));
    EXPECT_TRUE(log.has(verbose, unit, "Byte <0>: <0A>\n"));
    EXPECT_TRUE(log.has(verbose, unit, "Byte <5>: <FF>\n"));
}

TEST(MacToBytes, PassesTheCheckOnAndRefusesNull) {
    Writable mac("nonsense");
    unsigned char bytes[6] = {};
    EXPECT_EQ(tavrix_str_to_mac_address(mac.text, bytes), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(with_each_null(tavrix_str_to_mac_address, mac.text, bytes), Statuses(2, TAVRIX_ERR_NULL_INPUT));
}

TEST(MacToBytes, ScansWithoutAnyCheck) {
    unsigned char bytes[6] = {};
    EXPECT_EQ(tavrix_mac_address_to_char_array("0a:1B:2:ff:0:10 trailing", bytes), 0);
    EXPECT_EQ(bytes_text(bytes, 6), "0a1b02ff0010");
    for (const char *bad : {"0a:1b:2c:3d:4e", "0a-1b-2c-3d-4e-5f", ""}) {
        EXPECT_EQ(tavrix_mac_address_to_char_array(bad, bytes), TAVRIX_ERR_PARAMETER) << bad;
    }
    EXPECT_EQ(with_each_null(tavrix_mac_address_to_char_array, "0a:1b:2c:3d:4e:5f", bytes),
              Statuses(2, TAVRIX_ERR_NULL_INPUT));
}

TEST(MacBytes, ArePrintedAndTakenAsANumber) {
    const unsigned char bytes[6] = {0x01, 0x02, 0xab, 0xcd, 0xef, 0x09};
    char text[20] = "~~~~~~~~~~~~~~~~~~~";
    EXPECT_EQ(tavrix_bytes_to_mac_address_string(text, bytes), 0);
    EXPECT_STREQ(text, "01:02:AB:CD:EF:09");
    uint32_t number = 0;
    EXPECT_EQ(tavrix_mac_last_4_bytes_to_uint32_t(bytes, &number), 0);
    EXPECT_EQ(number, 0xabcdef09U);
}

TEST(MacList, HoldsAtMost512) {
    for (const auto &[count, listed] : {std::pair(511, 511), {512, 512}, {513, 512}, {0, 0}, {-1, -1}}) {
        EXPECT_EQ(tavrix_get_num_macs_to_list(count), listed);
    }
}

/** A vector bound to an array of its own. */
struct Vector {
    tavrix_mac_array array{};
    tavrix_mac_vector vector{};

    Vector() { EXPECT_EQ(tavrix_mac_vector_init(&vector, &array), 0); }
    Vector(const Vector &) = delete;
    Vector &operator=(const Vector &) = delete;
    ~Vector() { free(array.entries); }
    int insert(const void *mac, int flag = 1) { return tavrix_mac_vector_insert(&vector, mac, flag); }
};

TEST(MacVector, GrowsByDoubling) {
    Vector macs;
    EXPECT_EQ(macs.vector.array, &macs.array);
    EXPECT_EQ(macs.vector.capacity, 8);
    EXPECT_EQ(macs.array.count, 0);
    for (int i = 0; i < 17; ++i) {
        const unsigned char bytes[6] = {0, 0, 0, 0, 0, static_cast<unsigned char>(i)};
        const char *text = "AA:BB:CC:DD:EE:FF";
        EXPECT_EQ(macs.insert(i % 2 == 0 ? static_cast<const void *>(bytes) : text, i % 2), 0);
        EXPECT_EQ(macs.array.count, i + 1);
        EXPECT_EQ(macs.vector.capacity, i < 8 ? 8 : i < 16 ? 16 : 32);
    }
    EXPECT_STREQ(macs.array.entries[16], "00:00:00:00:00:10");
    EXPECT_STREQ(macs.array.entries[1], "AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(macs.insert("x", 2), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(macs.insert("x", -1), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(macs.array.count, 17);
    EXPECT_EQ(macs.insert(std::string(40, 'x').c_str()), 0);
    EXPECT_EQ(std::string(macs.array.entries[17]), std::string(19, 'x')) << "cut to its entry";
}

TEST(MacVector, TakesAnEntryOfItsOwnWhileItGrows) {
    Vector macs;
    ASSERT_EQ(macs.insert("00:11:22:33:44:55"), 0);
    for (int i = 1; i < 40; ++i) {
        ASSERT_EQ(macs.insert(macs.array.entries[0]), 0);
        EXPECT_STREQ(macs.array.entries[i], "00:11:22:33:44:55") << i;
    }
}

TEST(MacVector, GrowsBeforeItRefusesAFlag) {
    Vector macs;
    while (macs.array.count < 8) {
        ASSERT_EQ(macs.insert("x"), 0);
    }
    EXPECT_EQ(macs.insert("x", 5), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(macs.vector.capacity, 16);
    EXPECT_EQ(macs.array.count, 8);
}

TEST(MacVector, RefusesNull) {
    tavrix_mac_array array{};
    tavrix_mac_vector vector{};
    EXPECT_EQ(with_each_null(tavrix_mac_vector_init, &vector, &array), Statuses(2, TAVRIX_ERR_NULL_INPUT));
    EXPECT_EQ(with_each_null(tavrix_mac_vector_insert, &vector, "x", 1), Statuses(2, TAVRIX_ERR_NULL_INPUT));
    EXPECT_EQ(tavrix_mac_vector_insert(&vector, "x", 1), TAVRIX_ERR_NULL_INPUT) << "bound to no array yet";
}

TEST(PortMacs, AreReleasedWithTheirLists) {
    auto *entries = static_cast<tavrix_port_macs *>(calloc(3, sizeof(tavrix_port_macs)));
    entries[0].macs = static_cast<char(*)[20]>(malloc(20));
    entries[2].macs = static_cast<char(*)[20]>(malloc(40));
    tavrix_free_port_macs_array(entries, 3); // the leak checker sees what stays
    tavrix_free_port_macs_array(nullptr, 3);
}

// --- IPv4 ---

TEST(IpAddress, IsSplitIntoFourBytes) {
    unsigned char bytes[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "192.168.100.255", 4), 0);
    EXPECT_EQ(bytes_text(bytes, 6), "c0a864ff0909");
    EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "1.2.3.4.5.6", 4), 0);
    EXPECT_EQ(bytes_text(bytes, 6), "010203040909") << "no further piece is stored";
    EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "0192.168.100.255.9", 4), 0);
    EXPECT_EQ(bytes_text(bytes, 4), "c0a864ff") << "16 characters are read";
    EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "00192.168.100.255", 4), 0);
    EXPECT_EQ(bytes_text(bytes, 4), "c0a86419") << "not 17";
    EXPECT_EQ(tavrix_tokenize_ip_address(bytes, std::string(200, '7').c_str(), 4), 0);
    EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "", 4), 0);
}

TEST(IpAddress, WantsRoomForExactlyFour) {
    unsigned char bytes[8] = {};
    for (const int length : {0, 3, 5, -4}) {
        EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "1.2.3.4", length), TAVRIX_ERR_BUFFER_SPACE);
    }
    for (const int length : {4, 3}) { // null comes first
        EXPECT_EQ(with_each_null(tavrix_tokenize_ip_address, bytes, "1.2.3.4", length),
                  Statuses(2, TAVRIX_ERR_NULL_INPUT));
    }
}

// --- Port ids ---

TEST(PortId, IsPrintedAndCut) {
    const struct {
        size_t size;
        int unit;
        int port;
        const char *text;
    } rows[] = {{16, 0, 2, "d2"}, {16, 3, 7, "c3-7"}, {4, 128, 99, "c12"}, {0, 1, 1, "~"}};
    for (const auto &row : rows) {
        char text[16] = "~";
        EXPECT_EQ(tavrix_create_port_id_str(text, row.size, row.unit, row.port), 0);
        EXPECT_STREQ(text, row.text);
    }
    char text[16] = "";
    EXPECT_EQ(tavrix_create_mzu_id_str(text, sizeof text, 128), 0);
    EXPECT_STREQ(text, "c128");
    EXPECT_EQ(tavrix_create_mzu_id_str(text, 3, 128), 0);
    EXPECT_STREQ(text, "c1");
    EXPECT_EQ(tavrix_create_port_id_str(nullptr, 8, 1, 1), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_create_mzu_id_str(nullptr, 8, 1), TAVRIX_ERR_PARAMETER);
}

TEST(PortId, IsNotMadeForANegativeUnit) {
    char text[8] = "old";
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_create_port_id_str(text, sizeof text, -1, 1), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(std::string(text, 8), std::string(8, '\0')) << "cleared all the same";
    EXPECT_TRUE(log.said({"DEBUG|Unable to create port id string due to mzu number being less than 0"}));
}

TEST(PortId, IsParsed) {
    constexpr int untouched = -77;
    constexpr int whole_unit = 32767;
    const auto expect = [](const char *text, int rc, int of_unit, int port) {
        int parsed_unit = untouched;
        int parsed_port = untouched;
        EXPECT_EQ(tavrix_parse_mzu_port_id(&parsed_unit, &parsed_port, text), rc) << text;
        EXPECT_EQ(parsed_unit, of_unit) << text;
        EXPECT_EQ(parsed_port, port) << text;
    };
    expect("c12-5", 0, 12, 5);
    expect("C12/5", 0, 12, 5);
    expect("c12", 0, 12, whole_unit);
    expect("d3", 0, 0, 3);
    expect("D4", 0, 0, 4);
    expect("c0", 0, 0, whole_unit);
    expect("c1000", 0, 1000, whole_unit);
    expect("c5-999", 0, 5, 999);
    expect("d1000", 0, 0, 1000);
    expect("c12\n", 0, 12, whole_unit);
    expect("c007-09", 0, 7, 9);
    expect("c1-2\nrest", 0, 1, 2);
    expect("c5-1000", TAVRIX_ERR_INVALID_PORT, 5, untouched);
    expect("d1001", TAVRIX_ERR_INVALID_PORT, untouched, untouched);
    for (const char *text : {"c1001", "C9999", "c12345678901", "c123456789012"}) {
        expect(text, TAVRIX_ERR_INVALID_MZU_ID, untouched, untouched);
    }
    for (const char *text : {"x1001", "d3-1", "x3", "x3-1", "c", "", "12", "cc1", "c1-", "c1--2", "c1-x2", "c1-2x",
                             "c1x", "c1 ", "c-1", "c1234567890123", "c1-2-3"}) {
        expect(text, TAVRIX_ERR_PARAMETER, untouched, untouched);
    }
    int value = 0;
    EXPECT_EQ(with_each_null(tavrix_parse_mzu_port_id, &value, &value, "c1"), Statuses(3, TAVRIX_ERR_PARAMETER));
}

// --- Port lines ---

tavrix_port_list four_ports() {
    tavrix_port_list list{};
    const uint16_t units[] = {2, 2, 2, 0};
    const uint16_t ports[] = {1, 2, 3, 1};
    for (size_t i = 0; i < 4; ++i) {
        list.units[i] = units[i];
        list.ports[i] = ports[i];
    }
    list.count = 4;
    return list;
}

struct Line {
    int rc;
    std::string text;
    int cursor;
};

Line line_of(const tavrix_port_list &list, int cursor, int width) {
    std::string buffer(static_cast<size_t>(std::max(width, 0)) + 2, '~');
    const int rc = tavrix_port_str_create(&list, &cursor, buffer.data(), width);
    EXPECT_EQ(buffer.back(), '~') << "wrote past the line";
    return {rc, buffer.c_str(), cursor};
}

TEST(PortLine, ShowsWhatFitsAndPadsTheRest) {
    const tavrix_port_list list = four_ports();
    const Line whole = line_of(list, 0, 20);
    EXPECT_EQ(whole.text, "c2-1, c2-2, c2-3, d1");
    EXPECT_EQ(whole.cursor, 4);
    const Line cut = line_of(list, 0, 19);
    EXPECT_EQ(cut.text, "c2-1, c2-2, c2-3,  ");
    EXPECT_EQ(cut.cursor, 4) << "the port that did not fit is passed over";
    EXPECT_EQ(line_of(list, 1, 12).text, "c2-2, c2-3, ");
    EXPECT_EQ(line_of(list, 4, 5).text, "     ");
    EXPECT_EQ(line_of(list, 0, 0).text, "");
    EXPECT_EQ(line_of(list, 0, -5).text, "");
}

TEST(PortLine, GoesOnWhereItStopped) {
    const tavrix_port_list list = four_ports();
    const Line first = line_of(list, 0, 11);
    EXPECT_EQ(first.text, "c2-1, c2-2,");
    EXPECT_EQ(first.cursor, 3) << "c2-3 was passed over";
    EXPECT_EQ(line_of(list, first.cursor, 11).text, "d1         ");
}

TEST(PortLine, StaysWithinItsBuffersForAnyWidth) {
    tavrix_port_list list{};
    list.count = 1000;
    for (size_t i = 0; i < 1000; ++i) {
        list.units[i] = 65535;
        list.ports[i] = 65535;
    }
    for (const int width : {127, 128, 129, 1000, 20000}) {
        const Line line = line_of(list, 0, width);
        EXPECT_EQ(line.text.size(), static_cast<size_t>(width));
        EXPECT_EQ(line.text.rfind("c65535-65535, c65535-65535,", 0), 0U);
    }
    list.count = 1000;
    EXPECT_EQ(line_of(list, -3, 20).rc, 0);
    for (const int cursor : {1000, 1001, 1999}) {
        list.count = 2000;
        EXPECT_EQ(line_of(list, cursor, 3).text, "   ");
        EXPECT_EQ(line_of(list, cursor, 3).cursor, 2000) << cursor;
    }
    for (const int16_t count : {int16_t{1001}, int16_t{32767}}) {
        list.count = count;
        const Line last = line_of(list, 999, 20);
        EXPECT_EQ(last.text, "c65535-65535,       ");
        EXPECT_EQ(last.cursor, count) << "a loop up to the count comes to its end";
    }
    int cursor = 0;
    char out[4];
    EXPECT_EQ(with_each_null(tavrix_port_str_create, &list, &cursor, out, 2), Statuses(3, TAVRIX_ERR_NULL_INPUT));
}

TEST(PortLine, LeavesACursorBehindTheLastPortWhereItIs) {
    // A count below 0 has no port either.
    const std::pair<int16_t, int> rows[] = {
        {4, 4},       {4, 5},       {4, 999},     {4, 1000},    {4, 1001}, {4, INT_MAX}, {0, 0},   {0, 1000},
        {1000, 1000}, {1000, 1001}, {1001, 1001}, {1001, 1002}, {-5, 0},   {-5, 1000},   {-5, -5}, {-5, -4},
    };
    tavrix_port_list list = four_ports();
    for (const auto &[count, cursor] : rows) {
        list.count = count;
        const Line line = line_of(list, cursor, 3);
        EXPECT_EQ(line.rc, 0);
        EXPECT_EQ(line.text, "   ");
        EXPECT_EQ(line.cursor, cursor) << count;
    }
}

TEST(MzuOnline, IsAPositiveConnectionState) {
    tavrix_mzu_record record{};
    for (const int32_t state : {0, -1, INT32_MIN, 1, 2, INT32_MAX}) {
        record.connection_state = state;
        EXPECT_EQ(tavrix_mzu_is_online(&record), state > 0) << state;
    }
}

// --- Versions ---

TEST(Version, IsComparedNumberByNumber) {
    const std::tuple<const char *, const char *, int> rows[] = {
        {"1.2.10", "1.2.9", 1},
        {"2.0.1-004", "2.0.1-004", 0},
        {"1.10", "1.9", 1},
        {"1.9", "1.10", -1},
        {"1.2", "1.2.0", 0},
        {"1.2", "1.2.1", -1},
        {"1.2.5", "1.2", 0},
        {"1.2-3", "1.2.3", 0},
        {"", "", 0},
        {"1", "", 1},
        {"", "1", -1},
        {"", "0", 0},
        {"2.0.1-005", "2.0.1-004", 1},
        {"10", "9", 1},
        {"1.2.", "1.2.0", 0},
        {"2147483647", "1", 1},
        {"2147483648", "1", -1}, // as a signed number it is below 0
        {"4294967295", "0", -1},
        {"4294967296", "0", -1}, // does not fit: read as the largest one
        {"99999999999999999999", "0", -1},
        {"-1", "0", -1},
        {"-4294967295", "0", 1}, // the last that fits, and with the sign turned 1
        {"-4294967296", "0", -1},
    };
    for (const auto &[a, b, rc] : rows) {
        EXPECT_EQ(tavrix_utils_sw_version_strcmp(a, b), rc) << a << " against " << b;
    }
    EXPECT_EQ(with_each_null(tavrix_utils_sw_version_strcmp, "1", "1"), Statuses(2, TAVRIX_ERR_NULL_INPUT));
}

} // namespace
