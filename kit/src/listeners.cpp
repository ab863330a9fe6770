/*
 * Sockets of the service's own: one request, one answer, closed; and bus pull sockets, one-way.
 *
 * A client is read as its bytes come, never waited for. It is whole when its JSON object is, when it has shut its
 * sending side down, or when 1024 bytes are there. When there are too many clients, or too many of one user, the one
 * that has been silent for longest makes room.
 */
#include <cerrno>
#include <cstdio>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace kit {

struct Listener {
    Entry entry;
    tavrix_service *service;
    tavrix_road road;
    int fd; ///< a bus socket for TAVRIX_ROAD_PULL
    event readable;
    event pause;             ///< without descriptors the listener rests
    tavrix::SocketFile file; ///< of a unix listener
};

struct Client {
    Entry entry; ///< of the service's clients alone: it has no number
    tavrix_service *service;
    int fd;
    event ready;
    tavrix_caller caller;
    bool reading;
    size_t length;
    int depth; ///< of the braces and brackets that are open
    bool in_text;
    bool escaped;
    size_t scanned;
    char in[TAVRIX_SERVER_MAX_REQUEST + 1];
    Buffer out;
};

namespace {

constexpr char unit_name[] = "service_listeners";
constexpr int request_timeout_ms = 10000;
constexpr int answer_timeout_ms = 5000;
constexpr int pause_ms = 200;
constexpr int clients_per_turn = 64;
constexpr int messages_per_turn = 64;
constexpr int backlog = 4096; // the system cuts it to its own limit

// --- Clients -------------------------------------------------------------------------------------------------------

Client *first_client(const tavrix_service *service) { return first_of<Client>(service->clients); }

void free_client(Client *client) {
    remove(&client->service->clients, &client->entry);
    event_del(&client->ready);
    close(client->fd);
    buffer_free(&client->out);
    unmake(client);
}

/** The call that a client waits for, when it has one. */
tavrix_call *call_of(const Client *client) {
    auto *call = first_of<tavrix_call>(client->service->directory.lists[entry_call]);
    while (call != nullptr && call->client != client) {
        call = next_of(call);
    }
    return call;
}

void watch_client(Client *client, short what, int timeout_ms, event_callback_fn callback) {
    event_del(&client->ready);
    event_assign(&client->ready, client->service->base, client->fd, what, callback, client);
    const timeval time = time_of_ms(timeout_ms);
    if (event_add(&client->ready, timeout_ms > 0 ? &time : nullptr) != 0) {
        shutdown(client->fd, SHUT_RDWR); // it is not served any more; the record goes when its place is needed
    }
}

void on_client_writable(evutil_socket_t fd, short what, void *argument) {
    auto *client = static_cast<Client *>(argument);
    if ((what & EV_TIMEOUT) == 0 && buffer_send(&client->out, fd) == EAGAIN) {
        watch_client(client, EV_WRITE, answer_timeout_ms, on_client_writable);
        return;
    }
    free_client(client);
}

/** Reads on only to notice that the client goes. One that has only shut its sending side down still waits. */
void on_client_moves(evutil_socket_t fd, short /*what*/, void *argument) {
    auto *client = static_cast<Client *>(argument);
    char rest[512];
    const ssize_t count = recv(fd, rest, sizeof rest, MSG_DONTWAIT);
    if (count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR))) {
        return;
    }
    pollfd descriptor{fd, 0, 0};
    const bool gone = count < 0 || (poll(&descriptor, 1, 0) == 1 && (descriptor.revents & (POLLHUP | POLLERR)) != 0);
    tavrix_call *call = gone ? call_of(client) : nullptr;
    if (call != nullptr) {
        call->client = nullptr;
        abandon_call(call);
    }
    if (gone) {
        free_client(client);
    } else {
        event_del(&client->ready); // the end of its side is known; its call has a deadline
    }
}

// --- Requests ------------------------------------------------------------------------------------------------------

/** Whether the bytes so far hold a whole object. What is no object's beginning is whole at once: it gets refused. */
bool is_whole(Client *client) {
    for (; client->scanned < client->length; ++client->scanned) {
        const char byte = client->in[client->scanned];
        if (client->in_text) {
            const bool ends = byte == '"' && !client->escaped;
            client->escaped = byte == '\\' && !client->escaped;
            client->in_text = !ends;
        } else if (byte == '"') {
            client->in_text = true;
        } else if (byte == '{' || byte == '[') {
            ++client->depth;
        } else if (byte == '}' || byte == ']') {
            --client->depth;
        }
        const bool is_blank = byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
        if (client->depth <= 0 && !client->in_text && !is_blank) {
            return true;
        }
    }
    return client->length == TAVRIX_SERVER_MAX_REQUEST;
}

