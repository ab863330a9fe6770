/*
 * The methods that the router answers itself.
 */
#include <algorithm>
#include <cstring>
#include <iterator>

#include "router.h"
#include "tavrix_jrpc.h"

namespace router {

namespace {

constexpr size_t max_patterns = 64;
constexpr std::chrono::milliseconds settle_interval{5};
constexpr std::chrono::seconds settle_time{5};
constexpr std::chrono::milliseconds metrics_time{100}; // made anew no more often, however many read them

/** The array's texts; false when it is not an array, has too many, or has one that is not good. */
bool read_texts(const json_t *array, size_t most, bool (*is_good)(const char *), std::vector<std::string> *out) {
    size_t index = 0;
    const json_t *entry = nullptr;
    if (!json_is_array(array) || json_array_size(array) > most) {
        return false;
    }
    json_array_foreach(array, index, entry) {
        if (!json_is_string(entry) || !is_good(json_string_value(entry))) {
            return false;
        }
        out->push_back(json_string_value(entry));
    }
    return true;
}

bool is_short_line(const char *text) {
    return *text != '\0' && std::strlen(text) <= TAVRIX_MQ_MAX_ADDRESS && is_plain(text);
}

json_int_t number(uint64_t value) { return static_cast<json_int_t>(value); }

// The schemas below repeat these numbers as text.
static_assert(max_patterns == 64 && TAVRIX_SERVICE_MAX_ADDRESSES == 8 && tavrix::max_bus_address == 113 &&
              TAVRIX_SERVICE_MAX_NAME == 50 && TAVRIX_SERVICE_MAX_METHOD == 255 && TAVRIX_SERVICE_MAX_METHODS == 256);

constexpr char no_params[] = "[]";
constexpr char zero[] = R"({"type":"integer","enum":[0]})";
constexpr char an_object[] = R"({"type":"object"})";
constexpr char pattern_params[] =
    R"([{"name":"methods","summary":"names, or beginnings of names and *","required":true,"schema":)"
    R"({"type":"array","maxItems":64,"items":{"type":"string","minLength":1,"maxLength":255}}}])";
constexpr char registration[] =
    R"([{"name":"name","summary":"letters, digits, dots, dashes and underscores","required":true,)"
    R"("schema":{"type":"string","minLength":1,"maxLength":50}},)"
    R"({"name":"channel","summary":"the channel of the service's requests","required":true,)"
    R"("schema":{"type":"string"}},)"
    R"({"name":"publish","summary":"the bus addresses that it publishes on","required":false,)"
    R"("schema":{"type":"array","maxItems":8,"items":{"type":"string","minLength":1,"maxLength":113}}},)"
    R"({"name":"methods","summary":"what it offers","required":false,)"
    R"("schema":{"type":"array","maxItems":256,"items":{"type":"string","minLength":1,"maxLength":255}}},)"
    R"({"name":"direct","summary":"whether it takes its requests over the session","required":false,)"
    R"("schema":{"type":"boolean"}},)"
    R"({"name":"callers","summary":"whether it is told over the session who calls","required":false,)"
    R"("schema":{"type":"boolean"}}])";
constexpr char description[] =
    R"([{"name":"document","summary":"an OpenRPC document of the service's methods","required":true,)"
    R"("schema":{"type":"object","required":["methods"]}}])";

} // namespace

const Router::OwnMethod Router::own_methods[] = {
    {names::discover, false, &Router::on_discover, "Describes all methods that can be called now.", "reads", no_params,
     an_object},
    {names::status, false, &Router::on_status, "Tells what the router sees.", "reads", no_params, an_object},
    {names::metrics, false, &Router::on_metrics, "Gives the router's counts as Prometheus reads them.", "reads",
     no_params, R"({"type":"string"})"},
    {names::lock, false, &Router::on_lock, "Locks the system: requests to services are refused.", "changes", no_params,
     zero},
    {names::unlock, false, &Router::on_unlock, "Unlocks the system.", "changes", no_params, zero},
    {names::bus, false, &Router::on_bus, "Tells who publishes where.", "reads", no_params, an_object},
    {names::register_service, true, &Router::on_register, "Makes the session a service.", "changes", registration,
     zero},
    {names::describe, true, &Router::on_describe, "Takes what a service says of its methods.", "changes", description,
     zero},
    {names::subscribe, true, &Router::on_subscribe, "Delivers notifications to the session.", "changes", pattern_params,
     zero},
    {names::unsubscribe, true, &Router::on_unsubscribe, "Ends the delivery of notifications.", "changes",
     pattern_params, zero},
    {names::monitor, true, &Router::on_monitor, "Shows all traffic to the session.", "changes", pattern_params, zero},
    {nullptr, false, nullptr, nullptr, nullptr, nullptr, nullptr},
};

// --- What the router sees ------------------------------------------------------------------------------------------

int Router::on_status(Own &own) {
    Json services(json_array());
    for (const auto &[name, service] : registry_.registered()) {
        Json shown = describe(*service);
        put(shown.get(), "state", Json(json_string(name_of(service->state))));
        put(shown.get(), "direct", Json(json_boolean(service->direct)));
        put(shown.get(), "since", Json(json_integer(service->since)));
        put(shown.get(), "in_flight", Json(json_integer(number(service->calls.size()))));
        append(services.get(), std::move(shown));
    }
    for (const auto &[name, channel] : registry_.heard()) { // registered nowhere: their hello is all that is known
        append(services.get(), Json(json_pack("{s:s, s:s, s:s}", "name", name.c_str(), "channel", channel.c_str(),
                                              "state", name_of(Service::State::listening))));
    }
    Json methods = statistics_.methods_json();
    const auto total = [this](Outcome outcome) { return number(statistics_.total(outcome)); };
    own.result.reset(json_pack(
        "{s:b, s:o, s:I, s:I, s:I, s:I, s:I, s:I, s:I, s:I, s:I, s:I, s:I, s:f, s:o}", "locked", locked_ ? 1 : 0,
        "services", services.release(), "clients", number(clients_.size()), "sessions", number(sessions_.size()),
        "in_flight", number(calls_.size()), "served", total(Outcome::result) + total(Outcome::error), "timeouts",
        total(Outcome::timeout), "gone", total(Outcome::gone), "cancelled", total(Outcome::cancelled), "discarded",
        number(statistics_.discarded), "refused", number(statistics_.refused), "busy", number(statistics_.busy),
        "dropped", number(statistics_.dropped), "uptime_s",
        std::chrono::duration<double>(daemon_support::Clock::now() - started_).count(), "methods", methods.release()));
    return own.result ? 0 : TAVRIX_JRPC_INTERNAL_ERROR;
}

std::string Router::metrics() const {
    std::string text = statistics_.metrics();
    const struct {
        const char *name;
        const char *help;
        size_t value;
    } gauges[] = {
        {"clients", "Connected clients, sessions among them.", clients_.size()},
        {"sessions", "Open sessions, services among them.", sessions_.size()},
        {"in_flight", "Requests that wait for their reply.", calls_.size()},
        {"locked", "1 while the system is locked.", locked_ ? 1U : 0U},
    };
    for (const auto &gauge : gauges) {
        const std::string name = std::string("tavrix_router_") + gauge.name;
        text.append("# HELP ").append(name).append(" ").append(gauge.help).append("\n# TYPE ").append(name);
        text.append(" gauge\n").append(name).append(" ").append(std::to_string(gauge.value)).append("\n");
    }
    text += "# HELP tavrix_router_service_up Whether a registered service is there.\n"
            "# TYPE tavrix_router_service_up gauge\n";
    for (const auto &[name, service] : registry_.registered()) {
        text += "tavrix_router_service_up{service=\"" + name + "\"} " +
                (service->state == Service::State::up ? "1" : "0") + "\n";
    }
    return text;
}

int Router::on_metrics(Own &own) {
    const auto now = daemon_support::Clock::now();
    if (metrics_.empty() || now >= metrics_until_) {
        const std::string text = metrics();
        const Json value(json_stringn(text.data(), text.size()));
        metrics_ = render(value.get());
        metrics_until_ = now + metrics_time;
    }
    own.result_text = metrics_;
    return metrics_.empty() ? TAVRIX_JRPC_INTERNAL_ERROR : 0;
}

int Router::on_lock(Own & /*own*/) {
    set_locked(true);
    return 0;
}

int Router::on_unlock(Own & /*own*/) {
    set_locked(false);
    return 0;
}

// --- Services ------------------------------------------------------------------------------------------------------

int Router::on_bus(Own &own) {
    Json publish(json_array());
    std::string folder;
    for (const std::string &given : config_.publish) {
        char address[tavrix::max_bus_address + 1];
        tavrix::make_absolute(given.c_str(), address);
        append(publish.get(), Json(json_string(address)));
        folder = folder.empty() ? folder_of(address) : folder;
    }
    Json services(json_array());
    for (const auto &[name, service] : registry_.registered()) {
        if (service->state == Service::State::up) {
            append(services.get(), describe(*service));
        }
    }
    own.result.reset(json_pack("{s:o, s:o, s:o, s:i}", "publish", publish.release(), "folder",
                               folder.empty() ? json_null() : json_string(folder.c_str()), "services",
                               services.release(), "reply_timeout_ms", config_.reply_timeout_ms));
    return own.result ? 0 : TAVRIX_JRPC_INTERNAL_ERROR;
}

/** Reads what a service says of itself; gives what is wrong with it. */
std::string Router::read_registration(const json_t *params, Service *wanted) const {
    const json_t *methods = json_object_get(params, "methods");
    const json_t *publish = json_object_get(params, "publish");
    const json_t *direct = json_object_get(params, "direct");
    const json_t *callers = json_object_get(params, "callers");
    wanted->name = text_member(params, "name");
    wanted->channel = text_member(params, "channel");
    wanted->direct = json_is_true(direct);
    wanted->callers = json_is_true(callers);
    if (!tavrix::is_service_name(wanted->name.c_str())) {
        return "name: 1 to 50 letters, digits, '.', '-' and '_'";
    }
    if (!Registry::is_channel(wanted->channel)) {
        return "channel: none of the service channels";
    }
    if (publish != nullptr && !read_texts(publish, TAVRIX_SERVICE_MAX_ADDRESSES, is_short_line, &wanted->publish)) {
        return "publish: at most 8 addresses of the bus";
    }
    if (methods != nullptr &&
        !read_texts(methods, TAVRIX_SERVICE_MAX_METHODS, tavrix::is_method_name, &wanted->methods)) {
        return "methods: at most 256 names of at most 255 bytes";
    }
    if (direct != nullptr && !json_is_boolean(direct)) {
        return "direct: true or false";
    }
    if (callers != nullptr && (!json_is_boolean(callers) || (wanted->callers && !wanted->direct))) {
        return "callers: true or false; only a direct service is told who calls";
    }
    if (wanted->publish.empty() && !wanted->direct) {
        return "publish: a service that takes its requests from the bus needs an address there";
    }
    const auto elsewhere =
        std::find_if(wanted->methods.begin(), wanted->methods.end(), [wanted](const std::string &method) {
            return is_reserved(method) || channel_of(method) != wanted->channel;
        });
    return elsewhere == wanted->methods.end() ? "" : "methods: " + *elsewhere + " is not of this channel";
}

int Router::find_registration_conflict(const Service &wanted, std::string *problem) {
    const Service *former = registry_.find(wanted.name);
    if (former != nullptr && former->session != nullptr) {
        *problem = "a service of this name is registered already";
        return TAVRIX_JRPC_NOT_UNIQUE;
    }
    for (const std::string &method : wanted.methods) {
        const Service *offering = registry_.of_method(method);
        if (offering != nullptr && offering->session != nullptr) {
            *problem = method + " is offered by " + offering->name + " already";
            return TAVRIX_JRPC_NOT_UNIQUE;
        }
    }
    return 0;
}

/** Listens to the first address: all carry the same, which would come once over each. Gives what is wrong with one. */
std::string Router::listen_to(Service &service, const std::vector<std::string> &addresses) {
    service.endpoints.reserve(1);
    for (const std::string &address : addresses) {
        const int endpoint = bus_.connect(address);
        if (endpoint >= 0 && service.endpoints.empty()) {
            service.endpoints.push_back(endpoint);
        } else if (endpoint >= 0) {
            bus_.disconnect(endpoint);
        } else {
            for (const int connected : service.endpoints) {
                bus_.disconnect(connected);
            }
            return "publish: " + address + " is not an address of the bus";
        }
    }
    return "";
}

int Router::on_register(Own &own) {
    auto &session = static_cast<Session &>(own.client);
    Service wanted;
    own.problem = read_registration(own.params, &wanted);
    if (!own.problem.empty()) {
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    if (session.service != nullptr) {
        own.problem = "this session is a service already";
        return TAVRIX_JRPC_NOT_UNIQUE;
    }
    const int conflict = find_registration_conflict(wanted, &own.problem);
    if (conflict != 0) {
        return conflict;
    }
    Service *service = registry_.add(wanted.name);
    if (service == nullptr) {
        own.problem = "too many services";
        return TAVRIX_JRPC_SYSTEM_BUSY;
    }
    own.problem = listen_to(*service, wanted.publish);
    if (!own.problem.empty()) {
        registry_.remove(wanted.name);
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    service->channel = wanted.channel;
    service->publish = std::move(wanted.publish);
    service->methods = std::move(wanted.methods);
    service->direct = wanted.direct;
    service->callers = wanted.callers;
    service->session = &session;
    service->state = Service::State::settling;
    service->registration = {share(json_object_get(own.request, "id")),
                             share(json_object_get(own.request, "transaction_id")), own.batch};
    session.service = service;
    registry_.offer(*service);
    own.is_deferred = true;
    if (service->endpoints.empty()) {
        up(*service);
    } else if (daemon_support::add_after(settle_timer_, settle_interval)) {
        service->settles_until = daemon_support::Clock::now() + settle_time;
        probe(*service);
    } else {
        throw std::bad_alloc();
    }
    return 0;
}

// --- Notifications and monitors ------------------------------------------------------------------------------------

/** Gives the session the list that the change has made of its own and of the request's patterns. */
int Router::change_patterns(Own &own, Patterns Session::*list, void (*change)(Patterns &list, const Patterns &given)) {
    auto &session = static_cast<Session &>(own.client);
    Patterns given;
    Patterns wanted = session.*list;
    const bool readable =
        read_texts(json_object_get(own.params, "methods"), max_patterns, tavrix::is_method_name, &given);
    change(wanted, given);
    if (!readable || wanted.size() > max_patterns) {
        own.problem = "methods: at most 64 patterns of at most 255 bytes";
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    session.*list = std::move(wanted);
    listen_for(session);
    return 0;
}

int Router::on_subscribe(Own &own) {
    return change_patterns(own, &Session::subscribed, [](Patterns &list, const Patterns &given) {
        std::copy_if(given.begin(), given.end(), std::back_inserter(list), [&list](const std::string &pattern) {
            return std::find(list.begin(), list.end(), pattern) == list.end();
        });
    });
}

int Router::on_unsubscribe(Own &own) {
    return change_patterns(own, &Session::subscribed, [](Patterns &list, const Patterns &given) {
        for (const std::string &pattern : given) {
            list.erase(std::remove(list.begin(), list.end(), pattern), list.end());
        }
    });
}

int Router::on_monitor(Own &own) {
    return change_patterns(own, &Session::monitored, [](Patterns &list, const Patterns &given) { list = given; });
}

} // namespace router
