/*
 * Daemons that call daemons: awaited replies and notifications, direct and one-way requests, shared state.
 */
#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"
#include "tavrix_shm.h"

using support::code_of;
using support::Finished;
using support::Fleet;
using support::member;
using support::Process;
using support::request;
using support::StreamClient;

namespace {

Finished ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVRIXCTL);
    return support::run(arguments);
}

class Events : public testing::Test {
  protected:
    void start(const std::string &interval_ms = "50", const std::string &wait_timeout_ms = "20000") {
        start_router();
        start_ports(wait_timeout_ms);
        fleet.start_events(interval_ms, {"--wait-timeout", wait_timeout_ms});
    }
    void start_router() { fleet.start_router({"--connect", fleet.events_address, "--reply-timeout", "60000"}); }
    void start_ports(const std::string &wait_timeout_ms) {
        fleet.start_ports(
            {"--connect", fleet.events_address, "--events", fleet.events_address, "--wait-timeout", wait_timeout_ms});
    }
    /** At debug level the services say when they begin to wait. */
    static void log_all() {
        support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\neventsd=debug\n");
    }
    std::string call(const std::string &method, const std::string &params = "{}") {
        return fleet.ask(request(method, "\"a\"", ",\"params\":" + params));
    }
    static std::string direct(const std::string &text) {
        const StreamClient client = StreamClient::unix_path("events.sock");
        client.say(text);
        return client.hear();
    }
    int shared_number() const {
        int number = -1;
        tavrix_shm_get_int(fleet.slot.c_str(), &number);
        return number;
    }
    static StreamClient describe(const std::string &port_id) {
        StreamClient client = StreamClient::unix_path("events.sock");
        client.say(request("events.Describe", "1", R"(,"params":{"port_id":")" + port_id + "\"}"));
        return client;
    }
    static bool has_answer(const StreamClient &client) {
        pollfd state{client.fd(), POLLIN, 0};
        return poll(&state, 1, 0) == 1;
    }
    Fleet fleet;
};

/** The ports service played by the test, as the events service meets it. */
class PlayedPorts {
  public:
    explicit PlayedPorts(const Fleet &fleet) : pub_(TAVRIX_SP_PUB), sub_(TAVRIX_SP_SUB) {
        pub_.bind(fleet.ports_address);
        sub_.connect(fleet.events_address);
        tavrix_mq_socket_subscribe(sub_.number, TAVRIX_CHANNEL_FIRST);
    }
    /** The next ports.Get, or "(nothing)"; answers the hellos before it. */
    std::string next_request(int timeout_ms = 20000) const {
        std::string text = "(nothing)";
        const bool arrived = support::wait_until(
            [&] {
                text = receive();
                if (member(text, "method") == "\"service.Hello\"") {
                    reply(text, "\"result\":0", "service.Hello");
                    return false;
                }
                return text != "(nothing)";
            },
            timeout_ms);
        return arrived ? text : "(nothing)";
    }
    /** Publishes `members`, the answer to that request. */
    void reply(const std::string &to, const std::string &members, const std::string &method = "ports.Get") const {
        tavrix_mq_socket_send(pub_.number, (R"(eventsd.replies|{"jsonrpc":"2.0","id":")" + method + "\"," + members +
                                            ",\"transaction_id\":" + member(to, "transaction_id") + "}")
                                               .c_str());
    }
    static std::string ports(const std::string &text) { return R"("result":{"ports":[")" + text + "\"]}"; }

  private:
    std::string receive() const {
        char *frame = nullptr;
        int length = 0;
        if (tavrix_mq_socket_recv(sub_.number, &frame, &length, 1) != 0) {
            return "(nothing)";
        }
        const std::string text(frame, static_cast<size_t>(length));
        free(frame);
        return text.substr(text.find('|') + 1);
    }

    support::BusSocket pub_;
    support::BusSocket sub_;
};

