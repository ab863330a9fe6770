/**
 * The system under test: router, service and database on private paths and ports.
 */
#ifndef TAVRIX_TESTS_SUPPORT_FLEET_H
#define TAVRIX_TESTS_SUPPORT_FLEET_H

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/process.h"
#include "support/stream.h"

namespace support {

/** A router on its two sockets in the folder, and on a bus address. */
std::unique_ptr<Process> started_router(const std::string &address, const std::vector<std::string> &more = {},
                                        const std::string &folder = "");

class Fleet {
  public:
    /** Makes addresses, a logger configuration at level info, and a database with the example fleet. */
    Fleet();
    ~Fleet();

    Process &start_router(const std::vector<std::string> &more = {});
    /** Connected to no service: it knows only those that register. */
    Process &start_lone_router(const std::vector<std::string> &more = {});
    /** With a TCP listener, too, on which a policy file allows all that can be allowed to everybody. */
    Process &start_router_with_tcp(int port, std::vector<std::string> more = {});
    Process &start_lone_router_with_tcp(int port, std::vector<std::string> more = {});
    Process &start_ports(const std::vector<std::string> &more = {});
    /** With a script of two link changes, played every `interval_ms`, on "events.sock" and a pull socket. */
    Process &start_events(const std::string &interval_ms = "50", const std::vector<std::string> &more = {});

    /** Sends a request to the router's unix socket and hears the answer out. */
    std::string ask(const std::string &request) const;
    /** A member of the router's status. */
    std::string status(const char *key) const;
    StreamClient connect() const { return StreamClient::unix_path("router.sock"); }

    std::string router_address = free_bus_address();
    std::string ports_address = free_bus_address();
    std::string events_address = free_bus_address();
    std::string pull_address = free_bus_address();
    std::string slot = "/tavrix-test-events-" + std::to_string(getpid());
    std::unique_ptr<Process> router;
    std::unique_ptr<Process> ports;
    std::unique_ptr<Process> events;
};

/** Replaces the logger's configuration: a line such as "portsd=debug" for each daemon. */
void write_log_levels(const std::string &levels);

/** A test of the router alone, which knows only services that register. */
class LoneRouter : public testing::Test {
  protected:
    LoneRouter() { fleet.start_lone_router(); }

    Fleet fleet;
};

/** A test beside a router that knows all three services' addresses on the bus. */
class StartedRouter : public testing::Test {
  protected:
    StartedRouter() { fleet.start_router(); }

    Fleet fleet;
};

/** A service played by the test: it hears what the router publishes on a channel, and says what it likes. */
class PlayedService {
  public:
    /** Connects to the router and waits until both directions stand. */
    PlayedService(const Fleet &fleet, const std::string &channel);
    /** Binds the address and connects to the router, and waits for nothing. */
    PlayedService(const Fleet &fleet, const std::string &channel, const std::string &address);

    /** The next request's JSON text, without the channel; "(nothing)" when none comes. */
    std::string next_request(int timeout_ms = 20000) const { return sub.next_text(timeout_ms); }
    /** Publishes on the router's reply channel. */
    void reply(const std::string &json) const;
    void reply(const std::string &request, const std::string &result) const;
    /** Publishes a frame of any channel. */
    void publish(const std::string &channel, const std::string &text) const;

    BusSocket pub;
    BusSocket sub;
};

} // namespace support

#endif
