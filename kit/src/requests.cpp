/*
 * Requests to others: a record and a timer each until one outcome is told; subscriptions, and what is published.
 *
 * A request's number is its id on the wire, so a response finds its record without a search, and one that comes too
 * late finds none.
 */
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "internal.h"

namespace kit {

namespace {

constexpr char unit_name[] = "service_requests";

struct Request {
    Entry entry;
    Alarm timer;
    tavrix_service *service;
    char *waiting; ///< the line, until there is a session to send it over
    tavrix_answer_callback callback;
    void *user;
};

struct Subscription {
    Entry entry;
    tavrix_notification_callback callback;
    void *user;
    bool over;
    char pattern[1]; ///< the rest of it lies behind
};

// --- Outcomes ------------------------------------------------------------------------------------------------------

void forget_request(Request *request) {
    clear_alarm(&request->timer);
    leave(&request->service->directory, &request->entry);
    std::free(request->waiting);
    unmake(request);
}

/** The record is gone before the callback runs: it may make new requests, and end others. */
void end_request(Request *request, const tavrix_answer &answer) {
    tavrix_service *service = request->service;
    const tavrix_answer_callback callback = request->callback;
    void *user = request->user;
    forget_request(request);
    callback(service, &answer, user);
}

tavrix_answer failure(tavrix_outcome outcome) {
    const int code = outcome == TAVRIX_OUTCOME_TIMEOUT ? TAVRIX_JRPC_TIMED_OUT
                     : outcome == TAVRIX_OUTCOME_GONE  ? TAVRIX_JRPC_METHOD_NOT_FOUND
                                                       : 0;
    return {outcome, nullptr, code, code != 0 ? tavrix_jrpc_error_message(code) : "Cancelled", nullptr};
}

void on_timeout(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    end_request(static_cast<Request *>(argument), failure(TAVRIX_OUTCOME_TIMEOUT));
}

tavrix_answer answer_of(const json_t *response) {
    json_t *error = json_object_get(response, "error");
    if (error == nullptr) {
        return {TAVRIX_OUTCOME_RESULT, json_object_get(response, "result"), 0, "", nullptr};
    }
    const int code = static_cast<int>(json_integer_value(json_object_get(error, "code")));
    const char *message = json_string_value(json_object_get(error, "message"));
    json_t *data = json_object_get(error, "data");
    tavrix_outcome outcome = TAVRIX_OUTCOME_ERROR;
    if (code == TAVRIX_JRPC_TIMED_OUT) {
        outcome = TAVRIX_OUTCOME_TIMEOUT;
    } else if (code == TAVRIX_JRPC_METHOD_NOT_FOUND && json_object_get(data, "channel") != nullptr) {
        outcome = TAVRIX_OUTCOME_GONE; // the router names the channel that nobody serves
    }
    return {outcome, nullptr, code, message != nullptr ? message : "", data};
}

uint64_t cannot_request(const char *method, const char *why) {
    LOG_ERROR("Cannot call %s: %s\n", Printable(method).text, why);
    return 0;
}

// --- Subscriptions --------------------------------------------------------------------------------------------------

void on_subscribed(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    if (answer->outcome == TAVRIX_OUTCOME_ERROR || answer->outcome == TAVRIX_OUTCOME_TIMEOUT) {
        LOG_ERROR("The router refuses a subscription: %s\n", words_of(answer).text);
    }
}

/** False without memory; without a connection there is nobody to tell yet. The patterns are taken. */
bool send_patterns(tavrix_service *service, const char *method, json_t *patterns) {
    if (!session_is_connected(service)) {
        json_decref(patterns);
        return true;
    }
    json_t *params = json_pack("{s:o}", "methods", patterns);
    return params != nullptr && send_request(service, method, params, control_timeout_ms, on_subscribed, nullptr) != 0;
}

Subscription *first_subscription(const tavrix_service *service) {
    return first_of<Subscription>(service->directory.lists[entry_subscription]);
}

bool is_pattern_used(const tavrix_service *service, const char *pattern) {
    for (auto *one = first_subscription(service); one != nullptr; one = next_of(one)) {
        if (!one->over && std::strcmp(one->pattern, pattern) == 0) {
            return true;
        }
    }
    return false;
}

void free_ended_subscriptions(tavrix_service *service) {
    Subscription *next = nullptr;
    for (auto *one = first_subscription(service); one != nullptr; one = next) {
        next = next_of(one);
        if (one->over && service->notifying == 0) {
            leave(&service->directory, &one->entry);
            unmake(one);
        }
    }
}

} // namespace

Printable words_of(const tavrix_answer *answer) {
    const char *message = json_string_value(json_object_get(answer->data, "message"));
    return Printable(message != nullptr ? message : answer->message);
}

Text request_text(const char *method, json_t *params, uint64_t id) {
    const Json message = id != 0 ? tavrix::make_request(method, params, json_integer(static_cast<json_int_t>(id)))
                                 : tavrix::make_notification(method, params);
    return Text(json_dumps(message.get(), wire_flags));
}

uint64_t send_request(tavrix_service *service, const char *method, json_t *params, int timeout_ms,
                      tavrix_answer_callback callback, void *user) {
    Json params_owner(params);
    auto *request = make<Request>();
    if (request == nullptr) {
        return cannot_request(method, "no memory");
    }
    request->service = service;
    request->callback = callback;
    request->user = user;
    evtimer_assign(&request->timer.ready, service->base, on_timeout, request);
    const uint64_t number = enter(&service->directory, &request->entry, entry_request);
    const bool ends_in_time = set_alarm(&request->timer, timeout_ms);
    Text text = request_text(method, params_owner.release(), number);
    const size_t length = text ? std::strlen(text.get()) : 0;
    const Obstacle obstacle(text ? text.get() : "", max_request_line);
    const char *why = nullptr;
    if (!ends_in_time) {
        why = "no memory";
    } else if (!text) {
        why = "no memory, or no UTF-8";
    } else if (length >= max_request_line) {
        static_assert(max_request_line == 65536);
        why = "a request has at most 65535 bytes";
    } else if (obstacle) {
        why = obstacle.words;
    } else if (!session_is_connected(service)) {
        request->waiting = text.release();
    } else if (!session_write(service, text.get(), length)) {
        why = "the line to the router is full";
    }
    if (why != nullptr) {
        forget_request(request);
        return cannot_request(method, why);
    }
    return number;
}

void take_response(tavrix_service *service, const json_t *response) {
    const json_t *id = json_object_get(response, "id");
    const uint64_t number = json_is_integer(id) ? static_cast<uint64_t>(json_integer_value(id)) : 0;
    auto *request = reinterpret_cast<Request *>(find(&service->directory, number, entry_request));
    if (request == nullptr) {
        LOG_DEBUG("A response came when nobody waited for it any more\n");
        return;
    }
    end_request(request, answer_of(response));
}

void end_requests(tavrix_service *service, tavrix_outcome outcome, bool sent_only) {
    const uint64_t newest = service->directory.last_number; // what the callbacks begin is not ended with them
    const EntryList &list = service->directory.lists[entry_request];
    auto *request = first_of<Request>(list);
    while (request != nullptr && request->entry.number <= newest) {
        if (sent_only && request->waiting != nullptr) {
            request = next_of(request);
            continue;
        }
        end_request(request, failure(outcome));
        request = first_of<Request>(list);
    }
}

bool cancel_request(tavrix_service * /*service*/, Entry *entry) {
    end_request(reinterpret_cast<Request *>(entry), failure(TAVRIX_OUTCOME_CANCELLED));
    return true;
}

bool send_what_waits(tavrix_service *service) {
    Json patterns(json_array());
    size_t count = 0;
    for (auto *one = first_subscription(service); one != nullptr; one = next_of(one)) {
        if (!one->over) {
            json_array_append_new(patterns.get(), json_string(one->pattern));
            ++count;
        }
    }
    if (count > 0 &&
        (json_array_size(patterns.get()) != count || !send_patterns(service, names::subscribe, patterns.release()))) {
        return false;
    }
    const EntryList &list = service->directory.lists[entry_request];
    for (auto *request = first_of<Request>(list); request != nullptr; request = next_of(request)) {
        if (request->waiting != nullptr && session_write(service, request->waiting, std::strlen(request->waiting))) {
            std::free(request->waiting);
            request->waiting = nullptr;
        }
    }
    return true;
}

void take_notification(tavrix_service *service, const json_t *message, const char *method) {
    const uint64_t newest = service->directory.last_number; // what the callbacks subscribe to begins with the next one
    ++service->notifying;
    for (auto *one = first_subscription(service); one != nullptr && one->entry.number <= newest; one = next_of(one)) {
        if (!one->over && matches(one->pattern, method)) {
            one->callback(service, method, json_object_get(message, "params"), one->user);
        }
    }
    --service->notifying;
    free_ended_subscriptions(service);
}

void tell_lost(tavrix_service *service, uint64_t count) {
    if (first_subscription(service) == nullptr) {
        return;
    }
    if (count > 0) {
        LOG_ERROR("%llu notifications are lost: %s did not read them in time\n", static_cast<unsigned long long>(count),
                  service->name);
    }
    if (service->lost != nullptr) {
        service->lost(service, count, service->lost_user);
    }
}

bool cancel_subscription(tavrix_service *service, Entry *entry) {
    auto *subscription = reinterpret_cast<Subscription *>(entry);
    if (subscription->over) {
        return false;
    }
    subscription->over = true;
    if (!is_pattern_used(service, subscription->pattern)) {
        send_patterns(service, names::unsubscribe, json_pack("[s]", subscription->pattern));
    }
    free_ended_subscriptions(service);
    return true;
}

} // namespace kit

