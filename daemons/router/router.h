/**
 * The router: carries requests from client sockets to the bus, one at a time, and the replies back.
 *
 * It works on the library's split path: take a request, look at it, publish it, wait for its reply, answer the client.
 * Each is published under a transaction id of the router's own, and the reply that carries it is the one that is
 * awaited; the client's own id, or none, is put back into the answer. What else arrives on the reply channel is a
 * notification to the router or a left-over, never somebody else's answer.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_ROUTER_H
#define TAVRIX_DAEMONS_ROUTER_ROUTER_H

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "common/handles.h"
#include "listeners.h"

namespace router {

using daemon_support::BusSocket;
using daemon_support::Json;
using Clock = std::chrono::steady_clock;

struct Config {
    std::string socket_path = "/run/tavrix/router.sock";
    int tcp_port = 0; ///< 0: no TCP listener
    std::string publish = "tcp://127.0.0.1:7001";
    std::vector<std::string> connect = {"tcp://127.0.0.1:7002", "tcp://127.0.0.1:7003"}; ///< the services' defaults
    int reply_timeout_ms = 10000;
    int client_timeout_ms = 500;
};

class Router {
  public:
    /** One router lives in a process: method handlers are plain functions. */
    explicit Router(Config config);
    Router(const Router &) = delete;
    Router &operator=(const Router &) = delete;
    ~Router();

    /** Opens listeners and bus sockets; logs what failed. */
    bool open();

    /** Serves until a stop is asked for. */
    void serve();

    /** For the methods of the router itself. */
    int welcome(const std::string &name, const std::string &channel);
    void set_locked(bool locked);
    json_t *status() const;

  private:
    /** A client's request between its publishing and its reply. */
    struct Pending {
        Json request; ///< as the client sent it
        std::string method;
        json_int_t transaction_id; ///< the router's own, as published
    };

    bool open_bus();
    bool open_tcp();
    bool lacks_services() const;
    bool lacks_tcp() const;
    void probe_services();
    void try_tcp_again();
    int do_what_is_due();

    void serve_client(const StreamSocket &listener, bool trusted);
    bool take_request(const StreamSocket &listener, StreamSocket *client, Json *request);
    void handle_request(Json request, const StreamSocket &client, bool trusted);
    void forward(Json request, const StreamSocket &client);
    void await_reply(const Pending &pending, const StreamSocket &client);
    bool is_reply_to(const Pending &pending, const json_t *message) const;
    bool message_waiting() const;
    Json next_message();
    void take_other_messages();
    void handle_other(json_t *message);

    void deliver(const StreamSocket &client, const char *text) const;
    void answer(const StreamSocket &client, const json_t *response) const;
    void answer_error(const StreamSocket &client, int jrpc_code, json_t *request) const;
    void answer_reloaded(const StreamSocket &client, json_t *request) const;
    void answer_locked(const StreamSocket &client, json_t *request) const;
    void answer_timed_out(const StreamSocket &client, json_t *request) const;

    Config config_;
    UnixListener unix_listener_;
    StreamSocket tcp_listener_;
    BusSocket pub_;
    BusSocket sub_;
    int sub_descriptor_ = -1;
    bool locked_ = false;
    std::map<std::string, std::string> services_; ///< name and channel of those that said hello
    Clock::time_point probe_until_;
    Clock::time_point next_probe_;
    Clock::time_point next_tcp_attempt_;
    json_int_t last_transaction_id_;
    unsigned served_ = 0;
    unsigned timeouts_ = 0;
    unsigned discarded_ = 0;
};

} // namespace router

#endif
