/**
 * SQLite's memory in the tests: one allocation fails on demand, and nothing may be left over.
 */
#ifndef TAVRIX_TESTS_SUPPORT_SQLITE_MEMORY_H
#define TAVRIX_TESTS_SUPPORT_SQLITE_MEMORY_H

#include <functional>

namespace support {

/** Takes SQLite's allocations over, once per process; no connection may be open. */
void take_over_sqlite_memory();

/**
 * Calls `attempt` with SQLite's first allocation failing, then with the second, until a call gets through with none.
 * Expects that no call leaves memory behind. The argument says whether the failure has come up yet, for a look at it
 * after the call under test.
 */
void fail_each_sqlite_allocation(const std::function<void(const bool &failed)> &attempt);

} // namespace support

#endif
