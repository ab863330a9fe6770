/*
 * Every validator: what it announces, the rule it names in the log, its bounds and examples.
 */
#include "tavrix_validation.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/fields.h"
#include "support/log_capture.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_validation";

// --- Pattern fields ------------------------------------------------------------------------------------------------

struct PatternField {
    const char *name;         ///< in the tests' table of fields
    std::string announcement; ///< before the value; empty when the field announces nothing
    Lines accepted;
    Lines refused; ///< by the bounds when they do not fit in, else by the pattern
};

const std::vector<PatternField> &rows() {
    static const std::vector<PatternField> all = {
        {"port_id",
         "Validating port id: ",
         {"c128-99", "D4", "d1", "C1-1", "d1\n"},
         {"c129-1", "c0-2", "c2-100", "c01-2", "c2-01", "c2-0", "d5", "d0", "c5", "", "xd1", "d1x", "d1\n\n"}},
        {"c_port_id", "Validating c-port id: ", {"c2-3", "C128-99", "c2-3\n"}, {"c129-1", "d1", "c2"}},
        {"d_port_id", "Validating d-port id: ", {"d1", "D4"}, {"d5", "d0", "d11", "c1-1"}},
        {"vlan_name_id", "Validating vlan name id: ", {"v1", "v4092"}, {"v4093", "v0", "v01", "V4092", "v"}},
        {"mzu_id", "Validating mzu id: ", {"c128", "C1"}, {"c129", "c0", "c2-3", "c01"}},
        {"mzu_sw_upgrade_filename", "Validating sw upgrade filename: ", {"any file", "", "one line\n"}, {"two\nlines"}},
        // Announced in the other file's words: deployed scripts look for them.
        {"unit_sw_upgrade_filename",
         "Validating sw upgrade filename: ",
         {"zqn1.2.3-004", "/tmp/zqn-h7-1.2.3-004.img", "xzqnx9x8x7-123", "zqn 1.2.3-0045", "zqn1.2.3-004\nmore"},
         {"ZQN1.2.3-004", "1.2.3-004zqn", "zqn1.2.3-04", "zqn12.3-004", "zqn1.2.3004", "", "a\nzqn1.2.3-004",
          "zqn\n1.2.3-004"}},
        {"date",
         "Validating date: ",
         {"2030-2-30", "2000-01-01", "2999-12-31", "2030-1-1\n"}, // no calendar: February has 31 days
         {"2030-2-031", "1999-12-31", "3000-01-01", "2030-0-1", "2030-13-1", "2030-1-0", "2030-1-32"}},
        {"time", "Validating time: ", {"00:00", "23:59"}, {"24:00", "23:60", "1:00", "01:00:00"}},
        {"uuid",
         "",
         {"01234567-89ab-cdef-ABCD-EF0123456789"},
         {"01234567-89ab-cdef-ABCD-EF012345678", "0123456789abcdefABCDEF0123456789",
          "g1234567-89ab-cdef-ABCD-EF0123456789"}},
        {"ip_address",
         "Validating ip address: ",
         {"192.168.1.1", "0.0.0.0", "255.255.255.255", "1.1.1.1\n"},
         {"01.2.3.4", "1.1.1.1111", "1.1.1", "1.1.1.256", "255.255.255.2551", "1111111"}},
        {"mac_address",
         "Validating mac address: ",
         {"aa:BB:cc:00:11:22", "aa-bb-cc-00-11-22"},
         {"aa:bb-cc:00:11:22", "aa:bb:cc:00:11:2", "aa:bb:cc:00:11:222", "ga:bb:cc:00:11:22", "",
          "aa:bb:cc:00:11:2\n"}},
        {"description",
         "Validating description: ",
         {"a text", "", std::string(50, 'x'), "two\nlines"},
         {std::string(51, 'x'), "a \"quoted\" word"}},
        // The value stands in clear in the log.
        {"password",
         "Validating password: ",
         {"aZ09", "!?_@-", std::string(15, 'x')},
         {"abc", std::string(16, 'x'), "with space", "dot."}},
        {"username",
         "Validating username: ",
         {"operator7", "Root", "abcd", std::string(15, 'x')},
         {"abc", "bin", std::string(16, 'x'), "under_score", "www-data"}},
    };
    return all;
}

