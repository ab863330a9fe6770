/**
 * The services that the router knows, and which of them a method is for.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_SERVICE_H
#define TAVRIX_DAEMONS_ROUTER_SERVICE_H

#include <ctime>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "account.h"
#include "client.h"
#include "tavrix_jrpc.h"

namespace router {

class Session;

constexpr size_t max_document = 262144; ///< bytes of what a service says of its methods

struct Service {
    enum class State {
        listening, ///< on the bus, registered nowhere: known by its hello, or by nothing but its channel
        settling,  ///< registered; the bus has not carried a frame both ways yet
        up,
        gone
    };

    /** To be answered once the service is settled. */
    struct Registration {
        Json id;
        Json transaction_id;
        BatchPlace batch;
    };

    /** A call whose client has gone, while the direct service may still have to read or to answer it. */
    struct Left {
        int number;
        int64_t account;
        daemon_support::Clock::time_point since;
    };

    /** Whether the user may make one more call, beside those in flight and those that were left. */
    bool has_room_for(int64_t user, size_t most, daemon_support::Clock::duration longest_left);
    /** A call whose client has gone keeps its place until the service has answered it or a later one. */
    void leave(const Call &call);
    /** Requests are read in order: this answer shows that all calls left before it have been read. */
    void on_answer(const Call &call);
    void on_late_answer(int number);
    void forget_left();

    std::string name;
    std::string channel;
    std::vector<std::string> publish;
    std::vector<std::string> methods;
    Json document; ///< what it says of its methods; null when it says nothing
    bool direct = false;
    bool callers = false; ///< it wants to be told who calls
    State state = State::listening;
    std::time_t since = std::time(nullptr);
    Session *session = nullptr; ///< while it is registered
    Registration registration;
    std::vector<int> endpoints;                      ///< of the bus
    daemon_support::Clock::time_point settles_until; ///< or its registration fails
    std::list<Call *> calls;                         ///< in flight
    std::deque<Left> left;                           ///< in the order in which it was told of them
    Shares users;                                    ///< calls in flight and calls left, by account
};

const char *name_of(Service::State state);

/** One for each group of methods, by their first letters. */
constexpr const char *service_channels[] = {TAVRIX_CHANNEL_FIRST, TAVRIX_CHANNEL_EVENTS, TAVRIX_CHANNEL_INTERFACES,
                                            TAVRIX_CHANNEL_DEFAULT};
std::string channel_of(const std::string &method);

/** The method by which a service describes itself: its first method's prefix and `.Discover`. */
std::string discovery_of(const Service &service);

class Registry {
  public:
    Registry();

    static bool is_channel(const std::string &channel);

    /** By name, whatever its state; null when there never was one. */
    Service *find(const std::string &name);
    /** The registered service that offers, or offered, the method. */
    Service *of_method(const std::string &method);
    /** One on this channel that is up and has named no methods: it gets what no other offers. */
    Service *taker_on(const std::string &channel);
    /** One that is up, describes itself, and has this method for its discovery; null without. */
    Service *of_discovery(const std::string &method);
    /** Whether anybody on this channel is up. */
    bool is_served(const std::string &channel);
    /** Stands for whoever listens on the channel without having registered. */
    Service &listeners_on(const std::string &channel) { return channels_.at(channel); }

    /** Makes room for a registration; what a former service of this name offered is forgotten. */
    Service *add(const std::string &name);
    void offer(Service &service);
    void remove(const std::string &name);

    /** A hello from a service that is not registered; false when the list of those is full. */
    bool hear(const std::string &name, const std::string &channel);
    /** Whether a service that is not registered is on the channel. */
    bool heard_on(const std::string &channel) const;
    size_t heard_count() const { return heard_.size(); }

    const std::map<std::string, std::unique_ptr<Service>> &registered() const { return services_; }
    const std::map<std::string, std::string> &heard() const { return heard_; }

  private:
    std::map<std::string, std::unique_ptr<Service>> services_;
    std::unordered_map<std::string, Service *> methods_;
    std::map<std::string, Service> channels_;
    std::map<std::string, std::string> heard_; ///< name and channel
};

} // namespace router

#endif
