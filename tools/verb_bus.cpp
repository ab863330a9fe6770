/*
 * monitor, push, wait: straight to the bus, without the router.
 */
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <nanomsg/nn.h>
#include <poll.h>

#include "common/bus.h"
#include "common/text.h"
#include "params.h"
#include "router.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"
#include "traffic.h"
#include "verb_bus.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr int tick_ms = 50;
constexpr double patience_s = 2; // before it is told which addresses are dead

/** A bus socket of one type, connected to every address. */
class BusSocket {
  public:
    explicit BusSocket(int sp_type) { tavrix::open_bus_socket(sp_type, socket_.place()); }

    int get() const { return socket_.get(); }

    int connect(const std::string &address) {
        int endpoint = 0;
        const int rc = tavrix_mq_socket_connect(get(), TAVRIX_TRANSPORT_TCP, address.c_str(), &endpoint);
        if (rc == TAVRIX_OK) {
            return exit_result;
        }
        if (rc == TAVRIX_ERR_VALIDATION) {
            return fail(exit_usage, "%s: a bus address looks like tcp://127.0.0.1:7001", address.c_str());
        }
        return fail(exit_no_connection, "%s: %s", address.c_str(), std::strerror(errno));
    }

    unsigned connections() const { return static_cast<unsigned>(nn_get_statistic(get(), NN_STAT_CURRENT_CONNECTIONS)); }

    /** Waits for room to send. */
    bool wait_for_room(const Deadline &deadline) const {
        int fd = -1;
        if (tavrix_mq_socket_sendfd(get(), &fd) != TAVRIX_OK) {
            return false;
        }
        pollfd ready{fd, POLLIN, 0};
        return poll(&ready, 1, deadline.left_ms()) > 0;
    }

  private:
    tavrix::BusSocket socket_;
};

/** A received frame, split at its first bar. */
struct Frame {
    std::string channel;
    std::string json;
};

bool receive(const BusSocket &socket, Frame *frame) {
    char *message = nullptr;
    int length = 0;
    if (tavrix_mq_socket_recv(socket.get(), &message, &length, 1) != TAVRIX_OK) {
        return false;
    }
    const Text owner(message);
    const std::string text(message, static_cast<size_t>(length));
    const size_t bar = text.find('|');
    frame->channel = bar == std::string::npos ? "" : text.substr(0, bar);
    frame->json = bar == std::string::npos ? text : text.substr(bar + 1);
    return true;
}

/** The method that a request, a notification or a reply is about. */
std::string method_of(const json_t *message) {
    const std::string method = text_of(message, "method");
    return method.empty() ? text_of(message, "id") : method;
}

/** One connection for each address, so that it can be told which of them nobody publishes on. */
class Listeners {
  public:
    /** Complains and returns the exit status when an address or a channel is refused. */
    int open(const std::vector<std::string> &addresses, const std::vector<std::string> &channels) {
        for (const std::string &address : addresses) {
            sockets_.push_back(std::make_unique<BusSocket>(TAVRIX_SP_SUB));
            const int status = sockets_.back()->connect(address);
            if (status != exit_result) {
                return status;
            }
            for (const std::string &channel : channels) {
                if (tavrix_mq_socket_subscribe(sockets_.back()->get(), channel.c_str()) != TAVRIX_OK) {
                    return fail(exit_no_connection, "cannot subscribe to '%s'", channel.c_str());
                }
            }
        }
        addresses_ = addresses;
        return exit_result;
    }

    /** Waits for a frame, a stop, or the time. */
    void wait_ready(int timeout_ms) const {
        std::vector<pollfd> ready = {{stop_descriptor(), POLLIN, 0}};
        for (const auto &socket : sockets_) {
            int fd = -1;
            if (tavrix_mq_socket_recvfd(socket->get(), &fd) == TAVRIX_OK) {
                ready.push_back({fd, POLLIN, 0});
            }
        }
        poll(ready.data(), ready.size(), timeout_ms);
    }

    bool receive_any(Frame *frame) const {
        return std::any_of(sockets_.begin(), sockets_.end(),
                           [frame](const auto &socket) { return receive(*socket, frame); });
    }

