/*
 * Every field's rule: announcement, bounds, and an independent predicate beside each pattern.
 */
#include "tavrix_validation.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"

using support::LogCapture;

namespace {

constexpr char unit[] = "tavrix_validation";

// --- Predicates, written by hand -----------------------------------------------------------------------------------

/** A final newline is let through, as the patterns' end anchor does. */
std::string without_final_newline(std::string text) {
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

bool all(const std::string &text, const std::function<bool(char)> &fits) {
    for (const char c : text) {
        if (!fits(c)) {
            return false;
        }
    }
    return true;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool is_alnum(char c) { return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

/** A number without leading zeros within a range. */
bool is_number(const std::string &text, int low, int high) {
    if (text.empty() || text.size() > 4 || !all(text, is_digit) || (text.size() > 1 && text[0] == '0')) {
        return false;
    }
    const int value = std::stoi(text);
    return value >= low && value <= high;
}

bool is_c_port(std::string text) {
    text = without_final_newline(text);
    const size_t dash = text.find('-');
    return dash != std::string::npos && (text[0] == 'c' || text[0] == 'C') &&
           is_number(text.substr(1, dash - 1), 1, 128) && is_number(text.substr(dash + 1), 1, 99);
}

bool is_d_port(std::string text) {
    text = without_final_newline(text);
    return text.size() == 2 && (text[0] == 'd' || text[0] == 'D') && text[1] >= '1' && text[1] <= '4';
}

bool is_mzu(std::string text) {
    text = without_final_newline(text);
    return !text.empty() && (text[0] == 'c' || text[0] == 'C') && is_number(text.substr(1), 1, 128);
}

bool is_vlan_name(std::string text) {
    text = without_final_newline(text);
    return !text.empty() && text[0] == 'v' && is_number(text.substr(1), 1, 4092);
}

bool is_single_line(std::string text) { return without_final_newline(text).find('\n') == std::string::npos; }

bool is_month_or_day(const std::string &text, int high) {
    if (text.empty() || text.size() > 2 || !all(text, is_digit)) {
        return false;
    }
    const int value = std::stoi(text);
    return value >= 1 && value <= high;
}

bool is_date(std::string text) {
    text = without_final_newline(text);
    const size_t second = text.size() > 5 ? text.find('-', 5) : std::string::npos;
    return second != std::string::npos && text[0] == '2' && all(text.substr(0, 4), is_digit) && text[4] == '-' &&
           is_month_or_day(text.substr(5, second - 5), 12) && is_month_or_day(text.substr(second + 1), 31);
}

bool is_time(std::string text) {
    text = without_final_newline(text);
    return text.size() == 5 && text[2] == ':' && all(text.substr(0, 2) + text.substr(3), is_digit) &&
           std::stoi(text.substr(0, 2)) < 24 && std::stoi(text.substr(3)) < 60;
}

bool is_uuid(std::string text) {
    text = without_final_newline(text);
    if (text.size() != 36) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !is_hex(text[i])) {
            return false;
        }
    }
    return true;
}

bool is_ip(std::string text) {
    text = without_final_newline(text);
    int parts = 0;
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t dot = std::min(text.find('.', begin), text.size());
        if (!is_number(text.substr(begin, dot - begin), 0, 255)) {
            return false;
        }
        ++parts;
        begin = dot + 1;
    }
    return parts == 4;
}

bool is_mac(const std::string &text) {
    if (text.size() != 17) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        if (i % 3 == 2 ? (text[i] != text[2] || (text[i] != ':' && text[i] != '-')) : !is_hex(text[i])) {
            return false;
        }
    }
    return true;
}

bool is_description(const std::string &text) { return text.find('"') == std::string::npos; }

bool is_password(std::string text) {
    text = without_final_newline(text);
    return text.size() >= 4 && text.size() <= 15 &&
           all(text, [](char c) { return is_alnum(c) || std::string("!?_@-").find(c) != std::string::npos; });
}

bool is_username(std::string text) {
    text = without_final_newline(text);
    return text.size() >= 4 && text.size() <= 15 && all(text, is_alnum);
}

// --- Text fields ---------------------------------------------------------------------------------------------------

