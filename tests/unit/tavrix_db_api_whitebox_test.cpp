/*
 * What closing a connection makes of SQLite's answers.
 */
#include "tavrix_db_api.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tavrix_error.h"

using support::LogCapture;

namespace {

bool scripted = false;
int answer = SQLITE_OK;
sqlite3 *closed = nullptr; ///< the handle of the last close

} // namespace

extern "C" {
int __real_sqlite3_close(sqlite3 *db);

int __wrap_sqlite3_close(sqlite3 *db) {
    closed = db;
    return scripted ? answer : __real_sqlite3_close(db);
}
}

TEST(Close, MapsEveryAnswerOfSqlite) {
    const struct {
        int answer;
        int status;
    } rows[] = {{SQLITE_OK, 0},      {SQLITE_BUSY, -12},  {SQLITE_ERROR, -7},
                {SQLITE_MISUSE, -7}, {SQLITE_LOCKED, -7}, {SQLITE_NOMEM, -7}};
    int mark = 0;
    sqlite3 *const db = reinterpret_cast<sqlite3 *>(&mark); // never looked into: SQLite's side is played here
    const LogCapture log("verbose");
    scripted = true;
    for (const auto &row : rows) {
        answer = row.answer;
        closed = nullptr;
        EXPECT_EQ(tavrix_db_close(db), row.status) << "SQLite answered " << row.answer;
        EXPECT_EQ(closed, db);
    }
    scripted = false;
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
