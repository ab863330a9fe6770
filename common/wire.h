/**
 * What the router, the services and the client have agreed on beside their names: how much a message may hold, how the
 * names of services and methods look, and where they meet.
 */
#ifndef TAVRIX_COMMON_WIRE_H
#define TAVRIX_COMMON_WIRE_H

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/bus.h"
#include "common/text.h"
#include "tavrix_service.h"

namespace tavrix {

constexpr size_t max_reply_line = max_frame + mebibyte; ///< of a session: what fits the bus, its envelope and a newline
constexpr size_t max_request_line = 65536;              ///< of a session, with its newline
constexpr int default_reply_timeout_ms = 10000;
constexpr char session_variable[] = "TAVRIX_SESSION";

/** The router's socket for sessions: the one that is given, or the environment's, or the usual one. */
inline const char *session_path(const char *given = nullptr) {
    const char *told = given != nullptr ? given : std::getenv(session_variable);
    return given != nullptr || (told != nullptr && *told != '\0') ? told : TAVRIX_SERVICE_SESSION;
}

/** No dot first: a service's socket on the bus has its name, and would be a hidden file. */
inline bool is_service_name(const char *name) {
    constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
    const size_t length = std::strlen(name);
    return length > 0 && length <= TAVRIX_SERVICE_MAX_NAME && std::strspn(name, allowed) == length && *name != '.';
}

/** For patterns, too. No bar: it ends a frame's channel, and a notification's channel is its method's name. */
inline bool is_method_name(const char *name) {
    const size_t length = std::strlen(name);
    return length > 0 && length <= TAVRIX_SERVICE_MAX_METHOD && !has_control_characters(name, length) &&
           std::strchr(name, '|') == nullptr;
}

} // namespace tavrix

#endif
