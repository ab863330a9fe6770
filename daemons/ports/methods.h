/**
 * The methods that the ports service offers; the rows in methods.cpp say with which parameters, and what they give.
 *
 * A request whose change meets a lock of another process waits in the loop, a second at most, and then is tried again.
 */
#ifndef TAVRIX_DAEMONS_PORTS_METHODS_H
#define TAVRIX_DAEMONS_PORTS_METHODS_H

#include <list>

#include "database.h"
#include "tavrix_service.h"

namespace ports {

/** A caller of ports.WaitLinkChanged. */
struct Waiter {
    uint64_t call;
    uint64_t timer;
};

/** Does what a method is for; TAVRIX_ERR_DB_BUSY when a lock was in the way, and nothing has happened. */
using Work = int (*)(tavrix_call *call);

/** A call that is tried again when the lock may have gone. */
struct Retry {
    Work work;
    uint64_t call;
    uint64_t timer;
    int left;
};

/** What the handlers work on: the service's user pointer. */
struct Context {
    Database *database = nullptr;
    int wait_timeout_ms = 5000; ///< for ports.WaitLinkChanged; less than the router's --reply-timeout
    std::list<Waiter> waiters;
    std::list<Retry> retries;
};

/** The method table. */
const tavrix_service_method *methods();

/** Begins to listen for link changes, for those who wait for one. */
bool listen_for_link_changes(tavrix_service *service, Context *context);

} // namespace ports

#endif
