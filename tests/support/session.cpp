#include "support/session.h"

#include <chrono>
#include <stdexcept>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace support {

namespace {

constexpr time_t longest_wait_s = 20;

using Clock = std::chrono::steady_clock;

int milliseconds_until(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

} // namespace

SessionClient::SessionClient(const std::string &path) : stream_(StreamClient::unix_path(path)) {
    const timeval wait{longest_wait_s, 0};
    setsockopt(stream_.fd(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

bool SessionClient::say_bytes(const std::string &bytes) const {
    return send(stream_.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string SessionClient::hear(int timeout_ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    size_t searched = 0;
    for (;;) {
        const size_t newline = heard_.find('\n', searched);
        if (newline != std::string::npos) {
            std::string line = heard_.substr(0, newline);
            heard_.erase(0, newline + 1);
            return line;
        }
        searched = heard_.size();
        pollfd state{stream_.fd(), POLLIN, 0};
        if (poll(&state, 1, milliseconds_until(end)) != 1) {
            return "(time-out)";
        }
        char bytes[65536];
        const ssize_t count = recv(stream_.fd(), bytes, sizeof bytes, 0);
        if (count <= 0) {
            return "(closed)";
        }
        heard_.append(bytes, static_cast<size_t>(count));
    }
}

std::string SessionClient::hear_of(const std::string &part) {
    for (;;) {
        std::string line = hear();
        if (line.find(part) != std::string::npos || line == "(closed)" || line == "(time-out)") {
            return line;
        }
    }
}

std::string SessionClient::ask(const std::string &line) {
    say(line);
    return hear();
}

bool SessionClient::gets_closed() { return hear_of("(closed)") == "(closed)"; }

void SessionClient::end_sending() const { shutdown(stream_.fd(), SHUT_WR); }

std::string Registration::line(const std::string &id) const {
    std::string params;
    const auto add = [&params](const std::string &key, const std::string &value) {
        params += value.empty() ? "" : (params.empty() ? "\"" : ",\"") + key + "\":" + value;
    };
    add("name", name.empty() ? "" : "\"" + name + "\"");
    add("channel", channel.empty() ? "" : "\"" + channel + "\"");
    add("publish", publish);
    add("methods", methods);
    add("direct", direct);
    add("callers", callers);
    return request("router.Register", id, ",\"params\":{" + params + "}");
}

DirectService::DirectService(const Registration &registration) {
    const std::string answer = ask(registration.line());
    if (member(answer, "result") != "0") {
        throw std::runtime_error("the router does not register the played service: " + answer);
    }
}

void DirectService::reply(const std::string &request, const std::string &result) const {
    say(service_reply(request, result));
}

namespace {

/** The address of a service's publisher, which its registration names from now on. */
std::string settle_address(Registration *registration) {
    std::string address = registration->publish == "[]" ? free_bus_address() : registration->publish;
    registration->publish = "[\"" + address + "\"]";
    return address;
}

} // namespace

BusService::BusService(const Fleet &fleet, Registration registration)
    : PlayedService(fleet, registration.channel, settle_address(&registration)) {
    const std::string hello = notification("router.Hello", R"({"name":")" + registration.name + R"(","channel":")" +
                                                               registration.channel + "\"}");
    session.say(registration.line());
    const bool answered = wait_until([&] {
        if (sub.next_text(5).find("service.Probe") != std::string::npos) {
            reply(hello);
        }
        registered = session.hear(0);
        return registered != "(time-out)";
    });
    if (!answered) {
        throw std::runtime_error("the router does not settle the played service");
    }
}

std::string BusService::next_request(int timeout_ms) const {
    for (;;) {
        std::string text = PlayedService::next_request(timeout_ms);
        if (member(text, "method") != "\"service.Probe\"") {
            return text;
        }
    }
}

} // namespace support
