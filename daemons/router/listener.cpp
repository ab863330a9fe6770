#include "listener.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "common/log.h"
#include "tavrix_error.h"

namespace router {

namespace {

using std::chrono::milliseconds;

constexpr char unit_name[] = "listener";
constexpr int clients_per_turn = 32;
constexpr milliseconds time_per_turn{1};
constexpr milliseconds pause_time{100};
constexpr milliseconds tcp_attempt_interval{1000};

sockaddr_in tcp_socket_address(const std::string &address, int port) {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &place.sin_addr);
    return place;
}

} // namespace

bool Listener::watch(event_base *base, int descriptor, Taker taker) {
    base_ = base;
    taker_ = std::move(taker);
    if (descriptor < 0) {
        return true;
    }
    listen(descriptor, SOMAXCONN); // again, for a backlog that a burst of clients fits into
    readable_.reset(event_new(base, descriptor, EV_READ | EV_PERSIST, on_client, this));
    return readable_ && event_add(readable_.get(), nullptr) == 0;
}

bool Listener::open_unix(event_base *base, const std::string &path, Taker taker) {
    if (const char *obstacle = tavrix::find_listener_obstacle(path.c_str())) {
        LOG_ERROR("Cannot listen on %s: %s\n", path.c_str(), obstacle);
        return false;
    }
    if (tavrix_unix_socket_init(path.c_str(), socket_.place(), 1) != TAVRIX_OK ||
        !tavrix::note_socket_file(path.c_str(), &file_)) {
        LOG_ERROR("Cannot listen on %s: %s; does its folder exist, and may this user write there?\n", path.c_str(),
                  std::strerror(errno));
        return false;
    }
    pause_.reset(event_new(base, -1, 0, on_pause_over, this));
    return pause_ && watch(base, socket_.get(), std::move(taker));
}

bool Listener::open_tcp(event_base *base, const std::string &address, int port, Taker taker) {
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
        LOG_ERROR("Cannot listen on %s: it is not an IPv4 address\n", address.c_str());
        return false;
    }
    tcp_address_ = address;
    tcp_port_ = port;
    pause_.reset(event_new(base, -1, 0, on_pause_over, this));
    if (!pause_) {
        return false;
    }
    if (try_tcp()) {
        return watch(base, socket_.get(), std::move(taker));
    }
    if (errno != EADDRINUSE) {
        return tcp_failed(std::strerror(errno));
    }
    knock();
    if (is_answered()) {
        return tcp_failed("somebody serves there");
    }
    LOG_WARNING("Cannot listen on TCP port %d yet, trying again\n", port);
    return watch(base, -1, std::move(taker)) && daemon_support::add_after(pause_, tcp_attempt_interval);
}

bool Listener::tcp_failed(const char *why) {
    LOG_ERROR("Cannot listen on TCP port %d of %s: %s\n", tcp_port_, tcp_address_.c_str(), why);
    return false;
}

/** Begins a connection to the port that is taken: it tells whether somebody serves there. */
void Listener::knock() {
    const sockaddr_in place = tcp_socket_address(tcp_address_, tcp_port_);
    probe_.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (connect(probe_.get(), reinterpret_cast<const sockaddr *>(&place), sizeof place) != 0 && errno != EINPROGRESS) {
        probe_.reset();
    }
}

/** Mostly known at once; on a busy machine, or with a full backlog there, only later. */
bool Listener::is_answered() {
    pollfd state{probe_.get(), POLLOUT, 0};
    if (!probe_ || poll(&state, 1, 0) != 1) {
        return false;
    }
    int refusal = 0;
    socklen_t size = sizeof refusal;
    const bool is_refused = getsockopt(probe_.get(), SOL_SOCKET, SO_ERROR, &refusal, &size) != 0 || refusal != 0;
    probe_.reset();
    return !is_refused;
}

bool Listener::try_tcp() {
    const int yes = 1;
    const sockaddr_in place = tcp_socket_address(tcp_address_, tcp_port_);
    socket_.reset(); // first: it may hold the very port that is tried again
    socket_.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket_ && setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
        bind(socket_.get(), reinterpret_cast<const sockaddr *>(&place), sizeof place) == 0 &&
        listen(socket_.get(), SOMAXCONN) == 0) {
        return true;
    }
    const int reason = errno;
    socket_.reset();
    errno = reason;
    return false;
}

void Listener::stop() {
    readable_.reset();
    pause_.reset();
}

void Listener::on_pause_over(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Listener *>(context);
    if (self->readable_) {
        if (event_add(self->readable_.get(), nullptr) != 0) {
            daemon_support::add_after(self->pause_, pause_time);
        }
    } else if (self->is_answered()) {
        self->has_failed_ = !self->tcp_failed("somebody serves there");
        event_base_loopbreak(self->base_);
    } else if (self->try_tcp()) {
        self->probe_.reset();
        LOG_INFO("Listening on TCP port %d\n", self->tcp_port_);
        self->watch(self->base_, self->socket_.get(), self->taker_);
    } else {
        daemon_support::add_after(self->pause_, tcp_attempt_interval);
    }
}

void Listener::on_client(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    static_cast<Listener *>(context)->accept_clients();
}

void Listener::accept_clients() {
    const int listening = event_get_fd(readable_.get());
    const auto end = daemon_support::Clock::now() + time_per_turn;
    for (int left = clients_per_turn; left > 0 && daemon_support::Clock::now() < end; --left) {
        const int descriptor = accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor >= 0) {
            taker_(descriptor);
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            LOG_ERROR("Cannot accept a client: %s; those that are there are served\n", std::strerror(errno));
            if (daemon_support::add_after(pause_, pause_time)) {
                event_del(readable_.get()); // it would be readable at once, again and again
            }
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            return;
        }
    }
}

} // namespace router
