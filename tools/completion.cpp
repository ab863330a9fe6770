#include "completion.h"

#include <algorithm>
#include <cstring>
#include <map>

#include <CLI/CLI.hpp>

#include "completion_scripts.h"
#include "offers.h"
#include "support.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr size_t most_offers = 1000;

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
    if (position.positionals.empty()) {
        return offered_methods(position.target());
    }
    return offered_params(position.target(), position.positionals[0],
                          {position.positionals.begin() + 1, position.positionals.end()}, word);
}

std::vector<std::string> log_level_positionals(const Position &position) {
    if (position.positionals.size() == 1) {
        return log_level_words();
    }
    const std::string file = position.value_of("--file");
    return position.positionals.empty()
               ? offered_daemons(position.target(), file.empty() ? TAVRIX_LSYSLOG_CONF_PATH : file)
               : std::vector<std::string>();
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
    if (verb == "log-level") {
        return log_level_positionals(position);
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
