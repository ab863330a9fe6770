/**
 * Services over a session, and one that takes its requests from the bus.
 */
#ifndef TAVRIX_TESTS_SUPPORT_SESSION_H
#define TAVRIX_TESTS_SUPPORT_SESSION_H

#include <string>

#include "support/bus.h"
#include "support/direct_service.h"
#include "support/fleet.h"

namespace support {

/** A registered service with a publisher on the bus. */
class BusService {
  public:
    /** Binds its publisher on the registration's address, a free one for "[]", and registers. */
    explicit BusService(const Fleet &fleet, Registration registration = Registration::on_bus());

    /** The next request, past probes; "(nothing)" when none comes. */
    std::string next_request(int timeout_ms = 20000);
    void reply(const std::string &request, const std::string &result) { publish_reply(service_reply(request, result)); }
    /** Publishes on the router's reply channel. */
    void publish_reply(const std::string &text) const;
    /** Publishes a frame of any channel. */
    void publish(const std::string &channel, const std::string &text) const;

    SessionClient session;
    BusSocket pub;
    BusSocket sub;
    std::string registered; ///< what the router answered
};

} // namespace support

#endif
