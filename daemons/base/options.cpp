#include "base/options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tavrix_conf_parser.h"
#include "tavrix_error.h"

namespace daemon_support {

namespace {

constexpr int usage_error = 2;
constexpr int max_value_length = 1023;

std::string key_of(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

void add_parts(const std::string &value, std::vector<std::string> *list) {
    std::istringstream parts(value);
    for (std::string part; std::getline(parts, part, ',');) {
        if (!part.empty()) {
            list->push_back(part);
        }
    }
}

std::string with_commas(const std::vector<std::string> &parts) {
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : ",") + part;
    }
    return text;
}

/** Without the program, last word first, as the parser takes them. It would take the word behind "--name=" for the
 * value. */
std::vector<std::string> words_of(int argc, char **argv) {
    std::vector<std::string> words;
    for (int i = argc - 1; i > 0; --i) {
        const std::string word = argv[i];
        const bool has_empty_value = word.rfind("--", 0) == 0 && word.find('=') == word.size() - 1;
        if (has_empty_value) {
            words.emplace_back("");
        }
        words.push_back(has_empty_value ? word.substr(0, word.size() - 1) : word);
    }
    return words;
}

} // namespace

Options::Options(std::string program, std::string section, std::string summary, std::string example)
    : program_(std::move(program)), section_(std::move(section)), summary_(std::move(summary)),
      example_(std::move(example)) {}

void Options::text(const char *name, const char *value_name, const char *help, std::string *value) {
    const auto store = [value](const std::string &given, const std::string & /*origin*/) {
        *value = given;
        return true;
    };
    options_.push_back({name, value_name, help, [value] { return *value; }, store});
}

void Options::list(const char *name, const char *value_name, const char *help, std::vector<std::string> *values) {
    const auto store = [values, is_first = true](const std::string &given, const std::string & /*origin*/) mutable {
        if (std::exchange(is_first, false)) {
            values->clear();
        }
        add_parts(given, values);
        return true;
    };
    options_.push_back({name, value_name, help, [values] { return with_commas(*values); }, store});
}

void Options::number(const char *name, const char *value_name, const char *help, int lowest, int highest, int *value) {
    const auto store = [=](const std::string &given, const std::string &origin) {
        char *end = nullptr;
        errno = 0;
        const long number = std::strtol(given.c_str(), &end, 10);
        if (given.empty() || *end != '\0' || errno != 0 || number < lowest || number > highest) {
            return complain(origin + " takes a number from " + std::to_string(lowest) + " to " +
                            std::to_string(highest) + ", not '" + given + "'");
        }
        *value = static_cast<int>(number);
        return true;
    };
    options_.push_back({name, value_name, help, [value] { return std::to_string(*value); }, store});
}

bool Options::complain(const std::string &what) const {
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", program_.c_str(), what.c_str(), program_.c_str());
    return false;
}

void Options::print_help() const {
    std::printf("usage: %s [OPTION]...\n%s\n\n", program_.c_str(), summary_.c_str());
    const auto line = [](const std::string &left, const std::string &right) {
        std::printf("  %-28s %s\n", left.c_str(), right.c_str());
    };
    for (const Option &option : options_) {
        const std::string usual = option.usual();
        line("--" + option.name + " " + option.value_name,
             option.help + (usual.empty() ? "" : " (default " + usual + ")"));
    }
    line("--config FILE", "read the same options from section [" + section_ + "], as option_name=value");
    line("-h, --help", "show this");
    line("-V, --version", "show the version");
    std::printf("\nexample:\n  %s\n\n", example_.c_str());
    for (const std::string &note : notes_) {
        std::printf("%s\n", note.c_str());
    }
    std::printf("SIGTERM and SIGINT end the daemon, SIGHUP makes it reread its logger's configuration.\n"
                "exit status: 0 ended by a signal, 1 cannot start or go on, 2 wrong usage or configuration file\n");
}

