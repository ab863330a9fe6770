#include "support/stream.h"

#include <cerrno>
#include <filesystem>
#include <iterator>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

namespace {

int connect_or_close(int fd, const sockaddr *address, socklen_t length) {
    if (connect(fd, address, length) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

sockaddr_un unix_address(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

StreamClient StreamClient::unix_path(const std::string &path) {
    const sockaddr_un address = unix_address(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return StreamClient(connect_or_close(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address));
}

StreamClient StreamClient::tcp_port(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return StreamClient(connect_or_close(fd, reinterpret_cast<sockaddr *>(&address), sizeof address));
}

void StreamClient::say(const std::string &text) const {
    static_cast<void>(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL));
}

std::string StreamClient::hear(int timeout_ms) const {
    std::string text;
    char chunk[4096];
    for (;;) {
        pollfd state{fd_, POLLIN, 0};
        if (poll(&state, 1, timeout_ms) != 1) {
            return "(time-out)";
        }
        const ssize_t got = recv(fd_, chunk, sizeof chunk, 0);
        if (got <= 0) {
            return text;
        }
        text.append(chunk, static_cast<size_t>(got));
    }
}

bool StreamClient::take(std::string *heard) const {
    char chunk[4096];
    ssize_t got = 0;
    while ((got = recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
        heard->append(chunk, static_cast<size_t>(got));
    }
    return got == 0 || errno == ECONNRESET;
}

void StreamClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = -1;
}

int SocketPair::connected_to(tavrix::Descriptor *end) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    end->reset(fds[0]);
    return fds[1];
}

int port_of(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

int open_descriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<int>(std::distance(begin(open), end(open)));
}

} // namespace support
