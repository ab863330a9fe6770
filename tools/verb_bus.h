/**
 * What the verbs that have both roads, through the router and by bus addresses, share.
 */
#ifndef TAVRIX_TOOLS_VERB_BUS_H
#define TAVRIX_TOOLS_VERB_BUS_H

#include <functional>
#include <string>
#include <vector>

#include "session.h"
#include "support.h"
#include "traffic.h"
#include "verbs.h"

namespace tavrixctl {

/** Whether this is the router's word of lost notifications, which is then complained about. */
bool tell_loss(const json_t *notification);

/** router.Subscribe or router.Monitor. Complains and returns the exit status when it is refused. */
int open_stream(Session *session, const char *method, const std::vector<std::string> &patterns,
                const Deadline &deadline);

/** Whether the options' filters want it: errors only, slower than. */
bool is_wanted(const Exchange &exchange, const MonitorOptions &options);

/** Prints every frame that the addresses publish and that one of the patterns, if any, fits, and figures at the end. */
int monitor_bus(const MonitorOptions &options, const std::vector<std::string> &addresses,
                const std::vector<std::string> &patterns);

/** Takes a notification: 0 when it was not wanted, 1 when it was, -1 when it could not be printed. */
using Taker = std::function<int(const json_t *)>;

int wait_on_bus(const WaitOptions &options, const std::vector<std::string> &addresses, const Deadline &deadline,
                const Taker &take);

} // namespace tavrixctl

#endif
