/*
 * Every validator: what it announces, the rule it names in the log, its bounds and examples.
 */
#include "tavrix_validation.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"

using support::LogCapture;
using Lines = std::vector<std::string>;

namespace {

constexpr char unit[] = "tavrix_validation";

constexpr int no_match = TAVRIX_INVALID_NO_MATCH;
constexpr int too_long = TAVRIX_INVALID_TOO_LONG;
constexpr int too_short = TAVRIX_INVALID_TOO_SHORT;

// --- Pattern fields ------------------------------------------------------------------------------------------------

/** A value and its verdict. */
struct Example {
    std::string value;
    int rc;
};

struct PatternField {
    const char *name;
    int (*validate)(const char *);
    const char *label;
    const char *announcement; ///< before the value; null when the field announces nothing
    int min_length;
    int max_length; ///< 0: no bounds
    const char *pattern;
    std::vector<Example> examples;
};

const std::vector<PatternField> &pattern_fields() {
    static const std::vector<PatternField> rows = {
        {"PortId",
         validate_port_id,
         "Port ID",
         "Validating port id: ",
         0,
         0,
         R"((^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])-([1-9]|[1-9]\d)$)|(^[dD][1234]$))",
         {{"c128-99", 0},
          {"D4", 0},
          {"d1", 0},
          {"C1-1", 0},
          {"c129-1", no_match},
          {"c0-2", no_match},
          {"c2-100", no_match},
          {"c01-2", no_match},
          {"c2-01", no_match},
          {"c2-0", no_match},
          {"d5", no_match},
          {"d0", no_match},
          {"c5", no_match},
          {"", no_match},
          {"xd1", no_match},
          {"d1x", no_match},
          {"d1\n", 0},
          {"d1\n\n", no_match}}},
        {"CPortId",
         validate_c_port_id,
         "C Port ID",
         "Validating c-port id: ",
         0,
         0,
         R"(^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])-([1-9]|[1-9]\d)$)",
         {{"c2-3", 0}, {"C128-99", 0}, {"c129-1", no_match}, {"d1", no_match}, {"c2", no_match}, {"c2-3\n", 0}}},
        {"DPortId",
         validate_d_port_id,
         "D Port ID",
         "Validating d-port id: ",
         0,
         0,
         R"(^[dD][1234]$)",
         {{"d1", 0}, {"D4", 0}, {"d5", no_match}, {"d0", no_match}, {"d11", no_match}, {"c1-1", no_match}}},
        {"VlanNameId",
         validate_vlan_name_id,
         "Vlan Name ID",
         "Validating vlan name id: ",
         0,
         0,
         R"(^v(([1-9])|([1-9][0-9])|([1-9][0-9][0-9])|([1-3][0-9][0-9][0-9])|(40[0-8][0-9])|(409[0-2]))$)",
         {{"v1", 0},
          {"v4092", 0},
          {"v4093", no_match},
          {"v0", no_match},
          {"v01", no_match},
          {"V4092", no_match},
          {"v", no_match}}},
        {"MzuId",
         validate_mzu_id,
         "MZU ID",
         "Validating mzu id: ",
         0,
         0,
         R"(^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])$)",
         {{"c128", 0}, {"C1", 0}, {"c129", no_match}, {"c0", no_match}, {"c2-3", no_match}, {"c01", no_match}}},
        {"MzuFile",
         validate_mzu_sw_upgrade_filename,
         "MZU SW Upgrade Filename",
         "Validating sw upgrade filename: ",
         0,
         0,
         R"(^.*$)",
         {{"any file", 0}, {"", 0}, {"two\nlines", no_match}, {"one line\n", 0}}},
        // The line is the other file's: the same words on purpose.
        {"UnitFile",
         validate_unit_sw_upgrade_filename,
         "Unit SW Upgrade filename",
         "Validating sw upgrade filename: ",
         0,
         0,
         R"(^.*zqn.*\d.\d.\d-\d{3}.*)",
         {{"zqn1.2.3-004", 0},
          {"/tmp/zqn-h7-1.2.3-004.img", 0},
          {"xzqnx9x8x7-123", 0},
          {"zqn 1.2.3-0045", 0},
          {"ZQN1.2.3-004", no_match},
          {"1.2.3-004zqn", no_match},
          {"zqn1.2.3-04", no_match},
          {"zqn12.3-004", no_match},
          {"zqn1.2.3004", no_match},
          {"", no_match},
          {"zqn1.2.3-004\nmore", 0},
          {"a\nzqn1.2.3-004", no_match},
          {"zqn\n1.2.3-004", no_match}}},
        {"Date",
         validate_date,
         "Date",
         "Validating date: ",
         0,
         0,
         R"(^2\d{3}-([1-9]|0[1-9]|1[0-2])-([1-9]|0[1-9]|1\d|2\d|3[0-1])$)",
         {{"2030-2-30", 0},
          {"2000-01-01", 0},
          {"2999-12-31", 0},
          {"2030-2-031", no_match},
          {"1999-12-31", no_match},
          {"3000-01-01", no_match},
          {"2030-0-1", no_match},
          {"2030-13-1", no_match},
          {"2030-1-0", no_match},
          {"2030-1-32", no_match},
          {"2030-1-1\n", 0}}},
        {"Time",
         validate_time,
         "Time",
         "Validating time: ",
         0,
         0,
         R"(^([0-1]\d|2[0-3]):[0-5]\d$)",
         {{"00:00", 0},
          {"23:59", 0},
          {"24:00", no_match},
          {"23:60", no_match},
          {"1:00", no_match},
          {"01:00:00", no_match}}},
        {"Uuid",
         validate_uuid,
         "UUID",
         nullptr,
         0,
         0,
         R"(^[a-fA-F0-9]{8}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{12}$)",
         {{"01234567-89ab-cdef-ABCD-EF0123456789", 0},
          {"01234567-89ab-cdef-ABCD-EF012345678", no_match},
          {"0123456789abcdefABCDEF0123456789", no_match},
          {"g1234567-89ab-cdef-ABCD-EF0123456789", no_match}}},
        {"IpAddress",
         validate_ip_address,
         "IP Address",
         "Validating ip address: ",
         7,
         15,
         R"(^((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9][0-9]|[0-9])\.){3})"
         R"((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9][0-9]|[0-9])$)",
         {{"192.168.1.1", 0},
          {"0.0.0.0", 0},
          {"255.255.255.255", 0},
          {"01.2.3.4", no_match},
          {"1.1.1.1111", no_match},
          {"1.1.1", too_short},
          {"1.1.1.256", no_match},
          {"1111111", no_match},
          {"255.255.255.2551", too_long},
          {"1.1.1.1\n", 0}}},
        {"MacAddress",
         validate_mac_address,
         "MAC Address",
         "Validating mac address: ",
         17,
         17,
         R"(^((((\d|[A-Fa-f]){2}:){5})|(((\d|[A-Fa-f]){2}-){5}))(\d|[A-Fa-f]){2}$)",
         {{"aa:BB:cc:00:11:22", 0},
          {"aa-bb-cc-00-11-22", 0},
          {"aa:bb-cc:00:11:22", no_match},
          {"aa:bb:cc:00:11:2", too_short},
          {"aa:bb:cc:00:11:222", too_long},
          {"ga:bb:cc:00:11:22", no_match},
          {"aa:bb:cc:00:11:2\n", no_match},
          {"", too_short}}},
        {"Description",
         validate_description,
         "Description",
         "Validating description: ",
         0,
         50,
         R"(^[^"]*$)",
         {{"", 0},
          {std::string(50, 'x'), 0},
          {std::string(51, 'x'), too_long},
          {"a \"quoted\" word", no_match},
          {"two\nlines", 0}}},
        // The value stands in clear in the log.
        {"Password",
         validate_password,
         "Password",
         "Validating password: ",
         4,
         15,
         R"(^[a-zA-Z0-9!?_@-]{4,15}$)",
         {{"aZ09", 0},
          {"!?_@-", 0},
          {std::string(15, 'x'), 0},
          {"abc", too_short},
          {std::string(16, 'x'), too_long},
          {"with space", no_match},
          {"dot.", no_match}}},
        {"Username",
         validate_username,
         "Username",
         "Validating username: ",
         4,
         15,
         R"(^[a-zA-Z0-9]{4,15}$)",
         {{"operator7", 0},
          {"Root", 0},
          {"abcd", 0},
          {std::string(15, 'x'), 0},
          {"abc", too_short},
          {"bin", too_short},
          {std::string(16, 'x'), too_long},
          {"under_score", no_match},
          {"www-data", no_match}}},
    };
    return rows;
}

