/*
 * Discovery: what services say of their methods, taken from each and given to whoever asks as one OpenRPC document.
 *
 * A service's word is taken for its own methods only, and goes when the service goes.
 */
#include <algorithm>
#include <set>
#include <string>

#include "router.h"
#include "tavrix_jrpc.h"

namespace router {

namespace {

/** What the router answers of itself, whatever the method. */
constexpr int codes_of_own_methods[] = {TAVRIX_JRPC_METHOD_NOT_FOUND, TAVRIX_JRPC_INVALID_PARAMS};

Json error_json(int code) {
    return Json(json_pack("{s:i, s:s}", "code", code, "message", tavrix_jrpc_error_message(code)));
}

/** By code, as a text; a number without a row of its own has the words of the unknown error. */
Json catalogue() {
    Json errors(json_object());
    const std::string unknown = tavrix_jrpc_error_message(0);
    for (int code = TAVRIX_JRPC_UNKNOWN_ERROR; code >= TAVRIX_JRPC_PARSE_ERROR; --code) {
        if (code == TAVRIX_JRPC_UNKNOWN_ERROR || tavrix_jrpc_error_message(code) != unknown) {
            put(errors.get(), std::to_string(code).c_str(), error_json(code));
        }
    }
    return errors;
}

/** What is wrong with a service's description of one method; empty when nothing is. */
std::string find_flaw(const json_t *method, const Service &service) {
    const std::string name = text_member(method, "name");
    const auto &offered = service.methods;
    if (std::find(offered.begin(), offered.end(), name) == offered.end() &&
        (offered.empty() || name != discovery_of(service))) {
        return "document: it describes '" + printable(name) + "', which the service does not offer";
    }
    if (!json_is_array(json_object_get(method, "params")) || !json_is_object(json_object_get(method, "result"))) {
        return "document: " + printable(name) + " needs params, an array, and a result, an object";
    }
    return "";
}

std::string find_flaw_of(const json_t *document, const Service &service) {
    const json_t *methods = json_object_get(document, "methods");
    if (!json_is_array(methods)) {
        return "document: an object with methods, an array";
    }
    const size_t length = json_dumpb(document, nullptr, 0, JSON_COMPACT | JSON_ENSURE_ASCII);
    if (length == 0) {
        throw std::bad_alloc();
    }
    if (length > max_document) {
        return "document: at most " + std::to_string(max_document) + " bytes";
    }
    for (size_t i = 0; i < json_array_size(methods); ++i) {
        std::string flaw = find_flaw(json_array_get(methods, i), service);
        if (!flaw.empty()) {
            return flaw;
        }
    }
    return "";
}

} // namespace

int Router::on_describe(Own &own) {
    auto &session = static_cast<Session &>(own.client);
    json_t *document = json_object_get(own.params, "document");
    if (session.service == nullptr) {
        own.problem = "this session is not a service";
        return TAVRIX_JRPC_INVALID_REQUEST;
    }
    own.problem = find_flaw_of(document, *session.service);
    if (!own.problem.empty()) {
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    session.service->document = share(document);
    discovered_.clear();
    return 0;
}

/** Made once for all who ask, until a service comes, goes or says more of itself: it is a thousand times a call's work.
 */
int Router::on_discover(Own &own) {
    if (discovered_.empty()) {
        discovered_ = render(discover().get());
    }
    own.result_text = discovered_;
    return discovered_.empty() ? TAVRIX_JRPC_INTERNAL_ERROR : 0;
}

Json Router::discover() const {
    Json methods(json_array());
    std::set<std::string> names;
    const auto add = [&](json_t *method) {
        if (names.insert(text_member(method, "name")).second) { // two services of one prefix have one discovery
            append(methods.get(), share(method));
        }
    };
    for (const auto *method = own_methods; method->name != nullptr; ++method) {
        Json errors(json_array());
        for (const int code : codes_of_own_methods) {
            append(errors.get(), error_json(code));
        }
        const Json described(json_pack("{s:s, s:s, s:[{s:s}], s:s, s:o, s:{s:s, s:o}, s:o, s:[]}", "name", method->name,
                                       "summary", method->summary, "tags", "name", method->tag, "paramStructure",
                                       "by-name", "params", json_loads(method->params, 0, nullptr), "result", "name",
                                       "result", "schema", json_loads(method->result, 0, nullptr), "errors",
                                       errors.release(), "examples"));
        add(described.get());
    }
    for (const auto &[name, service] : registry_.registered()) {
        const json_t *described = json_object_get(service->document.get(), "methods");
        for (size_t i = 0; service->state == Service::State::up && i < json_array_size(described); ++i) {
            add(json_array_get(described, i));
        }
    }
    Json errors = catalogue();
    return Json(json_pack("{s:s, s:{s:s, s:s}, s:o, s:{s:o}}", "openrpc", tavrix::openrpc_version, "info", "title",
                          "tavrix", "version", TAVRIX_VERSION, "methods", methods.release(), "components", "errors",
                          errors.release()));
}

} // namespace router
