#include "discovery.h"

#include <algorithm>

#include "router.h"

namespace tavrixctl {

int discover(const Target &target, const Deadline &deadline, Json *document) {
    Router router(target);
    return router.ask(names::discover, nullptr, deadline, document);
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
