/**
 * Owners for every kind of resource the library holds: each releases on scope exit, `release()` stands on the line
 * that hands the resource over.
 */
#ifndef TAVRIX_INTERNAL_HANDLES_H
#define TAVRIX_INTERNAL_HANDLES_H

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <jansson.h>
#include <sqlite3.h>
#include <unistd.h>

namespace tavrix {

struct FreeMemory {
    void operator()(void *memory) const { std::free(memory); }
};
/** A text or buffer from malloc. */
using Text = std::unique_ptr<char, FreeMemory>;

struct DropReference {
    void operator()(json_t *value) const { json_decref(value); }
};
/** One reference to a JSON value. */
using Json = std::unique_ptr<json_t, DropReference>;

struct CloseFile {
    void operator()(FILE *file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct ClosePipe {
    void operator()(FILE *pipe) const { static_cast<void>(pclose(pipe)); }
};
/** The reading end of a shell command. */
using Pipe = std::unique_ptr<FILE, ClosePipe>;

struct FinalizeStatement {
    void operator()(sqlite3_stmt *statement) const { static_cast<void>(sqlite3_finalize(statement)); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

struct CloseConnection {
    void operator()(sqlite3 *connection) const { static_cast<void>(sqlite3_close(connection)); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

/**
 * The place that a C function stores a resource in: `call(into(owner))`. When the call is over, the owner has what it
 * stored, whatever its status, and has released what it had before.
 */
template <class Owner>
class Place {
  public:
    explicit Place(Owner &owner) : owner_(owner) {}
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    ~Place() { owner_.reset(stored_); }

    operator typename Owner::pointer *() { return &stored_; }

  private:
    Owner &owner_;
    typename Owner::pointer stored_ = nullptr;
};

template <class Owner>
Place<Owner> into(Owner &owner) {
    return Place<Owner>(owner);
}

/** A file descriptor, -1 when it holds none. */
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            static_cast<void>(::close(old));
        }
    }

  private:
    int fd_ = -1;
};

} // namespace tavrix

#endif
