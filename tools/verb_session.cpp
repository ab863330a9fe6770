/*
 * subscribe, wait: notifications, as the router delivers them.
 */

#include "params.h"
#include "router.h"
#include "verb_bus.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + printable(word);
    }
    return text;
}

/** Takes what arrives on a session until enough of it was wanted, or the time is over. */
int deliver(const Target &target, const std::vector<std::string> &patterns, std::optional<unsigned> count,
            const Deadline &deadline, const Taker &take) {
    std::unique_ptr<RouterSession> session;
    const int status = open_stream(target, names::subscribe, patterns, deadline, &session);
    if (status != exit_result || stop_requested()) {
        return status;
    }
    complain("waiting for %s", joined(patterns).c_str());
    for (unsigned taken = 0; !count || taken < *count;) {
        Json message;
        const RouterSession::Got got = session->next_notification(deadline, &message);
        if (got == RouterSession::Got::timeout) {
            const bool is_enough = !count && taken > 0;
            if (!is_enough) {
                complain("no %s in time", joined(patterns).c_str());
            }
            return is_enough ? exit_result : exit_timeout;
        }
        if (got == RouterSession::Got::stopped) {
            return exit_result;
        }
        if (got == RouterSession::Got::closed) {
            return fail(exit_no_connection, "the router has closed the session");
        }
        const int verdict = take(message.get());
        if (verdict < 0) {
            return stop_requested() ? exit_result : exit_error_response;
        }
        taken += static_cast<unsigned>(verdict);
    }
    return exit_result;
}

std::string line_of(const json_t *notification, const std::optional<JsonStyle> &style) {
    if (style) {
        return render(notification, *style);
    }
    const json_t *params = json_object_get(notification, "params");
    return time_text(now_since_1970()) + "  " + coloured(printable(text_of(notification, "method")), Colour::bold) +
           (params == nullptr ? "" : "  " + render(params, JsonStyle::single_line));
}

/** An address of the bus has a scheme; everything else that is no filter is a mistake. */
bool sort_words(const WaitOptions &options, std::vector<std::string> *addresses, std::vector<Member> *filters) {
    for (const std::string &word : options.words) {
        bool valid = true;
        std::optional<Member> member = parse_member(word, &valid);
        if (!valid) {
            return false;
        }
        if (member) {
            filters->push_back(std::move(*member));
        } else if (word.find("://") != std::string::npos) {
            addresses->push_back(word);
        } else {
            complain("'%s' is neither a bus address, such as tcp://127.0.0.1:7003, nor key=value",
                     printable(word).c_str());
            return false;
        }
    }
    return true;
}

} // namespace

int subscribe(const SubscribeOptions &options) {
    if (!stop_on_signals()) {
        return exit_error_response;
    }
    const Deadline deadline(options.timeout_s.value_or(for_ever_s));
    const auto take = [&options](const json_t *notification) {
        return print_line(line_of(notification, options.json)) ? 1 : -1;
    };
    return deliver(options.target, options.patterns, options.count, deadline, take);
}

int wait(const WaitOptions &options) {
    std::vector<std::string> addresses;
    std::vector<Member> filters;
    if (!sort_words(options, &addresses, &filters)) {
        return exit_usage;
    }
    const Deadline deadline(options.timeout_s);
    const auto take = [&](const json_t *notification) {
        if (!has_members(json_object_get(notification, "params"), filters)) {
            return 0;
        }
        return print_line(render(notification, options.json)) ? 1 : -1;
    };
    if (!addresses.empty()) {
        return wait_on_bus(options, addresses, deadline, take);
    }
    if (!options.channel.empty()) {
        return fail(exit_usage, "--channel is for bus addresses");
    }
    return deliver(options.target, {options.method}, options.count, deadline, take);
}

} // namespace tavrixctl
