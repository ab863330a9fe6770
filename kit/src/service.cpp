/*
 * The service itself: opening, the loop, signals, timers, the end.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "internal.h"

namespace kit {

namespace {

constexpr char unit_name[] = "service";
constexpr int farewell_ms = 1000;
constexpr int signal_numbers[] = {SIGTERM, SIGINT, SIGHUP};

// The initial-exec model needs no call into the dynamic linker, and so no further library.
thread_local bool inside_a_loop __attribute__((tls_model("initial-exec"))) = false;

struct Timer {
    Entry entry;
    Alarm alarm;
    tavrix_service *service;
    int interval_ms;
    bool repeats; ///< armed with its interval
    void (*callback)(tavrix_service *service, void *user);
    void *user;
};

// --- Signals -------------------------------------------------------------------------------------------------------

void on_signal(evutil_socket_t number, short /*what*/, void *argument) {
    auto *service = static_cast<tavrix_service *>(argument);
    if (number == SIGHUP) {
        tavrix_lsyslog_reload_conf();
    } else {
        tavrix_service_stop(service);
    }
}

bool install_signals(tavrix_service *service) {
    if ((service->options.flags & TAVRIX_SERVICE_NO_SIGNALS) != 0) {
        return true;
    }
    std::signal(SIGPIPE, SIG_IGN);
    for (size_t i = 0; i < 3; ++i) {
        evsignal_assign(&service->signals[i], service->base, signal_numbers[i], on_signal, service);
        if (evsignal_add(&service->signals[i], nullptr) != 0) {
            LOG_ERROR("Cannot catch signal %d: %s\n", signal_numbers[i], std::strerror(errno));
            return false;
        }
    }
    return true;
}

// --- Opening -------------------------------------------------------------------------------------------------------

bool refuse_table(const char *name, const char *why) {
    LOG_ERROR("Method %s: %s\n", Printable(name).text, why);
    return false;
}

const char *channel_of(const char *method) {
    static constexpr const char *channels[] = {TAVRIX_CHANNEL_FIRST, TAVRIX_CHANNEL_EVENTS, TAVRIX_CHANNEL_INTERFACES,
                                               TAVRIX_CHANNEL_DEFAULT};
    const Text found(tavrix_api_router_json_parse_channel(method));
    for (const char *channel : channels) {
        if (found && std::strcmp(found.get(), channel) == 0) {
            return channel;
        }
    }
    return nullptr;
}

bool check_method(tavrix_service *service, const tavrix_service_method *methods, size_t index) {
    const tavrix_service_method &row = methods[index];
    const char *channel = channel_of(row.name);
    if (!is_method_name(row.name) || row.handler == nullptr) {
        return refuse_table(row.name,
                            "needs a handler, and a name of up to 255 bytes without control characters and bars");
    }
    if (is_own_method(row.name)) {
        return refuse_table(row.name, "is one that every service answers by itself; its handler would never run");
    }
    if (channel == nullptr) {
        return refuse_table(row.name, "no memory");
    }
    if (service->channel != nullptr && service->channel != channel) {
        LOG_ERROR("Methods %s and %s belong to two channels of the bus; a service has one: make two services of them\n",
                  methods[0].name, row.name);
        return false;
    }
    service->channel = channel;
    return find_row(methods, row.name) == &row ? check_rows(row) : refuse_table(row.name, "has two rows");
}

bool check_table(tavrix_service *service) {
    const tavrix_service_method *methods = service->options.methods;
    for (size_t i = 0; methods != nullptr && methods[i].name != nullptr; ++i) {
        if (i >= TAVRIX_SERVICE_MAX_METHODS) {
            return refuse_table(methods[i].name, "too many rows");
        }
        if (!check_method(service, methods, i)) {
            return false;
        }
        service->method_count = i + 1;
    }
    return true;
}

