/*
 * Texts: the tokenizer with its hidden cursor, digits, letter case, quotes.
 */
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/params.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"

using namespace support;

namespace {

Answer next(const char *text, const char *stops) {
    char out[64] = "untouched";
    const int rc = strparse(text, stops, out);
    return {rc, out};
}

/** What is in the buffer, terminators included. */
std::string bytes_of(Buffer &buffer) { return {buffer.get(), buffer.size()}; }

} // namespace

// --- Tokenizer ---

TEST(Strparse, GoesThroughATextWithoutSkippingItsStops) {
    EXPECT_EQ(next("ab,cd;ef", ",;").text, "ab");
    EXPECT_EQ(next(nullptr, ",;").text, "") << "the next call begins with the stop";
    EXPECT_EQ(next(nullptr, ";").text, ",cd");
    EXPECT_EQ(next(nullptr, "x").text, ";ef");
    EXPECT_EQ(next(nullptr, "x").rc, 1) << "nothing to go on with";
    EXPECT_EQ(next(nullptr, "x").text, "untouched");
    EXPECT_EQ(next("a;b,c", ",;").text, "a") << "at the first of several stops";
    EXPECT_EQ(next("xy,z", ",").text, "xy") << "anew with a text";
    EXPECT_EQ(next(nullptr, "").text, ",z");
}

TEST(Strparse, AlwaysStopsAtANewline) {
    EXPECT_EQ(next("one\ntwo", "").text, "one");
    EXPECT_EQ(next(nullptr, "w").text, "") << "the newline stops the next call too";
    EXPECT_EQ(next(nullptr, "w").rc, 0);
    EXPECT_EQ(next("one\ntwo", "abcdfghijkl").text, "one") << "with as many stops as there can be";
    EXPECT_EQ(next("one\ntwo", "abcdfghijklm").text, "one") << "and with more";
}

TEST(Strparse, EndsWithTheText) {
    EXPECT_EQ(next("no stop", ",").text, "no stop");
    EXPECT_EQ(next(nullptr, ",").rc, 1);
    EXPECT_EQ(next("last,", ",").text, "last");
    EXPECT_EQ(next(nullptr, "").text, ",");
    EXPECT_EQ(next(nullptr, "").rc, 1);
    EXPECT_EQ(next("", ",").text, "") << "an empty text is taken once";
    EXPECT_EQ(next(nullptr, ",").rc, 1);
}

TEST(Strparse, CountsElevenStops) {
    EXPECT_EQ(next("xyzk", "abcdefghijk").text, "xyz") << "the eleventh counts";
    EXPECT_EQ(next("xyzlk", "abcdefghijkl").text, "xyzl") << "the twelfth does not";
    EXPECT_EQ(next("xyz", std::string(100, 'z').c_str()).text, "xy");
}

TEST(Strparse, TakesBytesOfAnyValue) {
    EXPECT_EQ(next("\xc3\xa4,\xff", ",").text, "\xc3\xa4");
    EXPECT_EQ(next("ab\xff"
                   "cd",
                   "\xff")
                  .text,
              "ab");
}

