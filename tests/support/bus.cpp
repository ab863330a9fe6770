#include "support/bus.h"

#include <chrono>
#include <cstdlib>
#include <random>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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

} // namespace

int free_port() {
    // Below those that the kernel gives to clients: one of another test's might take it before it is used here.
    constexpr int first = 10240;
    constexpr int end = 32768;
    static std::minstd_rand random{std::random_device()()};
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int port = std::uniform_int_distribution<int>(first, end - 1)(random);
        if (can_bind(port)) {
            return port;
        }
    }
    throw std::runtime_error("no free port");
}

std::string free_bus_address() { return "tcp://127.0.0.1:" + std::to_string(free_port()); }

BusSocket::BusSocket(int sp_type) {
    if (tavrix_mq_socket_init(sp_type, &number) != 0) {
        throw std::runtime_error("no bus socket");
    }
}

void BusSocket::close() {
    if (number >= 0) {
        tavrix_mq_socket_close(number);
    }
    number = -1;
}

namespace {

int transport_of(const std::string &address) {
    return address.rfind("ipc://", 0) == 0 ? TAVRIX_TRANSPORT_IPC : TAVRIX_TRANSPORT_TCP;
}

} // namespace

void BusSocket::bind(const std::string &address) {
    int endpoint = 0;
    if (tavrix_mq_socket_bind(number, transport_of(address), address.c_str(), &endpoint) != 0) {
        throw std::runtime_error("cannot bind " + address);
    }
}

void BusSocket::connect(const std::string &address) {
    int endpoint = 0;
    if (tavrix_mq_socket_connect(number, transport_of(address), address.c_str(), &endpoint) != 0) {
        throw std::runtime_error("cannot connect " + address);
    }
}

namespace {

bool take(int sub, std::string *frame, int nonblock) {
    char *text = nullptr;
    int length = 0;
    if (tavrix_mq_socket_recv(sub, &text, &length, nonblock) != 0) {
        return false;
    }
    frame->assign(text, static_cast<size_t>(length));
    free(text);
    return true;
}

} // namespace

void settle(int pub, int sub, const std::string &channel) {
    const std::string marker = channel + "|settling";
    const std::string last = channel + "|settled";
    std::string frame;
    const bool arrived = wait_until([&] {
        tavrix_mq_socket_send(pub, marker.c_str());
        return take(sub, &frame, 1);
    });
    if (!arrived) {
        throw std::runtime_error("the subscriber never hears the publisher");
    }
    tavrix_mq_socket_send(pub, last.c_str());
    while (frame != last) {
        if (!take(sub, &frame, 0)) {
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
    return take(sub.number, &frame, 0) ? frame : "(nothing)";
}

} // namespace support
