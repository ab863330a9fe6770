/*
 * Shared-memory store: one POSIX shared-memory object per name, holding a text or an integer.
 *
 * Nothing stays open or mapped between calls, and nothing is locked.
 */
#include "tavrix_shm.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/handles.h"
#include "common/log.h"
#include "tavrix_error.h"

namespace {

constexpr char unit_name[] = "tavrix_shm";
// Hexadecimal where octal is usual, so 03146: daemons of other users open slots with these bits, the owner cannot.
constexpr mode_t slot_mode = 0x666;
constexpr int max_reserve_attempts = 100;

/** The line number is the caller's. */
int refuse(const char *line_text, int line = __builtin_LINE()) {
    static_cast<void>(tavrix_lsyslog_log(TAVRIX_LOG_ERROR, unit_name, line, "%s", line_text));
    return TAVRIX_ERR_GENERAL;
}

/** A slot, open and mapped for one access. */
class Mapping {
  public:
    Mapping() = default;
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    ~Mapping() {
        if (address_ != MAP_FAILED) {
            static_cast<void>(munmap(address_, length_));
        }
    }

    bool open(const char *name, int flags) {
        fd_.reset(shm_open(name, flags, slot_mode));
        if (!fd_) {
            LOG_ERROR("Shm_open error with %s.\n", name);
        }
        return static_cast<bool>(fd_);
    }

    /** Whether the slot has pages for that many bytes: an access beyond its last page would raise SIGBUS. */
    bool has_pages(size_t length) const {
        const off_t bytes = size();
        const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        return bytes >= 0 && length <= (static_cast<uint64_t>(bytes) + page - 1) / page * page;
    }

    bool map(size_t length, int protection) {
        address_ = mmap(nullptr, length, protection, MAP_SHARED, fd_.get(), 0);
        length_ = length;
        return address_ != MAP_FAILED;
    }

    /**
     * Gives the slot the mapped length, with memory allocated for it: an access to a hole raises SIGBUS when memory has
     * run out. If there is not enough, the slot stays as it was.
     */
    bool reserve() {
        const off_t old_size = size();
        int error = EINTR;
        for (int attempt = 0; error == EINTR && attempt < max_reserve_attempts; ++attempt) {
            error = posix_fallocate(fd_.get(), 0, static_cast<off_t>(length_)); // any pending signal may interrupt it
        }
        if (error == 0) {
            resize(static_cast<off_t>(length_)); // an old slot may have been longer
        } else if (old_size >= 0 && size() > old_size) {
            resize(old_size); // it has grown page by page, on systems that cannot do it at once
        }
        return error == 0;
    }

    char *bytes() const { return static_cast<char *>(address_); }

  private:
    off_t size() const {
        struct stat status {};
        return fstat(fd_.get(), &status) == 0 ? status.st_size : -1;
    }

    void resize(off_t size) { [[maybe_unused]] const int status = ftruncate(fd_.get(), size); }

    tavrix::Descriptor fd_;
    void *address_ = MAP_FAILED;
    size_t length_ = 0;
};

/** The text, or its first `len` - 1 characters, and zeros up to `len` bytes. */
void copy_padded(char *to, const char *from, size_t from_length, size_t len) {
    const size_t kept = from_length < len ? from_length : len - 1;
    std::memcpy(to, from, kept);
    std::memset(to + kept, 0, len - kept);
}

/** Logs that a slot could not be mapped in the requested length. */
bool checked(bool mapped, const char *name) {
    if (!mapped) {
        LOG_ERROR("Mmap error with %s.\n", name);
    }
    return mapped;
}

bool open_and_map(Mapping *slot, const char *name, size_t length, bool writing) {
    return slot->open(name, writing ? O_RDWR : O_RDONLY) &&
           checked(slot->has_pages(length) && slot->map(length, writing ? PROT_READ | PROT_WRITE : PROT_READ), name);
}

} // namespace

int tavrix_shm_create(const char *name, size_t size) {
    if (name == nullptr) {
        return refuse("NULL Pointer!\n"); // unlike the others: log filters recognise the creation by it
    }
    if (size == 0) {
        return refuse("Zero size!\n");
    }
    Mapping slot;
    // An old slot is not touched before the new size is certain: other daemons may be reading it. It is mapped first,
    // so that no memory is allocated for a size that does not fit the address space.
    if (!slot.open(name, O_RDWR | O_CREAT) ||
        !checked(slot.map(size, PROT_READ | PROT_WRITE) && slot.reserve(), name)) {
        return TAVRIX_ERR_GENERAL;
    }
    std::memset(slot.bytes(), 0, size);
    return TAVRIX_OK;
}

int tavrix_shm_set_string(const char *name, size_t len, const char *text) {
    if (name == nullptr || text == nullptr) {
        return refuse("NULL POINTER!\n");
    }
    if (len == 0) {
        return refuse("Zero size!\n");
    }
    Mapping slot;
    if (!open_and_map(&slot, name, len, true)) {
        return TAVRIX_ERR_GENERAL;
    }
    copy_padded(slot.bytes(), text, strnlen(text, len), len);
    return TAVRIX_OK;
}

int tavrix_shm_get_string(const char *name, size_t len, char *dst) {
    if (name == nullptr || dst == nullptr) {
        return refuse("NULL POINTER!\n");
    }
    if (len == 0) {
        return refuse("ERROR: Zero size!\n"); // unlike the others: log filters recognise the reader by it
    }
    Mapping slot;
    if (!open_and_map(&slot, name, len, false)) {
        return TAVRIX_ERR_GENERAL;
    }
    copy_padded(dst, slot.bytes(), strnlen(slot.bytes(), len), len);
    return TAVRIX_OK;
}

int tavrix_shm_set_int(const char *name, const int *value) {
    if (name == nullptr || value == nullptr) {
        return refuse("NULL POINTER!\n");
    }
    Mapping slot;
    if (!open_and_map(&slot, name, sizeof(int32_t), true)) {
        return TAVRIX_ERR_GENERAL;
    }
    *reinterpret_cast<volatile int32_t *>(slot.bytes()) = *value; // one store: a reader never sees half of it
    return TAVRIX_OK;
}

int tavrix_shm_get_int(const char *name, int *value_out) {
    if (name == nullptr || value_out == nullptr) {
        return refuse("NULL POINTER!\n");
    }
    Mapping slot;
    if (!open_and_map(&slot, name, sizeof(int32_t), false)) {
        return TAVRIX_ERR_GENERAL;
    }
    *value_out = *reinterpret_cast<const volatile int32_t *>(slot.bytes());
    return TAVRIX_OK;
}

int tavrix_shm_clear(const char *name, size_t len) {
    if (name == nullptr) {
        return refuse("NULL POINTER!\n");
    }
    if (len == 0) {
        return refuse("Zero size!\n");
    }
    Mapping slot;
    if (!open_and_map(&slot, name, len, true)) {
        return TAVRIX_ERR_GENERAL;
    }
    std::memset(slot.bytes(), 0, len);
    return TAVRIX_OK;
}
