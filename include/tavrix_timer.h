/**
 * @file tavrix_timer.h
 * Timers on descriptors, to be polled beside sockets, on the monotonic clock.
 *
 * @code
 * int timer;
 * tavrix_timer_init(&timer, 1);
 * tavrix_timer_set(timer, 1, 1);        // after a second, then every second
 * // poll(timer) ...
 * if (tavrix_timer_read(timer) == TAVRIX_OK)
 *     on_tick();
 * @endcode
 *
 * Thread-safety: no state; a timer belongs to its caller.
 */
#ifndef TAVRIX_TIMER_H
#define TAVRIX_TIMER_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Creates a timer.
 *
 * @param fd_out   receives the descriptor; -1 on failure
 * @param nonblock exactly 1: a read does not wait
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null `fd_out`; TAVRIX_ERR_GENERAL, reported through perror
 */
TAVRIX_API int tavrix_timer_init(int *fd_out, int nonblock);

/**
 * Arms a timer in whole seconds.
 *
 * @param period_s   first expiry from now; 0 disarms, whatever the interval
 * @param interval_s time between further expiries; 0 for none
 * @return 0; TAVRIX_ERR_GENERAL, reported through perror, also for a negative time
 */
TAVRIX_API int tavrix_timer_set(int fd, int period_s, int interval_s);

/**
 * tavrix_timer_set() with fractions of a second.
 *
 * @param period   first expiry from now, in seconds; 0 disarms, whatever the interval
 * @param interval time between further expiries, in seconds; 0 for none
 * @return 0; TAVRIX_ERR_GENERAL, reported through perror, and the timer stays as it was, for a time that cannot be: a
 *         negative one, one of 9e18 seconds or more, or no number
 */
TAVRIX_API int tavrix_timer_nsec_set(int fd, float period, float interval);

/**
 * Reads and clears the expirations of a timer; a blocking timer waits until it expires.
 *
 * @return 0; TAVRIX_ERR_NO_TIMER_EXPIRATION when it does not block and has not expired; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_timer_read(int fd);

/**
 * Closes a timer and sets the variable to 0, not to -1: do not free it twice.
 *
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null `fd`
 */
TAVRIX_API int tavrix_timer_free(int *fd);

#ifdef __cplusplus
}
#endif

#endif
