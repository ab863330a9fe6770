/*
 * Clients that stay: so many sessions, each with so many requests in flight. One that is closed is opened again.
 */
#include "calls.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

enum { max_events = 64, again_ms = 5, look_ms = 50 };

struct call {
    bool busy;
    long generation;
    double began;
};

struct session {
    int index;
    int descriptor; /**< -1 while nobody listens */
    bool wants_out;
    struct call *calls;
    size_t in_length;
    size_t out_length;
    char *in;
    char *out; /**< room for every call's request */
};

struct run {
    const struct plan *plan;
    struct tally tally;
    int epoll;
    int busy_count;
    int open_count;
    struct session *sessions;
};

// --- Numbers: a call's place among all, and how often the place was used ---

static long places(const struct plan *plan) { return (long)plan->clients * plan->in_flight; }

static long number_of(const struct plan *plan, const struct session *session, int place) {
    return plan->first + session->calls[place].generation * places(plan) + (long)session->index * plan->in_flight +
           place;
}

/** The place of a number that this session has under way; -1 for any other. */
static int place_of(const struct plan *plan, const struct session *session, long number) {
    const long rest = (number - plan->first) % places(plan) - (long)session->index * plan->in_flight;
    if (number < plan->first || rest < 0 || rest >= plan->in_flight) {
        return -1;
    }
    const int place = (int)rest;
    return session->calls[place].busy && number_of(plan, session, place) == number ? place : -1;
}

// --- Calls ---

static void begin_calls(struct run *run, struct session *session) {
    for (int place = 0; place < run->plan->in_flight; ++place) {
        struct call *call = &session->calls[place];
        if (call->busy || !tally_has_more(&run->tally, run->plan)) {
            continue;
        }
        ++call->generation;
        ++run->tally.begun;
        ++run->busy_count;
        call->busy = true;
        call->began = now();
        session->out_length +=
            write_request(run->plan, number_of(run->plan, session, place), session->out + session->out_length);
        session->out[session->out_length++] = '\n';
    }
}

static void end_call(struct run *run, struct session *session, int place, enum outcome outcome) {
    tally_count(&run->tally, outcome, session->calls[place].began);
    session->calls[place].busy = false;
    --run->busy_count;
}

static void close_session(struct run *run, struct session *session) {
    close(session->descriptor);
    session->descriptor = -1;
    session->in_length = 0;
    session->out_length = 0;
    --run->open_count;
    for (int place = 0; place < run->plan->in_flight; ++place) {
        if (session->calls[place].busy) {
            end_call(run, session, place, OUTCOME_CLOSED);
        }
    }
}

static void watch(struct run *run, struct session *session, int operation) {
    struct epoll_event event = {.events = session->wants_out ? EPOLLIN | EPOLLOUT : EPOLLIN, .data = {.ptr = session}};
    epoll_ctl(run->epoll, operation, session->descriptor, &event);
}

static void write_out(struct run *run, struct session *session) {
    ssize_t sent = 0;
    if (session->out_length > 0) {
        sent = send(session->descriptor, session->out, session->out_length, MSG_NOSIGNAL);
    }
    if (sent < 0 && errno != EAGAIN) {
        close_session(run, session);
        return;
    }
    if (sent > 0) {
        session->out_length -= (size_t)sent;
        memmove(session->out, session->out + sent, session->out_length);
    }
    const bool wants_out = session->out_length > 0;
    if (wants_out != session->wants_out) {
        session->wants_out = wants_out;
        watch(run, session, EPOLL_CTL_MOD);
    }
}

// --- Answers ---

/** The line's own "id"; "transaction_id" ends otherwise. -1 without one. */
static long id_of(const char *line, size_t length) {
    const char *id = memmem(line, length, "\"id\":", 5);
    return id != NULL ? strtol(id + 5, NULL, 10) : -1;
}

static void take_line(struct run *run, struct session *session, const char *line, size_t length) {
    const long number = id_of(line, length);
    const int place = place_of(run->plan, session, number);
    if (place < 0) {
        fprintf(stderr, "load: nobody asked for %.*s\n", (int)(length < 300 ? length : 300), line);
        ++run->tally.outcomes[OUTCOME_MISMATCHED];
        return;
    }
    end_call(run, session, place, judge(run->plan, &run->tally, line, length, number, true));
}

