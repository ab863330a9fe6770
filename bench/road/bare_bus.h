/*
 * The bus as a program by hand uses it: nanomsg's publish/subscribe, frames of a channel, one bar and a JSON text.
 * It has nothing of the library, for it is what the library's road is measured against.
 */
#ifndef BARE_BUS_H
#define BARE_BUS_H

#include <stddef.h>

#define CHANNEL_FIRST "3a6f8f51-502f-4238-9638-29764ff1a8a4"
#define CHANNEL_EVENTS "505a5451-3ef2-4618-8087-9a22b800a510"
#define CHANNEL_INTERFACES "b4469f46-e963-42ef-9fd2-f978e73adc76"
#define CHANNEL_DEFAULT "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"
#define CHANNEL_REPLIES "2524546b-ca99-4868-a062-359cefacff7c"

/** A message that nanomsg owns, and the JSON text in it. */
struct frame {
    void *message;
    const char *text;
    size_t length;
};

/** A bound publisher; ends the process when there is none. */
int bare_publisher(const char *address);

/** A connected subscriber without a channel; ends the process when there is none. */
int bare_subscriber(const char *address);

void bare_subscribe(int subscriber, const char *channel);

/** The descriptor to poll: readable while a frame waits. */
int bare_receive_descriptor(int subscriber);

/** 0, or -1 when the bus did not take it. */
int bare_publish(int publisher, const char *channel, const char *text);

/** 0, or -1 when nothing waits (with `wait` 0) or the wait was interrupted. */
int bare_receive(int subscriber, int wait, struct frame *out);

void bare_release(struct frame *frame);

/** The service channel of a method, by its first letters. */
const char *bare_channel_of(const char *method);

#endif
