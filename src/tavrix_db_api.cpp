/*
 * Database access layer: connections with the settings that each must have, lazy opening, single results, transactions.
 *
 * Keeps one process-wide, unsynchronised flag: while it is set, the configuration database is not opened again.
 */
#include "tavrix_db_api.h"

#include <cstdint>
#include <cstring>

#include "common/database_handles.h"
#include "common/log.h"
#include "tavrix_error.h"
#include "tavrix_sqlite3.h"
#include "tavrix_utils.h"

namespace {

using tavrix::Connection;

constexpr char unit_name[] = "tavrix_db_api";
constexpr char cfgdb_path[] = TAVRIX_CFGDB_PATH; // the build's

uint8_t cfgdb_locked = 0;

/**
 * The connection that a call works on: the caller's, or, if the caller has none, a new one that is closed at the end of
 * the call unless it is kept.
 */
class CallConnection {
  public:
    explicit CallConnection(sqlite3 *callers) : callers_(callers) {}

    int ensure_open(const char *path) {
        if (callers_ != nullptr) {
            return tavrix_db_ensure_open_file(&callers_, path);
        }
        sqlite3 *fresh = nullptr;
        const int rc = tavrix_db_ensure_open_file(&fresh, path);
        if (rc == TAVRIX_OK) { // after a failed open the variable holds a closed handle
            fresh_.reset(fresh);
        }
        return rc;
    }
    sqlite3 *get() const { return callers_ != nullptr ? callers_ : fresh_.get(); }
    void keep_open() { static_cast<void>(fresh_.release()); }

  private:
    sqlite3 *callers_;
    Connection fresh_;
};

/** One step of a transaction; `verb` is its word in the log. */
int run_step(sqlite3 *handle, const char *sql, const char *verb) {
    const int rc = sqlite3_exec(handle, sql, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        LOG_ERROR("Unable to %s sql transaction due to SQLite error <%d>\n", verb, rc);
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
    return TAVRIX_OK;
}

} // namespace

int tavrix_db_open(sqlite3 **handle_var) { return tavrix_db_open_file(handle_var, cfgdb_path); }

int tavrix_db_open_file(sqlite3 **handle_var, const char *path) {
    if (tavrix_check_for_null(2, handle_var, path) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    if (sqlite3_open_v2(path, handle_var, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        LOG_ERROR("Failed to open a database connection to file <%s>\n", path);
        static_cast<void>(
            sqlite3_close(*handle_var)); // its value stays: callers go by the status and reset it themselves
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
    static_cast<void>(tavrix_sqlite3_exec_sql(*handle_var, "PRAGMA foreign_keys = on"));
    static_cast<void>(tavrix_sqlite3_exec_sql(*handle_var, "PRAGMA recursive_triggers = on;"));
    return TAVRIX_OK;
}

int tavrix_db_ensure_open(sqlite3 **handle_var) { return tavrix_db_ensure_open_file(handle_var, cfgdb_path); }

int tavrix_db_ensure_open_file(sqlite3 **handle_var, const char *path) {
    if (tavrix_check_for_null(2, handle_var, path) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    if (*handle_var != nullptr) {
        LOG_VERBOSE("Database file <%s> was already open, no further action required.\n", path);
        return TAVRIX_OK;
    }
    if (cfgdb_locked != 0 && std::strcmp(path, cfgdb_path) == 0) {
        LOG_WARNING("cfgdb is currently locked - not re-opening\n");
        return TAVRIX_ERR_DB_BUSY;
    }
    LOG_DEBUG("Database file <%s> was not open, opening now...\n", path);
    return tavrix_db_open_file(handle_var, path);
}

int tavrix_db_close(sqlite3 *handle) {
    if (tavrix_check_for_null(1, handle) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    const int rc = sqlite3_close(handle);
    if (rc == SQLITE_OK) {
        return TAVRIX_OK;
    }
    return rc == SQLITE_BUSY ? TAVRIX_ERR_DB_UNFINISHED : TAVRIX_ERR_SYSTEM_ACCESS;
}

void tavrix_db_lock_cfgdb(void) { cfgdb_locked = 1; }

void tavrix_db_unlock_cfgdb(void) { cfgdb_locked = 0; }

int tavrix_db_prepare_statement(sqlite3 *handle, const char *path, sqlite3_stmt **stmt_out, const char *sql) {
    // A missing text is refused before anything is opened; the path is checked on opening.
    if (tavrix_check_for_null(2, stmt_out, sql) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    CallConnection connection(handle);
    int rc = connection.ensure_open(path);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    rc = sqlite3_prepare_v2(connection.get(), sql, -1, stmt_out, nullptr);
    if (rc != SQLITE_OK) {
        LOG_WARNING("[RC:%d] Unable to prepare query <%s>\n", rc, sql);
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
    if (*stmt_out != nullptr) {
        connection.keep_open(); // it belongs to the statement now; a text without a statement keeps nothing open
    }
    return TAVRIX_OK;
}

int tavrix_db_get_single_id_result(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                   const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int rc = tavrix_db_get_single_id_result_args(handle, path, name, out, format, args);
    va_end(args);
    return rc;
}

int tavrix_db_get_single_id_result_args(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                        const char *format, va_list args) {
    if (tavrix_check_for_null(4, path, name, out, format) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    CallConnection connection(handle);
    const int rc = connection.ensure_open(path);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (tavrix_sqlite3_get_single_id_result_args(connection.get(), out, format, args) != SQLITE_OK) {
        LOG_DEBUG("Unable to get [%s] id/count from database [%s]\n", name, path);
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("Found [%s] id/count <%lld>\n", name, static_cast<long long>(*out));
    return TAVRIX_OK;
}

int tavrix_db_open_transaction(sqlite3 *handle) { return run_step(handle, "BEGIN", "begin"); }

int tavrix_db_commit_transaction(sqlite3 *handle) { return run_step(handle, "COMMIT", "commit"); }

int tavrix_db_rollback_transaction(sqlite3 *handle) { return run_step(handle, "ROLLBACK", "rollback"); }
