/**
 * A service on the bus: its endpoint, its loop, and the settling of its connection to the router.
 *
 * Publish/subscribe drops what is published before a connection stands. A service therefore says hello to the router
 * (the notification router.Hello on the router's reply channel) until the router welcomes it (service.Welcome on the
 * service's own channel, with its name): then both directions have carried a real frame, and the service reports ready.
 * A router that starts later asks for the hello with service.Probe.
 *
 * A service that calls another one is in the same position towards it: the other may have come later, or be back after
 * a restart. It asks service.Hello of it first, again and again until that is answered: then both directions stand.
 *
 * On the default channel every service listens for logger.ReloadConf, and for nothing else.
 */
#ifndef TAVRIX_DAEMONS_COMMON_SERVICE_H
#define TAVRIX_DAEMONS_COMMON_SERVICE_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "common/service_names.h"
#include "tavrix_jrpc.h"

namespace daemon_support {

struct ServiceConfig {
    std::string name;                 ///< kept by the logger: must outlive the service
    std::string channel;              ///< service channel to listen on
    std::string publish;              ///< address to publish on
    std::vector<std::string> connect; ///< addresses to listen to, the router's among them
};

constexpr int hello_interval_ms = 50; ///< between two hellos that are not answered yet

/**
 * Lets a new subscriber receive messages of up to 8 MiB. nanomsg drops a publisher's connection at the first one that
 * is larger than the subscriber's limit, 1 MiB as it comes, and does not connect again.
 */
bool receive_large_messages(const BusSocket &socket);

/** What a loop does whenever the descriptor is readable. */
struct Watch {
    int descriptor;
    std::function<void()> on_readable;
};

/**
 * Waits until `take` takes the awaited message from the socket, `timeout_ms` have passed, or a stop is asked for: true
 * for the first. The library's waits count a signal as one of their attempts, and the one for a notification has no end
 * of its own: `take` enters them only when a message is there, and is interrupted when it was another one. What
 * `meanwhile` holds goes on.
 */
bool wait_within(int timeout_ms, const char *awaited, const BusSocket &socket, const std::function<bool()> &take,
                 const std::vector<Watch> &meanwhile = {});

class Service {
  public:
    /** At most one service lives in a process: method handlers are plain functions. */
    Service(ServiceConfig config, const std::vector<tavrix_jrpc_method> &methods);
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    ~Service();

    /** Opens the endpoint; logs what failed. */
    bool open();

    /** Beside the service's own sockets. */
    void watch(Watch wanted) { watches_.push_back(std::move(wanted)); }

    /** Serves until a stop is asked for; false, with a log line, when it cannot go on before that. */
    bool serve();

    const int *publisher() const { return pub_.get(); }

  private:
    static int on_welcome(json_t *params, json_t **result, json_t **error_data);
    static int on_probe(json_t *params, json_t **result, json_t **error_data);

    bool has_usable_name() const;
    bool listen_on(const std::string &channel, BusSocket *socket, int *descriptor);
    void say_hello();
    void serve_requests();
    bool serve_control_message();
    void serve_control();

    ServiceConfig config_;
    std::vector<tavrix_jrpc_method> methods_;
    BusSocket pub_;
    BusSocket sub_;
    BusSocket control_;
    int sub_descriptor_ = -1;
    int control_descriptor_ = -1;
    std::vector<Watch> watches_;
    bool welcomed_ = false;
};

} // namespace daemon_support

#endif
