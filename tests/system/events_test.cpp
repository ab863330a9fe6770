/*
 * The events service, and daemons that call daemons: requests and notifications both ways, direct and one-way requests,
 * shared state; services and routers that are killed in the middle of it.
 */
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"
#include "support/session.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"
#include "tavrix_shm.h"

using namespace support;

namespace {

constexpr char never_ms[] = "3600000";

Finished ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVRIXCTL);
    return support::run(arguments);
}

/** The events service played by the test: it tells of one link change. */
class PlayedEvents : public DirectService {
  public:
    PlayedEvents() : DirectService({"played-events", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.Get"])", "true"}) {}
    void tell(const std::string &entity) const {
        say(R"({"jsonrpc":"2.0","method":"events.LinkChanged","params":{"entity":")" + entity + "\"}}");
    }
};

/** The ports service played by the test. */
class PlayedPorts : public DirectService {
  public:
    PlayedPorts() : DirectService({"played-ports", TAVRIX_CHANNEL_FIRST, "[]", R"(["ports.Get"])", "true"}) {}
    void reply_with_ports(const std::string &to, const std::string &text) const {
        reply(to, R"({"ports":[")" + text + "\"]}");
    }
    /** Answers with `members` instead of a result. */
    void reply_with(const std::string &to, const std::string &members) const {
        say(R"({"jsonrpc":"2.0","id":"ports.Get",)" + members + ",\"transaction_id\":" + member(to, "transaction_id") +
            "}");
    }
};

class Events : public testing::Test {
  protected:
    void start(const std::string &interval_ms = "50", const std::string &wait_timeout_ms = "20000") {
        start_router();
        start_ports(wait_timeout_ms);
        fleet.start_events(interval_ms, {"--wait-timeout", wait_timeout_ms});
    }
    void start_router() { fleet.start_lone_router({"--reply-timeout", "60000"}); }
    void start_ports(const std::string &wait_timeout_ms = "20000") {
        fleet.start_ports({"--wait-timeout", wait_timeout_ms});
    }
    /** At debug level the services tell of each wait. */
    static void log_all() {
        support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\neventsd=debug\n");
    }
    std::string call(const std::string &method, const std::string &params = "{}") {
        return fleet.ask(request(method, "\"a\"", ",\"params\":" + params));
    }
    StreamClient begin_call(const std::string &method, const std::string &params = "{}") {
        StreamClient client = fleet.connect();
        client.say(request(method, "\"a\"", ",\"params\":" + params));
        return client;
    }
    StreamClient begin_describe(const std::string &port_id) {
        return begin_call("events.Describe", R"({"port_id":")" + port_id + "\"}");
    }
    /** So many callers of ports.WaitLinkChanged, whom the ports service knows of. */
    std::vector<StreamClient> begin_waits(int count) {
        const int before = fleet.ports->times_said(waiting);
        std::vector<StreamClient> clients;
        clients.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            clients.push_back(begin_call("ports.WaitLinkChanged"));
        }
        EXPECT_TRUE(support::wait_until([&] { return fleet.ports->times_said(waiting) == before + count; }));
        return clients;
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
    static bool has_answer(const StreamClient &client) {
        pollfd state{client.fd(), POLLIN, 0};
        return poll(&state, 1, 0) == 1;
    }
    std::string in_flight() { return member(member(call("router.Status"), "result"), "in_flight"); }
    void kill(std::unique_ptr<Process> &daemon) {
        daemon->signal(SIGKILL);
        EXPECT_EQ(daemon->wait(), 128 + SIGKILL);
    }
    static constexpr char waiting[] = "Waiting for events.LinkChanged";
    Fleet fleet;
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
    void start_all(const std::string &wait_timeout_ms = "20000") {
        start_router();
        ports = std::make_unique<PlayedPorts>();
        fleet.start_events(never_ms, {"--wait-timeout", wait_timeout_ms});
    }
    std::unique_ptr<PlayedPorts> ports;
};

} // namespace

