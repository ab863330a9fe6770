/**
 * A server played by the test on "played.sock".
 */
#ifndef TAVRIX_TESTS_SUPPORT_PLAYED_SERVER_H
#define TAVRIX_TESTS_SUPPORT_PLAYED_SERVER_H

#include <functional>
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
    /** Hears each client once, says the answer and closes. */
    explicit PlayedServer(const std::string &answer)
        : PlayedServer([answer](const StreamClient &client) {
              char request[1024];
              static_cast<void>(recv(client.fd(), request, sizeof request, 0));
              client.say(answer);
          }) {}
    /** Does this with each client. */
    explicit PlayedServer(const std::function<void(const StreamClient &)> &serve)
        : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = unix_address("played.sock");
        unlink(address.sun_path);
        if (bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_.get(), 1) != 0) {
            throw std::runtime_error("cannot listen on played.sock");
        }
        server_ = std::thread([this, serve] {
            for (int client = -1; (client = accept(listener_.get(), nullptr, nullptr)) >= 0;) {
                serve(StreamClient(client));
            }
        });
    }
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
