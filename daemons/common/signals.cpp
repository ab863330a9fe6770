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
    const bool wanted = reload != 0;
    reload = 0;
    return wanted;
}

namespace {

void hold_back_reload(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(how, &set, nullptr);
}

} // namespace

Interruption::Interruption(int first_ms) : ticks_before_(ticks) {
    hold_back_reload(SIG_BLOCK);
    start_ticking(first_ms / 1000, (first_ms % 1000) * 1000);
}

Interruption::~Interruption() {
    if (!stop_requested()) {
        stop_ticking();
    }
    hold_back_reload(SIG_UNBLOCK);
}

bool Interruption::happened() const { return ticks != ticks_before_; }

} // namespace daemon_support