using namespace kit;

// --- Calls to others -----------------------------------------------------------------------------------------------

uint64_t tavrix_service_request(tavrix_service *service, const char *method, json_t *params, int timeout_ms,
                                tavrix_answer_callback callback, void *user) {
    Json owner(params);
    if (service == nullptr || callback == nullptr || !is_method_name(method) || timeout_ms < 1) {
        return cannot_request(method, "it has no service, no name, no time or no callback");
    }
    if (params != nullptr && !json_is_object(params)) {
        return cannot_request(method, "its params are no object");
    }
    if (service->stopping) {
        return cannot_request(method, "the service ends");
    }
    if (service->session.path[0] == '\0') {
        return cannot_request(method, "this service has no session; name the router's session socket");
    }
    if (service->directory.lists[entry_request].count >= TAVRIX_SERVICE_MAX_REQUESTS) {
        return cannot_request(method, "too many calls are in flight");
    }
    return send_request(service, method, owner.release(), timeout_ms, callback, user);
}

// --- The waiting form ----------------------------------------------------------------------------------------------

namespace {

/** A connection of its own, for one request. */
struct Conversation {
    int64_t end_ms;
    tavrix::Descriptor fd;
    Buffer in{};
    Buffer out{};

    ~Conversation() {
        buffer_free(&in);
        buffer_free(&out);
    }
    /** 0 when the descriptor is ready; -2 when the time is over. */
    int wait(short events) const {
        for (;;) {
            const int64_t left = end_ms - now_ms();
            pollfd descriptor{fd.get(), events, 0};
            const int ready = left > 0 ? poll(&descriptor, 1, static_cast<int>(left)) : 0;
            if (ready >= 0 || errno != EINTR) {
                return ready > 0 ? TAVRIX_OK : TAVRIX_ERR_TIMEOUT;
            }
        }
    }
};

int send_line(Conversation *conversation, const char *text) {
    Buffer *out = &conversation->out;
    if (!buffer_append(out, text, std::strlen(text)) || !buffer_append(out, "\n", 1)) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    int reason = 0;
    while ((reason = buffer_send(out, conversation->fd.get())) == EAGAIN) {
        const int rc = conversation->wait(POLLOUT);
        if (rc != TAVRIX_OK) {
            return rc;
        }
    }
    return reason == 0 ? TAVRIX_OK : TAVRIX_ERR_NO_RESPONSE;
}

/** Reads until a line is there. */
int read_line(Conversation *conversation) {
    Buffer *in = &conversation->in;
    while (in->size() == 0 || std::memchr(in->data(), '\n', in->size()) == nullptr) {
        int rc = conversation->wait(POLLIN);
        if (rc == TAVRIX_OK && !buffer_reserve(in, 4096)) {
            rc = TAVRIX_ERR_NO_MEMORY;
        }
        if (rc != TAVRIX_OK) {
            return rc;
        }
        const ssize_t count = recv(conversation->fd.get(), in->bytes + in->end, in->capacity - in->end, 0);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR) || in->size() > max_reply_line) {
            return TAVRIX_ERR_NO_RESPONSE;
        }
        in->end += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return TAVRIX_OK;
}

} // namespace

