/**
 * @file tavrix_db_api.h
 * Connections to the configuration database `/data/db/zqn_h7.db`, or to another file, and what daemons do with them.
 *
 * A handle variable is null while it is not open. The layer fills it and never clears it.
 *
 * @code
 * sqlite3 *db = NULL;
 * int64_t id;
 * int rc = tavrix_db_ensure_open_file(&db, path);
 * if (rc == TAVRIX_OK)
 *     rc = tavrix_db_get_single_id_result(db, path, "port", &id, "SELECT id FROM ports WHERE unit = %d", unit);
 * else
 *     db = NULL; // after a failed open it holds a closed handle
 * @endcode
 *
 * A null argument gives TAVRIX_ERR_PARAMETER unless the function says otherwise. Nothing waits for a busy database.
 * Thread-safety: one process-wide flag, unsynchronised (see tavrix_db_lock_cfgdb()); connections follow SQLite's rules.
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

/**
 * tavrix_db_open_file() on the configuration database.
 *
 * @param handle_var as there
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument; TAVRIX_ERR_SYSTEM_ACCESS when the database cannot be opened
 */
TAVRIX_API int tavrix_db_open(sqlite3 **handle_var);

/**
 * Opens a database file that exists, for reading and writing, with foreign keys and recursive triggers on. The lock of
 * the configuration database does not matter here.
 *
 * @param handle_var receives the connection, which the caller closes; what it held before is lost. After a failure it
 *                   holds a closed handle: set it back to null, never use or close it.
 * @param path       the file; it is never created, and a directory is refused. Whether the file is a database shows
 *                   with the first statement.
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument; TAVRIX_ERR_SYSTEM_ACCESS when it cannot be opened
 */
TAVRIX_API int tavrix_db_open_file(sqlite3 **handle_var, const char *path);

/**
 * tavrix_db_ensure_open_file() on the configuration database.
 *
 * @param handle_var as there
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument; TAVRIX_ERR_DB_BUSY while the configuration database is locked;
 *         TAVRIX_ERR_SYSTEM_ACCESS when it cannot be opened
 */
TAVRIX_API int tavrix_db_ensure_open(sqlite3 **handle_var);

/**
 * Opens a database unless the variable holds a handle already.
 *
 * @param handle_var if it is null, it receives the connection as in tavrix_db_open_file(), and stays null when the lock
 *                   forbids it; otherwise it is left alone, whichever file it is open on
 * @param path       the file
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument; TAVRIX_ERR_DB_BUSY when the path is exactly the
 *         configuration database's and that is locked; TAVRIX_ERR_SYSTEM_ACCESS when it cannot be opened
 */
TAVRIX_API int tavrix_db_ensure_open_file(sqlite3 **handle_var, const char *path);

/**
 * Closes a connection.
 *
 * @param handle the connection; the caller's variable keeps its value. After TAVRIX_ERR_DB_UNFINISHED it is still open.
 * @return 0; TAVRIX_ERR_PARAMETER for a null handle; TAVRIX_ERR_DB_UNFINISHED while it has statements that are not
 *         finalised; TAVRIX_ERR_SYSTEM_ACCESS for any other failure
 */
TAVRIX_API int tavrix_db_close(sqlite3 *handle);

/**
 * Forbids new connections to the configuration database while its file is replaced or synchronised. Connections that
 * are already open, other files, tavrix_db_open() and tavrix_db_open_file() are not affected. The library itself
 * never locks. The lock is not counted: one unlock ends it.
 */
TAVRIX_API void tavrix_db_lock_cfgdb(void);

/** Allows new connections to the configuration database again. */
TAVRIX_API void tavrix_db_unlock_cfgdb(void);

/**
 * Prepares a statement.
 *
 * @param handle   a connection, or null for a new one that serves only this statement: get it with sqlite3_db_handle()
 *                 before you finalise the statement, and close it afterwards. On failure, and for a text without a
 *                 statement, the new connection is closed here.
 * @param path     the file to open when there is no connection
 * @param stmt_out receives the statement, which the caller finalises; null when SQLite refuses the text, and for a text
 *                 without a statement
 * @param sql      the statement, of any length
 * @return 0; TAVRIX_ERR_PARAMETER for a null `path`, `stmt_out` or `sql`; TAVRIX_ERR_DB_BUSY or
 *         TAVRIX_ERR_SYSTEM_ACCESS as tavrix_db_ensure_open_file(); TAVRIX_ERR_SYSTEM_ACCESS when it cannot be prepared
 */
TAVRIX_API int tavrix_db_prepare_statement(sqlite3 *handle, const char *path, sqlite3_stmt **stmt_out, const char *sql);

/**
 * Reads column 0 of the first row of a formatted query, an id or a count.
 *
 * @param handle a connection, or null for a new one that is closed before the call returns
 * @param path   the file to open when there is no connection
 * @param name   what is looked up, for the log lines only
 * @param out    receives the value; untouched on failure
 * @param format printf format of the query, which is cut after TAVRIX_SQL_MAX characters
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument other than the handle; TAVRIX_ERR_DB_BUSY or
 *         TAVRIX_ERR_SYSTEM_ACCESS as tavrix_db_ensure_open_file(); TAVRIX_ERR_GENERAL when the query fails or finds no
 *         row
 */
TAVRIX_API int tavrix_db_get_single_id_result(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                              const char *format, ...) TAVRIX_PRINTF(5, 6);

/** tavrix_db_get_single_id_result() with a va_list, which is consumed: use it for one call only. */
TAVRIX_API int tavrix_db_get_single_id_result_args(sqlite3 *handle, const char *path, const char *name, int64_t *out,
                                                   const char *format, va_list args) TAVRIX_PRINTF(5, 0);

/**
 * Begins a transaction.
 *
 * @param handle the connection; null fails with TAVRIX_ERR_SYSTEM_ACCESS like anything else
 * @return 0; TAVRIX_ERR_SYSTEM_ACCESS, logged with SQLite's code, for example inside a transaction
 */
TAVRIX_API int tavrix_db_open_transaction(sqlite3 *handle);

/**
 * Commits the transaction. Another connection can make it fail as busy; then the transaction stays open, and the commit
 * may be tried again.
 *
 * @param handle the connection; null fails with TAVRIX_ERR_SYSTEM_ACCESS like anything else
 * @return 0; TAVRIX_ERR_SYSTEM_ACCESS, logged with SQLite's code, for example outside a transaction
 */
TAVRIX_API int tavrix_db_commit_transaction(sqlite3 *handle);

/**
 * Rolls the transaction back.
 *
 * @param handle the connection; null fails with TAVRIX_ERR_SYSTEM_ACCESS like anything else
 * @return 0; TAVRIX_ERR_SYSTEM_ACCESS, logged with SQLite's code, for example outside a transaction
 */
TAVRIX_API int tavrix_db_rollback_transaction(sqlite3 *handle);

#ifdef __cplusplus
}
#endif

#endif
