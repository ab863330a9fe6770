/**
 * The sockets that clients connect to.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_LISTENERS_H
#define TAVRIX_DAEMONS_ROUTER_LISTENERS_H

#include <string>

#include <sys/types.h>

#include "common/handles.h"

namespace router {

using daemon_support::StreamSocket;

/** A unix listener with the file that stands for it: made with it, removed with it. */
class UnixListener {
  public:
    UnixListener() = default;
    UnixListener(const UnixListener &) = delete;
    UnixListener &operator=(const UnixListener &) = delete;
    ~UnixListener();

    /** Takes the place of a file left behind, not that of a daemon that serves there; logs what failed. */
    bool open(const std::string &path);
    const StreamSocket &socket() const { return socket_; }

  private:
    StreamSocket socket_;
    std::string path_;
    dev_t device_ = 0; ///< with the inode: tells whether the file is still this listener's
    ino_t inode_ = 0;
};

/** Whether somebody listens on the TCP port of this machine; takes at most `timeout_ms`. */
bool tcp_port_is_served(int port, int timeout_ms);

} // namespace router

#endif
