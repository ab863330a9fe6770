#include "router.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <numeric>
#include <random>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"
#include "foreign_log.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_jrpc_utils.h"

namespace router {

namespace {

using daemon_support::add_after;
using daemon_support::Clock;
using std::chrono::milliseconds;
using tavrix::Text;

constexpr char unit_name[] = "router";
constexpr milliseconds probe_interval{200};
constexpr milliseconds time_unwatched{20};
constexpr std::chrono::seconds probe_time{5};
constexpr size_t most_reloads = 20;                                // a second
constexpr char reply_id[] = "\"" TAVRIX_ROUTER_REPLY_CHANNEL "\""; // what a service gets for the client's
Router *the_router = nullptr;

// --- What daemons may tell the router over the bus -----------------------------------------------------------------

int on_hello(json_t *params, json_t ** /*result*/, json_t **error_data) {
    std::array<char, 64> name{};
    std::array<char, 64> channel{};
    int rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "name", name.data(), name.size());
    if (rc == TAVRIX_OK) {
        rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "channel", channel.data(), channel.size());
    }
    if (rc == TAVRIX_OK) {
        rc = TAVRIX_ERR_GENERAL; // what the library called must not throw through it
        the_router->guard(nullptr, [&] {
            rc = the_router->hear_hello(name.data(), channel.data(), json_object_get(params, "number"));
        });
    }
    return rc;
}

int on_bus_lock(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) {
    the_router->set_locked(true);
    return TAVRIX_OK;
}

int on_bus_unlock(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) {
    the_router->set_locked(false);
    return TAVRIX_OK;
}

constexpr tavrix_jrpc_method notifications[] = {
    {names::hello, on_hello},
    {names::lock, on_bus_lock},
    {names::unlock, on_bus_unlock},
    {names::reload_conf, tavrix_lsyslog_reload_conf_api},
    {nullptr, nullptr},
};

// --- Helpers -------------------------------------------------------------------------------------------------------

/** Where to begin counting: elsewhere in each run, so that no reply to an earlier run's request fits. */
int random_number() { return static_cast<int>(std::random_device()() % INT_MAX); }

/** As many descriptors as the system grants: what is short is counted in clients, not in this. */
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
    }
}

/** Who calls, as a direct service that wants to know is told; empty where it is not told. */
std::string caller_text(const Service &service, const Peer &peer) {
    if (!service.callers || !peer.known) {
        return "";
    }
    return "{\"pid\":" + std::to_string(peer.process) + ",\"uid\":" + std::to_string(peer.user) +
           ",\"gid\":" + std::to_string(peer.groups.front()) + "}";
}

/** Who calls is the router's to say: a client's own word for it does not reach a service that might believe it. */
Edit caller_edit(std::string_view text) { return {"caller", text, true}; }

/** Sessions take these for the router's own word: nobody else may say them. */
bool is_for_router_to_say(const std::string &method) { return matches("router.*", method) || method == names::cancel; }

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

} // namespace

// --- Set-up --------------------------------------------------------------------------------------------------------

Router::Router(Config config)
    : config_(std::move(config)), base_(event_base_new()),
      bus_([this](std::string_view channel, std::string_view text) {
          guard(nullptr, [&] { take_frame(channel, text); });
      }),
      last_number_(random_number()), probe_until_(Clock::now() + probe_time) {
    the_router = this;
}

Router::~Router() {
    calls_.clear(); // before the clients and services that they belong to
    clients_.clear();
    graveyard_.clear();
    the_router = nullptr;
}

/** The folder of the bus is for this daemon's group: strangers neither listen nor speak. */
bool Router::make_bus_folder() const {
    for (const std::string &address : config_.publish) {
        const std::string folder = folder_of(address);
        struct stat state {};
        if (folder.empty()) {
            continue;
        }
        const bool is_new = mkdir(folder.c_str(), 0770) == 0;
        if ((!is_new && errno != EEXIST) || (is_new && chmod(folder.c_str(), 0770) != 0)) { // whatever the umask
            LOG_ERROR("Cannot make the bus folder %s: %s\n", folder.c_str(), std::strerror(errno));
            return false;
        }
        if (stat(folder.c_str(), &state) == 0 && (state.st_mode & S_IRWXO) != 0) {
            LOG_WARNING("Every local user may enter %s, and so the bus; mode 0770 keeps it to the group\n",
                        folder.c_str());
        }
    }
    return true;
}

