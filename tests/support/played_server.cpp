#include "support/played_server.h"

#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

#include "support/stream.h"

namespace support {

PlayedServer::PlayedServer(const std::string &answer) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = unix_address("played.sock");
    unlink(address.sun_path);
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd_, 1) != 0) {
        throw std::runtime_error("cannot listen on played.sock");
    }
    server_ = std::thread([fd = fd_, answer] {
        const StreamClient client(accept(fd, nullptr, nullptr));
        char request[1024];
        static_cast<void>(recv(client.fd(), request, sizeof request, 0));
        client.say(answer);
    });
}

PlayedServer::~PlayedServer() {
    shutdown(fd_, SHUT_RDWR); // a client that never came is waited for no longer
    server_.join();
    close(fd_);
}

} // namespace support
