/**
 * A server played by the test: takes one client on "played.sock", hears it once, says its answer and closes.
 */
#ifndef TAVRIX_TESTS_SUPPORT_PLAYED_SERVER_H
#define TAVRIX_TESTS_SUPPORT_PLAYED_SERVER_H

#include <string>
#include <thread>

namespace support {

class PlayedServer {
  public:
    explicit PlayedServer(const std::string &answer);
    PlayedServer(const PlayedServer &) = delete;
    PlayedServer &operator=(const PlayedServer &) = delete;
    ~PlayedServer();

  private:
    int fd_;
    std::thread server_;
};

} // namespace support

#endif
