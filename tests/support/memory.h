/**
 * How much of the heap is in use, with and without sanitizers.
 */
#ifndef TAVRIX_TESTS_SUPPORT_MEMORY_H
#define TAVRIX_TESTS_SUPPORT_MEMORY_H

#include <cstddef>

#include <malloc.h>

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak)); // there in a sanitized build only

namespace support {

/** Bytes that this process has taken from the heap and not given back, with what the allocator adds to them. */
inline size_t heap_in_use() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return __sanitizer_get_current_allocated_bytes();
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

} // namespace support

#endif
