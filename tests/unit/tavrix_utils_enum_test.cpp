/*
 * The words of the enumerations: each table, its enumerators, and the two ways between value and word.
 */
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/params.h"
#include "tavrix_error.h"
#include "tavrix_lsyslog.h"
#include "tavrix_utils.h"
#include "tavrix_validation.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_utils";
constexpr int untouched = -77;

struct Table {
    const char *const *words;
    size_t extent;
    Lines expected;
    std::vector<int> enumerators; ///< in the order of their words
};

template <size_t Extent>
Table table_of(const char *const (&words)[Extent], const Lines &expected, const std::vector<int> &enumerators) {
    return {words, Extent, expected, enumerators};
}

std::vector<Table> tables() {
    return {
        table_of(tavrix_state_troubled_strings, {"disabled", "enabled", "troubled"},
                 {TAVRIX_STATE_TROUBLED_DISABLED, TAVRIX_STATE_TROUBLED_ENABLED, TAVRIX_STATE_TROUBLED_TROUBLED}),
        table_of(tavrix_state_failed_strings, {"disabled", "enabled", "failed"},
                 {TAVRIX_STATE_FAILED_DISABLED, TAVRIX_STATE_FAILED_ENABLED, TAVRIX_STATE_FAILED_FAILED}),
        table_of(tavrix_admin_status_strings, {"disable", "enable"},
                 {TAVRIX_ADMIN_STATUS_DISABLE, TAVRIX_ADMIN_STATUS_ENABLE}),
        table_of(tavrix_port_status_strings, {"disable", "enable"},
                 {TAVRIX_PORT_STATUS_DISABLE, TAVRIX_PORT_STATUS_ENABLE}),
        table_of(tavrix_poe_status_strings, {"unknown", "disabled", "enabled", "offline", "unsupported"},
                 {TAVRIX_POE_STATUS_UNKNOWN, TAVRIX_POE_STATUS_DISABLED, TAVRIX_POE_STATUS_ENABLED,
                  TAVRIX_POE_STATUS_OFFLINE, TAVRIX_POE_STATUS_UNSUPPORTED}),
        table_of(
            tavrix_link_status_strings, {"unknown", "down", "up", "offline"},
            {TAVRIX_LINK_STATUS_UNKNOWN, TAVRIX_LINK_STATUS_DOWN, TAVRIX_LINK_STATUS_UP, TAVRIX_LINK_STATUS_OFFLINE}),
        table_of(tavrix_link_speed_strings,
                 {"unknown", "offline", "N/A", "unsupported", "10 Mbps", "100 Mbps", "1000 Mbps"},
                 {TAVRIX_LINK_SPEED_UNKNOWN, TAVRIX_LINK_SPEED_OFFLINE, TAVRIX_LINK_SPEED_NOT_APPLICABLE,
                  TAVRIX_LINK_SPEED_UNSUPPORTED, TAVRIX_LINK_SPEED_10_MBPS, TAVRIX_LINK_SPEED_100_MBPS,
                  TAVRIX_LINK_SPEED_1000_MBPS}),
        table_of(tavrix_vlan_mode_strings, {"unknown", "local", "access", "trunk", "trans"},
                 {TAVRIX_VLAN_MODE_UNKNOWN, TAVRIX_VLAN_MODE_LOCAL, TAVRIX_VLAN_MODE_ACCESS, TAVRIX_VLAN_MODE_TRUNK,
                  TAVRIX_VLAN_MODE_TRANS}),
        table_of(tavrix_mzu_model_strings,
                 {"unknown", "ZQN-E09", "ZQN-E10", "ZQN-E11", "ZQN-E12", "ZQN-E13", "ZQN-E14", "Generic MZU", "ZQN-E15",
                  "ZQN-E16", "ZQN-E17"},
                 {TAVRIX_MZU_MODEL_UNKNOWN, TAVRIX_MZU_MODEL_ZQN_E09, TAVRIX_MZU_MODEL_ZQN_E10,
                  TAVRIX_MZU_MODEL_ZQN_E11, TAVRIX_MZU_MODEL_ZQN_E12, TAVRIX_MZU_MODEL_ZQN_E13,
                  TAVRIX_MZU_MODEL_ZQN_E14, TAVRIX_MZU_MODEL_GENERIC, TAVRIX_MZU_MODEL_ZQN_E15,
                  TAVRIX_MZU_MODEL_ZQN_E16, TAVRIX_MZU_MODEL_ZQN_E17}),
        table_of(tavrix_secure_option_strings, {"current", "enable", "disable"},
                 {TAVRIX_SECURE_OPTION_CURRENT, TAVRIX_SECURE_OPTION_ENABLE, TAVRIX_SECURE_OPTION_DISABLE}),
    };
}

std::string word_of(int value, const char *const *table) {
    char word[32] = "";
    EXPECT_EQ(tavrix_enum_to_str(word, sizeof word, value, table), 0);
    return word;
}

int value_of(const std::string &word, const char *const *table) {
    int value = untouched;
    EXPECT_EQ(tavrix_str_to_enum(&value, word.c_str(), table), 0) << word;
    return value;
}

bool lacks(const char *const *table, const std::string &word) {
    int value = untouched;
    return tavrix_str_to_enum(&value, word.c_str(), table) == -1 && value == untouched;
}

} // namespace

