/*
 * Senders who mean no good, from a seed: the same seed sends the same bytes in the same order.
 *
 *     hostile inputs  --unix PATH | --tcp PORT --seed N --count N     malformed requests, in pieces, half-closed
 *     hostile bytes   --unix PATH | --tcp PORT --seed N --count N     raw bytes to a bus address, as its protocol has
 * them hostile frames  --publish ADDRESS --seed N --count N            malformed messages from a publisher of the bus
 *     hostile flood   --publish ADDRESS --seed N --seconds S          replies that nobody waits for, as fast as it goes
 *     hostile answers --tcp PORT --seed N --seconds S                 a publisher that does not speak the bus's
 * protocol
 *
 * It prints what it did as one line of KEY=VALUE, and tells nothing about the other side: that is the caller's to see.
 */
#include "bare_bus.h"

#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <nanomsg/nn.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { max_input = 100000, answer_ms = 20, kept_open = 16, patience_seconds = 20 };

struct plan {
    const char *unix_path;
    const char *publish;
    int tcp_port;
    long count;
    double seconds;
};

static uint64_t state;
static char input[max_input];
static size_t input_length;

// --- Chance ---

static uint64_t next_random(void) {
    uint64_t z = (state += 0x9e3779b97f4a7c15U);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
    return z ^ (z >> 31);
}

static size_t below(size_t bound) { return (size_t)(next_random() % bound); }

#define ONE_OF(table) (table)[below(sizeof(table) / sizeof *(table))]

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

// --- Inputs ---

static void add(const void *bytes, size_t length) {
    if (input_length + length <= max_input) {
        memcpy(input + input_length, bytes, length);
        input_length += length;
    }
}

static void add_text(const char *text) { add(text, strlen(text)); }

static void add_byte(int byte) {
    const char one = (char)byte;
    add(&one, 1);
}

static void add_noise(size_t length) {
    for (size_t i = 0; i < length; ++i) {
        add_byte((int)below(256));
    }
}

static void add_repeated(const char *text, size_t times) {
    for (size_t i = 0; i < times; ++i) {
        add_text(text);
    }
}

static const char *const versions[] = {"\"2.0\"", "\"2.0\"", "\"1.0\"", "2.0", "null", "[]", "\"\"", "\"2.0\\u0000\""};
static const char *const names[] = {
    "\"echo.Say\"",
    "\"echo.Empty\"",
    "\"router.Status\"",
    "\"router.Nothing\"",
    "\"\"",
    "null",
    "7",
    "[\"echo\"]",
    "\"echo.Say\\n[x]\"",
    "\"\\u001b[31mecho\"",
    "\"echo|Say\"",
    "\"*\"",
    "{}",
    "true",
    "\"\\ud83d\\ude00\"",
    "\"i\"",
    "\"logger.ReloadConf\"",
    "\"service.Probe\"",
    "\"d.\"",
};
static const char *const ids[] = {
    "1",
    "\"a\"",
    "null",
    "-1",
    "1.5",
    "1e400",
    "99999999999999999999",
    "[]",
    "{}",
    "true",
    "\"\\n\"",
    "\"\\u0000\"",
    "\"2524546b-ca99-4868-a062-359cefacff7c\"",
    "\"|\"",
};
static const char *const values[] = {
    "{}",
    "[]",
    "null",
    "0",
    "\"text\"",
    "{\"n\":1}",
    "{\"n\":1,\"n\":2}",
    "{\"\":{\"\":{}}}",
    "{\"a\":\"\\u0000\"}",
    "{\"methods\":[\"*\"]}",
    "{\"name\":\"x\\ny\"}",
    "{\"a\":1e999}",
    "{\"methods\":7}",
    "[[[[[]]]]]",
};
static const char *const own_methods[] = {
    "\"router.Register\"", "\"router.Subscribe\"", "\"router.Unsubscribe\"", "\"router.Monitor\"",
    "\"router.Bus\"",      "\"router.Metrics\"",   "\"router.Hello\"",       "\"service.Cancel\"",
};

