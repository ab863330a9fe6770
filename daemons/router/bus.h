/**
 * The router's end of the bus: one publisher, and one subscriber that is connected to every service.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_BUS_H
#define TAVRIX_DAEMONS_ROUTER_BUS_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/loop.h"
#include "common/bus.h"

namespace router {

class Bus {
  public:
    /** Gets every frame that arrives: its channel, and the JSON text behind it. */
    using Receiver = std::function<void(std::string_view channel, std::string_view text)>;

    explicit Bus(Receiver receiver) : receiver_(std::move(receiver)) {}
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    /** Binds the publisher and begins to receive what is for the router; logs what failed. */
    bool open(event_base *base, const std::vector<std::string> &publish);

    /** Listens to a publisher; the number that disconnect() takes, -1 when it cannot. */
    int connect(const std::string &address);
    void disconnect(int endpoint);

    bool publish(std::string_view channel, std::string_view text);

    /** Chooses whether everything is received, or only what is addressed to the router. */
    void listen_to_everything(bool wanted);

  private:
    static void on_readable(evutil_socket_t descriptor, short what, void *context);

    Receiver receiver_;
    tavrix::BusSocket pub_;
    tavrix::BusSocket sub_;
    daemon_support::Event readable_;
    bool everything_ = false;
};

/** The folder of an ipc address; empty for any other. */
std::string folder_of(const std::string &address);

} // namespace router

#endif
