/**
 * The events that the service has seen, the script they come from, and the methods that it offers, over the router, on
 * its own socket and on its pull socket alike; the rows in methods.cpp say with which parameters, and what they give.
 * It publishes the notification events.LinkChanged, with the event as its params.
 */
#ifndef TAVRIX_DAEMONS_EVENTS_METHODS_H
#define TAVRIX_DAEMONS_EVENTS_METHODS_H

#include <deque>
#include <string>
#include <vector>

#include "tavrix_service.h"

namespace events {

struct Event {
    int number = 0;
    std::string kind;   ///< "link" or "report"
    std::string entity; ///< the port of a link event
    std::string text;   ///< "up" or "down", or what was reported
};

/**
 * Keeps the latest events; the last number is shared with other processes through a slot of shared memory. Numbers
 * begin at 1 in each run, as what is kept does.
 */
class Log {
  public:
    /**
     * From now on the last number is in the slot, which is created, or taken over from a service that has ended; once
     * is enough. False, after the library has logged why, when that fails.
     */
    bool share(const std::string &slot);

    const Event &add(const std::string &kind, const std::string &entity, const std::string &text);
    /** Null when the event is not kept, or never was. */
    const Event *find(int number) const;
    const Event *last() const { return kept_.empty() ? nullptr : &kept_.back(); }
    /** The latest link event of a port, however its letter is written; null when none is kept. */
    const Event *last_of(const std::string &port_id) const;

  private:
    std::string slot_;
    std::deque<Event> kept_;
    int last_number_ = 0;
};

struct LinkChange {
    std::string port_id;
    std::string state;
};

/** Link changes from a file with lines like "c1-1 up"; blank lines and lines that begin with # are passed over. */
bool read_script(const std::string &path, std::vector<LinkChange> *out);

/** What the handlers work on: the service's user pointer. */
struct Context {
    Log log;
    int wait_timeout_ms = 5000; ///< for the ports service, in events.Describe
    std::vector<LinkChange> script;
    size_t next_change = 0;                  ///< of the script
    std::string slot = "/tavrix_last_event"; ///< of shared memory, for the last event's number
    bool has_failed = false;                 ///< the service has stopped itself
};

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