bool Router::open_timers() {
    const auto time_out = [this](OneShot &client) { guard(&client, [&client] { client.time_out(); }); };
    client_deadlines_ =
        std::make_unique<daemon_support::Deadlines<OneShot>>(base(), milliseconds(config_.client_timeout_ms), time_out);
    patience_ = std::make_unique<daemon_support::Deadlines<OneShot>>(base(), time_unwatched, time_out);
    call_deadlines_ = std::make_unique<daemon_support::Deadlines<Call>>(
        base(), milliseconds(config_.reply_timeout_ms),
        [this](Call &call) { guard(&call.client, [this, &call] { expire(call); }); });
    turn_end_.reset(event_new(base(), -1, 0, on_turn_end, this));
    probe_timer_.reset(event_new(base(), -1, 0, on_probe_timer, this));
    settle_timer_.reset(event_new(base(), -1, EV_PERSIST, on_settle_timer, this));
    bool added = client_deadlines_->works() && patience_->works() && call_deadlines_->works() && turn_end_ &&
                 probe_timer_ && settle_timer_ && add_after(probe_timer_, probe_interval);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        signals_.emplace_back(evsignal_new(base(), number, on_signal, this));
        added = added && signals_.back() && event_add(signals_.back().get(), nullptr) == 0;
    }
    return added && std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

bool Router::open_listeners() {
    const auto one_shot = [this](Road road) {
        return [this, road](int descriptor) { admit<OneShot>(descriptor, road); };
    };
    return unix_listener_.open_unix(base(), config_.socket_path, one_shot(Road::unix_socket)) &&
           (config_.session_path.empty() ||
            session_listener_.open_unix(base(), config_.session_path,
                                        [this](int descriptor) { admit<Session>(descriptor, Road::session); })) &&
           (config_.tcp_port == 0 ||
            tcp_listener_.open_tcp(base(), config_.tcp_address, config_.tcp_port, one_shot(Road::tcp)));
}

bool Router::open() {
    raise_descriptor_limit();
    to_flush_.reserve(static_cast<size_t>(config_.max_clients));
    if (!base_ || !open_timers() || (!config_.policy.empty() && !policy_.read(config_.policy)) || !make_bus_folder() ||
        !bus_.open(base(), config_.publish)) {
        return false;
    }
    for (const std::string &address : config_.connect) {
        if (bus_.connect(address) < 0) {
            return false;
        }
    }
    return open_listeners();
}

bool Router::serve() {
    LOG_INFO("routerd ready\n");
    event_base_dispatch(base());
    LOG_INFO("routerd stopped\n");
    return !tcp_listener_.has_failed();
}

void Router::on_signal(evutil_socket_t number, short /*what*/, void *context) {
    auto *self = static_cast<Router *>(context);
    if (number != SIGHUP) {
        event_base_loopbreak(self->base());
        return;
    }
    tavrix_lsyslog_reload_conf();
    self->guard(nullptr, [self] {
        Policy fresh;
        if (!self->config_.policy.empty() && fresh.read(self->config_.policy)) {
            self->policy_ = std::move(fresh); // otherwise the one that was good stays
        }
    });
}

// --- Requests ------------------------------------------------------------------------------------------------------

void Router::refuse(Client &client, const json_t *request, int code, const std::string &why, const BatchPlace &batch) {
    ++statistics_.refused;
    client.answer(make_error(code, request, why.empty() ? nullptr : message_data(why)), batch);
}

/** Why the client may not have this method; empty when it may. */
std::string Router::find_refusal(const Client &client, const std::string &method, const json_t *request, int *code) {
    *code =
        json_object_get(request, "id") == nullptr ? TAVRIX_JRPC_INVALID_REQUEST : tavrix::find_envelope_error(request);
    if (*code != 0) {
        LOG_FOREIGN("Refused a malformed request\n");
        return "";
    }
    *code = TAVRIX_JRPC_METHOD_NOT_FOUND;
    if (!is_plain(method)) {
        LOG_FOREIGN("Refused %s\n", printable(method).c_str());
        return "a method's name has no control characters";
    }
    // Whoever may register may describe what they have registered.
    if (!policy_.allows(client.peer, method == names::describe ? names::register_service : method)) {
        if (client.peer.known) {
            LOG_FOREIGN("Refused %s to user %u\n", printable(method).c_str(), static_cast<unsigned>(client.peer.user));
        } else {
            LOG_FOREIGN("Refused %s over TCP\n", printable(method).c_str());
        }
        return "the policy does not allow this";
    }
    *code = 0;
    return "";
}

