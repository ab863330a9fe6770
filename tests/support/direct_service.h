/**
 * Sessions with the router: a client that speaks in lines, and services that have registered over one.
 */
#ifndef TAVRIX_TESTS_SUPPORT_DIRECT_SERVICE_H
#define TAVRIX_TESTS_SUPPORT_DIRECT_SERVICE_H

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/stream.h"

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
    /** No more will be said. */
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
    std::string channel = "3a6f8f51-502f-4238-9638-29764ff1a8a4";
    std::string publish = "[]";
    std::string methods = R"(["ports.Get"])";
    std::string direct = "true";
    std::string callers = {}; ///< whether it asks to be told who calls

    /** Of a service that takes its requests from the bus. */
    static Registration on_bus() {
        return {"played", "3a6f8f51-502f-4238-9638-29764ff1a8a4", "[]", R"(["ports.Get"])", "", ""};
    }

    /** The request, with this id. */
    std::string line(const std::string &id = "\"registration\"") const;
};

/** The text of a service's reply to a request. */
std::string service_reply(const std::string &request, const std::string &result);

/** A service that takes its requests over its session. */
class DirectService : public SessionClient {
  public:
    /**
     * What the service says to a request's params: the reply's member, such as `"result":0` or `"error":{...}`; nothing
     * at all when it is empty.
     */
    using Handler = std::function<std::string(const std::string &method, const std::string &params)>;

    /** Registers, and throws what the router says when it refuses. */
    explicit DirectService(const Registration &registration = {});
    /** Registers, and serves in a thread of its own until its end. */
    DirectService(const std::string &name, const std::vector<std::string> &methods, Handler handler = accept_all);
    DirectService(const DirectService &) = delete;
    DirectService &operator=(const DirectService &) = delete;
    ~DirectService();

    /** The next request; what else the router says is passed over. */
    std::string next_request() { return hear_of("\"2524546b-ca99-4868-a062-359cefacff7c\""); }
    /** Answers the request as a service does: under its method's name and its transaction id. */
    void reply(const std::string &request, const std::string &result) const;
    void publish(const std::string &method, const std::string &params) const;

    /** `"result":0` to everything. */
    static std::string accept_all(const std::string &method, const std::string &params);

  private:
    std::thread server_;
};

} // namespace support

#endif
