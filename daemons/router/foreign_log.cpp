#include "foreign_log.h"

#include "common/loop.h"

namespace router {

namespace {

constexpr char unit_name[] = "router";
constexpr unsigned lines_per_second = 100;

} // namespace

bool may_log_foreign_line() {
    static daemon_support::Clock::time_point begin;
    static unsigned count = 0;
    const auto now = daemon_support::Clock::now();
    if (now - begin >= std::chrono::seconds(1)) {
        if (count > lines_per_second) {
            LOG_WARNING("%u more lines about clients and services were left out\n", count - lines_per_second);
        }
        begin = now;
        count = 0;
    }
    return ++count <= lines_per_second;
}

} // namespace router
