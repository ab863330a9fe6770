#include "router.h"

#include "interrupt.h"
#include "tavrix_jrpc.h"

namespace tavrixctl {

namespace {

constexpr char own_id[] = "tavrixctl";
const char *const own_methods[] = {names::reload_conf, names::bus,    names::lock,
                                   names::metrics,     names::status, names::unlock};

} // namespace

int Router::exchange(const std::string &request, const Deadline &deadline, std::string *answer) {
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
        session_ = std::make_unique<Session>(std::move(socket));
    }
    Json message;
    const int status = session_->ask(request, deadline, &message);
    if (status == exit_result && message) {
        *answer = request_text(message.get());
    }
    return status;
}

int Router::ask(const std::string &method, Json params, const Deadline &deadline, Json *result) {
    std::string text;
    const Json request = make_request(method, std::move(params), own_id);
    int status = exchange(request_text(request.get()), deadline, &text);
    if (status != exit_result || (text.empty() && stop_requested())) {
        return status;
    }
    const Json answer(json_loadb(text.data(), text.size(), 0, nullptr));
    json_t *found = json_object_get(answer.get(), "result");
    status = answer ? status_of(answer.get()) : static_cast<int>(exit_no_connection);
    if (status != exit_result || found == nullptr) {
        complain("%s", words_of_failure(method, answer.get()).c_str());
        return status == exit_result ? static_cast<int>(exit_error_response) : status;
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
        return printable(method) + ": the answer is no JSON-RPC response";
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

std::vector<std::string> known_methods(const json_t *status) {
    std::vector<std::string> methods(std::begin(own_methods), std::end(own_methods));
    for (const json_t *service : elements_of(status, "services")) {
        for (const json_t *method : elements_of(service, "methods")) {
            methods.emplace_back(json_is_string(method) ? json_string_value(method) : "");
        }
    }
    const char *name = nullptr;
    json_t *counts = nullptr;
    json_object_foreach(json_object_get(status, "methods"), name, counts) {
        methods.emplace_back(name); // of services that register nowhere: what has been called
    }
    return methods;
}

} // namespace tavrixctl
