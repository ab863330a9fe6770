/**
 * What the verbs that have both roads, through the router and by bus addresses, share.
 */
#ifndef TAVRIX_TOOLS_VERB_BUS_H
#define TAVRIX_TOOLS_VERB_BUS_H

#include <functional>

#include "support.h"
#include "verbs.h"

namespace tavrixctl {

/** Prints each frame that matches a pattern, or each where there are no patterns; then the summary. */
int monitor_bus(const MonitorOptions &options, const std::vector<std::string> &addresses,
                const std::vector<std::string> &patterns);

/** Takes a notification: 0 when it was not wanted, 1 when it was, -1 when it could not be printed. */
using Taker = std::function<int(const json_t *)>;

int wait_on_bus(const WaitOptions &options, const std::vector<std::string> &addresses, const Deadline &deadline,
                const Taker &take);

} // namespace tavrixctl

#endif
