/**
 * Owners for what the library's own socket functions open. They close through those functions, which log a failure.
 */
#ifndef TAVRIX_INTERNAL_SOCKETS_H
#define TAVRIX_INTERNAL_SOCKETS_H

#include "internal/handles.h"
#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace tavrix {

struct CloseBusSocket {
    void operator()(int sock) const { static_cast<void>(tavrix_mq_socket_close(sock)); }
};
using BusSocket = Handle<CloseBusSocket>;

struct CloseClient {
    void operator()(int fd) const { static_cast<void>(tavrix_socket_close(&fd)); }
};
/** A connected client of a stream socket. */
using Client = Handle<CloseClient>;

} // namespace tavrix

#endif
