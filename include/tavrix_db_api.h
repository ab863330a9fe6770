/**
 * @file tavrix_db_api.h
 * Connections to the configuration database `/data/db/zqn_h7.db`, or to another file, and what daemons do with them.
 *
 * A handle variable is null while it is not open. The layer fills it and never clears it.
 *
 * @code
 * sqlite3 *db = NULL;
 * int64_t id;
 * int rc = tavrix_db_ensure_open(&db);
 * if (rc == TAVRIX_OK)
 *     rc = tavrix_db_get_single_id_result(db, path, "port", &id, "SELECT id FROM ports WHERE name = '%s'", name);
 * @endcode
 *
 * A null argument gives -4. Thread-safety: one process-wide flag, unsynchronised (see tavrix_db_lock_cfgdb());
 * connections follow SQLite's rules.
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

/** tavrix_db_open_file() on the configuration database. */
TAVRIX_API int tavrix_db_open(sqlite3 **handle_var);

/**
 * Opens a database that exists, with foreign keys and recursive triggers on. Ignores the lock.
 *
 * @param handle_var receives the connection; after a failure it holds a closed handle: set it back to null
 * @return 0; -4; -7
 */
TAVRIX_API int tavrix_db_open_file(sqlite3 **handle_var, const char *path);

/** tavrix_db_ensure_open_file() on the configuration database. */
TAVRIX_API int tavrix_db_ensure_open(sqlite3 **handle_var);

/**
 * Opens a database unless the variable holds a handle already.
 *
 * @return 0; -4; -11 when the path is the configuration database's and it is locked; -7
 */
TAVRIX_API int tavrix_db_ensure_open_file(sqlite3 **handle_var, const char *path);

/** Closes a connection; the caller's variable keeps its value. @return 0; -4; -12 while statements are open; -7 */
TAVRIX_API int tavrix_db_close(sqlite3 *handle);

/** Forbids opening the configuration database anew, for as long as its file is replaced or synchronised. */
TAVRIX_API void tavrix_db_lock_cfgdb(void);

/** Allows it again. */
TAVRIX_API void tavrix_db_unlock_cfgdb(void);

/**
 * Prepares a statement.
 *
 * @param handle   a connection, or null for a fresh one: then the statement keeps it. Take it with sqlite3_db_handle
 * before you finalise, and close it after. A text that holds no statement keeps nothing.
 * @param path     the file to open when there is no connection
 * @param stmt_out receives the statement; the caller finalises it
 * @return 0; -4; the opening's status; -7 when it cannot be prepared
 */
TAVRIX_API int tavrix_db_prepare_statement(sqlite3 *handle, const char *path, sqlite3_stmt **stmt_out, const char *sql);

/**
 * Reads column 0 of the first row of a formatted query.
 *
 * @param handle a connection, or null for a fresh one that is closed before the call returns
 * @param path   the file to open when there is no connection
 * @param name   what is looked up, for the log
 * @param out    receives the value; untouched on failure
 * @return 0; -4; the opening's status; -1 when the query fails or finds no row
 */
TAVRIX_API int tavrix_db_get_single_id_result(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                              const char *format, ...);

/** tavrix_db_get_single_id_result() with a va_list, which is used up. */
TAVRIX_API int tavrix_db_get_single_id_result_args(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                                   const char *format, va_list args);

/** Begins a transaction, without a busy retry. @return 0; -7, logged with SQLite's code */
TAVRIX_API int tavrix_db_open_transaction(sqlite3 *handle);

/** Commits it. @return 0; -7 */
TAVRIX_API int tavrix_db_commit_transaction(sqlite3 *handle);

/** Rolls it back. @return 0; -7 */
TAVRIX_API int tavrix_db_rollback_transaction(sqlite3 *handle);

#ifdef __cplusplus
}
#endif

#endif
