/**
 * @file tavrix_sqlite3.h
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

TAVRIX_API int tavrix_sqlite3_prepare_sql(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, ...);
TAVRIX_API int tavrix_sqlite3_prepare_sql_args(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, va_list args);
TAVRIX_API int tavrix_sqlite3_get_single_id_result(sqlite3 *db, int64_t *out, const char *format, ...);
TAVRIX_API int tavrix_sqlite3_get_single_id_result_args(sqlite3 *db, int64_t *out, const char *format, va_list args);
TAVRIX_API int tavrix_sqlite3_get_single_string_result(sqlite3 *db, char *out, size_t size, const char *format, ...);
TAVRIX_API int tavrix_sqlite3_step_retrieve_int(sqlite3_stmt *stmt, int64_t *out);
TAVRIX_API int tavrix_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **),
                                   void *arg, char **errmsg);
TAVRIX_API int tavrix_sqlite3_exec_sql(sqlite3 *db, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
