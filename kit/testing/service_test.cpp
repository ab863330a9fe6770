/*
 * The test kit: a service whose session is connected to nobody. What it writes there is taken out of the buffer and
 * sorted into responses, requests and notifications; what the router would write is handed to the same functions that
 * a real line reaches. The log is taken from standard error while the service's code runs, and only then.
 */
#include "tavrix_service_test.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>

#include <sys/mman.h>
#include <unistd.h>

#include "internal.h"

enum Kind { kind_response, kind_request, kind_notification, kind_log, kind_taken, kind_count };

struct tavrix_service_test {
    tavrix_service *service;
    json_t *lines[kind_count]; ///< arrays of texts
    json_t *played;            ///< what other services' methods answer, by their names
    json_t *waiting;           ///< an array of requests to others: method and id
    int64_t last_transaction_id;
    int log;
};

namespace kit {

namespace {

constexpr int no_descriptor = INT_MAX; // nothing is ever written to the session
constexpr char played_session[] = "(played)";
constexpr int64_t clock_begin_ms = 1;

// --- The ends that are the test's own --------------------------------------------------------------------------------

[[noreturn]] void die(const char *what, const char *text) {
    std::fprintf(stderr, "tavrix_service_test: %s%s\n", what, text);
    std::abort();
}

template <class Pointer>
Pointer need(Pointer pointer, const char *what = "no memory") {
    if (!pointer) {
        die(what, "");
    }
    return pointer;
}

Json object_of(const char *text) {
    Json object(json_loads(text, parse_flags, nullptr));
    if (!json_is_object(object.get())) {
        die("this is not a JSON object: ", text);
    }
    return object;
}

// --- Lines -----------------------------------------------------------------------------------------------------------

void append(json_t *list, json_t *value) {
    if (json_array_append_new(list, need(value)) != 0) {
        die("no memory", "");
    }
}

/** Whatever its bytes are. */
void append_text(json_t *lines, const char *text, size_t length) { append(lines, json_stringn_nocheck(text, length)); }

void append_json(json_t *lines, const json_t *value) {
    const Text text(need(json_dumps(value, wire_flags)));
    append_text(lines, text.get(), std::strlen(text.get()));
}

// --- The log ---------------------------------------------------------------------------------------------------------

int real_stderr = -1; ///< while standard error is a log
int taken_log = -1;

/** An assertion in a handler has written why to standard error: it goes there after all, and abort() on to the end. */
void on_abort(int /*signal*/) {
    char piece[1024];
    lseek(taken_log, 0, SEEK_SET);
    for (ssize_t count = 0; real_stderr >= 0 && (count = read(taken_log, piece, sizeof piece)) > 0;) {
        if (write(real_stderr, piece, static_cast<size_t>(count)) < 0) {
            return;
        }
    }
}

/** Keeps a line `[time] [LEVEL] [who] text` as "LEVEL text", unless only a developer wants it, and others whole. */
void take_log_line(tavrix_service_test *test, const char *line) {
    char level[6] = "";
    int text_at = 0;
    std::sscanf(line, "[%*[^]]] [%5[^] ]%*[] ] [%*[^]]]%n", level, &text_at);
    if (text_at == 0) {
        append_text(test->lines[kind_log], line, std::strlen(line));
    } else if (std::strcmp(level, "DEBUG") != 0 && std::strcmp(level, "VERB") != 0) {
        char *text = nullptr;
        const int length = asprintf(&text, "%s%s", level, line + text_at);
        const Text owner(length < 0 ? nullptr : text);
        append_text(test->lines[kind_log], need(owner.get()), static_cast<size_t>(length));
    }
}

void take_log(tavrix_service_test *test) {
    const auto size = static_cast<size_t>(lseek(test->log, 0, SEEK_END));
    const Text text(static_cast<char *>(need(std::malloc(size + 1))));
    const ssize_t count = pread(test->log, text.get(), size, 0);
    text.get()[count > 0 ? count : 0] = '\0';
    char *rest = text.get();
    while (rest != nullptr && *rest != '\0') {
        take_log_line(test, strsep(&rest, "\n"));
    }
    if (ftruncate(test->log, 0) != 0 || lseek(test->log, 0, SEEK_SET) != 0) {
        die("cannot empty the log: ", std::strerror(errno));
    }
}

/** Takes standard error for as long as the service's code runs. */
class Capture {
  public:
    explicit Capture(tavrix_service_test *test) : test_(need(test, "there is no test")), outer_(real_stderr < 0) {
        if (!outer_) {
            return; // called from the service's own code
        }
        std::fflush(stderr);
        taken_log = test->log;
        real_stderr = dup(STDERR_FILENO);
        struct sigaction action {};
        action.sa_handler = on_abort;
        sigaction(SIGABRT, &action, &former_);
        dup2(test->log, STDERR_FILENO);
    }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    ~Capture() {
        if (!outer_) {
            return;
        }
        std::fflush(stderr);
        dup2(real_stderr, STDERR_FILENO);
        close(real_stderr);
        real_stderr = -1;
        sigaction(SIGABRT, &former_, nullptr);
        take_log(test_);
    }

