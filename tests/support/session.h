/**
 * Sessions with the router: a client that speaks in lines, and services that have registered over one.
 */
#ifndef TAVRIX_TESTS_SUPPORT_SESSION_H
#define TAVRIX_TESTS_SUPPORT_SESSION_H

#include <string>

#include "support/fleet.h"
#include "support/json.h"
#include "support/stream.h"
#include "tavrix_jrpc.h"

namespace support {

class SessionClient {
  public:
    explicit SessionClient(const std::string &path = "session.sock");
    explicit SessionClient(StreamClient stream) : stream_(std::move(stream)) {}

    /** Writes the line and its newline. */
    void say(const std::string &line) const { say_bytes(line + "\n"); }
    /** False when they cannot be written, or not within the time that a test waits. */
    bool say_bytes(const std::string &bytes) const;
    /** The next line without its newline, "(closed)", or "(time-out)". */
    std::string hear(int timeout_ms = 20000);
    /** The next line that holds the text; what comes before it is passed over. "(closed)" or "(time-out)" without. */
    std::string hear_of(const std::string &part);
    /** Says the line and hears the next one. */
    std::string ask(const std::string &line);
    /** Whether the router closes the session; what it says before is passed over. */
    bool gets_closed();
    /** Shuts the sending side down. */
    void end_sending() const;
    void close() { stream_.close(); }
    int fd() const { return stream_.fd(); }

  private:
    StreamClient stream_;
    std::string heard_;
};

/** What a service says of itself; members that are empty texts are left out. */
struct Registration {
    std::string name = "played";
    std::string channel = TAVRIX_CHANNEL_FIRST;
    std::string publish = "[]";
    std::string methods = R"(["ports.Get"])";
    std::string direct = "true";
    std::string callers = {}; ///< whether it asks to be told who calls

    /** Of a service that takes its requests from the bus. */
    static Registration on_bus(const std::string &name = "played", const std::string &methods = R"(["ports.Get"])") {
        return {name, TAVRIX_CHANNEL_FIRST, "[]", methods, "", ""};
    }
    /** Of one that offers these methods. */
    static Registration of(const std::string &methods, const std::string &name = "played") {
        return {name, TAVRIX_CHANNEL_FIRST, "[]", methods, "true", ""};
    }

    /** The request, with this id. */
    std::string line(const std::string &id = "\"registration\"") const;
};

/** A service that takes its requests over its session. */
class DirectService : public SessionClient {
  public:
    /** Registers, and throws what the router says when it refuses. */
    explicit DirectService(const Registration &registration = {});

    /** The next request; what else the router says is passed over. */
    std::string next_request() { return hear_of("\"" TAVRIX_ROUTER_REPLY_CHANNEL "\""); }
    /** Answers the request as a service does: under its method's name and its transaction id. */
    void reply(const std::string &request, const std::string &result) const;
};

/** What the service gets of the client's request. */
template <class Service, class Client>
std::string forwarded(Service &service, Client &&client, const std::string &text) {
    client.say(text);
    return service.next_request();
}

/** What the client hears when the service replies to its request with the result. */
template <class Service, class Client>
std::string answered(Service &service, Client &&client, const std::string &text, const std::string &result) {
    service.reply(forwarded(service, client, text), result);
    return client.hear();
}

/** Whether a call of the method, over the client's connection, comes back with what the service replies. */
template <class Service, class Client>
testing::AssertionResult serves(Service &service, Client &&client, const std::string &method = "ports.Get") {
    static int calls = 0;
    const std::string result = "\"reply " + std::to_string(++calls) + "\"";
    const std::string answer = answered(service, client, request(method, "1"), result);
    return testing::AssertionResult(result_of(answer) == result) << answer;
}

/** A registered service with a publisher on the bus. */
class BusService : public PlayedService {
  public:
    /** Binds its publisher on the registration's address, a free one for "[]", and registers. */
    explicit BusService(const Fleet &fleet, Registration registration = Registration::on_bus());

    /** The next request, past probes; "(nothing)" when none comes. */
    std::string next_request(int timeout_ms = 20000) const;

    SessionClient session;
    std::string registered; ///< what the router answered
};

} // namespace support

#endif