    size_t connected() const {
        return static_cast<size_t>(std::count_if(sockets_.begin(), sockets_.end(),
                                                 [](const auto &socket) { return socket->connections() > 0; }));
    }

    void tell_dead() const {
        for (size_t i = 0; i < sockets_.size(); ++i) {
            if (sockets_[i]->connections() == 0) {
                complain("%s: nobody publishes there yet", printable(addresses_[i]).c_str());
            }
        }
    }

  private:
    std::vector<std::string> addresses_;
    std::vector<std::unique_ptr<BusSocket>> sockets_;
};

/** A text that may be no UTF-8, which JSON could not hold as it is. */
Json json_of(const std::string &text) {
    Json exact(json_stringn(text.data(), text.size()));
    return exact ? std::move(exact) : Json(json_string(printable(text).c_str()));
}

/** A channel's short name also stands for what begins with it: such names begin methods, too. */
std::vector<std::string> prefixes_of(const std::vector<std::string> &channels) {
    std::vector<std::string> prefixes = channels.empty() ? std::vector<std::string>{""} : channels;
    for (const std::string &channel : channels) {
        const std::string named = channel_of(channel);
        if (!named.empty()) {
            prefixes.push_back(named);
        }
    }
    return prefixes;
}

/** What a frame was and when; `seconds` is how long after its request a reply came. */
struct Passed {
    double time;
    std::string channel;
    const json_t *message; ///< null when it is no JSON
    std::string text;
    std::optional<double> seconds;
};

/** The frame as it is printed. */
std::string line_of(const Passed &frame, const std::optional<JsonStyle> &style) {
    if (style == JsonStyle::lines) {
        const std::string name = short_name_of(frame.channel);
        const Json object(json_pack(
            "{s:f, s:o, s:o, s:o, s:o}", "time", frame.time, "channel", json_of(frame.channel).release(), "name",
            name.empty() ? json_null() : json_string(name.c_str()), "seconds",
            frame.seconds ? json_real(*frame.seconds) : json_null(), "message",
            frame.message != nullptr ? json_deep_copy(frame.message) : json_string(printable(frame.text).c_str())));
        return render(object.get(), JsonStyle::lines);
    }
    return time_text(frame.time) + "  " + (frame.channel.empty() ? "-" : channel_name(frame.channel)) + "  " +
           (frame.message != nullptr ? render(frame.message, style.value_or(JsonStyle::single_line))
                                     : printable(frame.text)) +
           (frame.seconds ? "  after " + milliseconds_text(*frame.seconds * 1000) : "");
}

/** Frames, each as it comes; the two of a call as soon as it is known that the filters want it. */
class FrameWatcher {
  public:
    FrameWatcher(const MonitorOptions &options, const std::vector<std::string> &patterns)
        : options_(options), patterns_(patterns) {}

    bool has_enough() const { return stop_requested() || (options_.count && printed_ >= *options_.count); }
    /** False when it could not be printed. */
    bool take(const Frame &frame);
    void tell_figures() { summary_.tell_all(pairing_, ""); }

  private:
    const MonitorOptions &options_;
    const std::vector<std::string> &patterns_;
    Pairing pairing_;
    Summary summary_;
    unsigned printed_ = 0;
};

bool FrameWatcher::take(const Frame &frame) {
    const double now = now_since_1970();
    const Json message(json_loadb(frame.json.data(), frame.json.size(), JSON_DECODE_ANY, nullptr));
    const std::string method = method_of(message.get());
    if (!patterns_.empty() && std::none_of(patterns_.begin(), patterns_.end(), [&method](const std::string &pattern) {
            return tavrix::matches(pattern.data(), pattern.size(), method.data(), method.size());
        })) {
        return true;
    }
    Passed passed{now, frame.channel, message.get(), frame.json, std::nullopt};
    const std::optional<Exchange> exchange = pairing_.take_frame(now, frame.channel, message.get());
    if (exchange) {
        summary_.add(*exchange);
    }
    const bool is_reply = exchange && !exchange->is_notification;
    if (is_reply) {
        passed.seconds = exchange->seconds;
    }
    if (options_.errors_only || options_.slower_than_ms) {
        if (!exchange || !is_wanted(*exchange, options_)) {
            return true;
        }
        const Passed request{exchange->time, exchange->road, exchange->request.get(), "", std::nullopt};
        if (!print_line(line_of(request, options_.json))) {
            return false;
        }
    }
    ++printed_;
    return print_line(line_of(passed, options_.json));
}