/** A one-way sender that takes what is on its way along when it goes: the connection is reset. */
class ResettingPusher {
  public:
    explicit ResettingPusher(const std::string &address)
        : stream_(StreamClient::tcp_port(std::stoi(address.substr(address.rfind(':') + 1)))) {
        stream_.say(std::string("\0SP\0\0\x50\0\0", 8)); // the bus's greeting of a PUSH socket
    }
    void push(const std::string &text) const {
        stream_.say(std::string(7, '\0') + static_cast<char>(text.size()) + text); // the length has eight bytes
    }
    void reset() {
        const linger at_once{1, 0};
        setsockopt(stream_.fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        stream_.close();
    }

  private:
    StreamClient stream_;
};

/** The events service between the router and played ports. */
class EventsWithPlayedPorts : public Events {
  protected:
    void start_all(const std::string &wait_timeout_ms) {
        start_router();
        fleet.start_events("3600000", {"--wait-timeout", wait_timeout_ms});
    }
    std::unique_ptr<PlayedPorts> ports = std::make_unique<PlayedPorts>(fleet);
};

} // namespace

TEST_F(Events, PlayTheirScriptInTurnAndShareTheLastNumber) {
    start();
    ASSERT_TRUE(support::wait_until([&] { return shared_number() >= 3; }));
    EXPECT_EQ(member(call("events.Get", R"({"number":1})"), "result"),
              R"({"number":1,"kind":"link","entity":"c1-1","text":"up"})");
    EXPECT_EQ(member(call("events.Get", R"({"number":2})"), "result"),
              R"({"number":2,"kind":"link","entity":"d2","text":"down"})");
    EXPECT_EQ(member(member(call("events.Get", R"({"number":3})"), "result"), "entity"), "\"c1-1\"")
        << "again from its start";
    const std::string unknown = call("events.Get", R"({"number":100000})");
    EXPECT_EQ(code_of(unknown), "-32013");
    EXPECT_EQ(member(member(unknown, "error"), "data"),
              std::string(R"({"message":")") + tavrix_error_decode(TAVRIX_ERR_NO_RECORDS) + "\"}");
    EXPECT_EQ(code_of(call("events.Get")), "-32602");
}

TEST_F(Events, AreAwaitedByTheClient) {
    start();
    const Finished finished = ctl({"wait", "events.LinkChanged", fleet.events_address});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(member(finished.output, "method"), "\"events.LinkChanged\"");
}

TEST_F(Events, AreAwaitedByThePortsService) {
    start();
    const std::string answer = call("ports.WaitLinkChanged");
    EXPECT_EQ(member(member(answer, "result"), "kind"), "\"link\"") << answer;
}

TEST_F(Events, DescribeAPortByAskingThePortsService) {
    start();
    const std::string answer = call("events.Describe", R"({"port_id":"c1-1"})");
    EXPECT_NE(member(answer, "result").find(R"("ports":[{"port_id":"c1-1","status":"enable")"), std::string::npos)
        << answer;
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"c1-99"})")), "-32034") << "the other service's error";
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"x"})")), "-32602");
}

TEST_F(Events, DescribeAPortWithTheLatestEventOfItsOwn) {
    start();
    ASSERT_TRUE(support::wait_until([&] { return shared_number() >= 3; }));
    call("events.Report", R"({"text":"of no port"})");
    const auto last_event = [&](const std::string &port_id) {
        return member(member(call("events.Describe", R"({"port_id":")" + port_id + "\"}"), "result"), "last_event");
    };
    const struct {
        const char *port_id;
        const char *entity;
        const char *state;
    } rows[] = {{"c1-1", "\"c1-1\"", "\"up\""}, {"C1-1", "\"c1-1\"", "\"up\""}, {"d2", "\"d2\"", "\"down\""}};
    for (const auto &row : rows) {
        const std::string event = last_event(row.port_id);
        EXPECT_EQ(member(event, "entity"), row.entity) << event;
        EXPECT_EQ(member(event, "text"), row.state) << event;
    }
    EXPECT_GT(std::stoi(member(last_event("c1-1"), "number")), 1) << "the latest, not the first";
    EXPECT_EQ(last_event("d1"), "null");
}

