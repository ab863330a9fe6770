#include "tavrix_sqlite3.h"

#include <algorithm>
#include <cstdarg>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "support/fleet_database.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "tavrix_error.h"

using namespace support;

namespace {

class Sqlite : public testing::Test {
  protected:
    Sqlite() {
        EXPECT_EQ(sqlite3_open("helpers.db", &db), SQLITE_OK);
        values_of(db, "DROP TABLE IF EXISTS t; CREATE TABLE t (id INTEGER, word TEXT);"
                      "INSERT INTO t VALUES (1,'one'),(2,'two'),(5000000000,NULL);");
    }
    ~Sqlite() override { EXPECT_EQ(sqlite3_close(db), SQLITE_OK) << "a statement was left open"; }

    sqlite3 *db = nullptr;
};

int prepare_args(sqlite3 *db, sqlite3_stmt **statement, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int rc = tavrix_sqlite3_prepare_sql_args(db, statement, format, args);
    va_end(args);
    return rc;
}

int single_id_args(sqlite3 *db, int64_t *out, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int rc = tavrix_sqlite3_get_single_id_result_args(db, out, format, args);
    va_end(args);
    return rc;
}

} // namespace

TEST_F(Sqlite, PreparesAFormattedStatement) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "SELECT %d + length('%s')", 40, "ab"), SQLITE_OK);
    EXPECT_STREQ(sqlite3_sql(statement), "SELECT 40 + length('ab')");
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 42);
    sqlite3_finalize(statement);
}

TEST_F(Sqlite, TakesArgumentsOfEveryWidthFromAList) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(prepare_args(db, &statement, "SELECT %lld, '%s', %d, %.1f", 5000000000LL, "text", -1, 2.5), SQLITE_OK);
    EXPECT_STREQ(sqlite3_sql(statement), "SELECT 5000000000, 'text', -1, 2.5");
    sqlite3_finalize(statement);
    int64_t value = 0;
    EXPECT_EQ(single_id_args(db, &value, "SELECT %lld + %d", 5000000000LL, 7), 0);
    EXPECT_EQ(value, 5000000007);
    EXPECT_EQ(single_id_args(db, &value, "SELECT id FROM t WHERE id = %d", 99), SQLITE_DONE);
}

TEST_F(Sqlite, HasNothingToStepInATextWithoutAStatement) {
    int64_t value = -77;
    char text[8] = "kept";
    sqlite3_stmt *statement = nullptr;
    for (const char *nothing : {"", " ", "-- a comment"}) {
        EXPECT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "%s", nothing), SQLITE_OK);
        EXPECT_EQ(statement, nullptr);
        EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "%s", nothing), SQLITE_MISUSE);
        EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "%s", nothing), SQLITE_MISUSE);
        EXPECT_EQ(tavrix_sqlite3_exec_sql(db, "%s", nothing), SQLITE_OK);
    }
    EXPECT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "SELECT nonsense"), SQLITE_ERROR) << "the prepare's code";
    EXPECT_EQ(statement, nullptr);
    EXPECT_EQ(value, -77);
    EXPECT_STREQ(text, "kept");
}

TEST_F(Sqlite, PreparesTheFirst1099CharactersOfALongerText) {
    for (const size_t length : {size_t{1098}, size_t{1099}, size_t{1100}, size_t{1101}, size_t{5000}}) {
        const std::string sql = "SELECT 1 --" + std::string(length - 11, 'x');
        sqlite3_stmt *statement = nullptr;
        ASSERT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "%s", sql.c_str()), SQLITE_OK);
        EXPECT_EQ(sqlite3_sql(statement), sql.substr(0, 1099)) << length;
        sqlite3_finalize(statement);
    }
}

