/*
 * Kept patterns against the same texts compiled for every call: the same verdicts and the same log, whatever the value.
 */
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pcre.h>

#include "internal/tavrix_validation_seam.h"
#include "support/fields.h"
#include "support/log_capture.h"
#include "support/mutation.h"
#include "tavrix_validation.h"

using namespace support;

namespace {

struct Run {
    std::vector<int> verdicts;
    std::vector<std::string> lines;
};

/** Judges every value by one pattern under one log level. */
Run judge(const char *pattern, const Field &field, const std::vector<std::string> &values, const char *level) {
    Run run;
    const LogCapture log(level);
    for (const std::string &value : values) {
        run.verdicts.push_back(validate_against_regex(pattern, value.c_str(), field.label));
    }
    run.lines = log.sequence();
    return run;
}

/** Judges the values both ways; a copy of the text has another address and is compiled for every call. */
void expect_same(const Field &field, const std::vector<std::string> &values, const char *level) {
    const char *kept = tavrix_validation_pattern_of(field.label);
    ASSERT_NE(kept, nullptr) << field.label;
    const std::string copy = kept;
    const Run by_kept = judge(kept, field, values, level);
    const Run by_copy = judge(copy.c_str(), field, values, level);
    for (size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(by_kept.verdicts[i], by_copy.verdicts[i])
            << "<" << values[i].substr(0, 100) << "> of " << values[i].size() << " bytes";
    }
    EXPECT_TRUE(by_kept.lines == by_copy.lines) << "other log lines at level " << level;
}

class KeptPattern : public testing::TestWithParam<Field> {};

INSTANTIATE_TEST_SUITE_P(Of, KeptPattern, testing::ValuesIn(pattern_fields()),
                         [](const auto &row) { return row.param.name; });

TEST_P(KeptPattern, DecidesShortValuesAlikeAtEveryLevel) {
    Mutator mutator(20261121);
    const std::vector<std::string> &valid = GetParam().valid;
    std::vector<std::string> values = valid;
    for (const std::string &value : valid) {
        for (const char *end : {"\n", "\n\n", "\r\n", " "}) {
            values.push_back(value + end);
        }
    }
    for (int byte = 1; byte < 256; ++byte) {
        values.emplace_back(1, static_cast<char>(byte));
        values.push_back(valid.back() + static_cast<char>(byte));
    }
    for (int i = 0; i < 250; ++i) {
        values.push_back(mutator.near(valid[mutator.below(valid.size())], GetParam().alphabet));
        values.push_back(mutator.of(GetParam().alphabet, 30));
        values.push_back(mutator.bytes(300));
    }
    for (const char *level : {"off", "info", "debug", "verbose"}) {
        expect_same(GetParam(), values, level);
    }
}

TEST_P(KeptPattern, DecidesValuesOfAnyLengthAlikeTooAroundTheBoundOfTheFastWay) {
    Mutator mutator(3);
    const std::string &valid = GetParam().valid.back();
    std::vector<std::string> values;
    for (const size_t length : {999U, 1000U, 1001U, 1023U, 1024U, 1025U, 3000U, 60000U}) {
        for (const char *piece : {"a", "1", ":", "\"", "c1-", "1.2.3-00", "a\n"}) {
            values.push_back(repeated(piece, length));
        }
        values.push_back(repeated("a", length - 12) + valid);
        values.push_back(valid + repeated("a", length));
    }
    for (size_t length = 1016; length <= 1032; ++length) {
        std::string value = repeated("zqn1.2.3-00", length);
        values.push_back(value);
        values.push_back(value + valid);
        value[mutator.below(length)] = '\n';
        values.push_back(value);
        values.push_back(repeated("zqn", length));
    }
    values.push_back(std::string(400000, 'x'));
    values.push_back(std::string(400000, 'x') + "\n");
    values.push_back(std::string(200000, 'x') + "\n" + std::string(200000, 'x'));
    expect_same(GetParam(), values, "verbose");
}

// --- Giving up -----------------------------------------------------------------------------------------------------

const Field &unit_file = field("unit_sw_upgrade_filename");

// So many beginnings of the product word that the interpreter gives up; the kept pattern has to give up as well. The
// JIT would go on for a few characters more: the first lengths stand around the place where the two would part.
TEST(KeptPatternOfUnitFile, GivesUpWhereTheInterpreterDoes) {
    std::vector<std::string> values;
    for (const size_t length : {7743U, 7744U, 7745U, 7746U, 300000U}) {
        values.push_back(repeated("zqn", length));
    }
    expect_same(unit_file, values, "verbose");
    const LogCapture log("info");
    EXPECT_EQ(validate_unit_sw_upgrade_filename(values.back().c_str()), TAVRIX_INVALID_ENGINE);
    EXPECT_TRUE(log.said({"ERROR|Error code received from pcre_exec: -8"}));
}

TEST(KeptPatternOfUnitFile, AcceptsAtALengthWhereItWouldGiveUpOtherwise) {
    const std::string value = repeated("zqn", 9000) + "1.2.3-004";
    expect_same(unit_file, {value, "1.2.3-004" + value, value + "\n", value + repeated("zqn", 300)}, "debug");
}

// Up to this length the kept pattern may take another engine with limits of its own. No value is anywhere near the
// interpreter's limit there, so the engines cannot differ.
TEST(KeptPatternOfUnitFile, IsFarFromTheLimitAtTheBoundOfTheFastWay) {
    const char *error = nullptr;
    int offset = 0;
    pcre *code = pcre_compile(tavrix_validation_pattern_of(unit_file.label), 0, &error, &offset, nullptr);
    ASSERT_NE(code, nullptr);
    unsigned long limit = 0;
    ASSERT_EQ(pcre_config(PCRE_CONFIG_MATCH_LIMIT, &limit), 0);
    pcre_extra tenth{};
    tenth.flags = PCRE_EXTRA_MATCH_LIMIT;
    tenth.match_limit = limit / 10;
    for (const char *piece : {"zqn", "zqn1", "zqn1.2.3-00", "zqn1.1.", "zqnzqn-"}) {
        const std::string value = repeated(piece, 1024);
        int vector[10];
        EXPECT_EQ(pcre_exec(code, &tenth, value.c_str(), 1024, 0, 0, vector, 10), PCRE_ERROR_NOMATCH) << piece;
    }
    pcre_free(code);
}

} // namespace