TEST_F(Events, AnswerDirectlyOnTheirOwnSocket) {
    start("3600000");
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013") << "nothing has happened yet";
    const Finished reported =
        ctl({"call", "--direct", "events.sock", "events.Report", R"({"text":"door open"})", "--transaction", "4"});
    EXPECT_EQ(reported.status, 0);
    EXPECT_EQ(
        reported.output,
        R"({"jsonrpc":"2.0","id":"events.Report","result":{"number":1,"kind":"report","entity":"","text":"door open"},"transaction_id":4})"
        "\n");
    EXPECT_EQ(member(member(direct(request("events.Last", "1")), "result"), "text"), "\"door open\"");
    EXPECT_EQ(direct(R"({"jsonrpc":"2.0","method":"events.Last"})"), "") << "a notification";
    EXPECT_EQ(direct("nonsense"), "");
    const std::string text = request("events.Last", "1");
    EXPECT_NE(direct(text + std::string(1024 - text.size(), ' ')), "");
    EXPECT_EQ(direct(std::string(1025 - text.size(), ' ') + text), "") << "its last byte is not read";
}

TEST_F(Events, AreNotHeldUpByASilentClient) {
    start("3600000");
    const StreamClient silent = StreamClient::unix_path("events.sock");
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013");
    EXPECT_EQ(silent.hear(), "") << "closed without an answer";
}

TEST_F(Events, TakeOneWayReports) {
    start("3600000");
    EXPECT_EQ(ctl({"push", fleet.pull_address, "events.Report", R"({"text":"one way"})"}).status, 0);
    ASSERT_TRUE(support::wait_until([&] { return shared_number() == 1; }));
    EXPECT_EQ(member(member(call("events.Last"), "result"), "text"), "\"one way\"");
    EXPECT_EQ(ctl({"shm", "get", fleet.slot, "--int"}).output, "1\n");
}

TEST_F(Events, RereadTheLoggersConfigurationOverTheBus) {
    start();
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\neventsd=debug\n");
    EXPECT_EQ(member(call("logger.ReloadConf"), "result"), "0");
    EXPECT_TRUE(fleet.events->says("Logging level set to debug."));
    EXPECT_TRUE(fleet.ports->says("Logging level set to debug."));
}

TEST_F(Events, StopCleanlyAlsoWhileTheyWaitForAReply) {
    log_all();
    start("3600000");
    fleet.ports->signal(SIGKILL);
    fleet.ports->wait();
    const StreamClient client = describe("d1");
    ASSERT_TRUE(fleet.events->says("Waiting for service.Hello"));
    fleet.events->signal(SIGTERM);
    EXPECT_EQ(fleet.events->wait(), 0) << fleet.events->log();
    EXPECT_EQ(access("events.sock", F_OK), -1);
}

TEST_F(EventsWithPlayedPorts, StopCleanlyAlsoWhenTheirRequestWasHeard) {
    log_all();
    start_all("20000");
    const StreamClient client = describe("d1");
    EXPECT_NE(ports->next_request(), "(nothing)");
    ASSERT_TRUE(fleet.events->says("Waiting for ports.Get"));
    fleet.events->signal(SIGTERM);
    EXPECT_EQ(fleet.events->wait(), 0) << fleet.events->log();
}

TEST_F(EventsWithPlayedPorts, AreDescribedAlsoWhenThePortsServiceComesDuringTheCall) {
    log_all();
    ports.reset();
    start_all("20000");
    const StreamClient client = describe("c1-1");
    ASSERT_TRUE(fleet.events->says("Waiting for "));
    ports = std::make_unique<PlayedPorts>(fleet);
    ports->reply(ports->next_request(), PlayedPorts::ports("came late"));
    EXPECT_EQ(member(member(client.hear(), "result"), "ports"), R"(["came late"])");
}

TEST_F(Events, GoOnWhileTheyWaitForAPortsServiceThatWaitsForThem) {
    log_all();
    start("1000");
    const StreamClient waits = fleet.connect();
    waits.say(request("ports.WaitLinkChanged", "1"));
    ASSERT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    EXPECT_NE(member(describe("d1").hear(), "result").find(R"("ports":[{"port_id":"d1")"), std::string::npos);
    EXPECT_EQ(member(member(waits.hear(), "result"), "kind"), "\"link\"");
}

TEST_F(Events, ThatDoNotComeLeaveNoServiceWaitingForTheOtherForEver) {
    log_all();
    start("3600000", "2000");
    const StreamClient waits = fleet.connect();
    waits.say(request("ports.WaitLinkChanged", "1"));
    ASSERT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    describe("d1").hear(); // an answer or -32005: who begins first gives up first
    EXPECT_EQ(code_of(waits.hear()), "-32005");
    EXPECT_EQ(code_of(describe("d1").hear()), "(none)");
    EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "(none)");
}