int open_service(tavrix_service *service) {
    const tavrix_service_options &options = service->options;
    if (options.name == nullptr || !tavrix::is_service_name(options.name)) {
        LOG_ERROR(
            "A service's name has 1 to %d letters, digits, dots, dashes and underscores, and begins with no dot\n",
            TAVRIX_SERVICE_MAX_NAME);
        return TAVRIX_ERR_PARAMETER;
    }
    std::snprintf(service->name, sizeof service->name, "%s", options.name);
    if (!check_table(service)) {
        return TAVRIX_ERR_PARAMETER;
    }
    service->owns_base = options.base == nullptr;
    service->base = service->owns_base ? event_base_new() : options.base;
    if (service->base == nullptr) {
        LOG_ERROR("Cannot make an event loop: %s\n", std::strerror(errno));
        return TAVRIX_ERR_NO_MEMORY;
    }
    if (!session_prepare(service)) {
        return TAVRIX_ERR_PARAMETER;
    }
    const bool alone = service->session.path[0] == '\0';
    if (alone && (options.connect == nullptr || options.connect[0] == nullptr) && service->channel != nullptr) {
        LOG_ERROR("Without a session the bus addresses to listen to have to be given\n");
        return TAVRIX_ERR_PARAMETER;
    }
    // First the signals: one that ended the process in between would leave the sockets' files behind.
    return install_signals(service) && bus_publish_given(service) ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

// --- The end -------------------------------------------------------------------------------------------------------

/** Lets the loop write what stands in the buffers, and hear that the bus has carried the rest, for a second at most. */
void write_the_rest(tavrix_service *service) {
    const int64_t end = now_ms() + farewell_ms;
    while (now_ms() < end &&
           (service->session.out.size() > 0 || clients_have_unwritten(service) || !bus_is_heard(service))) {
        const timeval tick = time_of_ms(end - now_ms());
        event_base_loopexit(service->base, &tick);
        event_base_loop(service->base, EVLOOP_ONCE);
    }
}

/** How what has a number is cancelled; a deferred call is not: it is answered. */
constexpr bool (*cancellations[entry_type_count])(tavrix_service *service, Entry *entry) = {
    nullptr, cancel_request, cancel_subscription, cancel_timer, close_listener};
static_assert(entry_call == 0 && entry_request == 1 && entry_subscription == 2 && entry_timer == 3, "their order");

// --- Timers --------------------------------------------------------------------------------------------------------

void on_timer(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    auto *timer = static_cast<Timer *>(argument);
    tavrix_service *service = timer->service;
    const auto callback = timer->callback;
    void *user = timer->user;
    if (timer->interval_ms == 0) {
        cancel_timer(service, &timer->entry);
    } else if (!timer->repeats) {
        timer->repeats = true;
        clear_alarm(&timer->alarm);
        event_assign(&timer->alarm.ready, service->base, -1, EV_PERSIST, on_timer, timer);
        if (!set_alarm(&timer->alarm, timer->interval_ms)) {
            LOG_ERROR("A timer of %d ms ends: no memory\n", timer->interval_ms);
        }
    }
    callback(service, user); // it may cancel the timer
}

} // namespace

bool is_inside_a_loop() { return inside_a_loop; }

void end_everything(tavrix_service *service) {
    service->stopping = true;
    end_requests(service, TAVRIX_OUTCOME_CANCELLED, false);
    refuse_deferred_calls(service);
}

void give_up(tavrix_service *service) {
    service->failed = true;
    tavrix_service_stop(service);
}

bool cancel_timer(tavrix_service *service, Entry *entry) {
    clear_alarm(&reinterpret_cast<TimedEntry *>(entry)->alarm);
    leave(&service->directory, entry);
    unmake(entry);
    return true;
}

} // namespace kit

using namespace kit;

