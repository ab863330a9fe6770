/*
 * What closing a connection makes of SQLite's answers.
 */
#include "tavrix_db_api.h"

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "tavrix_error.h"

using namespace fault;
using namespace support;

namespace {

sqlite3 *closed = nullptr; ///< the handle of the last close

} // namespace

extern "C" {
int __real_sqlite3_close(sqlite3 *db);

int __wrap_sqlite3_close(sqlite3 *db) {
    closed = db;
    return Fault::fails("sqlite3_close") ? errno : __real_sqlite3_close(db);
}
}

TEST(Close, MapsEveryAnswerOfSqlite) {
    int mark = 0;
    sqlite3 *const db = reinterpret_cast<sqlite3 *>(&mark); // never looked into: SQLite's side is played here
    const LogCapture log("verbose");
    for (const auto &[answer, status] : {std::pair(SQLITE_OK, TAVRIX_OK),
                                         {SQLITE_BUSY, TAVRIX_ERR_DB_UNFINISHED},
                                         {SQLITE_ERROR, TAVRIX_ERR_SYSTEM_ACCESS},
                                         {SQLITE_MISUSE, TAVRIX_ERR_SYSTEM_ACCESS},
                                         {SQLITE_LOCKED, TAVRIX_ERR_SYSTEM_ACCESS},
                                         {SQLITE_NOMEM, TAVRIX_ERR_SYSTEM_ACCESS}}) {
        const Failing once("sqlite3_close", 1, answer);
        closed = nullptr;
        EXPECT_EQ(tavrix_db_close(db), status) << "SQLite answered " << answer;
        EXPECT_EQ(closed, db);
    }
    EXPECT_TRUE(log.silent());
}

TEST(Open, ClosesTheHandleOfAFailedOpen) {
    sqlite3 *handle = nullptr;
    closed = nullptr;
    const LogCapture log("off");
    EXPECT_EQ(tavrix_db_open_file(&handle, "missing.db"), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_NE(closed, nullptr);
    EXPECT_EQ(closed, handle);
}
