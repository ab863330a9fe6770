/**
 * Owners for what is held everywhere: texts, JSON values, files, descriptors. Each releases its resource at the end of
 * its scope; `release()` is called where the resource is handed over.
 */
#ifndef TAVRIX_COMMON_HANDLES_H
#define TAVRIX_COMMON_HANDLES_H

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <jansson.h>
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

/**
 * The place where a C function stores a resource: `call(into(owner))`. After the call the owner holds what was stored,
 * whatever the status, and has released what it held before.
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

/** A number that stands for something open, -1 for none; `Close` closes it at the end. */
template <class Close>
class Handle {
  public:
    Handle() = default;
    explicit Handle(int number) : number_(number) {}
    Handle(Handle &&other) noexcept : number_(other.release()) {}
    Handle &operator=(Handle &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle() { reset(); }

    int get() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }
    int release() { return std::exchange(number_, -1); }
    void reset(int number = -1) {
        const int old = std::exchange(number_, number);
        if (old >= 0) {
            Close()(old);
        }
    }
    /** For C functions that take a handle by its place, or store one there. */
    int *place() { return &number_; }
    const int *place() const { return &number_; }

  private:
    int number_ = -1;
};

struct CloseDescriptor {
    void operator()(int fd) const { static_cast<void>(::close(fd)); }
};
using Descriptor = Handle<CloseDescriptor>;

} // namespace tavrix

#endif
