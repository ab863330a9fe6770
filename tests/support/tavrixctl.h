/**
 * The command-line client in the tests: run with words, or by its name in a script.
 */
#ifndef TAVRIX_TESTS_SUPPORT_TAVRIXCTL_H
#define TAVRIX_TESTS_SUPPORT_TAVRIXCTL_H

#include <string>
#include <vector>

#include "support/process.h"

namespace support {

inline Finished ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVRIXCTL);
    return run(arguments);
}

/** A script in bash that calls the tool by its name. */
inline Finished script(const std::string &text) { return run_script("tavrixctl", TAVRIXCTL, text); }

inline std::string first_line(const std::string &text) { return text.substr(0, text.find('\n')); }

} // namespace support

#endif