/** The lines of a value that reaches the pattern, before its verdict; the value shown as the log's reader sees it. */
Lines lines_before_verdict(const PatternField &field, const std::string &value) {
    Lines lines;
    if (field.announcement != nullptr) {
        lines.push_back("VERB |" + (field.announcement + value));
    }
    lines.push_back(std::string("VERB |Testing [") + field.label + "] value <" + value +
                    "> against regex: " + field.pattern);
    return lines;
}

class PatternFields : public testing::TestWithParam<PatternField> {};

INSTANTIATE_TEST_SUITE_P(Field, PatternFields, testing::ValuesIn(pattern_fields()),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(PatternFields, FollowTheirExamples) {
    support::set_log_level("off");
    for (const Example &example : GetParam().examples) {
        EXPECT_EQ(GetParam().validate(example.value.c_str()), example.rc) << "<" << example.value << ">";
    }
}

TEST_P(PatternFields, SayWhatTheyAccept) {
    const std::string &value = GetParam().examples.front().value;
    const LogCapture log("verbose");
    EXPECT_EQ(GetParam().validate(value.c_str()), 0);
    Lines expected = lines_before_verdict(GetParam(), value);
    expected.emplace_back("DEBUG|Regex test passed.");
    Lines lines = log.sequence();
    ASSERT_GE(lines.size(), expected.size());
    lines.resize(expected.size()); // a user name goes on to the reserved names
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(log.lines().front().file, unit);
}

TEST_P(PatternFields, SayWhatDoesNotMatch) {
    std::string value;
    for (const Example &example : GetParam().examples) {
        value = example.rc == no_match ? example.value : value;
    }
    const LogCapture log("verbose");
    EXPECT_EQ(GetParam().validate(value.c_str()), TAVRIX_INVALID_NO_MATCH);
    Lines expected = lines_before_verdict(GetParam(), value);
    expected.push_back(std::string("DEBUG|Validation failed: [") + GetParam().label + "] value <" + value +
                       "> did not return a regex match.");
    EXPECT_EQ(log.sequence(), expected);
}

TEST_P(PatternFields, KeepTheirBoundsBeforeThePattern) {
    const PatternField &field = GetParam();
    if (field.max_length == 0) {
        EXPECT_NE(field.validate(std::string(5000, '#').c_str()), TAVRIX_INVALID_TOO_LONG) << "no bounds";
        EXPECT_NE(field.validate(""), TAVRIX_INVALID_TOO_SHORT);
        return;
    }
    const LogCapture log("debug");
    const std::string long_value(static_cast<size_t>(field.max_length) + 1, 'a');
    EXPECT_EQ(field.validate(long_value.c_str()), TAVRIX_INVALID_TOO_LONG);
    EXPECT_NE(field.validate(long_value.substr(1).c_str()), TAVRIX_INVALID_TOO_LONG);
    EXPECT_EQ(log.sequence().front(), std::string("DEBUG|Validation failed: [") + field.label + "] value <" +
                                          long_value + "> is too long (>" + std::to_string(field.max_length) + ")");
    if (field.min_length > 0) {
        const std::string short_value(static_cast<size_t>(field.min_length) - 1, 'a');
        EXPECT_EQ(field.validate(short_value.c_str()), TAVRIX_INVALID_TOO_SHORT);
        EXPECT_EQ(log.sequence().back(), std::string("DEBUG|Validation failed: [") + field.label + "] value <" +
                                             short_value + "> is too short (<" + std::to_string(field.min_length) +
                                             ")");
        EXPECT_NE(field.validate((short_value + "a").c_str()), TAVRIX_INVALID_TOO_SHORT);
    }
}

TEST_P(PatternFields, SayOnlyTheVerdictAtDebugLevelAndNothingBelow) {
    const std::string &value = GetParam().examples.front().value;
    {
        const LogCapture log("debug");
        EXPECT_EQ(GetParam().validate(value.c_str()), 0);
        EXPECT_EQ(log.sequence().front(), "DEBUG|Regex test passed.");
    }
    for (const char *level : {"info", "off"}) {
        const LogCapture log(level);
        for (const Example &example : GetParam().examples) {
            GetParam().validate(example.value.c_str());
        }
        EXPECT_TRUE(log.silent()) << level;
    }
}

// --- User names ----------------------------------------------------------------------------------------------------

TEST(Username, RefusesReservedNamesAfterThePattern) {
    for (const char *name :
         {"root", "daemon", "sync", "mail", "proxy", "backup", "operator", "haldaemon", "dbus", "nobody", "sshd"}) {
        EXPECT_EQ(validate_username(name), TAVRIX_INVALID_NOT_ALLOWED) << name;
    }
    EXPECT_EQ(validate_username("bin"), TAVRIX_INVALID_TOO_SHORT) << "too short for the list to be looked at";
    EXPECT_EQ(validate_username("sys"), TAVRIX_INVALID_TOO_SHORT);
    EXPECT_EQ(validate_username("www-data"), TAVRIX_INVALID_NO_MATCH) << "the pattern comes first";
}

TEST(Username, WalksTheWholeListInItsOrder) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("alice"), 0);
    Lines expected = {"VERB |Validating username: alice",
                      "VERB |Testing [Username] value <alice> against regex: ^[a-zA-Z0-9]{4,15}$",
                      "DEBUG|Regex test passed."};
    for (const char *name : {"root", "daemon", "bin", "sys", "sync", "mail", "proxy", "www-data", "backup", "operator",
                             "haldaemon", "dbus", "nobody", "sshd"}) {
        expected.push_back(std::string("VERB |[Username] value <alice> did not match blacklist option <") + name + ">");
    }
    expected.emplace_back("DEBUG|Given [Username] value <alice> is not one of the blacklisted options");
    EXPECT_EQ(log.sequence(), expected);
}

