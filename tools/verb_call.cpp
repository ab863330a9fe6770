/*
 * call, send: one request to the router or to a daemon's own socket, and its answer.
 */
#include <algorithm>

#include <sys/socket.h>
#include <unistd.h>

#include "advice.h"
#include "params.h"
#include "router.h"
#include "support.h"
#include "verbs.h"

namespace tavrixctl {

namespace {

/** Whether a response, or each of a batch's, is a result. */
int judge(const json_t *reply) {
    if (json_is_array(reply)) {
        size_t index = 0;
        const json_t *one = nullptr;
        json_array_foreach(reply, index, one) {
            const int status = json_is_object(one) ? judge(one) : static_cast<int>(exit_error_response);
            if (status != exit_result) {
                return status;
            }
        }
        return exit_result;
    }
    const int status = status_of(reply);
    if (status == exit_result && json_object_get(reply, "result") == nullptr) {
        complain("the answer is no JSON-RPC response");
        return exit_error_response;
    }
    return status;
}

/** Prints an answer and tells result from error response. */
int print_answer(const std::string &answer, JsonStyle style) {
    json_error_t error;
    const Json reply(json_loadb(answer.data(), answer.size(), JSON_DECODE_ANY, &error));
    if (!reply) {
        complain("the answer is no JSON: %s", printable(error.text).c_str());
        print_line(printable(answer));
        return exit_error_response;
    }
    return print_line(render(reply.get(), style)) ? judge(reply.get()) : static_cast<int>(exit_error_response);
}

/** One connection for the text where there is one: its lines would be several requests of a session. */
std::vector<Road> for_one_text(std::vector<Road> roads) {
    const auto is_session = [](const Road &road) { return road.kind == RoadKind::session; };
    if (!std::all_of(roads.begin(), roads.end(), is_session)) {
        roads.erase(std::remove_if(roads.begin(), roads.end(), is_session), roads.end());
    }
    return roads;
}

/** The answer, or a session's several ones; the exit status is the last that is not 0. */
int print_all(const std::string &answers, RoadKind kind, JsonStyle style) {
    int status = answers.empty() ? exit_no_connection : exit_result;
    if (answers.empty()) {
        complain("the connection was closed without an answer");
    }
    size_t begin = 0;
    while (begin < answers.size()) {
        const size_t end =
            kind == RoadKind::session ? std::min(answers.find('\n', begin), answers.size()) : answers.size();
        const int one = print_answer(answers.substr(begin, end - begin), style);
        status = one == exit_result ? status : one;
        begin = end + 1;
    }
    return status;
}

/** Prints the result alone, or says in words what went wrong. */
int print_result(const CallOptions &options, const json_t *params, Router *router, const std::string &answer) {
    const Json reply(json_loadb(answer.data(), answer.size(), 0, nullptr));
    const json_t *result = json_object_get(reply.get(), "result");
    const json_t *error = json_object_get(reply.get(), "error");
    if (result == nullptr && !json_is_object(error)) {
        complain("the answer is no JSON-RPC response: %s",
                 (reply ? render(reply.get(), JsonStyle::single_line) : printable(answer)).c_str());
        return exit_error_response;
    }
    if (error == nullptr) {
        return printed(print_line(render(result, options.json)));
    }
    const std::string advice = options.target.direct.empty()
                                   ? advice_on(options.method, params, error, Deadline(options.timeout_s), router)
                                   : "";
    complain("%s%s", words_of_failure(options.method, reply.get()).c_str(),
             advice.empty() ? "" : ("; " + printable(advice)).c_str());
    return status_of(reply.get());
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
    const Deadline deadline(options.timeout_s);
    Router router(options.target);
    std::string answer;
    const int status = router.exchange(request_text(request.get()), deadline, &answer);
    if (status != exit_result || (answer.empty() && options.notification)) {
        return status;
    }
    if (answer.empty()) {
        complain("the connection was closed without an answer");
        return exit_no_connection;
    }
    const json_t *sent = json_object_get(request.get(), "params");
    return options.full ? print_answer(answer, options.json) : print_result(options, sent, &router, answer);
}

int send(const SendOptions &options) {
    const Deadline deadline(options.timeout_s);
    const std::string text = text_or_stdin(options.text);
    Socket socket;
    RoadKind kind = RoadKind::one_shot;
    // No limit of its own: what is sent may be there to be refused.
    int status = connect_to(for_one_text(roads_to(options.target)), 0, deadline, &socket, &kind);
    if (status == exit_result) {
        status = send_text(socket.get(), kind == RoadKind::session ? text + "\n" : text, deadline);
    }
    if (kind == RoadKind::session) {
        shutdown(socket.get(), SHUT_WR); // the router answers what it has, and closes
    }
    std::string answers;
    if (status == exit_result) {
        status = read_to_end(socket.get(), deadline, &answers);
    }
    return status == exit_result ? print_all(answers, kind, options.json) : status;
}

} // namespace tavrixctl
