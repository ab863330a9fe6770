/*
 * The router's road by hand, for comparison: one request at a time from a unix socket to the bus, and its reply back.
 * It does what the road cannot do without, and nothing that makes a router: no checks, no table, no one else served.
 * A request with a newline begins a session: its connection is kept, and its answers carry its own ids.
 * `checked` adds what a router that serves several at once cannot do without either: who asks is looked up, and a reply
 * is read to find the call that it belongs to.
 *
 *     bare_router SOCKET PUBLISH_ADDRESS SERVICE_ADDRESS [checked]
 */
#include "bare_bus.h"
#include "bare_socket.h"

#include <jansson.h>
#include <poll.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { reply_timeout_ms = 200 };

static bool is_checked = false;
static json_int_t last_number = 0;

/** The request as it goes to the bus, its channel and its own id; null when it is none. */
static char *readdress(const char *text, size_t length, const char **channel, json_t **id) {
    json_t *request = json_loadb(text, length, 0, NULL);
    const char *method = json_string_value(json_object_get(request, "method"));
    char *addressed = NULL;
    *id = json_incref(json_object_get(request, "id"));
    if (is_checked) {
        json_object_set_new(request, "transaction_id", json_integer(++last_number));
    }
    if (method != NULL && json_object_set_new(request, "id", json_string(CHANNEL_REPLIES)) == 0) {
        *channel = bare_channel_of(method);
        addressed = json_dumps(request, JSON_COMPACT);
    }
    json_decref(request);
    return addressed;
}

/** A reply that came too late for its client would be the next one's: whatever waits is thrown away first. */
static void drop_left_overs(int subscriber) {
    struct frame frame;
    while (bare_receive(subscriber, 0, &frame) == 0) {
        bare_release(&frame);
    }
}

static void send_line(int client, const struct frame *frame, json_t *id) {
    char line[max_request];
    json_t *reply = json_loadb(frame->text, frame->length, 0, NULL);
    json_object_set(reply, "id", id);
    const size_t length = json_dumpb(reply, line, sizeof line - 1, JSON_COMPACT);
    if (length > 0 && length < sizeof line) {
        line[length] = '\n';
        send_all(client, line, length + 1);
    }
    json_decref(reply);
}

/** The reply to the last request, without the number that it was known by; anything else is passed over. */
static void send_checked(int client, const struct frame *frame) {
    json_t *reply = json_loadb(frame->text, frame->length, 0, NULL);
    if (json_integer_value(json_object_get(reply, "transaction_id")) == last_number) {
        char text[max_request];
        json_object_del(reply, "transaction_id");
        const size_t length = json_dumpb(reply, text, sizeof text, JSON_COMPACT);
        if (length > 0 && length <= sizeof text) {
            send_all(client, text, length);
        }
    }
    json_decref(reply);
}

static void look_up_client(int client) {
    struct ucred who;
    socklen_t size = sizeof who;
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) {
        perror("bare_router: SO_PEERCRED");
    }
}

/** Whether the client's next request may come over the same connection. */
static bool carry(int client, int publisher, int subscriber, struct pollfd *reply) {
    char request[max_request];
    const char *channel = NULL;
    json_t *id = NULL;
    const ssize_t length = recv(client, request, sizeof request, 0);
    const bool stays = length > 0 && request[length - 1] == '\n';
    char *addressed = length > 0 ? readdress(request, (size_t)length, &channel, &id) : NULL;
    struct frame frame;
    if (addressed != NULL && bare_publish(publisher, channel, addressed) == 0 &&
        poll(reply, 1, reply_timeout_ms) == 1 && bare_receive(subscriber, 0, &frame) == 0) {
        if (stays) {
            send_line(client, &frame, id);
        } else if (is_checked) {
            send_checked(client, &frame);
        } else {
            send_all(client, frame.text, frame.length);
        }
        bare_release(&frame);
    }
    free(addressed);
    json_decref(id);
    return stays;
}

int main(int argc, char **argv) {
    is_checked = argc == 5 && strcmp(argv[4], "checked") == 0;
    if (argc != 4 && !is_checked) {
        fprintf(stderr, "usage: bare_router SOCKET PUBLISH_ADDRESS SERVICE_ADDRESS [checked]\n");
        return 2;
    }
    const int publisher = bare_publisher(argv[2]);
    const int subscriber = bare_subscriber(argv[3]);
    bare_subscribe(subscriber, CHANNEL_REPLIES);
    struct pollfd reply = {.fd = bare_receive_descriptor(subscriber), .events = POLLIN};
    const int listener = listen_on(argv[1]);
    struct pollfd ready[2] = {{.fd = listener, .events = POLLIN}, reply};
    for (;;) {
        if (poll(ready, 2, -1) < 0) {
            return 1;
        }
        if (ready[1].revents != 0) {
            drop_left_overs(subscriber);
        }
        if (ready[0].revents != 0) {
            const int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
            if (client >= 0) {
                if (is_checked) {
                    look_up_client(client);
                }
                while (carry(client, publisher, subscriber, &reply)) {
                }
                close(client);
            }
        }
    }
}