TEST(Strparse, RefusesNullPlacesAndKeepsItsCursor) {
    char out[8] = "kept";
    EXPECT_EQ(next("a,b", ",").text, "a");
    EXPECT_EQ(strparse("zzz", nullptr, out), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(strparse("zzz", ",", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_STREQ(out, "kept");
    EXPECT_EQ(next(nullptr, "x").text, ",b");
}

TEST(Strparse, SharesItsCursorWithThePortIdParser) {
    int unit_number = 0;
    int port = 0;
    EXPECT_EQ(next("a,b", ",").text, "a");
    EXPECT_EQ(tavrix_parse_mzu_port_id(&unit_number, &port, "c1\nmore"), 0);
    EXPECT_EQ(next(nullptr, "").text, "") << "stands at the newline in the port id now";
    EXPECT_EQ(next("a,b", ",").text, "a");
    EXPECT_EQ(tavrix_parse_mzu_port_id(&unit_number, &port, "c1-2"), 0);
    EXPECT_EQ(next(nullptr, "").rc, 1) << "the port id was read to its end";
}

// --- Digits and letter case ---

TEST(IsDigits, AcceptsOnlyDecimalDigits) {
    EXPECT_EQ(isdigits("0123456789"), 1);
    EXPECT_EQ(isdigits("7"), 1);
    EXPECT_EQ(isdigits(""), 1);
    for (const char *text : {"1a", "a1", "-1", "+1", " 1", "1 ", "1.0", "1\n", "/", ":", "\xb2", "1\xff", "\xd9\xa1"}) {
        EXPECT_EQ(isdigits(text), 0) << text;
    }
}

TEST(LowerCase, ClearsItsBufferAndChangesTheLettersOfWhatFits) {
    const std::pair<size_t, std::string> rows[] = {{8, "abcdef"}, {7, "abcdef"}, {6, "abcde"}, {2, "a"}, {1, ""}};
    for (const auto &[size, copied] : rows) {
        Buffer out(size);
        EXPECT_EQ(tavrix_to_lower_case(out.get(), size, "ABCDEF"), 0);
        EXPECT_EQ(out.text(), copied);
    }
    Buffer out(32);
    EXPECT_EQ(tavrix_to_lower_case(out.get(), out.size(), "AZaz09@[`{-_ \xc4\x80\xff"), 0);
    EXPECT_EQ(out.text(), "azaz09@[`{-_ \xc4\x80\xff");
    EXPECT_TRUE(out.cleared_behind_text());
    Buffer none(4);
    EXPECT_EQ(tavrix_to_lower_case(none.get(), 0, "ABC"), 0);
    EXPECT_TRUE(none.untouched());
}

TEST(UpperCase, StopsAtItsLimitOrTheEnd) {
    const std::pair<int, const char *> rows[] = {{0, "abcdef"}, {-1, "abcdef"}, {1, "Abcdef"},  {3, "ABCdef"},
                                                 {5, "ABCDEf"}, {6, "ABCDEF"},  {100, "ABCDEF"}};
    for (const auto &[max, changed] : rows) {
        char text[] = "abcdef\0hidden";
        EXPECT_EQ(tavrix_to_upper_case(text, max), 0);
        EXPECT_STREQ(text, changed) << max;
        EXPECT_STREQ(text + 7, "hidden") << "what stands behind the end is left alone";
    }
}

TEST(UpperCase, ChangesLettersOnly) {
    for (const bool whole : {false, true}) {
        char text[] = "AZaz09@[`{-_ \xe4\x80\xff";
        EXPECT_EQ(whole ? tavrix_str_to_upper(text) : tavrix_to_upper_case(text, 100), whole ? 16 : 0)
            << "one of them says how long the text is";
        EXPECT_STREQ(text, "AZAZ09@[`{-_ \xe4\x80\xff");
    }
    char empty[] = "";
    EXPECT_EQ(tavrix_str_to_upper(empty), 0);
    EXPECT_STREQ(empty, "");
}

TEST(UpperCase, RefusesNullAndSaysSoAtVerboseOnly) {
    LogCapture log("verbose");
    EXPECT_EQ(tavrix_to_upper_case(nullptr, 3), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(log.said({"VERB |Received null value for tavrix_to_upper_case"}));
    EXPECT_EQ(log.lines().front().file, "tavrix_utils");
    log.begin("debug");
    EXPECT_EQ(tavrix_to_upper_case(nullptr, 3), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(log.silent());
}

// --- Quotes ---

TEST(SurroundingQuotes, LoseTheOpeningOneOnly) {
    const std::pair<const char *, const char *> rows[] = {
        {R"("abc")", R"(abc")"}, {"abc", "abc"},
        {R"("abc)", R"("abc)"},  {R"(abc")", R"(abc")"},
        {R"(a"c)", R"(a"c)"},    {R"("a"b")", R"(a"b")"},
        {R"("")", R"(")"},       {R"(""")", R"("")"},
        {"'abc'", "'abc'"},      {"", ""},
    };
    for (const auto &[text, copied] : rows) {
        Buffer out(10);
        EXPECT_EQ(tavrix_remove_surrounding_quotes(text, out.get(), out.size()), 0);
        EXPECT_EQ(out.text(), copied) << text;
        EXPECT_TRUE(out.cleared_behind_text()) << text;
    }
}

TEST(SurroundingQuotes, LeaveNothingOfASingleQuoteCharacter) {
    Buffer out(4);
    EXPECT_EQ(tavrix_remove_surrounding_quotes("\"", out.get(), out.size()), 0);
    EXPECT_EQ(bytes_of(out), std::string(4, '\0')) << "it begins and ends the text; the characters behind it are none";
}

TEST(SurroundingQuotes, LeaveNoTerminatorInABufferThatFills) {
    const std::tuple<const char *, size_t, std::string> rows[] = {
        {"abcdef", 7, std::string("abcdef\0", 7)},
        {"abcdef", 6, "abcdef"},
        {"abcdef", 4, "abcd"},
        {R"("abc")", 5, std::string("abc\"\0", 5)},
        {R"("abc")", 4, "abc\""},
        {R"("abc")", 3, "abc"},
        {R"("abc")", 1, "a"},
        {R"("abc")", 0, ""},
        {"abc", 0, ""},
    };
    for (const auto &[text, size, bytes] : rows) {
        Buffer out(size);
        EXPECT_EQ(tavrix_remove_surrounding_quotes(text, out.get(), size), 0);
        EXPECT_EQ(bytes_of(out), bytes) << text << " in " << size;
    }
}

TEST(Description, LosesItsOpeningQuoteWhenThereAreJustTwo) {
    const struct {
        const char *text;
        std::string bytes; ///< with what stays behind the copy
    } rows[] = {
        {R"("abc")", "abc\"~~"},
        {R"("")", "\"~~~~~"},
        {"abc", std::string("abc\0~~", 6)},
        {R"("a"b")", std::string("\"a\"b\"\0", 6)},
        {R"(""")", std::string("\"\"\"\0~~", 6)},
        {R"(")", std::string("\"\0~~~~", 6)},
        {R"("ab)", std::string("\"ab\0~~", 6)},
        {R"(ab")", std::string("ab\"\0~~", 6)},
        {R"(a"b"c)", std::string("a\"b\"c\0", 6)},
        {"", std::string("\0~~~~~", 6)},
    };
    for (const auto &row : rows) {
        Buffer out(6);
        EXPECT_EQ(tavrix_cli_desc_parse(row.text, out.get()), 0);
        EXPECT_EQ(bytes_of(out), row.bytes) << row.text;
    }
}

TEST(StringHelpers, RefuseNullAndLogNothingElse) {
    const LogCapture log("verbose");
    char out[16] = "old";
    const Statuses refused(2, TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(with_each_null(tavrix_to_lower_case, out, sizeof out, "A"), refused);
    EXPECT_EQ(with_each_null(tavrix_remove_surrounding_quotes, "a", out, sizeof out), refused);
    EXPECT_EQ(with_each_null(tavrix_cli_desc_parse, "a", out), refused);
    EXPECT_STREQ(out, "old");
    char text[] = "abc";
    next("a,b", ",");
    isdigits("1");
    tavrix_to_lower_case(out, sizeof out, "A");
    tavrix_to_upper_case(text, 3);
    tavrix_str_to_upper(text);
    tavrix_remove_surrounding_quotes("\"a\"", out, sizeof out);
    tavrix_cli_desc_parse("a", out);
    strparse(nullptr, nullptr, out);
    EXPECT_TRUE(log.silent()) << log.text();
}