void Router::take_request(Client &client, Message message, const BatchPlace &batch) {
    json_t *request = message.value.get();
    const std::string method = text_member(request, "method");
    if (is_notification(request)) {
        count_refused();
        client.refuse_notification(method, batch);
        return;
    }
    int code = 0;
    const std::string refusal = find_refusal(client, method, request, &code);
    if (code != 0) {
        refuse(client, request, code, refusal, batch);
    } else if (is_reserved(method)) {
        if (!run_own(client, method, request, batch)) {
            LOG_FOREIGN("Refused %s\n", printable(method).c_str());
            refuse(client, request, TAVRIX_JRPC_METHOD_NOT_FOUND, "the router has no such method", batch);
        }
    } else if (locked_) {
        LOG_FOREIGN("Locked: refused %s\n", printable(method).c_str());
        answer_locked(client, request, batch);
    } else if (method == names::reload_conf) {
        reload(client, std::move(message), batch);
    } else {
        forward(client, method, message, batch);
    }
}

/** False when there is no such method, for this kind of client. */
bool Router::run_own(Client &client, const std::string &method, json_t *request, const BatchPlace &batch) {
    const auto *own = own_methods;
    while (own->name != nullptr && method != own->name) {
        ++own;
    }
    if (own->name == nullptr || (own->needs_session && client.peer.road != Road::session)) {
        return false;
    }
    Own call{client, json_object_get(request, "params"), request, batch, nullptr, {}, "", false};
    const int code = (this->*own->handler)(call);
    if (code != 0) {
        refuse(client, request, code, call.problem, batch);
    } else if (!call.is_deferred) {
        answer_own(client, request, &call);
    }
    return true;
}

void Router::answer_own(Client &client, json_t *request, Own *own) {
    Json id = share(json_object_get(request, client.gets_own_id() ? "id" : "method"));
    Json transaction_id = share(json_object_get(request, "transaction_id"));
    if (own->result_text.empty()) {
        client.answer(make_result(std::move(id), std::move(transaction_id),
                                  own->result ? std::move(own->result) : Json(json_integer(TAVRIX_OK))),
                      own->batch);
        return;
    }
    const Json envelope = make_result(std::move(id), std::move(transaction_id), Json(json_null()));
    std::string text = whole_text(envelope);
    text.replace(text.rfind("null"), 4, own->result_text); // an id, which might say so too, stands before it
    client.answer_text(text, own->batch);
}

void Router::answer_locked(Client &client, json_t *request, const BatchPlace &batch) {
    json_t *response = nullptr;
    if (tavrix_jrpc_router_create_system_lock_response(request, &response) != TAVRIX_OK) {
        response = make_error(TAVRIX_JRPC_SYSTEM_BUSY, request, nullptr).release(); // an id that is a number
    }
    ++statistics_.busy;
    client.answer(Json(response), batch);
}

/** The service that is to have the request; null, with the error's data, when there is none. */
Service *Router::find_service(const std::string &method, const std::string &channel, Json *why_not) {
    Service *offering = registry_.of_method(method);
    if (offering != nullptr && offering->state == Service::State::up) {
        return offering;
    }
    if (offering != nullptr) {
        *why_not = gone_data(*offering, method);
        return nullptr;
    }
    if (Service *described = registry_.of_discovery(method)) {
        return described;
    }
    if (Service *taker = registry_.taker_on(channel)) {
        return taker;
    }
    if (!config_.connect.empty() || registry_.heard_on(channel)) {
        return &registry_.listeners_on(channel);
    }
    const std::string message =
        registry_.is_served(channel) ? "no service offers " + method : "no service is there for " + method;
    *why_not = Json(
        json_pack("{s:o, s:n, s:s}", "message", json_string(message.c_str()), "service", "channel", channel.c_str()));
    return nullptr;
}

