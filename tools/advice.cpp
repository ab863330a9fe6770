#include "advice.h"

#include <algorithm>
#include <vector>

#include "discovery.h"
#include "tavrix_jrpc.h"
#include "words.h"

namespace tavrixctl {

namespace {

struct Failure {
    const std::string &method;
    const json_t *params;
    const json_t *data;
    const Deadline &deadline;
    Router *router;
};

/** The method that was probably intended where this one was not found; empty when none is near. */
std::string find_similar(const Failure &failure) {
    Json status;
    if (failure.router->ask(names::status, nullptr, failure.deadline, &status) != exit_result) {
        return "";
    }
    // A known method is the nearest to itself.
    const std::string similar = nearest(failure.method, known_methods(status.get()));
    return similar == failure.method ? "" : similar;
}

std::string on_unknown_method(const Failure &failure) {
    if (is_refused_by_policy(failure.data)) {
        return ""; // what the answer is told with says all
    }
    const std::string similar = find_similar(failure);
    if (!similar.empty()) {
        return "did you mean " + similar + "?";
    }
    return text_of(failure.data, "service").empty() ? "tavrixctl list shows what can be called"
                                                    : "tavrixctl status shows since when, its log says why";
}

/** A request to nobody on the bus is timed out, too. */
std::string on_timeout(const Failure &failure) {
    const std::string similar = find_similar(failure);
    return similar.empty() ? "is its service stopped, or busy? tavrixctl status shows what is in flight"
                           : "did you mean " + similar + "?";
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
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(failure.params), key, value) { // which changes nothing
        if (advice.empty()) {
            advice = on_unknown_param(key, names);
        }
    }
    return advice;
}

struct Row {
    json_int_t code;
    std::string (*advice)(const Failure &failure);
};

constexpr Row rows[] = {
    {TAVRIX_JRPC_METHOD_NOT_FOUND, on_unknown_method},
    {TAVRIX_JRPC_TIMED_OUT, on_timeout},
    {TAVRIX_JRPC_SYSTEM_BUSY, on_busy},
    {TAVRIX_JRPC_INVALID_PARAMS, on_wrong_params},
};

} // namespace

std::string advice_on(const std::string &method, const json_t *params, const json_t *error, const Deadline &deadline,
                      Router *router) {
    const json_int_t code = json_integer_value(json_object_get(error, "code"));
    const Silence silence; // what cannot be found out is not worth a word
    for (const Row &row : rows) {
        if (row.code == code) {
            return row.advice({method, params, json_object_get(error, "data"), deadline, router});
        }
    }
    return "";
}

} // namespace tavrixctl
