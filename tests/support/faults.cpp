/*
 * Counting, and the wrappers: of a program's, those that it hands to tavrix_wrap() are called.
 */
#include "support/faults.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jansson.h>
#include <pcre.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fault {

namespace {

Plan *in_force = nullptr;
int in_use = 0;

} // namespace

int blocks() { return in_use; }

void *taken(void *memory) {
    in_use += memory != nullptr ? 1 : 0;
    return memory;
}

void *given_back(void *memory) {
    in_use -= memory != nullptr ? 1 : 0;
    return memory;
}

Fault::Fault(const char *function, int number, int reason, int times) {
    std::snprintf(plan_.of, sizeof plan_.of, "%s", function);
    plan_.first = number;
    plan_.last = times == always ? always : number + times - 1;
    plan_.reason = reason;
}

Fault::Armed::Armed(Plan *plan) : before_(in_force) { in_force = plan; }

Fault::Armed::~Armed() { in_force = before_; }

bool Fault::fails(const char *function) {
    Plan *plan = in_force;
    if (plan == nullptr || (plan->of[0] != '\0' && std::strcmp(plan->of, function) != 0)) {
        return false;
    }
    const int first = plan->first;
    const int call = ++plan->calls;
    if (first == 0 || call < first || call > plan->last) {
        return false;
    }
    std::snprintf(plan->failed, sizeof plan->failed, "%s", function);
    ++plan->failures;
    errno = plan->reason;
    return true;
}

namespace {

void *allocate(size_t size, const char *function) {
    return taken(Fault::fails(function) ? nullptr : std::malloc(size));
}
void *allocate_json(size_t size) { return allocate(size, "Jansson"); }
void *allocate_pattern(size_t size) { return allocate(size, "PCRE"); }
void release(void *memory) { std::free(given_back(memory)); }

/** Before anything else of the program uses the two libraries. */
const bool counted = [] {
    json_set_alloc_funcs(allocate_json, release);
    pcre_malloc = allocate_pattern;
    pcre_free = release;
    return true;
}();

} // namespace

} // namespace fault

using fault::Fault;

// A program that does not wrap a function has no __real_ one, and one that looks at the arguments has its own __wrap_.
#define WEAK __attribute__((weak))

// The function's own way to say that it has failed, or the function itself.
#define FAILING(result, name, parameters, arguments, failure)                                                          \
    WEAK result __real_##name parameters;                                                                              \
    WEAK result __wrap_##name parameters { return Fault::fails(#name) ? (failure) : __real_##name arguments; }

// The same of a function in which nothing is counted.
#define FAILING_AS_ONE(result, name, parameters, arguments, failure)                                                   \
    WEAK result __real_##name parameters;                                                                              \
    WEAK result __wrap_##name parameters {                                                                             \
        if (Fault::fails(#name)) {                                                                                     \
            return failure;                                                                                            \
        }                                                                                                              \
        const Fault::Truce truce;                                                                                      \
        return __real_##name arguments;                                                                                \
    }

// The same of one that does its work all the same: only the report fails.
#define FAILING_AFTERWARDS(name, parameter, argument)                                                                  \
    WEAK int __real_##name parameter;                                                                                  \
    WEAK int __wrap_##name parameter {                                                                                 \
        const int rc = __real_##name argument;                                                                         \
        return Fault::fails(#name) ? -1 : rc;                                                                          \
    }

static json_t *no_json(json_error_t *error) {
    if (error != nullptr) {
        *error = {};
    }
    return nullptr;
}