// --- What the service does -----------------------------------------------------------------------------------------

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
    EXPECT_EQ(data_of(unknown), std::string(R"({"message":")") + tavrix_error_decode(TAVRIX_ERR_NO_RECORDS) + "\"}");
    EXPECT_EQ(code_of(call("events.Get")), "-32602");
}

TEST_F(Events, AreAwaitedOnTheBus) {
    start();
    const Finished finished = ctl({"wait", "events.LinkChanged", fleet.events_address});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(member(finished.output, "method"), "\"events.LinkChanged\"");
}

TEST_F(Events, ReachASessionThatSubscribes) {
    start();
    support::SessionClient session;
    EXPECT_EQ(member(session.ask(request("router.Subscribe", "1", R"(,"params":{"methods":["events.*"]})")), "result"),
              "0");
    EXPECT_EQ(member(member(session.hear_of("events.LinkChanged"), "params"), "kind"), "\"link\"");
}

TEST_F(Events, ReportTextsThatFitAndRefuseLongerOnes) {
    start(never_ms);
    const std::string fits(127, 'x');
    const std::string fits_with_a_character_of_two_bytes = std::string(126, 'x') + "\\u00e9";
    int number = 0;
    for (const std::string &text : {fits, fits_with_a_character_of_two_bytes}) {
        const std::string answer = call("events.Report", R"({"text":")" + text + "\"}");
        EXPECT_EQ(member(member(answer, "result"), "number"), std::to_string(++number)) << answer;
    }
    EXPECT_EQ(member(member(call("events.Get", R"({"number":1})"), "result"), "text"), "\"" + fits + "\"");
    for (const std::string &text : {fits + "x", fits + "\\u00e9", std::string(900, 'x')}) {
        const std::string answer = call("events.Report", R"({"text":")" + text + "\"}");
        EXPECT_EQ(code_of(answer), "-32602") << text;
        EXPECT_NE(message_of(answer).find("127"), std::string::npos) << answer;
    }
    EXPECT_EQ(member(member(call("events.Last"), "result"), "number"), "2") << "nothing was made of the others";
    EXPECT_EQ(code_of(call("events.Report")), "-32602");
    EXPECT_EQ(code_of(call("events.Report", R"({"text":7})")), "-32602");
}

TEST_F(Events, RereadTheLoggersConfigurationOverTheRouter) {
    start();
    log_all();
    EXPECT_EQ(member(call("logger.ReloadConf"), "result"), "0");
    EXPECT_TRUE(fleet.events->says("Logging level set to debug."));
    EXPECT_TRUE(fleet.ports->says("Logging level set to debug."));
}

