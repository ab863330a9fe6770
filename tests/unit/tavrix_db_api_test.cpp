#include "tavrix_db_api.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/fleet_database.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/stream.h"
#include "tavrix_error.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_db_api";
constexpr char cfgdb[] = "zqn_h7.db"; ///< the test build's name of the configuration database
constexpr char other[] = "other.db";

void make_database(const char *path) {
    std::remove(path);
    Sql(path).run("CREATE TABLE t (id INTEGER PRIMARY KEY, parent INTEGER REFERENCES t (id));"
                  "INSERT INTO t VALUES (7, NULL); CREATE TABLE empty (id INTEGER);");
}

int single_id_args(sqlite3 *db, const char *path, const char *name, int64_t *out, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int rc = tavrix_db_get_single_id_result_args(db, path, name, out, format, args);
    va_end(args);
    return rc;
}

class Database : public testing::Test {
  protected:
    void SetUp() override {
        make_database(cfgdb);
        make_database(other);
        tavrix_db_unlock_cfgdb();
    }
    void TearDown() override {
        tavrix_db_unlock_cfgdb();
        EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    }
    sqlite3 *handle = nullptr;
};

/** With an open handle. */
class OpenDatabase : public Database {
  protected:
    void SetUp() override {
        Database::SetUp();
        ASSERT_EQ(tavrix_db_open(&handle), 0);
    }
    void insert() const { values_of(handle, "INSERT INTO t VALUES (1, NULL)"); }
};

} // namespace

TEST_F(OpenDatabase, OpensWithTheSettingsEveryConnectionMustHave) {
    EXPECT_EQ(values_of(handle, "PRAGMA foreign_keys"), "1");
    EXPECT_EQ(values_of(handle, "PRAGMA recursive_triggers"), "1");
    EXPECT_EQ(sqlite3_exec(handle, "INSERT INTO t VALUES (8, 99)", nullptr, nullptr, nullptr), SQLITE_CONSTRAINT);
    EXPECT_NE(std::string(sqlite3_db_filename(handle, "main")).find(cfgdb), std::string::npos);
}

TEST_F(Database, NeverCreatesAFile) {
    std::remove("missing.db");
    const LogCapture log("info");
    EXPECT_EQ(tavrix_db_open_file(&handle, "missing.db"), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_TRUE(log.has(error, unit, "Failed to open a database connection to file <missing.db>\n"));
    EXPECT_NE(handle, nullptr) << "the closed handle's value stays";
    EXPECT_EQ(tavrix_db_ensure_open_file(&handle, "missing.db"), 0) << "and counts as open";
    handle = nullptr;
    EXPECT_NE(access("missing.db", F_OK), 0);
}

TEST_F(Database, OpensLazily) {
    LogCapture log("verbose");
    ASSERT_EQ(tavrix_db_ensure_open(&handle), 0);
    EXPECT_TRUE(log.has(debug, unit, "Database file <zqn_h7.db> was not open, opening now...\n"));
    const sqlite3 *const opened = handle;
    log.clear();
    ASSERT_EQ(tavrix_db_ensure_open(&handle), 0);
    EXPECT_EQ(handle, opened);
    EXPECT_TRUE(log.said({"VERB |Database file <zqn_h7.db> was already open, no further action required."}));
}

TEST_F(Database, RefusesToOpenTheLockedConfigurationOnly) {
    tavrix_db_lock_cfgdb();
    const LogCapture log("info");
    EXPECT_EQ(tavrix_db_ensure_open(&handle), TAVRIX_ERR_DB_BUSY);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(log.said({"WARN |cfgdb is currently locked - not re-opening"}));
    EXPECT_EQ(tavrix_db_ensure_open_file(&handle, cfgdb), TAVRIX_ERR_DB_BUSY) << "by its path too";
    int64_t value = -77;
    sqlite3_stmt *statement = nullptr;
    EXPECT_EQ(tavrix_db_get_single_id_result(nullptr, cfgdb, "t", &value, "SELECT 1"), TAVRIX_ERR_DB_BUSY);
    EXPECT_EQ(tavrix_db_prepare_statement(nullptr, cfgdb, &statement, "SELECT 1"), TAVRIX_ERR_DB_BUSY);
    for (const char *not_locked : {other, "./zqn_h7.db"}) { // the path is compared to the letter
        EXPECT_EQ(tavrix_db_ensure_open_file(&handle, not_locked), 0);
        EXPECT_EQ(sqlite3_close(std::exchange(handle, nullptr)), SQLITE_OK);
    }
}

TEST_F(OpenDatabase, LetsAnOpenHandleAndAPlainOpenPassTheLock) {
    tavrix_db_lock_cfgdb();
    EXPECT_EQ(tavrix_db_ensure_open(&handle), 0);
    sqlite3 *second = nullptr;
    EXPECT_EQ(tavrix_db_open(&second), 0);
    EXPECT_EQ(tavrix_db_close(second), 0);
    tavrix_db_unlock_cfgdb();
    second = nullptr;
    EXPECT_EQ(tavrix_db_ensure_open(&second), 0);
    EXPECT_EQ(tavrix_db_close(second), 0);
}

TEST_F(OpenDatabase, ClosesAndSaysWhatIsUnfinished) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(tavrix_db_prepare_statement(handle, cfgdb, &statement, "SELECT id FROM t"), 0);
    EXPECT_EQ(tavrix_db_close(handle), TAVRIX_ERR_DB_UNFINISHED);
    sqlite3_finalize(statement);
    EXPECT_EQ(tavrix_db_close(std::exchange(handle, nullptr)), 0);
}

