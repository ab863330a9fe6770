#include "interrupt.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "support.h"

namespace tavrixctl {

namespace {

volatile std::sig_atomic_t requested = 0;
int stop_pipe[2] = {-1, -1};

void request_stop(int /*signal*/) {
    requested = 1;
    if (write(stop_pipe[1], "", 1) < 0) {
        // A full pipe is readable just as well.
    }
}

} // namespace

bool stop_on_signals() {
    if (pipe2(stop_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        complain("cannot watch for signals: %s", std::strerror(errno));
        return false;
    }
    struct sigaction action {};
    action.sa_handler = request_stop; // without SA_RESTART: output that waits for its reader has to come back too
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

bool stop_requested() { return requested != 0; }

int stop_descriptor() { return stop_pipe[0]; }

void sleep_unless_stopped(double seconds) {
    const Deadline deadline(seconds);
    pollfd stopping{stop_pipe[0], POLLIN, 0};
    while (!stop_requested() && !deadline.passed()) {
        poll(&stopping, 1, deadline.left_ms());
    }
}

} // namespace tavrixctl
