#include "router.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

#include "tavrix_jrpc.h"

namespace tavrixctl {

namespace {

constexpr char own_id[] = "tavrixctl";

/** Whether this is the router's word of lost notifications, which is then complained about. */
bool tell_loss(const json_t *notification) {
    if (text_of(notification, "method") != names::lost) {
        return false;
    }
    const json_t *count = json_object_get(json_object_get(notification, "params"), "count");
    complain("%lld more were lost: they came faster than they were read",
             static_cast<long long>(json_integer_value(count)));
    return true;
}

} // namespace

RouterSession::Got RouterSession::next_line(const Deadline &deadline, std::string *line) {
    char chunk[65536];
    bool has_read = false;
    for (;;) {
        const size_t end = buffer_.find('\n', searched_);
        if (end != std::string::npos) {
            *line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            searched_ = 0;
            return Got::line;
        }
        searched_ = buffer_.size();
        if (stop_requested()) {
            return Got::stopped;
        }
        if (has_read && deadline.passed()) {
            return Got::timeout; // however much comes without an end
        }
        pollfd ready[] = {{socket_.get(), POLLIN, 0}, {stop_descriptor(), POLLIN, 0}};
        const int count = poll(ready, 2, deadline.left_ms());
        if (count == 0) {
            return Got::timeout;
        }
        if (count < 0 || ready[0].revents == 0) {
            continue; // a signal, which may have been the stop
        }
        const ssize_t got = recv(socket_.get(), chunk, sizeof chunk, 0);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return Got::closed;
        }
        buffer_.append(chunk, got < 0 ? 0 : static_cast<size_t>(got));
        has_read = true;
    }
}

RouterSession::Got RouterSession::next(bool is_notification, const Deadline &deadline, Json *message) {
    do {
        std::string line;
        const Got got = next_line(deadline, &line);
        if (got != Got::line) {
            return got;
        }
        message->reset(json_loadb(line.data(), line.size(), 0, nullptr));
        const bool has_method = json_object_get(message->get(), "method") != nullptr;
        if (*message && has_method == is_notification) {
            return got;
        }
        if (has_method) {
            kept_.push_back(std::move(*message));
        }
    } while (!deadline.passed());
    return Got::timeout;
}

RouterSession::Got RouterSession::next_notification(const Deadline &deadline, Json *notification) {
    Got got = Got::line;
    do {
        if (kept_.empty()) {
            got = next(true, deadline, notification);
        } else {
            *notification = std::move(kept_.front());
            kept_.pop_front();
        }
    } while (got == Got::line && tell_loss(notification->get()));
    return got;
}

RouterSession::Got RouterSession::next_answer(const Deadline &deadline, Json *answer) {
    return next(false, deadline, answer);
}

int RouterSession::ask(const std::string &request, const Deadline &deadline, Json *answer) {
    const int status = send(request, deadline);
    if (status != exit_result) {
        return status;
    }
    const Got got = next_answer(deadline, answer);
    return got == Got::line ? exit_result : tell_end(got);
}

int open_session(const Target &target, const Deadline &deadline, std::unique_ptr<RouterSession> *out) {
    Socket socket;
    RoadKind kind = RoadKind::session;
    std::vector<Road> roads = roads_to(target);
    roads.erase(
        std::remove_if(roads.begin(), roads.end(), [](const Road &road) { return road.kind != RoadKind::session; }),
        roads.end());
    const int status = connect_to(roads, 0, deadline, &socket, &kind);
    if (status == exit_result) {
        *out = std::make_unique<RouterSession>(std::move(socket));
    }
    return status;
}

int open_stream(const Target &target, const char *method, const std::vector<std::string> &patterns,
                const Deadline &deadline, std::unique_ptr<RouterSession> *out) {
    int status = open_session(target, deadline, out);
    if (status != exit_result) {
        return status;
    }
    Json names(json_array());
    for (const std::string &pattern : patterns) {
        json_array_append_new(names.get(), json_string(pattern.c_str()));
    }
    const Json request = make_request(method, Json(json_pack("{s:o}", "methods", names.release())), own_id);
    Json answer;
    status = (*out)->ask(request_text(request.get()), deadline, &answer);
    if (status == exit_result && answer) { // none, when it was stopped meanwhile
        status = status_of(answer.get());
        if (status != exit_result) {
            complain("%s", words_of_failure(method, answer.get()).c_str());
        }
    }
    return status;
}