  private:
    tavrix_service_test *test_;
    bool outer_;
    struct sigaction former_ {};
};

// --- The other services ----------------------------------------------------------------------------------------------

void respond(tavrix_service_test *test, json_t *id, json_t *outcome) {
    const Json response(need(json_copy(outcome)));
    json_object_set(response.get(), "id", id);
    take_response(test->service, response.get());
}

// --- What the service has written ------------------------------------------------------------------------------------

/** A message without what belongs to the wire. */
Json content_of(const json_t *message) {
    Json content(need(json_copy(const_cast<json_t *>(message))));
    for (const char *name : {"jsonrpc", "id", "transaction_id"}) {
        json_object_del(content.get(), name);
    }
    return content;
}

void take_request(tavrix_service_test *test, const json_t *message, const char *method) {
    json_t *id = json_object_get(message, "id");
    json_t *played = json_object_get(test->played, method);
    if (std::strncmp(method, "router.", 7) == 0) {
        const Json done(need(json_pack("{s:i}", "result", 0)));
        respond(test, id, done.get());
    } else if (played != nullptr) {
        const Json outcome(json_incref(played)); // the callback may play another
        respond(test, id, outcome.get());
    } else {
        append_json(test->lines[kind_request], content_of(message).get());
        append(test->waiting, json_pack("[s, O]", method, id));
    }
}

void take_written(tavrix_service_test *test, const char *line, size_t length) {
    const Json message(need(json_loadb(line, length, parse_flags, nullptr), "the service wrote what is not JSON"));
    const char *method = json_string_value(json_object_get(message.get(), "method"));
    if (method == nullptr) {
        append_text(test->lines[kind_response], line, length);
    } else if (json_object_get(message.get(), "id") == nullptr) {
        append_json(test->lines[kind_notification], content_of(message.get()).get());
    } else {
        take_request(test, message.get(), method);
    }
}

/** Until nothing is left: an answer that is played may lead to the next request. */
void settle(tavrix_service_test *test) {
    if (test->service->stopping) { // by itself: its loop would end with this turn
        end_everything(test->service);
    }
    Buffer *out = &test->service->session.out;
    while (out->size() > 0) {
        const auto *end = static_cast<const char *>(std::memchr(out->data(), '\n', out->size()));
        const auto length = static_cast<size_t>(end - out->data());
        const Text line(need(strndup(out->data(), length)));
        buffer_consume(out, length + 1);
        take_written(test, line.get(), length);
    }
}

void on_flush(evutil_socket_t /*fd*/, short /*what*/, void * /*argument*/) {}

/** Takes a line out of others; null when there is none. It lives until the test is closed. */
const char *take(tavrix_service_test *test, json_t *lines, size_t at) {
    json_t *line = json_array_get(lines, at);
    if (line == nullptr) {
        return nullptr;
    }
    json_array_append(test->lines[kind_taken], line);
    json_array_remove(lines, at);
    return json_string_value(line);
}

const char *take_first(tavrix_service_test *test, Kind kind) {
    return take(test, need(test, "there is no test")->lines[kind], 0);
}

/** The response to a request, among those from a place on. */
const char *take_response_to(tavrix_service_test *test, const json_t *transaction_id, size_t at) {
    json_t *lines = test->lines[kind_response];
    for (; at < json_array_size(lines); ++at) {
        const Json response = object_of(json_string_value(json_array_get(lines, at)));
        const json_t *found = json_object_get(response.get(), "transaction_id");
        if (found == transaction_id || json_equal(found, transaction_id) != 0) {
            return take(test, lines, at);
        }
    }
    return nullptr;
}

const char *outcome_of(tavrix_service_test *test, const char *response) {
    if (response == nullptr) {
        return nullptr;
    }
    json_t *taken = test->lines[kind_taken];
    append_json(taken, content_of(object_of(response).get()).get());
    return json_string_value(json_array_get(taken, json_array_size(taken) - 1));
}

// --- The clock -------------------------------------------------------------------------------------------------------

/** The alarm that is due next, up to a time; null without one. */
Alarm *next_alarm(const tavrix_service *service, int64_t end_ms) {
    Alarm *found = nullptr;
    for (const EntryType type : {entry_call, entry_request, entry_timer}) {
        for (Entry *entry = service->directory.lists[type].first; entry != nullptr; entry = entry->next) {
            Alarm *alarm = &reinterpret_cast<TimedEntry *>(entry)->alarm;
            if (alarm->due_ms > 0 && alarm->due_ms <= end_ms && (found == nullptr || alarm->due_ms < found->due_ms)) {
                found = alarm;
            }
        }
    }
    return found;
}

void ring(Alarm *alarm) {
    played_clock_ms = alarm->due_ms > played_clock_ms ? alarm->due_ms : played_clock_ms;
    alarm->due_ms = alarm->every_ms > 0 ? alarm->due_ms + alarm->every_ms : 0;
    event_get_callback (&alarm->ready)(-1, EV_TIMEOUT, event_get_callback_arg(&alarm->ready));
}

// --- Opening ---------------------------------------------------------------------------------------------------------

int open_test(tavrix_service_test *test, tavrix_service_options options) {
    options.session = played_session;
    options.publish = nullptr;
    options.connect = nullptr;
    options.flags = (options.flags | TAVRIX_SERVICE_SILENT | TAVRIX_SERVICE_NO_SIGNALS) & ~unsigned{TAVRIX_SERVICE_BUS};
    int rc = tavrix_service_open(&options, &test->service);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    rc = options.start != nullptr ? options.start(test->service, options.user) : TAVRIX_OK;
    if (rc < 0) {
        return rc;
    }
    tavrix_service *service = test->service;
    service->session.fd = no_descriptor; // it stands, to nobody
    event_assign(&service->session.flush, service->base, -1, 0, on_flush, service);
    service->session.was_ready = true; // no service manager waits for a test
    service->started = true;
    become_ready(service);
    send_what_waits(service);
    settle(test);
    return TAVRIX_OK;
}

void close_service(tavrix_service_test *test) {
    tavrix_service *service = test->service;
    if (service == nullptr) {
        return;
    }
    const tavrix_service_options options = service->options;
    end_everything(service);
    if (options.stop != nullptr) {
        options.stop(service, options.user);
    }
    event_del(&service->session.flush);
    buffer_free(&service->session.out);
    service->session.fd = -1;
    tavrix_service_close(service);
    test->service = nullptr;
}

void free_test(tavrix_service_test *test) {
    for (json_t *lines : test->lines) {
        json_decref(lines);
    }
    json_decref(test->played);
    json_decref(test->waiting);
    close(test->log);
    unmake(test);
}

} // namespace

} // namespace kit