/** An object whose members are each right, wrong, missing or twice there. */
static void add_request(void) {
    add_byte('{');
    for (int member = 0; member < 5; ++member) {
        static const char *const keys[] = {"jsonrpc", "method", "id", "transaction_id", "params"};
        for (size_t times = below(12) == 0 ? below(3) : 1; times > 0; --times) {
            if (input[input_length - 1] != '{') {
                add_byte(',');
            }
            add_byte('"');
            add_text(keys[member]);
            add_text("\":");
            add_text(member == 0   ? ONE_OF(versions)
                     : member == 1 ? (below(4) == 0 ? ONE_OF(own_methods) : ONE_OF(names))
                     : member == 4 ? ONE_OF(values)
                                   : ONE_OF(ids));
        }
    }
    add_byte('}');
}

static void damage(void) {
    for (size_t times = 1 + below(4); times > 0 && input_length > 0; --times) {
        const size_t at = below(input_length);
        switch (below(4)) {
        case 0:
            input[at] = (char)below(256);
            break;
        case 1:
            input[at] = (char)((unsigned char)input[at] ^ 1U << below(8));
            break;
        case 2:
            input_length = at;
            break;
        default:
            memmove(input + at, input + at + 1, input_length - at - 1);
            --input_length;
        }
    }
}

static void add_batch(void) {
    add_byte('[');
    for (size_t left = below(20); left > 0; --left) {
        add_request();
        if (left > 1) {
            add_byte(',');
        }
    }
    add_byte(']');
}

/** Beyond a bound of the wire: 8192 bytes of a request, 65536 of a line, the depth of a text. */
static void add_too_much(void) {
    switch (below(4)) {
    case 0:
        add_text("{\"jsonrpc\":\"2.0\",\"method\":\"echo.Say\",\"id\":1,\"params\":{\"text\":\"");
        add_repeated("xxxxxxxx", below(10000));
        add_text("\"}}");
        break;
    case 1:
        add_repeated("[", 1 + below(90000));
        break;
    case 2:
        add_repeated("{\"a\":", 1 + below(15000));
        break;
    default:
        add_noise(below(90000));
    }
}

static void make_input(void) {
    input_length = 0;
    switch (below(8)) {
    case 0:
        add_noise(1 + below(300));
        break;
    case 1:
        add_batch();
        break;
    case 2:
        add_too_much();
        break;
    case 3:
        add_request();
        damage();
        break;
    case 4:
        add_repeated("\n", 1 + below(2000));
        break;
    default:
        for (size_t left = 1 + below(4); left > 0; --left) {
            add_request();
            add_byte('\n');
        }
    }
    if (below(2) == 0) {
        add_byte('\n');
    }
}

/** What a bus address expects: a header of eight bytes, then messages with eight bytes of length. */
static void make_bytes(void) {
    static const char header[] = {0, 'S', 'P', 0, 0, 0x21, 0, 0};
    input_length = 0;
    add(header, sizeof header);
    if (below(4) == 0) {
        input[below(8)] = (char)below(256);
    } else {
        input[5] = (char)(0x20 + below(2));
    }
    for (size_t left = below(6); left > 0; --left) {
        const uint64_t length = below(3) == 0 ? next_random() : below(64);
        for (int shift = 56; shift >= 0; shift -= 8) {
            add_byte((int)(length >> shift & 0xff));
        }
        add_noise(below(64));
    }
}

// --- Connections ---

