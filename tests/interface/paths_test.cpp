#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "tavrix_db_api.h"
#include "tavrix_error.h"
#include "tavrix_lsyslog.h"

namespace {

std::string opened;

FILE *refuse(const char *path) {
    opened = path;
    errno = ENOENT;
    return nullptr;
}

} // namespace

// Whatever is opened is refused, and its path kept: the shipped library opens nothing of this machine here.
extern "C" {
FILE *__wrap_fopen(const char *path, const char * /*mode*/) { return refuse(path); }
FILE *__wrap_fopen64(const char *path, const char * /*mode*/) { return refuse(path); }
int __wrap_sqlite3_open_v2(const char *path, sqlite3 **db, int /*flags*/, const char * /*vfs*/) {
    opened = path;
    *db = nullptr;
    return SQLITE_CANTOPEN;
}
}

TEST(DefaultPaths, NameTheAppliancesLoggerConfiguration) {
    opened.clear();
    EXPECT_EQ(tavrix_lsyslog_reload_conf(), TAVRIX_ERR_FILE_OPEN);
    EXPECT_EQ(opened, "/etc/tavrix_lsyslog.conf");
}

TEST(DefaultPaths, NameTheAppliancesConfigurationDatabase) {
    sqlite3 *db = nullptr;
    opened.clear();
    EXPECT_EQ(tavrix_db_open(&db), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(opened, "/data/db/zqn_h7.db");
    tavrix_db_lock_cfgdb();
    opened.clear();
    EXPECT_EQ(tavrix_db_ensure_open_file(&db, "/data/db/zqn_h7.db"), TAVRIX_ERR_DB_BUSY);
    EXPECT_EQ(opened, "");
    tavrix_db_unlock_cfgdb();
}