Json Router::gone_data(const Service &service, const std::string &method) const {
    const std::string message = service.name + ", which serves " + method + ", is not there";
    return Json(json_pack("{s:o, s:s, s:s}", "message", json_string(message.c_str()), "service", service.name.c_str(),
                          "channel", service.channel.c_str()));
}

Call *Router::begin_call(Client &client, Service &service, const std::string &method, const json_t *request,
                         const BatchPlace &batch) {
    do {
        last_number_ = last_number_ % INT_MAX + 1;
    } while (calls_.count(last_number_) > 0);
    auto call = std::make_unique<Call>(last_number_, client, service, method);
    call->id = share(json_object_get(request, "id"));
    call->transaction_id = share(json_object_get(request, "transaction_id"));
    call->batch = batch;
    call->deadline.take(*call_deadlines_, *call);
    return (calls_[last_number_] = std::move(call)).get();
}

/** Sends the request on under the router's own ids; the client's are kept in the call. */
bool Router::send(const Call &call, const Message &request) {
    const Service &service = call.service;
    const std::string number = std::to_string(call.number);
    const std::string caller = caller_text(service, call.client.peer);
    // The place of "id" is at the end, as from the library's own router.
    Edits edits = {{"transaction_id", number}, {"id", reply_id, true}};
    if (service.direct) {
        edits.push_back(caller_edit(caller));
    }
    std::string_view text;
    if (is_monitored(call.method)) {
        apply_edits(edits, request.value.get());
        show_traffic("request", &call, call.method, &service, nullptr, request.value.get());
        text = render(request.value.get());
    } else {
        text = renderer_.rewrite(request, edits);
    }
    if (text.empty()) {
        throw std::bad_alloc();
    }
    return service.direct ? service.session->send_request(text) : bus_.publish(service.channel, text);
}

/** True once the client has been told that this service has too much to do already. */
bool Router::is_overloaded(Service &service, Client &client, const json_t *request, const BatchPlace &batch) {
    std::string why;
    if (!service.has_room_for(account_of(client.peer), static_cast<size_t>(config_.max_in_flight),
                              milliseconds(config_.reply_timeout_ms))) {
        why = "too many requests in flight";
    } else if (service.direct && !service.session->takes_requests()) {
        why = service.name + " does not read its requests";
    }
    if (why.empty()) {
        return false;
    }
    ++statistics_.busy;
    client.answer(make_error(TAVRIX_JRPC_SYSTEM_BUSY, request, message_data(why)), batch);
    return true;
}

void Router::forward(Client &client, const std::string &method, const Message &message, const BatchPlace &batch) {
    json_t *request = message.value.get();
    Json why_not;
    Service *service = find_service(method, channel_of(method), &why_not);
    if (service == nullptr) {
        LOG_FOREIGN("There is no service for %s\n", printable(method).c_str());
        ++statistics_.refused;
        client.answer(make_error(TAVRIX_JRPC_METHOD_NOT_FOUND, request, std::move(why_not)), batch);
        return;
    }
    if (is_overloaded(*service, client, request, batch)) {
        return;
    }
    Call *call = begin_call(client, *service, method, request, batch);
    if (!send(*call, message)) {
        LOG_WITHIN(lines_of_clients, LOG_ERROR("Cannot send %s to its service\n", printable(method).c_str()));
        finish(*call, Outcome::error, make_error(TAVRIX_JRPC_INTERNAL_ERROR, call->id, nullptr, nullptr));
    }
}

/** Each reload makes every daemon read a file and log a line: a few a second are enough for whoever means well. */
bool Router::may_reload(const Client &client) {
    const auto now = Clock::now();
    if (now - reloads_since_ >= std::chrono::seconds(1)) {
        reloads_.clear();
        reloads_since_ = now;
    }
    const size_t total = std::accumulate(reloads_.begin(), reloads_.end(), size_t{0},
                                         [](size_t sum, const auto &share) { return sum + share.second; });
    if (!has_room(reloads_, account_of(client.peer), total, most_reloads)) {
        return false;
    }
    ++reloads_[account_of(client.peer)];
    return true;
}

