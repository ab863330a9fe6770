/**
 * Unix sockets by their paths: who serves there, and the file that a listener leaves.
 */
#ifndef TAVRIX_COMMON_UNIX_SOCKET_H
#define TAVRIX_COMMON_UNIX_SOCKET_H

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/handles.h"
#include "tavrix_socket.h"

namespace tavrix {

/** A longer path is cut to TAVRIX_SOCKET_MAX_PATH bytes. */
inline sockaddr_un unix_address(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, strnlen(path, TAVRIX_SOCKET_MAX_PATH));
    return address;
}

/** A connected non-blocking stream; none, with errno set, when nobody takes the connection now. */
inline Descriptor connect_unix(const char *path) {
    const sockaddr_un address = unix_address(path);
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd && connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int reason = errno;
        fd.reset();
        errno = reason;
    }
    return fd;
}

/** Why no listener may take the path; null when it is free, or left behind by one that has gone. */
inline const char *find_listener_obstacle(const char *path) {
    static_assert(TAVRIX_SOCKET_MAX_PATH == 107);
    struct stat file {};
    if (std::strlen(path) > TAVRIX_SOCKET_MAX_PATH) {
        return "a socket's path has at most 107 bytes";
    }
    if (lstat(path, &file) == 0 && !S_ISSOCK(file.st_mode)) {
        return "there is a file that is not a socket";
    }
    const bool is_served = connect_unix(path) || errno == EAGAIN; // somebody listens, with a full backlog
    return is_served ? "another daemon serves there" : nullptr;
}

/** The file of a listener; device and inode tell it from one that another daemon has put there since. */
struct SocketFile {
    char path[TAVRIX_SOCKET_MAX_PATH + 1];
    dev_t device;
    ino_t inode;
};

/** Notes the file that a listener has made; false, with errno set, when there is none. */
inline bool note_socket_file(const char *path, SocketFile *out) {
    struct stat file {};
    if (stat(path, &file) != 0) {
        return false;
    }
    std::strcpy(out->path, path);
    out->device = file.st_dev;
    out->inode = file.st_ino;
    return true;
}

/** Removes the listener's file, if one was noted and it is still there. */
inline void remove_socket_file(const SocketFile &noted) {
    struct stat file {};
    if (noted.path[0] != '\0' && stat(noted.path, &file) == 0 && file.st_dev == noted.device &&
        file.st_ino == noted.inode) {
        unlink(noted.path);
    }
}

} // namespace tavrix

#endif
