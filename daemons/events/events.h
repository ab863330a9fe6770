/**
 * The events that the service has seen, and the script they come from.
 */
#ifndef TAVRIX_DAEMONS_EVENTS_EVENTS_H
#define TAVRIX_DAEMONS_EVENTS_EVENTS_H

#include <deque>
#include <string>
#include <vector>

#include <jansson.h>

namespace events {

struct Event {
    int number = 0;
    std::string kind;   ///< "link" or "report"
    std::string entity; ///< the port of a link event
    std::string text;   ///< "up" or "down", or what was reported
};

/** A new reference to the event as an object. */
json_t *to_json(const Event &event);

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

} // namespace events

#endif