/** Ends where a pattern begins: what it accepts is stated here, how it is written is the source's own affair. */
constexpr char regex[] = " against regex: ";

/** The lines without the patterns that they show. */
Lines without_patterns(Lines lines) {
    for (std::string &line : lines) {
        const size_t at = line.find(regex);
        line.resize(at != std::string::npos ? at + sizeof regex - 1 : line.size());
    }
    return lines;
}

class PatternFields : public testing::TestWithParam<PatternField> {
  protected:
    const PatternField &row = GetParam();
    const Field &field = support::field(row.name);

    int validate(const std::string &value) const { return field.validate(value.c_str()); }
    /** The lines of a value that reaches the pattern, before its verdict; the value shown as the log's reader sees it.
     */
    Lines lines_before_verdict(const std::string &value) const {
        const std::string testing = std::string("VERB |Testing [") + field.label + "] value <" + value + ">" + regex;
        return row.announcement.empty() ? Lines{testing} : Lines{"VERB |" + row.announcement + value, testing};
    }
    /** How the line begins that tells of a refusal. */
    std::string failure(const std::string &value) const {
        return std::string("DEBUG|Validation failed: [") + field.label + "] value <" + value + "> ";
    }
};

INSTANTIATE_TEST_SUITE_P(Field, PatternFields, testing::ValuesIn(rows()),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST(PatternFieldRows, AreAllOfThem) {
    EXPECT_TRUE(std::equal(rows().begin(), rows().end(), pattern_fields().begin(), pattern_fields().end(),
                           [](const auto &row, const Field &field) { return row.name == std::string(field.name); }));
}

TEST_P(PatternFields, AcceptAndRefuse) {
    set_log_level("off");
    for (const std::string &value : row.accepted) {
        EXPECT_EQ(validate(value), TAVRIX_VALID) << "<" << value << ">";
    }
    for (const std::string &value : row.refused) {
        const int by_bounds = field.judge_length(value);
        EXPECT_EQ(validate(value), by_bounds != TAVRIX_VALID ? by_bounds : TAVRIX_INVALID_NO_MATCH)
            << "<" << value << ">";
    }
}

TEST_P(PatternFields, SayWhatTheyAcceptAndWhatDoesNotMatch) {
    const std::string &good = row.accepted.front();
    const std::string &bad = row.refused.back();
    LogCapture log("verbose");
    EXPECT_EQ(validate(good), TAVRIX_VALID);
    Lines expected = lines_before_verdict(good);
    expected.emplace_back("DEBUG|Regex test passed.");
    Lines lines = without_patterns(log.sequence());
    ASSERT_GE(lines.size(), expected.size());
    lines.resize(expected.size()); // a user name goes on to the reserved names
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(log.lines().front().file, unit);
    log.clear();
    EXPECT_EQ(validate(bad), TAVRIX_INVALID_NO_MATCH);
    expected = lines_before_verdict(bad);
    expected.push_back(failure(bad) + "did not return a regex match.");
    EXPECT_EQ(without_patterns(log.sequence()), expected);
}

TEST_P(PatternFields, KeepTheirBoundsBeforeThePattern) {
    if (field.max_length == 0) {
        EXPECT_NE(validate(std::string(5000, '#')), TAVRIX_INVALID_TOO_LONG) << "no bounds";
        EXPECT_NE(validate(""), TAVRIX_INVALID_TOO_SHORT);
        return;
    }
    const LogCapture log("debug");
    const std::string long_value(static_cast<size_t>(field.max_length) + 1, 'a');
    EXPECT_EQ(validate(long_value), TAVRIX_INVALID_TOO_LONG);
    EXPECT_NE(validate(long_value.substr(1)), TAVRIX_INVALID_TOO_LONG);
    EXPECT_EQ(log.sequence().front(), failure(long_value) + "is too long (>" + std::to_string(field.max_length) + ")");
    if (field.min_length > 0) {
        const std::string short_value(static_cast<size_t>(field.min_length) - 1, 'a');
        EXPECT_EQ(validate(short_value), TAVRIX_INVALID_TOO_SHORT);
        EXPECT_EQ(log.sequence().back(),
                  failure(short_value) + "is too short (<" + std::to_string(field.min_length) + ")");
        EXPECT_NE(validate(short_value + "a"), TAVRIX_INVALID_TOO_SHORT);
    }
}

TEST_P(PatternFields, SayOnlyTheVerdictAtDebugLevelAndNothingBelow) {
    {
        const LogCapture log("debug");
        EXPECT_EQ(validate(row.accepted.front()), TAVRIX_VALID);
        EXPECT_EQ(log.first(), "DEBUG|Regex test passed.\n");
    }
    for (const char *level : {"info", "off"}) {
        const LogCapture log(level);
        for (const Lines &values : {row.accepted, row.refused}) {
            for (const std::string &value : values) {
                validate(value);
            }
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
    EXPECT_EQ(validate_username("sys"), TAVRIX_INVALID_TOO_SHORT) << "too short for the list to be looked at";
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("www-data"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(log.text().find("blacklist"), std::string::npos) << "nor does the pattern let it come so far";
}

TEST(Username, WalksTheWholeListInItsOrder) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("alice"), 0);
    Lines expected = {"VERB |Validating username: alice",
                      "VERB |Testing [Username] value <alice> against regex: ", "DEBUG|Regex test passed."};
    for (const char *name : {"root", "daemon", "bin", "sys", "sync", "mail", "proxy", "www-data", "backup", "operator",
                             "haldaemon", "dbus", "nobody", "sshd"}) {
        expected.push_back(std::string("VERB |[Username] value <alice> did not match blacklist option <") + name + ">");
    }
    expected.emplace_back("DEBUG|Given [Username] value <alice> is not one of the blacklisted options");
    EXPECT_EQ(without_patterns(log.sequence()), expected);
}

TEST(Username, StopsAtTheReservedNameItIs) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_username("daemon"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(without_patterns(log.sequence()),
              (Lines{"VERB |Validating username: daemon",
                     "VERB |Testing [Username] value <daemon> against regex: ", "DEBUG|Regex test passed.",
                     "VERB |[Username] value <daemon> did not match blacklist option <root>",
                     "DEBUG|Validation failed: [Username] value <daemon> matches blacklist option <daemon>"}));
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
        EXPECT_TRUE(log.said(expected));
    }
    for (const char *mode : {"trans", "unknown", ""}) {
        EXPECT_EQ(validate_vlan_mode(mode), TAVRIX_INVALID_NOT_ALLOWED);
    }
}

// --- Number fields -------------------------------------------------------------------------------------------------

TEST(NumberFields, AcceptTheirClosedRange) {
    const struct {
        int (*validate)(int);
        int low;
        int high;
        const char *announced;
        const char *refused;
    } rows[] = {
        {validate_vlan_id, 1, 4092, "vlan id", "Vlan id"},
        {validate_unit_id, 1, 1, "unit id", "Unit id"},
        {validate_laser_id, 0, 1, "laser_id", "laser_id"},
        {validate_olt_id, 0, 1, "olt id", "OLT id"},
        {validate_onu_id, -1, 128, "ONU id", "ONU id"},
        {validate_port_number, 1, 128, "port_number", "port_number"},
        {validate_periodic_interval, 1, 3600, "periodic interval", "Periodic interval"},
    };
    for (const auto &row : rows) {
        const std::string failure = std::string("DEBUG|FAIL: ") + row.refused + " outside acceptable range [" +
                                    std::to_string(row.low) + ", " + std::to_string(row.high) + "]";
        for (const int value :
             {row.low, row.high, (row.low + row.high) / 2, row.low - 1, row.high + 1, INT32_MIN, INT32_MAX}) {
            const bool fits = row.low <= value && value <= row.high;
            const LogCapture log("verbose");
            EXPECT_EQ(row.validate(value), fits ? TAVRIX_VALID : TAVRIX_INVALID_OUT_OF_RANGE) << row.refused << value;
            Lines expected = {std::string("VERB |Validating ") + row.announced + ": " + std::to_string(value)};
            expected.insert(expected.end(), fits ? 0 : 1, failure);
            EXPECT_TRUE(log.said(expected));
        }
    }
}

TEST(NumberFields, SayOnlyTheFailureAtDebugLevelAndNothingBelow) {
    LogCapture log("debug");
    EXPECT_EQ(validate_onu_id(-1), 0);
    EXPECT_EQ(validate_onu_id(129), TAVRIX_INVALID_OUT_OF_RANGE);
    EXPECT_TRUE(log.said({"DEBUG|FAIL: ONU id outside acceptable range [-1, 128]"}));
    log.begin("info");
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

TEST(DateTime, ChecksTheDateFirstAndHasNoLineOfItsOwn) {
    EXPECT_EQ(validate_date_time("2026-05-01", "24:00"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(validate_date_time("2026-5-32", "13:45"), TAVRIX_INVALID_NO_MATCH);
    LogCapture log("verbose");
    EXPECT_EQ(validate_date_time("x", "y"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_FALSE(log.says("Validating time"));
    log.clear();
    EXPECT_EQ(validate_date_time("2026-05-01", "13:45"), 0);
    EXPECT_EQ(without_patterns(log.sequence()),
              (Lines{"VERB |Validating date: 2026-05-01", "VERB |Testing [Date] value <2026-05-01> against regex: ",
                     "DEBUG|Regex test passed.", "VERB |Validating time: 13:45",
                     "VERB |Testing [Time] value <13:45> against regex: ", "DEBUG|Regex test passed."}));
}

TEST(EntityName, StopsAtTheFirstAcceptance) {
    const std::tuple<const char *, int, Lines> rows[] = {
        {"c5", 0, {"mzu id"}},
        {"c5-1", 0, {"mzu id", "port id"}},
        {"d1", 0, {"mzu id", "port id"}},
        {"v10", 0, {"mzu id", "port id", "vlan name id"}},
        {"x", TAVRIX_INVALID_NO_MATCH, {"mzu id", "port id", "vlan name id"}},
    };
    for (const auto &[value, rc, announced] : rows) {
        const LogCapture log("verbose");
        EXPECT_EQ(validate_entity_name(value), rc) << value;
        EXPECT_EQ(log.validated(), announced) << value;
    }
}

TEST(EntityExtension, HasAtMost1000Characters) {
    const std::string longest(1000, 'x');
    EXPECT_EQ(validate_entity_extension(""), 0);
    EXPECT_EQ(validate_entity_extension("any \"bytes\"\n\xff"), 0);
    const LogCapture log("verbose");
    EXPECT_EQ(validate_entity_extension(longest.c_str()), 0);
    EXPECT_EQ(validate_entity_extension((longest + "y").c_str()), TAVRIX_INVALID_TOO_LONG);
    EXPECT_TRUE(log.said({"VERB |Validating extension: " + longest, "VERB |Validating extension: " + longest + "y",
                          "DEBUG|Validation failed: [extension] value <" + longest + "y> is too long (>1000)"}));
}

// --- Null ----------------------------------------------------------------------------------------------------------

TEST(TextValidators, RefuseANullValueInSilence) {
    const LogCapture log("verbose");
    for (const Field &field : pattern_fields()) {
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
