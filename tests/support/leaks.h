/**
 * Leaks that are not ours.
 */
#ifndef TAVRIX_TESTS_SUPPORT_LEAKS_H
#define TAVRIX_TESTS_SUPPORT_LEAKS_H

extern "C" {
void __lsan_disable() __attribute__((weak)); // there in a sanitized build only
void __lsan_enable() __attribute__((weak));
}

namespace support {

/**
 * While it lives, what this thread allocates may be lost: nanomsg does not give back the endpoint of an ipc address
 * that it could not bind to. A suppression by the function's name would want a symbolizer, which not every machine has.
 */
class MayLeak {
  public:
    MayLeak() {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
    }
    MayLeak(const MayLeak &) = delete;
    MayLeak &operator=(const MayLeak &) = delete;
    ~MayLeak() {
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
    }
};

} // namespace support

#endif
