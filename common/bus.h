/**
 * The bus for programs with a loop: its sockets, and its addresses.
 */
#ifndef TAVRIX_COMMON_BUS_H
#define TAVRIX_COMMON_BUS_H

#include <cstdio>
#include <cstring>

#include <nanomsg/nn.h>
#include <nanomsg/tcp.h>
#include <sched.h>
#include <unistd.h>

#include "common/sockets.h"
#include "common/text.h"
#include "tavrix_error.h"

namespace tavrix {

constexpr size_t mebibyte = 1048576;
constexpr size_t max_frame =
    8 * mebibyte; ///< the sockets below close the connection of whoever sends a larger one, for good
constexpr size_t max_bus_address = 113; ///< with its scheme: nanomsg aborts on a longer path

/**
 * While it lives, threads started by this one are SCHED_BATCH: they do not pre-empt the thread that wakes them. Where
 * the policy is not SCHED_OTHER, somebody chose it, and it stays.
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
            static_cast<void>(sched_setscheduler(0, policy, &none)); // where it is refused, only speed is lost
        }
    }
    bool usual_;
};

/**
 * Opens a socket of the bus; on failure none is open, and nn_errno() tells why. The first one starts nanomsg's thread.
 * Each receive wakes it, and it would pre-empt the receiver only to wait for the lock that the receiver holds. Over TCP
 * a small message does not wait for the acknowledgement of the one before. Messages of up to max_frame are received; a
 * socket that the library alone has opened takes nanomsg's own 1 MiB.
 */
inline bool open_bus_socket(int protocol, int *out) {
    const BatchThreads while_nanomsg_makes_its_own;
    const int yes = 1;
    const int largest = static_cast<int>(max_frame);
    if (tavrix_mq_socket_init(protocol, out) != TAVRIX_OK) {
        return false;
    }
    BusSocket opened(*out);
    if (nn_setsockopt(*out, NN_TCP, NN_TCP_NODELAY, &yes, sizeof yes) != 0 ||
        nn_setsockopt(*out, NN_SOL_SOCKET, NN_RCVMAXSIZE, &largest, sizeof largest) != 0) {
        *out = -1;
        return false;
    }
    opened.release();
    return true;
}

/** The address's transport; 0 for one that is too long, has control characters, or is neither tcp:// nor ipc://. */
inline int transport_of(const char *address) {
    if (std::strlen(address) > max_bus_address || has_control_characters(address)) {
        return 0;
    }
    if (std::strncmp(address, "tcp://", 6) == 0) {
        return TAVRIX_TRANSPORT_TCP;
    }
    return std::strncmp(address, "ipc://", 6) == 0 ? TAVRIX_TRANSPORT_IPC : 0;
}

/** Makes a relative ipc address absolute, for processes in other folders; one that would get too long stays as it is.
 */
inline void make_absolute(const char *address, char (&out)[max_bus_address + 1]) {
    const char *path = address + std::strlen("ipc://");
    char folder[max_bus_address + 1];
    const bool is_relative =
        transport_of(address) == TAVRIX_TRANSPORT_IPC && *path != '/' && getcwd(folder, sizeof folder) != nullptr;
    if (!is_relative || std::snprintf(out, sizeof out, "ipc://%s/%s", folder, path) > int{max_bus_address}) {
        std::snprintf(out, sizeof out, "%s", address);
    }
}

} // namespace tavrix

#endif
