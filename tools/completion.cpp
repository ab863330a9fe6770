#include "completion.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include <CLI/CLI.hpp>

#include "completion_scripts.h"
#include "params.h"
#include "router.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr size_t most_offers = 1000;
constexpr double patience_s = 0.3; // somebody has pressed a key and waits
constexpr size_t longest_word = 256;

/** A name's host may take its time to be looked up, and a daemon's own socket answers no such question. */
bool leads_to_unix_socket(const Target &target) { return target.tcp.empty() && target.direct.empty(); }

/**
 * The result of one of the router's methods; null when there is none in time. A router that is not there, or does not
 * answer at once, offers nothing, and nobody hears of it: the shell has to go on.
 */
Json ask_router(const Target &target, const char *method) {
    const Silence silence;
    Json result;
    if (leads_to_unix_socket(target)) {
        RouterCalls(target).ask(method, nullptr, Deadline(patience_s), &result);
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
        for (const auto &[key, value] : members_of(object.get())) {
            keys.insert(key);
        }
    }
    return keys;
}

/** Required ones first, as `name=` or `name:=`. */
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
        if (json_is_string(value) == are_texts) {
            values.push_back(are_texts ? std::string(json_string_value(value), json_string_length(value))
                                       : render(value, JsonStyle::single_line));
        }
    }
    return values;
}

/** `name=` with each of the values that the parameter can have, if they can be counted. */
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

/** Whether a word may stand on a command line: printable ASCII, and not too long. */
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

/** The word without the shell's quotes; the last one may still be open. */
std::string unquoted(const std::string &typed) {
    std::string word;
    char quote = '\0';
    for (size_t i = 0; i < typed.size(); ++i) {
        const char c = typed[i];
        const bool is_escape = c == '\\' && i + 1 < typed.size() &&
                               (quote == '\0' || (quote == '"' && std::strchr("$`\"\\", typed[i + 1]) != nullptr));
        if (is_escape) {
            word += typed[++i];
        } else if (quote == '\0' && (c == '\'' || c == '"')) {
            quote = c;
        } else if (c == quote && quote != '\0') {
            quote = '\0';
        } else {
            word += c;
        }
    }
    return word;
}

/** What stands before the word that is being typed. */
struct Position {
    CLI::App *verb = nullptr;
    std::vector<std::string> positionals = {};
    std::map<std::string, std::string> options = {}; ///< with the values that they have
    std::string option = {};                         ///< the option whose value comes next, if any

    std::string value_of(const std::string &name) const {
        const auto found = options.find(name);
        return found == options.end() ? "" : found->second;
    }
    Target target() const {
        return {value_of("--session"), value_of("--socket"), value_of("--tcp"), value_of("--direct")};
    }
};

Position position_after(CLI::App &app, const std::vector<std::string> &words) {
    Position position{&app};
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string &word = words[i];
        const size_t equals_sign = word.find('=');
        CLI::App *next = find_verb(position.verb, word);
        if (!position.option.empty()) {
            position.options[position.option] = word;
            position.option.clear();
        } else if (next != nullptr) {
            position.verb = next;
        } else if (word.rfind("--", 0) == 0 && equals_sign != std::string::npos) {
            position.options[word.substr(0, equals_sign)] = word.substr(equals_sign + 1);
        } else if (word.rfind("--", 0) == 0) {
            const CLI::Option *option = position.verb->get_option_no_throw(word);
            position.option = option != nullptr && option->get_items_expected_max() > 0 ? word : "";
        } else {
            position.positionals.push_back(word);
        }
    }
    return position;
}

std::vector<std::string> without(std::vector<std::string> words, const std::vector<std::string> &others) {
    words.erase(std::remove_if(words.begin(), words.end(),
                               [&others](const std::string &word) {
                                   return std::find(others.begin(), others.end(), word) != others.end();
                               }),
                words.end());
    return words;
}

std::vector<std::string> call_words(const Position &position, const std::string &word) {
    const std::vector<std::string> &given = position.positionals;
    if (given.empty()) {
        return offered_methods(position.target());
    }
    const Json document = ask_router(position.target(), names::discover);
    const json_t *method = find_method(methods_of(document.get()), given[0]);
    return word.find('=') == std::string::npos ? param_names(method, keys_of({given.begin() + 1, given.end()}))
                                               : param_values(method, word);
}

