/*
 * One-shot clients: a connection a call, so many at once, on one epoll loop.
 */
#include "calls.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

enum { max_events = 64, again_ms = 1, look_ms = 50 };

struct client {
    int descriptor; /**< -1 between two calls */
    bool sent;
    bool busy; /**< a call is under way, perhaps without a connection yet */
    long number;
    double began;
    size_t length;
    char *answer;
};

struct run {
    const struct plan *plan;
    struct tally tally;
    int epoll;
    struct client *clients;
    int busy_count;
    int unconnected_count;
};

static void end_call(struct run *run, struct client *client, enum outcome outcome) {
    if (client->descriptor >= 0) {
        close(client->descriptor);
        client->descriptor = -1;
    }
    tally_count(&run->tally, outcome, client->began);
    client->busy = false;
    --run->busy_count;
}

static void send_request(struct run *run, struct client *client) {
    char text[request_size];
    const size_t length = write_request(run->plan, client->number, text);
    client->sent = send(client->descriptor, text, length, MSG_NOSIGNAL) == (ssize_t)length;
}

/** Connects and sends; a full queue is tried again with the next turn of the loop. */
static void try_connect(struct run *run, struct client *client) {
    const int descriptor = connect_to(run->plan);
    if (descriptor == -2) {
        ++run->unconnected_count;
        return;
    }
    if (descriptor < 0) {
        end_call(run, client, OUTCOME_REFUSED);
        return;
    }
    client->descriptor = descriptor;
    send_request(run, client);
    struct epoll_event event = {.events = client->sent ? EPOLLIN : EPOLLIN | EPOLLOUT, .data = {.ptr = client}};
    epoll_ctl(run->epoll, EPOLL_CTL_ADD, descriptor, &event);
}

static void begin_call(struct run *run, struct client *client) {
    client->busy = true;
    client->sent = false;
    client->length = 0;
    client->number = run->plan->first + run->tally.begun++;
    client->began = now();
    ++run->busy_count;
    try_connect(run, client);
}

static void read_answer(struct run *run, struct client *client) {
    const ssize_t got =
        recv(client->descriptor, client->answer + client->length, answer_size - client->length, MSG_DONTWAIT);
    if (got > 0) {
        client->length += (size_t)got;
        return;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    end_call(run, client, judge(run->plan, &run->tally, client->answer, client->length, client->number, false));
}

static void on_event(struct run *run, struct client *client, unsigned events) {
    if (!client->sent && (events & EPOLLOUT) != 0) {
        send_request(run, client);
        struct epoll_event event = {.events = EPOLLIN, .data = {.ptr = client}};
        epoll_ctl(run->epoll, EPOLL_CTL_MOD, client->descriptor, &event);
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        read_answer(run, client);
    }
}

static void give_up_overdue(struct run *run, double time) {
    for (int i = 0; i < run->plan->clients; ++i) {
        struct client *client = &run->clients[i];
        if (client->busy && time - client->began > run->plan->timeout_ms / 1e3) {
            end_call(run, client, OUTCOME_OVERDUE);
        }
    }
}

/** Begins what may begin; after a refusal only with the next turn, so that nobody is called in a tight loop. */
static void begin_calls(struct run *run) {
    run->unconnected_count = 0;
    for (int i = 0; i < run->plan->clients; ++i) {
        struct client *client = &run->clients[i];
        if (!client->busy && tally_has_more(&run->tally, run->plan)) {
            begin_call(run, client);
        } else if (client->busy && client->descriptor < 0) {
            try_connect(run, client);
        }
    }
}

static bool is_all_idle(const struct run *run) { return run->busy_count == 0; }

static void loop(struct run *run) {
    struct epoll_event events[max_events];
    double looked = now();
    begin_calls(run);
    while (!is_all_idle(run) || tally_has_more(&run->tally, run->plan)) {
        const bool waits_to_connect = run->unconnected_count > 0 || run->busy_count < run->plan->clients;
        const int count = epoll_wait(run->epoll, events, max_events, waits_to_connect ? again_ms : look_ms);
        for (int i = 0; i < count; ++i) {
            struct client *client = events[i].data.ptr;
            on_event(run, client, events[i].events);
            if (!client->busy && tally_has_more(&run->tally, run->plan)) {
                begin_call(run, client);
            }
        }
        if (waits_to_connect) {
            begin_calls(run);
        }
        const double time = now();
        if (time - looked > look_ms / 1e3) {
            give_up_overdue(run, time);
            looked = time;
        }
    }
}

int run_oneshot(const struct plan *plan) {
    struct run run = {.plan = plan, .epoll = epoll_create1(EPOLL_CLOEXEC)};
    run.clients = must_allocate((size_t)plan->clients, sizeof *run.clients);
    for (int i = 0; i < plan->clients; ++i) {
        run.clients[i].descriptor = -1;
        run.clients[i].answer = must_allocate(1, answer_size);
    }
    tally_begin(&run.tally);
    loop(&run);
    tally_report(&run.tally);
    for (int i = 0; i < plan->clients; ++i) {
        free(run.clients[i].answer);
    }
    free(run.clients);
    close(run.epoll);
    return tally_exit_status(&run.tally);
}