extern "C" {
struct event;
struct event_base;
struct evbuffer;

FAILING(void *, malloc, (size_t size), (size), nullptr)
FAILING(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING(void *, realloc, (void *memory, size_t size), (memory, size), nullptr)
FAILING(char *, strdup, (const char *text), (text), nullptr)
FAILING(FILE *, fopen64, (const char *path, const char *mode), (path, mode), nullptr)
FAILING(FILE *, popen, (const char *command, const char *mode), (command, mode), nullptr)
FAILING(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1)
FAILING(int, bind, (int sock, const sockaddr *address, socklen_t length), (sock, address, length), -1)
FAILING(int, listen, (int sock, int backlog), (sock, backlog), -1)
FAILING(int, chmod, (const char *path, mode_t mode), (path, mode), -1)
FAILING(int, chown, (const char *path, uid_t owner, gid_t group), (path, owner, group), -1)
FAILING(char *, getcwd, (char *path, size_t size), (path, size), nullptr)
FAILING(int, accept, (int sock, sockaddr *address, socklen_t *length), (sock, address, length), -1)
FAILING(int, accept4, (int sock, sockaddr *address, socklen_t *length, int flags), (sock, address, length, flags), -1)
FAILING(int, connect, (int sock, const sockaddr *address, socklen_t length), (sock, address, length), -1)
FAILING(int, poll, (pollfd * states, nfds_t count, int time), (states, count, time), -1)
FAILING(ssize_t, recv, (int sock, void *buffer, size_t size, int flags), (sock, buffer, size, flags), -1)
FAILING(ssize_t, send, (int sock, const void *buffer, size_t size, int flags), (sock, buffer, size, flags), -1)
FAILING(int, getsockname, (int sock, sockaddr *address, socklen_t *length), (sock, address, length), -1)
FAILING(int, getsockopt, (int sock, int level, int name, void *value, socklen_t *size),
        (sock, level, name, value, size), -1)
FAILING(int, setsockopt, (int sock, int level, int name, const void *value, socklen_t size),
        (sock, level, name, value, size), -1)
FAILING_AFTERWARDS(close, (int fd), (fd))
FAILING(int, shm_open, (const char *name, int flags, mode_t mode), (name, flags, mode), -1)
FAILING(int, ftruncate64, (int fd, int64_t size), (fd, size), -1)
FAILING(void *, mmap64, (void *at, size_t size, int protection, int flags, int fd, int64_t offset),
        (at, size, protection, flags, fd, offset), MAP_FAILED)
FAILING(int, posix_fallocate64, (int fd, int64_t offset, int64_t size), (fd, offset, size), errno)
FAILING(int, timerfd_create, (int clock, int flags), (clock, flags), -1)

FAILING(event_base *, event_base_new, (), (), nullptr)
FAILING(int, event_base_loop, (event_base * base, int flags), (base, flags), -1)
FAILING(int, event_add, (event * ev, const timeval *time), (ev, time), -1)
FAILING_AS_ONE(int, evbuffer_write, (evbuffer * buffer, int sock), (buffer, sock), -1)

FAILING(int, nn_socket, (int domain, int protocol), (domain, protocol), -1)
FAILING(int, nn_bind, (int sock, const char *address), (sock, address), -1)
FAILING(int, nn_connect, (int sock, const char *address), (sock, address), -1)
FAILING(int, nn_setsockopt, (int sock, int level, int option, const void *value, size_t size),
        (sock, level, option, value, size), -1)
FAILING(int, nn_getsockopt, (int sock, int level, int option, void *value, size_t *size),
        (sock, level, option, value, size), -1)
FAILING(void *, nn_allocmsg, (size_t size, int type), (size, type), nullptr)
FAILING_AFTERWARDS(nn_freemsg, (void *message), (message))
FAILING(int, nn_send, (int sock, const void *message, size_t size, int flags), (sock, message, size, flags), -1)
FAILING(int, nn_recv, (int sock, void *message, size_t size, int flags), (sock, message, size, flags), -1)

FAILING_AS_ONE(json_t *, json_loads, (const char *text, size_t flags, json_error_t *error), (text, flags, error),
               no_json(error))
FAILING_AS_ONE(json_t *, json_loadb, (const char *text, size_t size, size_t flags, json_error_t *error),
               (text, size, flags, error), no_json(error))
FAILING(int, json_dump_callback, (const json_t *value, json_dump_callback_t callback, void *data, size_t flags),
        (value, callback, data, flags), -1)
FAILING(json_t *, json_integer, (json_int_t value), (value), nullptr)
FAILING(int, json_object_del, (json_t * object, const char *key), (object, key), -1)
WEAK char *__real_json_dumps(const json_t *value, size_t flags);
WEAK char *__wrap_json_dumps(const json_t *value, size_t flags) {
    if (Fault::fails("json_dumps")) {
        return nullptr;
    }
    const Fault::Truce truce;
    char *text = __real_json_dumps(value, flags);
    fault::given_back(text); // it is released with `free`, past Jansson
    return text;
}
WEAK int __real_json_object_set_new(json_t *object, const char *key, json_t *value);
WEAK int __wrap_json_object_set_new(json_t *object, const char *key, json_t *value) {
    if (Fault::fails("json_object_set_new")) {
        json_decref(value); // as the real one does
        return -1;
    }
    return __real_json_object_set_new(object, key, value);
}
WEAK json_t *__wrap_json_pack(const char *format, ...) {
    if (Fault::fails("json_pack")) {
        return nullptr;
    }
    va_list args;
    va_start(args, format);
    json_t *value = json_vpack_ex(nullptr, 0, format, args);
    va_end(args);
    return value;
}

FAILING(int, tavrix_mq_socket_set_timeout, (int sock, int ms), (sock, ms), -1)
FAILING_AS_ONE(int, tavrix_jrpc_router_create_system_lock_response, (json_t * request, json_t **response),
               (request, response), -1)
FAILING_AS_ONE(int, tavrix_jrpc_router_create_system_timeout_response, (const char *id, int number, json_t **response),
               (id, number, response), -1)
}