struct TextField {
    const char *name;
    int (*validate)(const char *);
    const char *announcement; ///< before the value; null when the field announces nothing
    bool (*predicate)(std::string);
    int min_length;
    int max_length; ///< 0: no bounds
    std::vector<std::string> seeds;
};

bool mac_predicate(std::string text) { return is_mac(text); }
bool description_predicate(std::string text) { return is_description(text); }
bool port_predicate(std::string text) { return is_c_port(text) || is_d_port(text); }

const std::vector<TextField> &text_fields() {
    static const std::vector<TextField> fields = {
        {"port_id", validate_port_id, "Validating port id: ", port_predicate, 0, 0, {"c1-1", "C128-99", "d4", "D1"}},
        {"c_port_id", validate_c_port_id, "Validating c-port id: ", is_c_port, 0, 0, {"c99-10", "C100-9", "c19-19"}},
        {"d_port_id", validate_d_port_id, "Validating d-port id: ", is_d_port, 0, 0, {"d1", "D4"}},
        {"vlan_name_id",
         validate_vlan_name_id,
         "Validating vlan name id: ",
         is_vlan_name,
         0,
         0,
         {"v1", "v4092", "v999"}},
        {"mzu_id", validate_mzu_id, "Validating mzu id: ", is_mzu, 0, 0, {"c1", "C128", "c119"}},
        {"mzu_sw_upgrade_filename",
         validate_mzu_sw_upgrade_filename,
         "Validating sw upgrade filename: ",
         is_single_line,
         0,
         0,
         {"", "file", "a b\tc"}},
        {"date", validate_date, "Validating date: ", is_date, 0, 0, {"2026-05-01", "2000-1-1", "2999-12-31"}},
        {"time", validate_time, "Validating time: ", is_time, 0, 0, {"00:00", "23:59", "19:05"}},
        {"uuid", validate_uuid, nullptr, is_uuid, 0, 0, {"01234567-89ab-cdef-ABCD-EF0123456789"}},
        {"ip_address",
         validate_ip_address,
         "Validating ip address: ",
         is_ip,
         7,
         15,
         {"192.168.1.1", "0.0.0.0", "255.255.255.255", "1.10.100.249"}},
        {"mac_address",
         validate_mac_address,
         "Validating mac address: ",
         mac_predicate,
         17,
         17,
         {"aa:BB:cc:00:11:22", "aa-BB-cc-00-11-22"}},
        {"description", validate_description, "Validating description: ", description_predicate, 0, 50, {"", "a text"}},
        {"password",
         validate_password,
         "Validating password: ",
         is_password,
         4,
         15,
         {"abcd", "A!?_@-9", "0123456789abcde"}},
    };
    return fields;
}

class TextFields : public testing::TestWithParam<TextField> {
  protected:
    int expected(const std::string &value) const {
        const TextField &field = GetParam();
        const int length = static_cast<int>(value.size());
        if (field.max_length > 0 && length < field.min_length) {
            return -5;
        }
        if (field.max_length > 0 && length > field.max_length) {
            return -4;
        }
        return field.predicate(value) ? 0 : -2;
    }
    void check(const std::string &value) const {
        EXPECT_EQ(GetParam().validate(value.c_str()), expected(value)) << "<" << value << ">";
    }
};

INSTANTIATE_TEST_SUITE_P(Each, TextFields, testing::ValuesIn(text_fields()),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(TextFields, AnnounceTheirValueAtVerboseLevelOnly) {
    const std::string value = GetParam().seeds.back();
    {
        const LogCapture log("verbose");
        GetParam().validate(value.c_str());
        const std::string first = log.lines().at(0).message;
        if (GetParam().announcement != nullptr) {
            EXPECT_EQ(first, GetParam().announcement + value + "\n");
            EXPECT_EQ(log.lines().at(0).tag, "VERB ");
            EXPECT_EQ(log.lines().at(0).file, unit);
        } else {
            EXPECT_EQ(first.rfind("Testing [UUID] value <", 0), 0U);
        }
    }
    const LogCapture log("debug");
    GetParam().validate(value.c_str());
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"DEBUG|Regex test passed."});
}

TEST_P(TextFields, AcceptTheirSeeds) {
    support::set_log_level("off");
    for (const std::string &seed : GetParam().seeds) {
        EXPECT_EQ(GetParam().validate(seed.c_str()), 0) << seed;
        check(seed + "\n");
        check(seed + "\n\n");
        check("\n" + seed);
        check(" " + seed);
    }
}

