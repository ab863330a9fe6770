/**
 * A router that the test plays, and a service beside it: both live in the test's thread, and move when the test waits.
 *
 *     Stage stage(methods);                                 // opens, connects and registers the service
 *     EXPECT_EQ(stage.result_of("t.Echo", "{}"), "{}");     // a line on the session, and the one that comes back
 */
#ifndef TAVRIX_TESTS_KIT_PLAYED_ROUTER_H
#define TAVRIX_TESTS_KIT_PLAYED_ROUTER_H

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <event2/event.h>
#include <gtest/gtest.h>
#include <jansson.h>

#include "common/handles.h"
#include "support/bus.h"
#include "support/stream.h"
#include "tavrix.h"
#include "tavrix_service.h"

namespace support {

/** The session's listener and its one connection, to the newest service. */
class PlayedRouter {
  public:
    PlayedRouter();
    PlayedRouter(const PlayedRouter &) = delete;
    PlayedRouter &operator=(const PlayedRouter &) = delete;
    ~PlayedRouter();

    void listen();
    /** Stops listening and closes the connection, as a router that dies. */
    void die();
    /** Closes the connection alone. */
    void hang_up();
    /** Takes connections and lines; answers what services ask a router when `polite`. */
    void step();
    void say(const std::string &line);
    /** Writes as many bytes as the socket takes, without a line end. */
    void say_bytes(const std::string &bytes);

    std::deque<std::string> lines; ///< what it has not answered by itself
    std::vector<std::string> heard_methods;
    std::string registration; ///< the last router.Register's params
    std::string description;  ///< the last router.Describe's document
    std::string patterns;     ///< of the last router.Subscribe or router.Unsubscribe

    bool polite = true;
    bool settles = true; ///< answers a registration only when the bus stands both ways
    std::string folder;  ///< absolute; empty: null
    std::string services = "[]";
    int reply_timeout_ms = 5000;
    std::string register_error; ///< instead of a result
    std::string describe_error; ///< the same
    std::string bus_address;
    BusSocket pub;
    BusSocket sub;

  private:
    void take_line(const std::string &line);
    void answer(const json_t *request, const std::string &method);
    void open_bus();
    void settle();
    /** An error, when there is one, in the place of the result. */
    void reply(const std::string &id, const std::string &error, const std::string &result = "0");

    tavrix::Descriptor listener_;
    tavrix::Descriptor client_;
    std::string in_;
    std::string pending_register_; ///< the id of one that waits for its hello
    std::string connected_address_;
};

// Handlers that many a table has.
int accept(tavrix_call *call);
/** Answers the params. */
int echo(tavrix_call *call);
/** Answers a text of n characters. */
int fill(tavrix_call *call);
/** Answers n arrays within each other. */
int nest(tavrix_call *call);
/** Defers: `deferred` is its number then, and `abandoned` counts those that nobody waits for any more. */
int defer(tavrix_call *call);
extern uint64_t deferred;
extern int abandoned;

/** The road that a call came by, process, user and group: "session 71 1000 100". */
std::string caller_of(const tavrix_call *call);
/** What came of a request, and its code: "error -32014". */
std::string outcome_of(const tavrix_answer *answer);

/** Parameters of a method, or members of one of them. */
struct Rows {
    Rows(std::initializer_list<tavrix_service_param> rows) : table(rows) { table.push_back(TAVRIX_PARAM_END); }
    operator const tavrix_service_param *() const { return table.data(); }

    std::vector<tavrix_service_param> table;
};

/** A service's table: names and handlers, and what else a row may have. */
struct Methods {
    struct Row {
        const char *name;
        tavrix_call_handler handler;
        const tavrix_service_param *params = nullptr;
        const tavrix_service_param *result = nullptr;
        unsigned flags = 0;
    };
    Methods(std::initializer_list<Row> rows);
    operator const tavrix_service_method *() const { return table.data(); }

    std::vector<tavrix_service_method> table;
};

/** That of t.One with one parameter. */
struct OneParam {
    explicit OneParam(const tavrix_service_param &row) : rows{row} {}
    OneParam(const OneParam &) = delete; // the methods point to the rows

    Rows rows;
    Methods methods = {{"t.One", accept, rows}};
};

inline tavrix_service_options with_flags(unsigned flags) {
    tavrix_service_options options = {};
    options.flags = flags;
    return options;
}

struct FreeBase {
    void operator()(event_base *base) const { event_base_free(base); }
};
using EventBase = std::unique_ptr<event_base, FreeBase>;

struct CloseService {
    void operator()(tavrix_service *service) const { tavrix_service_close(service); }
};
using Service = std::unique_ptr<tavrix_service, CloseService>;

/** A service on "session.sock" that is ready, on a loop of its own if none is given. */
Service started_service(const char *name, const tavrix_service_method *methods, tavrix_service_options options = {});

class Stage {
  public:
    /** With a table the service is started, and registered when this returns. */
    explicit Stage(const tavrix_service_method *methods, const tavrix_service_options &options = {},
                   const std::function<void(PlayedRouter &)> &prepare = nullptr);
    /** A stage without a service yet. */
    Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;
    ~Stage();

    void open(const tavrix_service_method *methods, const tavrix_service_options &options = {});
    /** The same until it is ready, on a bus that need not stand. */
    void serve(const tavrix_service_method *methods, const tavrix_service_options &options = {});
    void close();
    /** Lets both move once. */
    void step();
    bool wait(const std::function<bool()> &condition, int timeout_ms = 20000);
    bool wait_ready();
    /** The router dies and comes back: the service is ready again when this returns. */
    void restart_router();
    /** The next line that the service writes; "(nothing)" when none comes. */
    std::string next();
    /** Sends a request on the session and gives the service's answer. */
    std::string ask(const std::string &method, const std::string &params = "{}", int transaction_id = 7);
    /** Of this answer the result, or the code of the error. */
    std::string result_of(const std::string &method, const std::string &params = "{}");
    std::string code_of(const std::string &method, const std::string &params = "{}");
    /** What a client of the service's own sockets hears until the service closes; or "(time-out)". */
    std::string hear(const StreamClient &client);
    /** The call that defer() has deferred; null when it is over. */
    tavrix_call *deferred_call() const { return tavrix_service_deferred(service, deferred); }

    PlayedRouter router;
    tavrix_service *service = nullptr;
};

/** A request as the router puts it on a direct service's session. */
std::string direct_request(const std::string &method, const std::string &params, int transaction_id);

} // namespace support

#endif
