/*
 * A service by hand, for comparison: answers echo.Empty, echo.Say (with its own parameters), and, given a database,
 * ports.Get of one port with one query that is prepared once.
 *
 *     bare_service PUBLISH_ADDRESS ROUTER_ADDRESS [DATABASE]
 */
#include "bare_bus.h"

#include <jansson.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char query[] = "SELECT status, poe_status, link_status, link_speed, vlan_mode, vlan_id"
                            " FROM ports LEFT JOIN vlan_members USING (unit, port)"
                            " WHERE unit = ?1 AND port = ?2 ORDER BY vlan_id";

static const char *const status_words[] = {"disable", "enable"};
static const char *const poe_words[] = {"unknown", "disabled", "enabled", "offline", "unsupported"};
static const char *const link_words[] = {"unknown", "down", "up", "offline"};
static const char *const speed_words[] = {"unknown", "offline",  "N/A",      "unsupported",
                                          "10 Mbps", "100 Mbps", "1000 Mbps"};
static const char *const vlan_words[] = {"unknown", "local", "access", "trunk", "trans"};

static sqlite3_stmt *statement;

static void open_database(const char *path) {
    sqlite3 *database = NULL;
    if (sqlite3_open_v2(path, &database, SQLITE_OPEN_READWRITE, NULL) != SQLITE_OK ||
        sqlite3_prepare_v2(database, query, -1, &statement, NULL) != SQLITE_OK) {
        fprintf(stderr, "%s: %s\n", path, sqlite3_errmsg(database));
        exit(1);
    }
}

#define WORD(table, column) (table)[(size_t)sqlite3_column_int(statement, column) % (sizeof(table) / sizeof *(table))]

static json_t *get_port(const json_t *params) {
    const char *port_id = json_string_value(json_object_get(params, "port_id"));
    json_t *port = NULL;
    int unit = 0;
    int number = 0;
    if (statement == NULL || port_id == NULL || sscanf(port_id, "c%d-%d", &unit, &number) != 2) {
        return NULL;
    }
    sqlite3_bind_int(statement, 1, unit);
    sqlite3_bind_int(statement, 2, number);
    json_t *vlan_ids = json_array();
    while (sqlite3_step(statement) == SQLITE_ROW) {
        if (port == NULL) {
            port = json_pack("{s:s, s:s, s:s, s:s, s:s, s:s, s:O}", "port_id", port_id, "status", WORD(status_words, 0),
                             "poe_status", WORD(poe_words, 1), "link_status", WORD(link_words, 2), "link_speed",
                             WORD(speed_words, 3), "vlan_mode", WORD(vlan_words, 4), "vlan_ids", vlan_ids);
        }
        if (sqlite3_column_type(statement, 5) != SQLITE_NULL) {
            json_array_append_new(vlan_ids, json_integer(sqlite3_column_int(statement, 5)));
        }
    }
    sqlite3_reset(statement);
    json_decref(vlan_ids);
    return port != NULL ? json_pack("{s:[o]}", "ports", port) : NULL;
}

static json_t *perform(const char *method, json_t *params) {
    if (strcmp(method, "echo.Empty") == 0) {
        return json_integer(0);
    }
    if (strcmp(method, "echo.Say") == 0) {
        return json_incref(params);
    }
    return strcmp(method, "ports.Get") == 0 ? get_port(params) : NULL;
}

static void serve(const struct frame *frame, int publisher) {
    json_t *request = json_loadb(frame->text, frame->length, 0, NULL);
    const char *channel = json_string_value(json_object_get(request, "id"));
    const char *method = json_string_value(json_object_get(request, "method"));
    json_t *transaction_id = json_object_get(request, "transaction_id");
    json_t *result = channel != NULL && method != NULL ? perform(method, json_object_get(request, "params")) : NULL;
    if (result != NULL) {
        json_t *response = json_pack("{s:s, s:s, s:o}", "jsonrpc", "2.0", "id", method, "result", result);
        if (transaction_id != NULL) {
            json_object_set(response, "transaction_id", transaction_id);
        }
        char *text = json_dumps(response, JSON_COMPACT | JSON_ENSURE_ASCII);
        if (text != NULL) {
            bare_publish(publisher, channel, text);
        }
        free(text);
        json_decref(response);
    }
    json_decref(request);
}

int main(int argc, char **argv) {
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: bare_service PUBLISH_ADDRESS ROUTER_ADDRESS [DATABASE]\n");
        return 2;
    }
    if (argc == 4) {
        open_database(argv[3]);
    }
    const int publisher = bare_publisher(argv[1]);
    const int subscriber = bare_subscriber(argv[2]);
    bare_subscribe(subscriber, CHANNEL_FIRST);
    bare_subscribe(subscriber, CHANNEL_DEFAULT);
    for (;;) {
        struct frame frame;
        if (bare_receive(subscriber, 1, &frame) == 0) {
            serve(&frame, publisher);
            bare_release(&frame);
        }
    }
}