void evaluate_client(Client *client) {
    client->reading = false;
    watch_client(client, EV_READ | EV_PERSIST, 0, on_client_moves);
    Json request(json_loadb(client->in, client->length, parse_flags, nullptr));
    if (!request) {
        LOG_DEBUG("A client's request is not JSON\n");
    }
    evaluate(client->service, std::move(request),
             {client->caller, nullptr, client}); // the client may be gone when this returns
}

void on_client_readable(evutil_socket_t fd, short what, void *argument) {
    auto *client = static_cast<Client *>(argument);
    if ((what & EV_TIMEOUT) != 0) {
        free_client(client);
        return;
    }
    const ssize_t count =
        recv(fd, client->in + client->length, TAVRIX_SERVER_MAX_REQUEST - client->length, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count < 0 || (count == 0 && client->length == 0)) {
        free_client(client);
        return;
    }
    client->length += static_cast<size_t>(count);
    remove(&client->service->clients, &client->entry);
    append(&client->service->clients, &client->entry); // silent for the shortest time now
    if (is_whole(client) || count == 0) {
        evaluate_client(client);
    }
}

/**
 * Makes room by closing the client that has been silent for longest, one of the same user when they have half of the
 * places; false when all of them wait for answers. Over TCP everybody is one user.
 */
bool make_room(tavrix_service *service, uid_t user) {
    size_t own = 0;
    for (const Client *client = first_client(service); client != nullptr; client = next_of(client)) {
        own += client->caller.uid == user ? 1 : 0;
    }
    const bool has_half = own >= TAVRIX_SERVICE_MAX_CLIENTS / 2;
    if (!has_half && service->clients.count < TAVRIX_SERVICE_MAX_CLIENTS) {
        return true;
    }
    for (Client *client = first_client(service); client != nullptr; client = next_of(client)) {
        if (client->reading && (!has_half || client->caller.uid == user)) {
            free_client(client);
            return true;
        }
    }
    return false;
}

tavrix_caller caller_of(tavrix_road road, int fd) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (road != TAVRIX_ROAD_UNIX || getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return unknown_caller(road);
    }
    return {road, credentials.pid, credentials.uid, credentials.gid};
}

void take_client(Listener *listener, int fd) {
    tavrix_service *service = listener->service;
    const tavrix_caller caller = caller_of(listener->road, fd);
    auto *client = !service->stopping && make_room(service, caller.uid) ? make<Client>() : nullptr;
    if (client == nullptr) {
        close(fd);
        return;
    }
    client->service = service;
    client->fd = fd;
    client->caller = caller;
    client->reading = true;
    append(&service->clients, &client->entry);
    event_assign(&client->ready, service->base, fd, EV_READ | EV_PERSIST, on_client_readable, client);
    const timeval time = time_of_ms(request_timeout_ms);
    if (event_add(&client->ready, &time) != 0) {
        free_client(client);
    }
}

void on_acceptable(evutil_socket_t fd, short /*what*/, void *argument) {
    auto *listener = static_cast<Listener *>(argument);
    for (int left = clients_per_turn; left > 0; --left) {
        const int client = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client >= 0) {
            take_client(listener, client);
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            LOG_ERROR("Cannot accept a client: %s; pausing\n", std::strerror(errno));
            const timeval time = time_of_ms(pause_ms);
            if (evtimer_add(&listener->pause, &time) == 0) {
                event_del(&listener->readable);
            }
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

void on_pause_over(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    auto *listener = static_cast<Listener *>(argument);
    if (event_add(&listener->readable, nullptr) != 0) {
        LOG_ERROR("A listener takes no clients any more: no memory\n");
    }
}

void on_pull_readable(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    auto *listener = static_cast<Listener *>(argument);
    tavrix_service *service = listener->service;
    const uint64_t number = listener->entry.number;
    for (int left = messages_per_turn; left > 0 && find(&service->directory, number) != nullptr; --left) {
        char *message = nullptr;
        int length = 0;
        if (tavrix_mq_socket_recv(listener->fd, &message, &length, 1) != TAVRIX_OK) {
            return;
        }
        const Text owner(message);
        Json request(json_loadb(message, static_cast<size_t>(length), parse_flags, nullptr));
        evaluate(service, std::move(request), {unknown_caller(TAVRIX_ROAD_PULL), nullptr, nullptr});
    }
}

// --- Opening -------------------------------------------------------------------------------------------------------

/** Takes the descriptor over. */
uint64_t add_listener(tavrix_service *service, tavrix_road road, int fd, int watched, event_callback_fn callback) {
    auto *listener = make<Listener>();
    if (listener == nullptr) {
        LOG_ERROR("Cannot listen: no memory\n");
        return 0;
    }
    listener->service = service;
    listener->road = road;
    listener->fd = fd;
    event_assign(&listener->readable, service->base, watched, EV_READ | EV_PERSIST, callback, listener);
    evtimer_assign(&listener->pause, service->base, on_pause_over, listener);
    if (event_add(&listener->readable, nullptr) != 0) {
        LOG_ERROR("Cannot listen: %s\n", std::strerror(errno));
        unmake(listener);
        return 0;
    }
    return enter(&service->directory, &listener->entry, entry_listener);
}

uint64_t cannot_listen(const char *where, const char *why) {
    LOG_ERROR("Cannot listen on %s: %s\n", Printable(where).text, why);
    return 0;
}

} // namespace

void client_answer(Client *client, const char *text) {
    if (!buffer_append(&client->out, text, std::strlen(text))) {
        LOG_ERROR("An answer is lost: no memory\n");
    }
    on_client_writable(client->fd, EV_WRITE, client);
}

bool clients_have_unwritten(const tavrix_service *service) {
    for (const Client *client = first_client(service); client != nullptr; client = next_of(client)) {
        if (client->out.size() > 0) {
            return true;
        }
    }
    return false;
}

bool close_listener(tavrix_service *service, Entry *entry) {
    auto *listener = reinterpret_cast<Listener *>(entry);
    event_del(&listener->readable);
    event_del(&listener->pause);
    leave(&service->directory, entry);
    if (listener->road == TAVRIX_ROAD_PULL) {
        tavrix_mq_socket_close(listener->fd);
    } else {
        close(listener->fd);
    }
    tavrix::remove_socket_file(listener->file);
    unmake(listener);
    return true;
}

void close_clients(tavrix_service *service) {
    while (Client *client = first_client(service)) {
        free_client(client);
    }
}

} // namespace kit

