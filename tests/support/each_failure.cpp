/*
 * The loops, and what they need of GoogleTest: the router has faults.cpp alone.
 */
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/faults.h"
#include "support/stream.h"

namespace fault {

void Fault::expect(int failed, int passed, const std::function<int()> &code) {
    const int rc = in(code);
    EXPECT_EQ(rc, happened() ? failed : passed) << function();
}

namespace {

/** An attempt with the given call failing; false when it got through with none. */
bool fail_once(Fault &fault, int number, const std::function<void(Fault &fault)> &attempt) {
    const int descriptors = support::open_descriptors();
    const int blocks_before = blocks();
    attempt(fault);
    const std::string what = fault.happened() ? "call " + std::to_string(number) + ", " + fault.function() : "no call";
    EXPECT_EQ(support::open_descriptors(), descriptors) << "open after the failure of " << what;
    EXPECT_EQ(blocks(), blocks_before) << "in use after the failure of " << what;
    EXPECT_FALSE(testing::Test::HasFailure()) << "with the failure of " << what;
    return fault.happened() && !testing::Test::HasFailure();
}

sqlite3_mem_methods sqlite;

} // namespace

std::set<std::string> each_failure(const std::function<void(Fault &fault)> &attempt, int reason, const char *of) {
    std::set<std::string> failed;
    for (int number = 1;; ++number) {
        Fault fault(of, number, reason);
        if (!fail_once(fault, number, attempt)) {
            break;
        }
        failed.insert(fault.function());
    }
    EXPECT_FALSE(failed.empty()) << "nothing was called that could fail";
    return failed;
}

void each_failure_of(const std::set<std::string> &functions, const std::function<void(Fault &fault)> &attempt,
                     int reason) {
    const std::set<std::string> failed = each_failure(attempt, reason);
    for (const std::string &function : functions) {
        EXPECT_EQ(failed.count(function), 1U) << function << " has never failed";
    }
}

void take_over_sqlite() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    ASSERT_EQ(sqlite3_shutdown(), SQLITE_OK);
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sqlite), SQLITE_OK);
    sqlite3_mem_methods counted = sqlite;
    counted.xMalloc = [](int size) { return taken(Fault::fails("SQLite") ? nullptr : sqlite.xMalloc(size)); };
    counted.xRealloc = [](void *memory, int size) {
        return Fault::fails("SQLite") ? nullptr : sqlite.xRealloc(memory, size);
    };
    counted.xFree = [](void *memory) { sqlite.xFree(given_back(memory)); };
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_MALLOC, &counted), SQLITE_OK);
    // Without the connections' own small buffers every allocation comes by here.
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0), SQLITE_OK);
    ASSERT_EQ(sqlite3_initialize(), SQLITE_OK);
}

void each_sqlite_failure(const std::function<void(const Fault &fault)> &attempt) {
    take_over_sqlite();
    each_failure([&](Fault &fault) { fault.in([&] { attempt(fault); }); }, ENOMEM, "SQLite");
}

} // namespace fault
