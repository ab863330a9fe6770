/**
 * Owners for what the library's own socket functions open. They close through those functions, which log a failure.
 */
#ifndef TAVRIX_COMMON_SOCKETS_H
#define TAVRIX_COMMON_SOCKETS_H

#include <memory>

#include <nanomsg/nn.h>

#include "common/handles.h"
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

struct FreeBusMessage {
    void operator()(void *message) const { static_cast<void>(nn_freemsg(message)); }
};
/** A message that nanomsg allocated and that nobody has taken over yet. */
using BusMessage = std::unique_ptr<void, FreeBusMessage>;

} // namespace tavrix

#endif
