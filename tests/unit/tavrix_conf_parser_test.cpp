#include "tavrix_conf_parser.h"

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tavrix_error.h"

namespace {

constexpr char path[] = "daemon.conf";

void write_file(const std::string &content) { std::ofstream(path, std::ios::binary) << content; }

struct Lookup {
    int rc;
    std::string buffer; ///< the whole buffer, so that clearing and missing terminators show
};

Lookup look_up(const std::string &section, const std::string &key, int size = 16) {
    std::vector<char> buffer(static_cast<size_t>(size) + 1, '~');
    const int rc = tavrix_conf_parser_parse(path, section.c_str(), key.c_str(), buffer.data(), size);
    EXPECT_EQ(buffer.back(), '~') << "wrote past the buffer";
    return {rc, std::string(buffer.data(), static_cast<size_t>(size))};
}

std::string value_of(const std::string &section, const std::string &key, int size = 64) {
    const Lookup found = look_up(section, key, size);
    EXPECT_EQ(found.rc, 0);
    return found.buffer.c_str();
}

const std::string untouched(16, '~');

} // namespace

TEST(ConfParser, RejectsEachNullArgument) {
    write_file("[s]\nk=v\n");
    char out[8] = "";
    EXPECT_EQ(tavrix_conf_parser_parse(nullptr, "s", "k", out, 8), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_conf_parser_parse(path, nullptr, "k", out, 8), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_conf_parser_parse(path, "s", nullptr, out, 8), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_conf_parser_parse(path, "s", "k", nullptr, 8), TAVRIX_ERR_NULL_INPUT);
}

