/**
 * @file tavrix_sqlite3.h
 * Statements built from printf formats, single results, and execution with a bounded retry while the database is busy.
 *
 * @code
 * int64_t count;
 * if (tavrix_sqlite3_get_single_id_result(db, &count, "SELECT count(*) FROM ports WHERE unit = %d", unit) == SQLITE_OK)
 *     printf("%lld ports\n", (long long)count);
 * @endcode
 *
 * `db` is always an open connection, and stays the caller's. `format` is a printf format; the statement it makes has
 * at most TAVRIX_SQL_MAX characters, and the rest is cut off silently.
 *
 * Values are not quoted: formats are for numbers and for the program's own words. Even a validated text is not safe in
 * one: a description may contain an apostrophe. Bind it instead, so that it is neither read as SQL nor cut off:
 * @code
 * sqlite3_stmt *stmt;
 * int rc = tavrix_db_prepare_statement(db, path, &stmt, "UPDATE ports SET description = ?1 WHERE unit = ?2");
 * if (rc == TAVRIX_OK) {
 *     sqlite3_bind_text(stmt, 1, description, -1, SQLITE_TRANSIENT);
 *     sqlite3_bind_int(stmt, 2, unit);
 *     rc = sqlite3_step(stmt) == SQLITE_DONE ? TAVRIX_OK : TAVRIX_ERR_SYSTEM_ACCESS;
 *     sqlite3_finalize(stmt);
 * }
 * @endcode
 * A text that has to go through a format is put between apostrophes, with its own apostrophes doubled. This is what
 * `sqlite3_mprintf("%Q", text)` does; pass its result to a plain `%s`, and release it with sqlite3_free.
 *
 * The functions return SQLite's own result codes, 0 or positive, and TAVRIX_ERR_PARAMETER when an argument is null.
 * Nothing but tavrix_sqlite3_exec() and tavrix_sqlite3_exec_sql() waits for a busy database, unless the caller has
 * given the connection a busy handler. Thread-safety: no state; a connection is shared only as SQLite allows.
 */
#ifndef TAVRIX_SQLITE3_H
#define TAVRIX_SQLITE3_H

#include "tavrix_export.h"
#include <sqlite3.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The longest statement text, in characters; the rest is cut off silently. */
#define TAVRIX_SQL_MAX 1099

/**
 * Prepares a formatted statement.
 *
 * @param db       the connection
 * @param stmt_out receives the statement, which the caller finalises; null when SQLite refuses the text, and for a text
 *                 without a statement
 * @param format   printf format of the statement
 * @return 0 when prepared; SQLite's code; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_sqlite3_prepare_sql(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, ...)
    TAVRIX_PRINTF(3, 4);

/** tavrix_sqlite3_prepare_sql() with a va_list, which is consumed: use it for one call only. */
TAVRIX_API int tavrix_sqlite3_prepare_sql_args(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, va_list args)
    TAVRIX_PRINTF(3, 0);

/**
 * Reads column 0 of the first row of a formatted query as an integer.
 *
 * @param db     the connection
 * @param out    receives the value; untouched without a row
 * @param format printf format of the query
 * @return 0 for a row; SQLITE_DONE (101) when there is none; SQLITE_MISUSE (21) for a text without a statement;
 *         SQLite's other codes; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_sqlite3_get_single_id_result(sqlite3 *db, int64_t *out, const char *format, ...)
    TAVRIX_PRINTF(3, 4);

/** tavrix_sqlite3_get_single_id_result() with a va_list, which is consumed: use it for one call only. */
TAVRIX_API int tavrix_sqlite3_get_single_id_result_args(sqlite3 *db, int64_t *out, const char *format, va_list args)
    TAVRIX_PRINTF(3, 0);

/**
 * Reads column 0 of the first row of a formatted query as a text. A NULL reads as the empty text.
 *
 * @param db     the connection
 * @param out    receives the text, cut to `size` - 1 bytes, and zeros up to `size`; untouched without a row
 * @param size   size of `out` in bytes; 1 gives the empty text, with 0 nothing is written
 * @param format printf format of the query
 * @return 0 for a row; SQLITE_DONE (101) when there is none; SQLITE_MISUSE (21) for a text without a statement;
 *         SQLite's other codes; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_sqlite3_get_single_string_result(sqlite3 *db, char *out, size_t size, const char *format, ...)
    TAVRIX_PRINTF(4, 5);

/**
 * Steps a prepared statement once and reads column 0 as an integer; for loops over a result set.
 *
 * @param stmt the statement, which stays the caller's
 * @param out  receives the value; untouched without a row. It must not be null.
 * @return 0 for a row; TAVRIX_ERR_SYSTEM_ACCESS at the end of the result set and for any failure
 */
TAVRIX_API int tavrix_sqlite3_step_retrieve_int(sqlite3_stmt *stmt, int64_t *out);

/**
 * sqlite3_exec with up to 20 retries while SQLite answers SQLITE_BUSY, each after a pause of 50 ms: the call can take
 * more than a second. A signal ends a pause early, but not the call, so a series of signals uses up the retries sooner.
 * Every attempt runs all of `sql` again, callbacks included. Arguments are not tested for null.
 *
 * @param db       the connection
 * @param sql      one or more statements, of any length
 * @param callback called for each row, or null; see sqlite3_exec
 * @param arg      handed to the callback
 * @param errmsg   null, or the place for the last attempt's error text, which the caller releases with sqlite3_free;
 *                 what earlier attempts left there is released inside
 * @return SQLite's last code; SQLITE_BUSY (5) when the database stayed busy
 */
TAVRIX_API int tavrix_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **),
                                   void *arg, char **errmsg);

/**
 * Executes a formatted statement through tavrix_sqlite3_exec(), without a callback.
 *
 * @param db     the connection
 * @param format printf format of the statement
 * @return SQLite's last code; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_sqlite3_exec_sql(sqlite3 *db, const char *format, ...) TAVRIX_PRINTF(2, 3);

#ifdef __cplusplus
}
#endif

#endif
