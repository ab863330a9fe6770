/**
 * The methods that the events service offers, over the router, on its own socket and on its pull socket alike; the rows
 * in methods.cpp say with which parameters, and what they give. It publishes the notification events.LinkChanged, with
 * the event as its params.
 */
#ifndef TAVRIX_DAEMONS_EVENTS_METHODS_H
#define TAVRIX_DAEMONS_EVENTS_METHODS_H

#include "events.h"
#include "tavrix_service.h"

namespace events {

/** What the handlers work on: the service's user pointer. */
struct Context {
    Log log;
    int wait_timeout_ms = 5000; ///< for the ports service, in events.Describe
    std::vector<LinkChange> script;
    size_t next_change = 0;                  ///< of the script
    std::string slot = "/tavrix_last_event"; ///< of shared memory, for the last event's number
    bool has_failed = false;                 ///< the service has stopped itself
};

/** The method table. */
const tavrix_service_method *methods();

/**
 * Shares the last event's number: for the options' `ready`. Not earlier, since until a service has registered, another
 * one of its name may be running, whose slot that is. A service that cannot share it stops.
 */
void share_number(tavrix_service *service, void *user);

/** Begins to make an event of each of the script's link changes in turn, and to publish it; false without a timer. */
bool play_script(tavrix_service *service, Context *context, int interval_ms);

} // namespace events

#endif
