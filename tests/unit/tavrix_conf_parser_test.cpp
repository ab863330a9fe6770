#include "tavrix_conf_parser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/process.h"
#include "tavrix_error.h"

using namespace support;

namespace {

constexpr char path[] = "daemon.conf";

void write_file(const std::string &content) { support::write_file(path, content); }

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
    return found.buffer.substr(0, found.buffer.find('\0'));
}

const std::string untouched(16, '~');

} // namespace

TEST(ConfParser, ChecksNullBeforeSizeAndSizeBeforeFile) {
    char out[8] = "";
    write_file("[s]\nk=v\n");
    for (const char *file : {path, "no-such-file"}) {
        EXPECT_EQ(with_each_null(tavrix_conf_parser_parse, file, "s", "k", out, 0), Statuses(4, TAVRIX_ERR_NULL_INPUT));
        EXPECT_EQ(tavrix_conf_parser_parse(file, "s", "k", out, 0), TAVRIX_ERR_PARAMETER);
        EXPECT_EQ(tavrix_conf_parser_parse(file, "s", "k", out, -1), TAVRIX_ERR_PARAMETER);
    }
    EXPECT_EQ(tavrix_conf_parser_parse("no-such-file", "s", "k", out, 1), TAVRIX_ERR_FILE_OPEN);
}

TEST(ConfParser, LogsNothing) {
    write_file("[s]\nk=v\n");
    const LogCapture log("verbose");
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

TEST(ConfParser, MatchesSectionNamesUpTo49CharactersAndKeysUpTo50) {
    const std::string section(49, 'n');
    const std::string key(50, 'k');
    write_file("[" + section + "n]\nk=50\n[" + section + "]\nk=49\n" + key + "k=51\n" + key + "=50\n");
    EXPECT_EQ(value_of(section, "k"), "49");
    EXPECT_EQ(look_up(section + "n", "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(value_of(section, key), "50");
    EXPECT_EQ(look_up(section, key + "k").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(ConfParser, ReadsLinesOfAnyLength) {
    const std::string long_value(100000, 'x');
    write_file("#" + long_value + "\n[s]\nother=" + long_value + "\nk=v\nlong=" + long_value + "\n");
    EXPECT_EQ(value_of("s", "k"), "v");
    EXPECT_EQ(look_up("s", "long").rc, TAVRIX_ERR_BUFFER_SPACE);
    EXPECT_EQ(value_of("s", "long", 100001), long_value);
}

// --- Files, and what is found in them ---

struct Example {
    const char *name;
    const char *content;
    const char *section;
    const char *key;
    const char *value; ///< null: there is none
};

constexpr char comments[] = "#[s]\n# k=0\n[s]\n#k=1\n #k=2\nk=3\n";
constexpr char blanks[] = "[s]\nk = v \ncr=v\r\n";
constexpr char trailing[] = "[s] trailing ] words\nk=v\n";
constexpr char equals[] = "[s]\nk=a=b\n=nameless\n";

constexpr Example examples[] = {
    {"MissingSection", "[s]\nk=v\n", "t", "k", nullptr},
    {"MissingKey", "[s]\nk=v\n", "s", "l", nullptr},
    {"EmptyFile", "", "s", "k", nullptr},
    {"FirstOfTwoEqualKeys", "[s]\nk=first\nk=second\n", "s", "k", "first"},
    {"KeyBeforeAnySection", "k=early\n[s]\nother=1\n", "s", "k", nullptr},
    {"SectionThatReturns", "[s]\na=1\n[t]\nb=2\n[s]\nk=late\n", "s", "k", nullptr},
    {"SectionThatReturnsAtOnce", "[s]\na=1\n[s]\nk=late\n", "s", "k", nullptr},
    {"AnyBracketEndsTheSection", "[s]\n[not a header\nk=v\n", "s", "k", nullptr},
    {"HeaderWithoutClosingBracketIsPassedOver", "[s\n[s]\nk=v\n", "s", "k", "v"},
    {"SectionUpToTheFirstClosingBracket", trailing, "s", "k", "v"},
    {"SectionUpToNoLaterBracket", trailing, "s] trailing ", "k", nullptr},
    {"EmptySectionName", "[]\nk=v\n", "", "k", "v"},
    {"CommentsAreSkipped", comments, "s", "k", "3"},
    {"OnlyTheFirstCharacterMakesAComment", comments, "s", " #k", "2"},
    {"CommentIsNoKey", comments, "s", "#k", nullptr},
    {"BracketIsTheFirstCharacter", " [s]\nk=v\n", "s", "k", nullptr},
    {"BlanksBelongToTheKey", blanks, "s", "k", nullptr},
    {"BlanksBelongToTheValue", blanks, "s", "k ", " v "},
    {"CarriageReturnBelongsToTheValue", blanks, "s", "cr", "v\r"},
    {"FirstEqualsSignSplits", equals, "s", "k", "a=b"},
    {"EmptyKey", equals, "s", "", "nameless"},
    {"EmptyValue", "[s]\nk=\n", "s", "k", ""},
    {"LastLineWithoutNewline", "[s]\nk=v", "s", "k", nullptr},
    {"OnlyLineWithoutNewline", "[s]", "s", "k", nullptr},
    {"LinesWithoutEqualsSignArePassedOver", "[s]\nk\n\nk=v\n", "s", "k", "v"},
    {"CaseMatters", "[S]\nk=upper section\n[s]\nK=upper\nk=lower\n", "s", "k", "lower"},
};

TEST(ConfParser, FindsWhatIsThere) {
    for (const Example &row : examples) {
        SCOPED_TRACE(row.name);
        write_file(row.content);
        if (row.value != nullptr) {
            EXPECT_EQ(value_of(row.section, row.key), row.value);
        } else {
            EXPECT_EQ(look_up(row.section, row.key).rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
        }
    }
}
