/**
 * The sockets that clients connect to.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_LISTENERS_H
#define TAVRIX_DAEMONS_ROUTER_LISTENERS_H

#include "common/handles.h"
#include "common/unix_listener.h"

namespace router {

using daemon_support::StreamSocket;
using daemon_support::UnixListener;

/** Whether somebody listens on the TCP port of this machine; takes at most `timeout_ms`. */
bool tcp_port_is_served(int port, int timeout_ms);

} // namespace router

#endif
