#include "stream.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "common/unix_socket.h"
#include "common/wire.h"
#include "tavrix_jrpc.h"

namespace tavrixctl {

namespace {

constexpr int highest_port = 65535;

/** Makes a blocking connect and send give up at the deadline. */
void limit_waiting(int fd, const Deadline &deadline) {
    const int left_ms = std::max(deadline.left_ms(), 1);
    const timeval limit{left_ms / 1000, (left_ms % 1000) * 1000L};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

bool is_timeout(int reason) { return reason == EAGAIN || reason == EINPROGRESS || reason == ETIMEDOUT; }

const char *remedy_for(RoadKind kind, int reason) {
    if (reason == EACCES) {
        return "; may this user enter its folder, and write to it?";
    }
    if (kind == RoadKind::direct) {
        return "; is its daemon running?";
    }
    return reason == ENOENT || reason == ECONNREFUSED
               ? "; is tavrix-routerd running? --help says how to name another place"
               : "";
}

int connect_failure(const std::string &where, RoadKind kind, int reason) {
    if (is_timeout(reason)) {
        return fail(exit_timeout, "%s: no connection in time", printable(where).c_str());
    }
    return fail(exit_no_connection, "%s: %s%s", printable(where).c_str(), std::strerror(reason),
                remedy_for(kind, reason));
}

/** 0 or the reason why there is no connection; the path has to fit. */
int try_unix(const std::string &path, const Deadline &deadline, Socket *out) {
    const sockaddr_un address = tavrix::unix_address(path.c_str());
    out->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    limit_waiting(out->get(), deadline);
    return connect(out->get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
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
        return fail(exit_usage, "%s: HOST:PORT is wanted, with a PORT from 1 to %d", where.c_str(), highest_port);
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int rc = getaddrinfo(is_this_machine(host) ? nullptr : host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0) {
        return fail(exit_no_connection, "%s: %s", where.c_str(), gai_strerror(rc));
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
    return connect_failure(where, RoadKind::tcp, reason);
}

/** Nothing listens there, or it is not for this user: another road may still lead to the router. */
bool is_absent(int reason) { return reason == ENOENT || reason == ECONNREFUSED || reason == EACCES; }

/** The variable's value; empty when it has none. */
std::string environment(const char *name) {
    const char *value = std::getenv(name);
    return value == nullptr ? "" : value;
}

/** Those that lead somewhere. */
std::vector<Road> named(const std::vector<Road> &roads) {
    std::vector<Road> found;
    std::copy_if(roads.begin(), roads.end(), std::back_inserter(found),
                 [](const Road &road) { return !road.where.empty(); });
    return found;
}

} // namespace

size_t request_limit(RoadKind kind) {
    switch (kind) {
    case RoadKind::session:
        return tavrix::max_request_line - 1; // and its newline
    case RoadKind::direct:
        return TAVRIX_SERVER_MAX_REQUEST;
    default:
        return TAVRIX_ROUTER_MAX_REQUEST;
    }
}

std::vector<Road> roads_to(const Target &target) {
    const std::vector<Road> given = named({{RoadKind::direct, target.direct},
                                           {RoadKind::tcp, target.tcp},
                                           {RoadKind::one_shot, target.socket_path},
                                           {RoadKind::session, target.session}});
    if (!given.empty()) {
        return {given.front()};
    }
    // Who names one socket of a router means that router: the usual paths could be another one's.
    const std::vector<Road> from_environment = named({{RoadKind::session, environment(tavrix::session_variable)},
                                                      {RoadKind::one_shot, environment("TAVRIX_SOCKET")}});
    return !from_environment.empty() ? from_environment
                                     : std::vector<Road>{{RoadKind::session, TAVRIX_SERVICE_SESSION},
                                                         {RoadKind::one_shot, tavrix::router_socket}};
}

int connect_to(const std::vector<Road> &roads, size_t request_size, const Deadline &deadline, Socket *out,
               RoadKind *kind) {
    for (size_t i = 0; i < roads.size(); ++i) {
        const Road &road = roads[i];
        *kind = road.kind;
        if (request_size > request_limit(road.kind)) {
            return fail(exit_usage, "the request has %zu bytes, %zu are read at most", request_size,
                        request_limit(road.kind));
        }
        if (road.kind == RoadKind::tcp) {
            return connect_tcp(road.where, deadline, out);
        }
        if (road.where.size() > TAVRIX_SOCKET_MAX_PATH) {
            return fail(exit_usage, "%s: the path is longer than %d characters", printable(road.where).c_str(),
                        TAVRIX_SOCKET_MAX_PATH);
        }
        const int reason = try_unix(road.where, deadline, out);
        if (reason == 0) {
            return exit_result;
        }
        if (i + 1 == roads.size() || !is_absent(reason)) {
            return connect_failure(road.where, road.kind, reason);
        }
    }
    return fail(exit_usage, "a session of the router is needed: --session or TAVRIX_SESSION tells where");
}

int send_text(int fd, const std::string &text, const Deadline &deadline) {
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
        const bool is_late = !answer->empty() && deadline.passed(); // however much comes without an end
        const int ready = is_late ? 0 : poll(&readable, 1, deadline.left_ms());
        if (ready < 0 && errno != EINTR) {
            return fail(exit_no_connection, "poll: %s", std::strerror(errno));
        }
        if (ready == 0) {
            return fail(exit_timeout, "no answer in time; %s", late_remedy);
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
            return fail(exit_no_connection, "cannot read the answer: %s", std::strerror(errno));
        }
        answer->append(chunk, static_cast<size_t>(got));
    }
}

} // namespace tavrixctl