using namespace kit;

int tavrix_service_test_open(const tavrix_service_options *options, tavrix_service_test **test_out) {
    need(options, "there are no options");
    need(test_out, "there is no place for the test");
    tavrix_service_test *test = need(make<tavrix_service_test>());
    for (json_t *&lines : test->lines) {
        lines = need(json_array());
    }
    test->played = need(json_object());
    test->waiting = need(json_array());
    test->log = memfd_create("tavrix_service_test", MFD_CLOEXEC);
    if (test->log < 0) {
        die("cannot take the log: ", std::strerror(errno));
    }
    played_clock_ms = played_clock_ms < 0 ? clock_begin_ms : played_clock_ms;
    int rc = TAVRIX_OK;
    {
        const Capture capture(test);
        rc = open_test(test, *options);
        if (rc < 0) {
            close_service(test);
        }
    }
    if (rc < 0) {
        while (const char *line = take_first(test, kind_log)) {
            std::fprintf(stderr, "%s\n", line);
        }
        free_test(test);
        return rc;
    }
    *test_out = test;
    return TAVRIX_OK;
}

void tavrix_service_test_close(tavrix_service_test *test) {
    if (test == nullptr) {
        return;
    }
    {
        const Capture capture(test);
        close_service(test);
    }
    free_test(test);
}

tavrix_service *tavrix_service_test_service(const tavrix_service_test *test) {
    return need(test, "there is no test")->service;
}

// --- Requests to the service -----------------------------------------------------------------------------------------

const char *tavrix_service_test_request(tavrix_service_test *test, const char *text) {
    need(text, "there is no request");
    const size_t before = json_array_size(need(test, "there is no test")->lines[kind_response]);
    const Capture capture(test);
    Json request(json_loads(text, parse_flags, nullptr));
    const Json transaction_id(json_incref(json_object_get(request.get(), "transaction_id")));
    evaluate(test->service, std::move(request), {unknown_caller(TAVRIX_ROAD_SESSION), nullptr, nullptr});
    settle(test);
    return take_response_to(test, transaction_id.get(), before);
}

