/*
 * SQLite helpers: statements from printf formats, single results, execution with a bounded busy retry.
 *
 * Keeps no state. SQLite's own positive result codes are passed through.
 */
#include "tavrix_sqlite3.h"

#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "common/database_handles.h"
#include "common/handles.h"
#include "common/log.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"

namespace {

using tavrix::into;
using tavrix::Statement;

constexpr char unit_name[] = "tavrix_sqlite3";
constexpr unsigned char max_retries = 20;
constexpr useconds_t retry_delay_us = 50000;

/** A statement's text on the stack, silently cut off at its end: values of any length are to be bound instead. */
class Sql {
  public:
    TAVRIX_PRINTF(2, 0) Sql(const char *format, va_list args) {
        static_cast<void>(std::vsnprintf(text_, sizeof text_, format, args));
    }
    const char *text() const { return text_; }

  private:
    char text_[TAVRIX_SQL_MAX + 1] = "";
};

/** Prepares a statement and steps to its first row: 0 when there is one, else SQLite's code. */
TAVRIX_PRINTF(3, 0)
int find_row(sqlite3 *db, Statement *statement, const char *format, va_list args) {
    int rc = tavrix_sqlite3_prepare_sql_args(db, into(*statement), format, args);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(statement->get());
    }
    return rc == SQLITE_ROW ? SQLITE_OK : rc;
}

/** Column 0's text, the empty one for a NULL column; null when SQLite has no memory for it. */
const char *column_text(sqlite3_stmt *statement) {
    if (sqlite3_column_type(statement, 0) == SQLITE_NULL) {
        return "";
    }
    return reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
}

int copy_text(sqlite3_stmt *statement, char *out, size_t size) {
    const char *text = column_text(statement);
    if (text == nullptr) {
        return SQLITE_NOMEM;
    }
    if (size > 0) {
        std::memset(out, 0, size);
        std::memcpy(out, text, strnlen(text, size - 1));
    }
    return SQLITE_OK;
}

} // namespace

int tavrix_sqlite3_prepare_sql(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int rc = tavrix_sqlite3_prepare_sql_args(db, stmt_out, format, args);
    va_end(args);
    return rc;
}

int tavrix_sqlite3_prepare_sql_args(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, va_list args) {
    if (tavrix_check_for_null(3, db, stmt_out, format) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    const Sql sql(format, args);
    return sqlite3_prepare_v2(db, sql.text(), -1, stmt_out, nullptr);
}

int tavrix_sqlite3_get_single_id_result(sqlite3 *db, int64_t *out, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int rc = tavrix_sqlite3_get_single_id_result_args(db, out, format, args);
    va_end(args);
    return rc;
}

int tavrix_sqlite3_get_single_id_result_args(sqlite3 *db, int64_t *out, const char *format, va_list args) {
    if (tavrix_check_for_null(3, db, out, format) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    Statement statement;
    const int rc = find_row(db, &statement, format, args);
    if (rc == SQLITE_OK) {
        *out = sqlite3_column_int64(statement.get(), 0);
    }
    return rc;
}

int tavrix_sqlite3_get_single_string_result(sqlite3 *db, char *out, size_t size, const char *format, ...) {
    if (tavrix_check_for_null(3, db, out, format) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    va_list args;
    va_start(args, format);
    Statement statement;
    const int rc = find_row(db, &statement, format, args);
    va_end(args);
    return rc == SQLITE_OK ? copy_text(statement.get(), out, size) : rc;
}

int tavrix_sqlite3_step_retrieve_int(sqlite3_stmt *stmt, int64_t *out) {
    if (sqlite3_step(stmt) != SQLITE_ROW) {
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
    *out = sqlite3_column_int64(stmt, 0);
    return TAVRIX_OK;
}

int tavrix_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **), void *arg,
                        char **errmsg) {
    int rc = sqlite3_exec(db, sql, callback, arg, errmsg);
    for (unsigned char retry = 1; rc == SQLITE_BUSY && retry <= max_retries; ++retry) {
        LOG_DEBUG("DB Busy! retry #%hu...\n", static_cast<unsigned short>(retry));
        if (errmsg != nullptr) {
            sqlite3_free(*errmsg); // the next attempt overwrites it
        }
        static_cast<void>(usleep(retry_delay_us));
        rc = sqlite3_exec(db, sql, callback, arg, errmsg);
    }
    return rc;
}

int tavrix_sqlite3_exec_sql(sqlite3 *db, const char *format, ...) {
    if (tavrix_check_for_null(2, db, format) != TAVRIX_OK) {
        return TAVRIX_ERR_PARAMETER;
    }
    va_list args;
    va_start(args, format);
    const Sql sql(format, args);
    va_end(args);
    return tavrix_sqlite3_exec(db, sql.text(), nullptr, nullptr, nullptr);
}
