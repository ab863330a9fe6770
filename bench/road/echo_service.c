/*
 * The smallest service on the library alone: NAME.Empty answers 0, NAME.Say answers its own parameters.
 *
 *     echo_service bus PUBLISH_ADDRESS ROUTER_ADDRESS [NAME]
 *     echo_service direct SESSION_SOCKET [NAME]
 *
 * On the bus it registers nowhere: the router has to --connect to it. Direct, it registers over a session under its
 * name, takes its requests there, and comes back when the router does.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <tavrix.h>

enum { max_line = 65536, again_ms = 10, name_size = 48, register_id = 1 };

static char names[2][name_size + 8];
static tavrix_jrpc_method methods[3];

static int empty(json_t *params, json_t **result, json_t **error_data) {
    (void)params;
    (void)result;
    (void)error_data;
    return TAVRIX_OK;
}

static int say(json_t *params, json_t **result, json_t **error_data) {
    (void)error_data;
    *result = json_incref(params);
    return TAVRIX_OK;
}

static void fill_table(const char *name) {
    static const tavrix_jrpc_handler handlers[2] = {empty, say};
    static const char *const verbs[2] = {"Empty", "Say"};
    for (size_t i = 0; i < 2; ++i) {
        snprintf(names[i], sizeof names[i], "%s.%s", name, verbs[i]);
        methods[i].name = names[i];
        methods[i].handler = handlers[i];
    }
}

// --- On the bus ---

static int transport_of(const char *address) {
    return strncmp(address, "ipc:", 4) == 0 ? TAVRIX_TRANSPORT_IPC : TAVRIX_TRANSPORT_TCP;
}

/** The endpoint functions' way, over ipc too. */
static int serve_bus(const char *publish, const char *router) {
    char *channel = tavrix_api_router_json_parse_channel(methods[0].name);
    int publisher = -1;
    int subscriber = -1;
    int endpoint = -1;
    if (channel == NULL || tavrix_mq_socket_init(TAVRIX_SP_PUB, &publisher) != TAVRIX_OK ||
        tavrix_mq_socket_bind(publisher, transport_of(publish), publish, &endpoint) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_init(&subscriber, 1) != TAVRIX_OK ||
        tavrix_mq_socket_connect(subscriber, transport_of(router), router, &endpoint) != TAVRIX_OK ||
        tavrix_mq_socket_subscribe(subscriber, channel) != TAVRIX_OK) {
        fprintf(stderr, "echo_service: cannot use the bus\n");
        free(channel);
        return 1;
    }
    for (;;) {
        tavrix_jrpc_mq_run(&subscriber, &publisher, methods, 0);
    }
}

// --- Direct ---

static int connect_session(const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int session = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    if (session >= 0 && connect(session, (const struct sockaddr *)&address, sizeof address) == 0) {
        return session;
    }
    if (session >= 0) {
        close(session);
    }
    return -1;
}

static int write_all(int session, const char *text, size_t length) {
    while (length > 0) {
        const ssize_t sent = send(session, text, length, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return -1;
        }
        if (sent > 0) {
            text += sent;
            length -= (size_t)sent;
        }
    }
    return 0;
}

static int register_service(int session, const char *name) {
    char *channel = tavrix_api_router_json_parse_channel(methods[0].name);
    json_t *request = json_pack("{s:s, s:s, s:i, s:{s:s, s:s, s:[], s:[s, s], s:b}}", "jsonrpc", "2.0", "method",
                                "router.Register", "id", (int)register_id, "params", "name", name, "channel", channel,
                                "publish", "methods", methods[0].name, methods[1].name, "direct", 1);
    char *text = json_dumps(request, JSON_COMPACT | JSON_ENSURE_ASCII);
    const int rc = text != NULL && write_all(session, text, strlen(text)) == 0 ? write_all(session, "\n", 1) : -1;
    free(text);
    json_decref(request);
    free(channel);
    return rc;
}

/** The replies to all lines that have come together go out together. */
struct replies {
    char *text;
    size_t length;
    size_t size;
};

static void append(struct replies *replies, const char *text, size_t length) {
    if (replies->length + length > replies->size) {
        const size_t size = (replies->length + length) * 2;
        char *grown = realloc(replies->text, size);
        if (grown == NULL) {
            abort();
        }
        replies->text = grown;
        replies->size = size;
    }
    memcpy(replies->text + replies->length, text, length);
    replies->length += length;
}

static void answer_line(const char *line, struct replies *replies) {
    char *response = NULL;
    tavrix_jrpc_eval_request(line, methods, &response);
    if (response != NULL) {
        append(replies, response, strlen(response));
        append(replies, "\n", 1);
    }
    free(response);
}

/** True for the refusal of the registration: the one error that the router writes to a service. */
static int is_refusal(const char *line) {
    return strstr(line, "\"error\"") != NULL && strstr(line, "\"method\"") == NULL;
}

/** Answers the whole lines, moves the rest to the front and tells its length; -1 when the service is refused. */
static long answer_lines(char *buffer, size_t length, struct replies *replies) {
    char *line = buffer;
    char *end = NULL;
    while ((end = memchr(line, '\n', length - (size_t)(line - buffer))) != NULL) {
        *end = '\0';
        if (is_refusal(line)) {
            fprintf(stderr, "echo_service: refused: %s\n", line);
            return -1;
        }
        if (strstr(line, "\"method\"") != NULL) {
            answer_line(line, replies);
        }
        line = end + 1;
    }
    const size_t rest = length - (size_t)(line - buffer);
    memmove(buffer, line, rest);
    return (long)rest;
}

static void serve_session(int session) {
    static char buffer[max_line + 1];
    struct replies replies = {NULL, 0, 0};
    size_t length = 0;
    for (;;) {
        const ssize_t got = recv(session, buffer + length, max_line - length, 0);
        if (got <= 0) {
            break;
        }
        const long rest = answer_lines(buffer, length + (size_t)got, &replies);
        if (rest < 0 || rest == max_line || write_all(session, replies.text, replies.length) != 0) {
            break;
        }
        length = (size_t)rest;
        replies.length = 0;
    }
    free(replies.text);
}

_Noreturn static void serve_direct(const char *path, const char *name) {
    for (;;) {
        const int session = connect_session(path);
        if (session >= 0) {
            if (register_service(session, name) == 0) {
                serve_session(session);
            }
            close(session);
        }
        poll(NULL, 0, again_ms); // the router is gone, or holds the name of a killed predecessor still
    }
}

int main(int argc, char **argv) {
    const int is_bus = argc >= 4 && strcmp(argv[1], "bus") == 0;
    const int is_direct = argc >= 3 && strcmp(argv[1], "direct") == 0;
    const char *name = is_bus && argc == 5 ? argv[4] : is_direct && argc == 4 ? argv[3] : "echo";
    if ((!is_bus && !is_direct) || strlen(name) > name_size) {
        fprintf(stderr, "usage: echo_service bus PUBLISH_ADDRESS ROUTER_ADDRESS [NAME]\n"
                        "       echo_service direct SESSION_SOCKET [NAME]\n");
        return 2;
    }
    tavrix_lsyslog_init("echo");
    fill_table(name);
    if (is_bus) {
        return serve_bus(argv[2], argv[3]);
    }
    serve_direct(argv[2], name);
}
