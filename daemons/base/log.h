/**
 * The daemons' log.
 */
#ifndef TAVRIX_DAEMONS_BASE_LOG_H
#define TAVRIX_DAEMONS_BASE_LOG_H

#include "common/log.h"

namespace daemon_support {

/**
 * A pipe or socket whose reader has stopped costs the log's lines from now on, and not the daemon's service: a pager
 * that nobody scrolls must not hold up all clients.
 */
void never_wait_for_log();

} // namespace daemon_support

#endif