TEST_F(Sqlite, RunsWhatIsLeftOfACutStatement) {
    int64_t value = 0;
    for (const auto &[length, expected] : {std::pair<size_t, int>(1099, 12), {1100, 1}}) {
        const std::string sql = "SELECT " + std::string(length - 9, ' ') + "12";
        EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "%s", sql.c_str()), 0);
        EXPECT_EQ(value, expected) << "the 1100th character is gone";
    }
    const std::string plus = "SELECT 1" + std::string(1099 - 9, ' ') + "+1";
    EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "%s", plus.c_str()), SQLITE_ERROR) << "ends in a plus";
}

TEST_F(Sqlite, LeavesTheOutputAloneWithoutARow) {
    int64_t value = -77;
    EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "SELECT id FROM t WHERE id = 99"), SQLITE_DONE);
    EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "SELECT nonsense"), SQLITE_ERROR);
    EXPECT_EQ(value, -77);
    char text[8] = "kept";
    EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "SELECT word FROM t WHERE id = 99"), 101);
    EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "SELECT nonsense"), 1);
    EXPECT_STREQ(text, "kept");
}

TEST_F(Sqlite, ReadsASingleText) {
    char text[8];
    std::fill(std::begin(text), std::end(text), '~');
    EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, 6, "SELECT word FROM t WHERE id = %d", 2), 0);
    EXPECT_EQ(std::string(text, 8), std::string("two\0\0\0~~", 8)) << "size bytes are cleared, no more";
}

TEST_F(Sqlite, CutsATextToItsBuffer) {
    for (const size_t size : {size_t{1}, size_t{2}, size_t{3}, size_t{4}}) {
        char text[8] = "~~~~~~~";
        EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, size, "SELECT 'abc'"), 0);
        EXPECT_EQ(std::string(text), std::string("abc").substr(0, size - 1));
        EXPECT_EQ(text[size], '~');
    }
    char untouched[2] = "~";
    EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, untouched, 0, "SELECT 'abc'"), 0);
    EXPECT_STREQ(untouched, "~");
}

TEST_F(Sqlite, ReadsAnyColumnOfTheFirstRowAsText) {
    const std::pair<const char *, std::string> rows[] = {
        {"42", "42"},
        {"-1.5", "-1.5"},
        {"x'6162'", "ab"},
        {"x''", ""},
        {"''", ""},
        {"'ab' || char(0) || 'cd'", "ab"},
        {"word FROM t WHERE word IS NULL", ""},
        {"word, id FROM t ORDER BY id", "one"},
    };
    for (const auto &[query, expected] : rows) {
        char text[8] = "~~~~~~~";
        EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "SELECT %s", query), 0);
        EXPECT_EQ(std::string(text, 8), expected + std::string(8 - expected.size(), '\0')) << query;
    }
}

TEST_F(Sqlite, ReadsASingleIdOfTheFirstRow) {
    const std::pair<const char *, int64_t> rows[] = {
        {"SELECT id FROM t WHERE word = 'two'", 2},
        {"SELECT max(id) FROM t", 5000000000},
        {"SELECT id FROM t ORDER BY id DESC LIMIT 2", 5000000000},
        {"SELECT NULL", 0},
        {"SELECT 9223372036854775807", INT64_MAX},
        {"SELECT -9223372036854775807 - 1", INT64_MIN},
    };
    for (const auto &[sql, expected] : rows) {
        int64_t value = -77;
        EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "%s", sql), 0) << sql;
        EXPECT_EQ(value, expected) << sql;
    }
}

TEST_F(Sqlite, StepsThroughAResultSet) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "SELECT id FROM t ORDER BY id"), 0);
    int64_t value = 0;
    for (const int64_t expected : {int64_t{1}, int64_t{2}, int64_t{5000000000}}) {
        EXPECT_EQ(tavrix_sqlite3_step_retrieve_int(statement, &value), 0);
        EXPECT_EQ(value, expected);
    }
    EXPECT_EQ(tavrix_sqlite3_step_retrieve_int(statement, &value), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(tavrix_sqlite3_step_retrieve_int(nullptr, &value), TAVRIX_ERR_SYSTEM_ACCESS) << "no statement";
    EXPECT_EQ(value, 5000000000);
    sqlite3_finalize(statement);
}

