/*
 * Notes that operators leave at ports, in a database of their own. A note is taken when the ports service knows the
 * port; whoever listens is told of it, and a timer forgets what is older than a day.
 */
#include <stdlib.h>

#include <tavrix.h>

#include "notes.h"

enum { ask_ms = 2000, forget_every_ms = 60000 };

/* --- notes.Add: asks the ports service first, and answers when that has answered --- */

static int store(const struct notes *notes, const char *port_id, const char *text) {
    sqlite3_stmt *statement = NULL;
    int rc = tavrix_db_prepare_statement(notes->database, notes->path, &statement,
                                         "INSERT INTO notes VALUES (?1, ?2, strftime('%s', 'now'))");
    if (rc == TAVRIX_OK) {
        sqlite3_bind_text(statement, 1, port_id, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 2, text, -1, SQLITE_TRANSIENT);
        rc = sqlite3_step(statement) == SQLITE_DONE ? TAVRIX_OK : TAVRIX_ERR_SYSTEM_ACCESS;
    }
    sqlite3_finalize(statement);
    return rc;
}

static void on_port(tavrix_service *service, const tavrix_answer *answer, void *user) {
    uint64_t *number = user; /* the call may be gone by now, its number tells */
    tavrix_call *call = tavrix_service_deferred(service, *number);
    free(number);
    if (call == NULL) {
        return; /* nobody waits any more */
    }
    if (answer->outcome != TAVRIX_OUTCOME_RESULT) {
        tavrix_call_pass_on(call, answer); /* no such port, no ports service: the client is told so */
        return;
    }
    const char *port_id = tavrix_call_text(call, "port_id"), *text = tavrix_call_text(call, "text");
    int rc = store(tavrix_call_user(call), port_id, text);
    if (rc != TAVRIX_OK) {
        tavrix_call_fail(call, rc);
        return;
    }
    tavrix_service_publish(service, "notes.Added", json_pack("{s:s, s:s}", "port_id", port_id, "text", text));
    tavrix_call_reply(call, json_true());
}

static int add(tavrix_call *call) {
    uint64_t *number = malloc(sizeof *number);
    if (number == NULL) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    *number = tavrix_call_defer(call, NULL, NULL);
    if (*number == 0 || tavrix_service_request(tavrix_call_service(call), "ports.Get",
                                               json_pack("{s:s}", "port_id", tavrix_call_text(call, "port_id")), ask_ms,
                                               on_port, number) == 0) {
        free(number);
        return TAVRIX_ERR_SYSTEM_BUSY;
    }
    return TAVRIX_OK;
}

/* --- notes.List --- */

static int list(tavrix_call *call) {
    const struct notes *notes = tavrix_call_user(call);
    sqlite3_stmt *statement = NULL;
    int rc = tavrix_db_prepare_statement(notes->database, notes->path, &statement,
                                         "SELECT port_id, text FROM notes"
                                         " WHERE coalesce(?1, 'all') IN ('all', port_id) ORDER BY rowid");
    if (rc != TAVRIX_OK) {
        return rc;
    }
    sqlite3_bind_text(statement, 1, tavrix_call_text(call, "port_id"), -1, SQLITE_TRANSIENT);
    json_t *found = json_array();
    while (sqlite3_step(statement) == SQLITE_ROW) {
        json_array_append_new(found, json_pack("{s:s, s:s}", "port_id", sqlite3_column_text(statement, 0), "text",
                                               sqlite3_column_text(statement, 1)));
    }
    sqlite3_finalize(statement);
    return tavrix_call_reply(call, found);
}

/* --- The timer, the start and the end --- */

static void forget(tavrix_service *service, void *user) {
    const struct notes *notes = user;
    tavrix_sqlite3_exec_sql(notes->database, "DELETE FROM notes WHERE added < strftime('%%s', 'now', '-1 day')");
    if (sqlite3_changes(notes->database) > 0) {
        tavrix_service_publish(service, "notes.Forgotten",
                               json_pack("{s:i}", "count", sqlite3_changes(notes->database)));
    }
}

static int start(tavrix_service *service, void *user) {
    struct notes *notes = user;
    if (sqlite3_open(notes->path, &notes->database) != SQLITE_OK ||
        tavrix_sqlite3_exec_sql(notes->database, "CREATE TABLE IF NOT EXISTS notes (port_id, text, added INTEGER)")) {
        tavrix_lsyslog_log(TAVRIX_LOG_ERROR, "notes", __LINE__, "Cannot open the notes in %s: %s\n", notes->path,
                           sqlite3_errmsg(notes->database));
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
    return tavrix_service_timer(service, forget_every_ms, forget_every_ms, forget, notes) != 0 ? TAVRIX_OK
                                                                                               : TAVRIX_ERR_NO_MEMORY;
}

static void stop(tavrix_service *service, void *user) {
    (void)service;
    sqlite3_close(((struct notes *)user)->database);
}

/* --- The table --- */

static const tavrix_service_param add_params[] = {
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "where to leave it", TAVRIX_ANY_PORT),
    TAVRIX_PARAM_RANGE("text", TAVRIX_KIND_TEXT, "what it says", 0, 1, 200),
    TAVRIX_PARAM_END,
};
static const tavrix_service_param list_params[] = {
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "a port, or all",
                 TAVRIX_OPTIONAL | TAVRIX_ANY_PORT | TAVRIX_ALLOW_ALL),
    TAVRIX_PARAM_END,
};
static const tavrix_service_param done[] = {
    TAVRIX_PARAM("", TAVRIX_KIND_BOOLEAN, "true", 0),
    TAVRIX_PARAM_END,
};
static const tavrix_service_param found[] = {
    TAVRIX_PARAM_MEMBERS("", TAVRIX_KIND_ARRAY, "the notes, oldest first", 0, 0, 0, add_params),
    TAVRIX_PARAM_END,
};
static const tavrix_service_method methods[] = {
    TAVRIX_METHOD("notes.Add", add, "Leaves a note at a port.", add_params, done, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("notes.List", list, "Shows the notes.", list_params, found, TAVRIX_METHOD_READS),
    TAVRIX_METHOD_END,
};

tavrix_service_options notes_options(struct notes *notes) {
    const tavrix_service_options options = {.name = "notesd",
                                            .methods = methods,
                                            .user = notes,
                                            .start = start,
                                            .stop = stop,
                                            .version = "1.0",
                                            .summary = "Keeps notes at ports."};
    return options;
}
