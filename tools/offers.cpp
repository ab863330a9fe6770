#include "offers.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "discovery.h"
#include "params.h"
#include "router.h"
#include "support.h"

namespace tavrixctl {

namespace {

constexpr double patience_s = 0.3; // somebody has pressed a key and waits
constexpr size_t longest_word = 256;

/** A name's host may take its time to be looked up, and a daemon's own socket answers no such question. */
bool leads_to_unix_socket(const Target &target) { return target.tcp.empty() && target.direct.empty(); }

/** The result of one of the router's methods; null when there is none in time. */
Json ask_router(const Target &target, const char *method) {
    const Silence silence;
    Json result;
    if (leads_to_unix_socket(target)) {
        Router(target).ask(method, nullptr, Deadline(patience_s), &result);
    }
    return result;
}

/** Whether it can stand at a word's beginning: neither an option nor a file or an object with parameters. */
bool is_name(const std::string &name) {
    return !name.empty() && (std::isalnum(static_cast<unsigned char>(name[0])) != 0 || name[0] == '_');
}

/** Whether `name=` and `name:=` mean this parameter and no other. */
bool is_param_name(const std::string &name) {
    return is_name(name) && name.find('=') == std::string::npos && name.back() != ':';
}

std::vector<std::string> names_in(const json_t *object, const char *key) {
    std::vector<std::string> names;
    for (const json_t *element : elements_of(object, key)) {
        const std::string name = text_of(element, "name");
        if (is_name(name)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

/** The parameters that the words give. What stands in a file or in standard input is not known yet. */
std::set<std::string> keys_of(const std::vector<std::string> &words) {
    const Silence silence;
    std::set<std::string> keys;
    for (const std::string &word : words) {
        bool valid = true;
        const std::optional<Member> member = parse_member(word, &valid);
        if (member) {
            keys.insert(member->key);
            continue;
        }
        const Json object(json_loadb(word.data(), word.size(), 0, nullptr));
        const char *key = nullptr;
        json_t *value = nullptr;
        json_object_foreach(object.get(), key, value) { keys.insert(key); }
    }
    return keys;
}

bool is_text(const json_t *value) { return json_is_string(value); }

std::vector<std::string> param_names(const json_t *method, const std::set<std::string> &given) {
    std::vector<std::string> required;
    std::vector<std::string> optional;
    for (const json_t *param : elements_of(method, "params")) {
        const std::string name = text_of(param, "name");
        if (is_param_name(name) && given.count(name) == 0) {
            (json_is_true(json_object_get(param, "required")) ? required : optional)
                .push_back(name + (takes_text(json_object_get(param, "schema")) ? "=" : ":="));
        }
    }
    required.insert(required.end(), optional.begin(), optional.end());
    return required;
}

/** The values that can be counted, as they are written after `=` when they are texts, after `:=` otherwise. */
std::vector<std::string> values_of(const json_t *schema, bool are_texts) {
    if (json_object_get(schema, "enum") == nullptr && text_of(schema, "type") == "boolean") {
        return are_texts ? std::vector<std::string>() : std::vector<std::string>{"true", "false"};
    }
    std::vector<std::string> values;
    for (const json_t *value : elements_of(schema, "enum")) {
        if (is_text(value) == are_texts) {
            values.push_back(are_texts ? std::string(json_string_value(value), json_string_length(value))
                                       : render(value, JsonStyle::single_line));
        }
    }
    return values;
}

std::vector<std::string> param_values(const json_t *method, const std::string &word) {
    const size_t equals_sign = word.find('=');
    const bool is_json = equals_sign > 0 && word[equals_sign - 1] == ':';
    const std::string key = word.substr(0, equals_sign - (is_json ? 1 : 0));
    std::vector<std::string> words;
    for (const json_t *param : elements_of(method, "params")) {
        if (text_of(param, "name") != key) {
            continue;
        }
        for (const std::string &value : values_of(json_object_get(param, "schema"), !is_json)) {
            if (!value.empty()) { // that is what was typed already
                words.push_back(word.substr(0, equals_sign + 1) + value);
            }
        }
    }
    return words;
}

} // namespace

bool is_offerable(const std::string &word) {
    return !word.empty() && word.size() <= longest_word &&
           std::all_of(word.begin(), word.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::vector<std::string> offered_methods(const Target &target) {
    return names_in(ask_router(target, names::discover).get(), "methods");
}

std::vector<std::string> offered_services(const Target &target) {
    return names_in(ask_router(target, names::status).get(), "services");
}

std::vector<std::string> offered_daemons(const Target &target, const std::string &file) {
    LogLevelOptions options;
    options.file = file;
    options.target = target;
    options.timeout_s = patience_s;
    options.edit_only = !leads_to_unix_socket(target);
    std::vector<std::string> names = daemon_names(options);
    names.erase(std::remove_if(names.begin(), names.end(), [](const std::string &name) { return !is_name(name); }),
                names.end());
    return names;
}

std::vector<std::string> offered_params(const Target &target, const std::string &method,
                                        const std::vector<std::string> &given, const std::string &word) {
    const Json document = ask_router(target, names::discover);
    const json_t *found = find_method(methods_of(document.get()), method);
    return word.find('=') == std::string::npos ? param_names(found, keys_of(given)) : param_values(found, word);
}

} // namespace tavrixctl