TEST(ConfParser, ChecksNullBeforeSizeAndSizeBeforeFile) {
    char out[8] = "";
    EXPECT_EQ(tavrix_conf_parser_parse("no-such-file", "s", "k", nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_conf_parser_parse("no-such-file", "s", "k", out, 0), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_conf_parser_parse("no-such-file", "s", "k", out, -1), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_conf_parser_parse("no-such-file", "s", "k", out, 1), TAVRIX_ERR_FILE_OPEN);
}

TEST(ConfParser, FindsAValue) {
    write_file("[logging_levels]\nportsd=debug\n");
    EXPECT_EQ(value_of("logging_levels", "portsd"), "debug");
}

TEST(ConfParser, LogsNothing) {
    write_file("[s]\nk=v\n");
    const support::LogCapture log("verbose");
    look_up("s", "k");
    look_up("s", "missing");
    EXPECT_TRUE(log.silent());
}

TEST(ConfParser, ClearsTheWholeBufferOnAMatchAndLeavesItOtherwise) {
    write_file("[s]\nk=v\n");
    EXPECT_EQ(look_up("s", "k").buffer, std::string("v") + std::string(15, '\0'));
    EXPECT_EQ(look_up("s", "missing").buffer, untouched);
    EXPECT_EQ(look_up("other", "k").buffer, untouched);
}

TEST(ConfParser, FillsTheBufferWithoutTerminatorAtTheBound) {
    write_file("[s]\nexact=0123456789abcdef\nlonger=0123456789abcdefg\nshorter=0123456789abcde\n");
    EXPECT_EQ(look_up("s", "exact").rc, 0);
    EXPECT_EQ(look_up("s", "exact").buffer, "0123456789abcdef");
    EXPECT_EQ(look_up("s", "longer").rc, TAVRIX_ERR_BUFFER_SPACE);
    EXPECT_EQ(look_up("s", "longer").buffer, untouched);
    EXPECT_EQ(look_up("s", "shorter").buffer, std::string("0123456789abcde") + '\0');
}

TEST(ConfParser, AcceptsABufferOfOneByte) {
    write_file("[s]\nempty=\none=1\n");
    EXPECT_EQ(look_up("s", "empty", 1).buffer, std::string(1, '\0'));
    EXPECT_EQ(look_up("s", "one", 1).buffer, "1");
}

TEST(ConfParser, ReturnsNotFoundForAMissingSectionOrKey) {
    write_file("[s]\nk=v\n");
    EXPECT_EQ(look_up("t", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(look_up("s", "l").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    write_file("");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, TakesTheFirstOfTwoEqualKeys) {
    write_file("[s]\nk=first\nk=second\n");
    EXPECT_EQ(value_of("s", "k"), "first");
}

TEST(ConfParser, IgnoresKeysBeforeAnySection) {
    write_file("k=early\n[s]\nother=1\n");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, EndsAtTheNextHeaderEvenIfTheSectionReturns) {
    write_file("[s]\na=1\n[t]\nb=2\n[s]\nk=late\n");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    write_file("[s]\na=1\n[s]\nk=late\n");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, EndsAtAnyLineThatStartsWithABracket) {
    write_file("[s]\n[not a header\nk=v\n");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, PassesOverAHeaderWithoutClosingBracketBeforeTheSection) {
    write_file("[s\n[s]\nk=v\n");
    EXPECT_EQ(value_of("s", "k"), "v");
}

TEST(ConfParser, TakesTheSectionNameUpToTheFirstClosingBracket) {
    write_file("[s] trailing ] words\nk=v\n");
    EXPECT_EQ(value_of("s", "k"), "v");
    EXPECT_EQ(look_up("s] trailing ", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, FindsAnEmptySectionName) {
    write_file("[]\nk=v\n");
    EXPECT_EQ(value_of("", "k"), "v");
}

TEST(ConfParser, SkipsCommentsInAndOutOfSections) {
    write_file("#[s]\n# k=0\n[s]\n#k=1\n #k=2\nk=3\n");
    EXPECT_EQ(value_of("s", "k"), "3");
    EXPECT_EQ(value_of("s", " #k"), "2") << "only the very first character makes a comment";
    EXPECT_EQ(look_up("s", "#k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, RequiresTheBracketToBeTheFirstCharacter) {
    write_file(" [s]\nk=v\n");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, KeepsBlanksAndCarriageReturns) {
    write_file("[s]\nk = v \ncr=v\r\n");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(value_of("s", "k "), " v ");
    EXPECT_EQ(value_of("s", "cr"), "v\r");
}

TEST(ConfParser, SplitsAtTheFirstEqualsSign) {
    write_file("[s]\nk=a=b\n=nameless\n");
    EXPECT_EQ(value_of("s", "k"), "a=b");
    EXPECT_EQ(value_of("s", ""), "nameless");
}

TEST(ConfParser, ReturnsAnEmptyValue) {
    write_file("[s]\nk=\n");
    EXPECT_EQ(value_of("s", "k"), "");
}

TEST(ConfParser, PassesOverALastLineWithoutNewline) {
    write_file("[s]\nk=v");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    write_file("[s]");
    EXPECT_EQ(look_up("s", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, PassesOverLinesWithoutEqualsSign) {
    write_file("[s]\nk\n\nk=v\n");
    EXPECT_EQ(value_of("s", "k"), "v");
}

TEST(ConfParser, ComparesCaseSensitively) {
    write_file("[S]\nk=upper section\n[s]\nK=upper\nk=lower\n");
    EXPECT_EQ(value_of("s", "k"), "lower");
}

TEST(ConfParser, MatchesSectionNamesUpTo49Characters) {
    const std::string longest(49, 'n');
    const std::string too_long(50, 'n');
    write_file("[" + too_long + "]\nk=50\n[" + longest + "]\nk=49\n");
    EXPECT_EQ(value_of(longest, "k"), "49");
    EXPECT_EQ(look_up(too_long, "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, MatchesKeysUpTo50Characters) {
    const std::string longest(50, 'k');
    const std::string too_long(51, 'k');
    write_file("[s]\n" + too_long + "=51\n" + longest + "=50\n");
    EXPECT_EQ(value_of("s", longest), "50");
    EXPECT_EQ(look_up("s", too_long).rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, ReadsLinesOfAnyLength) {
    const std::string long_value(100000, 'x');
    write_file("#" + long_value + "\n[s]\nother=" + long_value + "\nk=v\nlong=" + long_value + "\n");
    EXPECT_EQ(value_of("s", "k"), "v");
    EXPECT_EQ(look_up("s", "long").rc, TAVRIX_ERR_BUFFER_SPACE);
    EXPECT_EQ(value_of("s", "long", 100001), long_value);
}
