/**
 * Owners for what the library's own socket functions open; each closes through them, so that a failure is reported.
 */
#ifndef TAVRIX_INTERNAL_SOCKETS_H
#define TAVRIX_INTERNAL_SOCKETS_H

#include <utility>

#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace tavrix {

/** A bus socket, closed with its scope unless it is handed over. */
class BusSocket {
  public:
    BusSocket() = default;
    BusSocket(const BusSocket &) = delete;
    BusSocket &operator=(const BusSocket &) = delete;
    ~BusSocket() {
        if (number_ >= 0) {
            static_cast<void>(tavrix_mq_socket_close(number_));
        }
    }

    int open(int sp_type) { return tavrix_mq_socket_init(sp_type, &number_); }
    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }

  private:
    int number_ = -1;
};

/** A connected client, closed with its scope unless it is handed over. */
class Client {
  public:
    Client() = default;
    explicit Client(int fd) : fd_(fd) {}
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() {
        if (fd_ >= 0) {
            static_cast<void>(tavrix_socket_close(&fd_));
        }
    }

    int *place() { return &fd_; }
    const int *get() const { return &fd_; }
    /** Closes now, and only once: after a failure the number may be another thread's already. */
    int close() {
        int fd = release();
        return tavrix_socket_close(&fd);
    }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

} // namespace tavrix

#endif
