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
 * The functions return SQLite's own result codes, which are positive, and -4 when an argument is null. A statement has
 * at most TAVRIX_SQL_MAX characters. Values are not quoted: pass only what is validated, or bind it. Thread-safety: no
 * state; a connection is shared only as SQLite allows.
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

/** The longest statement text, in characters; what goes beyond is cut off without notice. */
#define TAVRIX_SQL_MAX 1099

/**
 * Prepares a formatted statement.
 *
 * @param stmt_out receives the statement; the caller finalises it
 * @return SQLite's code; -4 for a null argument
 */
TAVRIX_API int tavrix_sqlite3_prepare_sql(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, ...);

/** tavrix_sqlite3_prepare_sql() with a va_list, which is used up. */
TAVRIX_API int tavrix_sqlite3_prepare_sql_args(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, va_list args);

/**
 * Reads column 0 of the first row as an integer.
 *
 * @param out receives the value; untouched without a row
 * @return 0; SQLITE_DONE (101) when there is no row; SQLite's other codes; -4 for a null argument
 */
TAVRIX_API int tavrix_sqlite3_get_single_id_result(sqlite3 *db, int64_t *out, const char *format, ...);

/** tavrix_sqlite3_get_single_id_result() with a va_list, which is used up. */
TAVRIX_API int tavrix_sqlite3_get_single_id_result_args(sqlite3 *db, int64_t *out, const char *format, va_list args);

/**
 * Reads column 0 of the first row as a text. A NULL reads as the empty text.
 *
 * @param out  cleared and filled when there is a row; always terminated
 * @param size size of `out` in bytes; a longer text is cut
 * @return as tavrix_sqlite3_get_single_id_result()
 */
TAVRIX_API int tavrix_sqlite3_get_single_string_result(sqlite3 *db, char *out, size_t size, const char *format, ...);

/**
 * Steps a prepared statement once and reads column 0. The arguments are not tested for null.
 *
 * @return 0 for a row; -7 at the end of the result set and for any failure
 */
TAVRIX_API int tavrix_sqlite3_step_retrieve_int(sqlite3_stmt *stmt, int64_t *out);

/**
 * sqlite3_exec with up to 20 retries, 50 ms apart, while the database is busy.
 *
 * @param errmsg null, or the place for SQLite's error text, which the caller releases with sqlite3_free
 * @return the last code of SQLite
 */
TAVRIX_API int tavrix_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **),
                                   void *arg, char **errmsg);

/** Executes a formatted statement through tavrix_sqlite3_exec(). @return SQLite's code; -4 for a null argument */
TAVRIX_API int tavrix_sqlite3_exec_sql(sqlite3 *db, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
