#include "base/unix_listener.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/log.h"
#include "tavrix_error.h"

namespace daemon_support {

namespace {

constexpr char unit_name[] = "unix_listener";

bool unix_path_is_served(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, TAVRIX_SOCKET_MAX_PATH);
    const tavrix::Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return probe && (connect(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ||
                     errno == EAGAIN); // somebody listens, with a full backlog
}

} // namespace

bool UnixListener::open(const std::string &path) {
    if (path.size() > TAVRIX_SOCKET_MAX_PATH) {
        LOG_ERROR("Cannot listen on %s: a socket's path has at most %d bytes\n", path.c_str(), TAVRIX_SOCKET_MAX_PATH);
        return false;
    }
    struct stat file {};
    if (lstat(path.c_str(), &file) == 0 && !S_ISSOCK(file.st_mode)) {
        LOG_ERROR("Cannot listen on %s: there is a file that is no socket\n", path.c_str());
        return false;
    }
    if (unix_path_is_served(path)) {
        LOG_ERROR("Cannot listen on %s: another daemon serves there\n", path.c_str());
        return false;
    }
    if (tavrix_unix_socket_init(path.c_str(), socket_.place(), 1) != TAVRIX_OK || stat(path.c_str(), &file) != 0) {
        LOG_ERROR("Cannot listen on %s: %s; does its folder exist, and may this user write there?\n", path.c_str(),
                  std::strerror(errno));
        return false;
    }
    path_ = path;
    device_ = file.st_dev;
    inode_ = file.st_ino;
    return true;
}

UnixListener::~UnixListener() {
    struct stat file {};
    if (!path_.empty() && stat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

} // namespace daemon_support