static int connect_to(const struct plan *plan) {
    struct sockaddr_un local = {.sun_family = AF_UNIX};
    struct sockaddr_in inet = {.sin_family = AF_INET, .sin_port = htons((unsigned short)plan->tcp_port)};
    const bool is_local = plan->unix_path != NULL;
    const int connection = socket(is_local ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    inet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (is_local) {
        snprintf(local.sun_path, sizeof local.sun_path, "%s", plan->unix_path);
    }
    const struct sockaddr *address = is_local ? (const struct sockaddr *)&local : (const struct sockaddr *)&inet;
    const socklen_t length = is_local ? sizeof local : sizeof inet;
    if (connection >= 0 && connect(connection, address, length) == 0) {
        return connection;
    }
    if (connection >= 0) {
        close(connection);
    }
    return -1;
}

/** In one piece or in several; gives up where the other side takes no more. */
static void send_input(int connection) {
    const size_t piece = below(3) == 0 ? 1 + below(40) : input_length;
    for (size_t sent = 0; sent < input_length;) {
        const size_t left = input_length - sent;
        const ssize_t done = send(connection, input + sent, left < piece ? left : piece, MSG_NOSIGNAL | MSG_DONTWAIT);
        struct pollfd writable = {.fd = connection, .events = POLLOUT};
        if (done < 0 && (errno != EAGAIN || poll(&writable, 1, answer_ms) != 1)) {
            return;
        }
        sent += done > 0 ? (size_t)done : 0;
    }
}

static void close_hard(int connection) {
    const struct linger reset = {.l_onoff = 1, .l_linger = 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(connection);
}

static bool read_some(int connection) {
    char answer[4096];
    struct pollfd readable = {.fd = connection, .events = POLLIN};
    return poll(&readable, 1, answer_ms) == 1 && recv(connection, answer, sizeof answer, MSG_DONTWAIT) > 0;
}

/** Some go at once, some when they have half-closed and read, some stay until others have come. */
static bool leave(int connection, int *kept, size_t turn) {
    bool answered = false;
    switch (below(4)) {
    case 0:
        close(connection);
        return false;
    case 1:
        close_hard(connection);
        return false;
    case 2:
        shutdown(connection, SHUT_WR);
        answered = read_some(connection);
        close(connection);
        return answered;
    default:
        if (kept[turn % kept_open] >= 0) {
            close(kept[turn % kept_open]);
        }
        kept[turn % kept_open] = connection;
        return read_some(connection);
    }
}

static int send_inputs(const struct plan *plan, void (*make)(void)) {
    int kept[kept_open];
    long sent = 0;
    long refused = 0;
    long answered = 0;
    memset(kept, 0xff, sizeof kept);
    for (long turn = 0; turn < plan->count; ++turn) {
        make();
        const int connection = connect_to(plan);
        if (connection < 0) {
            ++refused;
            continue;
        }
        send_input(connection);
        ++sent;
        answered += leave(connection, kept, (size_t)turn) ? 1 : 0;
    }
    for (size_t i = 0; i < kept_open; ++i) {
        if (kept[i] >= 0) {
            close(kept[i]);
        }
    }
    printf("inputs=%ld refused=%ld answered=%ld\n", sent, refused, answered);
    return 0;
}

// --- As a publisher of the bus ---

static const char *const channels[] = {CHANNEL_REPLIES, CHANNEL_REPLIES, CHANNEL_REPLIES, CHANNEL_FIRST,
                                       CHANNEL_DEFAULT, "echo.Changed",  "2524546b",      ""};

static void make_message(void) {
    static const char *const replies[] = {"\"id\"", "\"method\"", "\"result\"", "\"error\"", "\"params\""};
    make_input();
    if (below(2) == 0) {
        input_length = 0;
        add_text("{\"jsonrpc\":\"2.0\",\"id\":\"echo.Say\",\"transaction_id\":");
        add_text(ONE_OF(ids));
        add_byte(',');
        add_text(ONE_OF(replies));
        add_byte(':');
        add_text(below(2) == 0 ? ONE_OF(values) : ONE_OF(names));
        add_byte('}');
    }
    for (size_t i = 0; i < input_length; ++i) {
        if (input[i] == '\0') {
            input[i] = ' ';
        }
    }
    input[input_length < max_input ? input_length : max_input - 1] = '\0';
}

/** A publisher that somebody hears: what it says before is lost. The other side tries again ten times a second. */
static int heard_publisher(const struct plan *plan) {
    const int publisher = bare_publisher(plan->publish);
    const double end = now() + patience_seconds;
    while (nn_get_statistic(publisher, NN_STAT_CURRENT_CONNECTIONS) == 0) {
        if (now() > end) {
            fprintf(stderr, "hostile: nobody listens to %s\n", plan->publish);
            exit(1);
        }
        poll(NULL, 0, 1);
    }
    return publisher;
}

static int publish_messages(const struct plan *plan) {
    const int publisher = heard_publisher(plan);
    for (long turn = 0; turn < plan->count; ++turn) {
        make_message();
        bare_publish(publisher, ONE_OF(channels), input);
        poll(NULL, 0, 1); // the last ones leave, too
    }
    printf("messages=%ld\n", plan->count);
    return 0;
}

static int flood(const struct plan *plan) {
    const int publisher = heard_publisher(plan);
    const double end = now() + plan->seconds;
    long sent = 0;
    while (now() < end) {
        char text[128];
        snprintf(text, sizeof text, "{\"jsonrpc\":\"2.0\",\"id\":\"echo.Say\",\"transaction_id\":%d,\"result\":0}",
                 (int)below(INT32_MAX));
        sent += bare_publish(publisher, CHANNEL_REPLIES, text) == 0 ? 1 : 0;
    }
    printf("messages=%ld\n", sent);
    return 0;
}

/** Takes the connections of subscribers, and sends each raw bytes. */
static int answer_badly(const struct plan *plan) {
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((unsigned short)plan->tcp_port)};
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (listener < 0 || bind(listener, (const struct sockaddr *)&address, sizeof address) < 0 ||
        listen(listener, 16) < 0) {
        perror("hostile");
        return 1;
    }
    const double end = now() + plan->seconds;
    long connections = 0;
    while (now() < end) {
        struct pollfd readable = {.fd = listener, .events = POLLIN};
        const int connection = poll(&readable, 1, 100) == 1 ? accept(listener, NULL, NULL) : -1;
        if (connection >= 0) {
            ++connections;
            make_bytes();
            send_input(connection);
            read_some(connection);
            close(connection);
        }
    }
    close(listener);
    printf("connections=%ld\n", connections);
    return 0;
}

// --- The command line ---

static const struct option options[] = {
    {"unix", required_argument, NULL, 'u'},
    {"tcp", required_argument, NULL, 't'},
    {"seed", required_argument, NULL, 's'},
    {"count", required_argument, NULL, 'n'},
    {"publish", required_argument, NULL, 'p'},
    {"seconds", required_argument, NULL, 'e'},
    {NULL, 0, NULL, 0},
};

static bool take_options(int argc, char **argv, struct plan *plan) {
    int option = 0;
    optind = 2;
    while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
        switch (option) {
        case 'u':
            plan->unix_path = optarg;
            break;
        case 't':
            plan->tcp_port = atoi(optarg);
            break;
        case 's':
            state = strtoull(optarg, NULL, 10);
            break;
        case 'n':
            plan->count = strtol(optarg, NULL, 10);
            break;
        case 'p':
            plan->publish = optarg;
            break;
        case 'e':
            plan->seconds = strtod(optarg, NULL);
            break;
        default:
            return false;
        }
    }
    return optind == argc;
}