using namespace kit;

uint64_t tavrix_service_listen_unix(tavrix_service *service, const char *path) {
    if (service == nullptr || path == nullptr || *path == '\0') {
        return cannot_listen(path != nullptr ? path : "", "there is no path");
    }
    if (const char *obstacle = tavrix::find_listener_obstacle(path)) {
        return cannot_listen(path, obstacle);
    }
    int fd = -1;
    if (tavrix_unix_socket_init(path, &fd, 1) != TAVRIX_OK) {
        return cannot_listen(path, std::strerror(errno));
    }
    tavrix::Descriptor owner(fd);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    tavrix::SocketFile file;
    if (listen(fd, backlog) != 0 || !tavrix::note_socket_file(path, &file)) {
        return cannot_listen(path, std::strerror(errno));
    }
    const uint64_t number = add_listener(service, TAVRIX_ROAD_UNIX, fd, fd, on_acceptable);
    if (number != 0) {
        owner.release();
        reinterpret_cast<Listener *>(find(&service->directory, number))->file = file;
    }
    return number;
}

uint64_t tavrix_service_listen_tcp(tavrix_service *service, const char *address, unsigned port, unsigned *port_out) {
    char where[64];
    const char *host = address != nullptr ? address : "127.0.0.1";
    std::snprintf(where, sizeof where, "%.40s:%u", host, port);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(static_cast<uint16_t>(port));
    if (service == nullptr || port > 65535 || inet_pton(AF_INET, host, &place.sin_addr) != 1) {
        return cannot_listen(where, "this is not an IPv4 address and port");
    }
    tavrix::Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    constexpr int on = 1;
    socklen_t size = sizeof place;
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&place), size) != 0 || listen(fd.get(), backlog) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&place), &size) != 0) {
        const int reason = errno;
        return cannot_listen(where, reason == EADDRINUSE ? "Address already in use; is another daemon running there?"
                                                         : std::strerror(reason));
    }
    const uint64_t number = add_listener(service, TAVRIX_ROAD_TCP, fd.get(), fd.get(), on_acceptable);
    if (number != 0) {
        fd.release();
        if (port_out != nullptr) {
            *port_out = ntohs(place.sin_port);
        }
    }
    return number;
}

uint64_t tavrix_service_listen_pull(tavrix_service *service, const char *address) {
    const int transport = address != nullptr ? transport_of(address) : 0;
    if (service == nullptr || transport == 0) {
        return cannot_listen(address != nullptr ? address : "", "this is not a bus address");
    }
    int sock = -1;
    int id = 0;
    int descriptor = -1;
    if (!tavrix::open_bus_socket(TAVRIX_SP_PULL, &sock)) {
        return cannot_listen(address, bus_error());
    }
    if (tavrix_mq_socket_bind(sock, transport, address, &id) != TAVRIX_OK ||
        tavrix_mq_socket_recvfd(sock, &descriptor) != TAVRIX_OK) {
        cannot_listen(address, bus_error());
        tavrix_mq_socket_close(sock);
        return 0;
    }
    const uint64_t number = add_listener(service, TAVRIX_ROAD_PULL, sock, descriptor, on_pull_readable);
    if (number == 0) {
        tavrix_mq_socket_close(sock);
    }
    return number;
}
