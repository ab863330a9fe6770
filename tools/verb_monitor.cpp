/*
 * monitor, replay: what passes through the router, and the same once more.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "common/message.h"
#include "router.h"
#include "traffic.h"
#include "verb_bus.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

class Watcher {
  public:
    explicit Watcher(const MonitorOptions &options) : options_(options) {}

    /** Opens the file to record to, if one is wanted; complains and returns false when it cannot be written. */
    bool open_record();
    int watch(RouterSession *session);
    void tell_figures() { summary_.tell_all(pairing_, options_.service); }

  private:
    bool show(const Exchange &exchange);

    const MonitorOptions &options_;
    tavrix::File record_;
    Pairing pairing_;
    Summary summary_;
    size_t method_width_ = 0;
    unsigned printed_ = 0;
};

bool Watcher::open_record() {
    if (options_.record.empty()) {
        return true;
    }
    record_.reset(std::fopen(options_.record.c_str(), "we"));
    if (!record_) {
        complain("%s: %s", printable(options_.record).c_str(), std::strerror(errno));
    }
    return record_ != nullptr;
}

bool Watcher::show(const Exchange &exchange) {
    const std::string line = render(to_json(exchange).get(), JsonStyle::single_line);
    if (record_ && (std::fputs((line + "\n").c_str(), record_.get()) < 0 || std::fflush(record_.get()) != 0)) {
        complain("%s: %s", printable(options_.record).c_str(), std::strerror(errno));
        return false;
    }
    ++printed_;
    switch (options_.json.value_or(JsonStyle::automatic)) {
    case JsonStyle::automatic:
        return print_line(to_line(exchange, &method_width_));
    case JsonStyle::pretty:
        return print_line(render(to_json(exchange).get(), JsonStyle::pretty));
    default:
        return print_line(line);
    }
}

int Watcher::watch(RouterSession *session) {
    const Deadline never(for_ever_s);
    while (!options_.count || printed_ < *options_.count) {
        Json message;
        const RouterSession::Got got = session->next_notification(never, &message);
        if (got == RouterSession::Got::stopped) {
            break;
        }
        if (got == RouterSession::Got::closed) {
            return fail(exit_no_connection, "the router has closed the session");
        }
        if (text_of(message.get(), "method") != names::traffic) {
            continue;
        }
        const std::optional<Exchange> exchange = pairing_.take(json_object_get(message.get(), "params"));
        if (!exchange || (!options_.service.empty() && exchange->service != options_.service)) {
            continue;
        }
        summary_.add(*exchange);
        if (is_wanted(*exchange, options_) && !show(*exchange)) {
            return stop_requested() ? exit_result : exit_error_response;
        }
    }
    return exit_result;
}

int monitor_router(const MonitorOptions &options, const std::vector<std::string> &patterns) {
    Watcher watcher(options);
    if (!watcher.open_record()) {
        return exit_error_response;
    }
    const Deadline deadline(options.timeout_s);
    std::unique_ptr<RouterSession> session;
    int status = open_stream(options.target, names::monitor, patterns, deadline, &session);
    if (status != exit_result || stop_requested()) {
        return status;
    }
    complain("watching through the router");
    status = watcher.watch(session.get());
    watcher.tell_figures();
    return status;
}

struct Recorded {
    double time;
    std::string method;
    std::string outcome;
    Json params;
};

/** One line of a record: false when it is none. Notifications and unseen requests leave nothing. */
bool read_recorded(const std::string &line, std::vector<Recorded> *out) {
    const Json object(json_loadb(line.data(), line.size(), 0, nullptr));
    const json_t *request = json_object_get(object.get(), "request");
    const std::string method = text_of(object.get(), "method");
    if (method.empty() || !json_is_number(json_object_get(object.get(), "time"))) {
        return false;
    }
    if (json_is_object(request)) {
        out->push_back({json_number_value(json_object_get(object.get(), "time")), method,
                        text_of(object.get(), "outcome"), Json(json_incref(json_object_get(request, "params")))});
    }
    return true;
}

bool read_record(const std::string &name, std::vector<Recorded> *out) {
    std::ifstream file(name);
    if (!file.is_open()) {
        complain("%s: %s", printable(name).c_str(), std::strerror(errno));
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (!read_recorded(line, out)) {
            complain("%s:%d: this is not a line of a record", printable(name).c_str(), number);
            return false;
        }
    }
    // Recorded as they were answered.
    std::stable_sort(out->begin(), out->end(), [](const Recorded &a, const Recorded &b) { return a.time < b.time; });
    return true;
}

class Player {
  public:
    Player(RouterSession *session, const ReplayOptions &options, const std::vector<Recorded> &recorded)
        : session_(session), options_(options), recorded_(recorded) {}

    int play();

