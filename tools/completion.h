/**
 * Completion of command lines: the shells' scripts, and the words that these ask the tool itself for.
 */
#ifndef TAVRIX_TOOLS_COMPLETION_H
#define TAVRIX_TOOLS_COMPLETION_H

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tavrixctl {

/** The words that options take, one of each. */
inline const std::vector<std::string> json_words = {"pretty", "short"};
inline const std::vector<std::string> monitor_words = {"pretty", "short", "lines"};
inline const std::vector<std::string> doc_words = {"markdown", "json"};
inline const std::vector<std::string> shells = {"bash", "zsh"};

/** The script for one of the shells, without its last newline. */
std::string completion_script(const std::string &shell);

CLI::App *find_verb(CLI::App *parent, const std::string &name);
std::vector<std::string> verb_names(const CLI::App &parent);

/**
 * Prints what the last of the words can become, a whole word a line; the words are as they were typed, with quotes, and
 * without the tool's name. Asked for by the shell key by key, so that it never knows less than the tool.
 */
int complete(CLI::App &app, const std::vector<std::string> &typed);

} // namespace tavrixctl

#endif
