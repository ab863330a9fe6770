/*
 * Linked into the router: the plan of the calls that fail lies in a file that its test maps as well. Beside what
 * CMakeLists.txt lists, each of the router's own allocations is counted, and each of libevent's.
 */
#include <cstdlib>
#include <new>

#include <event2/event.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/faults.h"

using fault::Fault;

namespace {

void *allocate_for_libevent(size_t size) { return Fault::fails("libevent's malloc") ? nullptr : std::malloc(size); }
void *reallocate_for_libevent(void *memory, size_t size) {
    return Fault::fails("libevent's realloc") ? nullptr : std::realloc(memory, size);
}

fault::Plan *shared_plan() {
    const char *path = std::getenv(fault::plan_variable);
    const int descriptor = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    void *mapped = descriptor < 0
                       ? MAP_FAILED
                       : mmap(nullptr, sizeof(fault::Plan), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    return mapped == MAP_FAILED ? nullptr : static_cast<fault::Plan *>(mapped);
}

/** Before anything else of the program uses libevent. */
const Fault::Armed armed([] {
    event_set_mem_functions(allocate_for_libevent, reallocate_for_libevent, std::free);
    return shared_plan();
}());

void *allocate(size_t size) {
    void *memory = Fault::fails("operator new") ? nullptr : std::malloc(size > 0 ? size : 1);
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