/** Every service is told, and the first that has obeyed answers; without any the router has, and answers itself. */
void Router::reload(Client &client, Message request, const BatchPlace &batch) {
    if (!may_reload(client)) {
        ++statistics_.busy;
        client.answer(
            make_error(TAVRIX_JRPC_SYSTEM_BUSY, request.value.get(), message_data("too often: wait a second")), batch);
        return;
    }
    tavrix_lsyslog_is_json_method_lsyslog(names::reload_conf); // the router's own logger rereads too
    Service &everybody = registry_.listeners_on(TAVRIX_CHANNEL_DEFAULT);
    if (is_overloaded(everybody, client, request.value.get(), batch)) {
        return;
    }
    Call *call = begin_call(client, everybody, names::reload_conf, request.value.get(), batch);
    bool is_anybody_there = registry_.heard_count() > 0;
    request.text = {}; // several are told, each from its values
    send(*call, request);
    for (const auto &[name, service] : registry_.registered()) {
        if (service->state == Service::State::up) {
            is_anybody_there = true;
            if (service->direct && service->publish.empty()) { // it is not on the bus
                const std::string caller = caller_text(*service, client.peer);
                service->session->send_request(renderer_.rewrite(request, {caller_edit(caller)}));
            }
        }
    }
    if (!is_anybody_there) {
        finish(*call, Outcome::result,
               make_result(Json(json_string(names::reload_conf)), Json(json_integer(call->number)),
                           Json(json_integer(TAVRIX_OK))));
    }
}

// --- Answers -------------------------------------------------------------------------------------------------------

/** The one end of a call, whichever it is. The answer has the router's ids where it came from a service. */
void Router::finish(Call &call, Outcome outcome, Message answer) {
    const auto place = calls_.find(call.number);
    std::unique_ptr<Call> owner = std::move(place->second);
    calls_.erase(place);
    Client &client = call.client;
    guard(outcome == Outcome::cancelled ? nullptr : &client,
          [&] { give_answer(std::move(owner), outcome, std::move(answer)); });
}

void Router::give_answer(std::unique_ptr<Call> owner, Outcome outcome, Message answer) {
    Call &call = *owner;
    statistics_.count(call.method, !call.service.methods.empty(), outcome, seconds_since(call.started));
    show_traffic("reply", &call, call.method, &call.service, name_of(outcome), answer.value.get());
    if (outcome == Outcome::cancelled) {
        return;
    }
    Client &client = call.client;
    const BatchPlace batch = call.batch;
    const Json id = std::move(call.id);
    const Json transaction_id = std::move(call.transaction_id);
    owner.reset(); // before the answer, which may be the client's end, and so that of all its calls
    const std::string id_text = client.gets_own_id() ? whole_text(id) : "";
    const std::string transaction_text = transaction_id ? whole_text(transaction_id) : "";
    Edits edits;
    if (client.gets_own_id()) {
        edits.push_back({"id", id_text});
    }
    if (transaction_id || outcome != Outcome::timeout) { // the system's time-out response has one in any case
        edits.push_back({"transaction_id", transaction_text});
    }
    std::string_view text = renderer_.rewrite(answer, edits);
    if (client.gets_own_id() &&
        text.size() >= tavrix::max_reply_line) { // what a service writes in UTF-8 has grown by escapes
        LOG_FOREIGN("An answer is too long for its client\n");
        const Json refusal =
            make_error(TAVRIX_JRPC_INTERNAL_ERROR, id, transaction_id, message_data("the answer is too long"));
        text = render(refusal.get());
    }
    client.answer_text(text, batch);
}

void Router::take_reply(Message message, Service *from) {
    json_t *reply = message.value.get();
    const std::string method = text_member(reply, "id");
    const json_t *transaction_id = json_object_get(reply, "transaction_id");
    const json_int_t number = json_integer_value(transaction_id);
    const auto found = json_is_integer(transaction_id) && number > 0 && number <= INT_MAX
                           ? calls_.find(static_cast<int>(number))
                           : calls_.end();
    const bool is_reload = method == names::reload_conf;
    // Only the service that was asked answers, and the way it was asked.
    if (found != calls_.end() && found->second->method == method &&
        (is_reload || (found->second->service.direct ? &found->second->service : nullptr) == from)) {
        const bool is_error = json_object_get(reply, "error") != nullptr;
        if (from != nullptr && from == &found->second->service) {
            from->on_answer(*found->second);
        }
        if (!is_error && json_object_get(reply, "result") == nullptr) {
            LOG_FOREIGN("A reply to %s has neither a result nor an error\n", printable(method).c_str());
            finish(*found->second, Outcome::error,
                   make_error(TAVRIX_JRPC_INTERNAL_ERROR, found->second->id, nullptr, nullptr));
            return;
        }
        if (json_object_del(reply, "method") == 0) { // by which the client would take it for a request
            message.text = {};
        }
        finish(*found->second, is_error ? Outcome::error : Outcome::result, std::move(message));
    } else if (!is_reload) { // every service replies to a reload, and one reply is all that is awaited
        ++statistics_.discarded;
        if (from != nullptr && number > 0 && number <= INT_MAX) {
            from->on_late_answer(static_cast<int>(number));
        }
        LOG_FOREIGN("Discarded a left-over reply of %s\n", printable(method).c_str());
    }
}

