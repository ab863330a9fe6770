/*
 * Linked into the router: the call of the number that the test has written fails.
 */
#include "router_faults.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <event2/buffer.h>
#include <event2/event.h>
#include <fcntl.h>
#include <jansson.h>
#include <nanomsg/nn.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tavrix_jrpc.h"

namespace {

fault::RouterFaults *faults = nullptr;
bool truce = false;

bool fails(const char *function) {
    if (faults == nullptr || truce || faults->remaining == 0 || --faults->remaining > 0) {
        return false;
    }
    std::snprintf(faults->function, sizeof faults->function, "%s", function);
    errno = ENOMEM;
    return true;
}

struct Truce {
    Truce() { truce = true; }
    Truce(const Truce &) = delete;
    Truce &operator=(const Truce &) = delete;
    ~Truce() { truce = false; }
};

void *allocate_for_jansson(size_t size) { return fails("Jansson's malloc") ? nullptr : std::malloc(size); }
void *allocate_for_libevent(size_t size) { return fails("libevent's malloc") ? nullptr : std::malloc(size); }
void *reallocate_for_libevent(void *memory, size_t size) {
    return fails("libevent's realloc") ? nullptr : std::realloc(memory, size);
}

/** Before anything else of the program uses the two libraries. */
const bool prepared = [] {
    const char *path = std::getenv(fault::router_faults_variable);
    const int descriptor = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    void *mapped = descriptor < 0
                       ? MAP_FAILED
                       : mmap(nullptr, sizeof(fault::RouterFaults), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    faults = mapped == MAP_FAILED ? nullptr : static_cast<fault::RouterFaults *>(mapped);
    json_set_alloc_funcs(allocate_for_jansson, std::free);
    event_set_mem_functions(allocate_for_libevent, reallocate_for_libevent, std::free);
    return true;
}();

void *allocate(size_t size) {
    void *memory = fails("operator new") ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

void *operator new(size_t size) { return allocate(size); }
void *operator new[](size_t size) { return allocate(size); }
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete[](void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void *memory, size_t /*size*/) noexcept { std::free(memory); }

// The wrappers: the function's own way to say that it has failed, or the function itself, in which nothing is counted.
#define FAILING(result, name, parameters, arguments, failure)                                                          \
    result __real_##name parameters;                                                                                   \
    result __wrap_##name parameters {                                                                                  \
        if (fails(#name)) {                                                                                            \
            return failure;                                                                                            \
        }                                                                                                              \
        const Truce nothing_inside;                                                                                    \
        return __real_##name arguments;                                                                                \
    }

extern "C" {
FAILING(int, accept4, (int sock, sockaddr *address, socklen_t *length, int flags), (sock, address, length, flags), -1)
FAILING(int, poll, (pollfd * states, nfds_t count, int time), (states, count, time), -1)
FAILING(ssize_t, recv, (int sock, void *buffer, size_t size, int flags), (sock, buffer, size, flags), -1)
FAILING(ssize_t, send, (int sock, const void *buffer, size_t size, int flags), (sock, buffer, size, flags), -1)
FAILING(int, getsockopt, (int sock, int level, int name, void *value, socklen_t *size),
        (sock, level, name, value, size), -1)
FAILING(int, evbuffer_write, (evbuffer * buffer, evutil_socket_t sock), (buffer, sock), -1)
json_t *__real_json_loadb(const char *text, size_t size, size_t flags, json_error_t *error);
json_t *__wrap_json_loadb(const char *text, size_t size, size_t flags, json_error_t *error) {
    if (fails("json_loadb")) {
        if (error != nullptr) {
            *error = {};
        }
        return nullptr;
    }
    const Truce nothing_inside;
    return __real_json_loadb(text, size, flags, error);
}
FAILING(json_t *, json_loads, (const char *text, size_t flags, json_error_t *error), (text, flags, error), nullptr)
FAILING(void *, nn_allocmsg, (size_t size, int type), (size, type), nullptr)
FAILING(int, nn_send, (int sock, const void *message, size_t size, int flags), (sock, message, size, flags), -1)
FAILING(int, nn_recv, (int sock, void *message, size_t size, int flags), (sock, message, size, flags), -1)
FAILING(int, tavrix_jrpc_router_create_system_lock_response, (json_t * request, json_t **response), (request, response),
        -1)
FAILING(int, tavrix_jrpc_router_create_system_timeout_response, (const char *id, int number, json_t **response),
        (id, number, response), -1)
}
