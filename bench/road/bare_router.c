/*
 * The router's road by hand, for comparison: one request at a time from a unix socket to the bus, and its reply back.
 * It does what the road cannot do without, and nothing that makes a router: no checks, no table, no one else served.
 *
 *     bare_router SOCKET PUBLISH_ADDRESS SERVICE_ADDRESS
 */
#include "bare_bus.h"

#include <jansson.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { max_request = 8192, reply_timeout_ms = 200 };

static int listen_on(const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (strlen(path) >= sizeof address.sun_path) {
        fprintf(stderr, "%s: too long\n", path);
        exit(1);
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
    unlink(path);
    if (listener < 0 || bind(listener, (const struct sockaddr *)&address, sizeof address) < 0 ||
        listen(listener, 128) < 0) {
        perror(path);
        exit(1);
    }
    return listener;
}

/** The request as it goes to the bus, and its channel; null when it is none. */
static char *readdress(const char *text, size_t length, const char **channel) {
    json_t *request = json_loadb(text, length, 0, NULL);
    const char *method = json_string_value(json_object_get(request, "method"));
    char *addressed = NULL;
    if (method != NULL && json_object_set_new(request, "id", json_string(CHANNEL_REPLIES)) == 0) {
        *channel = bare_channel_of(method);
        addressed = json_dumps(request, JSON_COMPACT);
    }
    json_decref(request);
    return addressed;
}

static void send_all(int client, const char *text, size_t length) {
    while (length > 0) {
        const ssize_t sent = send(client, text, length, MSG_NOSIGNAL);
        if (sent < 0) {
            return;
        }
        text += sent;
        length -= (size_t)sent;
    }
}

/** A reply that came too late for its client would be the next one's: whatever waits is thrown away first. */
static void drop_left_overs(int subscriber) {
    struct frame frame;
    while (bare_receive(subscriber, 0, &frame) == 0) {
        bare_release(&frame);
    }
}

static void carry(int client, int publisher, int subscriber, struct pollfd *reply) {
    char request[max_request];
    const char *channel = NULL;
    const ssize_t length = recv(client, request, sizeof request, 0);
    char *addressed = length > 0 ? readdress(request, (size_t)length, &channel) : NULL;
    struct frame frame;
    if (addressed == NULL) {
        return;
    }
    if (bare_publish(publisher, channel, addressed) == 0 && poll(reply, 1, reply_timeout_ms) == 1 &&
        bare_receive(subscriber, 0, &frame) == 0) {
        send_all(client, frame.text, frame.length);
        bare_release(&frame);
    }
    free(addressed);
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: bare_router SOCKET PUBLISH_ADDRESS SERVICE_ADDRESS\n");
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
                carry(client, publisher, subscriber, &reply);
                close(client);
            }
        }
    }
}
