#include "support/tavrixctl.h"

namespace support {

Finished ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVRIXCTL);
    return run(arguments);
}

Finished script(const std::string &text) { return run_script("tavrixctl", TAVRIXCTL, text); }

std::vector<std::string> verbs() { return lines_of("\n" + ctl({"__complete", ""}).output); }

} // namespace support
