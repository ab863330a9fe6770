/*
 * Clients for measurements and endurance: calls over one-shot listeners and sessions, and clients that are a trouble.
 * The figures come as one line of KEY=VALUE.
 */
#include "calls.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char usage[] =
    "usage: load MODE [OPTION...]\n"
    "\n"
    "  oneshot     a connection a call, --clients of them at once\n"
    "  session     --clients sessions, --in-flight requests on each\n"
    "  idle        opens --clients sessions, tells what they cost process --pid, holds them until SIGTERM\n"
    "  silent, slow, unread, pending, abandoned\n"
    "              --clients that trouble the router until SIGTERM\n"
    "\n"
    "  --unix PATH, --tcp PORT   the listener, the port on 127.0.0.1\n"
    "  --method NAME             default echo.Empty\n"
    "  --params JSON             default {\"n\":NUMBER}, another one in each call\n"
    "  --clients N, --in-flight N\n"
    "  --calls N, --seconds S    whichever comes first; 10000 calls, and no end of time\n"
    "  --timeout MS              after which a call is given up, 30000\n"
    "  --first NUMBER            of the first call\n"
    "  --check                   match every answer with its request; exit status 1 unless all match\n"
    "  --until-result            end with the first result\n"
    "  --pid PID\n";

static const struct option options[] = {
    {"unix", required_argument, NULL, 'u'},    {"tcp", required_argument, NULL, 't'},
    {"method", required_argument, NULL, 'm'},  {"params", required_argument, NULL, 'p'},
    {"clients", required_argument, NULL, 'c'}, {"in-flight", required_argument, NULL, 'k'},
    {"calls", required_argument, NULL, 'n'},   {"seconds", required_argument, NULL, 's'},
    {"timeout", required_argument, NULL, 'w'}, {"first", required_argument, NULL, 'f'},
    {"check", no_argument, NULL, 'x'},         {"until-result", no_argument, NULL, 'r'},
    {"pid", required_argument, NULL, 'i'},     {NULL, 0, NULL, 0},
};

static int usage_error(void) {
    fputs(usage, stderr);
    return 2;
}

static long number_of(const char *text) { return strtol(text, NULL, 10); }

static bool take_option(struct plan *plan, int option) {
    switch (option) {
    case 'u':
        plan->unix_path = optarg;
        return true;
    case 't':
        plan->tcp_port = (int)number_of(optarg);
        return true;
    case 'm':
        plan->method = optarg;
        return true;
    case 'p':
        plan->params = optarg;
        return true;
    case 'c':
        plan->clients = (int)number_of(optarg);
        return true;
    case 'k':
        plan->in_flight = (int)number_of(optarg);
        return true;
    case 'n':
        plan->calls = number_of(optarg);
        return true;
    case 's':
        plan->seconds = strtod(optarg, NULL);
        return true;
    case 'w':
        plan->timeout_ms = (int)number_of(optarg);
        return true;
    case 'f':
        plan->first = number_of(optarg);
        return true;
    case 'i':
        plan->pid = (int)number_of(optarg);
        return true;
    case 'x':
        plan->check = true;
        return true;
    case 'r':
        plan->stop_on_result = true;
        return true;
    default:
        return false;
    }
}

static bool is_usable(const struct plan *plan) {
    return (plan->unix_path != NULL || plan->tcp_port > 0) && plan->clients > 0 && plan->clients <= 20000 &&
           plan->in_flight > 0 && plan->in_flight <= 4096 && plan->calls > 0 && plan->timeout_ms > 0 &&
           plan->first >= 0;
}

int main(int argc, char **argv) {
    struct plan plan = {
        .method = "echo.Empty", .clients = 1, .in_flight = 1, .calls = 10000, .timeout_ms = 30000, .first = 1};
    if (argc < 2) {
        return usage_error();
    }
    const char *mode = argv[1];
    optind = 2;
    int option = 0;
    while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
        if (!take_option(&plan, option)) {
            return usage_error();
        }
    }
    if (optind != argc || !is_usable(&plan)) {
        return usage_error();
    }
    stop_on_signals();
    raise_descriptor_limit();
    if (strcmp(mode, "oneshot") == 0) {
        return run_oneshot(&plan);
    }
    if (strcmp(mode, "session") == 0) {
        return run_sessions(&plan);
    }
    if (strcmp(mode, "idle") == 0) {
        return run_idle(&plan);
    }
    const int status = run_trouble(&plan, mode);
    return status == 2 ? usage_error() : status;
}
