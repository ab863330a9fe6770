/*
 * status, top, metrics, wait-service: what the router tells of itself.
 */
#include <algorithm>
#include <cstdio>
#include <map>

#include <unistd.h>

#include "router.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr double between_looks_s = 0.05;
constexpr size_t methods_width = 60;

json_int_t number_of(const json_t *object, const char *key) { return json_integer_value(json_object_get(object, key)); }

std::string count_text(const json_t *object, const char *key) { return std::to_string(number_of(object, key)); }

std::string plural(json_int_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::vector<std::string> summary_of(const json_t *status) {
    const bool locked = json_is_true(json_object_get(status, "locked"));
    const std::string state = locked ? coloured("locked", Colour::yellow) : "unlocked";
    return {"router  " + state + ", up " + duration_text(json_number_value(json_object_get(status, "uptime_s"))) +
                ", " + plural(number_of(status, "clients"), "client") + " (" +
                plural(number_of(status, "sessions"), "session") + "), " + count_text(status, "in_flight") +
                " in flight",
            "calls   " + count_text(status, "served") + " served, " + count_text(status, "timeouts") + " timed out, " +
                count_text(status, "gone") + " gone, " + count_text(status, "cancelled") + " cancelled",
            "lost    " + count_text(status, "refused") + " refused, " + count_text(status, "busy") + " busy, " +
                count_text(status, "discarded") + " late, " + count_text(status, "dropped") + " notifications dropped"};
}

std::vector<std::string> method_names_of(const json_t *service) {
    std::vector<std::string> methods;
    for (const json_t *method : elements_of(service, "methods")) {
        methods.push_back(printable(json_is_string(method) ? json_string_value(method) : "?"));
    }
    return methods;
}

/** "direct" and "bus" is how the service gets its requests; of one that only said hello nobody knows more. */
std::string road_of(const json_t *service) {
    const json_t *direct = json_object_get(service, "direct");
    return json_is_true(direct) ? "direct" : "bus";
}

std::vector<std::string> services_table(const json_t *status) {
    Table table({"SERVICE", "STATE", "CHANNEL", "ROAD", "SINCE", "IN FLIGHT", "METHODS"});
    table.align_right(5, 5);
    table.colour(1, "up", Colour::green);
    table.colour(1, "settling", Colour::yellow);
    table.colour(1, "gone", Colour::red);
    const std::vector<const json_t *> services = elements_of(status, "services");
    for (const json_t *service : services) {
        const json_t *since = json_object_get(service, "since");
        const bool registered = since != nullptr;
        const std::vector<std::string> methods = wrapped(method_names_of(service), methods_width);
        table.add({printable(text_of(service, "name")), printable(text_of(service, "state")),
                   channel_name(text_of(service, "channel")), road_of(service),
                   registered ? date_text(json_number_value(since)) : "-",
                   registered ? count_text(service, "in_flight") : "-", methods[0].empty() ? "-" : methods[0]});
        for (size_t line = 1; line < methods.size(); ++line) {
            table.add({"", "", "", "", "", "", methods[line]});
        }
    }
    return services.empty() ? std::vector<std::string>{"no services"} : table.lines();
}

std::string milliseconds_of(const json_t *row, const char *key) {
    const double value = json_number_value(json_object_get(row, key));
    return value > 0 ? milliseconds_text(value) : "-";
}

/** Calls of each method since the former look, a second. */
using Rates = std::map<std::string, double>;

std::vector<std::string> methods_table(const json_t *status, const Rates *rates) {
    std::vector<std::string> heading = {"METHOD",    "CALLS", "ERRORS", "TIMEOUTS", "GONE",
                                        "CANCELLED", "P50",   "P90",    "P99"};
    if (rates != nullptr) {
        heading.insert(heading.begin() + 1, "CALLS/S");
    }
    Table table(heading);
    table.align_right(1, heading.size() - 1);
    auto rows = members_of(status, "methods");
    const auto rate_of = [rates](const std::string &method) {
        const auto found = rates == nullptr ? Rates::const_iterator() : rates->find(method);
        return rates == nullptr || found == rates->end() ? 0 : found->second;
    };
    std::sort(rows.begin(), rows.end(), [&rate_of](const auto &a, const auto &b) {
        const double left = rate_of(a.first);
        const double right = rate_of(b.first);
        return left != right ? left > right : a.first < b.first;
    });
    for (const auto &[method, row] : rows) {
        std::vector<std::string> cells = {printable(method)};
        for (const char *key : {"calls", "errors", "timeouts", "gone", "cancelled"}) {
            cells.push_back(count_text(row, key));
        }
        for (const char *key : {"p50_ms", "p90_ms", "p99_ms"}) {
            cells.push_back(milliseconds_of(row, key));
        }
        if (rates != nullptr) {
            char text[32];
            std::snprintf(text, sizeof text, "%.1f", rate_of(method));
            cells.insert(cells.begin() + 1, text);
        }
        table.add(cells);
    }
    return rows.empty() ? std::vector<std::string>{"no calls yet"} : table.lines();
}

std::vector<std::string> page_of(const json_t *status, const Rates *rates) {
    std::vector<std::string> lines = summary_of(status);
    for (const std::vector<std::string> &table : {services_table(status), methods_table(status, rates)}) {
        lines.emplace_back();
        lines.insert(lines.end(), table.begin(), table.end());
    }
    return lines;
}

/** What has been counted of each method so far. */
std::map<std::string, json_int_t> calls_by_method(const json_t *status) {
    std::map<std::string, json_int_t> calls;
    for (const auto &[name, counts] : members_of(status, "methods")) {
        calls[name] = number_of(counts, "calls");
    }
    return calls;
}

/** A router that was started again begins at 0: then there is no rate, rather than a negative one. */
Rates rates_between(const std::map<std::string, json_int_t> &before, const std::map<std::string, json_int_t> &after,
                    double seconds) {
    Rates rates;
    for (const auto &[method, calls] : after) {
        const auto former = before.find(method);
        const json_int_t more = calls - (former == before.end() ? 0 : former->second);
        rates[method] = more > 0 && seconds > 0 ? static_cast<double>(more) / seconds : 0;
    }
    return rates;
}

/** The service's state, as far as the router knows it; empty when it does not. */
std::string state_of(const json_t *status, const std::string &name) {
    for (const json_t *service : elements_of(status, "services")) {
        if (text_of(service, "name") == name) {
            return text_of(service, "state");
        }
    }
    return "";
}

/** Why the service is not there, as far as the router knows. */
std::string reason_for_absence(const json_t *status, const std::string &name) {
    if (status == nullptr) {
        return "the router does not answer";
    }
    const std::string state = state_of(status, name);
    return state.empty() ? "the router does not know it" : "its state is " + printable(state);
}

} // namespace

