/**
 * What the router counts: how each call ended, and how long it took, by method.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_STATISTICS_H
#define TAVRIX_DAEMONS_ROUTER_STATISTICS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "message.h"

namespace router {

/** How a call ended: each ends in exactly one of these. */
enum class Outcome { result, error, timeout, gone, cancelled };
constexpr std::array<const char *, 5> outcome_names = {"result", "error", "timeout", "gone", "cancelled"};
inline const char *name_of(Outcome outcome) { return outcome_names[static_cast<size_t>(outcome)]; }

/** Times in four buckets to each doubling: a fixed size, and no percentile off by more than 25%. */
class Histogram {
  public:
    void add(double seconds);
    /** The time within which this share of all lies, in seconds; 0 when there are none. */
    double percentile(double share) const;
    /** How many took no longer than this, as far as the buckets tell. */
    uint64_t count_within(double seconds) const;
    uint64_t count() const { return count_; }
    double sum() const { return sum_; }

  private:
    static constexpr int steps_per_power = 4;
    static constexpr int powers = 32; // from a microsecond to an hour
    static double upper_bound_of(size_t bucket);

    std::array<uint64_t, static_cast<size_t>(steps_per_power) * powers> buckets_{};
    uint64_t count_ = 0;
    double sum_ = 0;
};

struct MethodStatistics {
    std::array<uint64_t, outcome_names.size()> outcomes{};
    Histogram latency; ///< of those that a service answered

    uint64_t of(Outcome outcome) const { return outcomes[static_cast<size_t>(outcome)]; }
};

class Statistics {
  public:
    /**
     * Counts the end of a call. Methods beyond a few hundred share one row, "(others)": names cost nothing to invent,
     * and of those that no service has named only some get a row of their own, with their first result.
     */
    void count(const std::string &method, bool is_offered, Outcome outcome, double seconds);

    uint64_t total(Outcome outcome) const;
    /** As router.Status shows it. */
    Json methods_json() const;
    /** As Prometheus reads it. */
    std::string metrics() const;

    uint64_t discarded = 0; ///< replies that nobody waited for, and what was no message
    uint64_t dropped = 0;   ///< notifications that a session did not read in time
    uint64_t refused = 0;   ///< requests that were not allowed, malformed or for nobody
    uint64_t busy = 0;      ///< requests and clients turned away for lack of room

  private:
    std::map<std::string, MethodStatistics> methods_;
    size_t unknown_ = 0; ///< rows of names that nobody has registered
};

} // namespace router

#endif