  private:
    int send(size_t index);
    /** Takes answers until the moment, or until as many are missing as may be. */
    int take_answers(const Deadline &deadline, size_t most_missing);
    bool judge(const json_t *answer);

    RouterSession *session_;
    const ReplayOptions &options_;
    const std::vector<Recorded> &recorded_;
    size_t missing_ = 0;
    unsigned same_ = 0;
    unsigned different_ = 0;
};

int Player::send(size_t index) {
    const Recorded &one = recorded_[index];
    const Json request = tavrix::make_request(one.method.c_str(), json_incref(one.params.get()),
                                              json_integer(static_cast<json_int_t>(index)));
    ++missing_;
    return session_->send(request_text(request.get()), Deadline(options_.timeout_s));
}

/** Whether it went as it did then. How a call ends whose client or service went away is nobody's to repeat. */
bool Player::judge(const json_t *answer) {
    const json_t *id = json_object_get(answer, "id");
    const auto index = static_cast<size_t>(json_integer_value(id));
    if (!json_is_integer(id) || index >= recorded_.size()) {
        return true;
    }
    --missing_;
    const Recorded &one = recorded_[index];
    const char *outcome = outcome_of(answer);
    const bool is_comparable = one.outcome == "result" || one.outcome == "error" || one.outcome == "timeout";
    if (!is_comparable || one.outcome == outcome) {
        ++same_;
        return true;
    }
    ++different_;
    const std::string params = one.params ? " " + render(one.params.get(), JsonStyle::single_line) : "";
    return print_line(printable(one.method) + params + ": " + outcome + " instead of " + printable(one.outcome));
}

int Player::take_answers(const Deadline &deadline, size_t most_missing) {
    while (missing_ > most_missing) {
        Json answer;
        const RouterSession::Got got = session_->next_answer(deadline, &answer);
        if (got == RouterSession::Got::closed) {
            return tell_end(got);
        }
        if (got != RouterSession::Got::line) {
            return exit_result;
        }
        if (!judge(answer.get())) {
            return exit_error_response;
        }
    }
    return exit_result;
}

int Player::play() {
    int status = exit_result;
    const Deadline start(0);
    for (size_t i = 0; i < recorded_.size() && status == exit_result && !stop_requested(); ++i) {
        if (options_.speed > 0) {
            const Deadline moment = start.later((recorded_[i].time - recorded_[0].time) / options_.speed);
            status = take_answers(moment, 0);
            sleep_unless_stopped(moment.left_ms() / 1000.0);
        } else {
            status = take_answers(Deadline(options_.timeout_s), 0);
        }
        status = status == exit_result && !stop_requested() ? send(i) : status;
    }
    if (status == exit_result && !stop_requested()) {
        status = take_answers(Deadline(options_.timeout_s), 0);
    }
    tell(std::to_string(same_) + " ended as recorded, " + std::to_string(different_) + " otherwise, " +
         std::to_string(missing_) + " without an answer");
    if (status == exit_result && different_ == 0 && missing_ > 0 && !stop_requested()) {
        return exit_timeout;
    }
    return status == exit_result && different_ > 0 ? exit_error_response : status;
}

} // namespace

int monitor(const MonitorOptions &options) {
    std::vector<std::string> addresses;
    std::vector<std::string> patterns;
    for (const std::string &word : options.words) {
        if (word.find("://") == std::string::npos && word.find('/') != std::string::npos) {
            return fail(exit_usage, "'%s' is neither a method nor a bus address, such as tcp://127.0.0.1:7001",
                        printable(word).c_str());
        }
        (word.find("://") == std::string::npos ? patterns : addresses).push_back(word);
    }
    const bool asks_router = !options.service.empty() || !options.record.empty() || !options.target.session.empty();
    if (!addresses.empty() && asks_router) {
        return fail(exit_usage, "--service, --record and --session are for watching through the router");
    }
    if (addresses.empty() && !options.channels.empty()) {
        return fail(exit_usage, "--channel is for bus addresses, such as tcp://127.0.0.1:7001");
    }
    if (!stop_on_signals()) {
        return exit_error_response;
    }
    if (!addresses.empty()) {
        return monitor_bus(options, addresses, patterns);
    }
    return monitor_router(options, patterns.empty() ? std::vector<std::string>{"*"} : patterns);
}

int replay(const ReplayOptions &options) {
    std::vector<Recorded> recorded;
    if (!read_record(options.file, &recorded)) {
        return exit_usage;
    }
    if (!stop_on_signals()) {
        return exit_error_response;
    }
    std::unique_ptr<RouterSession> session;
    const int status = open_session(options.target, Deadline(options.timeout_s), &session);
    return status == exit_result ? Player(session.get(), options, recorded).play() : status;
}

} // namespace tavrixctl
