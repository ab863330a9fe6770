/**
 * Owners for what the library's own socket functions open. They close through those functions, which log a failure.
 * And the bus socket of who serves from a loop.
 */
#ifndef TAVRIX_COMMON_SOCKETS_H
#define TAVRIX_COMMON_SOCKETS_H

#include <nanomsg/nn.h>
#include <nanomsg/tcp.h>
#include <sched.h>

#include "common/handles.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace tavrix {

struct CloseBusSocket {
    void operator()(int sock) const { static_cast<void>(tavrix_mq_socket_close(sock)); }
};
using BusSocket = Handle<CloseBusSocket>;

struct CloseStreamSocket {
    void operator()(int fd) const { static_cast<void>(tavrix_socket_close(&fd)); }
};
/** A stream socket: a listener, or one end of a connection. */
using StreamSocket = Handle<CloseStreamSocket>;

/**
 * While it lives, threads that this one makes are batch threads: they do not interrupt who wakes them. A thread of
 * another policy than the usual one, which is somebody's choice, passes that on as ever.
 */
class BatchThreads {
  public:
    BatchThreads() : usual_(sched_getscheduler(0) == SCHED_OTHER) { choose(SCHED_BATCH); }
    ~BatchThreads() { choose(SCHED_OTHER); }
    BatchThreads(const BatchThreads &) = delete;
    BatchThreads &operator=(const BatchThreads &) = delete;

  private:
    void choose(int policy) const {
        const sched_param none{};
        if (usual_) {
            static_cast<void>(sched_setscheduler(0, policy, &none)); // refused, all stays as it was: only slower
        }
    }
    bool usual_;
};

/**
 * Opens a socket of the bus; on failure none is open, and nn_errno() tells why. The first brings nanomsg's thread,
 * which is woken from within each receive: it would stop the receiver there, only to wait for the lock that the
 * receiver holds. Over TCP a small message does not wait for the acknowledgement of the one before.
 */
inline bool open_bus_socket(int protocol, int *out) {
    const BatchThreads while_nanomsg_makes_its_own;
    const int yes = 1;
    if (tavrix_mq_socket_init(protocol, out) != TAVRIX_OK) {
        return false;
    }
    BusSocket opened(*out);
    if (nn_setsockopt(*out, NN_TCP, NN_TCP_NODELAY, &yes, sizeof yes) != 0) {
        *out = -1;
        return false;
    }
    opened.release();
    return true;
}

} // namespace tavrix

#endif
