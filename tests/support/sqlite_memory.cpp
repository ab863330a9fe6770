#include "support/sqlite_memory.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace support {

namespace {

sqlite3_mem_methods real_methods;
int remaining = 0; ///< allocations until the one that fails; 0 when none is to fail
bool failed = false;

bool fails() {
    if (remaining == 0 || --remaining > 0) {
        return false;
    }
    failed = true;
    return true;
}

void *allocate(int size) { return fails() ? nullptr : real_methods.xMalloc(size); }

void *reallocate(void *memory, int size) { return fails() ? nullptr : real_methods.xRealloc(memory, size); }

} // namespace

void take_over_sqlite_memory() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    ASSERT_EQ(sqlite3_shutdown(), SQLITE_OK);
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real_methods), SQLITE_OK);
    sqlite3_mem_methods methods = real_methods;
    methods.xMalloc = allocate;
    methods.xRealloc = reallocate;
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_MALLOC, &methods), SQLITE_OK);
    // Without the connections' own small buffers every allocation comes by here.
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0), SQLITE_OK);
    ASSERT_EQ(sqlite3_initialize(), SQLITE_OK);
}

void fail_each_sqlite_allocation(const std::function<void(const bool &failed)> &attempt) {
    int number = 0;
    do {
        const sqlite3_int64 used = sqlite3_memory_used();
        failed = false;
        remaining = ++number;
        attempt(failed);
        remaining = 0;
        ASSERT_EQ(sqlite3_memory_used(), used) << "left behind after the failure of allocation " << number;
    } while (failed);
    EXPECT_GT(number, 1) << "nothing was allocated, so nothing failed";
}

} // namespace support