static void take_lines(struct run *run, struct session *session) {
    char *line = session->in;
    char *const stop = session->in + session->in_length;
    char *end = NULL;
    while ((end = memchr(line, '\n', (size_t)(stop - line))) != NULL) {
        *end = '\0';
        take_line(run, session, line, (size_t)(end - line));
        line = end + 1;
    }
    session->in_length = (size_t)(stop - line);
    memmove(session->in, line, session->in_length);
}

static void read_in(struct run *run, struct session *session) {
    const ssize_t got =
        recv(session->descriptor, session->in + session->in_length, answer_size - session->in_length, 0);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        close_session(run, session);
        return;
    }
    if (got > 0) {
        session->in_length += (size_t)got;
        take_lines(run, session);
        begin_calls(run, session);
        write_out(run, session);
    }
}

// --- The loop ---

static void open_session(struct run *run, struct session *session) {
    session->descriptor = connect_to(run->plan);
    if (session->descriptor < 0) {
        session->descriptor = -1;
        return;
    }
    ++run->open_count;
    session->wants_out = false;
    watch(run, session, EPOLL_CTL_ADD);
    begin_calls(run, session);
    write_out(run, session);
}

static void open_missing(struct run *run) {
    for (int i = 0; i < run->plan->clients && tally_has_more(&run->tally, run->plan); ++i) {
        if (run->sessions[i].descriptor < 0) {
            open_session(run, &run->sessions[i]);
        }
    }
}

/** A session that owes an answer that long is closed: the rest of what it had under way is lost with it. */
static void give_up_overdue(struct run *run) {
    const double limit = now() - run->plan->timeout_ms / 1e3;
    for (int i = 0; i < run->plan->clients; ++i) {
        struct session *session = &run->sessions[i];
        bool overdue = false;
        for (int place = 0; place < run->plan->in_flight; ++place) {
            if (session->calls[place].busy && session->calls[place].began < limit) {
                end_call(run, session, place, OUTCOME_OVERDUE);
                overdue = true;
            }
        }
        if (overdue) {
            close_session(run, session);
        }
    }
}

static void loop(struct run *run) {
    struct epoll_event events[max_events];
    double looked = now();
    open_missing(run);
    while (run->busy_count > 0 || tally_has_more(&run->tally, run->plan)) {
        const bool lacks = run->open_count < run->plan->clients;
        const int count = epoll_wait(run->epoll, events, max_events, lacks ? again_ms : look_ms);
        for (int i = 0; i < count; ++i) {
            struct session *session = events[i].data.ptr;
            if ((events[i].events & EPOLLOUT) != 0) {
                write_out(run, session);
            }
            if (session->descriptor >= 0 && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
                read_in(run, session);
            }
        }
        if (lacks) {
            open_missing(run);
        }
        if (now() - looked > look_ms / 1e3) {
            give_up_overdue(run);
            looked = now();
        }
    }
}

static void prepare(struct session *session, const struct plan *plan, int index) {
    session->index = index;
    session->descriptor = -1;
    session->calls = must_allocate((size_t)plan->in_flight, sizeof *session->calls);
    session->in = must_allocate(1, answer_size);
    session->out = must_allocate((size_t)plan->in_flight, request_size + 1);
}

static void release(struct session *session) {
    if (session->descriptor >= 0) {
        close(session->descriptor);
    }
    free(session->calls);
    free(session->in);
    free(session->out);
}

int run_sessions(const struct plan *plan) {
    struct run run = {.plan = plan, .epoll = epoll_create1(EPOLL_CLOEXEC)};
    run.sessions = must_allocate((size_t)plan->clients, sizeof *run.sessions);
    for (int i = 0; i < plan->clients; ++i) {
        prepare(&run.sessions[i], plan, i);
    }
    tally_begin(&run.tally);
    loop(&run);
    tally_report(&run.tally);
    for (int i = 0; i < plan->clients; ++i) {
        release(&run.sessions[i]);
    }
    free(run.sessions);
    close(run.epoll);
    return tally_exit_status(&run.tally);
}