int tavrix_request_wait(const char *session, const char *method, json_t *params, int timeout_ms,
                        json_t **response_out) {
    Json owner(params);
    if (response_out == nullptr || method == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (!is_method_name(method) || timeout_ms < 1 || (params != nullptr && !json_is_object(params))) {
        return TAVRIX_ERR_PARAMETER;
    }
    if (is_inside_a_loop()) {
        LOG_WARNING("Waiting for %s: nothing else is served meanwhile\n", Printable(method).text);
    }
    const char *path = tavrix::session_path(session);
    if (std::strlen(path) > TAVRIX_SOCKET_MAX_PATH) {
        return TAVRIX_ERR_PARAMETER;
    }
    Conversation conversation{now_ms() + timeout_ms, tavrix::connect_unix(path)};
    if (!conversation.fd) {
        LOG_ERROR("Cannot reach the router at %s: %s; is it running?\n", Printable(path).text, std::strerror(errno));
        return TAVRIX_ERR_CONNECT_TIMEOUT;
    }
    const Text text = request_text(method, owner.release(), 1);
    if (!text) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    if (const Obstacle obstacle(text.get(), SIZE_MAX); obstacle) {
        cannot_request(method, obstacle.words);
        return TAVRIX_ERR_PARAMETER;
    }
    int rc = send_line(&conversation, text.get());
    rc = rc == TAVRIX_OK ? read_line(&conversation) : rc;
    if (rc != TAVRIX_OK) {
        if (is_single_answer(conversation.in)) {
            LOG_ERROR("Cannot call %s: the socket takes single requests, it is not the router's session socket\n",
                      Printable(method).text);
        }
        return rc;
    }
    const Buffer &in = conversation.in;
    Json response(json_loadb(in.data(), in.size(), parse_flags, nullptr));
    if (!json_is_object(response.get())) {
        return TAVRIX_ERR_NO_RESPONSE;
    }
    *response_out = response.release();
    return TAVRIX_OK;
}

// --- Notifications -------------------------------------------------------------------------------------------------

int tavrix_service_publish(tavrix_service *service, const char *method, json_t *params) {
    Json owner(params);
    if (service == nullptr || method == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (!is_method_name(method) || (params != nullptr && !json_is_object(params))) {
        return TAVRIX_ERR_PARAMETER;
    }
    const Text text = request_text(method, owner.release(), 0);
    if (!text) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    const bool is_on_the_bus = service->bus.pub >= 0;
    if (const Obstacle obstacle(text.get(), is_on_the_bus ? bus_room(method) : max_answer_line); obstacle) {
        LOG_ERROR("Cannot publish %s: %s\n", method, obstacle.words);
        return TAVRIX_ERR_PARAMETER;
    }
    if (is_on_the_bus) {
        return bus_publish(service, method, text.get());
    }
    const bool written = session_write(service, text.get(), std::strlen(text.get()));
    return written ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

uint64_t tavrix_service_subscribe(tavrix_service *service, const char *pattern, tavrix_notification_callback callback,
                                  void *user) {
    if (service == nullptr || callback == nullptr || !is_method_name(pattern)) {
        LOG_ERROR("Cannot subscribe to %s: a pattern is a method's name, or the beginning of one and *\n",
                  Printable(pattern).text);
        return 0;
    }
    const bool is_new = !is_pattern_used(service, pattern);
    const size_t length = std::strlen(pattern);
    auto *subscription = static_cast<Subscription *>(std::calloc(1, sizeof(Subscription) + length));
    if (subscription == nullptr) {
        LOG_ERROR("Cannot subscribe to %s: no memory\n", pattern);
        return 0;
    }
    std::memcpy(subscription->pattern, pattern, length + 1);
    subscription->callback = callback;
    subscription->user = user;
    const uint64_t number = enter(&service->directory, &subscription->entry, entry_subscription);
    if (is_new && !send_patterns(service, names::subscribe, json_pack("[s]", pattern))) {
        LOG_ERROR("Cannot subscribe to %s: no memory\n", pattern);
        leave(&service->directory, &subscription->entry);
        unmake(subscription);
        return 0;
    }
    return number;
}

void tavrix_service_on_lost(tavrix_service *service, void (*lost)(tavrix_service *service, uint64_t count, void *user),
                            void *user) {
    if (service != nullptr) {
        service->lost = lost;
        service->lost_user = user;
    }
}
