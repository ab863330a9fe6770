/*
 * Timers on descriptors, for poll beside sockets.
 *
 * Keeps no state: a timer is the caller's descriptor, on the monotonic clock.
 */
#include "tavrix_timer.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <sys/timerfd.h>
#include <unistd.h>

#include "common/log.h"
#include "tavrix_error.h"

namespace {

constexpr char unit_name[] = "tavrix_timer";
constexpr double nanoseconds_per_second = 1e9;
constexpr double beyond_time = 9e18;
static_assert(sizeof(time_t) == sizeof(int64_t), "seconds are 64 bits wide on the 32-bit target too");

timespec whole_seconds(int seconds) {
    timespec value{};
    value.tv_sec = seconds;
    return value;
}

timespec split_seconds(float seconds) {
    double whole = 0;
    const double fraction = std::modf(static_cast<double>(seconds), &whole);
    timespec value{};
    if (!(std::fabs(whole) < beyond_time)) {
        value.tv_nsec = -1; // not a possible time: the system refuses it
        return value;
    }
    value.tv_sec = static_cast<time_t>(whole);
    value.tv_nsec = static_cast<decltype(value.tv_nsec)>(fraction * nanoseconds_per_second);
    return value;
}

int arm(int fd, const timespec &first, const timespec &interval) {
    itimerspec setting{};
    setting.it_value = first;
    setting.it_interval = interval;
    if (timerfd_settime(fd, 0, &setting, nullptr) != 0) {
        std::perror("tavrix_timer_set"); // for both ways of arming: log filters match this line
        return TAVRIX_ERR_GENERAL;
    }
    return TAVRIX_OK;
}

} // namespace

int tavrix_timer_init(int *fd_out, int nonblock) {
    if (fd_out == nullptr) {
        LOG_DEBUG("[tavrix_timer_init]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    // Exactly 1: daemons that pass any other number rely on the wait. The -1 of a failure is stored too: poll skips it.
    *fd_out = timerfd_create(CLOCK_MONOTONIC, nonblock == 1 ? TFD_NONBLOCK : 0);
    if (*fd_out < 0) {
        std::perror("tavrix_timer_init");
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("Timer successfully created\n");
    return TAVRIX_OK;
}

int tavrix_timer_set(int fd, int period_s, int interval_s) {
    const int rc = arm(fd, whole_seconds(period_s), whole_seconds(interval_s));
    if (rc == TAVRIX_OK) {
        LOG_VERBOSE("Timer successfully set to %d period and %d interval\n", period_s, interval_s);
    }
    return rc;
}

int tavrix_timer_nsec_set(int fd, float period, float interval) {
    const int rc = arm(fd, split_seconds(period), split_seconds(interval));
    if (rc == TAVRIX_OK) {
        LOG_VERBOSE("Timer successfully set to %f period and %f interval\n", static_cast<double>(period),
                    static_cast<double>(interval));
    }
    return rc;
}

int tavrix_timer_read(int fd) {
    uint64_t expirations = 0; // not passed on: callers compare with 0, and do not make up for missed ticks
    const ssize_t got = read(fd, &expirations, sizeof expirations);
    if (got == static_cast<ssize_t>(sizeof expirations)) {
        return TAVRIX_OK;
    }
    if (got >= 0) {
        return TAVRIX_ERR_GENERAL;
    }
    if (errno == EAGAIN) {
        return TAVRIX_ERR_NO_TIMER_EXPIRATION;
    }
    const int reason = errno;
    LOG_ERROR("Bad errno value (%d = '%s')!\n", reason, std::strerror(reason));
    return TAVRIX_ERR_GENERAL;
}

int tavrix_timer_free(int *fd) {
    if (fd == nullptr) {
        LOG_DEBUG("[tavrix_timer_free]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    static_cast<void>(close(*fd));
    *fd = 0; // not -1: to daemons 0, as in a zeroed record, means no timer; a second free would close descriptor 0
    return TAVRIX_OK;
}
