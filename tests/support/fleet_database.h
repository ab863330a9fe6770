/**
 * The test's own look into a database, and the ports service's in the test's folder.
 */
#ifndef TAVRIX_TESTS_SUPPORT_FLEET_DATABASE_H
#define TAVRIX_TESTS_SUPPORT_FLEET_DATABASE_H

#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/process.h"

namespace support {

/** The values of a query's rows, a blank between any two. */
inline std::string values_of(sqlite3 *db, const std::string &query) {
    std::string values;
    const auto add = [](void *out, int count, char **texts, char ** /*names*/) {
        for (int i = 0; i < count; ++i) {
            std::string &all = *static_cast<std::string *>(out);
            all += (all.empty() ? "" : " ") + std::string(texts[i] != nullptr ? texts[i] : "null");
        }
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, query.c_str(), add, &values, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    return values;
}

/** The test's own connection to a database, the daemons' unless another is named. */
class Sql {
  public:
    explicit Sql(const char *path = "zqn_h7.db") {
        sqlite3_open(path, &db_);
        sqlite3_busy_timeout(db_, 20000);
    }
    Sql(const Sql &) = delete;
    Sql &operator=(const Sql &) = delete;
    ~Sql() { sqlite3_close(db_); }

    void run(const std::string &text) const { values_of(db_, text); }
    std::string read(const std::string &query) const { return values_of(db_, query); }

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
