#include "calls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <jansson.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

static volatile sig_atomic_t stopped;

// --- Figures ---

double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

void tally_begin(struct tally *tally) {
    memset(tally, 0, sizeof *tally);
    tally->began = now();
}

static void keep_latency(struct tally *tally, double seconds) {
    if (tally->latency_count == tally->latency_size) {
        const size_t size = tally->latency_size == 0 ? 65536 : tally->latency_size * 2;
        float *grown = realloc(tally->latencies_us, size * sizeof *grown);
        if (grown == NULL) {
            return; // the percentiles are those of the calls until here
        }
        tally->latencies_us = grown;
        tally->latency_size = size;
    }
    tally->latencies_us[tally->latency_count++] = (float)(seconds * 1e6);
}

void tally_count(struct tally *tally, enum outcome outcome, double began) {
    ++tally->outcomes[outcome];
    if (outcome == OUTCOME_RESULT || outcome == OUTCOME_ERROR || outcome == OUTCOME_OVERDUE) {
        tally->ended = now();
        keep_latency(tally, tally->ended - began);
    }
}

bool tally_has_more(const struct tally *tally, const struct plan *plan) {
    return going_on() && tally->begun < plan->calls && (plan->seconds <= 0 || now() - tally->began < plan->seconds) &&
           !(plan->stop_on_result && tally->outcomes[OUTCOME_RESULT] > 0);
}

static int compare_floats(const void *left, const void *right) {
    const float a = *(const float *)left;
    const float b = *(const float *)right;
    return (a > b) - (a < b);
}

static double percentile(const struct tally *tally, double part) {
    if (tally->latency_count == 0) {
        return 0;
    }
    const double position = part * (double)(tally->latency_count - 1);
    return (double)tally->latencies_us[(size_t)(position + 0.5)];
}

void tally_report(struct tally *tally) {
    const long *outcomes = tally->outcomes;
    const long answered = outcomes[OUTCOME_RESULT] + outcomes[OUTCOME_ERROR];
    const double seconds = (answered > 0 ? tally->ended : now()) - tally->began;
    qsort(tally->latencies_us, tally->latency_count, sizeof *tally->latencies_us, compare_floats);
    const double median = percentile(tally, 0.5);
    printf("calls=%ld results=%ld errors=%ld mismatched=%ld closed=%ld overdue=%ld refused=%ld lost=%ld code=%d"
           " seconds=%.4f rate=%.1f typical=%.1f p50_us=%.1f p90_us=%.1f p99_us=%.1f max_us=%.1f\n",
           tally->begun, outcomes[OUTCOME_RESULT], outcomes[OUTCOME_ERROR], outcomes[OUTCOME_MISMATCHED],
           outcomes[OUTCOME_CLOSED], outcomes[OUTCOME_OVERDUE], outcomes[OUTCOME_REFUSED],
           tally->begun - answered - outcomes[OUTCOME_MISMATCHED], tally->last_code, seconds,
           (double)answered / seconds, median > 0 ? 1e6 / median : 0, median, percentile(tally, 0.9),
           percentile(tally, 0.99), percentile(tally, 1));
    fflush(stdout);
    free(tally->latencies_us);
    tally->latencies_us = NULL;
}

int tally_exit_status(const struct tally *tally) {
    return tally->outcomes[OUTCOME_RESULT] + tally->outcomes[OUTCOME_ERROR] == tally->begun ? 0 : 1;
}

// --- Requests and answers ---

size_t write_request(const struct plan *plan, long number, char *text) {
    int length = 0;
    if (plan->params != NULL) {
        length = snprintf(text, request_size,
                          "{\"jsonrpc\":\"2.0\",\"method\":\"%s\",\"id\":%ld,\"transaction_id\":%ld,\"params\":%s}",
                          plan->method, number, number, plan->params);
    } else {
        length =
            snprintf(text, request_size,
                     "{\"jsonrpc\":\"2.0\",\"method\":\"%s\",\"id\":%ld,\"transaction_id\":%ld,\"params\":{\"n\":%ld}}",
                     plan->method, number, number, number);
    }
    if (length >= request_size) {
        fprintf(stderr, "load: method and params are too long\n");
        exit(2);
    }
    return (size_t)length;
}

