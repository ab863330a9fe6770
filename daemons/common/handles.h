/**
 * Owners for what the daemons hold: JSON references, texts, bus sockets, descriptors.
 */
#ifndef TAVRIX_DAEMONS_COMMON_HANDLES_H
#define TAVRIX_DAEMONS_COMMON_HANDLES_H

#include <cstdlib>
#include <memory>
#include <utility>

#include <jansson.h>

#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace daemon_support {

struct DropReference {
    void operator()(json_t *value) const { json_decref(value); }
};
using Json = std::unique_ptr<json_t, DropReference>;

struct FreeMemory {
    void operator()(void *memory) const { std::free(memory); }
};
using Text = std::unique_ptr<char, FreeMemory>;

/** A number that the library closes: -1 when there is none. */
template <int (*Close)(int *)>
class Handle {
  public:
    Handle() = default;
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle() { reset(); }

    bool is_open() const { return number_ >= 0; }
    const int *get() const { return &number_; }
    /** Where an init function stores the number. */
    int *place() { return &number_; }
    /** Forgets a number that somebody else has closed. */
    void forget() { number_ = -1; }
    void reset() {
        if (is_open()) {
            Close(&number_);
        }
        number_ = -1;
    }

  private:
    int number_ = -1;
};

inline int close_bus_socket(int *socket) { return tavrix_mq_socket_close(*socket); }

using BusSocket = Handle<close_bus_socket>;
using StreamSocket = Handle<tavrix_socket_close>;

} // namespace daemon_support

#endif