Json Router::timed_out_answer(const Call &call) {
    const char *id = json_string_value(call.id.get());
    const json_int_t number = json_integer_value(call.transaction_id.get());
    const bool fits =
        !call.transaction_id || (json_is_integer(call.transaction_id.get()) && number >= INT_MIN && number <= INT_MAX);
    json_t *response = nullptr;
    if (id != nullptr && fits && !call.client.gets_own_id() &&
        tavrix_jrpc_router_create_system_timeout_response(id, static_cast<int>(number), &response) == TAVRIX_OK) {
        return Json(response);
    }
    return make_error(TAVRIX_JRPC_TIMED_OUT, call.id, nullptr, nullptr);
}

void Router::expire(Call &call) {
    call.deadline.leave();
    LOG_FOREIGN("No reply to %s in time\n", printable(call.method).c_str());
    cancel(call);
    finish(call, Outcome::timeout, timed_out_answer(call));
}

/** Tells a direct service that nobody waits for this any more. */
void Router::cancel(const Call &call) {
    if (call.service.direct && call.service.session != nullptr) {
        call.service.leave(call);
        const Json notice = make_notification(names::cancel, Json(json_pack("{s:i}", "transaction_id", call.number)));
        call.service.session->send_request(render(notice.get()));
    }
}

void Router::set_locked(bool locked) {
    locked_ = locked;
    LOG_INFO("The system is %s\n", locked ? "locked" : "unlocked");
}

// --- The bus -------------------------------------------------------------------------------------------------------

void Router::take_frame(std::string_view channel, std::string_view text) {
    if (channel == TAVRIX_ROUTER_REPLY_CHANNEL) {
        take_for_router(text);
        return;
    }
    const std::string method(channel);
    if (!is_plain(method) || is_for_router_to_say(method)) {
        return; // no method, or one that the router alone may use
    }
    const bool is_wanted = std::any_of(listening_.begin(), listening_.end(), [&method](const Session *session) {
        return matches_any(session->subscribed, method) || matches_any(session->monitored, method);
    });
    if (is_wanted) {
        const Message message(Json(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, nullptr)), text);
        if (is_notification(message.value.get()) && text_member(message.value.get(), "method") == method) {
            deliver_notification(message, method, nullptr);
        }
    }
}

void Router::take_for_router(std::string_view text) {
    Json message(json_loadb(text.data(), text.size(), tavrix::parse_flags, nullptr));
    if (!json_is_object(message.get())) {
        LOG_FOREIGN("Discarded a message that is not a JSON object\n");
        ++statistics_.discarded;
    } else if (is_notification(message.get())) {
        tavrix_jrpc_router_eval_notification(message.get(), notifications);
    } else {
        take_reply({std::move(message), text}, nullptr);
    }
}

bool Router::lacks_listeners() const {
    return registry_.heard_count() < config_.connect.size() && Clock::now() < probe_until_;
}

/** Asks services that were there before the router to say hello. */
void Router::probe_listeners() {
    const Json probe = make_notification(names::probe, Json(json_object()));
    const std::string_view text = render(probe.get());
    for (const char *channel : service_channels) {
        bus_.publish(channel, text);
    }
}

void Router::on_probe_timer(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Router *>(context);
    if (self->lacks_listeners()) {
        self->guard(nullptr, [self] { self->probe_listeners(); });
        add_after(self->probe_timer_, probe_interval);
    }
}

// --- Services ------------------------------------------------------------------------------------------------------

bool Router::welcome(const std::string &name, const std::string &channel, json_t *number) {
    const Json params(json_pack("{s:s}", "name", name.c_str()));
    if (json_is_integer(number)) {
        put(params.get(), "number", share(number));
    }
    const Json notice = make_notification(names::welcome, share(params));
    return bus_.publish(channel, render(notice.get()));
}

