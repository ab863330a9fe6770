/*
 * The busy retry seen from SQLite's side, and every allocation of SQLite failing once.
 */
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "tavrix_sqlite3.h"

using namespace support;

namespace {

/** What one call of sqlite3_exec was made with. */
struct Attempt {
    sqlite3 *db;
    std::string sql;
    int (*callback)(void *, int, char **, char **);
    void *arg;
    char **errmsg;
};

bool scripted = false;
std::vector<int> answers; ///< of the attempts in turn; the last one stays
std::vector<Attempt> attempts;
std::vector<useconds_t> sleeps;

int ignore_row(void *, int, char **, char **) { return 0; }

} // namespace

// A script of several answers, and what each attempt was made with: Fault::fails() knows failures alone.
extern "C" {
int __real_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **), void *arg,
                        char **errmsg);

int __wrap_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **), void *arg,
                        char **errmsg) {
    if (!scripted) {
        return __real_sqlite3_exec(db, sql, callback, arg, errmsg);
    }
    attempts.push_back({db, sql, callback, arg, errmsg});
    const size_t number = attempts.size();
    const int rc = answers[number <= answers.size() ? number - 1 : answers.size() - 1];
    if (errmsg != nullptr) {
        *errmsg = rc == SQLITE_OK ? nullptr : sqlite3_mprintf("attempt %d", static_cast<int>(number));
    }
    return rc;
}

int __wrap_usleep(useconds_t delay) {
    sleeps.push_back(delay);
    return 0;
}
}

class BusyRetry : public testing::Test {
  protected:
    BusyRetry() {
        attempts.clear();
        sleeps.clear();
        scripted = true;
    }
    ~BusyRetry() override { scripted = false; }

    /** Executes with everything given and hands the last error text over. */
    int execute(const std::vector<int> &script) {
        answers = script;
        char *text = nullptr;
        const int rc = tavrix_sqlite3_exec(db, "UPDATE t SET x = 1", ignore_row, &mark, &text);
        message = text == nullptr ? "(none)" : text;
        sqlite3_free(text);
        return rc;
    }

    int mark = 0;
    sqlite3 *const db = reinterpret_cast<sqlite3 *>(&mark); ///< never looked into: SQLite's side is played here
    std::string message;
};

TEST_F(BusyRetry, MakesEveryAttemptWithTheCallersArguments) {
    const LogCapture log("debug");
    EXPECT_EQ(execute({SQLITE_BUSY}), SQLITE_BUSY);
    ASSERT_EQ(attempts.size(), 21U);
    for (const Attempt &attempt : attempts) {
        EXPECT_EQ(attempt.db, db);
        EXPECT_EQ(attempt.sql, "UPDATE t SET x = 1");
        EXPECT_EQ(attempt.callback, ignore_row);
        EXPECT_EQ(attempt.arg, &mark);
        EXPECT_NE(attempt.errmsg, nullptr);
    }
    EXPECT_EQ(sleeps, std::vector<useconds_t>(20, 50000));
    EXPECT_EQ(message, "attempt 21") << "the earlier texts are released, the last one is the caller's";
    Lines expected;
    for (int retry = 1; retry <= 20; ++retry) {
        expected.push_back("DEBUG|DB Busy! retry #" + std::to_string(retry) + "...");
    }
    EXPECT_TRUE(log.said(expected));
    EXPECT_EQ(log.lines().front().file, "tavrix_sqlite3");
}

TEST_F(BusyRetry, LeavesNoErrorTextBehind) {
    fault::take_over_sqlite();
    const LogCapture log("off");
    const sqlite3_int64 used = sqlite3_memory_used();
    EXPECT_EQ(execute({SQLITE_BUSY}), SQLITE_BUSY);
    EXPECT_EQ(execute({SQLITE_BUSY, SQLITE_BUSY, SQLITE_OK}), SQLITE_OK);
    EXPECT_EQ(sqlite3_memory_used(), used);
}

TEST_F(BusyRetry, EndsWithTheFirstOtherAnswer) {
    const LogCapture log("debug");
    EXPECT_EQ(execute({SQLITE_BUSY, SQLITE_BUSY, SQLITE_CONSTRAINT}), SQLITE_CONSTRAINT);
    EXPECT_EQ(message, "attempt 3");
    EXPECT_TRUE(log.said({"DEBUG|DB Busy! retry #1...", "DEBUG|DB Busy! retry #2..."}));
    EXPECT_EQ(sleeps.size(), 2U);
}