const char *tavrix_service_test_call(tavrix_service_test *test, const char *method, const char *params) {
    need(method, "there is no method");
    need(test, "there is no test");
    const Json request =
        tavrix::make_request(method, params != nullptr ? object_of(params).release() : nullptr, json_string("test"));
    json_object_set_new(need(request.get()), "transaction_id", json_integer(++test->last_transaction_id));
    const Text text(need(json_dumps(request.get(), wire_flags)));
    return outcome_of(test, tavrix_service_test_request(test, text.get()));
}

const char *tavrix_service_test_next_response(tavrix_service_test *test) { return take_first(test, kind_response); }

const char *tavrix_service_test_next_outcome(tavrix_service_test *test) {
    return outcome_of(test, take_first(test, kind_response));
}

void tavrix_service_test_cancel(tavrix_service_test *test, int64_t transaction_id) {
    const Capture capture(test);
    const Json number(need(json_integer(transaction_id)));
    abandon_cancelled_call(test->service, number.get());
    settle(test);
}

// --- What the service sends ------------------------------------------------------------------------------------------

const char *tavrix_service_test_next_request(tavrix_service_test *test) { return take_first(test, kind_request); }

void tavrix_service_test_play(tavrix_service_test *test, const char *method, const char *outcome) {
    json_t *played = need(test, "there is no test")->played;
    json_object_del(played, need(method, "there is no method"));
    if (outcome != nullptr) {
        json_object_set_new_nocheck(played, method, object_of(outcome).release());
    }
}

bool tavrix_service_test_answer(tavrix_service_test *test, const char *method, const char *outcome) {
    json_t *waiting = need(test, "there is no test")->waiting;
    need(method, "there is no method");
    const Json response = object_of(need(outcome, "there is no outcome"));
    size_t at = 0;
    while (at < json_array_size(waiting) &&
           std::strcmp(json_string_value(json_array_get(json_array_get(waiting, at), 0)), method) != 0) {
        ++at;
    }
    const Json request(json_incref(json_array_get(waiting, at)));
    if (!request) {
        return false;
    }
    json_array_remove(waiting, at);
    json_t *id = json_array_get(request.get(), 1);
    const bool waits =
        find(&test->service->directory, static_cast<uint64_t>(json_integer_value(id)), entry_request) != nullptr;
    const Capture capture(test);
    respond(test, id, response.get());
    settle(test);
    return waits;
}

const char *tavrix_service_test_next_notification(tavrix_service_test *test) {
    return take_first(test, kind_notification);
}

const char *tavrix_service_test_next_log(tavrix_service_test *test) { return take_first(test, kind_log); }

bool tavrix_service_test_logged(tavrix_service_test *test, const char *part) {
    need(part, "there is no text to look for");
    while (const char *line = take_first(test, kind_log)) {
        if (std::strstr(line, part) != nullptr) {
            return true;
        }
    }
    return false;
}

// --- What happens to the service -------------------------------------------------------------------------------------

void tavrix_service_test_notify(tavrix_service_test *test, const char *method, const char *params) {
    const Json message(need(json_object()));
    if (params != nullptr) {
        json_object_set_new(message.get(), "params", object_of(params).release());
    }
    const Capture capture(test);
    take_notification(test->service, message.get(), need(method, "there is no method"));
    settle(test);
}

void tavrix_service_test_lose(tavrix_service_test *test, uint64_t count) {
    const Capture capture(test);
    tell_lost(test->service, count);
    settle(test);
}

void tavrix_service_test_restart_router(tavrix_service_test *test) {
    const Capture capture(test);
    SessionLink *session = &test->service->session;
    session->fd = -1;
    session->state = session_waiting;
    session->lost_subscriptions = true;
    ++session->generation;
    end_requests(test->service, TAVRIX_OUTCOME_GONE, true);
    abandon_session_calls(test->service);
    session->fd = no_descriptor;
    send_what_waits(test->service);
    become_ready(test->service);
    settle(test);
}

void tavrix_service_test_advance(tavrix_service_test *test, int ms) {
    const Capture capture(test);
    const int64_t end_ms = played_clock_ms + (ms > 0 ? ms : 0);
    while (Alarm *alarm = next_alarm(test->service, end_ms)) {
        ring(alarm);
        settle(test);
    }
    played_clock_ms = end_ms;
}

void tavrix_service_test_run(tavrix_service_test *test) {
    const Capture capture(test);
    event_base_loop(test->service->base, EVLOOP_NONBLOCK);
    settle(test);
}

void tavrix_service_test_stop(tavrix_service_test *test) {
    const Capture capture(test);
    end_everything(test->service);
    settle(test);
}

bool tavrix_service_test_is_stopped(const tavrix_service_test *test) {
    return need(test, "there is no test")->service->stopping;
}
