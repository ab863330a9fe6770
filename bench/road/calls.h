/*
 * What every way of calling shares: the plan of a run, its requests, the judgement of its answers, its figures.
 */
#ifndef CALLS_H
#define CALLS_H

#include <stdbool.h>
#include <stddef.h>

enum { answer_size = 65536, request_size = 1024 };

/** What a run is to do, from the command line. */
struct plan {
    const char *unix_path; /**< the listener, or null */
    int tcp_port;          /**< on 127.0.0.1, when there is no path */
    const char *method;
    const char *params; /**< a JSON object; null for {"n":NUMBER}, another one in each call */
    int clients;        /**< connections at once */
    int in_flight;      /**< requests on each, over sessions */
    long calls;         /**< no more than these */
    double seconds;     /**< no call is begun later; 0 for no end */
    int timeout_ms;     /**< a call without an answer is given up then */
    long first;         /**< the first call's number, so that several runs have distinct ones */
    bool check;         /**< parse every answer and match it with its request */
    bool stop_on_result;
    int pid; /**< whose memory is looked at */
};

enum outcome {
    OUTCOME_RESULT,
    OUTCOME_ERROR,      /**< an error response to this very call */
    OUTCOME_MISMATCHED, /**< somebody else's answer, or none at all */
    OUTCOME_CLOSED,     /**< the connection ended without an answer */
    OUTCOME_OVERDUE,
    OUTCOME_REFUSED, /**< no connection */
    OUTCOME_COUNT
};

struct tally {
    long begun;
    long outcomes[OUTCOME_COUNT];
    int last_code; /**< of the last error response, when answers are checked */
    float *latencies_us;
    size_t latency_count;
    size_t latency_size;
    double began;
    double ended;
};

/** Seconds of a clock that never jumps. */
double now(void);

void tally_begin(struct tally *tally);

/** Counts a call that ended; how long it took is kept of one that was answered, or given up. */
void tally_count(struct tally *tally, enum outcome outcome, double began);

/** True while another call may begin. */
bool tally_has_more(const struct tally *tally, const struct plan *plan);

/** Prints the run's figures as one line of KEY=VALUE; "typical" is the rate of one caller whose calls are all median.
 */
void tally_report(struct tally *tally);

/** 0 when every call had a result or an error of its own. */
int tally_exit_status(const struct tally *tally);

/** Writes a request without a line's end; gives its length. */
size_t write_request(const struct plan *plan, long number, char *text);

/** What an answer is to the call of this number. `over_session` says which "id" it has to have. */
enum outcome judge(const struct plan *plan, struct tally *tally, const char *text, size_t length, long number,
                   bool over_session);

/**
 * A non-blocking connection to the plan's listener: its descriptor; -1 when nobody listens there; -2 when its queue is
 * full.
 */
int connect_to(const struct plan *plan);

/** False after SIGTERM and SIGINT. */
bool going_on(void);

void stop_on_signals(void);

/** Zeroed memory; without any the process ends. */
void *must_allocate(size_t count, size_t size);

/** Lets the process have as many descriptors as it may. */
void raise_descriptor_limit(void);

int run_oneshot(const struct plan *plan);
int run_sessions(const struct plan *plan);
int run_idle(const struct plan *plan);
int run_trouble(const struct plan *plan, const char *kind);

#endif