TEST(Username, StopsAtTheReservedNameItIs) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("daemon"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(
        log.sequence(),
        (Lines{"VERB |Validating username: daemon",
               "VERB |Testing [Username] value <daemon> against regex: ^[a-zA-Z0-9]{4,15}$", "DEBUG|Regex test passed.",
               "VERB |[Username] value <daemon> did not match blacklist option <root>",
               "DEBUG|Validation failed: [Username] value <daemon> matches blacklist option <daemon>"}));
}

TEST(Username, IsNotComparedWhenThePatternRefusesIt) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("www-data"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(log.text().find("blacklist"), std::string::npos);
}

// --- Option fields -------------------------------------------------------------------------------------------------

TEST(OptionFields, AcceptTheirWordsInTheirOrder) {
    const struct {
        int (*validate)(const char *);
        const char *label;
        const char *announcement;
        Lines words;
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
        EXPECT_EQ(row.validate("Enable"), TAVRIX_INVALID_NOT_ALLOWED);
        Lines expected = {std::string("VERB |") + row.announcement + "Enable"};
        for (const std::string &word : row.words) {
            expected.push_back(std::string("VERB |[") + row.label + "] value <Enable> did not match option <" + word +
                               ">");
        }
        expected.push_back(std::string("DEBUG|Validation failed: Given [") + row.label +
                           "] value <Enable> is not one of the available options");
        EXPECT_EQ(log.sequence(), expected);
    }
    EXPECT_EQ(validate_vlan_mode("trans"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(validate_vlan_mode("unknown"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(validate_mzu_model("ZQN-E18"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(validate_status(""), TAVRIX_INVALID_NOT_ALLOWED);
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
            EXPECT_EQ(log.sequence(), Lines{std::string("VERB |") + row.announcement + std::to_string(value)});
        }
        for (const int value : {row.low - 1, row.high + 1, INT32_MIN, INT32_MAX}) {
            const LogCapture log("verbose");
            EXPECT_EQ(row.validate(value), TAVRIX_INVALID_OUT_OF_RANGE) << row.announcement << value;
            EXPECT_EQ(log.sequence(), (Lines{std::string("VERB |") + row.announcement + std::to_string(value),
                                             std::string("DEBUG|") + row.failure + bounds}));
        }
    }
}

TEST(NumberFields, SayOnlyTheFailureAtDebugLevelAndNothingBelow) {
    {
        const LogCapture log("debug");
        EXPECT_EQ(validate_onu_id(-1), 0);
        EXPECT_EQ(validate_onu_id(129), TAVRIX_INVALID_OUT_OF_RANGE);
        EXPECT_EQ(log.sequence(), Lines{"DEBUG|FAIL: ONU id outside acceptable range [-1, 128]"});
    }
    const LogCapture log("info");
    EXPECT_EQ(validate_onu_id(129), TAVRIX_INVALID_OUT_OF_RANGE);
    EXPECT_TRUE(log.silent());
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
    EXPECT_EQ(validate_date_time("2026-05-01", "24:00"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(validate_date_time("2026-5-32", "13:45"), TAVRIX_INVALID_NO_MATCH);
    const LogCapture log("verbose");
    EXPECT_EQ(validate_date_time("x", "y"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_FALSE(log.has(support::verbose, unit, "Validating time: y\n"));
}

TEST(DateTime, HasNoLineOfItsOwn) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_date_time("2026-05-01", "13:45"), 0);
    EXPECT_EQ(log.sequence(), (Lines{
                                  "VERB |Validating date: 2026-05-01",
                                  "VERB |Testing [Date] value <2026-05-01> against regex: "
                                  R"(^2\d{3}-([1-9]|0[1-9]|1[0-2])-([1-9]|0[1-9]|1\d|2\d|3[0-1])$)",
                                  "DEBUG|Regex test passed.",
                                  "VERB |Validating time: 13:45",
                                  "VERB |Testing [Time] value <13:45> against regex: "
                                  R"(^([0-1]\d|2[0-3]):[0-5]\d$)",
                                  "DEBUG|Regex test passed.",
                              }));
}

TEST(Date, KnowsNoCalendar) {
    EXPECT_EQ(validate_date("2030-2-30"), 0);
    EXPECT_EQ(validate_date("1999-12-31"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(validate_date("3000-01-01"), TAVRIX_INVALID_NO_MATCH);
}

TEST(EntityName, StopsAtTheFirstAcceptance) {
    const struct {
        const char *value;
        int rc;
        Lines announced;
    } rows[] = {
        {"c5", 0, {"mzu id"}},
        {"c5-1", 0, {"mzu id", "port id"}},
        {"d1", 0, {"mzu id", "port id"}},
        {"v10", 0, {"mzu id", "port id", "vlan name id"}},
        {"x", no_match, {"mzu id", "port id", "vlan name id"}},
    };
    for (const auto &row : rows) {
        const LogCapture log("verbose");
        EXPECT_EQ(validate_entity_name(row.value), row.rc) << row.value;
        Lines announced;
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
    EXPECT_EQ(validate_entity_extension("any \"bytes\"\n\xff"), 0);
    {
        const LogCapture log("verbose");
        EXPECT_EQ(validate_entity_extension(longest.c_str()), 0);
        EXPECT_EQ(log.sequence(), Lines{"VERB |Validating extension: " + longest});
    }
    const LogCapture log("verbose");
    EXPECT_EQ(validate_entity_extension((longest + "y").c_str()), TAVRIX_INVALID_TOO_LONG);
    EXPECT_EQ(log.sequence(),
              (Lines{"VERB |Validating extension: " + longest + "y",
                     "DEBUG|Validation failed: [extension] value <" + longest + "y> is too long (>1000)"}));
}

// --- Null ----------------------------------------------------------------------------------------------------------

TEST(TextValidators, RefuseANullValueInSilence) {
    const LogCapture log("verbose");
    for (const PatternField &field : pattern_fields()) {
        EXPECT_EQ(field.validate(nullptr), TAVRIX_INVALID_ENGINE) << field.name;
    }
    for (int (*validate)(const char *) :
         {validate_status, validate_vlan_mode, validate_unit_sw_bank, validate_mzu_model, validate_entity_extension}) {
        EXPECT_EQ(validate(nullptr), TAVRIX_INVALID_ENGINE);
    }
    EXPECT_EQ(validate_entity_name(nullptr), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(validate_date_time(nullptr, "13:45"), TAVRIX_INVALID_ENGINE);
    EXPECT_TRUE(log.silent());
    EXPECT_EQ(validate_date_time("2026-05-01", nullptr), TAVRIX_INVALID_ENGINE);
}