TEST_F(Events, RereadTheLoggersConfigurationWhenANotificationSaysSo) {
    support::BusSocket peer(TAVRIX_SP_PUB);
    const std::string address = support::free_bus_address();
    peer.bind(address);
    start_router();
    fleet.start_events(never_ms, {"--connect", address});
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

// --- Sockets of its own --------------------------------------------------------------------------------------------

TEST_F(Events, AnswerDirectlyOnTheirOwnSocket) {
    start(never_ms);
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013") << "nothing has happened yet";
    const Finished reported =
        ctl({"call", "--full", "--direct", "events.sock", "events.Report", "text=door open", "--transaction", "4"});
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

TEST_F(Events, AreReadInPiecesWhileOthersAreServed) {
    start(never_ms);
    const std::string text = request("events.Last", "1");
    const StreamClient slow = StreamClient::unix_path("events.sock");
    for (const char letter : text) {
        EXPECT_FALSE(has_answer(slow));
        slow.say(std::string(1, letter));
        EXPECT_EQ(code_of(direct(text)), "-32013"); // by now the letter has been read
    }
    EXPECT_EQ(code_of(slow.hear()), "-32013");
}

TEST_F(Events, AreNotHeldUpBySilentClients) {
    start(never_ms);
    std::vector<StreamClient> silent;
    for (int i = 0; i < 50; ++i) {
        silent.push_back(StreamClient::unix_path("events.sock"));
        EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013") << i;
    }
    EXPECT_EQ(code_of(call("events.Last")), "-32013") << "over the router too";
    for (const StreamClient &client : silent) {
        EXPECT_FALSE(has_answer(client)) << "it has as much time as before";
        client.say(request("events.Last", "1"));
        EXPECT_EQ(code_of(client.hear()), "-32013");
    }
}

TEST_F(Events, AnswerEverybodyWhoCameWhileTheyWereStopped) {
    start(never_ms);
    fleet.events->signal(SIGSTOP);
    std::vector<StreamClient> clients;
    for (int i = 0; i < 400; ++i) { // more than are served at once
        clients.push_back(StreamClient::unix_path("events.sock"));
        clients.back().say(request("events.Last", "1"));
    }
    fleet.events->signal(SIGCONT);
    for (const StreamClient &client : clients) {
        EXPECT_EQ(code_of(client.hear()), "-32013");
    }
}

TEST_F(Events, PauseOnTheirSocketWhenTheSystemLacksDescriptors) {
    start(never_ms);
    EXPECT_EQ(code_of(call("events.Last")), "-32013") << "and so its slot has been written";
    rlimit before{};
    ASSERT_EQ(prlimit(fleet.events->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{3, before.rlim_max};
    ASSERT_EQ(prlimit(fleet.events->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const StreamClient client = StreamClient::unix_path("events.sock");
    client.say(request("events.Last", "1"));
    EXPECT_TRUE(support::wait_until(
        [&] { return fleet.events->times_said("Cannot accept a client: Too many open files") >= 3; }));
    EXPECT_EQ(code_of(call("events.Last")), "-32013") << "who comes over the router is served";
    ASSERT_EQ(prlimit(fleet.events->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    EXPECT_EQ(code_of(client.hear()), "-32013");
}

TEST_F(Events, TakeOneWayReports) {
    start(never_ms);
    EXPECT_EQ(ctl({"push", fleet.pull_address, "events.Report", R"({"text":"one way"})"}).status, 0);
    ASSERT_TRUE(support::wait_until([&] { return shared_number() == 1; }));
    EXPECT_EQ(member(member(call("events.Last"), "result"), "text"), "\"one way\"");
    EXPECT_EQ(ctl({"shm", "get", fleet.slot, "--int"}).output, "1\n");
}

TEST_F(Events, GoOnWhenAReportHasGoneWithItsSender) {
    start(never_ms);
    for (int i = 0; i < 20; ++i) {
        ResettingPusher pusher(fleet.pull_address);
        pusher.push(R"({"jsonrpc":"2.0","method":"events.Report","params":{"text":"lost"},"id":"1"})");
        pusher.reset();
        EXPECT_NE(direct(request("events.Last", "1")), "(time-out)");
    }
    EXPECT_EQ(ctl({"push", fleet.pull_address, "events.Report", R"({"text":"arrives"})"}).status, 0);
    EXPECT_TRUE(
        support::wait_until([&] { return member(member(call("events.Last"), "result"), "text") == "\"arrives\""; }));
}

// --- A service that asks another -----------------------------------------------------------------------------------

TEST_F(Events, DescribeAPortByAskingThePortsService) {
    start();
    const std::string answer = call("events.Describe", R"({"port_id":"c1-1"})");
    EXPECT_NE(member(answer, "result").find(R"("ports":[{"port_id":"c1-1","status":"enable")"), std::string::npos)
        << answer;
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"c1-99"})")), "-32034") << "the other service's error";
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"x"})")), "-32602");
    const std::string in_person = direct(request("events.Describe", "1", R"(,"params":{"port_id":"d1"})"));
    EXPECT_NE(member(in_person, "result").find(R"("ports":[{"port_id":"d1")"), std::string::npos) << in_person;
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

TEST_F(EventsWithPlayedPorts, AreDescribedEachByTheReplyToItsOwnQuestion) {
    start_all();
    std::vector<StreamClient> clients;
    std::vector<std::string> questions;
    for (const char *port_id : {"c1-1", "c1-2", "c1-3", "c1-4"}) {
        clients.push_back(begin_describe(port_id));
        questions.push_back(ports->next_request());
        EXPECT_EQ(member(member(questions.back(), "params"), "port_id"), std::string("\"") + port_id + "\"");
    }
    for (size_t i = questions.size(); i-- > 0;) { // the last one first
        ports->reply_with_ports(questions[i], "answer " + std::to_string(i));
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(member(member(clients[i].hear(), "result"), "ports"), "[\"answer " + std::to_string(i) + "\"]");
    }
}

TEST_F(EventsWithPlayedPorts, ServeOthersWhileTheyWaitForASlowPortsService) {
    start_all();
    const StreamClient client = begin_describe("c1-1");
    const std::string question = ports->next_request();
    EXPECT_EQ(code_of(call("events.Last")), "-32013");
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013");
    EXPECT_FALSE(has_answer(client));
    ports->reply_with_ports(question, "slow");
    EXPECT_EQ(member(member(client.hear(), "result"), "ports"), R"(["slow"])");
}

TEST_F(EventsWithPlayedPorts, PassTheErrorOfThePortsServiceOnWithItsData) {
    start_all();
    const struct {
        const char *members;
        const char *code;
        const char *data;
    } rows[] = {
        {R"("error":{"code":-32034,"message":"m","data":{"message":"why","more":[1]}})", "-32034",
         R"({"message":"why","more":[1]})"},
        {R"("error":{"code":-32034,"message":"m","data":null})", "-32034", "null"},
        {R"("error":{"code":-32034,"message":"m"})", "-32034", "null"},
        {R"("result":0)", "-32603", "null"},
        {R"("result":{})", "-32603", "null"},
    };
    for (const auto &row : rows) {
        const StreamClient client = begin_describe("c1-1");
        ports->reply_with(ports->next_request(), row.members);
        const std::string answer = client.hear();
        EXPECT_EQ(code_of(answer), row.code) << row.members;
        EXPECT_EQ(data_of(answer), row.data) << row.members << answer;
    }
}

TEST_F(EventsWithPlayedPorts, GiveUpAfterTheirTimeAndForgetTheLateReply) {
    start_all("300");
    const StreamClient given_up = begin_describe("c1-1");
    const std::string first = ports->next_request();
    EXPECT_EQ(code_of(given_up.hear()), "-32005");
    ports->reply_with_ports(first, "late");
    for (int attempt = 0; attempt < 100; ++attempt) { // on a slow machine the time may be over before the reply
        const StreamClient client = begin_describe("c1-2");
        ports->reply_with_ports(ports->next_request(), "right");
        const std::string answer = client.hear();
        if (code_of(answer) != "-32005") {
            EXPECT_EQ(member(member(answer, "result"), "ports"), R"(["right"])");
            return;
        }
    }
    FAIL() << "no reply ever came in time";
}

TEST_F(EventsWithPlayedPorts, GoOnWhenTheCallerOfADescriptionHasGone) {
    start_all();
    StreamClient over_the_router = begin_describe("c1-1");
    const std::string first = ports->next_request();
    over_the_router.close();
    StreamClient in_person = StreamClient::unix_path("events.sock");
    in_person.say(request("events.Describe", "1", R"(,"params":{"port_id":"c1-2"})"));
    const std::string second = ports->next_request();
    in_person.close();
    EXPECT_EQ(code_of(call("events.Last")), "-32013");
    ports->reply_with_ports(first, "for nobody");
    ports->reply_with_ports(second, "for nobody");
    const StreamClient client = begin_describe("c1-3");
    ports->reply_with_ports(ports->next_request(), "for one who is there");
    EXPECT_EQ(member(member(client.hear(), "result"), "ports"), R"(["for one who is there"])");
    EXPECT_EQ(in_flight(), "0");
}

TEST_F(Events, AnswerAtOnceWhenThereIsNoPortsService) {
    start_router();
    fleet.start_events(never_ms, {"--wait-timeout", "50000"}); // longer than this test waits
    const std::string answer = call("events.Describe", R"({"port_id":"c1-1"})");
    EXPECT_EQ(code_of(answer), "-32601");
    EXPECT_EQ(message_of(answer), "\"no service is there for ports.Get\"");
    start_ports();
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"c1-1"})")), "(none)") << "as soon as it is there";
}

TEST_F(Events, AnswerAtOnceWhenThePortsServiceIsKilledInMidRequest) {
    start(never_ms, "50000");
    fleet.ports->signal(SIGSTOP); // it receives the request, but never gets to it
    const StreamClient client = begin_describe("c1-1");
    EXPECT_TRUE(support::wait_until([&] { return in_flight() == "2"; })); // the caller's, and the service's own
    kill(fleet.ports);
    const std::string answer = client.hear();
    EXPECT_EQ(code_of(answer), "-32601");
    EXPECT_EQ(message_of(answer), "\"portsd, which serves ports.Get, is not there\"");
    start_ports();
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"c1-1"})")), "(none)");
}

// --- A service that waits for another ------------------------------------------------------------------------------

TEST_F(Events, AreAwaitedByThePortsService) {
    start();
    const std::string answer = call("ports.WaitLinkChanged");
    EXPECT_EQ(member(member(answer, "result"), "kind"), "\"link\"") << answer;
}

TEST_F(Events, AreAwaitedBySeveralAtOnceWhileThePortsServiceServesOthers) {
    log_all();
    start_router();
    start_ports();
    const PlayedEvents events;
    const std::vector<StreamClient> clients = begin_waits(20);
    for (const StreamClient &client : clients) {
        EXPECT_FALSE(has_answer(client));
        EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "(none)");
    }
    events.tell("d3");
    for (const StreamClient &client : clients) {
        EXPECT_EQ(member(client.hear(), "result"), R"({"entity":"d3"})");
    }
    const std::vector<StreamClient> later = begin_waits(1);
    EXPECT_FALSE(has_answer(later[0])) << "what was told before is none of his";
    events.tell("d4");
    EXPECT_EQ(member(later[0].hear(), "result"), R"({"entity":"d4"})");
}

