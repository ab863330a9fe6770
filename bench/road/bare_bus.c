#include "bare_bus.h"

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void give_up(const char *what) {
    fprintf(stderr, "%s: %s\n", what, nn_strerror(nn_errno()));
    exit(1);
}

int bare_publisher(const char *address) {
    const int publisher = nn_socket(AF_SP, NN_PUB);
    if (publisher < 0 || nn_bind(publisher, address) < 0) {
        give_up(address);
    }
    return publisher;
}

int bare_subscriber(const char *address) {
    const int subscriber = nn_socket(AF_SP, NN_SUB);
    if (subscriber < 0 || nn_connect(subscriber, address) < 0) {
        give_up(address);
    }
    return subscriber;
}

void bare_subscribe(int subscriber, const char *channel) {
    if (nn_setsockopt(subscriber, NN_SUB, NN_SUB_SUBSCRIBE, channel, strlen(channel)) < 0) {
        give_up(channel);
    }
}

int bare_receive_descriptor(int subscriber) {
    int descriptor = -1;
    size_t size = sizeof descriptor;
    if (nn_getsockopt(subscriber, NN_SOL_SOCKET, NN_RCVFD, &descriptor, &size) < 0) {
        give_up("NN_RCVFD");
    }
    return descriptor;
}

int bare_publish(int publisher, const char *channel, const char *text) {
    const size_t channel_length = strlen(channel);
    const size_t text_length = strlen(text);
    char *message = nn_allocmsg(channel_length + 1 + text_length, 0);
    if (message == NULL) {
        return -1;
    }
    memcpy(message, channel, channel_length);
    message[channel_length] = '|';
    memcpy(message + channel_length + 1, text, text_length);
    if (nn_send(publisher, &message, NN_MSG, 0) < 0) {
        nn_freemsg(message);
        return -1;
    }
    return 0;
}

int bare_receive(int subscriber, int wait, struct frame *out) {
    const int size = nn_recv(subscriber, &out->message, NN_MSG, wait ? 0 : NN_DONTWAIT);
    if (size < 0) {
        return -1;
    }
    const char *bar = memchr(out->message, '|', (size_t)size);
    if (bar == NULL) {
        nn_freemsg(out->message);
        return -1;
    }
    out->text = bar + 1;
    out->length = (size_t)size - (size_t)(out->text - (const char *)out->message);
    return 0;
}

void bare_release(struct frame *frame) { nn_freemsg(frame->message); }

static int begins(const char *text, const char *prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

const char *bare_channel_of(const char *method) {
    if (begins(method, "d") || begins(method, "p") || begins(method, "en") || begins(method, "mz")) {
        return CHANNEL_FIRST;
    }
    if (begins(method, "ev")) {
        return CHANNEL_EVENTS;
    }
    return begins(method, "i") ? CHANNEL_INTERFACES : CHANNEL_DEFAULT;
}
