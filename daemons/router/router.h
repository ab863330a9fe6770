/**
 * The router: carries requests from clients to the services, and the answers back.
 *
 * One loop, in which nothing waits, and one table of calls in flight. Each request travels under a number of the
 * router's own, its transaction id between router and service; the reply that carries it is its answer, and whatever
 * else a service says is a notification or comes too late. docs/router.md has the life of a request as a drawing.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_ROUTER_H
#define TAVRIX_DAEMONS_ROUTER_ROUTER_H

#include <list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "account.h"
#include "base/loop.h"
#include "bus.h"
#include "client.h"
#include "common/wire.h"
#include "listener.h"
#include "message.h"
#include "one_shot.h"
#include "policy.h"
#include "service.h"
#include "session.h"
#include "statistics.h"

namespace router {

struct Config {
    std::string socket_path = tavrix::router_socket;
    std::string session_path = TAVRIX_SERVICE_SESSION; ///< empty: no sessions
    int tcp_port = 0;                                  ///< 0: no TCP listener
    std::string tcp_address = "127.0.0.1";
    std::vector<std::string> publish = {"ipc:///run/tavrix/bus/router"};
    std::vector<std::string> connect; ///< of services that register nowhere
    std::string policy;               ///< a file; empty: the built-in one
    int reply_timeout_ms = tavrix::default_reply_timeout_ms;
    int client_timeout_ms = 500;
    int max_clients = 1024;
    int max_in_flight = 512; ///< for each service
};

class Router {
  public:
    /** One router lives in a process: what the library calls are plain functions. */
    explicit Router(Config config);
    Router(const Router &) = delete;
    Router &operator=(const Router &) = delete;
    ~Router();

    /** Opens listeners and bus sockets; logs what failed. */
    bool open();
    /** Serves until a signal asks for the end; false when it ends because it cannot go on. */
    bool serve();

    // For clients and sessions.
    event_base *base() const { return base_.get(); }
    daemon_support::Deadlines<OneShot> &client_deadlines() { return *client_deadlines_; }
    /** How long a client that waits for its answer goes unwatched for a hang-up. */
    daemon_support::Deadlines<OneShot> &patience() { return *patience_; }
    std::string_view render(const json_t *value) { return renderer_.render(value); }
    void take_request(Client &client, Message request, const BatchPlace &batch);
    /** From a direct service, or from the bus for null. */
    void take_reply(Message reply, Service *from);
    void take_notification(const Message &notification, Service *from);
    /** Ends all that a closed client has asked; the object itself goes at the end of the turn. */
    void bury(Client &client);
    void on_session_end(Session &session);
    void flush_later(Session &session);
    /** Of the client's user; shared by all their clients. */
    std::shared_ptr<Account> account_for(const Peer &peer);
    /** Serves the client now or, when its user's part of this turn is used up, in the next. */
    void serve(Client &client);
    /** Remembers a client that has more to do than its turn had time for. */
    void wait_for_turn(Client &client);
    bool is_turn_over(const Client &client) const;
    void count_refused() { ++statistics_.refused; }
    void count_dropped() { ++statistics_.dropped; }
    /** Runs the handler of a client's event; on std::bad_alloc closes that client, and nobody else notices. */
    template <class Action>
    void guard(Client *client, Action action) {
        try {
            action();
        } catch (const std::bad_alloc &) {
            out_of_memory(client);
        }
    }

    // For the notifications that arrive on the bus.
    /** A hello with a number is welcomed with the same: all that came before it has arrived. */
    int hear_hello(const std::string &name, const std::string &channel, json_t *number);
    void set_locked(bool locked);

  private:
    /** A request for the router itself. */
    struct Own {
        Client &client;
        json_t *params;
        json_t *request;
        const BatchPlace &batch;
        Json result;
        std::string_view result_text; ///< instead of the result: its text, where that is cached
        std::string problem;          ///< the error's message; empty when there is none
        bool is_deferred = false;
    };
    /** Gives 0, or the error's code. */
    using OwnHandler = int (Router::*)(Own &own);
    struct OwnMethod {
        const char *name;
        bool needs_session;
        OwnHandler handler;
        const char *summary;
        const char *tag;
        const char *params; ///< JSON: OpenRPC's content descriptors
        const char *result; ///< JSON: a schema
    };
    static const OwnMethod own_methods[];

    // Set-up
    bool open_listeners();
    bool open_timers();
    bool make_bus_folder() const;
    static void on_turn_end(evutil_socket_t descriptor, short what, void *context);
    static void on_probe_timer(evutil_socket_t descriptor, short what, void *context);
    static void on_settle_timer(evutil_socket_t descriptor, short what, void *context);
    static void on_signal(evutil_socket_t number, short what, void *context);

    // Clients
    template <class Kind>
    void admit(int descriptor, Road road);
    void serve_now(Client &client);
    void schedule_turn_end();
    void turn_away(int descriptor, Road road);
    void out_of_memory(Client *client);

    // Requests
    std::string find_refusal(const Client &client, const std::string &method, const json_t *request, int *code);
    void refuse(Client &client, const json_t *request, int code, const std::string &why, const BatchPlace &batch);
    void answer_own(Client &client, json_t *request, Own *own);
    bool run_own(Client &client, const std::string &method, json_t *request, const BatchPlace &batch);
    void answer_locked(Client &client, json_t *request, const BatchPlace &batch);
    static Json timed_out_answer(const Call &call);
    bool may_reload(const Client &client);
    void reload(Client &client, Message request, const BatchPlace &batch);
    bool is_overloaded(Service &service, Client &client, const json_t *request, const BatchPlace &batch);
    void forward(Client &client, const std::string &method, const Message &request, const BatchPlace &batch);
    Service *find_service(const std::string &method, const std::string &channel, Json *why_not);
    Json gone_data(const Service &service, const std::string &method) const;
    Call *begin_call(Client &client, Service &service, const std::string &method, const json_t *request,
                     const BatchPlace &batch);
    bool send(const Call &call, const Message &request);
    void finish(Call &call, Outcome outcome, Message answer);
    void give_answer(std::unique_ptr<Call> owner, Outcome outcome, Message answer);
    void expire(Call &call);
    void cancel(const Call &call);

    // Bus
    void take_frame(std::string_view channel, std::string_view text);
    void take_for_router(std::string_view text);
    void probe_listeners();
    bool lacks_listeners() const;

    // Services
    void settle();
    void probe(const Service &service);
    bool welcome(const std::string &name, const std::string &channel, json_t *number);
    void end_registration(Service &service, Json answer);
    void up(Service &service);
    void gone(Service &service);
    std::string whole_text(const Json &message);
    void tell_services(const std::string &line, const Service &except);
    Json describe(const Service &service) const;

    // Notifications and monitors
    /** To be called whenever the session's wishes have changed. */
    void listen_for(Session &session);
    void deliver_notification(const Message &notification, const std::string &method, const Service *from);
    bool is_monitored(const std::string &method) const;
    void show_traffic(const char *leg, const Call *call, const std::string &method, const Service *service,
                      const char *outcome, json_t *message);

    // The router's own methods
    int change_patterns(Own &own, Patterns Session::*list, void (*change)(Patterns &list, const Patterns &given));
    int on_status(Own &own);
    int on_metrics(Own &own);
    int on_lock(Own &own);
    int on_unlock(Own &own);
    int on_bus(Own &own);
    int on_register(Own &own);
    int on_describe(Own &own);
    int on_discover(Own &own);
    Json discover() const;
    std::string metrics() const;
    int on_subscribe(Own &own);
    int on_unsubscribe(Own &own);
    int on_monitor(Own &own);
    std::string read_registration(const json_t *params, Service *wanted) const;
    std::string listen_to(Service &service, const std::vector<std::string> &addresses);
    int find_registration_conflict(const Service &wanted, std::string *problem);

    Config config_;
    Policy policy_;
    daemon_support::EventBase base_; ///< outlives everything that is registered with it
    Renderer renderer_;
    Statistics statistics_;
    Registry registry_;
    std::unique_ptr<daemon_support::Deadlines<OneShot>> client_deadlines_;
    std::unique_ptr<daemon_support::Deadlines<OneShot>> patience_;
    std::unique_ptr<daemon_support::Deadlines<Call>> call_deadlines_;
    Bus bus_;
    Listener unix_listener_;
    Listener tcp_listener_;
    Listener session_listener_;
    daemon_support::Event turn_end_;
    daemon_support::Event probe_timer_;
    daemon_support::Event settle_timer_;
    std::vector<daemon_support::Event> signals_;

    std::list<std::unique_ptr<Client>> clients_;
    std::list<std::unique_ptr<Client>> graveyard_;
    Shares users_;                                       ///< clients, by account
    std::map<int64_t, std::weak_ptr<Account>> accounts_; ///< of those who are connected
    Turns turns_;
    daemon_support::Clock::time_point serving_since_;
    bool is_turn_ending_ = false; ///< its event need not be made active again
    Shares reloads_;              ///< in this second, by account
    daemon_support::Clock::time_point reloads_since_;
    std::vector<Session *> to_flush_;
    std::list<Session *> sessions_;
    std::vector<Session *> listening_; ///< those that have subscribed, or monitor
    std::unordered_map<int, std::unique_ptr<Call>> calls_;
    std::string discovered_; ///< what rpc.discover answers, as JSON; empty when that has changed
    std::string metrics_;    ///< what router.Metrics answers, for 100 ms
    daemon_support::Clock::time_point metrics_until_;
    int last_number_;
    bool locked_ = false;
    daemon_support::Clock::time_point probe_until_; ///< for services that were there before the router
    const daemon_support::Clock::time_point started_ = daemon_support::Clock::now();
};

} // namespace router

#endif