TEST_F(Events, ThatNobodyWaitsForAnyMoreDisturbNoOther) {
    log_all();
    start_router();
    start_ports("50000");
    const PlayedEvents events;
    std::vector<StreamClient> abandoned = begin_waits(10);
    const std::vector<StreamClient> patient = begin_waits(1);
    for (StreamClient &client : abandoned) {
        client.close();
        EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "(none)");
    }
    EXPECT_TRUE(support::wait_until([&] { return fleet.ports->times_said("ports.WaitLinkChanged: cancelled") == 10; }));
    EXPECT_EQ(in_flight(), "1");
    events.tell("d3");
    EXPECT_EQ(member(patient[0].hear(), "result"), R"({"entity":"d3"})");
    EXPECT_EQ(fleet.router->times_said("left-over reply"), 0) << "nothing is answered to those who have gone";
}

TEST_F(Events, ThatDoNotComeEndTheWaitInItsTimeOnly) {
    log_all();
    start_router();
    start_ports("300");
    const std::vector<StreamClient> clients = begin_waits(3);
    EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "(none)");
    for (const StreamClient &client : clients) {
        EXPECT_EQ(code_of(client.hear()), "-32005");
    }
    const PlayedEvents events;
    events.tell("d3"); // nobody is left who could be answered
    EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "(none)");
    EXPECT_EQ(in_flight(), "0");
}

