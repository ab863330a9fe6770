/*
 * Several threads meet at the first use of every pattern. The program has no other test, so that it is the first use.
 */
#include <string>
#include <utility>
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
std::vector<std::pair<const Field *, std::string>> make_values() {
    Mutator mutator(5);
    std::vector<std::pair<const Field *, std::string>> values;
    for (const Field &field : pattern_fields()) {
        for (const std::string &value : field.valid) {
            values.emplace_back(&field, value);
        }
        for (int i = 0; i < 20; ++i) {
            values.emplace_back(&field, mutator.near(field.valid.front(), field.alphabet));
        }
        values.emplace_back(&field, repeated(field.valid.back(), 1024));
        values.emplace_back(&field, repeated(field.valid.back(), 3000));
    }
    return values;
}

} // namespace

TEST(Threads, ShareThePatternsFromTheFirstUseOn) {
    const auto values = make_values();
    // Beginning with the value `first`, so that the threads meet at different patterns.
    const auto judge_all = [&](size_t first) {
        std::vector<int> verdicts(values.size());
        for (size_t i = 0; i < values.size(); ++i) {
            const size_t at = (i + first) % values.size();
            verdicts[at] = values[at].first->judge(values[at].second);
        }
        return verdicts;
    };
    const auto passed = [](const LogCapture &log) {
        return log.count(debug, "tavrix_validation", "Regex test passed.\n");
    };
    std::vector<std::vector<int>> verdicts(thread_count);
    LogCapture log("debug");
    on_threads(thread_count, [&](int me) {
        const size_t t = static_cast<size_t>(me);
        verdicts[t] = judge_all(t % 2 == 0 ? 0 : t * values.size() / thread_count); // half of them at the same pattern
    });
    const int passed_together = passed(log);
    log.clear();
    EXPECT_EQ(verdicts, std::vector<std::vector<int>>(thread_count, judge_all(0)));
    EXPECT_GE(passed(log), static_cast<int>(pattern_fields().size())) << "at least every field's own value";
    EXPECT_EQ(passed_together, passed(log) * thread_count) << "every thread logs every verdict";
}
