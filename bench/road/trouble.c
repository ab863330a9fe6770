/*
 * Clients that trouble a router without breaking a rule of the wire. Each kind keeps its connections in place, opens
 * again what is closed, says "ready" when it stands, and goes on until it is asked to stop.
 */
#include "calls.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { tick_ms = 100, read_at_once = 4096, first_requests = 300, requests_a_tick = 5 };

struct connection {
    int descriptor;
    long number;
    size_t sent;
};

/** What a kind does when a connection stands, and with each tick. False closes it. */
struct kind {
    const char *name;
    bool (*begin)(const struct plan *plan, struct connection *connection);
    bool (*tick)(const struct plan *plan, struct connection *connection);
    bool reads; /**< takes what it is sent, and so notices an end */
};

static bool nothing(const struct plan *plan, struct connection *connection) {
    (void)plan;
    (void)connection;
    return true;
}

static bool send_request(const struct plan *plan, struct connection *connection) {
    char text[request_size + 1];
    const size_t length = write_request(plan, connection->number, text);
    text[length] = '\n';
    return send(connection->descriptor, text, length + 1, MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}

/** One byte of a request that has no end. */
static bool send_byte(const struct plan *plan, struct connection *connection) {
    static const char beginning[] = "{\"jsonrpc\":\"2.0\",\"method\":\"echo.Empty\",\"id\":1,\"params\":{\"text\":\"";
    const char *byte = connection->sent < sizeof beginning - 1 ? &beginning[connection->sent] : "x";
    (void)plan;
    ++connection->sent;
    return send(connection->descriptor, byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}

/** As many as the other side takes; their answers fill what lies between it and the one who never reads. */
static bool send_many(const struct plan *plan, struct connection *connection) {
    for (int i = 0; i < first_requests && send_request(plan, connection); ++i) {
    }
    return true;
}

static bool send_some(const struct plan *plan, struct connection *connection) {
    for (int i = 0; i < requests_a_tick && send_request(plan, connection); ++i) {
    }
    return true;
}

static bool send_and_close(const struct plan *plan, struct connection *connection) {
    send_request(plan, connection);
    return false;
}

static const struct kind kinds[] = {
    {"silent", nothing, nothing, true},         // connects and says nothing
    {"slow", nothing, send_byte, true},         // a byte a tick
    {"unread", send_many, send_some, false},    // asks and never reads
    {"pending", send_request, nothing, true},   // asks and waits, and asks again
    {"abandoned", send_and_close, NULL, false}, // asks and goes, once
};

static const struct kind *find_kind(const char *name) {
    for (size_t i = 0; i < sizeof kinds / sizeof *kinds; ++i) {
        if (strcmp(kinds[i].name, name) == 0) {
            return &kinds[i];
        }
    }
    return NULL;
}

static void end(struct connection *connection) {
    close(connection->descriptor);
    connection->descriptor = -1;
}

static void open_again(const struct plan *plan, const struct kind *kind, struct connection *connection) {
    connection->descriptor = connect_to(plan);
    connection->sent = 0;
    if (connection->descriptor < 0) {
        connection->descriptor = -1;
    } else if (!kind->begin(plan, connection)) {
        end(connection);
    }
}

/** Takes what came; a connection whose other side is done, or that has its answer, is closed. */
static void look_at(const struct kind *kind, struct connection *connection, short events) {
    char text[read_at_once];
    if (events == 0 || connection->descriptor < 0) {
        return;
    }
    if ((events & (POLLHUP | POLLERR)) != 0 ||
        (kind->reads && recv(connection->descriptor, text, sizeof text, MSG_DONTWAIT) >= 0)) {
        end(connection);
    }
}

static void turn(const struct plan *plan, const struct kind *kind, struct connection *connections,
                 struct pollfd *states) {
    for (int i = 0; i < plan->clients; ++i) {
        if (connections[i].descriptor < 0) {
            open_again(plan, kind, &connections[i]);
        }
        states[i] = (struct pollfd){.fd = connections[i].descriptor, .events = kind->reads ? POLLIN : 0};
    }
    const double began = now();
    poll(states, (nfds_t)plan->clients, tick_ms);
    for (int i = 0; i < plan->clients; ++i) {
        look_at(kind, &connections[i], states[i].revents);
        if (connections[i].descriptor >= 0 && !kind->tick(plan, &connections[i])) {
            end(&connections[i]);
        }
    }
    const double left_ms = tick_ms - (now() - began) * 1e3;
    if (left_ms >= 1) {
        poll(NULL, 0, (int)left_ms); // those that are refused at once must not come back in a tight loop
    }
}

static void say_ready(void) {
    printf("ready\n");
    fflush(stdout);
}

int run_trouble(const struct plan *plan, const char *name) {
    const struct kind *kind = find_kind(name);
    if (kind == NULL) {
        return 2;
    }
    struct connection *connections = must_allocate((size_t)plan->clients, sizeof *connections);
    struct pollfd *states = must_allocate((size_t)plan->clients, sizeof *states);
    for (int i = 0; i < plan->clients; ++i) {
        connections[i].number = plan->first + i;
        open_again(plan, kind, &connections[i]);
    }
    say_ready();
    const double began = now();
    while (going_on() && (plan->seconds <= 0 || now() - began < plan->seconds)) {
        if (kind->tick != NULL) {
            turn(plan, kind, connections, states);
        } else {
            poll(NULL, 0, tick_ms);
        }
    }
    free(connections);
    free(states);
    return 0;
}