TEST_F(Events, AreAwaitedByThePortsServiceWhateverSignalsCome) {
    log_all();
    start_router();
    start_ports("60000");
    const PlayedEvents events;
    const std::vector<StreamClient> clients = begin_waits(1);
    constexpr char reloaded[] = "Logging level set to debug.";
    const int reloads = fleet.ports->times_said(reloaded);
    for (int i = 1; i <= 12; ++i) {
        fleet.ports->signal(SIGHUP);
        ASSERT_TRUE(support::wait_until([&] { return fleet.ports->times_said(reloaded) == reloads + i; })) << i;
    }
    EXPECT_FALSE(has_answer(clients[0]));
    events.tell("d3");
    EXPECT_EQ(member(clients[0].hear(), "result"), R"({"entity":"d3"})");
}

TEST_F(Events, AreAwaitedByThePortsServiceThatTheyAskMeanwhile) {
    log_all();
    start("1000");
    const std::vector<StreamClient> waits = begin_waits(8);
    std::vector<StreamClient> descriptions;
    descriptions.reserve(waits.size());
    for (size_t i = 0; i < waits.size(); ++i) {
        descriptions.push_back(begin_describe("d1"));
    }
    for (const StreamClient &client : descriptions) {
        EXPECT_NE(member(client.hear(), "result").find(R"("ports":[{"port_id":"d1")"), std::string::npos);
    }
    for (const StreamClient &client : waits) {
        EXPECT_EQ(member(member(client.hear(), "result"), "kind"), "\"link\"");
    }
}