int Router::hear_hello(const std::string &name, const std::string &channel, json_t *number) {
    Service *registered = registry_.find(name);
    if (registered != nullptr && registered->session != nullptr) {
        if (registered->state == Service::State::settling && registered->channel == channel) {
            up(*registered);
        }
        if (json_is_integer(number) && registered->channel == channel) {
            welcome(name, channel, number);
        }
        return TAVRIX_OK;
    }
    const bool is_new = registry_.heard().count(name) == 0 || registry_.heard().at(name) != channel;
    if (!is_plain(name) || !is_plain(channel) || channel.empty() || channel.find('|') != std::string::npos ||
        !registry_.hear(name, channel)) {
        LOG_FOREIGN("Passed over the hello of %s on channel %s\n", printable(name).c_str(), printable(channel).c_str());
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    if (is_new) {
        LOG_WITHIN(lines_of_services,
                   LOG_INFO("Service %s settled on channel %s\n", printable(name).c_str(), printable(channel).c_str()));
    }
    return welcome(name, channel, number) ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

void Router::on_settle_timer(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Router *>(context);
    self->guard(nullptr, [self] { self->settle(); });
}

/** Publishes probes until the service's hello has come back: then both directions of the bus have carried a frame. */
void Router::settle() {
    bool is_any_left = false;
    for (const auto &[name, service] : registry_.registered()) {
        if (service->state != Service::State::settling) {
            continue;
        }
        if (Clock::now() >= service->settles_until) {
            LOG_WITHIN(lines_of_services,
                       LOG_WARNING("Service %s does not answer on the bus\n", printable(name).c_str()));
            end_registration(*service, make_error(TAVRIX_JRPC_TIMED_OUT, service->registration.id,
                                                  service->registration.transaction_id, nullptr));
            Session &session = *service->session;
            session.flush(); // for the answer
            session.close(); // it registers anew, when it can
            is_any_left = true;
            break; // the list may have changed
        }
        is_any_left = true;
        probe(*service);
    }
    if (!is_any_left) {
        event_del(settle_timer_.get());
    }
}

void Router::probe(const Service &service) {
    const Json notice = make_notification(names::probe, Json(json_pack("{s:s}", "name", service.name.c_str())));
    bus_.publish(service.channel, render(notice.get()));
}

void Router::end_registration(Service &service, Json answer) {
    const Service::Registration registration = std::move(service.registration);
    service.session->answer(std::move(answer), registration.batch);
}

void Router::up(Service &service) {
    const Json notification = make_notification(names::service_up, describe(service));
    const std::string line = whole_text(notification); // without memory it is settling still, until its next hello
    LOG_WITHIN(lines_of_services, LOG_INFO("Service %s settled on channel %s\n", printable(service.name).c_str(),
                                           printable(service.channel).c_str()));
    service.state = Service::State::up;
    discovered_.clear();
    service.since = std::time(nullptr);
    tell_services(line, service);
    guard(service.session, [&] {
        end_registration(service,
                         make_result(share(service.registration.id), share(service.registration.transaction_id),
                                     Json(json_integer(TAVRIX_OK))));
    });
}

void Router::gone(Service &service) {
    const bool was_up = service.state == Service::State::up;
    service.state = Service::State::gone;
    service.since = std::time(nullptr);
    service.session = nullptr;
    service.document.reset();
    discovered_.clear();
    for (const int endpoint : service.endpoints) {
        bus_.disconnect(endpoint);
    }
    service.endpoints.clear();
    service.forget_left();
    guard(nullptr, [&service] {
        LOG_WITHIN(lines_of_services, LOG_WARNING("Service %s has gone\n", printable(service.name).c_str()));
    });
    while (!service.calls.empty()) {
        Call &call = *service.calls.front();
        Json answer;
        guard(nullptr, [&] {
            answer = make_error(TAVRIX_JRPC_METHOD_NOT_FOUND, call.id, nullptr, gone_data(service, call.method));
        });
        finish(call, Outcome::gone, std::move(answer)); // a client that cannot be told is closed
    }
    if (was_up) {
        guard(nullptr, [&] {
            // Without memory nobody is told: what they keep is an address on which nothing comes.
            const Json down =
                make_notification(names::service_down, Json(json_pack("{s:s}", "name", service.name.c_str())));
            tell_services(whole_text(down), service);
        });
    }
}

/** As it is sent, in memory of its own. */
std::string Router::whole_text(const Json &message) {
    std::string text(render(message.get()));
    if (text.empty()) {
        throw std::bad_alloc();
    }
    return text;
}

/** A session that cannot take the line is closed only if it would miss whom to listen to: a service that publishes. */
void Router::tell_services(const std::string &line, const Service &except) {
    for (Session *session : sessions_) {
        if (session->service == nullptr || session->service == &except) {
            continue;
        }
        if (except.publish.empty()) {
            session->send_notification(line);
        } else {
            session->tell(line);
        }
    }
}

Json Router::describe(const Service &service) const {
    Json publish(json_array());
    for (const std::string &address : service.publish) {
        append(publish.get(), Json(json_string(address.c_str())));
    }
    Json methods(json_array());
    for (const std::string &method : service.methods) {
        append(methods.get(), Json(json_string(method.c_str())));
    }
    return Json(json_pack("{s:s, s:s, s:o, s:o}", "name", service.name.c_str(), "channel", service.channel.c_str(),
                          "publish", publish.release(), "methods", methods.release()));
}

// --- Notifications and monitors ------------------------------------------------------------------------------------

/** Nothing is copied while nobody asks, and the sessions that do not ask, a thousand perhaps, cost a call nothing. */
void Router::listen_for(Session &session) {
    const auto end = listening_.end();
    listening_.erase(std::remove(listening_.begin(), end, &session), end);
    if (!session.subscribed.empty() || !session.monitored.empty()) {
        listening_.push_back(&session);
    }
    bus_.listen_to_everything(!listening_.empty());
}

void Router::take_notification(const Message &notification, Service *from) {
    const std::string method = text_member(notification.value.get(), "method");
    if (!is_plain(method) || is_for_router_to_say(method)) {
        LOG_FOREIGN("Discarded the notification %s of %s\n", printable(method).c_str(), printable(from->name).c_str());
        return;
    }
    deliver_notification(notification, method, from);
}

void Router::deliver_notification(const Message &notification, const std::string &method, const Service *from) {
    show_traffic("notification", nullptr, method, from, nullptr, notification.value.get());
    std::string line;
    for (Session *session : listening_) {
        if (!matches_any(session->subscribed, method)) {
            continue;
        }
        line = line.empty() ? std::string(renderer_.rewrite(notification, {})) : line;
        if (line.size() >= tavrix::max_reply_line) {
            LOG_FOREIGN("Discarded the notification %s: it is too long\n", printable(method).c_str());
            return;
        }
        session->send_notification(line);
    }
}

bool Router::is_monitored(const std::string &method) const {
    return std::any_of(listening_.begin(), listening_.end(),
                       [&method](const Session *session) { return matches_any(session->monitored, method); });
}

void Router::show_traffic(const char *leg, const Call *call, const std::string &method, const Service *service,
                          const char *outcome, json_t *message) {
    if (!is_monitored(method)) {
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const bool has_name = service != nullptr && !service->name.empty();
    Json params(json_pack("{s:f, s:s, s:o, s:s, s:o, s:s, s:o, s:O}", "time",
                          static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9, "leg", leg, "call",
                          call != nullptr ? json_integer(call->number) : json_null(), "method", method.c_str(),
                          "service", has_name ? json_string(service->name.c_str()) : json_null(), "road",
                          service != nullptr && service->direct ? "direct" : "bus", "client",
                          call != nullptr ? json_string(name_of(call->client.peer.road)) : json_null(), "message",
                          message != nullptr ? message : json_null()));
    if (outcome != nullptr &&
        (json_object_set_new(params.get(), "outcome", json_string(outcome)) != 0 ||
         json_object_set_new(params.get(), "seconds", json_real(seconds_since(call->started))) != 0)) {
        params.reset(); // the caller is not to blame: the monitors are closed
    }
    const Json traffic = make_notification(names::traffic, std::move(params));
    const std::string line(render(traffic.get()));
    for (Session *session : listening_) {
        if (matches_any(session->monitored, method)) {
            session->send_notification(line);
        }
    }
}

} // namespace router
