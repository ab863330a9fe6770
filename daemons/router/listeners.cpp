#include "listeners.h"

#include "common/signals.h"
#include "tavrix_error.h"

namespace router {

bool tcp_port_is_served(int port, int timeout_ms) {
    const daemon_support::Interruption bound(timeout_ms); // with a full backlog it would take minutes
    StreamSocket probe;
    return tavrix_tcp_socket_connect("127.0.0.1", static_cast<unsigned>(port), probe.place()) == TAVRIX_OK;
}

} // namespace router