int main(int argc, char **argv) {
    struct plan plan = {.count = 1000, .seconds = 5};
    const char *mode = argc > 1 ? argv[1] : "";
    signal(SIGPIPE, SIG_IGN);
    if (argc > 1 && take_options(argc, argv, &plan)) {
        const bool has_peer = plan.unix_path != NULL || plan.tcp_port > 0;
        if (strcmp(mode, "inputs") == 0 && has_peer) {
            return send_inputs(&plan, make_input);
        }
        if (strcmp(mode, "bytes") == 0 && has_peer) {
            return send_inputs(&plan, make_bytes);
        }
        if (strcmp(mode, "frames") == 0 && plan.publish != NULL) {
            return publish_messages(&plan);
        }
        if (strcmp(mode, "flood") == 0 && plan.publish != NULL) {
            return flood(&plan);
        }
        if (strcmp(mode, "answers") == 0 && plan.tcp_port > 0) {
            return answer_badly(&plan);
        }
    }
    fprintf(stderr, "usage: hostile inputs|bytes --unix PATH|--tcp PORT [--seed N] [--count N]\n"
                    "       hostile frames --publish ADDRESS [--seed N] [--count N]\n"
                    "       hostile flood --publish ADDRESS [--seed N] [--seconds S]\n"
                    "       hostile answers --tcp PORT [--seed N] [--seconds S]\n");
    return 2;
}
