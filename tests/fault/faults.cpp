#include "faults.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>
#include <jansson.h>
#include <pcre.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include "support/stream.h"

namespace fault {

namespace {

Fault *in_force = nullptr;
int blocks = 0; ///< of Jansson and PCRE, in use

void *allocate(size_t size, const char *function) {
    void *memory = Fault::fails(function) ? nullptr : std::malloc(size);
    blocks += memory != nullptr ? 1 : 0;
    return memory;
}

void release(void *memory) {
    blocks -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

void *allocate_json(size_t size) { return allocate(size, "Jansson"); }
void *allocate_pattern(size_t size) { return allocate(size, "PCRE"); }

/** Before anything else of the program uses the two libraries. */
const bool counted = [] {
    json_set_alloc_funcs(allocate_json, release);
    pcre_malloc = allocate_pattern;
    pcre_free = release;
    return true;
}();

} // namespace

/** A rendering is released with `free`, past Jansson. */
static void hand_over(const char *text) { blocks -= text != nullptr ? 1 : 0; }

Fault::Armed::Armed(Fault *fault) {
    fault->remaining_ = fault->number_;
    in_force = fault;
}

Fault::Armed::~Armed() { in_force = nullptr; }

Fault::Truce::Truce() : fault_(std::exchange(in_force, nullptr)) {}

Fault::Truce::~Truce() { in_force = fault_; }

bool Fault::fails(const char *function) {
    if (in_force == nullptr || in_force->remaining_ == 0 || --in_force->remaining_ > 0) {
        return false;
    }
    in_force->function_ = function;
    errno = in_force->reason_;
    return true;
}

namespace {

/** An attempt with the given call failing; false when it got through with none. */
bool fail_once(int number, int reason, const std::function<void(Fault &fault)> &attempt,
               std::set<std::string> *failed) {
    Fault fault(number, reason);
    const int descriptors = support::open_descriptors();
    const int blocks_before = blocks;
    attempt(fault);
    const bool happened = fault.happened();
    const std::string what = happened ? "call " + std::to_string(number) + ", " + fault.function() : "no call";
    EXPECT_EQ(support::open_descriptors(), descriptors) << "open after the failure of " << what;
    EXPECT_EQ(blocks, blocks_before) << "in use after the failure of " << what;
    EXPECT_FALSE(testing::Test::HasFailure()) << "with the failure of " << what;
    if (happened) {
        failed->insert(fault.function());
    }
    return happened;
}

} // namespace

std::set<std::string> each_failure(const std::function<void(Fault &fault)> &attempt, int reason) {
    EXPECT_TRUE(counted);
    std::set<std::string> failed;
    for (int number = 1; fail_once(number, reason, attempt, &failed) && !testing::Test::HasFailure();) {
        ++number;
    }
    EXPECT_FALSE(failed.empty()) << "nothing was called that could fail";
    return failed;
}

void expect_reached(const std::set<std::string> &failed, const std::set<std::string> &functions) {
    for (const std::string &function : functions) {
        EXPECT_EQ(failed.count(function), 1U) << function << " has never failed";
    }
}

} // namespace fault

using fault::Fault;

// The wrappers: the function's own way to say that it has failed, or the function itself.
#define FAILING(result, name, parameters, arguments, failure)                                                          \
    result __real_##name parameters;                                                                                   \
    result __wrap_##name parameters { return Fault::fails(#name) ? (failure) : __real_##name arguments; }

extern "C" {
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
FAILING(int, accept, (int sock, sockaddr *address, socklen_t *length), (sock, address, length), -1)
FAILING(int, connect, (int sock, const sockaddr *address, socklen_t length), (sock, address, length), -1)
FAILING(ssize_t, recv, (int sock, void *buffer, size_t size, int flags), (sock, buffer, size, flags), -1)
FAILING(ssize_t, send, (int sock, const void *buffer, size_t size, int flags), (sock, buffer, size, flags), -1)
FAILING(int, shm_open, (const char *name, int flags, mode_t mode), (name, flags, mode), -1)
FAILING(int, ftruncate64, (int fd, int64_t size), (fd, size), -1)
FAILING(void *, mmap64, (void *at, size_t size, int protection, int flags, int fd, int64_t offset),
        (at, size, protection, flags, fd, offset), MAP_FAILED)
FAILING(int, posix_fallocate64, (int fd, int64_t offset, int64_t size), (fd, offset, size), ENOSPC)
json_t *__real_json_loads(const char *text, size_t flags, json_error_t *error);
json_t *__wrap_json_loads(const char *text, size_t flags, json_error_t *error) {
    if (Fault::fails("json_loads")) {
        *error = {};
        return nullptr;
    }
    const Fault::Truce truce;
    return __real_json_loads(text, flags, error);
}
char *__real_json_dumps(const json_t *value, size_t flags);
char *__wrap_json_dumps(const json_t *value, size_t flags) {
    if (Fault::fails("json_dumps")) {
        return nullptr;
    }
    const Fault::Truce truce;
    char *text = __real_json_dumps(value, flags);
    fault::hand_over(text);
    return text;
}
FAILING(int, timerfd_create, (int clock, int flags), (clock, flags), -1)
}
