/*
 * The database layer with each of SQLite's allocations failing once.
 */
#include "tavrix_db_api.h"

#include <cstdint>

#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "tavrix_error.h"

namespace {

constexpr char path[] = "fault.db";

class DatabaseFaults : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        fault::take_over_sqlite();
        sqlite3 *db = nullptr;
        ASSERT_EQ(sqlite3_open(path, &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS t (id INTEGER); DELETE FROM t; INSERT INTO t VALUES (5)",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(db);
    }

    const support::LogCapture quiet{"off"};
};

} // namespace

TEST_F(DatabaseFaults, LeaveNoConnectionBehindWhenItCannotBeOpened) {
    fault::each_sqlite_failure([](const fault::Fault &fault) {
        sqlite3 *db = nullptr;
        const int rc = tavrix_db_open_file(&db, path);
        // The two settings' own results are not looked at.
        EXPECT_TRUE(rc == 0 || (rc == TAVRIX_ERR_SYSTEM_ACCESS && fault.happened())) << rc;
        if (rc == 0) {
            EXPECT_EQ(tavrix_db_close(db), 0);
        }
    });
}

TEST_F(DatabaseFaults, LeaveNoConnectionBehindWhenAnIdCannotBeRead) {
    fault::each_sqlite_failure([](const fault::Fault &fault) {
        int64_t id = -77;
        const int rc = tavrix_db_get_single_id_result(nullptr, path, "t", &id, "SELECT id FROM t");
        if (rc != 0) {
            EXPECT_TRUE(fault.happened());
            EXPECT_TRUE(rc == TAVRIX_ERR_SYSTEM_ACCESS || rc == TAVRIX_ERR_GENERAL) << rc;
        }
        EXPECT_EQ(id, rc == 0 ? 5 : -77);
    });
}

TEST_F(DatabaseFaults, LeaveNoConnectionBehindWhenAStatementCannotBePrepared) {
    fault::each_sqlite_failure([](const fault::Fault &fault) {
        sqlite3_stmt *statement = nullptr;
        const int rc = tavrix_db_prepare_statement(nullptr, path, &statement, "SELECT id FROM t");
        EXPECT_EQ(statement != nullptr, rc == 0);
        if (rc != 0) {
            EXPECT_TRUE(fault.happened());
            EXPECT_EQ(rc, TAVRIX_ERR_SYSTEM_ACCESS);
            return;
        }
        sqlite3 *db = sqlite3_db_handle(statement);
        sqlite3_finalize(statement);
        EXPECT_EQ(tavrix_db_close(db), 0);
    });
}

TEST_F(DatabaseFaults, LeaveATransactionThatCanBeRolledBack) {
    fault::each_sqlite_failure([](const fault::Fault &fault) {
        sqlite3 *db = nullptr;
        if (tavrix_db_open_file(&db, path) != 0) {
            EXPECT_TRUE(fault.happened());
            return;
        }
        if (tavrix_db_open_transaction(db) == 0) {
            const bool committed = tavrix_db_commit_transaction(db) == 0;
            EXPECT_TRUE(committed || fault.happened());
            EXPECT_TRUE(committed || sqlite3_get_autocommit(db) != 0 || tavrix_db_rollback_transaction(db) == 0);
        } else {
            EXPECT_TRUE(fault.happened());
        }
        EXPECT_EQ(tavrix_db_close(db), 0);
    });
}
