#include "foreign_log.h"

namespace router {

namespace {

constexpr char unit_name[] = "router";
constexpr unsigned most_of_clients = 100;
constexpr unsigned most_of_services = 1000; // all of them may go at once, and come back

} // namespace

bool LogBudget::has_room() {
    const auto now = daemon_support::Clock::now();
    if (now - begin_ >= std::chrono::seconds(1)) {
        if (count_ > most_) {
            LOG_WARNING("%u more lines about %s were left out\n", count_ - most_, about_);
        }
        begin_ = now;
        count_ = 0;
    }
    return ++count_ <= most_;
}

LogBudget lines_of_clients(most_of_clients, "clients and services");
LogBudget lines_of_services(most_of_services, "services that come and go");

} // namespace router
