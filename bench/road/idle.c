/*
 * Idle sessions: opens them, has one call answered on each, tells what they cost the router, and holds them until it is
 * asked to stop.
 */
#include "calls.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

/** What the process alone holds of memory, in bytes. */
static long private_memory(int pid) {
    char path[64];
    char line[256];
    long total = 0;
    snprintf(path, sizeof path, "/proc/%d/smaps_rollup", pid);
    FILE *file = fopen(path, "re");
    if (file == NULL) {
        perror(path);
        exit(1);
    }
    while (fgets(line, sizeof line, file) != NULL) {
        if (strncmp(line, "Private_", 8) == 0) {
            const char *colon = strchr(line, ':');
            total += colon != NULL ? strtol(colon + 1, NULL, 10) : 0;
        }
    }
    fclose(file);
    return total * 1024;
}

static bool wait_for(int descriptor, int timeout_ms) {
    struct pollfd state = {.fd = descriptor, .events = POLLIN};
    return poll(&state, 1, timeout_ms) == 1;
}

static bool has_line(int session, int timeout_ms) {
    char text[answer_size];
    size_t length = 0;
    while (length < sizeof text && wait_for(session, timeout_ms)) {
        const ssize_t got = recv(session, text + length, sizeof text - length, MSG_DONTWAIT);
        if (got <= 0) {
            return false;
        }
        length += (size_t)got;
        if (memchr(text, '\n', length) != NULL) {
            return true;
        }
    }
    return false;
}

static int open_session(const struct plan *plan, long number) {
    char text[request_size + 1];
    int session = -2;
    while (session == -2 && going_on()) { // the router's queue is full: it is not done with those before
        session = connect_to(plan);
        if (session == -2) {
            poll(NULL, 0, 1);
        }
    }
    const size_t length = write_request(plan, number, text);
    text[length] = '\n';
    if (session < 0 || send(session, text, length + 1, MSG_NOSIGNAL) < 0 || !has_line(session, plan->timeout_ms)) {
        fprintf(stderr, "load: session %ld was not served\n", number);
        exit(1);
    }
    return session;
}

static void hold(double seconds) {
    const double began = now();
    while (going_on() && (seconds <= 0 || now() - began < seconds)) {
        poll(NULL, 0, 100);
    }
}

int run_idle(const struct plan *plan) {
    int *sessions = must_allocate((size_t)plan->clients, sizeof *sessions);
    const long before = private_memory(plan->pid);
    for (int i = 0; i < plan->clients; ++i) {
        sessions[i] = open_session(plan, plan->first + i);
    }
    const long after = private_memory(plan->pid);
    printf("sessions=%d before_kib=%ld after_kib=%ld each_bytes=%ld\n", plan->clients, before / 1024, after / 1024,
           (after - before) / plan->clients);
    fflush(stdout);
    hold(plan->seconds);
    for (int i = 0; i < plan->clients; ++i) {
        close(sessions[i]);
    }
    free(sessions);
    return 0;
}
