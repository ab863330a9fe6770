/*
 * db check, db init: the configuration database as a file.
 */
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "common/database_handles.h"
#include "support.h"
#include "verbs.h"

namespace tavrixctl {

namespace {

constexpr int patience_ms = 2000; // for a writer to finish

using tavrix::Connection;
using tavrix::Statement;

Connection open_database(const std::string &file, int flags) {
    sqlite3 *opened = nullptr;
    const int rc = sqlite3_open_v2(file.c_str(), &opened, flags, nullptr);
    Connection db(opened);
    if (rc != SQLITE_OK) {
        const bool is_absent = rc == SQLITE_CANTOPEN && access(file.c_str(), F_OK) != 0;
        complain("%s: %s%s", printable(file).c_str(), db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(rc),
                 is_absent ? "; there is none, tavrixctl db init makes one in a folder that exists" : "");
        return nullptr;
    }
    sqlite3_busy_timeout(db.get(), patience_ms);
    return db;
}

/** A statement's rows, each as its columns' texts with blanks between; false, complained about, when it fails. */
bool query(sqlite3 *db, const std::string &file, const char *sql, std::vector<std::string> *rows) {
    sqlite3_stmt *prepared = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr);
    const Statement statement(prepared);
    while (rc == SQLITE_OK && (rc = sqlite3_step(prepared)) == SQLITE_ROW) {
        std::string row;
        for (int column = 0; column < sqlite3_column_count(prepared); ++column) {
            const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(prepared, column));
            row += (column == 0 ? "" : " ") + printable(text == nullptr ? "-" : text);
        }
        rows->push_back(row);
        rc = SQLITE_OK;
    }
    if (rc != SQLITE_DONE) {
        complain("%s: %s", printable(file).c_str(), printable(sqlite3_errmsg(db)).c_str());
    }
    return rc == SQLITE_DONE;
}

/** Runs a file's statements; complains and returns false when one fails. */
bool run_file(sqlite3 *db, const std::string &name) {
    std::string sql;
    if (!read_file(name, &sql)) {
        complain("%s: %s", printable(name).c_str(), std::strerror(errno));
        return false;
    }
    char *error = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        complain("%s: %s", printable(name).c_str(), error != nullptr ? printable(error).c_str() : sqlite3_errstr(rc));
    }
    sqlite3_free(error);
    return rc == SQLITE_OK;
}

constexpr char objects_of_schema[] = "SELECT type, name, sql FROM sqlite_master WHERE name NOT LIKE 'sqlite_%' "
                                     "ORDER BY type, name";

/** Complains about each table that the schema has otherwise than the database, if there is a schema to compare with. */
bool compare_schema(const DbOptions &options, const std::vector<std::string> &found) {
    const Connection fresh = open_database(":memory:", SQLITE_OPEN_READWRITE);
    std::vector<std::string> wanted;
    if (!fresh || !run_file(fresh.get(), options.schema) ||
        !query(fresh.get(), options.schema, objects_of_schema, &wanted)) {
        return false;
    }
    bool same = true;
    for (const std::string &object : wanted) {
        const std::string name = object.substr(0, object.find(' ', object.find(' ') + 1));
        const auto has_name = [&name](const std::string &other) { return other.rfind(name + " ", 0) == 0; };
        const auto there = std::find_if(found.begin(), found.end(), has_name);
        if (there == found.end() || *there != object) {
            complain("%s: %s %s", printable(options.file).c_str(), name.c_str(),
                     there == found.end() ? "is missing" : "is another one than the schema's");
            same = false;
        }
    }
    return same;
}

} // namespace

int db_check(const DbOptions &options) {
    const Connection db = open_database(options.file, SQLITE_OPEN_READONLY);
    std::vector<std::string> integrity;
    std::vector<std::string> dangling;
    std::vector<std::string> version;
    std::vector<std::string> objects;
    std::vector<std::string> tables;
    if (!db || !query(db.get(), options.file, "PRAGMA integrity_check", &integrity) ||
        !query(db.get(), options.file, "PRAGMA foreign_key_check", &dangling) ||
        !query(db.get(), options.file, "PRAGMA user_version", &version) ||
        !query(db.get(), options.file, objects_of_schema, &objects) ||
        !query(db.get(), options.file,
               "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY name",
               &tables)) {
        return exit_error_response;
    }
    bool good = integrity.size() == 1 && integrity[0] == "ok";
    for (const std::string &problem : good ? std::vector<std::string>() : integrity) {
        complain("%s: %s", printable(options.file).c_str(), problem.c_str());
    }
    for (const std::string &row : dangling) {
        complain("%s: a row refers to nothing (table, row, refers to, key): %s", printable(options.file).c_str(),
                 row.c_str());
        good = false;
    }
    if (tables.empty()) {
        complain("%s: there are no tables; tavrixctl db init makes them", printable(options.file).c_str());
        good = false;
    }
    if (!options.schema.empty()) {
        good = compare_schema(options, objects) && good;
    }
    std::string names;
    for (const std::string &table : tables) {
        names += " " + table;
    }
    const bool is_printed = print_line(printable(options.file) + ": " + (good ? "good" : "not good") + ", version " +
                                       version[0] + ", tables:" + names);
    return printed(is_printed && good);
}

int db_init(const DbOptions &options) {
    if (access(options.file.c_str(), F_OK) == 0) {
        return fail(exit_error_response, "%s: there is one already", printable(options.file).c_str());
    }
    // Made under another name first: a daemon that starts meanwhile finds all of it or nothing.
    const std::string temporary = options.file + ".new-" + std::to_string(getpid());
    bool done = false;
    {
        const Connection db = open_database(temporary, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        done = db && run_file(db.get(), options.schema) && (options.data.empty() || run_file(db.get(), options.data));
    }
    // Unlike a rename, a link does not replace one that has come to be meanwhile.
    if (done && link(temporary.c_str(), options.file.c_str()) != 0) {
        complain("%s: %s", printable(options.file).c_str(), std::strerror(errno));
        done = false;
    }
    unlink(temporary.c_str());
    return done ? exit_result : exit_error_response;
}

} // namespace tavrixctl