TEST_F(Events, AreServedUnharmedInAStormOfReloads) {
    start("1");
    EXPECT_TRUE(support::wait_until([&] { return code_of(call("events.Last")) == "(none)"; })) << "the first event";
    for (int i = 0; i < 40; ++i) {
        fleet.events->signal(SIGHUP);
        fleet.ports->signal(SIGHUP);
        const std::string described = i % 2 == 0
                                          ? call("events.Describe", R"({"port_id":"d1"})")
                                          : direct(request("events.Describe", "1", R"(,"params":{"port_id":"d1"})"));
        fleet.events->signal(SIGHUP);
        EXPECT_NE(member(described, "result").find(R"("ports":[{"port_id":"d1")"), std::string::npos) << described;
        const std::string latest = direct(request("events.Last", "1"));
        EXPECT_NE(member(latest, "result"), "(none)") << i << ": " << latest;
        fleet.ports->signal(SIGHUP);
        EXPECT_NE(member(call("ports.Get", R"({"port_id":"d1"})"), "result"), "(none)");
    }
    EXPECT_EQ(member(member(call("ports.WaitLinkChanged"), "result"), "kind"), "\"link\"");
}

// --- The end of a service, and of the router -----------------------------------------------------------------------

TEST_F(Events, AreKilledWithACallInFlightAndServeAgainAfterwards) {
    start(never_ms);
    fleet.events->signal(SIGSTOP);
    const StreamClient client = begin_call("events.Last");
    EXPECT_TRUE(support::wait_until([&] { return in_flight() == "1"; }));
    kill(fleet.events);
    const std::string answer = client.hear();
    EXPECT_EQ(code_of(answer), "-32601");
    EXPECT_EQ(message_of(answer), "\"eventsd, which serves events.Last, is not there\"");
    EXPECT_EQ(code_of(call("events.Last")), "-32601") << "who comes later is told as well";
    fleet.start_events(never_ms);
    EXPECT_EQ(code_of(call("events.Last")), "-32013") << "it is there, and nothing has happened yet";
}

TEST_F(EventsWithPlayedPorts, AreKilledBetweenTheirQuestionAndItsReply) {
    start_all();
    const StreamClient client = begin_describe("c1-1");
    const std::string question = ports->next_request();
    kill(fleet.events);
    EXPECT_EQ(code_of(client.hear()), "-32601");
    ports->reply_with_ports(question, "for nobody");
    fleet.start_events(never_ms);
    const StreamClient again = begin_describe("c1-2");
    ports->reply_with_ports(ports->next_request(), "right");
    EXPECT_EQ(member(member(again.hear(), "result"), "ports"), R"(["right"])");
}

TEST_F(Events, AreAwaitedOnWhenTheirServiceWasKilledAndCameBack) {
    log_all();
    start(never_ms, "50000");
    const std::vector<StreamClient> clients = begin_waits(3);
    kill(fleet.events);
    EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "(none)");
    fleet.start_events("20");
    for (const StreamClient &client : clients) {
        EXPECT_EQ(member(member(client.hear(), "result"), "kind"), "\"link\"");
    }
}

