#include "router.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <random>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/log.h"
#include "common/service.h"
#include "common/signals.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_jrpc_utils.h"

namespace router {

namespace {

using daemon_support::Interruption;
using daemon_support::signal_descriptor;
using daemon_support::stop_requested;
using daemon_support::Text;

constexpr char unit_name[] = "router";
constexpr std::chrono::milliseconds probe_interval{200};
constexpr std::chrono::seconds probe_time{5};
constexpr std::chrono::milliseconds tcp_attempt_interval{1000};
constexpr int pause_ms = 200;
constexpr int messages_per_turn = 100;
constexpr size_t max_shown = 200;
constexpr char own_prefix[] = "router.";
constexpr const char *service_channels[] = {TAVRIX_CHANNEL_FIRST, TAVRIX_CHANNEL_EVENTS, TAVRIX_CHANNEL_INTERFACES,
                                            TAVRIX_CHANNEL_DEFAULT};

Router *the_router = nullptr;

// --- The router's own methods --------------------------------------------------------------------------------------

int on_hello(json_t *params, json_t ** /*result*/, json_t **error_data) {
    std::array<char, 64> name{};
    std::array<char, 64> channel{};
    int rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "name", name.data(), name.size());
    if (rc == TAVRIX_OK) {
        rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "channel", channel.data(), channel.size());
    }
    return rc == TAVRIX_OK ? the_router->welcome(name.data(), channel.data()) : rc;
}

int on_lock(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) {
    the_router->set_locked(true);
    return TAVRIX_OK;
}

int on_unlock(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) {
    the_router->set_locked(false);
    return TAVRIX_OK;
}

int on_status(json_t * /*params*/, json_t **result, json_t ** /*error_data*/) {
    *result = the_router->status();
    return TAVRIX_OK;
}

/** What a client of the unix socket may ask of the router itself. */
constexpr tavrix_jrpc_method own_methods[] = {
    {"router.Lock", on_lock},
    {"router.Unlock", on_unlock},
    {"router.Status", on_status},
    {nullptr, nullptr},
};

/** What daemons may tell the router over the bus. */
constexpr tavrix_jrpc_method notifications[] = {
    {daemon_support::hello_method, on_hello},
    {"router.Lock", on_lock},
    {"router.Unlock", on_unlock},
    {daemon_support::reload_method, tavrix_lsyslog_reload_conf_api},
    {nullptr, nullptr},
};

// --- Helpers -------------------------------------------------------------------------------------------------------

pollfd readable(int descriptor) { return pollfd{descriptor, POLLIN, 0}; }

std::string text_member(const json_t *object, const char *key) {
    const char *text = json_string_value(json_object_get(object, key));
    return text != nullptr ? text : "";
}

/** The text with everything but printable ASCII as \xHH: a client's words must not make log lines of their own. */
std::string printable(const std::string &text) {
    std::string safe;
    for (const char c : text) {
        if (safe.size() >= max_shown) {
            return safe + "..."; // a longer line would lose its end, and the next one its beginning
        }
        char escaped[5] = {c, '\0'};
        if (c < ' ' || c > '~' || c == '\\') {
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        }
        safe += escaped;
    }
    return safe;
}

bool is_valid_id(const json_t *id) { return json_is_string(id) || json_is_number(id); }

bool is_notification(const json_t *message) {
    return json_is_string(json_object_get(message, "method")) && json_object_get(message, "id") == nullptr;
}