int tavrix_service_open(const tavrix_service_options *options, tavrix_service **service_out) {
    if (options == nullptr || service_out == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (options->name != nullptr) {
        tavrix_lsyslog_init(options->name);
    }
    auto *service = make<tavrix_service>();
    if (service == nullptr) {
        return TAVRIX_ERR_NO_MEMORY;
    }
    service->options = *options;
    service->reply_timeout_ms = tavrix::default_reply_timeout_ms;
    service->bus.pub = -1;
    service->bus.sub = -1;
    service->session.fd = -1;
    const int rc = open_service(service);
    if (rc != TAVRIX_OK) {
        tavrix_service_close(service);
        return rc;
    }
    *service_out = service;
    return TAVRIX_OK;
}

int tavrix_service_start(tavrix_service *service) {
    if (service == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (service->started) {
        return TAVRIX_OK;
    }
    service->started = true;
    const bool listens = service->options.connect != nullptr || service->session.path[0] == '\0';
    if (service->channel != nullptr && listens && !bus_start(service)) {
        return TAVRIX_ERR_GENERAL;
    }
    session_start(service);
    return service->failed ? TAVRIX_ERR_GENERAL : TAVRIX_OK;
}

int tavrix_service_run(tavrix_service *service) {
    if (service == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (service->running) {
        LOG_ERROR("%s runs already\n", service->name);
        return TAVRIX_ERR_GENERAL;
    }
    int rc = tavrix_service_start(service);
    service->running = true;
    inside_a_loop = true;
    while (rc == TAVRIX_OK && !service->stopping && !service->failed) {
        if (event_base_loop(service->base, EVLOOP_NO_EXIT_ON_EMPTY) < 0) {
            LOG_ERROR("Cannot wait for requests: %s\n", std::strerror(errno));
            rc = TAVRIX_ERR_GENERAL;
        }
    }
    end_everything(service);
    write_the_rest(service);
    inside_a_loop = false;
    service->running = false;
    rc = service->failed ? TAVRIX_ERR_GENERAL : rc;
    LOG_INFO("%s %s\n", service->name, rc == TAVRIX_OK ? "stopped" : "cannot go on");
    return rc;
}

void tavrix_service_stop(tavrix_service *service) {
    if (service != nullptr) {
        service->stopping = true;
        event_base_loopbreak(service->base);
    }
}

void tavrix_service_close(tavrix_service *service) {
    if (service == nullptr) {
        return;
    }
    if (service->running) { // the loop that called the handler goes on with what would be gone
        LOG_ERROR("%s is closed by a callback: it stops; close it once tavrix_service_run() has returned\n",
                  service->name);
        tavrix_service_stop(service);
        return;
    }
    if (service->base != nullptr) {
        end_everything(service);
        session_close(service);
        for (const EntryType type : {entry_subscription, entry_timer, entry_listener}) {
            while (Entry *entry = service->directory.lists[type].first) {
                cancellations[type](service, entry);
            }
        }
        close_clients(service);
        for (event &signal : service->signals) {
            if (event_initialized(&signal) != 0) {
                evsignal_del(&signal);
            }
        }
    }
    bus_close(service);
    if (service->owns_base && service->base != nullptr) {
        event_base_free(service->base);
    }
    std::free(service);
}

void *tavrix_service_user(const tavrix_service *service) {
    return service != nullptr ? service->options.user : nullptr;
}

const char *tavrix_service_name(const tavrix_service *service) { return service != nullptr ? service->name : nullptr; }

event_base *tavrix_service_base(const tavrix_service *service) { return service != nullptr ? service->base : nullptr; }

bool tavrix_service_is_ready(const tavrix_service *service) {
    return service != nullptr && service->session.state == session_ready;
}

int tavrix_service_cancel(tavrix_service *service, uint64_t number) {
    Entry *entry = service != nullptr ? find(&service->directory, number) : nullptr;
    const auto cancel = entry != nullptr ? cancellations[entry->type] : nullptr;
    return cancel != nullptr && cancel(service, entry) ? TAVRIX_OK : TAVRIX_ERR_NO_RECORDS;
}

uint64_t tavrix_service_timer(tavrix_service *service, int first_ms, int interval_ms,
                              void (*callback)(tavrix_service *service, void *user), void *user) {
    auto *timer =
        service != nullptr && callback != nullptr && first_ms >= 0 && interval_ms >= 0 ? make<Timer>() : nullptr;
    if (timer == nullptr) {
        LOG_ERROR("Cannot make a timer: it has no service, no callback, a time below 0, or no memory\n");
        return 0;
    }
    timer->service = service;
    timer->interval_ms = interval_ms;
    timer->callback = callback;
    timer->user = user;
    event_assign(&timer->alarm.ready, service->base, -1, 0, on_timer, timer);
    if (!set_alarm(&timer->alarm, first_ms)) {
        LOG_ERROR("Cannot make a timer: no memory\n");
        std::free(timer);
        return 0;
    }
    return enter(&service->directory, &timer->entry, entry_timer);
}