static bool is_number(const json_t *value, long number) {
    return json_is_integer(value) && json_integer_value(value) == number;
}

/** A service's answer has the method as its "id" on one-shot listeners, the router's own the client's. */
static bool has_own_id(const struct plan *plan, const json_t *answer, long number, bool over_session) {
    const json_t *id = json_object_get(answer, "id");
    const char *text = json_string_value(id);
    return is_number(id, number) || (!over_session && text != NULL && strcmp(text, plan->method) == 0);
}

/** echo.Say gives back the parameters: nothing but one's own number will do. */
static bool has_own_result(const struct plan *plan, const json_t *result, long number) {
    const char *verb = strchr(plan->method, '.');
    if (plan->params != NULL || verb == NULL || strcmp(verb, ".Say") != 0) {
        return true;
    }
    return is_number(json_object_get(result, "n"), number);
}

static enum outcome judge_closely(const struct plan *plan, struct tally *tally, const char *text, size_t length,
                                  long number, bool over_session) {
    json_t *answer = json_loadb(text, length, 0, NULL);
    const json_t *error = json_object_get(answer, "error");
    const json_t *result = json_object_get(answer, "result");
    enum outcome outcome = OUTCOME_MISMATCHED;
    // The router may give up on a connection whose request it has not read: that answer names nobody.
    const bool is_unread = !over_session && json_is_null(json_object_get(answer, "id")) && json_is_object(error);
    if (is_unread || (has_own_id(plan, answer, number, over_session) &&
                      is_number(json_object_get(answer, "transaction_id"), number))) {
        if (json_is_object(error)) {
            outcome = OUTCOME_ERROR;
            tally->last_code = (int)json_integer_value(json_object_get(error, "code"));
        } else if (result != NULL && has_own_result(plan, result, number)) {
            outcome = OUTCOME_RESULT;
        }
    }
    json_decref(answer);
    return outcome;
}

enum outcome judge(const struct plan *plan, struct tally *tally, const char *text, size_t length, long number,
                   bool over_session) {
    if (length == 0) {
        return OUTCOME_CLOSED;
    }
    if (plan->check) {
        const enum outcome outcome = judge_closely(plan, tally, text, length, number, over_session);
        if (outcome == OUTCOME_MISMATCHED) {
            fprintf(stderr, "load: call %ld got %.*s\n", number, (int)(length < 300 ? length : 300), text);
        }
        return outcome;
    }
    return memmem(text, length, "\"result\":", 9) != NULL ? OUTCOME_RESULT : OUTCOME_ERROR;
}

// --- Connections ---

static int connect_unix(const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    if (client < 0 || connect(client, (const struct sockaddr *)&address, sizeof address) == 0) {
        return client;
    }
    const bool is_full = errno == EAGAIN;
    close(client);
    return is_full ? -2 : -1;
}

static int connect_tcp(int port) {
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((unsigned short)port)};
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (client < 0) {
        return -1;
    }
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(client, (const struct sockaddr *)&address, sizeof address) < 0 && errno != EINPROGRESS) {
        close(client);
        return -1;
    }
    return client;
}

int connect_to(const struct plan *plan) {
    return plan->unix_path != NULL ? connect_unix(plan->unix_path) : connect_tcp(plan->tcp_port);
}

// --- The process ---

static void on_signal(int number) {
    (void)number;
    stopped = 1;
}

bool going_on(void) { return !stopped; }

void stop_on_signals(void) {
    struct sigaction action = {.sa_handler = on_signal};
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);
    signal(SIGPIPE, SIG_IGN);
}

void *must_allocate(size_t count, size_t size) {
    void *memory = calloc(count, size);
    if (memory == NULL) {
        perror("load");
        exit(1);
    }
    return memory;
}

void raise_descriptor_limit(void) {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}