bool Options::read_command_line(int argc, char **argv, bool *finished) {
    CLI::App app;
    app.set_help_flag(); // the help is the one below, which the man pages are made of
    app.allow_extras();
    const CLI::Option *help = app.add_flag("-h,--help");
    const CLI::Option *version = app.add_flag("-V,--version");
    app.add_option("--config", config_)->take_last();
    for (Option &option : options_) {
        const auto take = [&option](const CLI::results_t &values) {
            return std::all_of(values.begin(), values.end(), [&option](const std::string &value) {
                const bool stored = option.store(value, "--" + option.name);
                option.given = true;
                return stored;
            });
        };
        app.add_option("--" + option.name, take)->take_all()->allow_extra_args(false);
    }
    try {
        app.parse(words_of(argc, argv));
    } catch (const CLI::ConversionError &) {
        return false; // it has been told which value it is
    } catch (const CLI::ArgumentMismatch &) {
        return complain(std::string("a value is missing after ") + argv[argc - 1]);
    } catch (const CLI::ParseError &error) {
        return complain(error.what());
    }
    *finished = true;
    if (help->count() > 0) {
        print_help();
        return true;
    }
    if (version->count() > 0) {
        std::printf("%s %s\n", program_.c_str(), TAVRIX_VERSION);
        return true;
    }
    *finished = false;
    const std::vector<std::string> others = app.remaining();
    return others.empty() ||
           complain(others[0][0] == '-' ? "there is no option " + others[0] : "unexpected word '" + others[0] + "'");
}

std::string find_format_problem(const std::string &line, bool has_section, bool is_cut) {
    if (line.back() == '\r') {
        return "the line ends with a carriage return";
    }
    if (is_cut) {
        return "the last line does not end with a newline";
    }
    if (line[0] == '[') {
        return "";
    }
    if (!has_section) {
        return "'" + line + "' stands before any section";
    }
    return line.find('=') == std::string::npos ? "'" + line + "' is not key=value" : "";
}

/** What is wrong with a line of the daemon's own section; empty when it is as it should be. */
std::string Options::find_problem(const std::string &line, std::set<std::string> *keys) const {
    const std::string key = line.substr(0, line.find('='));
    if (std::none_of(options_.begin(), options_.end(),
                     [&key](const Option &option) { return key_of(option.name) == key; })) {
        return "there is no option '" + key + "'";
    }
    return keys->insert(key).second ? "" : "a second '" + key + "'";
}

/** Refuses what the parser would pass over without a word. Other daemons' sections are their own affair. */
bool Options::check_file() const {
    std::ifstream file(config_, std::ios::binary);
    if (!file.is_open()) {
        return complain(config_ + ": cannot be opened");
    }
    std::set<std::string> keys;
    std::string line;
    std::string section;
    bool found = false;
    for (int number = 1; std::getline(file, line); ++number) {
        std::string problem;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[') {
            section = line.substr(0, line.find(']'));
            if (section == "[" + section_) {
                problem = found ? "a second section " + section + "]" : "";
                found = true;
            }
        } else if (section.empty() || section == "[" + section_) {
            problem = find_format_problem(line, !section.empty(), file.eof());
            problem = problem.empty() ? find_problem(line, &keys) : problem;
        }
        if (!problem.empty()) {
            return complain(config_ + ":" + std::to_string(number) + ": " + problem);
        }
    }
    return found || complain(config_ + ": there is no section [" + section_ + "]");
}

bool Options::read_file() {
    if (!check_file()) {
        return false;
    }
    for (Option &option : options_) {
        char value[max_value_length + 1] = "";
        const std::string key = key_of(option.name);
        const int rc =
            tavrix_conf_parser_parse(config_.c_str(), section_.c_str(), key.c_str(), value, max_value_length);
        if (rc == TAVRIX_ERR_PARAMETER_NOT_FOUND) {
            continue;
        }
        if (rc != TAVRIX_OK) {
            return complain(config_ + ": " + key + ": " + tavrix_error_decode(rc));
        }
        if (!option.given && !option.store(value, config_ + ": " + key)) {
            return false;
        }
    }
    return true;
}

bool Options::parse(int argc, char **argv, int *exit_status) {
    bool finished = false;
    const bool valid = read_command_line(argc, argv, &finished) && (finished || config_.empty() || read_file());
    *exit_status = valid ? 0 : usage_error;
    return valid && !finished;
}

} // namespace daemon_support
