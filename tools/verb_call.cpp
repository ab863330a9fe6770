/*
 * call, send: one request to the router or to a daemon's own socket, and its answer.
 */
#include <algorithm>

#include <sys/socket.h>
#include <unistd.h>

#include "params.h"
#include "router.h"
#include "tavrix_jrpc.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

const char *const own_methods[] = {names::reload_conf, names::bus,    names::lock,
                                   names::metrics,     names::status, names::unlock};

/** The methods that a router.Status tells of, and the router's own. */
std::vector<std::string> known_methods(const json_t *status) {
    std::vector<std::string> methods(std::begin(own_methods), std::end(own_methods));
    for (const json_t *service : elements_of(status, "services")) {
        for (const json_t *method : elements_of(service, "methods")) {
            methods.emplace_back(json_is_string(method) ? json_string_value(method) : "");
        }
    }
    for (const auto &[name, counts] : members_of(status, "methods")) {
        methods.push_back(name); // of services that register nowhere: what has been called
    }
    return methods;
}

/** An error that the router or a service has answered. */
struct Failure {
    const std::string &method;
    const json_t *params;
    const json_t *data;
    Deadline deadline; // for what has to be found out
    RouterCalls *router;
};

/** Whether a method that is near was intended where this one was not found; `otherwise` when none is near. */
std::string find_similar(const Failure &failure, const std::string &otherwise) {
    Json status;
    if (failure.router->ask(names::status, nullptr, failure.deadline, &status) != exit_result) {
        return otherwise;
    }
    // A known method is the nearest to itself.
    const std::string similar = nearest(failure.method, known_methods(status.get()));
    return similar.empty() || similar == failure.method ? otherwise : "did you mean " + similar + "?";
}

std::string on_unknown_method(const Failure &failure) {
    if (is_refused_by_policy(failure.data)) {
        return ""; // what the answer is told with says all
    }
    return find_similar(failure, text_of(failure.data, "service").empty()
                                     ? "tavrixctl list shows what can be called"
                                     : "tavrixctl status shows since when, its log says why");
}

/** Without a word about it the system is locked, or the service itself has too much to do. */
std::string on_busy(const Failure &failure) {
    Json status;
    const bool is_known = json_is_null(failure.data) &&
                          failure.router->ask(names::status, nullptr, failure.deadline, &status) == exit_result;
    return is_known && json_is_true(json_object_get(status.get(), "locked"))
               ? "the system is locked, tavrixctl call router.Unlock ends that"
               : "try again later, tavrixctl status shows what is in flight";
}

/** What "key=value" gives is a text, and a number, a list, true or false was probably intended. */
std::string on_text(const json_t *param, const json_t *value) {
    const char *text = json_string_value(value);
    const Json other(text != nullptr ? json_loads(text, JSON_DECODE_ANY, nullptr) : nullptr);
    if (!other || json_is_string(other.get()) || takes_text(json_object_get(param, "schema"))) {
        return "";
    }
    return "did you mean " + text_of(param, "name") + ":=" + text + "?";
}

std::string on_unknown_param(const std::string &key, const std::vector<std::string> &names) {
    if (names.empty() || std::find(names.begin(), names.end(), key) != names.end()) {
        return "";
    }
    const std::string similar = nearest(key, names);
    return "there is no parameter " + key + (similar.empty() ? "" : "; did you mean " + similar + "?");
}

/** A parameter that is missing may have been misspelt, one that is refused may have been given as a text. */
std::string on_wrong_params(const Failure &failure) {
    Json document;
    if (text_of(failure.data, "parameter").empty() ||
        failure.router->ask(names::discover, nullptr, failure.deadline, &document) != exit_result) {
        return "";
    }
    std::vector<std::string> names;
    std::string advice;
    for (const json_t *param : elements_of(find_method(methods_of(document.get()), failure.method), "params")) {
        names.push_back(text_of(param, "name"));
        if (advice.empty()) {
            advice = on_text(param, json_object_get(failure.params, names.back().c_str()));
        }
    }
    for (const auto &[key, value] : members_of(failure.params)) {
        if (advice.empty()) {
            advice = on_unknown_param(key, names);
        }
    }
    return advice;
}

/** A sentence's end, such as "did you mean ports.Get?"; empty where the answer's own words are enough. */
std::string advice_on(const Failure &failure, json_int_t code) {
    const Silence silence; // what cannot be found out is not worth a word
    switch (code) {
    case TAVRIX_JRPC_METHOD_NOT_FOUND:
        return on_unknown_method(failure);
    case TAVRIX_JRPC_TIMED_OUT: // a request to nobody on the bus is timed out, too
        return find_similar(failure, "is its service stopped, or busy? tavrixctl status shows what is in flight");
    case TAVRIX_JRPC_SYSTEM_BUSY:
        return on_busy(failure);
    case TAVRIX_JRPC_INVALID_PARAMS:
        return on_wrong_params(failure);
    default:
        return "";
    }
}

/** Whether a response, or each of a batch's, is a result. */
int judge(const json_t *reply) {
    if (json_is_array(reply)) {
        size_t index = 0;
        const json_t *one = nullptr;
        json_array_foreach(reply, index, one) {
            const int status = json_is_object(one) ? judge(one) : exit_error_response;
            if (status != exit_result) {
                return status;
            }
        }
        return exit_result;
    }
    const int status = status_of(reply);
    if (status == exit_result && json_object_get(reply, "result") == nullptr) {
        return fail(exit_error_response, "the answer is not a JSON-RPC response");
    }
    return status;
}

/** Prints an answer and tells result from error response. */
int print_answer(const std::string &answer, JsonStyle style) {
    json_error_t error;
    const Json reply(json_loadb(answer.data(), answer.size(), JSON_DECODE_ANY, &error));
    if (!reply) {
        complain("the answer is not JSON: %s", printable(error.text).c_str());
        print_line(printable(answer));
        return exit_error_response;
    }
    return print_line(render(reply.get(), style)) ? judge(reply.get()) : exit_error_response;
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
int print_result(const CallOptions &options, const json_t *params, RouterCalls *router, const std::string &answer) {
    const Json reply(json_loadb(answer.data(), answer.size(), 0, nullptr));
    const json_t *result = json_object_get(reply.get(), "result");
    const json_t *error = json_object_get(reply.get(), "error");
    if (result == nullptr && !json_is_object(error)) {
        return fail(exit_error_response, "the answer is not a JSON-RPC response: %s",
                    (reply ? render(reply.get(), JsonStyle::single_line) : printable(answer)).c_str());
    }
    if (error == nullptr) {
        return printed(print_line(render(result, options.json)));
    }
    const Failure failure{options.method, params, json_object_get(error, "data"), Deadline(options.timeout_s), router};
    const std::string advice =
        options.target.direct.empty() ? advice_on(failure, json_integer_value(json_object_get(error, "code"))) : "";
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
        return fail(exit_usage, "METHOD or --id is not valid UTF-8 text");
    }
    const json_int_t transaction_id = options.transaction_id.value_or(fresh_transaction_id());
    json_object_set_new(request.get(), "transaction_id", json_integer(transaction_id));
    const Deadline deadline(options.timeout_s);
    RouterCalls router(options.target);
    std::string answer;
    const int status = router.exchange(request_text(request.get()), deadline, &answer);
    if (status != exit_result || (answer.empty() && options.notification)) {
        return status;
    }
    if (answer.empty()) {
        return fail(exit_no_connection, "the connection was closed without an answer");
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