/** Until it is enough. */
int watch(const Listeners &listeners, size_t wanted, FrameWatcher *watcher) {
    const Deadline patience(patience_s);
    bool announced = false;
    bool told_dead = false;
    while (!watcher->has_enough()) {
        if (!announced && listeners.connected() == wanted) {
            complain("connected to %zu of %zu addresses", wanted, wanted);
            announced = true;
        } else if (!announced && !told_dead && patience.passed()) {
            listeners.tell_dead();
            told_dead = true;
        }
        listeners.wait_ready(announced ? -1 : tick_ms);
        Frame frame;
        while (!watcher->has_enough() && listeners.receive_any(&frame)) {
            if (!watcher->take(frame)) {
                return stop_requested() ? exit_result : exit_error_response;
            }
        }
    }
    return exit_result;
}

} // namespace

int monitor_bus(const MonitorOptions &options, const std::vector<std::string> &addresses,
                const std::vector<std::string> &patterns) {
    Listeners listeners;
    const int status = listeners.open(addresses, prefixes_of(options.channels));
    if (status != exit_result) {
        return status;
    }
    FrameWatcher watcher(options, patterns);
    const int end = watch(listeners, addresses.size(), &watcher);
    watcher.tell_figures();
    return end;
}

int push(const PushOptions &options) {
    bool valid = false;
    Json params = parse_params(options.params, &valid);
    const Json request = valid ? make_request(options.method, std::move(params), "") : nullptr;
    if (!request) {
        return exit_usage;
    }
    BusSocket socket(TAVRIX_SP_PUSH);
    const int status = socket.connect(options.address);
    if (status != exit_result) {
        return status;
    }
    const Deadline deadline(options.timeout_s);
    const std::string text = request_text(request.get());
    if (!socket.wait_for_room(deadline) || tavrix_mq_socket_send_nonblock(socket.get(), text.c_str()) != TAVRIX_OK) {
        return fail(exit_no_connection,
                    "%s: nobody takes the message; is a daemon running that has this address as its --pull?",
                    options.address.c_str());
    }
    // Closing drops what is not yet written out; room for the next message tells that this one is.
    if (!socket.wait_for_room(deadline)) {
        return fail(exit_timeout, "%s: the message was not taken in time", options.address.c_str());
    }
    complain("taken; whether it was obeyed cannot be known: nobody answers a pushed message");
    return exit_result;
}

int wait_on_bus(const WaitOptions &options, const std::vector<std::string> &addresses, const Deadline &deadline,
                const Taker &take) {
    Listeners listeners;
    const int status = listeners.open(addresses, {options.channel});
    if (status != exit_result) {
        return status;
    }
    const std::string method = printable(options.method);
    bool announced = false;
    unsigned taken = 0;
    while (!deadline.passed()) {
        if (!announced && listeners.connected() == addresses.size()) {
            complain("waiting for %s", method.c_str());
            announced = true;
        }
        const int left_ms = deadline.left_ms();
        listeners.wait_ready(announced ? left_ms : std::min(left_ms, tick_ms));
        Frame frame;
        while (!deadline.passed() && listeners.receive_any(&frame)) {
            json_t *found = nullptr;
            if (tavrix_jrpc_eval_notification(options.method.c_str(), frame.json.c_str(), &found) != TAVRIX_OK) {
                continue;
            }
            const Json notification(found);
            const int verdict = take(found);
            taken += verdict > 0 ? 1 : 0;
            if (verdict < 0 || taken == options.count) {
                return verdict < 0 ? exit_error_response : exit_result;
            }
        }
    }
    if (announced || listeners.connected() > 0) {
        return fail(exit_timeout, "no %s in time", method.c_str());
    }
    return fail(exit_no_connection, "no connection while waiting for %s", method.c_str());
}

} // namespace tavrixctl
