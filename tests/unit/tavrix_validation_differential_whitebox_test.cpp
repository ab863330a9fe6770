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

using support::Field;
using support::LogCapture;
using support::Mutator;

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
    ASSERT_EQ(by_kept.verdicts.size(), by_copy.verdicts.size());
    for (size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(by_kept.verdicts[i], by_copy.verdicts[i])
            << "<" << values[i].substr(0, 100) << "> of " << values[i].size() << " bytes";
    }
    EXPECT_TRUE(by_kept.lines == by_copy.lines) << "other log lines at level " << level;
}

constexpr const char *levels[] = {"off", "info", "debug", "verbose"};

class KeptPattern : public testing::TestWithParam<Field> {};

INSTANTIATE_TEST_SUITE_P(Of, KeptPattern, testing::ValuesIn(support::pattern_fields()),
                         [](const auto &row) { return row.param.name; });

TEST_P(KeptPattern, DecidesValidAndNearlyValidValuesAlike) {
    Mutator mutator(20261121);
    std::vector<std::string> values = GetParam().valid;
    for (const std::string &valid : GetParam().valid) {
        for (const char *end : {"\n", "\n\n", "\r\n", " "}) {
            values.push_back(valid + end);
        }
    }
    for (int i = 0; i < 250; ++i) {
        const std::string &valid = GetParam().valid[mutator.below(GetParam().valid.size())];
        values.push_back(mutator.near(valid, GetParam().alphabet));
        values.push_back(mutator.of(GetParam().alphabet, 30));
    }
    for (const char *level : levels) {
        expect_same(GetParam(), values, level);
    }
}

TEST_P(KeptPattern, DecidesEveryKindOfByteAlike) {
    Mutator mutator(7);
    std::vector<std::string> values;
    for (int byte = 1; byte < 256; ++byte) {
        values.emplace_back(1, static_cast<char>(byte));
        values.push_back(GetParam().valid.back() + static_cast<char>(byte));
    }
    for (int i = 0; i < 200; ++i) {
        values.push_back(mutator.bytes(300));
    }
    for (const char *level : levels) {
        expect_same(GetParam(), values, level);
    }
}

TEST_P(KeptPattern, DecidesValuesOfAnyLengthAlike) {
    std::vector<std::string> values;
    for (const size_t length : {999U, 1000U, 1001U, 1023U, 1024U, 1025U, 3000U, 60000U}) {
        for (const char *piece : {"a", "1", ":", "\"", "c1-", "1.2.3-00", "a\n"}) {
            values.push_back(support::repeated(piece, length));
        }
        values.push_back(support::repeated("a", length - 12) + GetParam().valid.back());
        values.push_back(GetParam().valid.back() + support::repeated("a", length));
    }
    values.push_back(std::string(400000, 'x'));
    values.push_back(std::string(400000, 'x') + "\n");
    values.push_back(std::string(200000, 'x') + "\n" + std::string(200000, 'x'));
    expect_same(GetParam(), values, "verbose");
}

TEST_P(KeptPattern, DecidesValuesAroundTheBoundOfTheFastWayAlike) {
    Mutator mutator(3);
    std::vector<std::string> values;
    for (size_t length = 1016; length <= 1032; ++length) {
        std::string value = support::repeated("zqn1.2.3-00", length);
        values.push_back(value);
        values.push_back(value + GetParam().valid.back());
        value[mutator.below(length)] = '\n';
        values.push_back(value);
        values.push_back(support::repeated("zqn", length));
    }
    expect_same(GetParam(), values, "verbose");
}

// --- Giving up -----------------------------------------------------------------------------------------------------

const Field &unit_file = support::field("unit_sw_upgrade_filename");

// So many beginnings of the product word that the interpreter gives up; the kept pattern has to give up as well. The
// JIT would go on for a few characters more: the first lengths stand around the place where the two would part.
TEST(KeptPatternOfUnitFile, GivesUpWhereTheInterpreterDoes) {
    std::vector<std::string> values;
    for (const size_t length : {7743U, 7744U, 7745U, 7746U, 300000U}) {
        values.push_back(support::repeated("zqn", length));
    }
    expect_same(unit_file, values, "verbose");
    const LogCapture log("info");
    EXPECT_EQ(validate_unit_sw_upgrade_filename(values.back().c_str()), TAVRIX_INVALID_ENGINE);
    EXPECT_TRUE(log.said({"ERROR|Error code received from pcre_exec: -8"}));
}

TEST(KeptPatternOfUnitFile, AcceptsAtALengthWhereItWouldGiveUpOtherwise) {
    const std::string value = support::repeated("zqn", 9000) + "1.2.3-004";
    expect_same(unit_file, {value, "1.2.3-004" + value, value + "\n", value + support::repeated("zqn", 300)}, "debug");
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
        const std::string value = support::repeated(piece, 1024);
        int vector[10];
        EXPECT_EQ(pcre_exec(code, &tenth, value.c_str(), 1024, 0, 0, vector, 10), PCRE_ERROR_NOMATCH) << piece;
    }
    pcre_free(code);
}

} // namespace
