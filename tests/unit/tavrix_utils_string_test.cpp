#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tavrix_utils.h"

using support::LogCapture;

namespace {

constexpr char unit[] = "tavrix_utils";

struct Piece {
    int rc;
    std::string text;
};

Piece next(const char *text, const char *stops) {
    char out[64] = "untouched";
    const int rc = strparse(text, stops, out);
    return {rc, out};
}

} // namespace

TEST(Strparse, GoesThroughATextWithoutSkippingItsStops) {
    EXPECT_EQ(next("ab,cd;ef", ",;").text, "ab");
    EXPECT_EQ(next(nullptr, ",;").text, "") << "the next call begins with the stop";
    EXPECT_EQ(next(nullptr, ";").text, ",cd");
    EXPECT_EQ(next(nullptr, "x").text, ";ef");
    EXPECT_EQ(next(nullptr, "x").rc, 1) << "nothing to go on with";
    EXPECT_EQ(next(nullptr, "x").text, "untouched");
}

TEST(Strparse, StopsAtNewlinesAndEnds) {
    EXPECT_EQ(next("one\ntwo", "").text, "one");
    EXPECT_EQ(next("", ",").rc, 0);
    EXPECT_EQ(next(nullptr, ",").rc, 1);
    EXPECT_EQ(next("no stop", ",").text, "no stop");
    EXPECT_EQ(next(nullptr, ",").rc, 1);
}

TEST(Strparse, CountsElevenStops) {
    EXPECT_EQ(next("xyzlk", "abcdefghijkl").text, "xyzl") << "the twelfth stop does not count, the eleventh does";
    EXPECT_EQ(next("xyz", std::string(100, 'z').c_str()).text, "xy");
}

TEST(Strparse, RefusesNullPlacesAndKeepsItsCursor) {
    char out[8];
    EXPECT_EQ(next("a,b", ",").text, "a");
    EXPECT_EQ(strparse("zzz", nullptr, out), -4);
    EXPECT_EQ(strparse("zzz", ",", nullptr), -4);
    EXPECT_EQ(next(nullptr, "x").text, ",b");
}

TEST(IsDigits, AcceptsOnlyDecimalDigits) {
    EXPECT_EQ(isdigits("0123456789"), 1);
    EXPECT_EQ(isdigits(""), 1);
    for (const char *text : {"1a", "-1", " 1", "1.0", "\xb2", "\xff"}) {
        EXPECT_EQ(isdigits(text), 0) << text;
    }
}

TEST(LowerCase, FillsItsBuffer) {
    char out[8];
    std::memset(out, '~', sizeof out);
    EXPECT_EQ(tavrix_to_lower_case(out, 6, "AbC"), 0);
    EXPECT_EQ(std::string(out, 8), std::string("abc\0\0\0~~", 8));
    EXPECT_EQ(tavrix_to_lower_case(out, 4, "ABCDEF"), 0);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(tavrix_to_lower_case(out, 1, "ABC"), 0);
    EXPECT_STREQ(out, "");
    out[0] = '~';
    EXPECT_EQ(tavrix_to_lower_case(out, 0, "ABC"), 0);
    EXPECT_EQ(out[0], '~');
    EXPECT_EQ(tavrix_to_lower_case(nullptr, 4, "A"), -4);
    EXPECT_EQ(tavrix_to_lower_case(out, 4, nullptr), -4);
}

TEST(UpperCase, StopsAtItsLimitOrTheEnd) {
    char text[] = "abcdef";
    EXPECT_EQ(tavrix_to_upper_case(text, 3), 0);
    EXPECT_STREQ(text, "ABCdef");
    EXPECT_EQ(tavrix_to_upper_case(text, 100), 0);
    EXPECT_STREQ(text, "ABCDEF");
    char other[] = "abc";
    EXPECT_EQ(tavrix_to_upper_case(other, 0), 0);
    EXPECT_EQ(tavrix_to_upper_case(other, -1), 0);
    EXPECT_STREQ(other, "abc");
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_to_upper_case(nullptr, 3), -4);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"VERB |Received null value for tavrix_to_upper_case"});
}

TEST(UpperCase, ReturnsTheLengthOfAWholeText) {
    char text[] = "ab-1\xe4z";
    EXPECT_EQ(tavrix_str_to_upper(text), 6);
    EXPECT_STREQ(text, "AB-1\xe4Z");
    char empty[] = "";
    EXPECT_EQ(tavrix_str_to_upper(empty), 0);
}

TEST(Quotes, AreTakenOffAtTheBeginningOnly) {
    const struct {
        const char *text;
        const char *copied;
    } rows[] = {
        {"\"abc\"", "abc\""}, {"abc", "abc"}, {"\"abc", "\"abc"}, {"abc\"", "abc\""},
        {"\"\"", "\""},       {"\"", "\""},   {"", ""},
    };
    for (const auto &row : rows) {
        char out[8];
        std::memset(out, '~', sizeof out);
        EXPECT_EQ(tavrix_remove_surrounding_quotes(row.text, out, 7), 0);
        EXPECT_STREQ(out, row.copied) << row.text;
        EXPECT_EQ(out[7], '~');
    }
}

TEST(Quotes, AreCopiedUpToTheBuffersSize) {
    char out[8];
    std::memset(out, '~', sizeof out);
    EXPECT_EQ(tavrix_remove_surrounding_quotes("abcdef", out, 4), 0);
    EXPECT_EQ(std::string(out, 8), "abcd~~~~") << "no terminator when it fills";
    EXPECT_EQ(tavrix_remove_surrounding_quotes("\"abcdef\"", out, 3), 0);
    EXPECT_EQ(std::string(out, 4), "abcd");
    EXPECT_EQ(tavrix_remove_surrounding_quotes(nullptr, out, 4), -4);
    EXPECT_EQ(tavrix_remove_surrounding_quotes("a", nullptr, 4), -4);
}

