/*
 * Several threads meet at the first use of every pattern. The program has no other test, so that it is the first use.
 */
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fields.h"
#include "support/log_capture.h"
#include "support/mutation.h"
#include "support/repeating.h"

using namespace support;

namespace {

constexpr int thread_count = 8;

/** Values for every field: its own, near ones, and some beyond the bound of the fast way. */
std::vector<std::vector<std::string>> make_values() {
    Mutator mutator(5);
    std::vector<std::vector<std::string>> values;
    for (const Field &field : pattern_fields()) {
        std::vector<std::string> of_field = field.valid;
        for (int i = 0; i < 20; ++i) {
            of_field.push_back(mutator.near(field.valid.front(), field.alphabet));
        }
        of_field.push_back(repeated(field.valid.back(), 1024));
        of_field.push_back(repeated(field.valid.back(), 3000));
        values.push_back(of_field);
    }
    return values;
}

/** Every field's verdicts, beginning with field `first` so that the threads meet at different patterns. */
std::vector<std::vector<int>> judge_all(const std::vector<std::vector<std::string>> &values, size_t first) {
    std::vector<std::vector<int>> verdicts(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        const size_t at = (i + first) % values.size();
        for (const std::string &value : values[at]) {
            verdicts[at].push_back(pattern_fields()[at].validate(value.c_str()));
        }
    }
    return verdicts;
}

/** How many values have passed their pattern. */
size_t passed(const LogCapture &log) {
    const Lines lines = log.sequence();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), "DEBUG|Regex test passed."));
}

} // namespace

TEST(Threads, ShareThePatternsFromTheFirstUseOn) {
    const auto values = make_values();
    std::vector<std::vector<std::vector<int>>> verdicts(thread_count);
    LogCapture log("debug");
    on_threads(thread_count, [&](int me) {
        const size_t t = static_cast<size_t>(me);
        verdicts[t] = judge_all(values, t % 2 == 0 ? 0 : t); // half of them all begin with the same pattern
    });
    const size_t passed_together = passed(log);
    log.clear();
    const auto alone = judge_all(values, 0);
    for (const auto &of_thread : verdicts) {
        EXPECT_EQ(of_thread, alone);
    }
    EXPECT_GE(passed(log), values.size()) << "at least every field's own value";
    EXPECT_EQ(passed_together, passed(log) * thread_count) << "every thread logs every verdict";
}
