/**
 * The methods that the events service offers, over the bus, on its own socket and on its pull socket alike.
 *
 * | method          | parameters      | result                                                       |
 * |-----------------|-----------------|--------------------------------------------------------------|
 * | events.Get      | number          | the event                                                    |
 * | events.Last     | none            | the latest event                                             |
 * | events.Report   | text, 127 bytes | the event that was made of it                                |
 * | events.Describe | port_id         | the port, asked of the ports service, and its latest event   |
 *
 * A port without an event that is kept has null for it.
 *
 * And it publishes, on the channel of that name, the notification events.LinkChanged with the event as its params.
 */
#ifndef TAVRIX_DAEMONS_EVENTS_METHODS_H
#define TAVRIX_DAEMONS_EVENTS_METHODS_H

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "common/service.h"
#include "events.h"
#include "tavrix.h"

namespace events {

constexpr char link_changed[] = "events.LinkChanged";

/** Calls the ports service over the bus and waits for its reply: no other request is served meanwhile. */
class PortsClient {
  public:
    /**
     * Listens for replies on the ports service's address; `publisher` is this service's own. What `meanwhile` holds
     * goes on while a call waits.
     */
    bool open(const std::string &ports_address, const int *publisher, int timeout_ms,
              std::vector<daemon_support::Watch> meanwhile);
    /** ports.Get for one port: its "ports" list as a new reference, or the status and data that the reply carries. */
    int get(const std::string &port_id, json_t **ports_out, json_t **error_data);

  private:
    using Clock = std::chrono::steady_clock;

    int publish_request(const char *method, json_t *params) const;
    bool await_reply(const char *method, Clock::time_point end, daemon_support::Json *reply) const;
    int settle(Clock::time_point end) const;

    const int *publisher_ = nullptr;
    int timeout_ms_ = 0;
    json_int_t transaction_id_ = 0; ///< of the latest call
    std::vector<daemon_support::Watch> meanwhile_;
    daemon_support::BusSocket replies_;
};

/** What the handlers work on: handlers are plain functions, so there is one for the process. */
struct Service {
    Log *log = nullptr;
    PortsClient *ports = nullptr; ///< null when no ports service is configured
};
void set_service(const Service &service);

/** The method table, without its terminating record. */
std::vector<tavrix_jrpc_method> methods();

/** Publishes a link event. */
void publish_link_changed(const int *publisher, const Event &event);

} // namespace events

#endif
