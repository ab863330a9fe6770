/*
 * The direct road by hand, for comparison: a session's requests, a line each, go over a socket to the service and their
 * replies back. As the bare road on the bus, it has what the work cannot do without, and nothing that makes a router.
 * The service is a process of its own, as everywhere.
 *
 *     bare_direct SOCKET
 */
#include "bare_socket.h"

#include <jansson.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

/** The next line as JSON; null at the end, and for what is none. One call is under way at a time: a read is a line. */
static json_t *receive_line(int socket) {
    char line[max_request];
    const ssize_t length = recv(socket, line, sizeof line, 0);
    return length > 0 ? json_loadb(line, (size_t)length, 0, NULL) : NULL;
}

/** Takes `message`. */
static void send_line(int socket, json_t *message) {
    char line[max_request];
    const size_t length = json_dumpb(message, line, sizeof line - 1, JSON_COMPACT);
    if (length > 0 && length < sizeof line) {
        line[length] = '\n';
        send_all(socket, line, length + 1);
    }
    json_decref(message);
}

static int serve(int router) {
    json_t *request;
    while ((request = receive_line(router)) != NULL) {
        send_line(router,
                  json_pack("{s:s, s:O, s:i}", "jsonrpc", "2.0", "id", json_object_get(request, "id"), "result", 0));
        json_decref(request);
    }
    return 0;
}

/** Every request under an id of the router's own, and the client's put back. */
static void relay(int client, int service) {
    json_t *request;
    for (json_int_t number = 1; (request = receive_line(client)) != NULL; ++number) {
        json_t *id = json_incref(json_object_get(request, "id"));
        json_object_set_new(request, "id", json_integer(number));
        send_line(service, request);
        json_t *reply = receive_line(service);
        json_object_set_new(reply, "id", id);
        send_line(client, reply);
    }
}

int main(int argc, char **argv) {
    int pair[2];
    if (argc != 2) {
        fprintf(stderr, "usage: bare_direct SOCKET\n");
        return 2;
    }
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0) {
        perror("socketpair");
        return 1;
    }
    if (fork() == 0) {
        close(pair[0]);
        return serve(pair[1]);
    }
    close(pair[1]);
    const int listener = listen_on(argv[1]);
    for (;;) {
        const int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (client >= 0) {
            relay(client, pair[0]);
            close(client);
        }
    }
}