int tell_end(RouterSession::Got got) {
    switch (got) {
    case RouterSession::Got::timeout:
        return fail(exit_timeout, "no answer in time; %s", late_remedy);
    case RouterSession::Got::closed:
        return fail(exit_no_connection, "the connection was closed without an answer");
    default:
        return exit_result; // stopped, as asked
    }
}

int RouterCalls::exchange(const std::string &request, const Deadline &deadline, std::string *answer) {
    if (!session_) {
        Socket socket;
        RoadKind kind = RoadKind::one_shot;
        const int status = connect_to(roads_, request.size(), deadline, &socket, &kind);
        if (status != exit_result) {
            return status;
        }
        if (kind != RoadKind::session) {
            const int sent = send_text(socket.get(), request, deadline);
            return sent == exit_result ? read_to_end(socket.get(), deadline, answer) : sent;
        }
        session_ = std::make_unique<RouterSession>(std::move(socket));
    }
    Json message;
    const int status = session_->ask(request, deadline, &message);
    if (status == exit_result && message) {
        *answer = request_text(message.get());
    }
    return status;
}

int RouterCalls::ask(const std::string &method, Json params, const Deadline &deadline, Json *result) {
    std::string text;
    const Json request = make_request(method, std::move(params), own_id);
    int status = exchange(request_text(request.get()), deadline, &text);
    if (status != exit_result || (text.empty() && stop_requested())) {
        return status;
    }
    const Json answer(json_loadb(text.data(), text.size(), 0, nullptr));
    json_t *found = json_object_get(answer.get(), "result");
    status = answer ? status_of(answer.get()) : exit_no_connection;
    if (status != exit_result || found == nullptr) {
        complain("%s", words_of_failure(method, answer.get()).c_str());
        return status == exit_result ? exit_error_response : status;
    }
    result->reset(json_incref(found));
    return exit_result;
}

int status_of(const json_t *answer) {
    const json_t *error = json_object_get(answer, "error");
    if (error == nullptr) {
        return exit_result;
    }
    return json_integer_value(json_object_get(error, "code")) == TAVRIX_JRPC_TIMED_OUT ? exit_timeout
                                                                                       : exit_error_response;
}

const char *outcome_of(const json_t *answer) {
    const int status = status_of(answer);
    return status == exit_result ? "result" : status == exit_timeout ? "timeout" : "error";
}

bool is_refused_by_policy(const json_t *data) { return text_of(data, "message") == "the policy does not allow this"; }

std::string words_of_failure(const std::string &method, const json_t *answer) {
    const json_t *error = json_object_get(answer, "error");
    if (!json_is_object(error)) {
        return printable(method) + ": the answer is not a JSON-RPC response";
    }
    const json_t *data = json_object_get(error, "data");
    std::string why = json_is_string(data) ? json_string_value(data) : text_of(data, "message");
    const std::string reason = text_of(data, "reason"); // the kit's, which names what came and what is allowed
    if (reason != why) {
        why += why.empty() || reason.empty() ? reason : "; " + reason;
    }
    if (why.empty() && data != nullptr && !json_is_null(data)) {
        why = render(data, JsonStyle::single_line);
    }
    if (is_refused_by_policy(data)) {
        why +=
            "; root, the router's user and its group may do everything, and its --policy file says who else may what";
    }
    return printable(method) + ": " + printable(text_of(error, "message")) + " (" +
           std::to_string(json_integer_value(json_object_get(error, "code"))) + ")" +
           (why.empty() ? "" : ": " + printable(why));
}

std::vector<const json_t *> methods_of(const json_t *document) {
    std::vector<const json_t *> methods = elements_of(document, "methods");
    std::sort(methods.begin(), methods.end(),
              [](const json_t *a, const json_t *b) { return text_of(a, "name") < text_of(b, "name"); });
    return methods;
}

const json_t *find_method(const std::vector<const json_t *> &methods, const std::string &name) {
    const auto found = std::find_if(methods.begin(), methods.end(),
                                    [&name](const json_t *method) { return text_of(method, "name") == name; });
    return found != methods.end() ? *found : nullptr;
}

bool takes_text(const json_t *schema) {
    const std::vector<const json_t *> words = elements_of(schema, "enum");
    if (!words.empty()) {
        return std::any_of(words.begin(), words.end(), [](const json_t *word) { return json_is_string(word); });
    }
    const json_t *type = json_object_get(schema, "type");
    const std::vector<const json_t *> types = elements_of(schema, "type");
    const auto is_string = [](const json_t *name) {
        return json_is_string(name) && std::string(json_string_value(name)) == "string";
    };
    return type == nullptr || is_string(type) || std::any_of(types.begin(), types.end(), is_string);
}

} // namespace tavrixctl
