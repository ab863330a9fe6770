/**
 * A daemon's options, from the command line and from a configuration file.
 *
 * Every long option `--some-name` can also stand as `some_name=value` in the daemon's section of the file that --config
 * names; the command line wins. A file that would be read otherwise than it looks is refused. --help and --version come
 * by themselves. The command line is read by the library that reads tavrixctl's.
 */
#ifndef TAVRIX_DAEMONS_BASE_OPTIONS_H
#define TAVRIX_DAEMONS_BASE_OPTIONS_H

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace daemon_support {

/**
 * What the library's parser would pass over without a word in a line that is neither empty nor a remark; empty when
 * there is nothing of the kind. `is_cut`: the file ends within it.
 */
std::string find_format_problem(const std::string &line, bool has_section, bool is_cut);

class Options {
  public:
    /** `section` is the daemon's section in the configuration file. */
    Options(std::string program, std::string section, std::string summary, std::string example);

    void text(const char *name, const char *value_name, const char *help, std::string *value);
    /** May be given several times, or once with commas; what is given replaces what the list held before. */
    void list(const char *name, const char *value_name, const char *help, std::vector<std::string> *values);
    void number(const char *name, const char *value_name, const char *help, int lowest, int highest, int *value);

    /** A sentence for the end of the help. */
    void note(std::string text) { notes_.push_back(std::move(text)); }

    /** True when the daemon goes on; otherwise `*exit_status` is what the process ends with. */
    bool parse(int argc, char **argv, int *exit_status);

  private:
    struct Option {
        std::string name;
        std::string value_name;
        std::string help;
        std::function<std::string()> usual; ///< its value as a text
        /** Takes a value; `origin` names the option as the user wrote it, in the complaint about a bad one. */
        std::function<bool(const std::string &value, const std::string &origin)> store;
        bool given = false;
    };

    void print_help() const;
    bool read_command_line(int argc, char **argv, bool *finished);
    std::string find_problem(const std::string &line, std::set<std::string> *keys) const;
    bool check_file() const;
    bool read_file();
    bool complain(const std::string &what) const;

    std::string program_;
    std::string section_;
    std::string summary_;
    std::string example_;
    std::string config_;
    std::vector<std::string> notes_;
    std::vector<Option> options_;
};

} // namespace daemon_support

#endif
