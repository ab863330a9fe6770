/*
 * monitor, push, wait: straight to the bus, without the router.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <nanomsg/nn.h>
#include <poll.h>
#include <sys/time.h>

#include "interrupt.h"
#include "params.h"
#include "support.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"
#include "verb_bus.h"
#include "verbs.h"

namespace tavrixctl {

namespace {

constexpr int tick_ms = 50;

/** A bus socket of one type, connected to every address. */
class BusSocket {
  public:
    explicit BusSocket(int sp_type) {
        if (tavrix_mq_socket_init(sp_type, &socket_) != TAVRIX_OK) {
            socket_ = -1;
            return;
        }
        // At the first larger message nanomsg would drop the publisher's connection for good.
        constexpr int limit = 8 * 1024 * 1024;
        nn_setsockopt(socket_, NN_SOL_SOCKET, NN_RCVMAXSIZE, &limit, sizeof limit);
    }
    BusSocket(const BusSocket &) = delete;
    BusSocket &operator=(const BusSocket &) = delete;
    ~BusSocket() {
        if (socket_ >= 0) {
            tavrix_mq_socket_close(socket_);
        }
    }

    int get() const { return socket_; }

    int connect(const std::string &address) {
        int endpoint = 0;
        const int rc = tavrix_mq_socket_connect(socket_, TAVRIX_TRANSPORT_TCP, address.c_str(), &endpoint);
        if (rc == TAVRIX_OK) {
            return exit_result;
        }
        if (rc == TAVRIX_ERR_VALIDATION) {
            complain("%s: a bus address looks like tcp://127.0.0.1:7001", address.c_str());
            return exit_usage;
        }
        complain("%s: %s", address.c_str(), std::strerror(errno));
        return exit_no_connection;
    }

    unsigned connections() const {
        return static_cast<unsigned>(nn_get_statistic(socket_, NN_STAT_CURRENT_CONNECTIONS));
    }

    /** Waits for the descriptor that tells of messages to receive (or room to send). */
    bool wait_ready(int (*descriptor_of)(int, int *), int timeout_ms) const {
        int fd = -1;
        if (descriptor_of(socket_, &fd) != TAVRIX_OK) {
            return false;
        }
        pollfd ready[] = {{fd, POLLIN, 0}, {stop_descriptor(), POLLIN, 0}};
        return poll(ready, 2, timeout_ms) > 0 && ready[0].revents != 0;
    }

  private:
    int socket_ = -1;
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

int subscribe(BusSocket *socket, const std::vector<std::string> &addresses, const std::vector<std::string> &channels) {
    for (const std::string &address : addresses) {
        const int status = socket->connect(address);
        if (status != exit_result) {
            return status;
        }
    }
    for (const std::string &channel : channels) {
        if (tavrix_mq_socket_subscribe(socket->get(), channel.c_str()) != TAVRIX_OK) {
            complain("cannot subscribe to '%s'", channel.c_str());
            return exit_no_connection;
        }
    }
    return exit_result;
}

std::string time_of_day() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03d", static_cast<int>(now.tv_usec / 1000));
    return text;
}

/** The frame's JSON in the wanted style, or its escaped bytes when it is no JSON. */
std::string styled(const std::string &json, JsonStyle style) {
    const Json value(json_loadb(json.data(), json.size(), JSON_DECODE_ANY, nullptr));
    return value ? render(value.get(), style) : printable(json);
}

} // namespace

int monitor(const MonitorOptions &options) {
    if (!stop_on_signals()) {
        return exit_error_response;
    }
    BusSocket socket(TAVRIX_SP_SUB);
    const std::vector<std::string> every_channel = {""};
    const int status =
        subscribe(&socket, options.addresses, options.channels.empty() ? every_channel : options.channels);
    if (status != exit_result) {
        return status;
    }
    bool announced = false;
    unsigned printed = 0;
    while (!stop_requested() && (!options.count || printed < *options.count)) {
        if (!announced && socket.connections() >= options.addresses.size()) {
            complain("connected to %zu of %zu addresses", options.addresses.size(), options.addresses.size());
            announced = true;
        }
        if (!socket.wait_ready(tavrix_mq_socket_recvfd, announced ? -1 : tick_ms)) {
            continue;
        }
        Frame frame;
        while (!stop_requested() && (!options.count || printed < *options.count) && receive(socket, &frame)) {
            const std::string channel = frame.channel.empty() ? "-" : printable(frame.channel);
            if (!print_line(time_of_day() + "  " + channel + "  " + styled(frame.json, options.json))) {
                return stop_requested() ? exit_result : exit_error_response;
            }
            ++printed;
        }
    }
    return exit_result;
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
    if (!socket.wait_ready(tavrix_mq_socket_sendfd, deadline.left_ms()) ||
        tavrix_mq_socket_send_nonblock(socket.get(), text.c_str()) != TAVRIX_OK) {
        complain("%s: nobody takes the message", options.address.c_str());
        return exit_no_connection;
    }
    // Closing drops what is not yet written out; room for the next message tells that this one is.
    if (!socket.wait_ready(tavrix_mq_socket_sendfd, deadline.left_ms())) {
        complain("%s: the message was not taken in time", options.address.c_str());
        return exit_timeout;
    }
    return exit_result;
}

int wait_on_bus(const WaitOptions &options, const std::vector<std::string> &addresses, const Deadline &deadline,
                const Taker &take) {
    BusSocket socket(TAVRIX_SP_SUB);
    const int status = subscribe(&socket, addresses, {options.channel});
    if (status != exit_result) {
        return status;
    }
    const std::string method = printable(options.method);
    bool announced = false;
    unsigned taken = 0;
    while (!deadline.passed()) {
        if (!announced && socket.connections() >= addresses.size()) {
            complain("waiting for %s", method.c_str());
            announced = true;
        }
        const int left_ms = deadline.left_ms();
        if (!socket.wait_ready(tavrix_mq_socket_recvfd, announced ? left_ms : std::min(left_ms, tick_ms))) {
            continue;
        }
        Frame frame;
        while (!deadline.passed() && receive(socket, &frame)) {
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
    if (announced || socket.connections() > 0) {
        complain("no %s in time", method.c_str());
        return exit_timeout;
    }
    complain("no connection while waiting for %s", method.c_str());
    return exit_no_connection;
}

} // namespace tavrixctl
