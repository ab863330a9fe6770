/*
 * The session: one connection to the router, kept open; lines of JSON both ways; registration; connecting again.
 *
 *     waiting --connect--> open --router.Bus, router.Register--> ready
 *        ^                  |                                      |
 *        +---- back-off ----+------------- connection lost --------+
 *
 * Nothing is written from within a handler: what is to go out stands in a buffer, and one write at the end of the
 * loop's turn takes all of it.
 */
#include <cerrno>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/notify.h"
#include "internal.h"

namespace kit {

namespace {

constexpr char unit_name[] = "service_session";
constexpr int first_backoff_ms = 20;
constexpr int last_backoff_ms = 1000;
constexpr size_t short_read_size = 16384;
constexpr size_t read_size = 65536; // once a line has begun: long ones are read in larger pieces

void lose_session(tavrix_service *service, const char *why);

// --- Registration --------------------------------------------------------------------------------------------------

const char *hint_for(int code) {
    return code == TAVRIX_JRPC_NOT_UNIQUE         ? "; is another one running?"
           : code == TAVRIX_JRPC_METHOD_NOT_FOUND ? "; do its policy and this process's user fit?"
           : code == TAVRIX_JRPC_TIMED_OUT        ? "; can it reach the addresses that this service publishes on?"
                                                  : "";
}

/** Whether the service ends instead of waiting: at its start only, and if it is to. */
bool is_needed(const tavrix_service *service) {
    return (service->options.flags & TAVRIX_SERVICE_NEED_ROUTER) != 0 && !service->session.was_ready;
}

void ask_again_in(tavrix_service *service, int ms) {
    const timeval time = time_of_ms(ms);
    if (is_needed(service)) {
        give_up(service);
    } else if (evtimer_add(&service->session.retry, &time) != 0) {
        LOG_ERROR("Cannot wait for the router: no memory\n");
        give_up(service); // it would never ask again; whoever starts services starts this one anew
    }
}

/** Whether an answer is no more to anybody: the next connection asks anew. */
bool is_stale(const tavrix_service *service, const tavrix_answer *answer) {
    return !session_is_connected(service) || answer->outcome == TAVRIX_OUTCOME_CANCELLED;
}

/** Tells a refusal once, however often it is repeated, and asks again later. */
void registration_failed(tavrix_service *service, const tavrix_answer *answer) {
    SessionLink *session = &service->session;
    if (is_stale(service, answer)) {
        return;
    }
    if (session->refusal != answer->code) {
        session->refusal = answer->code;
        LOG_ERROR("The router at %s refuses %s: %s (%s)%s\n", session->path, service->name, words_of(answer).text,
                  answer->message, hint_for(answer->code));
    }
    ask_again_in(service, last_backoff_ms);
}

/** The service is there for everybody, described or not. */
void on_described(tavrix_service *service, const tavrix_answer *answer, void * /*user*/) {
    if (is_stale(service, answer)) {
        return;
    }
    if (answer->outcome != TAVRIX_OUTCOME_RESULT && answer->code != TAVRIX_JRPC_METHOD_NOT_FOUND) { // an older router
        LOG_WARNING("The router at %s does not list the methods of %s: %s\n", service->session.path, service->name,
                    words_of(answer).text);
    }
    become_ready(service);
}

/** Before the service says that it is ready: from then on it can be discovered. */
void send_description(tavrix_service *service) {
    json_t *document = make_document(service);
    if (document == nullptr || send_request(service, names::describe, json_pack("{s:o}", "document", document),
                                            control_timeout_ms, on_described, nullptr) == 0) {
        become_ready(service);
    }
}

void on_registered(tavrix_service *service, const tavrix_answer *answer, void * /*user*/) {
    if (answer->outcome == TAVRIX_OUTCOME_RESULT) {
        send_description(service);
    } else {
        registration_failed(service, answer);
    }
}

json_t *names_of_methods(const tavrix_service *service) {
    Json names(json_array());
    for (size_t i = 0; i < service->method_count; ++i) {
        json_array_append_new(names.get(), json_string(service->options.methods[i].name));
    }
    // Without memory for all of them rather none: the router would not know the missing ones.
    return json_array_size(names.get()) == service->method_count ? names.release() : nullptr;
}

/** A request that the registration needs: where it cannot be sent the connection is given up, and the next asks anew.
 */
void ask_router(tavrix_service *service, const char *method, json_t *params, tavrix_answer_callback callback) {
    if (send_request(service, method, params, control_timeout_ms, callback, nullptr) == 0) {
        lose_session(service, "no memory to ask it");
    }
}

void send_registration(tavrix_service *service) {
    const int is_direct = (service->options.flags & TAVRIX_SERVICE_BUS) == 0 ? 1 : 0;
    json_t *publish = service->bus.published != nullptr ? json_incref(service->bus.published) : json_array();
    json_t *params =
        json_pack("{s:s, s:s, s:o, s:o, s:b, s:b}", "name", service->name, "channel", service->channel, "publish",
                  publish, "methods", names_of_methods(service), "direct", is_direct, "callers", is_direct);
    if (params == nullptr) {
        lose_session(service, "no memory to register");
        return;
    }
    ask_router(service, names::register_service, params, on_registered);
}

void on_bus_known(tavrix_service *service, const tavrix_answer *answer, void * /*user*/) {
    if (answer->outcome != TAVRIX_OUTCOME_RESULT) {
        registration_failed(service, answer);
        return;
    }
    const json_t *timeout = json_object_get(answer->result, "reply_timeout_ms");
    if (json_is_integer(timeout) && json_integer_value(timeout) > 0 && json_integer_value(timeout) < INT32_MAX) {
        service->reply_timeout_ms = static_cast<int>(json_integer_value(timeout));
    }
    if (service->channel == nullptr) {
        become_ready(service);
    } else if (!bus_follow(service, answer->result)) {
        give_up(service);
    } else {
        send_registration(service);
    }
}

void ask_for_bus(tavrix_service *service) { ask_router(service, names::bus, nullptr, on_bus_known); }

// --- Lines ---------------------------------------------------------------------------------------------------------

/** What the router itself tells. */
bool take_router_notice(tavrix_service *service, const char *method, const json_t *params) {
    if (std::strcmp(method, names::cancel) == 0) {
        abandon_cancelled_call(service, json_object_get(params, "transaction_id"));
    } else if (std::strcmp(method, names::service_up) == 0) {
        bus_service_up(service, params);
    } else if (std::strcmp(method, names::service_down) == 0) {
        bus_service_down(service, params);
    } else if (std::strcmp(method, names::lost) == 0) {
        const json_int_t count = json_integer_value(json_object_get(params, "count"));
        tell_lost(service, count > 0 ? static_cast<uint64_t>(count) : 0);
    } else {
        return false;
    }
    return true;
}

void take_line(tavrix_service *service, const char *line, size_t length) {
    json_error_t error;
    Json message(json_loadb(line, length, parse_flags, &error));
    if (!json_is_object(message.get())) {
        LOG_ERROR("The router at %s sent a line that is not a JSON object: %s\n", service->session.path,
                  Printable(error.text).text);
        if (service->session.state != session_ready) {
            lose_session(service, "its answer cannot be read"); // the next attempt need not wait for a time-out
        }
        return;
    }
    const char *method = json_string_value(json_object_get(message.get(), "method"));
    if (method == nullptr) {
        take_response(service, message.get());
    } else if (json_object_get(message.get(), "id") != nullptr) {
        evaluate(service, std::move(message), {unknown_caller(TAVRIX_ROAD_SESSION), nullptr, nullptr});
    } else if (!take_router_notice(service, method, json_object_get(message.get(), "params"))) {
        take_notification(service, message.get(), method);
    }
}

void take_lines(tavrix_service *service) {
    SessionLink *session = &service->session;
    Buffer *in = &session->in;
    while (in->size() > session->searched) {
        const char *line = in->data();
        const auto *end =
            static_cast<const char *>(std::memchr(line + session->searched, '\n', in->size() - session->searched));
        if (end == nullptr) {
            session->searched = in->size();
            return;
        }
        take_line(service, line, static_cast<size_t>(end - line));
        buffer_consume(in, static_cast<size_t>(end - line) + 1);
        session->searched = 0;
    }
}

void write_out(tavrix_service *service) {
    SessionLink *session = &service->session;
    const int reason = session_is_connected(service) ? buffer_send(&session->out, session->fd) : 0;
    if (reason == EAGAIN) {
        if (event_add(&session->writable, nullptr) != 0) {
            lose_session(service, "no memory to wait for it");
        }
    } else if (reason != 0) {
        lose_session(service, std::strerror(reason));
    }
}

void on_writable(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    write_out(static_cast<tavrix_service *>(argument));
}

void on_readable(evutil_socket_t fd, short /*what*/, void *argument) {
    auto *service = static_cast<tavrix_service *>(argument);
    SessionLink *session = &service->session;
    Buffer *in = &session->in;
    const size_t room = in->size() == 0 ? short_read_size : read_size;
    if (!buffer_reserve(in, room)) {
        lose_session(service, "no memory for what it sends");
        return;
    }
    const ssize_t count = recv(fd, in->bytes + in->end, in->capacity - in->end, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        lose_session(service, count == 0 ? "it closed the connection" : std::strerror(errno));
        return;
    }
    in->end += static_cast<size_t>(count);
    take_lines(service);
    if (session->in.size() > max_reply_line) {
        lose_session(service, "it sent a line without an end");
        return;
    }
    write_out(service);
}

// --- Connection ----------------------------------------------------------------------------------------------------

/** After every end of a connection, and every attempt that failed. */
void wait_for_router(tavrix_service *service) {
    SessionLink *session = &service->session;
    session->state = session_waiting;
    ask_again_in(service, session->backoff_ms);
    session->backoff_ms = session->backoff_ms * 2 < last_backoff_ms ? session->backoff_ms * 2 : last_backoff_ms;
}

void drop_connection(SessionLink *session) {
    event_del(&session->readable);
    event_del(&session->writable);
    event_del(&session->flush);
    event_del(&session->retry);
    close(session->fd);
    session->fd = -1;
    ++session->generation;
    session->searched = 0;
    buffer_free(&session->in);
    buffer_free(&session->out);
}

void tell_loss(const tavrix_service *service, const char *why) {
    const SessionLink &session = service->session;
    const char *next = is_needed(service) ? "" : "; trying again until it is back";
    if (session.state != session_ready && is_single_answer(session.in)) {
        LOG_ERROR("%s takes single requests, it is not the router's session socket: name that one by --session or "
                  "TAVRIX_SESSION\n",
                  session.path);
    } else {
        LOG_ERROR("The router at %s has gone: %s%s\n", session.path, why, next);
    }
}

void lose_session(tavrix_service *service, const char *why) {
    SessionLink *session = &service->session;
    if (session->fd < 0) {
        return;
    }
    if (session->state == session_ready || !session->outage_told) {
        tell_loss(service, why);
        session->outage_told = true;
    }
    drop_connection(session);
    session->lost_subscriptions = true;
    bus_router_gone(service);
    wait_for_router(service);
    end_requests(service, TAVRIX_OUTCOME_GONE, true);
    abandon_session_calls(service);
}

/** A router that is started later is waited for, unless it has to be there. */
void tell_absence(const tavrix_service *service, int reason) {
    const char *path = service->session.path;
    const bool is_not_there = reason == ENOENT || reason == ECONNREFUSED;
    if (is_not_there && !is_needed(service)) {
        LOG_ERROR("Waiting for the router at %s: %s; is it running?\n", path, std::strerror(reason));
        return;
    }
    LOG_ERROR("Cannot reach the router at %s: %s; %s%s\n", path, std::strerror(reason),
              is_not_there ? "is it running?" : "is this its session socket, and may this process's user reach it?",
              is_needed(service) ? "" : " Trying again until it can be reached");
}

void connect_session(tavrix_service *service) {
    SessionLink *session = &service->session;
    session->fd = tavrix::connect_unix(session->path).release();
    if (session->fd < 0) {
        if (!session->outage_told) {
            tell_absence(service, errno);
            session->outage_told = true;
        }
        wait_for_router(service);
        return;
    }
    session->state = session_open;
    event_assign(&session->readable, service->base, session->fd, EV_READ | EV_PERSIST, on_readable, service);
    event_assign(&session->writable, service->base, session->fd, EV_WRITE, on_writable, service);
    if (event_add(&session->readable, nullptr) != 0) {
        lose_session(service, "no memory to listen to it");
        return;
    }
    ask_for_bus(service);
    if (!send_what_waits(service)) {
        lose_session(service, "no memory to subscribe");
    }
}

/** The back-off has passed: connects, or asks again for the registration that was refused. */
void on_retry(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    auto *service = static_cast<tavrix_service *>(argument);
    if (service->session.state == session_waiting) {
        connect_session(service);
    } else if (service->session.state == session_open) {
        ask_for_bus(service);
    }
}

} // namespace

bool is_single_answer(const Buffer &in) {
    const bool is_line = in.size() == 0 || std::memchr(in.data(), '\n', in.size()) != nullptr;
    const Json answer(is_line ? nullptr : json_loadb(in.data(), in.size(), 0, nullptr));
    return json_object_get(answer.get(), "jsonrpc") != nullptr;
}

bool session_prepare(tavrix_service *service) {
    SessionLink *session = &service->session;
    session->fd = -1;
    session->backoff_ms = first_backoff_ms;
    evtimer_assign(&session->retry, service->base, on_retry, service);
    event_assign(&session->flush, service->base, -1, 0, on_writable, service);
    const char *path = tavrix::session_path(service->options.session);
    if (std::strlen(path) >= sizeof session->path) {
        LOG_ERROR("Cannot use the session socket %s: a socket's path has at most %zu bytes\n", Printable(path).text,
                  sizeof session->path - 1);
        return false;
    }
    std::memcpy(session->path, path, std::strlen(path) + 1);
    return true;
}

void session_start(tavrix_service *service) {
    if (service->session.path[0] != '\0' && service->session.state == session_off) {
        connect_session(service);
    }
}

bool session_is_connected(const tavrix_service *service) { return service->session.fd >= 0; }

bool session_write(tavrix_service *service, const char *text, size_t length) {
    SessionLink *session = &service->session;
    if (session->fd < 0) {
        return false;
    }
    const bool fits = session->out.size() + length < max_unwritten;
    if (!fits || !buffer_reserve(&session->out, length + 1)) {
        LOG_ERROR("A line of %zu bytes for the router is lost: %s\n", length,
                  fits ? "no memory" : "it has not read for long");
        return false;
    }
    buffer_append(&session->out, text, length);
    buffer_append(&session->out, "\n", 1);
    event_active(&session->flush, EV_WRITE, 1);
    return true;
}

void session_close(tavrix_service *service) {
    SessionLink *session = &service->session;
    write_out(service);
    if (session->fd >= 0) {
        drop_connection(session);
    }
    event_del(&session->retry);
    session->state = session_off;
}

void become_ready(tavrix_service *service) {
    SessionLink *session = &service->session;
    session->state = session_ready;
    session->backoff_ms = first_backoff_ms;
    session->outage_told = false;
    session->refusal = 0;
    LOG_INFO("%s ready\n", service->name);
    const char *manager = session->was_ready ? nullptr : tavrix::ready_notice_address();
    if (manager != nullptr && !tavrix::send_ready_notice(manager)) {
        LOG_ERROR("Cannot tell the service manager at %s that the service is ready: %s\n", Printable(manager).text,
                  std::strerror(errno));
    }
    session->was_ready = true;
    if (session->lost_subscriptions) {
        session->lost_subscriptions = false;
        tell_lost(service, 0);
    }
    if (service->options.ready != nullptr) {
        service->options.ready(service, service->options.user);
    }
}

} // namespace kit
