#include "common/signals.h"

#include <cerrno>
#include <csignal>
#include <initializer_list>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

namespace daemon_support {

namespace {

constexpr suseconds_t tick_us = 20000;

volatile std::sig_atomic_t stop = 0;
volatile std::sig_atomic_t reload = 0;
volatile std::sig_atomic_t ticks = 0;
int wake_pipe[2] = {-1, -1};

void start_ticking(time_t first_s, suseconds_t first_us) {
    itimerval timer{};
    timer.it_value.tv_sec = first_s;
    timer.it_value.tv_usec = first_us;
    timer.it_interval.tv_usec = tick_us;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void stop_ticking() {
    const itimerval disarmed{};
    setitimer(ITIMER_REAL, &disarmed, nullptr);
}

void on_signal(int number) {
    const int saved_errno = errno;
    if (number == SIGALRM) {
        ticks = ticks + 1;
    } else if (number == SIGHUP) {
        reload = 1;
    } else {
        stop = 1;
        start_ticking(0, tick_us); // setitimer is a plain system call here, safe in a handler
    }
    if (write(wake_pipe[1], "", 1) < 0) {
        // A full pipe wakes the poll just as well.
    }
    errno = saved_errno;
}

} // namespace

bool install_signals() {
    if (pipe2(wake_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        return false;
    }
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) {
        if (sigaction(number, &action, nullptr) != 0) {
            return false;
        }
    }
    return std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

int signal_descriptor() { return wake_pipe[0]; }

void drain_signal_descriptor() {
    char bytes[64];
    while (read(wake_pipe[0], bytes, sizeof bytes) > 0) {
    }
}

bool stop_requested() { return stop != 0; }

bool take_reload_request() {
    if (reload == 0) {
        return false; // written only when it was set: one that comes right now must not be cleared
    }
    reload = 0;
    return true;
}

namespace {

void hold_back_reload(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(how, &set, nullptr);
}

/** The timer has just been taken over: a stop that came before wants its ticks all the same. */
void keep_stop_ticking() {
    if (stop_requested()) {
        start_ticking(0, tick_us);
    }
}

} // namespace

Deadline::Deadline(int first_ms) {
    start_ticking(first_ms / 1000, (first_ms % 1000) * 1000L);
    ticks_before_ = ticks; // read afterwards: a tick of an earlier bound does not count
    keep_stop_ticking();
}

Deadline::~Deadline() {
    stop_ticking();
    keep_stop_ticking();
}

bool Deadline::happened() const { return ticks != ticks_before_; }

ReloadHeldBack::ReloadHeldBack() { hold_back_reload(SIG_BLOCK); }

ReloadHeldBack::~ReloadHeldBack() { hold_back_reload(SIG_UNBLOCK); }

} // namespace daemon_support