TEST_F(Events, StopThePortsServiceWhileItWaitsForThem) {
    log_all();
    start("3600000");
    const StreamClient client = fleet.connect();
    client.say(request("ports.WaitLinkChanged", "1"));
    ASSERT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    fleet.ports->signal(SIGTERM);
    EXPECT_EQ(fleet.ports->wait(), 0) << fleet.ports->log();
}

TEST_F(Events, StopOnInterruptFromTheKeyboard) {
    start();
    fleet.events->signal(SIGINT);
    EXPECT_EQ(fleet.events->wait(), 0);
    EXPECT_NE(fleet.events->log().find("eventsd stopped"), std::string::npos);
}

TEST_F(Events, ThatDoNotComeHoldThePortsServiceUpNoLongerThanItsBound) {
    start_router();
    start_ports("500");
    const StreamClient waiting = fleet.connect();
    waiting.say(request("ports.WaitLinkChanged", "1"));
    const StreamClient other = fleet.connect();
    other.say(request("ports.Get", "1", R"(,"params":{"port_id":"d1"})"));
    EXPECT_EQ(code_of(waiting.hear()), "-32005");
    EXPECT_NE(member(other.hear(), "result").find("d1"), std::string::npos);
}

TEST_F(Events, AreAwaitedByThePortsServiceWhateverSignalsCome) {
    log_all();
    start_router();
    support::BusSocket events(TAVRIX_SP_PUB); // played by the test
    events.bind(fleet.events_address);
    start_ports("60000");
    const StreamClient client = fleet.connect();
    client.say(request("ports.WaitLinkChanged", "1"));
    constexpr char reloaded[] = "Logging level set to debug.";
    ASSERT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    const int reloads = fleet.ports->times_said(reloaded);
    for (int i = 1; i <= 12; ++i) { // more than the library has attempts
        fleet.ports->signal(SIGHUP);
        ASSERT_TRUE(support::wait_until([&] { return fleet.ports->times_said(reloaded) == reloads + i; })) << i;
    }
    EXPECT_FALSE(has_answer(client));
    support::wait_until([&] {
        tavrix_mq_socket_send(
            events.number,
            R"(events.LinkChanged|{"jsonrpc":"2.0","method":"events.LinkChanged","params":{"entity":"d3"}})");
        return has_answer(client);
    });
    EXPECT_EQ(member(client.hear(), "result"), R"({"entity":"d3"})");
}

TEST_F(Events, AreAwaitedAgainAfterTheirServiceWasKilled) {
    log_all();
    start("3600000", "1000");
    const StreamClient client = fleet.connect();
    client.say(request("ports.WaitLinkChanged", "1"));
    ASSERT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    fleet.events->signal(SIGKILL);
    EXPECT_EQ(fleet.events->wait(), 128 + SIGKILL);
    EXPECT_EQ(code_of(client.hear()), "-32005");
    fleet.start_events("20");
    std::string answer;
    EXPECT_TRUE(support::wait_until([&] {
        answer = call("ports.WaitLinkChanged");
        return code_of(answer) == "(none)";
    }));
    EXPECT_EQ(member(member(answer, "result"), "kind"), "\"link\"") << answer;
}

TEST_F(Events, AreServedUnharmedInAStormOfReloads) {
    start("1");
    for (int i = 0; i < 40; ++i) {
        fleet.events->signal(SIGHUP);
        fleet.ports->signal(SIGHUP);
        const std::string described =
            i % 2 == 0 ? call("events.Describe", R"({"port_id":"d1"})") : describe("d1").hear();
        fleet.events->signal(SIGHUP);
        EXPECT_NE(member(described, "result").find(R"("ports":[{"port_id":"d1")"), std::string::npos) << described;
        EXPECT_NE(member(direct(request("events.Last", "1")), "result"), "(none)");
        fleet.ports->signal(SIGHUP);
        EXPECT_NE(member(call("ports.Get", R"({"port_id":"d1"})"), "result"), "(none)");
    }
    EXPECT_EQ(member(member(call("ports.WaitLinkChanged"), "result"), "kind"), "\"link\"");
}