TEST(Description, LosesItsOpeningQuoteWhenThereAreJustTwo) {
    const struct {
        const char *text;
        std::string copied; ///< with what stays behind it
    } rows[] = {
        {"\"abc\"", "abc\"~~"},
        {"abc", std::string("abc\0~~", 6)},
        {"\"a\"b\"", std::string("\"a\"b\"\0", 6)},
        {"\"", std::string("\"\0~~~~", 6)},
        {"\"\"", "\"~~~~~"},
    };
    for (const auto &row : rows) {
        char out[16];
        std::memset(out, '~', sizeof out);
        EXPECT_EQ(tavrix_cli_desc_parse(row.text, out), 0);
        EXPECT_EQ(std::string(out, 6), row.copied) << row.text;
    }
    char out[4];
    EXPECT_EQ(tavrix_cli_desc_parse(nullptr, out), -4);
    EXPECT_EQ(tavrix_cli_desc_parse("a", nullptr), -4);
}

// --- Enumerations ---

namespace {

struct Table {
    const char *name;
    const char *const *words;
    size_t extent;
    std::vector<std::string> expected;
};

const std::vector<Table> &tables() {
    static const std::vector<Table> all = {
        {"troubled",
         tavrix_state_troubled_strings,
         std::size(tavrix_state_troubled_strings),
         {"disabled", "enabled", "troubled"}},
        {"failed",
         tavrix_state_failed_strings,
         std::size(tavrix_state_failed_strings),
         {"disabled", "enabled", "failed"}},
        {"admin", tavrix_admin_status_strings, std::size(tavrix_admin_status_strings), {"disable", "enable"}},
        {"port", tavrix_port_status_strings, std::size(tavrix_port_status_strings), {"disable", "enable"}},
        {"poe",
         tavrix_poe_status_strings,
         std::size(tavrix_poe_status_strings),
         {"unknown", "disabled", "enabled", "offline", "unsupported"}},
        {"link",
         tavrix_link_status_strings,
         std::size(tavrix_link_status_strings),
         {"unknown", "down", "up", "offline"}},
        {"speed",
         tavrix_link_speed_strings,
         std::size(tavrix_link_speed_strings),
         {"unknown", "offline", "N/A", "unsupported", "10 Mbps", "100 Mbps", "1000 Mbps"}},
        {"vlan",
         tavrix_vlan_mode_strings,
         std::size(tavrix_vlan_mode_strings),
         {"unknown", "local", "access", "trunk", "trans"}},
        {"model",
         tavrix_mzu_model_strings,
         std::size(tavrix_mzu_model_strings),
         {"unknown", "ZQN-E09", "ZQN-E10", "ZQN-E11", "ZQN-E12", "ZQN-E13", "ZQN-E14", "Generic MZU", "ZQN-E15",
          "ZQN-E16", "ZQN-E17"}},
        {"secure",
         tavrix_secure_option_strings,
         std::size(tavrix_secure_option_strings),
         {"current", "enable", "disable"}},
    };
    return all;
}

} // namespace

TEST(Enumerations, MapEveryWordBothWays) {
    for (const Table &table : tables()) {
        ASSERT_EQ(table.extent, table.expected.size() + 1) << table.name;
        EXPECT_EQ(table.words[table.expected.size()], nullptr) << table.name;
        for (size_t i = 0; i < table.expected.size(); ++i) {
            const int value = static_cast<int>(i);
            char word[20] = "";
            EXPECT_EQ(tavrix_enum_to_str(word, sizeof word, value, table.words), 0);
            EXPECT_EQ(word, table.expected[i]) << table.name;
            int back = -77;
            EXPECT_EQ(tavrix_str_to_enum(&back, table.expected[i].c_str(), table.words), 0);
            EXPECT_EQ(back, value) << table.name;
        }
    }
}

TEST(Enumerations, CompareWordsExactly) {
    int value = -77;
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_str_to_enum(&value, "Up", tavrix_link_status_strings), -1);
    EXPECT_EQ(value, -77);
    EXPECT_EQ(tavrix_str_to_enum(&value, "up", tavrix_link_status_strings), 0);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                  "VERB |Unable to map string <Up> to enum value",
                                  "VERB |Mapped string <up> to enum value <2>",
                              }));
    EXPECT_EQ(log.lines().front().file, unit);
}

TEST(Enumerations, CutAWordToItsBuffer) {
    char word[8];
    std::memset(word, '~', sizeof word);
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_enum_to_str(word, 4, 2, tavrix_secure_option_strings), 0);
    EXPECT_EQ(std::string(word, 8), std::string("dis\0~~~~", 8));
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"VERB |Mapped enum value <2> to string <disable>"});
    EXPECT_EQ(tavrix_enum_to_str(word, 0, 2, tavrix_secure_option_strings), 0);
    EXPECT_EQ(tavrix_enum_to_str(word, 4, 3, tavrix_secure_option_strings), 0) << "the terminator reads as no word";
    EXPECT_STREQ(word, "");
}

TEST(Enumerations, RefuseNull) {
    char word[8];
    int value = 0;
    EXPECT_EQ(tavrix_enum_to_str(nullptr, 8, 0, tavrix_link_status_strings), -4);
    EXPECT_EQ(tavrix_enum_to_str(word, 8, 0, nullptr), -4);
    EXPECT_EQ(tavrix_str_to_enum(nullptr, "up", tavrix_link_status_strings), -4);
    EXPECT_EQ(tavrix_str_to_enum(&value, nullptr, tavrix_link_status_strings), -4);
    EXPECT_EQ(tavrix_str_to_enum(&value, "up", nullptr), -4);
}
