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

#include "common/handles.h"
#include "common/log.h"
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
// Both families bind with the size of a Unix address: for IPv4 the kernel accepts a longer one than its own.
constexpr socklen_t listen_address_length = 110;
static_assert(sizeof(ListenAddress) >= listen_address_length, "the kernel reads this much of the address");
static_assert(TAVRIX_SOCKET_MAX_PATH == sizeof(sockaddr_un::sun_path) - 1, "one byte is left for the terminator");

int null_pointer(const char *function) {
    LOG_DEBUG("[%s]: Null Pointer!\n", function);
    return TAVRIX_ERR_GENERAL;
}

int failed(const char *what) {
    std::perror(what);
    return TAVRIX_ERR_GENERAL;
}

tavrix::Descriptor open_listener(int domain, int type, int nonblocking) {
    tavrix::Descriptor fd(socket(domain, type, 0));
    if (fd && nonblocking != 0) {
        const int flags = fcntl(fd.get(), F_GETFL);
        static_cast<void>(fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK));
    }
    return fd;
}

ListenAddress address_of_family(sa_family_t family) {
    ListenAddress address;
    std::memset(&address, 0, sizeof address);
    address.generic.sa_family = family;
    return address;
}

int start_listening(int fd, const ListenAddress &address) {
    if (bind(fd, &address.generic, listen_address_length) != 0) {
        return failed("bind");
    }
    return listen(fd, TAVRIX_SOCKET_BACKLOG) == 0 ? TAVRIX_OK : failed("listen");
}

template <class Peer>
int accept_client(const int *listen_sock, int *client_out, const char *function) {
    if (listen_sock == nullptr || client_out == nullptr) {
        return null_pointer(function);
    }
    Peer peer{};
    socklen_t length = sizeof peer;
    // Written on failure too: daemons compare the handle with -1, and must not find an earlier client's number there.
    *client_out = accept(*listen_sock, reinterpret_cast<sockaddr *>(&peer), &length);
    if (*client_out >= 0) {
        return TAVRIX_OK;
    }
    return errno == EAGAIN ? TAVRIX_ERR_GENERAL : failed(function);
}

} // namespace

int tavrix_unix_socket_init(const char *path, int *sock_out, int nonblocking) {
    if (path == nullptr || sock_out == nullptr) {
        return null_pointer(__func__);
    }
    tavrix::Descriptor fd = open_listener(AF_UNIX, SOCK_STREAM, nonblocking);
    if (!fd) {
        return failed(__func__);
    }
    ListenAddress address = address_of_family(AF_UNIX);
    // A longer path is cut: clients that cut it as well still reach the daemon. All that follows uses the cut path.
    std::memcpy(address.local.sun_path, path, strnlen(path, TAVRIX_SOCKET_MAX_PATH));
    static_cast<void>(unlink(address.local.sun_path)); // left behind by an earlier run
    if (start_listening(fd.get(), address) != TAVRIX_OK) {
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
        return null_pointer(__func__);
    }
    // Non-blocking, whatever the caller asks for: daemons serve it in turn with others, and accept must not block them.
    tavrix::Descriptor fd = open_listener(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, nonblocking);
    if (!fd) {
        return failed(__func__);
    }
    ListenAddress address = address_of_family(AF_INET);
    address.ipv4.sin_port = htons(static_cast<uint16_t>(port));
    address.ipv4.sin_addr.s_addr = htonl(INADDR_ANY);
    if (start_listening(fd.get(), address) != TAVRIX_OK) {
        return TAVRIX_ERR_GENERAL;
    }
    *sock_out = fd.release();
    return TAVRIX_OK;
}

int tavrix_socket_accept(const int *listen_sock, int *client_out) {
    return accept_client<sockaddr_un>(listen_sock, client_out, __func__);
}

int tavrix_tcp_socket_accept(const int *listen_sock, int *client_out) {
    return accept_client<sockaddr_in>(listen_sock, client_out, __func__);
}

int tavrix_tcp_socket_connect(const char *ipv4_text, unsigned port, int *sock_out) {
    if (ipv4_text == nullptr) {
        return null_pointer(__func__);
    }
    tavrix::Descriptor fd(socket(AF_INET, SOCK_STREAM, 0));
    if (!fd) {
        return failed(__func__);
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
    if (sock_out == nullptr) { // checked last: callers that only probe pass null, and still learn of a time-out
        return null_pointer(__func__);
    }
    *sock_out = fd.release();
    return TAVRIX_OK;
}

int tavrix_socket_recv(const int *sock, char *buf, size_t len) {
    if (sock == nullptr || buf == nullptr) {
        null_pointer(__func__);
        return 0; // as at the end of a stream: after -1 callers look at errno, which has no meaning here
    }
    const ssize_t received = recv(*sock, buf, len, 0);
    if (received < 0) {
        std::perror(__func__);
    } else if (received == 0) {
        LOG_DEBUG("[%s]: zero bytes received!\n", __func__);
    }
    return static_cast<int>(received);
}

int tavrix_socket_send(const int *sock, const char *text) {
    if (sock == nullptr || text == nullptr) {
        return null_pointer(__func__);
    }
    // A short send counts as sent: a client that does not read must not block a daemon that serves one at a time.
    return send(*sock, text, std::strlen(text), MSG_NOSIGNAL) < 0 ? TAVRIX_ERR_GENERAL : TAVRIX_OK;
}

int tavrix_socket_close(int *sock) {
    if (sock == nullptr) {
        return null_pointer(__func__);
    }
    if (close(*sock) != 0) {
        return failed(__func__);
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
