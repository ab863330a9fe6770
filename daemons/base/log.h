/**
 * Log macros for the daemons: `file` is the source file's `unit_name`, debug lines cost nothing when they are off.
 */
#ifndef TAVRIX_DAEMONS_BASE_LOG_H
#define TAVRIX_DAEMONS_BASE_LOG_H

#include "tavrix_lsyslog.h"

#define LOG_AT_(level, ...) static_cast<void>(tavrix_lsyslog_log(level, unit_name, __LINE__, __VA_ARGS__))

#define LOG_ERROR(...) LOG_AT_(TAVRIX_LOG_ERROR, __VA_ARGS__)
#define LOG_WARNING(...) LOG_AT_(TAVRIX_LOG_WARNING, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT_(TAVRIX_LOG_INFO, __VA_ARGS__)
#define LOG_DEBUG(...)                                                                                                 \
    do {                                                                                                               \
        if (tavrix_lsyslog_check_severity(TAVRIX_LOG_DEBUG)) {                                                         \
            LOG_AT_(TAVRIX_LOG_DEBUG, __VA_ARGS__);                                                                    \
        }                                                                                                              \
    } while (0)

namespace daemon_support {

/**
 * A pipe or socket whose reader has stopped costs the log's lines from now on, and not the daemon's service: a pager
 * that nobody scrolls must not hold up all clients.
 */
void never_wait_for_log();

} // namespace daemon_support

#endif