TEST_F(Events, AreAwaitedAgainWhenThePortsServiceWasKilled) {
    log_all();
    start(never_ms, "50000");
    const std::vector<StreamClient> clients = begin_waits(3);
    kill(fleet.ports);
    for (const StreamClient &client : clients) {
        EXPECT_EQ(code_of(client.hear()), "-32601") << "at once, and not when the wait is over";
    }
    start_ports("50000");
    const std::vector<StreamClient> again = begin_waits(3);
    fleet.start_events("20");
    for (const StreamClient &client : again) {
        EXPECT_EQ(member(member(client.hear(), "result"), "kind"), "\"link\"");
    }
}

TEST_F(Events, GoOnWithARouterThatWasKilledWithCallsInFlight) {
    log_all();
    start(never_ms, "50000");
    const std::vector<StreamClient> waits = begin_waits(3);
    fleet.ports->signal(SIGSTOP);
    const StreamClient described = StreamClient::unix_path("events.sock");
    described.say(request("events.Describe", "1", R"(,"params":{"port_id":"d1"})"));
    EXPECT_TRUE(support::wait_until([&] { return in_flight() == "4"; }));
    kill(fleet.router);
    fleet.ports->signal(SIGCONT);
    for (const StreamClient &client : waits) {
        EXPECT_EQ(client.hear(), "");
    }
    EXPECT_EQ(code_of(described.hear()), "-32601") << "the question that went with the router";
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013") << "no router is needed here";
    start_router();
    EXPECT_TRUE(fleet.router->says("Service portsd settled")) << "by itself";
    EXPECT_TRUE(fleet.router->says("Service eventsd settled")) << "by itself";
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"d1"})")), "(none)");
    const std::vector<StreamClient> again = begin_waits(3);
    fleet.start_events("20");
    for (const StreamClient &client : again) {
        EXPECT_EQ(member(member(client.hear(), "result"), "kind"), "\"link\"") << "it is subscribed again as well";
    }
}

TEST_F(EventsWithPlayedPorts, StopCleanlyAlsoWhileTheyWaitForAReply) {
    start_all();
    const StreamClient over_the_router = begin_describe("d1");
    EXPECT_NE(ports->next_request(), "(time-out)");
    const StreamClient in_person = StreamClient::unix_path("events.sock");
    in_person.say(request("events.Describe", "1", R"(,"params":{"port_id":"d1"})"));
    EXPECT_NE(ports->next_request(), "(time-out)");
    fleet.events->signal(SIGTERM);
    EXPECT_EQ(fleet.events->wait(), 0) << fleet.events->log();
    EXPECT_EQ(code_of(over_the_router.hear()), "-32014");
    EXPECT_EQ(code_of(in_person.hear()), "-32014");
    EXPECT_EQ(access("events.sock", F_OK), -1);
}

TEST_F(Events, StopThePortsServiceWhileItWaitsForThem) {
    log_all();
    start(never_ms);
    const std::vector<StreamClient> clients = begin_waits(3);
    fleet.ports->signal(SIGTERM);
    EXPECT_EQ(fleet.ports->wait(), 0) << fleet.ports->log();
    for (const StreamClient &client : clients) {
        EXPECT_EQ(code_of(client.hear()), "-32014");
    }
}

TEST_F(Events, StopOnInterruptFromTheKeyboard) {
    start();
    fleet.events->signal(SIGINT);
    EXPECT_EQ(fleet.events->wait(), 0);
    EXPECT_NE(fleet.events->log().find("eventsd stopped"), std::string::npos);
}

// --- Starting ------------------------------------------------------------------------------------------------------