TEST_P(TextFields, AgreeWithAHandWrittenRuleOnSmallChanges) {
    support::set_log_level("off");
    std::mt19937 random(7);
    const std::string alphabet = "0123456789abcdefCDVvg:-. \"\n!?_@/\x80";
    for (const std::string &seed : GetParam().seeds) {
        for (size_t at = 0; at <= seed.size(); ++at) {
            for (const char c : alphabet) {
                std::string inserted = seed;
                inserted.insert(at, 1, c);
                check(inserted);
                if (at < seed.size()) {
                    std::string replaced = seed;
                    replaced[at] = c;
                    check(replaced);
                }
            }
            if (at < seed.size()) {
                std::string erased = seed;
                erased.erase(at, 1);
                check(erased);
            }
        }
    }
    for (int i = 0; i < 3000; ++i) {
        std::string value(random() % 19, ' ');
        for (char &c : value) {
            c = alphabet[random() % alphabet.size()];
        }
        check(value);
    }
}

TEST_P(TextFields, KeepTheirLengthBounds) {
    support::set_log_level("off");
    for (size_t length = 0; length < 60; ++length) {
        check(std::string(length, 'a'));
    }
}

TEST_P(TextFields, SurviveANullPointer) { EXPECT_NE(GetParam().validate(nullptr), 0); }

TEST(Numbers, InIdentifiersAreDecidedExhaustively) {
    support::set_log_level("off");
    for (int n = 0; n <= 5000; ++n) {
        const std::string digits = std::to_string(n);
        EXPECT_EQ(validate_mzu_id(("c" + digits).c_str()), n >= 1 && n <= 128 ? 0 : -2) << n;
        EXPECT_EQ(validate_vlan_name_id(("v" + digits).c_str()), n >= 1 && n <= 4092 ? 0 : -2) << n;
        EXPECT_EQ(validate_vlan_name_id(("v0" + digits).c_str()), -2) << n;
        if (n <= 200) {
            EXPECT_EQ(validate_c_port_id(("c1-" + digits).c_str()), n >= 1 && n <= 99 ? 0 : -2) << n;
            EXPECT_EQ(validate_c_port_id(("c" + digits + "-1").c_str()), n >= 1 && n <= 128 ? 0 : -2) << n;
            EXPECT_EQ(validate_d_port_id(("d" + digits).c_str()), n >= 1 && n <= 4 ? 0 : -2) << n;
        }
        if (n <= 300) {
            EXPECT_EQ(validate_ip_address(("1.2.3." + digits).c_str()), n <= 255 ? 0 : -2) << n;
        }
    }
}

TEST(UnitSwUpgradeFilename, WantsTheProductWordBeforeAVersion) {
    const struct {
        const char *value;
        int rc;
    } rows[] = {
        {"zqn1.2.3-004", 0},       {"/tmp/zqn-h7-1.2.3-004.img", 0},
        {"xzqnx9x8x7-123", 0},     {"zqn 1.2.3-0045", 0},
        {"ZQN1.2.3-004", -2},      {"1.2.3-004zqn", -2},
        {"zqn1.2.3-04", -2},       {"zqn12.3-004", -2},
        {"zqn1.2.3004", -2},       {"", -2},
        {"zqn1.2.3-004\nmore", 0}, {"a\nzqn1.2.3-004", -2},
    };
    const LogCapture log("verbose");
    for (const auto &row : rows) {
        EXPECT_EQ(validate_unit_sw_upgrade_filename(row.value), row.rc) << row.value;
    }
    EXPECT_TRUE(log.has(support::verbose, unit, "Validating sw upgrade filename: zqn1.2.3-004\n"));
}

TEST(Username, RefusesReservedNamesAfterThePattern) {
    for (const char *name :
         {"root", "daemon", "sync", "mail", "proxy", "backup", "operator", "haldaemon", "dbus", "nobody", "sshd"}) {
        EXPECT_EQ(validate_username(name), -3) << name;
    }
    EXPECT_EQ(validate_username("bin"), -5) << "too short for the list to be looked at";
    EXPECT_EQ(validate_username("sys"), -5);
    EXPECT_EQ(validate_username("www-data"), -2) << "the pattern comes first";
    EXPECT_EQ(validate_username("operator7"), 0);
    EXPECT_EQ(validate_username("Root"), 0);
    EXPECT_EQ(validate_username("abc"), -5);
    EXPECT_EQ(validate_username("abcd"), 0);
    EXPECT_EQ(validate_username("abcdefghijklmno"), 0);
    EXPECT_EQ(validate_username("abcdefghijklmnop"), -4);
    EXPECT_EQ(validate_username("with space"), -2);
}

