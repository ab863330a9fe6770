/**
 * The command-line client in the tests: run with words, or by its name in a script.
 */
#ifndef TAVRIX_TESTS_SUPPORT_TAVRIXCTL_H
#define TAVRIX_TESTS_SUPPORT_TAVRIXCTL_H

#include <string>
#include <vector>

#include "support/process.h"

namespace support {

Finished ctl(std::vector<std::string> arguments);

/** A script in bash that calls the tool by its name. */
Finished script(const std::string &text);

/** Every verb of the tool, and none at all. */
std::vector<std::string> verbs();

} // namespace support

#endif