TEST_F(Events, AreLeftAloneByASecondServiceThatCannotStart) {
    start(never_ms);
    ASSERT_EQ(member(member(call("events.Report", R"({"text":"one"})"), "result"), "number"), "1");
    ASSERT_EQ(shared_number(), 1);
    const std::vector<std::vector<std::string>> rows = {
        {"--publish", fleet.events_address},
        {"--socket", "second.sock", "--script", "missing.txt"},
        {"--socket", "second.sock", "--connect", "nonsense"},
        {"--socket", "second.sock", "--pull", fleet.pull_address},
        {"--socket", "events.sock"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> arguments = {TAVRIX_EVENTSD, "--publish",    support::free_bus_address(),
                                              "--session",    "missing.sock", "--slot",
                                              fleet.slot};
        arguments.insert(arguments.end(), row.begin(), row.end());
        EXPECT_EQ(support::run(arguments).status, 1) << row.back();
        EXPECT_EQ(shared_number(), 1) << row.back();
        EXPECT_EQ(member(member(direct(request("events.Last", "1")), "result"), "text"), "\"one\"") << row.back();
        EXPECT_EQ(access("second.sock", F_OK), -1) << row.back();
    }
}

TEST_F(Events, LeaveTheSocketToTheServiceThatHasIt) {
    start(never_ms);
    const Finished second = support::run(
        {TAVRIX_EVENTSD, "--publish", support::free_bus_address(), "--slot", fleet.slot, "--socket", "events.sock"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.diagnostics.find("Cannot listen on events.sock: another daemon serves there"), std::string::npos);
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013");
    kill(fleet.events);
    ASSERT_EQ(access("events.sock", F_OK), 0) << "left behind";
    fleet.start_events(never_ms);
    EXPECT_EQ(code_of(direct(request("events.Last", "1"))), "-32013");
}

TEST_F(Events, AreRegisteredAndSharedOnce) {
    start(never_ms);
    ASSERT_EQ(member(member(call("events.Report", R"({"text":"one"})"), "result"), "number"), "1");
    Process second("second", {TAVRIX_EVENTSD, "--session", "session.sock", "--publish", support::free_bus_address(),
                              "--slot", fleet.slot, "--socket", "second.sock"});
    EXPECT_TRUE(second.says("a service of this name is registered already"));
    EXPECT_EQ(second.times_said("eventsd ready"), 0);
    for (int number = 1; number <= 3; ++number) { // more than the first has
        const StreamClient client = StreamClient::unix_path("second.sock");
        client.say(request("events.Report", "1", R"(,"params":{"text":"the second's"})"));
        EXPECT_EQ(member(member(client.hear(), "result"), "number"), std::to_string(number));
        EXPECT_EQ(shared_number(), 1) << "the slot is the first's";
    }
    fleet.events->signal(SIGTERM);
    EXPECT_EQ(fleet.events->wait(), 0);
    EXPECT_TRUE(second.says("eventsd ready")) << "it takes the place of the one that has gone";
    EXPECT_EQ(member(member(call("events.Last"), "result"), "number"), "3");
    EXPECT_TRUE(support::wait_until([&] { return shared_number() == 3; })) << "and its slot";
}

TEST_F(Events, EndWhenTheirNumberCannotBeShared) {
    start_router();
    const Finished finished = support::run(
        {TAVRIX_EVENTSD, "--session", "session.sock", "--publish", support::free_bus_address(), "--slot", "/no/slot"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.diagnostics.find("Cannot share the last event's number in /no/slot: Invalid argument; is the "
                                        "slot another user's? --slot names another"),
              std::string::npos)
        << finished.diagnostics;
}

TEST(Daemons, RefuseASocketPathThatIsNotTheirs) {
    Fleet fleet;
    support::write_file("notes.txt", "somebody's");
    const std::string too_long(108, 'q');
    for (const char *daemon : {TAVRIX_ROUTERD, TAVRIX_EVENTSD}) {
        const auto complaint = [&](const std::string &path) {
            const Finished finished = support::run(
                {daemon, "--publish", support::free_bus_address(), "--session", "missing.sock", "--socket", path});
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
        const std::string reason = std::strerror(path == "." ? EISDIR : ENOENT);
        EXPECT_NE(finished.diagnostics.find("Cannot read the script " + path + ": " + reason + "\n"), std::string::npos)
            << finished.diagnostics;
    }
}

TEST(EventsDaemon, TellsOfItsDefaultsAndLimitsInItsHelp) {
    const Finished help = support::run({TAVRIX_EVENTSD, "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *text : {"(default /run/tavrix/session.sock)", "(default: one in the router's bus folder)",
                             "(default 5000)", "less than the router's --reply-timeout", "CAP_DAC_OVERRIDE"}) {
        EXPECT_NE(help.output.find(text), std::string::npos) << text << "\n" << help.output;
    }
}