TEST_F(Events, ReportTextsThatFitAndRefuseLongerOnes) {
    start("3600000");
    const std::string fits(127, 'x');
    const std::string fits_exactly_with_two_bytes_a_character = std::string(125, 'x') + "\xc3\xa9";
    int number = 0;
    for (const std::string &text : {fits, fits_exactly_with_two_bytes_a_character}) {
        const std::string answer = call("events.Report", R"({"text":")" + text + "\"}");
        EXPECT_EQ(member(member(answer, "result"), "text"), "\"" + text + "\"") << answer;
        EXPECT_EQ(member(member(answer, "result"), "number"), std::to_string(++number));
    }
    for (const std::string &text : {fits + "x", std::string(126, 'x') + "\xc3\xa9", std::string(900, 'x')}) {
        const std::string answer = call("events.Report", R"({"text":")" + text + "\"}");
        EXPECT_EQ(code_of(answer), "-32602") << text;
        EXPECT_EQ(member(member(member(answer, "error"), "data"), "message"),
                  "\"Parameter 'text' has more than 127 bytes.\"");
    }
    EXPECT_EQ(member(member(call("events.Last"), "result"), "number"), "2") << "nothing was made of the others";
    EXPECT_EQ(code_of(call("events.Report")), "-32602");
    EXPECT_EQ(code_of(call("events.Report", R"({"text":7})")), "-32602");
}

TEST_F(EventsWithPlayedPorts, AreDescribedOnTheSocketAlsoByASlowPortsService) {
    start_all("20000");
    const StreamClient client = describe("c1-1");
    const std::string asked = ports->next_request();
    EXPECT_EQ(ports->next_request(2500), "(nothing)") << "asked once, and waited for";
    ports->reply(asked, PlayedPorts::ports("slow"));
    EXPECT_EQ(member(member(client.hear(), "result"), "ports"), R"(["slow"])");
}

TEST_F(EventsWithPlayedPorts, AreDescribedByTheReplyToTheirOwnCallOnly) {
    start_all("3000");
    const StreamClient given_up = describe("c1-1");
    const std::string first = ports->next_request();
    EXPECT_EQ(code_of(given_up.hear()), "-32005");
    const StreamClient client = describe("c1-2");
    const std::string second = ports->next_request();
    EXPECT_EQ(member(member(second, "params"), "port_id"), "\"c1-2\"");
    EXPECT_NE(member(first, "transaction_id"), member(second, "transaction_id"));
    ports->reply(first, PlayedPorts::ports("late"));
    ports->reply("{\"transaction_id\":\"5\"}", PlayedPorts::ports("text"));
    ports->reply(second, PlayedPorts::ports("right"));
    EXPECT_EQ(member(member(client.hear(), "result"), "ports"), R"(["right"])");
}

TEST_F(EventsWithPlayedPorts, PassOnTheErrorOfThePortsServiceAndSurviveAnEmptyReply) {
    start_all("20000");
    const auto text_of = [](int status) {
        return std::string(R"({"message":")") + tavrix_error_decode(status) + "\"}";
    };
    const struct {
        const char *members;
        const char *code;
        std::string data;
    } rows[] = {
        {R"("error":{"code":-32034,"data":{"message":"why"}})", "-32034", R"({"message":"why"})"},
        {R"("error":{"code":-32034,"data":null})", "-32034", text_of(TAVRIX_ERR_NO_SUCH_PORT)},
        {R"("error":{})", "-32001", text_of(TAVRIX_ERR_GENERAL)},
        {R"("result":0)", "-32001", text_of(TAVRIX_ERR_GENERAL)},
        {R"("result":{})", "-32001", text_of(TAVRIX_ERR_GENERAL)},
    };
    for (const auto &row : rows) {
        const StreamClient client = describe("c1-1");
        ports->reply(ports->next_request(), row.members);
        const std::string answer = client.hear();
        EXPECT_EQ(code_of(answer), row.code) << row.members;
        EXPECT_EQ(member(member(answer, "error"), "data"), row.data) << row.members;
    }
}

