/**
 * A unix listener with the file that stands for it.
 */
#ifndef TAVRIX_DAEMONS_BASE_UNIX_LISTENER_H
#define TAVRIX_DAEMONS_BASE_UNIX_LISTENER_H

#include <string>

#include <sys/types.h>

#include "common/sockets.h"

namespace daemon_support {

/** The file is made with the listener and removed with it. */
class UnixListener {
  public:
    ~UnixListener();

    /**
     * Takes the place of a socket that was left behind, not that of a daemon that serves there, nor that of any other
     * file; logs what failed.
     */
    bool open(const std::string &path);
    int descriptor() const { return socket_.get(); }

  private:
    tavrix::StreamSocket socket_;
    std::string path_;
    dev_t device_ = 0; ///< with the inode: tells whether the file is still this listener's
    ino_t inode_ = 0;
};

} // namespace daemon_support

#endif
