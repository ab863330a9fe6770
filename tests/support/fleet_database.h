/**
 * The ports service's database in the test's folder, and the test's own look into it.
 */
#ifndef TAVRIX_TESTS_SUPPORT_FLEET_DATABASE_H
#define TAVRIX_TESTS_SUPPORT_FLEET_DATABASE_H

#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/process.h"

namespace support {

/** The test's own connection to the daemons' database. */
class Sql {
  public:
    Sql() {
        sqlite3_open("zqn_h7.db", &db_);
        sqlite3_busy_timeout(db_, 20000);
    }
    Sql(const Sql &) = delete;
    Sql &operator=(const Sql &) = delete;
    ~Sql() { sqlite3_close(db_); }

    void run(const std::string &text) const {
        EXPECT_EQ(sqlite3_exec(db_, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db_);
    }
    /** The rows' values, a blank between any two. */
    std::string read(const std::string &query) const {
        std::string values;
        const auto add = [](void *out, int count, char **texts, char ** /*names*/) {
            for (int i = 0; i < count; ++i) {
                std::string &all = *static_cast<std::string *>(out);
                all += (all.empty() ? "" : " ") + std::string(texts[i] != nullptr ? texts[i] : "null");
            }
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(db_, query.c_str(), add, &values, nullptr), SQLITE_OK) << sqlite3_errmsg(db_);
        return values;
    }

  private:
    sqlite3 *db_ = nullptr;
};

/** Makes the database with the example fleet, in the place of one that is there. */
inline void make_fleet_database() {
    std::remove("zqn_h7.db");
    const Sql sql;
    sql.run(read_file(TAVRIX_SOURCE_DIR "/daemons/ports/schema.sql"));
    sql.run(read_file(TAVRIX_SOURCE_DIR "/daemons/ports/fleet.sql"));
}

} // namespace support

#endif
