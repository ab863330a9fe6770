/**
 * Log lines that others can cause as often as they like: so many a second, and the number of those left out.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_FOREIGN_LOG_H
#define TAVRIX_DAEMONS_ROUTER_FOREIGN_LOG_H

#include "common/log.h"

namespace router {

/** Whether one more of these lines may be written in this second. */
bool may_log_foreign_line();

} // namespace router

#define LOG_FOREIGN(...)                                                                                               \
    do {                                                                                                               \
        if (may_log_foreign_line()) {                                                                                  \
            LOG_WARNING(__VA_ARGS__);                                                                                  \
        }                                                                                                              \
    } while (0)

#endif
