#include "support/fleet_database.h"

#include <cstdio>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/process.h"

namespace support {

namespace {

constexpr char path[] = "zqn_h7.db";

void run_sql_file(sqlite3 *db, const std::string &file) {
    if (sqlite3_exec(db, read_file(file).c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error(file + ": " + sqlite3_errmsg(db));
    }
}

} // namespace

void make_fleet_database() {
    std::remove(path);
    sqlite3 *db = nullptr;
    sqlite3_open(path, &db);
    run_sql_file(db, TAVRIX_SOURCE_DIR "/daemons/ports/schema.sql");
    run_sql_file(db, TAVRIX_SOURCE_DIR "/daemons/ports/fleet.sql");
    sqlite3_close(db);
}

Sql::Sql() {
    sqlite3_open(path, &db_);
    sqlite3_busy_timeout(db_, 20000);
}

Sql::~Sql() { sqlite3_close(db_); }

void Sql::run(const std::string &text) const {
    EXPECT_EQ(sqlite3_exec(db_, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db_);
}

std::string Sql::read(const std::string &query) const {
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

} // namespace support