/** The code for what the services' own evaluation would refuse without an answer; 0 when it would go on. */
int find_envelope_error(const json_t *request) {
    const json_t *transaction_id = json_object_get(request, "transaction_id");
    const json_t *params = json_object_get(request, "params");
    if (!is_valid_id(json_object_get(request, "id")) ||
        (transaction_id != nullptr && !json_is_number(transaction_id)) ||
        !json_is_string(json_object_get(request, "jsonrpc"))) {
        return TAVRIX_JRPC_INVALID_REQUEST;
    }
    if (text_member(request, "jsonrpc") != "2.0") {
        return TAVRIX_JRPC_VERSION_NOT_SUPPORTED;
    }
    if (params != nullptr && !json_is_object(params)) {
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    return json_is_string(json_object_get(request, "method")) ? 0 : TAVRIX_JRPC_METHOD_NOT_FOUND;
}

/** A method that no service may have, known or not. */
bool is_for_router(const std::string &method) { return method.rfind(own_prefix, 0) == 0; }

bool is_own_method(const std::string &method) {
    return std::any_of(std::begin(own_methods), std::end(own_methods),
                       [&](const tavrix_jrpc_method &own) { return own.name != nullptr && method == own.name; });
}

/** Gives the answer what the client's request had: its own transaction id, or none. */
void put_back_transaction_id(const json_t *request, json_t *answer) {
    json_t *transaction_id = json_object_get(request, "transaction_id");
    if (transaction_id != nullptr) {
        json_object_set(answer, "transaction_id", transaction_id);
    } else {
        json_object_del(answer, "transaction_id");
    }
}

/** Where to begin counting: elsewhere in each run, so that no reply to an earlier run's request fits. */
json_int_t random_transaction_id() { return static_cast<json_int_t>(std::random_device()() % INT_MAX); }

int milliseconds_until(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

/** Lets go of the processor for a moment when the system lacks what the next step needs. */
void pause_briefly() { poll(nullptr, 0, pause_ms); }

/**
 * Waits for one of the descriptors, the one of the signals among them. Nothing else in the router waits, but for the
 * reading of a request: a reload that is asked for is done here and interrupts nothing.
 */
template <size_t Count>
void wait_for(std::array<pollfd, Count> *descriptors, int timeout_ms) {
    if (poll(descriptors->data(), Count, timeout_ms) < 0 && errno != EINTR) {
        std::perror("poll");
        pause_briefly();
    }
    daemon_support::drain_signal_descriptor();
    if (daemon_support::take_reload_request()) {
        tavrix_lsyslog_reload_conf();
    }
}

bool has_gone(const StreamSocket &client) {
    pollfd state{*client.get(), 0, 0}; // hang-ups and errors are reported unasked
    return poll(&state, 1, 0) == 1;
}

} // namespace

// --- Set-up --------------------------------------------------------------------------------------------------------

Router::Router(Config config)
    : config_(std::move(config)), probe_until_(Clock::now() + probe_time), next_probe_(Clock::now() + probe_interval),
      last_transaction_id_(random_transaction_id()) {
    the_router = this;
}

Router::~Router() { the_router = nullptr; }

bool Router::open_bus() {
    if (tavrix_jrpc_mq_pub_init(config_.publish.c_str(), pub_.place()) != TAVRIX_OK) {
        LOG_ERROR("Cannot publish on %s\n", config_.publish.c_str());
        return false;
    }
    if (tavrix_jrpc_mq_sub_init(sub_.place(), 1) != TAVRIX_OK || !daemon_support::receive_large_messages(sub_)) {
        LOG_ERROR("Cannot make a subscriber\n");
        return false;
    }
    for (const std::string &address : config_.connect) {
        if (tavrix_jrpc_mq_sub_set_channel(address.c_str(), TAVRIX_ROUTER_REPLY_CHANNEL, sub_.place()) != TAVRIX_OK) {
            sub_.forget(); // closed by the failed call
            LOG_ERROR("Cannot listen to %s\n", address.c_str());
            return false;
        }
    }
    // Only what is there is received, poll does the waiting.
    return tavrix_mq_socket_set_timeout(*sub_.get(), 0) == TAVRIX_OK &&
           tavrix_mq_socket_recvfd(*sub_.get(), &sub_descriptor_) == TAVRIX_OK;
}

/** A port that nobody serves but that is not free, held by connections of an earlier run, is tried again from the loop.
 */
bool Router::open_tcp() {
    if (config_.tcp_port == 0 ||
        tavrix_tcp_socket_init(static_cast<unsigned>(config_.tcp_port), tcp_listener_.place(), 1) == TAVRIX_OK) {
        return true;
    }
    if (tcp_port_is_served(config_.tcp_port, config_.client_timeout_ms)) {
        LOG_ERROR("Cannot listen on TCP port %d: somebody serves there\n", config_.tcp_port);
        return false;
    }
    LOG_WARNING("Cannot listen on TCP port %d yet, trying again\n", config_.tcp_port);
    next_tcp_attempt_ = Clock::now() + tcp_attempt_interval;
    return true;
}

bool Router::open() { return open_bus() && unix_listener_.open(config_.socket_path) && open_tcp(); }

// --- Loop ----------------------------------------------------------------------------------------------------------

/** Asks services that were there before the router to say hello. */
void Router::probe_services() {
    const std::string text = std::string(R"({"jsonrpc":"2.0","method":")") + daemon_support::probe_method + "\"}";
    for (const char *channel : service_channels) {
        tavrix_jrpc_mq_pub(pub_.get(), channel, text.c_str());
    }
}

void Router::try_tcp_again() {
    if (tavrix_tcp_socket_init(static_cast<unsigned>(config_.tcp_port), tcp_listener_.place(), 1) == TAVRIX_OK) {
        LOG_INFO("Listening on TCP port %d\n", config_.tcp_port);
    }
}

bool Router::lacks_services() const { return services_.size() < config_.connect.size() && Clock::now() < probe_until_; }

bool Router::lacks_tcp() const { return config_.tcp_port > 0 && !tcp_listener_.is_open(); }

/** Does what its time has come for; gives how long the loop may wait for the next time. */
int Router::do_what_is_due() {
    if (lacks_services() && Clock::now() >= next_probe_) {
        probe_services();
        next_probe_ = Clock::now() + probe_interval;
    }
    if (lacks_tcp() && Clock::now() >= next_tcp_attempt_) {
        try_tcp_again();
        next_tcp_attempt_ = Clock::now() + tcp_attempt_interval;
    }
    const int until_probe_ms = lacks_services() ? milliseconds_until(next_probe_) : INT_MAX;
    const int until_tcp_ms = lacks_tcp() ? milliseconds_until(next_tcp_attempt_) : INT_MAX;
    return std::min(until_probe_ms, until_tcp_ms);
}

void Router::serve() {
    LOG_INFO("routerd ready\n");
    while (!stop_requested()) {
        const int timeout_ms = do_what_is_due();
        std::array<pollfd, 4> descriptors = {readable(signal_descriptor()), readable(sub_descriptor_),
                                             readable(*unix_listener_.socket().get()), readable(*tcp_listener_.get())};
        wait_for(&descriptors, timeout_ms);
        take_other_messages();
        if (descriptors[2].revents != 0) {
            serve_client(unix_listener_.socket(), true);
        }
        if (descriptors[3].revents != 0) {
            serve_client(tcp_listener_, false);
        }
    }
    LOG_INFO("routerd stopped\n");
}

// --- Requests ------------------------------------------------------------------------------------------------------

/** Accepts a client and reads its request; answers it here when there is none. */
bool Router::take_request(const StreamSocket &listener, StreamSocket *client, Json *request) {
    const Interruption bound(config_.client_timeout_ms);
    json_t *parsed = nullptr;
    const int rc = tavrix_jrpc_router_socket_extract_request(listener.get(), client->place(), &parsed);
    request->reset(parsed);
    if (rc == TAVRIX_OK) {
        return true;
    }
    if (!client->is_open()) {
        pause_briefly(); // no descriptor to spare, perhaps: the client waits on the listener
    } else if (!stop_requested()) {
        LOG_WARNING("%s\n", bound.happened() ? "A client said nothing in time" : "A client sent no JSON object");
        answer_error(*client, bound.happened() ? TAVRIX_JRPC_TIMED_OUT : TAVRIX_JRPC_INVALID_REQUEST, nullptr);
    }
    return false;
}

void Router::serve_client(const StreamSocket &listener, bool trusted) {
    StreamSocket client;
    Json request;
    if (take_request(listener, &client, &request)) {
        handle_request(std::move(request), client, trusted);
    }
}

void Router::handle_request(Json request, const StreamSocket &client, bool trusted) {
    const std::string method = text_member(request.get(), "method");
    if (is_notification(request.get())) {
        LOG_WARNING("Refused the notification %s of a client\n", printable(method).c_str());
        return;
    }
    const int envelope_error = find_envelope_error(request.get());
    if (envelope_error != 0) {
        LOG_WARNING("Refused a malformed request\n");
        answer_error(client, envelope_error, request.get());
    } else if (is_own_method(method) && trusted) {
        const Text text(json_dumps(request.get(), JSON_COMPACT));
        char *response = nullptr;
        tavrix_jrpc_eval_request(text ? text.get() : "", own_methods, &response);
        const Text owner(response);
        deliver(client, response != nullptr ? response : "");
    } else if (is_for_router(method)) {
        LOG_WARNING("Refused %s%s\n", printable(method).c_str(), trusted ? "" : " over TCP");
        answer_error(client, TAVRIX_JRPC_METHOD_NOT_FOUND, request.get());
    } else if (locked_) {
        LOG_INFO("Locked: refused %s\n", printable(method).c_str());
        answer_locked(client, request.get());
    } else {
        tavrix_lsyslog_is_json_method_lsyslog(method.c_str()); // the router's own logger rereads too
        forward(std::move(request), client);
    }
}

void Router::forward(Json request, const StreamSocket &client) {
    last_transaction_id_ = last_transaction_id_ % INT_MAX + 1;
    const Json on_bus(json_deep_copy(request.get()));
    json_object_set_new(on_bus.get(), "transaction_id", json_integer(last_transaction_id_));
    const Pending pending{std::move(request), text_member(on_bus.get(), "method"), last_transaction_id_};
    if (tavrix_jrpc_router_mq_dispatch_request(pub_.get(), on_bus.get()) != TAVRIX_OK) {
        LOG_ERROR("Cannot publish %s\n", printable(pending.method).c_str());
        answer_error(client, TAVRIX_JRPC_INTERNAL_ERROR, pending.request.get());
        return;
    }
    if (pending.method == daemon_support::reload_method && services_.empty()) {
        answer_reloaded(client, pending.request.get());
        return;
    }
    await_reply(pending, client);
}

// --- Replies -------------------------------------------------------------------------------------------------------

/** One message in each turn: whatever else floods the bus, the client, the signals and the end are looked at. */
void Router::await_reply(const Pending &pending, const StreamSocket &client) {
    const auto end = Clock::now() + std::chrono::milliseconds(config_.reply_timeout_ms);
    for (int left_ms = milliseconds_until(end); left_ms > 0; left_ms = milliseconds_until(end)) {
        left_ms = std::min(left_ms, do_what_is_due());
        std::array<pollfd, 3> descriptors = {readable(signal_descriptor()), readable(sub_descriptor_),
                                             pollfd{*client.get(), 0, 0}};
        wait_for(&descriptors, left_ms);
        if (stop_requested()) {
            return;
        }
        const Json message = descriptors[1].revents != 0 ? next_message() : nullptr;
        if (is_reply_to(pending, message.get())) {
            put_back_transaction_id(pending.request.get(), message.get());
            answer(client, message.get());
            ++served_;
            return;
        }
        handle_other(message.get());
        if (has_gone(client)) {
            LOG_INFO("The client of %s has gone\n", printable(pending.method).c_str());
            return;
        }
    }
    ++timeouts_;
    LOG_WARNING("No reply to %s in time\n", printable(pending.method).c_str());
    answer_timed_out(client, pending.request.get());
}

bool Router::is_reply_to(const Pending &pending, const json_t *message) const {
    const json_t *transaction_id = json_object_get(message, "transaction_id");
    return text_member(message, "id") == pending.method && json_is_integer(transaction_id) &&
           json_integer_value(transaction_id) == pending.transaction_id;
}

/** Takes the next message that has arrived; null when it is none of JSON, which is counted here. */
Json Router::next_message() {
    json_t *received = nullptr;
    const int rc = tavrix_jrpc_router_mq_extract_response(sub_.get(), &received);
    if (rc != TAVRIX_OK && rc != TAVRIX_ERR_MQ_TIMEOUT && !stop_requested()) {
        LOG_WARNING("Discarded a message that is no JSON object\n");
        ++discarded_;
    }
    return Json(received);
}

bool Router::message_waiting() const {
    pollfd state = readable(sub_descriptor_);
    return !stop_requested() && poll(&state, 1, 0) == 1;
}

/** What arrives while no request is in flight; a part of it when it is much, so that clients are not kept waiting. */
void Router::take_other_messages() {
    for (int left = messages_per_turn; left > 0 && message_waiting(); --left) {
        handle_other(next_message().get());
    }
}

void Router::handle_other(json_t *message) {
    if (message == nullptr) {
        return;
    }
    if (is_notification(message)) {
        tavrix_jrpc_router_eval_notification(message, notifications);
        return;
    }
    const std::string method = text_member(message, "id");
    if (method == daemon_support::reload_method) {
        return; // every service replies to it, and one reply is all that is awaited
    }
    ++discarded_;
    LOG_WARNING("Discarded a left-over reply of %s\n", printable(method).c_str());
}

// --- Answers -------------------------------------------------------------------------------------------------------

/**
 * Sends the whole text, which the library's one send does not when it is longer than the client's buffer has room for.
 * A client that does not read holds up the others no longer than one that does not write.
 */
void Router::deliver(const StreamSocket &client, const char *text) const {
    const auto end = Clock::now() + std::chrono::milliseconds(config_.client_timeout_ms);
    size_t left = std::strlen(text);
    while (left > 0) {
        const ssize_t sent = send(*client.get(), text, left, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            text += sent;
            left -= static_cast<size_t>(sent);
            continue;
        }
        const int left_ms = milliseconds_until(end);
        if ((errno != EAGAIN && errno != EINTR) || left_ms == 0 || stop_requested()) {
            LOG_WARNING("A client did not take its answer\n");
            return;
        }
        std::array<pollfd, 2> descriptors = {readable(signal_descriptor()), pollfd{*client.get(), POLLOUT, 0}};
        wait_for(&descriptors, left_ms);
    }
}

void Router::answer(const StreamSocket &client, const json_t *response) const {
    const Text text(json_dumps(response, JSON_COMPACT | JSON_ENSURE_ASCII));
    if (text) {
        deliver(client, text.get());
    }
}

/** An error response with the request's own id and transaction id as far as they are valid. */
void Router::answer_error(const StreamSocket &client, int jrpc_code, json_t *request) const {
    json_t *id = json_object_get(request, "id");
    json_t *transaction_id = json_object_get(request, "transaction_id");
    const Json no_id(json_null());
    const Text response(tavrix_jrpc_create_error(jrpc_code, is_valid_id(id) ? id : no_id.get(), nullptr, 0,
                                                 json_is_number(transaction_id) ? transaction_id : nullptr));
    if (response) {
        deliver(client, response.get());
    }
}

/** What a service would answer, when the router knows of none: its own logger has reread. */
void Router::answer_reloaded(const StreamSocket &client, json_t *request) const {
    const Json result(json_integer(TAVRIX_OK));
    const Text response(tavrix_jrpc_create_response(result.get(), json_object_get(request, "method"), 0,
                                                    json_object_get(request, "transaction_id")));
    if (response) {
        deliver(client, response.get());
    }
}

void Router::answer_locked(const StreamSocket &client, json_t *request) const {
    json_t *response = nullptr;
    if (tavrix_jrpc_router_create_system_lock_response(request, &response) != TAVRIX_OK) {
        answer_error(client, TAVRIX_JRPC_SYSTEM_BUSY, request); // an id that is a number
        return;
    }
    const Json owner(response);
    answer(client, response);
}

void Router::answer_timed_out(const StreamSocket &client, json_t *request) const {
    const char *id = json_string_value(json_object_get(request, "id"));
    const json_t *transaction_id = json_object_get(request, "transaction_id");
    const json_int_t number = json_integer_value(transaction_id);
    const bool fits =
        transaction_id == nullptr || (json_is_integer(transaction_id) && number >= INT_MIN && number <= INT_MAX);
    json_t *response = nullptr;
    if (id == nullptr || !fits ||
        tavrix_jrpc_router_create_system_timeout_response(id, static_cast<int>(number), &response) != TAVRIX_OK) {
        answer_error(client, TAVRIX_JRPC_TIMED_OUT, request); // carries the very same id and transaction id
        return;
    }
    const Json owner(response);
    answer(client, response);
}

// --- For the router's own methods ----------------------------------------------------------------------------------

int Router::welcome(const std::string &name, const std::string &channel) {
    if (channel.empty() || channel.find('|') != std::string::npos) {
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    std::string &known_channel = services_[name];
    if (known_channel != channel) {
        known_channel = channel;
        LOG_INFO("Service %s settled on channel %s\n", printable(name).c_str(), printable(channel).c_str());
    }
    const Json message(json_pack("{s:s, s:s, s:{s:s}}", "jsonrpc", "2.0", "method", daemon_support::welcome_method,
                                 "params", "name", name.c_str()));
    const Text text(json_dumps(message.get(), JSON_COMPACT));
    return text ? tavrix_jrpc_mq_pub(pub_.get(), channel.c_str(), text.get()) : TAVRIX_ERR_NO_MEMORY;
}

void Router::set_locked(bool locked) {
    locked_ = locked;
    LOG_INFO("The system is %s\n", locked ? "locked" : "unlocked");
}

json_t *Router::status() const {
    json_t *names = json_array();
    for (const auto &[name, channel] : services_) {
        json_array_append_new(names, json_string(name.c_str()));
    }
    return json_pack("{s:b, s:o, s:i, s:i, s:i}", "locked", locked_ ? 1 : 0, "services", names, "served",
                     static_cast<int>(served_), "timeouts", static_cast<int>(timeouts_), "discarded",
                     static_cast<int>(discarded_));
}

} // namespace router