TEST(EnumerationTables, HoldTheirWordsInTheOrderOfTheirEnumeratorsAndThenNull) {
    for (const Table &table : tables()) {
        SCOPED_TRACE(testing::PrintToString(table.expected));
        ASSERT_EQ(table.extent, table.expected.size() + 1);
        ASSERT_EQ(table.enumerators.size(), table.expected.size());
        EXPECT_EQ(table.words[table.expected.size()], nullptr);
        for (size_t i = 0; i < table.expected.size(); ++i) {
            const int value = static_cast<int>(i);
            EXPECT_EQ(table.enumerators[i], value);
            EXPECT_EQ(table.words[i], table.expected[i]) << i;
            EXPECT_EQ(word_of(value, table.words), table.expected[i]);
            EXPECT_EQ(value_of(table.expected[i], table.words), value);
        }
    }
}

TEST(EnumerationTables, LackWordsThatAreOnlyAlmostTheirOwn) {
    for (const Table &table : tables()) {
        EXPECT_TRUE(lacks(table.words, ""));
        for (const std::string &word : table.expected) {
            std::string other_case = word;
            other_case[0] = static_cast<char>(other_case[0] ^ 0x20);
            EXPECT_TRUE(lacks(table.words, other_case)) << other_case;
            EXPECT_TRUE(lacks(table.words, word + " ")) << word;
            EXPECT_TRUE(lacks(table.words, " " + word)) << word;
            EXPECT_TRUE(lacks(table.words, word + "x")) << word;
            EXPECT_TRUE(lacks(table.words, word.substr(0, 1))) << word;
        }
    }
}

// --- What stored numbers rely on ---

TEST(Enumerations, MapAVlanModeThatRequestsCannotName) {
    EXPECT_EQ(value_of("trans", tavrix_vlan_mode_strings), 4);
    EXPECT_EQ(validate_vlan_mode("trans"), TAVRIX_INVALID_NOT_ALLOWED);
}

TEST(Enumerations, IndexTheLogLevelsWhichHaveNoTerminator) {
    const char *const expected[] = {"undef", "config", "error", "warning", "info", "debug", "verbose"};
    ASSERT_EQ(sizeof tavrix_log_level_strings, sizeof expected);
    for (int level = TAVRIX_LOG_UNDEF; level <= TAVRIX_LOG_VERBOSE; ++level) {
        EXPECT_EQ(word_of(level, tavrix_log_level_strings), expected[level]);
    }
}

// --- Value to word ---

TEST(EnumToStr, CutsAWordToItsBuffer) {
    for (const auto &[size, word] :
         {std::pair<size_t, const char *>(9, "disable"), {8, "disable"}, {7, "disabl"}, {2, "d"}, {1, ""}}) {
        Buffer out(size);
        EXPECT_EQ(tavrix_enum_to_str(out.get(), size, 2, tavrix_secure_option_strings), 0);
        EXPECT_EQ(out.text(), word);
    }
}

TEST(EnumToStr, ClearsTheWholeBufferAndReadsTheTerminatorAsNoWord) {
    for (const auto &[value, word] : {std::pair(2, "disable"), std::pair(3, "")}) {
        Buffer out(16);
        EXPECT_EQ(tavrix_enum_to_str(out.get(), out.size(), value, tavrix_secure_option_strings), 0);
        EXPECT_EQ(out.text(), word);
        EXPECT_TRUE(out.cleared_behind_text());
    }
    Buffer none(0);
    EXPECT_EQ(tavrix_enum_to_str(none.get(), none.size(), 2, tavrix_secure_option_strings), 0);
    EXPECT_TRUE(none.untouched());
}

TEST(EnumToStr, SaysTheWholeWordAtVerboseOnly) {
    char word[4] = "";
    LogCapture log("verbose");
    tavrix_enum_to_str(word, sizeof word, 2, tavrix_secure_option_strings);
    EXPECT_TRUE(log.said({"VERB |Mapped enum value <2> to string <disable>"}));
    EXPECT_EQ(log.lines().front().file, unit);
    log.begin("debug");
    tavrix_enum_to_str(word, sizeof word, 2, tavrix_secure_option_strings);
    EXPECT_TRUE(log.silent());
}

TEST(EnumToStr, RefusesNullAndNamesIt) {
    char word[8] = "kept";
    expect_nulls_named(TAVRIX_ERR_PARAMETER, tavrix_enum_to_str, word, sizeof word, 0, &tavrix_link_status_strings[0]);
    EXPECT_STREQ(word, "kept");
}

// --- Word to value ---

TEST(StrToEnum, TakesTheFirstOfEqualWords) {
    const char *const table[] = {"a", "b", "b", nullptr};
    EXPECT_EQ(value_of("b", table), 1);
}

TEST(StrToEnum, FindsNothingInAnEmptyTable) {
    const char *const table[] = {nullptr};
    EXPECT_TRUE(lacks(table, "a"));
    EXPECT_TRUE(lacks(table, ""));
}

TEST(StrToEnum, SaysWhatItFoundAtVerboseOnly) {
    int value = untouched;
    LogCapture log("verbose");
    EXPECT_EQ(tavrix_str_to_enum(&value, "Up", tavrix_link_status_strings), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(value, untouched);
    EXPECT_EQ(tavrix_str_to_enum(&value, "up", tavrix_link_status_strings), 0);
    EXPECT_EQ(value, 2);
    EXPECT_TRUE(
        log.said({"VERB |Unable to map string <Up> to enum value", "VERB |Mapped string <up> to enum value <2>"}));
    EXPECT_EQ(log.lines().front().file, unit);
    log.begin("debug");
    tavrix_str_to_enum(&value, "Up", tavrix_link_status_strings);
    tavrix_str_to_enum(&value, "up", tavrix_link_status_strings);
    EXPECT_TRUE(log.silent());
}

TEST(StrToEnum, RefusesNullAndNamesIt) {
    int value = untouched;
    expect_nulls_named(TAVRIX_ERR_PARAMETER, tavrix_str_to_enum, &value, "up", &tavrix_link_status_strings[0]);
    EXPECT_EQ(value, untouched);
}
