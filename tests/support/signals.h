/**
 * Signals that a test sends or awaits, with what was there before put back at the end.
 */
#ifndef TAVRIX_TESTS_SUPPORT_SIGNALS_H
#define TAVRIX_TESTS_SUPPORT_SIGNALS_H

#include <csignal>

#include <sys/time.h>

namespace support {

/**
 * For as long as it lives, a SIGALRM interrupts the calls that wait, every 20 ms from now; its handler may ask, by
 * SA_RESTART, for those to go on that can.
 */
class Ticking {
  public:
    explicit Ticking(int flags = 0) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = flags;
        sigaction(SIGALRM, &action, &before_);
        itimerval ticking{};
        ticking.it_value.tv_usec = 20000;
        ticking.it_interval.tv_usec = 20000;
        setitimer(ITIMER_REAL, &ticking, nullptr);
    }
    ~Ticking() {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }
    Ticking(const Ticking &) = delete;
    Ticking &operator=(const Ticking &) = delete;

  private:
    struct sigaction before_ {};
};

/** While it lives, SIGTERM is counted and does not end the process; one object at a time. */
class Terminations {
  public:
    Terminations() : before_(std::signal(SIGTERM, [](int) { counted = counted + 1; })) { counted = 0; }
    ~Terminations() { std::signal(SIGTERM, before_); }
    Terminations(const Terminations &) = delete;
    Terminations &operator=(const Terminations &) = delete;

    int count() const { return counted; }

  private:
    static inline volatile std::sig_atomic_t counted = 0;

    void (*before_)(int);
};

} // namespace support

#endif
