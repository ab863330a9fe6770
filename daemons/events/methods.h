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
};

/** The method table. */
const tavrix_service_method *methods();

/** Publishes a link event. */
void publish_link_changed(tavrix_service *service, const Event &event);

} // namespace events

#endif