TEST(Username, AgreesWithAHandWrittenRule) {
    support::set_log_level("off");
    std::mt19937 random(8);
    const std::string alphabet = "aZ09_- \n@z";
    for (int i = 0; i < 5000; ++i) {
        std::string value(random() % 18, ' ');
        for (char &c : value) {
            c = alphabet[random() % (i % 2 == 0 ? 4 : alphabet.size())];
        }
        const int expected = value.size() < 4 ? -5 : value.size() > 15 ? -4 : is_username(value) ? 0 : -2;
        EXPECT_EQ(validate_username(value.c_str()), expected) << value;
    }
}

TEST(Username, WalksTheWholeListInItsOrder) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("alice"), 0);
    std::vector<std::string> expected = {"VERB |Validating username: alice",
                                         "VERB |Testing [Username] value <alice> against regex: ^[a-zA-Z0-9]{4,15}$",
                                         "DEBUG|Regex test passed."};
    for (const char *name : {"root", "daemon", "bin", "sys", "sync", "mail", "proxy", "www-data", "backup", "operator",
                             "haldaemon", "dbus", "nobody", "sshd"}) {
        expected.push_back(std::string("VERB |[Username] value <alice> did not match blacklist option <") + name + ">");
    }
    expected.emplace_back("DEBUG|Given [Username] value <alice> is not one of the blacklisted options");
    EXPECT_EQ(log.sequence(), expected);
}

// --- Option fields -------------------------------------------------------------------------------------------------

TEST(OptionFields, AcceptTheirWordsInTheirOrder) {
    const struct {
        int (*validate)(const char *);
        const char *label;
        const char *announcement;
        std::vector<std::string> words;
    } rows[] = {
        {validate_status, "Status", "Validating status: ", {"enable", "disable"}},
        {validate_vlan_mode, "VLAN Mode", "Validating vlan mode: ", {"local", "access", "trunk"}},
        {validate_unit_sw_bank, "Unit SW Bank", "Validating unit sw bank: ", {"all", "current", "previous", "default"}},
        {validate_mzu_model,
         "MZU Model",
         "Validating mzu model: ",
         {"unknown", "ZQN-E09", "ZQN-E10", "ZQN-E11", "ZQN-E12", "ZQN-E13", "ZQN-E14", "Generic MZU", "ZQN-E15",
          "ZQN-E16", "ZQN-E17"}},
    };
    for (const auto &row : rows) {
        for (const std::string &word : row.words) {
            EXPECT_EQ(row.validate(word.c_str()), 0) << word;
        }
        const LogCapture log("verbose");
        EXPECT_EQ(row.validate("Enable"), -3);
        std::vector<std::string> expected = {std::string("VERB |") + row.announcement + "Enable"};
        for (const std::string &word : row.words) {
            expected.push_back(std::string("VERB |[") + row.label + "] value <Enable> did not match option <" + word +
                               ">");
        }
        expected.push_back(std::string("DEBUG|Validation failed: Given [") + row.label +
                           "] value <Enable> is not one of the available options");
        EXPECT_EQ(log.sequence(), expected);
    }
    EXPECT_EQ(validate_vlan_mode("trans"), -3);
    EXPECT_EQ(validate_vlan_mode("unknown"), -3);
    EXPECT_EQ(validate_mzu_model("ZQN-E18"), -3);
    EXPECT_EQ(validate_status(""), -3);
}

// --- Number fields -------------------------------------------------------------------------------------------------

