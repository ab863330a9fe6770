#include "base/options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <getopt.h>

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
    size_t begin = 0;
    while (begin <= value.size()) {
        const size_t comma = std::min(value.find(',', begin), value.size());
        if (comma > begin) {
            list->push_back(value.substr(begin, comma - begin));
        }
        begin = comma + 1;
    }
}

std::string with_commas(const std::vector<std::string> &parts) {
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : ",") + part;
    }
    return text;
}

} // namespace

Options::Options(std::string program, std::string section, std::string summary, std::string example)
    : program_(std::move(program)), section_(std::move(section)), summary_(std::move(summary)),
      example_(std::move(example)) {}

void Options::text(const char *name, const char *value_name, const char *help, std::string *value) {
    options_.push_back({name, value_name, help, value, nullptr, nullptr, 0, 0, false});
}

void Options::list(const char *name, const char *value_name, const char *help, std::vector<std::string> *values) {
    options_.push_back({name, value_name, help, nullptr, values, nullptr, 0, 0, false});
}

void Options::number(const char *name, const char *value_name, const char *help, int lowest, int highest, int *value) {
    options_.push_back({name, value_name, help, nullptr, nullptr, value, lowest, highest, false});
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
        std::string help = option.help;
        if (option.number != nullptr) {
            help += " (default " + std::to_string(*option.number) + ")";
        } else if (option.text != nullptr && !option.text->empty()) {
            help += " (default " + *option.text + ")";
        } else if (option.list != nullptr && !option.list->empty()) {
            help += " (default " + with_commas(*option.list) + ")";
        }
        line("--" + option.name + " " + option.value_name, help);
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

/** `origin` names the option as the user wrote it. */
bool Options::store(Option *option, const std::string &value, const std::string &origin) {
    if (option->text != nullptr) {
        *option->text = value;
        return true;
    }
    if (option->list != nullptr) {
        if (!option->given) {
            option->list->clear();
        }
        add_parts(value, option->list);
        return true;
    }
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || errno != 0 || number < option->lowest || number > option->highest) {
        return complain(origin + " takes a number from " + std::to_string(option->lowest) + " to " +
                        std::to_string(option->highest) + ", not '" + value + "'");
    }
    *option->number = static_cast<int>(number);
    return true;
}

bool Options::read_command_line(int argc, char **argv, bool *finished) {
    const int own = static_cast<int>(options_.size());
    std::vector<::option> known;
    known.reserve(options_.size() + 4);
    for (int i = 0; i < own; ++i) {
        known.push_back({options_[static_cast<size_t>(i)].name.c_str(), required_argument, nullptr, i});
    }
    known.push_back({"config", required_argument, nullptr, own});
    known.push_back({"help", no_argument, nullptr, own + 1});
    known.push_back({"version", no_argument, nullptr, own + 2});
    known.push_back({nullptr, 0, nullptr, 0});
    opterr = 0;
    for (int found = 0; (found = getopt_long(argc, argv, ":hV", known.data(), nullptr)) != -1;) {
        if (found == own) {
            config_ = optarg;
        } else if (found == own + 1 || found == 'h') {
            print_help();
            *finished = true;
            return true;
        } else if (found == own + 2 || found == 'V') {
            std::printf("%s %s\n", program_.c_str(), TAVRIX_VERSION);
            *finished = true;
            return true;
        } else if (found < 0 || found > own) {
            const bool is_letter = found == '?' && optopt > ' '; // getopt has not moved on behind its word yet
            return complain(std::string(found == ':' ? "a value is missing after " : "there is no option ") +
                            (is_letter ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1]));
        } else {
            Option &option = options_[static_cast<size_t>(found)];
            if (!store(&option, optarg, "--" + option.name)) {
                return false;
            }
            option.given = true;
        }
    }
    return optind == argc || complain(std::string("what is '") + argv[optind] + "'?");
}

/** What is wrong with a line of the daemon's own section; empty when it is as it should be. */
std::string Options::find_problem(const std::string &line, std::set<std::string> *keys) const {
    const size_t equals_sign = line.find('=');
    const std::string key = line.substr(0, equals_sign);
    if (line.back() == '\r') {
        return "the line ends with a carriage return";
    }
    if (equals_sign == std::string::npos) {
        return "'" + line + "' is no key=value";
    }
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
        } else if (section.empty()) {
            problem = "'" + line + "' stands before any section";
        } else if (section == "[" + section_) {
            problem = file.eof() ? "the last line does not end with a newline" : find_problem(line, &keys);
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
        if (!option.given && !store(&option, value, config_ + ": " + key)) {
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
