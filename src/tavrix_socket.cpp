/*
 * Stream sockets: Unix-domain and TCP listeners, accept, a blocking TCP connect, receive, send, close.
 *
 * Keeps no state: a handle is the caller's descriptor. System calls that fail are reported with perror.
 */
#include "tavrix_socket.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "internal/handles.h"
#include "internal/log.h"
#include "tavrix_error.h"

namespace {

constexpr char unit_name[] = "tavrix_socket";
constexpr mode_t unix_socket_mode = 0666;

/** The address buffer of both listeners. */
union ListenAddress {
    sockaddr generic;
    sockaddr_un local;
    sockaddr_in ipv4;
};
// The Unix-domain length serves both binds: for IPv4 the kernel takes a longer one, and there is one path to test.
constexpr socklen_t listen_address_length = 110;
static_assert(sizeof(ListenAddress) >= listen_address_length, "the kernel reads this much of the address");
static_assert(TAVRIX_SOCKET_MAX_PATH == sizeof(sockaddr_un::sun_path) - 1, "one byte is left for the terminator");

int failed(const char *what) {
    std::perror(what);
    return TAVRIX_ERR_GENERAL;
}

void add_nonblock(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    static_cast<void>(fcntl(fd, F_SETFL, flags | O_NONBLOCK));
}

/** Binds and listens; prints the failing call. */
bool start_listening(int fd, const ListenAddress &address) {
    if (bind(fd, &address.generic, listen_address_length) != 0) {
        std::perror("bind");
        return false;
    }
    if (listen(fd, TAVRIX_SOCKET_BACKLOG) != 0) {
        std::perror("listen");
        return false;
    }
    return true;
}

int accept_client(int listen_sock, sockaddr *peer, socklen_t length, int *client_out, const char *function) {
    // Written on failure too: daemons test the handle for -1, and must not find an earlier client's number there.
    *client_out = accept(listen_sock, peer, &length);
    if (*client_out >= 0) {
        return TAVRIX_OK;
    }
    if (errno != EAGAIN) {
        std::perror(function);
    }
    return TAVRIX_ERR_GENERAL;
}

} // namespace

int tavrix_unix_socket_init(const char *path, int *sock_out, int nonblocking) {
    if (path == nullptr || sock_out == nullptr) {
        LOG_DEBUG("[tavrix_unix_socket_init]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    tavrix::Descriptor fd(socket(AF_UNIX, SOCK_STREAM, 0));
    if (!fd) {
        return failed("tavrix_unix_socket_init");
    }
    if (nonblocking != 0) {
        add_nonblock(fd.get());
    }
    ListenAddress address{};
    std::memset(&address, 0, sizeof address);
    address.local.sun_family = AF_UNIX;
    // A longer path is cut: clients that cut it as well still meet the daemon. Everything below works on the cut one.
    std::memcpy(address.local.sun_path, path, strnlen(path, TAVRIX_SOCKET_MAX_PATH));
    static_cast<void>(unlink(address.local.sun_path)); // left behind by an earlier run
    if (!start_listening(fd.get(), address)) {
        return TAVRIX_ERR_GENERAL;
    }
    if (chmod(address.local.sun_path, unix_socket_mode) != 0) {
        return failed("chmod");
    }
    *sock_out = fd.release();
    return TAVRIX_OK;
}

int tavrix_tcp_socket_init(unsigned port, int *sock_out, int nonblocking) {
    if (sock_out == nullptr) {
        LOG_DEBUG("[tavrix_tcp_socket_init]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    // Non-blocking whatever the caller asks: daemons serve it in turn with others, and an accept must not hold them up.
    tavrix::Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    if (!fd) {
        return failed("tavrix_tcp_socket_init");
    }
    if (nonblocking != 0) {
        add_nonblock(fd.get());
    }
    ListenAddress address{};
    std::memset(&address, 0, sizeof address);
    address.ipv4.sin_family = AF_INET;
    address.ipv4.sin_port = htons(static_cast<uint16_t>(port));
    address.ipv4.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!start_listening(fd.get(), address)) {
        return TAVRIX_ERR_GENERAL;
    }
    *sock_out = fd.release();
    return TAVRIX_OK;
}

int tavrix_socket_accept(const int *listen_sock, int *client_out) {
    if (listen_sock == nullptr || client_out == nullptr) {
        LOG_DEBUG("[tavrix_socket_accept]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    sockaddr_un peer{};
    return accept_client(*listen_sock, reinterpret_cast<sockaddr *>(&peer), sizeof peer, client_out,
                         "tavrix_socket_accept");
}

int tavrix_tcp_socket_accept(const int *listen_sock, int *client_out) {
    if (listen_sock == nullptr || client_out == nullptr) {
        LOG_DEBUG("[tavrix_tcp_socket_accept]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    sockaddr_in peer{};
    return accept_client(*listen_sock, reinterpret_cast<sockaddr *>(&peer), sizeof peer, client_out,
                         "tavrix_tcp_socket_accept");
}

int tavrix_tcp_socket_connect(const char *ipv4_text, unsigned port, int *sock_out) {
    if (ipv4_text == nullptr) {
        LOG_DEBUG("[tavrix_tcp_socket_connect]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    tavrix::Descriptor fd(socket(AF_INET, SOCK_STREAM, 0));
    if (!fd) {
        return failed("tavrix_tcp_socket_connect");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, ipv4_text, &address.sin_addr) <= 0) {
        return failed("inet_pton");
    }
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return errno == ETIMEDOUT ? TAVRIX_ERR_CONNECT_TIMEOUT : TAVRIX_ERR_GENERAL;
    }
    if (sock_out == nullptr) { // looked at last: callers that only probe pass null, and still learn of a time-out
        LOG_DEBUG("[tavrix_tcp_socket_connect]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    *sock_out = fd.release();
    return TAVRIX_OK;
}

int tavrix_socket_recv(const int *sock, char *buf, size_t len) {
    if (sock == nullptr || buf == nullptr) {
        LOG_DEBUG("[tavrix_socket_recv]: Null Pointer!\n");
        return 0; // as at the end of the stream: after -1 callers look at errno, which says nothing here
    }
    const ssize_t received = recv(*sock, buf, len, 0);
    if (received < 0) {
        std::perror("tavrix_socket_recv");
    } else if (received == 0) {
        LOG_DEBUG("[tavrix_socket_recv]: zero bytes received!\n");
    }
    return static_cast<int>(received);
}

int tavrix_socket_send(const int *sock, const char *text) {
    if (sock == nullptr || text == nullptr) {
        LOG_DEBUG("[tavrix_socket_send]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    // A short send counts as sent: a client that does not read must not hold up a daemon that serves one at a time.
    return send(*sock, text, std::strlen(text), MSG_NOSIGNAL) < 0 ? TAVRIX_ERR_GENERAL : TAVRIX_OK;
}

int tavrix_socket_close(int *sock) {
    if (sock == nullptr) {
        LOG_DEBUG("[tavrix_socket_close]: Null Pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    if (close(*sock) != 0) {
        return failed("tavrix_socket_close");
    }
    *sock = -1;
    return TAVRIX_OK;
}

int tavrix_socket_shutdown(int *sock) {
    if (sock == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    const int rc = close(*sock);
    *sock = -1;
    return rc;
}
