/**
 * The readiness notice that a service manager waits for, in the kit's services and in the router.
 */
#ifndef TAVRIX_COMMON_NOTIFY_H
#define TAVRIX_COMMON_NOTIFY_H

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

#include "common/handles.h"

namespace tavrix {

/** Where the service manager waits for the notice; null if it does not. */
inline const char *ready_notice_address() {
    const char *path = std::getenv("NOTIFY_SOCKET");
    const size_t length = path != nullptr ? std::strlen(path) : 0;
    const bool usable = length > 0 && length < sizeof sockaddr_un{}.sun_path && (path[0] == '/' || path[0] == '@');
    return usable ? path : nullptr;
}

/** False, with errno set, when the notice could not be sent. */
inline bool send_ready_notice(const char *path) {
    constexpr char ready[] = "READY=1";
    const size_t length = std::strlen(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') {
        address.sun_path[0] = '\0'; // an abstract socket
    }
    const Descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return fd &&
           sendto(fd.get(), ready, sizeof ready - 1, MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address), size) >= 0;
}

} // namespace tavrix

#endif