TEST_F(EventsWithPlayedPorts, GoOnWhenAReportHasGoneWithItsSender) {
    start_all("20000");
    bool overtaken = false;
    for (int i = 0; i < 20 && !overtaken; ++i) {
        const StreamClient busy = describe("c1-1");
        const std::string first = ports->next_request();
        // While the service waits, a report and one more call arrive: it sees both at once, and the call comes first.
        ResettingPusher pusher(fleet.pull_address);
        pusher.push(R"({"jsonrpc":"2.0","method":"events.Report","params":{"text":"lost"},"id":"1"})");
        const int before = shared_number();
        const StreamClient client = fleet.connect();
        client.say(request("events.Describe", "1", R"(,"params":{"port_id":"c1-2"})"));
        EXPECT_EQ(ports->next_request(100), "(nothing)");
        ports->reply(first, PlayedPorts::ports("first"));
        const std::string second = ports->next_request();
        overtaken = shared_number() == before;
        pusher.reset();
        EXPECT_EQ(ports->next_request(100), "(nothing)");
        ports->reply(second, PlayedPorts::ports("second"));
        EXPECT_NE(client.hear().find("second"), std::string::npos);
        EXPECT_NE(direct(request("events.Last", "1")), "(time-out)");
    }
    EXPECT_TRUE(overtaken);
}

TEST_F(Events, AreLeftAloneByASecondServiceThatCannotStart) {
    start("3600000");
    ASSERT_EQ(member(member(call("events.Report", R"({"text":"one"})"), "result"), "number"), "1");
    ASSERT_EQ(shared_number(), 1);
    const std::vector<std::vector<std::string>> rows = {
        {"--publish", fleet.events_address},
        {"--script", "missing.txt"},
        {"--ports", "nonsense"},
        {"--socket", "second.sock", "--ports", "nonsense"},
        {"--socket", "second.sock", "--pull", fleet.pull_address},
    };
    for (const auto &row : rows) {
        std::vector<std::string> arguments = {
            TAVRIX_EVENTSD, "--publish", support::free_bus_address(), "--slot", fleet.slot, "--socket", "events.sock"};
        arguments.insert(arguments.end(), row.begin(), row.end());
        EXPECT_EQ(support::run(arguments).status, 1) << row.front();
        EXPECT_EQ(shared_number(), 1);
        EXPECT_EQ(member(member(direct(request("events.Last", "1")), "result"), "text"), "\"one\"") << row.front();
        EXPECT_EQ(access("second.sock", F_OK), -1);
    }
}