TEST(NumberFields, AcceptTheirClosedRange) {
    const struct {
        int (*validate)(int);
        int low;
        int high;
        const char *announcement;
        const char *failure;
    } rows[] = {
        {validate_vlan_id, 1, 4092, "Validating vlan id: ", "FAIL: Vlan id outside acceptable range "},
        {validate_unit_id, 1, 1, "Validating unit id: ", "FAIL: Unit id outside acceptable range "},
        {validate_laser_id, 0, 1, "Validating laser_id: ", "FAIL: laser_id outside acceptable range "},
        {validate_olt_id, 0, 1, "Validating olt id: ", "FAIL: OLT id outside acceptable range "},
        {validate_onu_id, -1, 128, "Validating ONU id: ", "FAIL: ONU id outside acceptable range "},
        {validate_port_number, 1, 128, "Validating port_number: ", "FAIL: port_number outside acceptable range "},
        {validate_periodic_interval, 1, 3600,
         "Validating periodic interval: ", "FAIL: Periodic interval outside acceptable range "},
    };
    for (const auto &row : rows) {
        const std::string bounds = "[" + std::to_string(row.low) + ", " + std::to_string(row.high) + "]";
        for (const int value : {row.low, row.high, (row.low + row.high) / 2}) {
            const LogCapture log("verbose");
            EXPECT_EQ(row.validate(value), 0) << row.announcement << value;
            EXPECT_EQ(log.sequence(),
                      std::vector<std::string>{std::string("VERB |") + row.announcement + std::to_string(value)});
        }
        for (const int value : {row.low - 1, row.high + 1, INT32_MIN, INT32_MAX}) {
            const LogCapture log("verbose");
            EXPECT_EQ(row.validate(value), -6) << row.announcement << value;
            EXPECT_EQ(log.sequence(),
                      (std::vector<std::string>{std::string("VERB |") + row.announcement + std::to_string(value),
                                                std::string("DEBUG|") + row.failure + bounds}));
        }
    }
}

TEST(PortLinkSpeed, IsAlwaysAcceptedInSilence) {
    const LogCapture log("verbose");
    for (const int value : {0, -1, 7, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(validate_port_link_speed(value), 0);
    }
    EXPECT_TRUE(log.silent());
}

// --- Composite fields ----------------------------------------------------------------------------------------------

TEST(DateTime, ChecksTheDateFirst) {
    EXPECT_EQ(validate_date_time("2026-05-01", "13:45"), 0);
    EXPECT_EQ(validate_date_time("2026-05-01", "24:00"), -2);
    EXPECT_EQ(validate_date_time("2026-5-32", "13:45"), -2);
    const LogCapture log("verbose");
    EXPECT_EQ(validate_date_time("x", "y"), -2);
    EXPECT_FALSE(log.has(support::verbose, unit, "Validating time: y\n"));
}

TEST(Date, KnowsNoCalendar) {
    EXPECT_EQ(validate_date("2030-2-30"), 0);
    EXPECT_EQ(validate_date("1999-12-31"), -2);
    EXPECT_EQ(validate_date("3000-01-01"), -2);
}

TEST(EntityName, StopsAtTheFirstAcceptance) {
    const struct {
        const char *value;
        int rc;
        std::vector<std::string> announced;
    } rows[] = {
        {"c5", 0, {"mzu id"}},
        {"c5-1", 0, {"mzu id", "port id"}},
        {"d1", 0, {"mzu id", "port id"}},
        {"v10", 0, {"mzu id", "port id", "vlan name id"}},
        {"x", -2, {"mzu id", "port id", "vlan name id"}},
    };
    for (const auto &row : rows) {
        const LogCapture log("verbose");
        EXPECT_EQ(validate_entity_name(row.value), row.rc) << row.value;
        std::vector<std::string> announced;
        for (const auto &line : log.lines()) {
            if (line.message.rfind("Validating ", 0) == 0) {
                announced.push_back(line.message.substr(11, line.message.find(':') - 11));
            }
        }
        EXPECT_EQ(announced, row.announced) << row.value;
    }
}

TEST(EntityExtension, HasAtMost1000Characters) {
    const std::string longest(1000, 'x');
    EXPECT_EQ(validate_entity_extension(""), 0);
    EXPECT_EQ(validate_entity_extension(longest.c_str()), 0);
    const LogCapture log("verbose");
    EXPECT_EQ(validate_entity_extension((longest + "y").c_str()), -4);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{"VERB |Validating extension: " + longest + "y",
                                                        "DEBUG|Validation failed: [extension] value <" + longest +
                                                            "y> is too long (>1000)"}));
}
