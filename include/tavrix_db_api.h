/**
 * @file tavrix_db_api.h
 */
#ifndef TAVRIX_DB_API_H
#define TAVRIX_DB_API_H

#include "tavrix_export.h"
#include <sqlite3.h>
#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API int tavrix_db_open(sqlite3 **handle_var);
TAVRIX_API int tavrix_db_open_file(sqlite3 **handle_var, const char *path);
TAVRIX_API int tavrix_db_ensure_open(sqlite3 **handle_var);
TAVRIX_API int tavrix_db_ensure_open_file(sqlite3 **handle_var, const char *path);
TAVRIX_API int tavrix_db_close(sqlite3 *handle);
TAVRIX_API void tavrix_db_lock_cfgdb(void);
TAVRIX_API void tavrix_db_unlock_cfgdb(void);
TAVRIX_API int tavrix_db_prepare_statement(sqlite3 *handle, const char *path, sqlite3_stmt **stmt_out, const char *sql);
TAVRIX_API int tavrix_db_get_single_id_result(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                              const char *format, ...);
TAVRIX_API int tavrix_db_get_single_id_result_args(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                                   const char *format, va_list args);
TAVRIX_API int tavrix_db_open_transaction(sqlite3 *handle);
TAVRIX_API int tavrix_db_commit_transaction(sqlite3 *handle);
TAVRIX_API int tavrix_db_rollback_transaction(sqlite3 *handle);

#ifdef __cplusplus
}
#endif

#endif