TEST_F(Events, LeaveTheSocketToTheServiceThatHasIt) {
    start("3600000");
    const Finished second = support::run(
        {TAVRIX_EVENTSD, "--publish", support::free_bus_address(), "--slot", fleet.slot, "--socket", "events.sock"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.diagnostics.find("Cannot listen on events.sock: another daemon serves there"), std::string::npos);
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013");
    fleet.events->signal(SIGKILL);
    fleet.events->wait();
    ASSERT_EQ(access("events.sock", F_OK), 0) << "left behind";
    fleet.start_events("3600000");
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013");
}

TEST_F(Events, PauseWhenTheSystemLacksDescriptors) {
    using Clock = std::chrono::steady_clock;
    start("3600000");
    rlimit before{};
    ASSERT_EQ(prlimit(fleet.events->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{8, before.rlim_max}; // enough for poll, which counts what it is given
    const auto begin = Clock::now();
    ASSERT_EQ(prlimit(fleet.events->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const StreamClient client = StreamClient::unix_path("events.sock");
    client.say(request("events.Last", "1"));
    EXPECT_TRUE(support::wait_until(
        [&] { return fleet.events->times_said("tavrix_socket_accept: Too many open files") >= 3; }));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(200)) << "they do not spin";
    ASSERT_EQ(prlimit(fleet.events->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    EXPECT_EQ(code_of(client.hear()), "-32013");
}

TEST_F(Events, RereadTheLoggersConfigurationWhenANotificationSaysSo) {
    support::BusSocket peer(TAVRIX_SP_PUB);
    const std::string address = support::free_bus_address();
    peer.bind(address);
    start_router();
    fleet.start_events("3600000", {"--connect", address});
    const char *level = "debug";
    for (const char *channel : {TAVRIX_CHANNEL_DEFAULT, TAVRIX_CHANNEL_EVENTS}) {
        support::write_file("tavrix_lsyslog.conf", std::string("[logging_levels]\neventsd=") + level + "\n");
        const std::string set = std::string("Logging level set to ") + level;
        const int before = fleet.events->times_said(set);
        EXPECT_TRUE(support::wait_until([&] { // the first ones may come before the connection stands
            tavrix_mq_socket_send(
                peer.number, (channel + std::string(R"(|{"jsonrpc":"2.0","method":"logger.ReloadConf"})")).c_str());
            return fleet.events->times_said(set) > before;
        })) << channel;
        level = "verbose";
    }
}

/** Of two services on a channel, the router hears one only. */
TEST_F(Events, AreNotReadyByAnotherServicesWelcome) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\neventsd=info\nunheard=info\n");
    const std::string unheard_slot = fleet.slot + "-unheard";
    fleet.start_router({"--connect", fleet.events_address, "--reply-timeout", "100"});
    Process unheard("unheard", {TAVRIX_EVENTSD, "--name", "unheard", "--publish", support::free_bus_address(),
                                "--connect", fleet.router_address, "--slot", unheard_slot});
    const auto number = [&] {
        int value = 0;
        tavrix_shm_get_int(unheard_slot.c_str(), &value);
        return value;
    };
    const auto reported = [&] {
        call("events.Report", R"({"text":"to both"})");
        return number() > 0;
    };
    ASSERT_TRUE(support::wait_until(reported)) << "it hears the router";
    fleet.start_events("3600000");
    const int before = number();
    call("events.Report", R"({"text":"after the welcome"})");
    EXPECT_TRUE(support::wait_until([&] { return number() > before; })) << "and has heard the welcome, too";
    EXPECT_EQ(unheard.times_said("unheard ready"), 0) << unheard.log();
    shm_unlink(unheard_slot.c_str());
}

TEST(Daemons, RefuseASocketPathThatIsNotTheirs) {
    Fleet fleet;
    support::write_file("notes.txt", "somebody's");
    const std::string too_long(108, 'q');
    for (const char *daemon : {TAVRIX_ROUTERD, TAVRIX_EVENTSD}) {
        const auto complaint = [&](const std::string &path) {
            const Finished finished =
                support::run({daemon, "--publish", support::free_bus_address(), "--socket", path});
            EXPECT_EQ(finished.status, 1) << daemon;
            return finished.diagnostics;
        };
        EXPECT_NE(complaint("notes.txt").find("Cannot listen on notes.txt: there is a file that is no socket"),
                  std::string::npos);
        EXPECT_EQ(support::read_file("notes.txt"), "somebody's");
        EXPECT_NE(complaint(too_long).find("a socket's path has at most 107 bytes"), std::string::npos);
        EXPECT_EQ(access(too_long.substr(0, 107).c_str(), F_OK), -1) << "not cut either";
    }
}

TEST(EventsDaemon, SaysWhatIsWrongWithItsScript) {
    Fleet fleet;
    for (const char *text : {"c1-1 sideways\n", "c129-1 up\n", "c1-1\n", "c1-1 up more\n"}) {
        support::write_file("bad.txt", std::string("# ok\n") + text);
        const Finished finished = support::run(
            {TAVRIX_EVENTSD, "--publish", fleet.events_address, "--script", "bad.txt", "--slot", fleet.slot});
        EXPECT_EQ(finished.status, 1) << text;
        EXPECT_NE(finished.diagnostics.find("bad.txt:2: a port id and up or down are wanted"), std::string::npos);
    }
    for (const std::string path : {"missing.txt", "."}) { // the second is a folder
        const Finished finished =
            support::run({TAVRIX_EVENTSD, "--publish", fleet.events_address, "--script", path, "--slot", fleet.slot});
        EXPECT_EQ(finished.status, 1) << path;
        EXPECT_NE(finished.diagnostics.find("Cannot read the script " + path), std::string::npos);
    }
}

TEST(EventsDaemon, TellsOfItsDefaultsAndLimitsInItsHelp) {
    const Finished help = support::run({TAVRIX_EVENTSD, "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *text : {"may be repeated (default tcp://127.0.0.1:7001)", "(default tcp://127.0.0.1:7003)",
                             "less than the router's --reply-timeout", "ports.WaitLinkChanged", "CAP_DAC_OVERRIDE"}) {
        EXPECT_NE(help.output.find(text), std::string::npos) << text;
    }
}