int status(const StatusOptions &options) {
    return with_result(options, names::status, [&options](const json_t *status) {
        return printed(options.json ? print_line(render(status, *options.json))
                                    : print_lines(page_of(status, nullptr)));
    });
}

int top(const TopOptions &options) {
    if (!stop_on_signals()) {
        return exit_error_response;
    }
    RouterCalls router(options.target);
    std::map<std::string, json_int_t> before;
    double looked_at = 0;
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    for (unsigned shown = 0; !stop_requested() && (!options.count || shown < *options.count); ++shown) {
        Json result;
        const int rc = router.ask(names::status, nullptr, Deadline(options.timeout_s), &result);
        if (rc != exit_result || stop_requested()) {
            return stop_requested() ? exit_result : rc;
        }
        const double uptime_s = json_number_value(json_object_get(result.get(), "uptime_s"));
        const std::map<std::string, json_int_t> calls = calls_by_method(result.get());
        const Rates rates = shown == 0 ? Rates() : rates_between(before, calls, uptime_s - looked_at);
        std::string page = is_terminal ? "\033[H\033[J" : shown > 0 ? "\n" : "";
        for (const std::string &line : page_of(result.get(), &rates)) {
            page += line + "\n";
        }
        page.pop_back();
        if (!print_line(page)) {
            return stop_requested() ? exit_result : exit_error_response;
        }
        before = calls;
        looked_at = uptime_s;
        if (!options.count || shown + 1 < *options.count) {
            sleep_unless_stopped(options.interval_s);
        }
    }
    return exit_result;
}

int metrics(const StatusOptions &options) {
    return with_result(options, names::metrics, [](const json_t *text) {
        std::string safe;
        for (const char c : std::string(json_is_string(text) ? json_string_value(text) : "")) {
            // Its lines stay lines; what others named in them steers no terminal.
            safe += c == '\n' || c == '\\' ? std::string(1, c) : printable(std::string(1, c));
        }
        if (!safe.empty() && safe.back() == '\n') {
            safe.pop_back();
        }
        return printed(print_line(safe));
    });
}

int wait_service(const WaitServiceOptions &options) {
    const Deadline deadline(options.timeout_s);
    std::vector<std::string> missing = options.names;
    Json result;
    int rc = exit_result;
    for (;;) {
        {
            // A router that is not there yet is waited for like its services.
            const Silence silence;
            RouterCalls router(options.target);
            Json latest;
            rc = router.ask(names::status, nullptr, deadline, &latest);
            if (rc == exit_result) {
                result = std::move(latest);
            }
        }
        if (rc == exit_usage) {
            return RouterCalls(options.target).ask(names::status, nullptr, deadline, &result); // which says why
        }
        const auto is_there_now = [&result](const std::string &name) {
            const std::string state = state_of(result.get(), name);
            return state == "up" || state == "listening";
        };
        missing.erase(std::remove_if(missing.begin(), missing.end(), is_there_now), missing.end());
        if (missing.empty()) {
            return exit_result;
        }
        if (deadline.passed()) {
            break;
        }
        sleep_unless_stopped(between_looks_s);
    }
    for (const std::string &name : missing) {
        complain("%s is not there: %s", printable(name).c_str(), reason_for_absence(result.get(), name).c_str());
    }
    return exit_timeout;
}

} // namespace tavrixctl
