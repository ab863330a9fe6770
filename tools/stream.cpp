#include "stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavrixctl {

namespace {

constexpr size_t router_request_limit = 8192;
constexpr size_t direct_request_limit = 1024;
constexpr int highest_port = 65535;

class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    ~Socket() { reset(-1); }
    int get() const { return fd_; }
    void reset(int fd) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_;
};

/** Makes a blocking connect and send give up at the deadline. */
void limit_waiting(int fd, const Deadline &deadline) {
    const int left_ms = std::max(deadline.left_ms(), 1);
    const timeval limit{left_ms / 1000, (left_ms % 1000) * 1000L};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

bool is_timeout(int reason) { return reason == EAGAIN || reason == EINPROGRESS || reason == ETIMEDOUT; }

int connect_failure(const std::string &where, int reason) {
    if (is_timeout(reason)) {
        complain("%s: no connection in time", where.c_str());
        return exit_timeout;
    }
    complain("%s: %s", where.c_str(), std::strerror(reason));
    return exit_no_connection;
}

int connect_unix(const std::string &path, const Deadline &deadline, Socket *out) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        complain("%s: the path is longer than %zu characters", path.c_str(), sizeof address.sun_path - 1);
        return exit_usage;
    }
    path.copy(address.sun_path, path.size());
    out->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    limit_waiting(out->get(), deadline);
    if (connect(out->get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return connect_failure(path, errno);
    }
    return exit_result;
}

struct FreeAddresses {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};

/** Splits HOST:PORT at its last colon; the port has to be a number. */
bool split_tcp(const std::string &where, std::string *host, std::string *port) {
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    *host = where.substr(0, colon);
    *port = where.substr(colon + 1);
    return !port->empty() && port->size() <= 5 && port->find_first_not_of("0123456789") == std::string::npos &&
           std::stoi(*port) >= 1 && std::stoi(*port) <= highest_port;
}

/** The name "localhost" needs no name service, which may know nothing of it. */
bool is_this_machine(const std::string &host) { return host.empty() || host == "localhost"; }

int connect_tcp(const std::string &where, const Deadline &deadline, Socket *out) {
    std::string host;
    std::string port;
    if (!split_tcp(where, &host, &port)) {
        complain("%s: HOST:PORT is wanted, with a PORT from 1 to %d", where.c_str(), highest_port);
        return exit_usage;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int rc = getaddrinfo(is_this_machine(host) ? nullptr : host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0) {
        complain("%s: %s", where.c_str(), gai_strerror(rc));
        return exit_no_connection;
    }
    const std::unique_ptr<addrinfo, FreeAddresses> addresses(found);
    // A name often stands for an IPv6 address first, and the router listens on IPv4 only.
    int reason = EAFNOSUPPORT;
    for (const addrinfo *address = found; address != nullptr; address = address->ai_next) {
        out->reset(socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (out->get() < 0) {
            continue; // a machine without IPv6
        }
        limit_waiting(out->get(), deadline);
        if (connect(out->get(), address->ai_addr, address->ai_addrlen) == 0) {
            return exit_result;
        }
        reason = errno;
        if (is_timeout(reason)) {
            break;
        }
    }
    return connect_failure(where, reason);
}

int connect_to(const Target &target, const Deadline &deadline, Socket *out) {
    if (!target.direct.empty()) {
        return connect_unix(target.direct, deadline, out);
    }
    return target.tcp.empty() ? connect_unix(target.socket_path, deadline, out)
                              : connect_tcp(target.tcp, deadline, out);
}

int send_request(int fd, const std::string &text, const Deadline &deadline) {
    // One send: a server takes its request from one read and puts nothing together.
    limit_waiting(fd, deadline);
    const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    // A peer that takes only a part, or closes first, may have refused the request: its answer is there to be read.
    if (sent >= 0 || errno == EPIPE || errno == ECONNRESET) {
        return exit_result;
    }
    const int reason = errno;
    complain("cannot send the request: %s", is_timeout(reason) ? "not taken in time" : std::strerror(reason));
    return is_timeout(reason) ? exit_timeout : exit_no_connection;
}

int read_to_end(int fd, const Deadline &deadline, std::string *answer) {
    char chunk[4096];
    for (;;) {
        pollfd readable{fd, POLLIN, 0};
        const int ready = poll(&readable, 1, deadline.left_ms());
        if (ready < 0 && errno != EINTR) {
            complain("poll: %s", std::strerror(errno));
            return exit_no_connection;
        }
        if (ready == 0) {
            complain("no answer in time");
            return exit_timeout;
        }
        if (ready < 0) {
            continue;
        }
        const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
        // A peer that refuses a request without reading all of it resets the connection: an end like any other.
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            return exit_result;
        }
        if (got < 0) {
            complain("cannot read the answer: %s", std::strerror(errno));
            return exit_no_connection;
        }
        answer->append(chunk, static_cast<size_t>(got));
    }
}

} // namespace

size_t request_limit(const Target &target) {
    return target.direct.empty() ? router_request_limit : direct_request_limit;
}

int exchange(const Target &target, const std::string &text, const Deadline &deadline, std::string *answer) {
    Socket socket(-1);
    int status = connect_to(target, deadline, &socket);
    if (status == exit_result) {
        status = send_request(socket.get(), text, deadline);
    }
    if (status == exit_result) {
        status = read_to_end(socket.get(), deadline, answer);
    }
    return status;
}

} // namespace tavrixctl