TEST_F(BusyRetry, SucceedsWithTheVeryLastAttempt) {
    std::vector<int> script(20, SQLITE_BUSY);
    script.push_back(SQLITE_OK);
    const LogCapture log("off");
    EXPECT_EQ(execute(script), SQLITE_OK);
    EXPECT_EQ(attempts.size(), 21U);
    EXPECT_EQ(message, "(none)");
}

TEST_F(BusyRetry, CountsEachCallAnew) {
    LogCapture log("debug");
    for (int call = 0; call < 2; ++call) {
        log.clear();
        attempts.clear();
        EXPECT_EQ(execute({SQLITE_BUSY, SQLITE_OK}), SQLITE_OK);
        EXPECT_TRUE(log.said({"DEBUG|DB Busy! retry #1..."}));
    }
}

TEST_F(BusyRetry, NeedsNoPlaceForTheErrorTextAndNoDebugLevel) {
    answers = {SQLITE_BUSY};
    const LogCapture log("info");
    EXPECT_EQ(tavrix_sqlite3_exec_sql(db, "DELETE FROM %s", "t"), SQLITE_BUSY);
    ASSERT_EQ(attempts.size(), 21U);
    EXPECT_EQ(attempts.back().sql, "DELETE FROM t");
    EXPECT_EQ(attempts.back().callback, nullptr);
    EXPECT_EQ(attempts.back().arg, nullptr);
    EXPECT_EQ(attempts.back().errmsg, nullptr);
    EXPECT_TRUE(log.silent());
}

TEST_F(BusyRetry, IsForPlainBusyOnly) {
    const LogCapture log("debug");
    for (const int answer :
         {SQLITE_ERROR, SQLITE_LOCKED, SQLITE_BUSY_SNAPSHOT, SQLITE_NOMEM, SQLITE_MISUSE, SQLITE_OK}) {
        attempts.clear();
        EXPECT_EQ(execute({answer}), answer);
        EXPECT_EQ(attempts.size(), 1U) << answer;
    }
    EXPECT_TRUE(log.silent());
}

/** Makes the call on a connection of its own with each allocation failing in turn. */
template <class Call>
static void each_time(Call call) {
    fault::each_sqlite_failure([&](const fault::Fault &fault) {
        sqlite3 *db = nullptr;
        if (sqlite3_open(":memory:", &db) == SQLITE_OK && !fault.happened()) {
            call(db, fault);
        }
        EXPECT_EQ(sqlite3_close(db), SQLITE_OK) << "a statement was left open";
    });
}

TEST(NoMemory, IsPassedOnByASingleId) {
    each_time([](sqlite3 *db, const fault::Fault &fault) {
        int64_t value = -77;
        const int rc = tavrix_sqlite3_get_single_id_result(db, &value, "SELECT length('%s')", "abc");
        EXPECT_EQ(rc, fault.happened() ? SQLITE_NOMEM : SQLITE_OK);
        EXPECT_EQ(value, fault.happened() ? -77 : 3);
    });
}

TEST(NoMemory, IsNotMistakenForAnEmptyText) {
    each_time([](sqlite3 *db, const fault::Fault &fault) {
        char text[16] = "old";
        const int rc = tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "SELECT %d", 12345);
        EXPECT_EQ(rc, fault.happened() ? SQLITE_NOMEM : SQLITE_OK);
        EXPECT_STREQ(text, fault.happened() ? "old" : "12345");
    });
}

TEST(NoMemory, IsPassedOnByPrepareAndExecute) {
    each_time([](sqlite3 *db, const fault::Fault &fault) {
        sqlite3_stmt *statement = nullptr;
        const int rc = tavrix_sqlite3_prepare_sql(db, &statement, "SELECT '%s'", "x");
        EXPECT_EQ(rc, fault.happened() ? SQLITE_NOMEM : SQLITE_OK);
        EXPECT_EQ(statement == nullptr, fault.happened());
        sqlite3_finalize(statement);
    });
    each_time([](sqlite3 *db, const fault::Fault &fault) {
        const int rc = tavrix_sqlite3_exec_sql(db, "CREATE TABLE %s (id)", "t");
        EXPECT_EQ(rc, fault.happened() ? SQLITE_NOMEM : SQLITE_OK);
    });
}
