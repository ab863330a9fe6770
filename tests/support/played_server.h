/**
 * A server played by the test: takes one client on "played.sock", hears it once, says its answer and closes.
 */
#ifndef TAVRIX_TESTS_SUPPORT_PLAYED_SERVER_H
#define TAVRIX_TESTS_SUPPORT_PLAYED_SERVER_H

#include <stdexcept>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

#include "common/handles.h"
#include "support/stream.h"

namespace support {

class PlayedServer {
  public:
    explicit PlayedServer(const std::string &answer) : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = unix_address("played.sock");
        unlink(address.sun_path);
        if (bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_.get(), 1) != 0) {
            throw std::runtime_error("cannot listen on played.sock");
        }
        server_ = std::thread([this, answer] {
            const StreamClient client(accept(listener_.get(), nullptr, nullptr));
            char request[1024];
            static_cast<void>(recv(client.fd(), request, sizeof request, 0));
            client.say(answer);
        });
    }
    PlayedServer(const PlayedServer &) = delete;
    PlayedServer &operator=(const PlayedServer &) = delete;
    ~PlayedServer() {
        shutdown(listener_.get(), SHUT_RDWR); // a client that never came is waited for no longer
        server_.join();
    }

  private:
    tavrix::Descriptor listener_;
    std::thread server_;
};

} // namespace support

#endif
