/**
 * One macro per log level, for the library, the kit and the daemons.
 *
 * A unit defines `unit_name` before it logs: `constexpr char unit_name[] = "tavrix_mq";`. The line number is the
 * caller's. The debug and verbose macros evaluate their arguments only when the level is on, so that a line nobody sees
 * costs nothing.
 *
 * The appliances in the field have log filters and scripts that match the lines by their level, their words and the
 * function's name in brackets. So a line that was once worded wrongly, or that carries another function's name, stays
 * as it is; a remark beside it ("log filters match it") keeps the next reader from correcting it.
 */
#ifndef TAVRIX_COMMON_LOG_H
#define TAVRIX_COMMON_LOG_H

#include "tavrix_lsyslog.h"

#define TAVRIX_LOG_AT_(level, ...) static_cast<void>(tavrix_lsyslog_log(level, unit_name, __LINE__, __VA_ARGS__))
#define TAVRIX_LOG_GUARDED_(level, ...)                                                                                \
    do {                                                                                                               \
        if (tavrix_lsyslog_check_severity(level)) {                                                                    \
            TAVRIX_LOG_AT_(level, __VA_ARGS__);                                                                        \
        }                                                                                                              \
    } while (0)

#define LOG_CONFIG(...) TAVRIX_LOG_AT_(TAVRIX_LOG_CONFIG, __VA_ARGS__)
#define LOG_ERROR(...) TAVRIX_LOG_AT_(TAVRIX_LOG_ERROR, __VA_ARGS__)
#define LOG_WARNING(...) TAVRIX_LOG_AT_(TAVRIX_LOG_WARNING, __VA_ARGS__)
#define LOG_INFO(...) TAVRIX_LOG_AT_(TAVRIX_LOG_INFO, __VA_ARGS__)
#define LOG_DEBUG(...) TAVRIX_LOG_GUARDED_(TAVRIX_LOG_DEBUG, __VA_ARGS__)
#define LOG_VERBOSE(...) TAVRIX_LOG_GUARDED_(TAVRIX_LOG_VERBOSE, __VA_ARGS__)

#endif
