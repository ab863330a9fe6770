/*
 * call, send: one request to the router or to a daemon's own socket, one answer.
 */
#include <unistd.h>

#include "stream.h"
#include "support.h"
#include "verbs.h"

namespace tavrixctl {

namespace {

/** Prints an answer and tells result from error response. */
int print_answer(const std::string &answer, JsonStyle style) {
    json_error_t error;
    const Json reply(json_loadb(answer.data(), answer.size(), JSON_DECODE_ANY, &error));
    if (!reply) {
        complain("the answer is no JSON: %s", printable(error.text).c_str());
        print_line(printable(answer));
        return exit_error_response;
    }
    if (!print_line(render(reply.get(), style))) {
        return exit_error_response;
    }
    if (json_object_get(reply.get(), "error") != nullptr) {
        return exit_error_response;
    }
    if (json_object_get(reply.get(), "result") == nullptr) {
        complain("the answer is no JSON-RPC response");
        return exit_error_response;
    }
    return exit_result;
}

int exchange_and_print(const Target &target, const std::string &text, double timeout_s, bool wants_answer,
                       JsonStyle style) {
    const Deadline deadline(timeout_s);
    std::string answer;
    const int status = exchange(target, text, deadline, &answer);
    if (status != exit_result) {
        return status;
    }
    if (!answer.empty()) {
        return print_answer(answer, style);
    }
    if (!wants_answer) {
        return exit_result;
    }
    complain("the connection was closed without an answer");
    return exit_no_connection;
}

/** A transaction id that two clients at a time hardly share. */
json_int_t fresh_transaction_id() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    return (static_cast<json_int_t>(getpid()) * 1000 + milliseconds % 1000) & 0x7fffffff;
}

} // namespace

int call(const CallOptions &options) {
    bool valid = false;
    Json params = parse_params(options.params, &valid);
    if (!valid) {
        return exit_usage;
    }
    const Json request = make_request(options.method, std::move(params), options.notification ? "" : options.id);
    if (!request) {
        complain("METHOD or --id is no valid UTF-8 text");
        return exit_usage;
    }
    const json_int_t transaction_id = options.transaction_id.value_or(fresh_transaction_id());
    json_object_set_new(request.get(), "transaction_id", json_integer(transaction_id));
    const std::string text = request_text(request.get());
    if (text.size() > request_limit(options.target)) {
        complain("the request has %zu bytes, %zu are read at most", text.size(), request_limit(options.target));
        return exit_usage;
    }
    return exchange_and_print(options.target, text, options.timeout_s, !options.notification, options.json);
}

int send(const SendOptions &options) {
    return exchange_and_print(options.target, text_or_stdin(options.text), options.timeout_s, true, options.json);
}

} // namespace tavrixctl
