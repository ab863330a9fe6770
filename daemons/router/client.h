/**
 * Connected clients, and calls in flight.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_CLIENT_H
#define TAVRIX_DAEMONS_ROUTER_CLIENT_H

#include <list>
#include <memory>
#include <string>

#include "account.h"
#include "base/loop.h"
#include "message.h"
#include "policy.h"

namespace router {

class Router;
struct Call;
struct Service;

/** The answers to one batch: sent as one when the last of them is there. */
struct Batch {
    std::string answers; ///< with commas between them
    size_t missing = 0;
};
using BatchPlace = std::shared_ptr<Batch>; ///< null for a request that came alone

/** Someone who is connected. Its end is its calls' end. */
class Client {
  public:
    Client(Router &router, int descriptor, Peer peer);
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    virtual ~Client();

    /** Gives the answer to a request; null when there was no memory for one. */
    void answer(Json message, const BatchPlace &batch);
    /** The same with the rendered text; an empty one stands for no memory. */
    virtual void answer_text(std::string_view text, const BatchPlace &batch) = 0;
    /** Refuses a request without an id. */
    virtual void refuse_notification(const std::string &method, const BatchPlace &batch) = 0;
    /** Whether its answers carry its own "id": one-shot clients expect the method's name there. */
    virtual bool gets_own_id() const = 0;
    /** Takes what has come, as far as its user's time goes. */
    virtual void take_turn() = 0;
    /** Whether it has a turn's time of its own, beside its user's. */
    virtual bool has_own_time() const { return false; }

    /** Ends the connection. The object goes at the end of the turn, since its own functions may be running. */
    void close();
    bool is_closed() const { return descriptor_ < 0; }

    const Peer peer;
    const std::shared_ptr<Account> account;
    bool is_waiting = false; ///< for its next turn
    std::list<Call *> calls; ///< in flight
    std::list<std::unique_ptr<Client>>::iterator place;

  protected:
    /** Lets go of what watches the descriptor, just before it is closed. */
    virtual void on_close() = 0;
    bool has_hung_up() const;

    Router &router_;
    int descriptor_;
};

/** A call's place in a list, left with its destruction: also when the call could not be made after all. */
class Listed {
  public:
    Listed(std::list<Call *> &list, Call *call) : list_(list), place_(list.insert(list.end(), call)) {}
    Listed(const Listed &) = delete;
    Listed &operator=(const Listed &) = delete;
    ~Listed() { list_.erase(place_); }

  private:
    std::list<Call *> &list_;
    std::list<Call *>::iterator place_;
};

/** A request between its way to the service and its answer. Its end takes it out of every list that it is in. */
struct Call {
    Call(int number, Client &asking, Service &serving, std::string name);
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;
    ~Call();

    const int number; ///< the transaction id between router and service
    Client &client;
    Service &service;
    const std::string method;
    Json id;             ///< the client's own
    Json transaction_id; ///< the client's own, or null
    BatchPlace batch;
    const daemon_support::Clock::time_point started = daemon_support::Clock::now();
    daemon_support::Deadlines<Call>::Place deadline;

  private:
    Listed at_client_;
    Listed at_service_;
};

} // namespace router

#endif