TEST_F(Sqlite, NamesTheFirstNullArgument) {
    sqlite3_stmt *statement = nullptr;
    int64_t value = 0;
    char text[4];
    constexpr int refused = TAVRIX_ERR_PARAMETER;
    expect_nulls_named(refused, tavrix_sqlite3_prepare_sql, db, &statement, "SELECT 1");
    expect_nulls_named(refused, prepare_args, db, &statement, "SELECT 1");
    expect_nulls_named(refused, tavrix_sqlite3_get_single_id_result, db, &value, "SELECT 1");
    expect_nulls_named(refused, single_id_args, db, &value, "SELECT 1");
    expect_nulls_named(refused, tavrix_sqlite3_get_single_string_result, db, text, size_t{4}, "SELECT 1");
    expect_nulls_named(refused, tavrix_sqlite3_exec_sql, db, "SELECT 1");
    const LogCapture log("info");
    EXPECT_EQ(tavrix_sqlite3_prepare_sql(nullptr, nullptr, nullptr), refused);
    EXPECT_TRUE(log.said({null_line(0)}));
}

TEST_F(Sqlite, ExecutesWithCallbackAndErrorText) {
    int rows = 0;
    const auto count = [](void *arg, int, char **, char **) {
        ++*static_cast<int *>(arg);
        return 0;
    };
    EXPECT_EQ(tavrix_sqlite3_exec(db, "SELECT * FROM t", count, &rows, nullptr), SQLITE_OK);
    EXPECT_EQ(rows, 3);
    char *message = nullptr;
    EXPECT_EQ(tavrix_sqlite3_exec(db, "SELECT nonsense", nullptr, nullptr, &message), SQLITE_ERROR);
    EXPECT_STREQ(message, "no such column: nonsense");
    sqlite3_free(message);
}

TEST_F(Sqlite, ExecutesAFormattedStatement) {
    EXPECT_EQ(tavrix_sqlite3_exec_sql(db, "UPDATE t SET word = '%s' WHERE id = %d", "deux", 2), SQLITE_OK);
    EXPECT_EQ(values_of(db, "SELECT count(*) FROM t WHERE word = 'deux'"), "1");
    const std::string long_text = "UPDATE t SET word = 'x'" + std::string(1099 - 23, ' ') + "WHERE 0";
    EXPECT_EQ(tavrix_sqlite3_exec_sql(db, "%s", long_text.c_str()), SQLITE_OK);
    EXPECT_EQ(values_of(db, "SELECT count(*) FROM t WHERE word = 'x'"), "3")
        << "the condition stood behind the 1099th character";
}

TEST_F(Sqlite, GoesOnWhenTheDatabaseIsLetGo) {
    const Sql holder("helpers.db");
    holder.run("BEGIN EXCLUSIVE");
    LogCapture log("debug");
    std::thread release([&] {
        while (log.text().find("retry #2") == std::string::npos) {
            std::this_thread::yield();
        }
        holder.run("COMMIT");
    });
    char *message = nullptr;
    EXPECT_EQ(tavrix_sqlite3_exec(db, "UPDATE t SET id = 1", nullptr, nullptr, &message), SQLITE_OK);
    release.join();
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(values_of(db, "SELECT count(*) FROM t WHERE id = 1"), "3");
}

TEST_F(Sqlite, RetriesNeitherPreparingNorStepping) {
    sqlite3_stmt *statement = nullptr;
    ASSERT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "SELECT id FROM t"), SQLITE_OK);
    const Sql holder("helpers.db");
    holder.run("BEGIN EXCLUSIVE");
    int64_t value = -77;
    char text[8] = "kept";
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &value, "SELECT id FROM t"), SQLITE_BUSY);
    EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "SELECT word FROM t"), SQLITE_BUSY);
    EXPECT_EQ(tavrix_sqlite3_step_retrieve_int(statement, &value), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_TRUE(log.silent());
    EXPECT_EQ(value, -77);
    EXPECT_STREQ(text, "kept");
    sqlite3_finalize(statement);
}
