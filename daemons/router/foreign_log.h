/**
 * Log lines that others can cause as often as they like: so many a second, and the number of those left out.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_FOREIGN_LOG_H
#define TAVRIX_DAEMONS_ROUTER_FOREIGN_LOG_H

#include "base/loop.h"
#include "common/log.h"

namespace router {

class LogBudget {
  public:
    LogBudget(unsigned lines_per_second, const char *about) : most_(lines_per_second), about_(about) {}
    /** Whether one more of these lines may be written in this second. */
    bool has_room();

  private:
    const unsigned most_;
    const char *const about_;
    daemon_support::Clock::time_point begin_;
    unsigned count_ = 0;
};

extern LogBudget lines_of_clients;
/** Of those who may register: strangers' lines must not crowd out the one that a service has gone. */
extern LogBudget lines_of_services;

} // namespace router

#define LOG_WITHIN(budget, line)                                                                                       \
    do {                                                                                                               \
        if ((budget).has_room()) {                                                                                     \
            line;                                                                                                      \
        }                                                                                                              \
    } while (0)
#define LOG_FOREIGN(...) LOG_WITHIN(lines_of_clients, LOG_WARNING(__VA_ARGS__))

#endif