TEST_F(OpenDatabase, PreparesOnTheCallersConnectionOrSaysWhatItCannotPrepare) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(tavrix_db_prepare_statement(handle, cfgdb, &statement, "SELECT id FROM t"), 0);
    EXPECT_EQ(sqlite3_db_handle(statement), handle);
    sqlite3_finalize(statement);
    const LogCapture log("info");
    EXPECT_EQ(tavrix_db_prepare_statement(handle, cfgdb, &statement, "SELECT nonsense FROM t"),
              TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_TRUE(log.said({"WARN |[RC:1] Unable to prepare query <SELECT nonsense FROM t>"}));
}

TEST_F(Database, PreparesOnAFreshConnectionThatTheStatementKeeps) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(tavrix_db_prepare_statement(nullptr, cfgdb, &statement, "SELECT id FROM t"), 0);
    sqlite3 *kept = sqlite3_db_handle(statement);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 7);
    sqlite3_finalize(statement);
    EXPECT_EQ(tavrix_db_close(kept), 0);
}

TEST_F(Database, LeaksNoFreshConnection) {
    const NothingOpens nothing;
    const LogCapture log("off");
    int64_t value = 0;
    sqlite3_stmt *statement = nullptr;
    EXPECT_EQ(tavrix_db_get_single_id_result(nullptr, cfgdb, "t", &value, "SELECT id FROM t"), 0);
    for (const char *sql : {"SELECT id FROM empty", "SELECT nonsense"}) {
        EXPECT_EQ(tavrix_db_get_single_id_result(nullptr, cfgdb, "t", &value, "%s", sql), TAVRIX_ERR_GENERAL);
    }
    EXPECT_EQ(tavrix_db_prepare_statement(nullptr, cfgdb, &statement, "SELECT nonsense"), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(tavrix_db_prepare_statement(nullptr, cfgdb, &statement, "-- nothing to run"), 0);
    EXPECT_EQ(statement, nullptr);
    EXPECT_EQ(tavrix_db_get_single_id_result(nullptr, "missing.db", "t", &value, "SELECT 1"), TAVRIX_ERR_SYSTEM_ACCESS);
}

TEST_F(OpenDatabase, ReadsIdsAndCounts) {
    int64_t value = 0;
    LogCapture log("debug");
    EXPECT_EQ(tavrix_db_get_single_id_result(handle, cfgdb, "thing", &value, "SELECT id FROM t WHERE id = %d", 7), 0);
    EXPECT_EQ(value, 7);
    EXPECT_TRUE(log.said({"DEBUG|Found [thing] id/count <7>"}));
    EXPECT_EQ(tavrix_db_get_single_id_result(handle, cfgdb, "empty", &value, "SELECT count(*) FROM empty"), 0);
    EXPECT_EQ(value, 0);
    value = -77;
    log.clear();
    EXPECT_EQ(tavrix_db_get_single_id_result(handle, cfgdb, "thing", &value, "SELECT id FROM t WHERE id = 8"),
              TAVRIX_ERR_GENERAL);
    EXPECT_EQ(value, -77);
    EXPECT_TRUE(log.said({"DEBUG|Unable to get [thing] id/count from database [zqn_h7.db]"}));
}

TEST_F(Database, NamesTheFirstNullArgument) {
    int64_t value = 0;
    sqlite3_stmt *statement = nullptr;
    constexpr int refused = TAVRIX_ERR_PARAMETER;
    expect_nulls_named(refused, tavrix_db_open, &handle);
    expect_nulls_named(refused, tavrix_db_open_file, &handle, cfgdb);
    expect_nulls_named(refused, tavrix_db_ensure_open, &handle);
    expect_nulls_named(refused, tavrix_db_ensure_open_file, &handle, cfgdb);
    expect_nulls_named(refused, tavrix_db_close, handle);
    // The handle may be null: a connection is opened then.
    const auto prepare = [](auto... rest) { return tavrix_db_prepare_statement(nullptr, cfgdb, rest...); };
    expect_nulls_named(refused, prepare, &statement, "SELECT 1");
    for (const auto get_id : {&tavrix_db_get_single_id_result, &single_id_args}) {
        expect_nulls_named(
            refused, [&](auto... rest) { return get_id(nullptr, rest...); }, cfgdb, "t", &value, "SELECT 1");
    }
    const LogCapture log("info");
    EXPECT_EQ(tavrix_db_prepare_statement(nullptr, nullptr, &statement, "SELECT 1"), refused);
    EXPECT_TRUE(log.said({null_line(1)})) << "by the test of opening";
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(statement, nullptr);
}

TEST_F(OpenDatabase, RunsTransactions) {
    EXPECT_EQ(tavrix_db_open_transaction(handle), 0);
    insert();
    EXPECT_EQ(tavrix_db_rollback_transaction(handle), 0);
    EXPECT_EQ(values_of(handle, "SELECT count(*) FROM t"), "1");
    EXPECT_EQ(tavrix_db_open_transaction(handle), 0);
    insert();
    EXPECT_EQ(tavrix_db_commit_transaction(handle), 0);
    EXPECT_EQ(values_of(handle, "SELECT count(*) FROM t"), "2");
}

TEST_F(OpenDatabase, ReportsTransactionsThatFail) {
    const LogCapture log("info");
    EXPECT_EQ(tavrix_db_commit_transaction(handle), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(tavrix_db_rollback_transaction(handle), TAVRIX_ERR_SYSTEM_ACCESS);
    ASSERT_EQ(tavrix_db_open_transaction(handle), 0);
    EXPECT_EQ(tavrix_db_open_transaction(handle), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_TRUE(log.said({"ERROR|Unable to commit sql transaction due to SQLite error <1>",
                          "ERROR|Unable to rollback sql transaction due to SQLite error <1>",
                          "ERROR|Unable to begin sql transaction due to SQLite error <1>"}));
    EXPECT_EQ(tavrix_db_rollback_transaction(handle), 0);
}

TEST_F(OpenDatabase, CommitsOnceWhileAnotherConnectionReads) {
    const Sql reader;
    reader.run("BEGIN; SELECT id FROM t");
    ASSERT_EQ(tavrix_db_open_transaction(handle), 0);
    insert();
    {
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_db_commit_transaction(handle), TAVRIX_ERR_SYSTEM_ACCESS);
        EXPECT_TRUE(log.said({"ERROR|Unable to commit sql transaction due to SQLite error <5>"}));
    }
    reader.run("COMMIT");
    EXPECT_EQ(tavrix_db_commit_transaction(handle), 0) << "the transaction is still open";
    EXPECT_EQ(values_of(handle, "SELECT count(*) FROM t"), "2");
}

TEST_F(Database, RunsNoTransactionWithoutAHandle) {
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_db_open_transaction(nullptr), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(tavrix_db_commit_transaction(nullptr), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(tavrix_db_rollback_transaction(nullptr), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_TRUE(log.said({"ERROR|Unable to begin sql transaction due to SQLite error <21>",
                          "ERROR|Unable to commit sql transaction due to SQLite error <21>",
                          "ERROR|Unable to rollback sql transaction due to SQLite error <21>"}));
}
