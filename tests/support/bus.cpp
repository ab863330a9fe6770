#include "support/bus.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/handles.h"
#include "tavrix_mq.h"

namespace support {

bool wait_until(const std::function<bool()> &condition, int timeout_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        poll(nullptr, 0, 5);
    }
    return true;
}

namespace {

bool can_bind(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bound = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return bound;
}

/**
 * A range of ports that is this process's alone: between choosing a port and binding it no other test can choose it
 * too. The claim is the name of a socket that is no file, so that it ends with the process, however that ends.
 */
class OwnPorts {
  public:
    OwnPorts() noexcept : claim_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        for (int attempt = 0; attempt < ranges && first_ == 0; ++attempt) {
            const int range = (getpid() + attempt) % ranges;
            if (claims(range)) {
                first_ = lowest + range * count;
            }
        }
    }
    OwnPorts(const OwnPorts &) = delete;
    OwnPorts &operator=(const OwnPorts &) = delete;
    ~OwnPorts() { close(claim_); }

    /** The next one that can be bound: each is used again as late as possible. */
    int next() {
        for (int attempt = 0; attempt < count && first_ != 0; ++attempt) {
            const int port = first_ + static_cast<int>(next_++ % count);
            if (can_bind(port)) {
                return port;
            }
        }
        throw std::runtime_error("no free port");
    }

  private:
    // Below those that the kernel gives to clients: one of another test's might take it before it is used here.
    static constexpr int lowest = 10240;
    static constexpr int count = 128;
    static constexpr int ranges = (32768 - lowest) / count;

    bool claims(int range) const {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        // Behind a first zero byte it is a name of the kernel's, not a file's.
        const int length = std::snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "tavrix-test-ports-%d", range);
        const size_t size = offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(length);
        return bind(claim_, reinterpret_cast<const sockaddr *>(&name), static_cast<socklen_t>(size)) == 0;
    }

    int claim_;
    int first_ = 0; ///< 0: there is none
    unsigned next_ = 0;
};

/** Claimed before the tests begin: some count descriptors, or let system calls fail. */
OwnPorts own_ports;

} // namespace

int free_port() { return own_ports.next(); }

std::string free_bus_address() { return "tcp://127.0.0.1:" + std::to_string(free_port()); }

BusSocket::BusSocket(int sp_type) {
    if (tavrix_mq_socket_init(sp_type, &number) != 0) {
        throw std::runtime_error("no bus socket");
    }
}

int BusSocket::timeout_ms() const {
    int ms = INT_MIN;
    tavrix_mq_socket_get_timeout(number, &ms);
    return ms;
}

NoBusSocketIsLeft::NoBusSocketIsLeft() {
    for (int number = -1; tavrix_mq_socket_init(TAVRIX_SP_PAIR, &number) == 0;) {
        taken_.push_back(number);
    }
}

NoBusSocketIsLeft::~NoBusSocketIsLeft() { std::for_each(taken_.begin(), taken_.end(), tavrix_mq_socket_close); }

void BusSocket::close() {
    if (number >= 0) {
        tavrix_mq_socket_close(number);
    }
    number = -1;
}

/** Binds or connects. */
static void reach(decltype(tavrix_mq_socket_bind) *call, int socket, const std::string &address) {
    const int transport = address.rfind("ipc://", 0) == 0 ? TAVRIX_TRANSPORT_IPC : TAVRIX_TRANSPORT_TCP;
    int endpoint = 0;
    if (call(socket, transport, address.c_str(), &endpoint) != 0) {
        throw std::runtime_error("cannot reach " + address);
    }
}

void BusSocket::bind(const std::string &address) { reach(tavrix_mq_socket_bind, number, address); }

void BusSocket::connect(const std::string &address) { reach(tavrix_mq_socket_connect, number, address); }

std::string BusSocket::next_text(int timeout_ms) const {
    std::string frame;
    tavrix_mq_socket_set_timeout(number, timeout_ms);
    return take_frame(number, &frame) ? frame.substr(frame.find('|') + 1) : "(nothing)";
}

bool take_frame(int sub, std::string *frame, int nonblock) {
    tavrix::Text text;
    int length = 0;
    if (tavrix_mq_socket_recv(sub, into(text), &length, nonblock) != 0) {
        return false;
    }
    frame->assign(text.get(), static_cast<size_t>(length));
    return true;
}

void settle(int pub, int sub, const std::string &channel) {
    const std::string marker = channel + "|settling";
    const std::string last = channel + "|settled";
    std::string frame;
    const bool arrived = wait_until([&] {
        tavrix_mq_socket_send(pub, marker.c_str());
        return take_frame(sub, &frame, 1);
    });
    if (!arrived) {
        throw std::runtime_error("the subscriber never hears the publisher");
    }
    tavrix_mq_socket_send(pub, last.c_str());
    while (frame != last) {
        if (!take_frame(sub, &frame)) {
            throw std::runtime_error("the settled connection lost a frame");
        }
    }
}

BusPair::BusPair(const std::string &channel, int timeout_ms)
    : pub(TAVRIX_SP_PUB), sub(TAVRIX_SP_SUB), address(free_bus_address()) {
    pub.bind(address);
    sub.connect(address);
    tavrix_mq_socket_subscribe(sub.number, channel.c_str());
    tavrix_mq_socket_set_timeout(sub.number, 20000);
    settle(pub.number, sub.number, channel);
    tavrix_mq_socket_set_timeout(sub.number, timeout_ms);
}

void BusPair::publish(const std::string &frame) {
    if (tavrix_mq_socket_send(pub.number, frame.c_str()) != 0) {
        throw std::runtime_error("cannot publish");
    }
}

std::string BusPair::receive() {
    std::string frame;
    return take_frame(sub.number, &frame) ? frame : "(nothing)";
}

} // namespace support
