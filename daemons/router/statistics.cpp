#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace router {

namespace {

constexpr size_t max_unknown_name = 128;
constexpr size_t max_unknown = 128; // names that nobody has registered
constexpr size_t max_methods = 512;
constexpr char others[] = "(others)";
constexpr double shortest = 1e-6;
constexpr double metric_bounds[] = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                    0.05,   0.1,     0.25,   0.5,   1,      2.5,   5,    10};

__attribute__((format(printf, 2, 3))) void append(std::string *text, const char *format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    *text += line;
}

/** A label's value: printable characters only, and Prometheus escapes these two. */
std::string label(const std::string &value) {
    std::string safe;
    for (const char c : printable(value)) {
        safe += c == '\\' || c == '"' ? std::string("\\") + c : std::string(1, c);
    }
    return safe;
}

} // namespace

double Histogram::upper_bound_of(size_t bucket) {
    return shortest * std::exp2((static_cast<double>(bucket) + 1) / steps_per_power);
}

void Histogram::add(double seconds) {
    const double steps = std::floor(std::log2(std::max(seconds, shortest) / shortest) * steps_per_power);
    ++buckets_[std::min(static_cast<size_t>(steps), buckets_.size() - 1)];
    ++count_;
    sum_ += seconds;
}

double Histogram::percentile(double share) const {
    const auto wanted = static_cast<uint64_t>(std::ceil(static_cast<double>(count_) * share));
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < buckets_.size() && count_ > 0; ++bucket) {
        seen += buckets_[bucket];
        if (seen >= wanted) {
            return upper_bound_of(bucket);
        }
    }
    return 0;
}

uint64_t Histogram::count_within(double seconds) const {
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < buckets_.size() && upper_bound_of(bucket) <= seconds; ++bucket) {
        seen += buckets_[bucket];
    }
    return seen;
}

void Statistics::count(const std::string &method, bool is_offered, Outcome outcome, double seconds) {
    bool has_row = methods_.count(method) > 0;
    if (!has_row && is_offered) {
        has_row = methods_.size() < max_methods;
    } else if (!has_row) { // a result proves that the method exists, an error does not
        has_row = outcome == Outcome::result && method.size() <= max_unknown_name && unknown_ < max_unknown;
        unknown_ += has_row ? 1 : 0;
    }
    MethodStatistics &row = methods_[has_row ? method : others];
    ++row.outcomes[static_cast<size_t>(outcome)];
    if (outcome == Outcome::result || outcome == Outcome::error) {
        row.latency.add(seconds);
    }
}

uint64_t Statistics::total(Outcome outcome) const {
    uint64_t sum = 0;
    for (const auto &[name, row] : methods_) {
        sum += row.of(outcome);
    }
    return sum;
}

Json Statistics::methods_json() const {
    Json methods(json_object());
    for (const auto &[name, row] : methods_) {
        uint64_t calls = 0;
        for (const uint64_t count : row.outcomes) {
            calls += count;
        }
        put(methods.get(), name.c_str(),
            Json(json_pack("{s:I, s:I, s:I, s:I, s:I, s:f, s:f, s:f}", "calls", static_cast<json_int_t>(calls),
                           "errors", static_cast<json_int_t>(row.of(Outcome::error)), "timeouts",
                           static_cast<json_int_t>(row.of(Outcome::timeout)), "gone",
                           static_cast<json_int_t>(row.of(Outcome::gone)), "cancelled",
                           static_cast<json_int_t>(row.of(Outcome::cancelled)), "p50_ms",
                           row.latency.percentile(0.5) * 1000, "p90_ms", row.latency.percentile(0.9) * 1000, "p99_ms",
                           row.latency.percentile(0.99) * 1000)));
    }
    return methods;
}

std::string Statistics::metrics() const {
    std::string text = "# HELP tavrix_router_calls_total Calls by method and how they ended.\n"
                       "# TYPE tavrix_router_calls_total counter\n";
    for (const auto &[name, row] : methods_) {
        for (size_t i = 0; i < outcome_names.size(); ++i) {
            append(&text, "tavrix_router_calls_total{method=\"%s\",outcome=\"%s\"} %llu\n", label(name).c_str(),
                   outcome_names[i], static_cast<unsigned long long>(row.outcomes[i]));
        }
    }
    text += "# HELP tavrix_router_call_seconds Time from request to reply, of calls that a service answered.\n"
            "# TYPE tavrix_router_call_seconds histogram\n";
    for (const auto &[name, row] : methods_) {
        const std::string method = label(name);
        for (const double bound : metric_bounds) {
            append(&text, "tavrix_router_call_seconds_bucket{method=\"%s\",le=\"%g\"} %llu\n", method.c_str(), bound,
                   static_cast<unsigned long long>(row.latency.count_within(bound)));
        }
        const auto count = static_cast<unsigned long long>(row.latency.count());
        append(&text, "tavrix_router_call_seconds_bucket{method=\"%s\",le=\"+Inf\"} %llu\n", method.c_str(), count);
        append(&text, "tavrix_router_call_seconds_sum{method=\"%s\"} %g\n", method.c_str(), row.latency.sum());
        append(&text, "tavrix_router_call_seconds_count{method=\"%s\"} %llu\n", method.c_str(), count);
    }
    const struct {
        const char *name;
        const char *help;
        uint64_t value;
    } counters[] = {
        {"late_replies_total", "Replies that nobody waited for.", discarded},
        {"dropped_notifications_total", "Notifications that a session did not read in time.", dropped},
        {"refused_requests_total", "Requests that were malformed, not allowed or for nobody.", refused},
        {"busy_total", "Clients and requests turned away for lack of room.", busy},
    };
    for (const auto &counter : counters) {
        append(&text, "# HELP tavrix_router_%s %s\n# TYPE tavrix_router_%s counter\ntavrix_router_%s %llu\n",
               counter.name, counter.help, counter.name, counter.name, static_cast<unsigned long long>(counter.value));
    }
    return text;
}

} // namespace router