/** The daemons that the router or the logger's configuration file knows. */
std::vector<std::string> offered_daemons(const Position &position) {
    const std::string file = position.value_of("--file");
    LogLevelOptions options;
    options.file = file.empty() ? TAVRIX_LSYSLOG_CONF_PATH : file;
    options.target = position.target();
    options.timeout_s = patience_s;
    options.edit_only = !leads_to_unix_socket(options.target);
    std::vector<std::string> names = daemon_names(options);
    names.erase(std::remove_if(names.begin(), names.end(), [](const std::string &name) { return !is_name(name); }),
                names.end());
    return names;
}

std::vector<std::string> positional_words(const Position &position, const std::string &word) {
    const std::string verb = position.verb->get_name();
    const bool is_first = position.positionals.empty();
    if (verb == "help") {
        return verb_names(*position.verb->get_parent());
    }
    if (verb == "validate" && is_first) {
        return validated_fields();
    }
    if (verb == "log-level" && is_first) {
        return offered_daemons(position);
    }
    if (verb == "log-level" && position.positionals.size() == 1) {
        return log_level_words();
    }
    if (verb == "call") {
        return call_words(position, word);
    }
    if ((verb == "describe" || verb == "list") && is_first) {
        return offered_methods(position.target());
    }
    if (verb == "wait-service") {
        return without(offered_services(position.target()), position.positionals);
    }
    return verb == "completion" && is_first ? shells : std::vector<std::string>();
}

std::vector<std::string> option_words(const Position &position, const std::string &option) {
    const std::string verb = position.verb->get_name();
    if (option == "--json") {
        return verb == "monitor" ? monitor_words : json_words;
    }
    if (option == "--format") {
        return doc_words;
    }
    if (option == "--channel" && verb == "monitor") {
        return channel_names();
    }
    return option == "--service" ? offered_services(position.target()) : std::vector<std::string>();
}

std::vector<std::string> candidates_at(const Position &position, const std::string &word) {
    if (!position.option.empty()) {
        return option_words(position, position.option);
    }
    const bool is_option = word.rfind('-', 0) == 0;
    const size_t equals_sign = word.find('=');
    std::vector<std::string> candidates;
    if (is_option && equals_sign != std::string::npos) {
        for (const std::string &value : option_words(position, word.substr(0, equals_sign))) {
            candidates.push_back(word.substr(0, equals_sign + 1) + value);
        }
        return candidates;
    }
    if (!is_option) {
        candidates = positional_words(position, word);
        const std::vector<std::string> verbs = verb_names(*position.verb);
        candidates.insert(candidates.end(), verbs.begin(), verbs.end());
    }
    if (candidates.empty()) { // what belongs here is not to be buried in what could stand anywhere
        for (const CLI::Option *option : position.verb->get_options()) {
            for (const std::string &name : option->get_lnames()) {
                candidates.push_back("--" + name);
            }
        }
    }
    return candidates;
}

} // namespace

std::string completion_script(const std::string &shell) {
    std::string script = shell == "zsh" ? zsh_script : bash_script;
    script.erase(script.find_last_not_of('\n') + 1);
    return script;
}

CLI::App *find_verb(CLI::App *parent, const std::string &name) {
    const auto found = parent->get_subcommands([&](CLI::App *verb) { return verb->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

std::vector<std::string> verb_names(const CLI::App &parent) {
    std::vector<std::string> names;
    for (const CLI::App *verb : parent.get_subcommands([](const CLI::App *) { return true; })) {
        names.push_back(verb->get_name());
    }
    return names;
}

int complete(CLI::App &app, const std::vector<std::string> &typed) {
    std::vector<std::string> words;
    std::transform(typed.begin(), typed.end(), std::back_inserter(words), unquoted);
    if (words.empty()) {
        words.emplace_back();
    }
    const std::string &word = words.back();
    size_t offers = 0;
    for (const std::string &candidate : candidates_at(position_after(app, words), word)) {
        if (candidate.rfind(word, 0) == 0 && is_offerable(candidate) && offers < most_offers) {
            print_line(candidate);
            ++offers;
        }
    }
    return exit_result;
}

} // namespace tavrixctl
