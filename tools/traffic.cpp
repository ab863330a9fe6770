#include "traffic.h"

#include <algorithm>
#include <cmath>

#include "router.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr size_t most_pending = 10000; // what waits for replies that were lost must not pile up
constexpr size_t least_method_width = 16;

/** For json_pack's `s?`, which makes null of it. */
const char *text_or_null(const std::string &text) { return text.empty() ? nullptr : text.c_str(); }

Json share(json_t *value) { return Json(json_incref(value)); }

/** A message's params or result, on one line; an error in words. */
std::string body_of(const json_t *message) {
    const json_t *error = json_object_get(message, "error");
    if (error != nullptr) {
        const std::string why = text_of(json_object_get(error, "data"), "message");
        return "error " + std::to_string(json_integer_value(json_object_get(error, "code"))) + " " +
               printable(text_of(error, "message")) + (why.empty() ? "" : ": " + printable(why));
    }
    const json_t *result = json_object_get(message, "result");
    const json_t *shown = result != nullptr ? result : json_object_get(message, "params");
    return shown == nullptr ? "" : render(shown, JsonStyle::single_line);
}

std::string padded(const std::string &text, size_t width) {
    return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

double percentile(const std::vector<double> &sorted, double share) {
    const auto place = static_cast<size_t>(std::ceil(static_cast<double>(sorted.size()) * share));
    return sorted[place == 0 ? 0 : place - 1];
}

} // namespace

Json to_json(const Exchange &exchange) {
    Json object(json_pack("{s:f, s:s, s:s?, s:s?}", "time", exchange.time, "method", exchange.method.c_str(), "service",
                          text_or_null(exchange.service), "road", text_or_null(exchange.road)));
    if (exchange.is_notification) {
        json_object_set(object.get(), "notification", exchange.request.get());
        return object;
    }
    const Json rest(json_pack("{s:s?, s:s?, s:f, s:O?, s:O?}", "client", text_or_null(exchange.client), "outcome",
                              text_or_null(exchange.outcome), "seconds", exchange.seconds, "request",
                              exchange.request.get(), "reply", exchange.reply.get()));
    json_object_update(object.get(), rest.get());
    return object;
}

std::string to_line(const Exchange &exchange, size_t *width) {
    const std::string method = printable(exchange.method);
    const std::string service = exchange.service.empty() ? "bus" : printable(exchange.service);
    *width = std::max({*width, method.size(), least_method_width});
    std::string line =
        time_text(exchange.time + exchange.seconds) + "  " + padded(method, *width) + "  " + padded(service, 8) + "  ";
    if (exchange.is_notification) {
        return line + padded("notified", 10) + "  " + body_of(exchange.request.get());
    }
    line += padded(exchange.outcome.empty() ? "no reply" : milliseconds_text(exchange.seconds * 1000), 10) + "  ";
    line += (exchange.request ? body_of(exchange.request.get()) : "(asked before)") + " -> ";
    if (exchange.outcome == "result") {
        return line + body_of(exchange.reply.get());
    }
    const std::string outcome = exchange.outcome.empty() ? "nothing yet" : printable(exchange.outcome);
    const std::string answer = body_of(exchange.reply.get());
    return line + coloured(exchange.outcome == "error" ? answer : outcome + (answer.empty() ? "" : ", " + answer),
                           Colour::red);
}

bool is_wanted(const Exchange &exchange, const MonitorOptions &options) {
    if (exchange.is_notification) {
        return !options.errors_only && !options.slower_than_ms;
    }
    return (!options.errors_only || exchange.outcome != "result") &&
           (!options.slower_than_ms || exchange.seconds * 1000 > *options.slower_than_ms);
}

void Pairing::keep(json_int_t call, Exchange exchange) {
    pending_[call] = std::move(exchange);
    if (pending_.size() > most_pending) {
        pending_.erase(std::min_element(pending_.begin(), pending_.end(),
                                        [](const auto &a, const auto &b) { return a.second.time < b.second.time; }));
    }
}

std::optional<Exchange> Pairing::take(const json_t *params) {
    const std::string leg = text_of(params, "leg");
    const json_int_t call = json_integer_value(json_object_get(params, "call"));
    Exchange exchange;
    exchange.time = json_number_value(json_object_get(params, "time"));
    exchange.method = text_of(params, "method");
    exchange.service = text_of(params, "service");
    exchange.road = text_of(params, "road");
    exchange.client = text_of(params, "client");
    exchange.is_notification = leg == "notification";
    if (leg != "reply") {
        exchange.request = share(json_object_get(params, "message"));
        if (exchange.is_notification) {
            return exchange;
        }
        keep(call, std::move(exchange));
        return std::nullopt;
    }
    const auto asked = pending_.find(call);
    const double answered = exchange.time;
    exchange.seconds = json_number_value(json_object_get(params, "seconds"));
    exchange.time = answered - exchange.seconds;
    if (asked != pending_.end()) {
        exchange.time = asked->second.time;
        exchange.request = std::move(asked->second.request);
        pending_.erase(asked);
    }
    exchange.outcome = text_of(params, "outcome");
    exchange.reply = share(json_object_get(params, "message"));
    return exchange;
}

std::optional<Exchange> Pairing::take_frame(double time, const std::string &channel, json_t *message) {
    const std::string method = text_of(message, "method");
    const json_t *number = json_object_get(message, "transaction_id");
    const json_int_t call = json_integer_value(number);
    if (!method.empty()) {
        Exchange exchange;
        exchange.time = time;
        exchange.method = method;
        exchange.road = channel;
        exchange.request = share(message);
        exchange.is_notification = json_object_get(message, "id") == nullptr;
        if (exchange.is_notification) {
            return exchange;
        }
        if (json_is_integer(number)) {
            keep(call, std::move(exchange));
        }
        return std::nullopt;
    }
    const auto asked = json_is_integer(number) ? pending_.find(call) : pending_.end();
    if (asked == pending_.end() || asked->second.method != text_of(message, "id")) {
        return std::nullopt;
    }
    Exchange exchange = std::move(asked->second);
    pending_.erase(asked);
    exchange.seconds = time - exchange.time;
    exchange.outcome = outcome_of(message);
    exchange.reply = share(message);
    return exchange;
}

void Summary::add(const Exchange &exchange) {
    Row &row = rows_[exchange.method];
    if (exchange.is_notification) {
        ++row.notifications;
        return;
    }
    ++row.calls;
    if (exchange.outcome.empty()) {
        ++row.unanswered;
        return;
    }
    row.errors += exchange.outcome == "result" ? 0 : 1;
    row.seconds.push_back(exchange.seconds);
}

void Summary::tell_all(const Pairing &pairing, const std::string &service) {
    for (const auto &[call, exchange] : pairing.pending()) {
        if (service.empty() || exchange.service == service) {
            add(exchange);
        }
    }
    Table table({"METHOD", "CALLS", "ERRORS", "NO REPLY", "NOTIFIED", "P50", "P99"});
    table.align_right(1, 6);
    for (const auto &[method, row] : rows_) {
        std::vector<double> sorted = row.seconds;
        std::sort(sorted.begin(), sorted.end());
        const auto time_within = [&sorted](double part) {
            return sorted.empty() ? "-" : milliseconds_text(percentile(sorted, part) * 1000);
        };
        table.add({printable(method), std::to_string(row.calls), std::to_string(row.errors),
                   std::to_string(row.unanswered), std::to_string(row.notifications), time_within(0.5),
                   time_within(0.99)});
    }
    for (const std::string &line : rows_.empty() ? std::vector<std::string>() : table.lines()) {
        tell(line);
    }
}

} // namespace tavrixctl
