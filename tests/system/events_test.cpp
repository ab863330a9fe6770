/*
 * The events service, and daemons that call daemons: requests and notifications both ways, direct and one-way requests,
 * shared state; services and routers that are killed in the middle of it.
 */
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/system_test.h"
#include "tavrix_jrpc.h"
#include "tavrix_shm.h"

using namespace support;
using namespace testing;

namespace {

constexpr char never_ms[] = "3600000";
constexpr char d1[] = R"({"port_id":"d1"})";
constexpr char shows_d1[] = R"("ports":[{"port_id":"d1")";

/** The events service played by the test: it tells of one link change. */
class PlayedEvents : public DirectService {
  public:
    PlayedEvents() : DirectService({"played-events", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.Get"])", "true"}) {}
    void tell(const std::string &entity) const {
        say(notification("events.LinkChanged", R"({"entity":")" + entity + "\"}"));
    }
};

class PlayedPorts : public DirectService {
  public:
    void reply_with_ports(const std::string &to, const std::string &text) const {
        reply(to, R"({"ports":[")" + text + "\"]}");
    }
};

class Events : public testing::Test {
  protected:
    Events() { write_log_levels("routerd=info\nportsd=debug\neventsd=debug"); } // the services tell of each wait
    void start(const std::string &interval_ms = "50", const std::string &wait_timeout_ms = "20000") {
        start_router();
        start_ports(wait_timeout_ms);
        fleet.start_events(interval_ms, {"--wait-timeout", wait_timeout_ms});
    }
    void start_router() { fleet.start_lone_router({"--reply-timeout", "60000"}); }
    void start_ports(const std::string &wait_timeout_ms = "20000") {
        fleet.start_ports({"--wait-timeout", wait_timeout_ms});
    }
    std::string call(const std::string &method, const std::string &params = "{}") {
        return fleet.ask(request(method, "\"a\"", ",\"params\":" + params));
    }
    static std::string direct(const std::string &text) { return StreamClient::unix_path("events.sock").ask(text); }
    static std::string last_directly() { return direct(request("events.Last", "1")); }
    StreamClient begin_call(const std::string &method, const std::string &params = "{}") {
        StreamClient client = fleet.connect();
        client.say(request(method, "\"a\"", ",\"params\":" + params));
        return client;
    }
    StreamClient begin_describe(const std::string &port_id) {
        return begin_call("events.Describe", R"({"port_id":")" + port_id + "\"}");
    }
    static StreamClient begin_describe_directly() {
        StreamClient client = StreamClient::unix_path("events.sock");
        client.say(request("events.Describe", "1", std::string(",\"params\":") + d1));
        return client;
    }
    /** So many callers of ports.WaitLinkChanged, whom the ports service knows of. */
    std::vector<StreamClient> begin_waits(int count) {
        constexpr char waiting[] = "Waiting for events.LinkChanged";
        const int before = fleet.ports->times_said(waiting);
        std::vector<StreamClient> clients;
        for (int i = 0; i < count; ++i) {
            clients.push_back(begin_call("ports.WaitLinkChanged"));
        }
        EXPECT_TRUE(wait_until([&] { return fleet.ports->times_said(waiting) == before + count; }));
        return clients;
    }
    static void expect_link_changes(const std::vector<StreamClient> &clients) {
        for (const StreamClient &client : clients) {
            EXPECT_EQ(result_of(client.hear(), "kind"), "\"link\"");
        }
    }
    static bool has_answer(const StreamClient &client) {
        pollfd state{client.fd(), POLLIN, 0};
        return poll(&state, 1, 0) == 1;
    }
    int shared_number() const {
        int number = -1;
        tavrix_shm_get_int(fleet.slot.c_str(), &number);
        return number;
    }
    static void kill(const std::unique_ptr<Process> &daemon) { EXPECT_EQ(daemon->end_by(SIGKILL), 128 + SIGKILL); }
    Fleet fleet;
};

/** A one-way sender that takes what is on its way along when it goes: the connection is reset. */
void push_and_reset(const std::string &address, const std::string &text) {
    StreamClient stream = StreamClient::tcp_port(std::stoi(address.substr(address.rfind(':') + 1)));
    stream.say(std::string("\0SP\0\0\x50\0\0", 8));                           // the bus's greeting of a PUSH socket
    stream.say(std::string(7, '\0') + static_cast<char>(text.size()) + text); // the length has eight bytes
    const linger at_once{1, 0};
    setsockopt(stream.fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

/** The events service between the router and played ports. */
class EventsWithPlayedPorts : public Events {
  protected:
    EventsWithPlayedPorts() {
        start_router();
        ports.emplace();
        fleet.start_events(never_ms, {"--wait-timeout", "20000"});
    }
    std::optional<PlayedPorts> ports;
};

} // namespace

TEST_F(Events, PlayTheirScriptInTurnAndShareTheLastNumber) {
    start();
    ASSERT_TRUE(wait_until([&] { return shared_number() >= 3; }));
    EXPECT_EQ(result_of(call("events.Get", R"({"number":2})")),
              R"({"number":2,"kind":"link","entity":"d2","text":"down"})");
    EXPECT_EQ(result_of(call("events.Get", R"({"number":3})"), "entity"), "\"c1-1\"") << "again from its start";
}

TEST_F(Events, RereadTheLoggersConfigurationOverTheRouter) {
    start();
    write_log_levels("routerd=verbose\nportsd=verbose\neventsd=verbose");
    EXPECT_EQ(result_of(call("logger.ReloadConf")), "0");
    for (const Process *daemon : {fleet.router.get(), fleet.ports.get(), fleet.events.get()}) {
        EXPECT_TRUE(daemon->says("Logging level set to verbose."));
    }
}

TEST_F(Events, AnswerDirectlyOnTheirOwnSocket) {
    start(never_ms);
    EXPECT_EQ(code_of(last_directly()), "-32013") << "nothing has happened yet";
    EXPECT_THAT(
        ctl({"call", "--full", "--direct", "events.sock", "events.Report", "text=door open", "--transaction", "4"}),
        prints(R"({"jsonrpc":"2.0","id":"events.Report","result":{"number":1,"kind":"report","entity":"",)"
               R"("text":"door open"},"transaction_id":4})"
               "\n"));
    EXPECT_EQ(result_of(last_directly(), "text"), "\"door open\"");
    EXPECT_EQ(direct(R"({"jsonrpc":"2.0","method":"events.Last"})"), "") << "a notification";
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
    std::optional<FewDescriptors> few(std::in_place, *fleet.events, 3);
    const StreamClient client = StreamClient::unix_path("events.sock");
    client.say(request("events.Last", "1"));
    EXPECT_TRUE(
        wait_until([&] { return fleet.events->times_said("Cannot accept a client: Too many open files") >= 3; }));
    EXPECT_EQ(code_of(call("events.Last")), "-32013") << "who comes over the router is served";
    few.reset();
    EXPECT_EQ(code_of(client.hear()), "-32013");
}

TEST_F(Events, TakeOneWayReports) {
    start(never_ms);
    for (int i = 0; i < 20; ++i) {
        push_and_reset(fleet.pull_address,
                       R"({"jsonrpc":"2.0","method":"events.Report","params":{"text":"lost"},"id":"1"})");
        EXPECT_NE(last_directly(), "(time-out)");
    }
    EXPECT_EQ(ctl({"push", fleet.pull_address, "events.Report", R"({"text":"arrives"})"}).status, 0);
    EXPECT_TRUE(wait_until([&] { return result_of(call("events.Last"), "text") == "\"arrives\""; }));
    EXPECT_EQ(ctl({"shm", "get", fleet.slot, "--int"}).output, std::to_string(shared_number()) + "\n");
}

TEST_F(Events, DescribeAPortByAskingThePortsService) {
    start();
    ASSERT_TRUE(wait_until([&] { return shared_number() >= 1; }));
    const std::string answer = call("events.Describe", R"({"port_id":"C1-1"})");
    EXPECT_THAT(result_of(answer), HasSubstr(R"("ports":[{"port_id":"c1-1","status":"enable")"));
    EXPECT_EQ(member(result_of(answer, "last_event"), "entity"), "\"c1-1\"");
    EXPECT_EQ(code_of(call("events.Describe", R"({"port_id":"c1-99"})")), "-32034") << "the other service's error";
    EXPECT_THAT(result_of(begin_describe_directly().hear()), HasSubstr(shows_d1));
}

TEST_F(EventsWithPlayedPorts, AreDescribedEachByTheReplyToItsOwnQuestion) {
    std::vector<StreamClient> clients;
    std::vector<std::string> questions;
    for (const char *port_id : {"c1-1", "c1-2", "c1-3", "c1-4"}) {
        clients.push_back(begin_describe(port_id));
        questions.push_back(ports->next_request());
        EXPECT_EQ(member(member(questions.back(), "params"), "port_id"), std::string("\"") + port_id + "\"");
    }
    EXPECT_EQ(code_of(call("events.Last")), "-32013") << "others are served meanwhile";
    EXPECT_EQ(code_of(last_directly()), "-32013");
    for (size_t i = questions.size(); i-- > 0;) { // the last one first
        EXPECT_FALSE(has_answer(clients[i]));
        ports->reply_with_ports(questions[i], "answer " + std::to_string(i));
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(result_of(clients[i].hear(), "ports"), "[\"answer " + std::to_string(i) + "\"]");
    }
}

TEST_F(EventsWithPlayedPorts, GoOnWhenTheCallerOfADescriptionHasGone) {
    StreamClient over_the_router = begin_describe("c1-1");
    const std::string first = ports->next_request();
    over_the_router.close();
    StreamClient in_person = begin_describe_directly();
    const std::string second = ports->next_request();
    in_person.close();
    EXPECT_EQ(code_of(call("events.Last")), "-32013");
    ports->reply_with_ports(first, "for nobody");
    ports->reply_with_ports(second, "for nobody");
    const StreamClient client = begin_describe("c1-3");
    ports->reply_with_ports(ports->next_request(), "shown");
    EXPECT_EQ(result_of(client.hear(), "ports"), R"(["shown"])");
    EXPECT_EQ(fleet.status("in_flight"), "0");
}

TEST_F(Events, AnswerAtOnceWhenThePortsServiceIsKilledInMidRequest) {
    start(never_ms, "50000");
    fleet.ports->signal(SIGSTOP); // it receives the request, but never gets to it
    const StreamClient client = begin_describe("c1-1");
    EXPECT_TRUE(wait_until([&] { return fleet.status("in_flight") == "2"; })); // the caller's, and the service's own
    kill(fleet.ports);
    EXPECT_EQ(error_of(client.hear()), "-32601 portsd, which serves ports.Get, is not there");
    start_ports();
    EXPECT_EQ(code_of(call("events.Describe", d1)), "(none)");
}

TEST_F(Events, AreAwaitedBySeveralAtOnceWhileThePortsServiceServesOthers) {
    start_router();
    start_ports();
    const PlayedEvents events;
    const std::vector<StreamClient> clients = begin_waits(20);
    for (const StreamClient &client : clients) {
        EXPECT_FALSE(has_answer(client));
        EXPECT_EQ(code_of(call("ports.Get", d1)), "(none)");
    }
    events.tell("d3");
    for (const StreamClient &client : clients) {
        EXPECT_EQ(result_of(client.hear()), R"({"entity":"d3"})");
    }
    const std::vector<StreamClient> later = begin_waits(1);
    EXPECT_FALSE(has_answer(later[0])) << "what was told before is none of his";
    events.tell("d4");
    EXPECT_EQ(result_of(later[0].hear()), R"({"entity":"d4"})");
}

TEST_F(Events, ThatNobodyWaitsForAnyMoreDisturbNoOther) {
    start_router();
    start_ports("50000");
    const PlayedEvents events;
    std::vector<StreamClient> abandoned = begin_waits(10);
    const std::vector<StreamClient> patient = begin_waits(1);
    for (StreamClient &client : abandoned) {
        client.close();
        EXPECT_EQ(code_of(call("ports.Get", d1)), "(none)");
    }
    EXPECT_TRUE(wait_until([&] { return fleet.ports->times_said("ports.WaitLinkChanged: cancelled") == 10; }));
    EXPECT_EQ(fleet.status("in_flight"), "1");
    events.tell("d3");
    EXPECT_EQ(result_of(patient[0].hear()), R"({"entity":"d3"})");
    EXPECT_EQ(fleet.router->times_said("left-over reply"), 0) << "nothing is answered to those who have gone";
}

TEST_F(Events, AreAwaitedByThePortsServiceWhateverSignalsCome) {
    start_router();
    start_ports("60000");
    const PlayedEvents events;
    const std::vector<StreamClient> clients = begin_waits(1);
    constexpr char reloaded[] = "Logging level set to debug.";
    const int reloads = fleet.ports->times_said(reloaded);
    for (int i = 1; i <= 12; ++i) {
        fleet.ports->signal(SIGHUP);
        ASSERT_TRUE(wait_until([&] { return fleet.ports->times_said(reloaded) == reloads + i; })) << i;
    }
    EXPECT_FALSE(has_answer(clients[0]));
    events.tell("d3");
    EXPECT_EQ(result_of(clients[0].hear()), R"({"entity":"d3"})");
}

TEST_F(Events, AreAwaitedByThePortsServiceThatTheyAskMeanwhile) {
    start("1000");
    const std::vector<StreamClient> waits = begin_waits(8);
    std::vector<StreamClient> descriptions;
    for (size_t i = 0; i < waits.size(); ++i) {
        descriptions.push_back(begin_describe("d1"));
    }
    for (const StreamClient &client : descriptions) {
        EXPECT_THAT(result_of(client.hear()), HasSubstr(shows_d1));
    }
    expect_link_changes(waits);
}

TEST_F(Events, AreServedUnharmedInAStormOfReloads) {
    start("1");
    EXPECT_TRUE(wait_until([&] { return code_of(call("events.Last")) == "(none)"; })) << "the first event";
    for (int i = 0; i < 40; ++i) {
        fleet.events->signal(SIGHUP);
        fleet.ports->signal(SIGHUP);
        const StreamClient described = i % 2 == 0 ? begin_describe("d1") : begin_describe_directly();
        fleet.events->signal(SIGHUP);
        EXPECT_THAT(described.hear(), HasSubstr(shows_d1));
        EXPECT_NE(result_of(last_directly()), "(none)") << i;
        fleet.ports->signal(SIGHUP);
        EXPECT_NE(result_of(call("ports.Get", d1)), "(none)");
    }
    EXPECT_EQ(result_of(call("ports.WaitLinkChanged"), "kind"), "\"link\"");
}

TEST_F(Events, AreAwaitedOnWhenTheirServiceWasKilledAndCameBack) {
    start(never_ms, "50000");
    const std::vector<StreamClient> clients = begin_waits(3);
    kill(fleet.events);
    EXPECT_EQ(code_of(call("ports.Get", d1)), "(none)");
    fleet.start_events("20");
    expect_link_changes(clients);
}

TEST_F(Events, GoOnWithARouterThatWasKilledWithCallsInFlight) {
    start(never_ms, "50000");
    const std::vector<StreamClient> waits = begin_waits(3);
    fleet.ports->signal(SIGSTOP);
    const StreamClient described = begin_describe_directly();
    EXPECT_TRUE(wait_until([&] { return fleet.status("in_flight") == "4"; }));
    kill(fleet.router);
    fleet.ports->signal(SIGCONT);
    for (const StreamClient &client : waits) {
        EXPECT_EQ(client.hear(), "");
    }
    EXPECT_EQ(code_of(described.hear()), "-32601") << "the question that went with the router";
    EXPECT_EQ(code_of(last_directly()), "-32013") << "no router is needed here";
    start_router();
    EXPECT_TRUE(fleet.router->says("Service portsd settled")) << "by itself";
    EXPECT_TRUE(fleet.router->says("Service eventsd settled")) << "by itself";
    EXPECT_EQ(code_of(call("events.Describe", d1)), "(none)");
    const std::vector<StreamClient> again = begin_waits(3);
    fleet.start_events("20");
    expect_link_changes(again); // it is subscribed again as well
}

TEST_F(EventsWithPlayedPorts, StopCleanlyAlsoWhileTheyWaitForAReply) {
    const StreamClient over_the_router = begin_describe("d1");
    EXPECT_NE(ports->next_request(), "(time-out)");
    const StreamClient in_person = begin_describe_directly();
    EXPECT_NE(ports->next_request(), "(time-out)");
    EXPECT_EQ(fleet.events->end_by(SIGTERM), 0) << fleet.events->log();
    EXPECT_EQ(code_of(over_the_router.hear()), "-32014");
    EXPECT_EQ(code_of(in_person.hear()), "-32014");
    EXPECT_THAT(fleet.events->log(), HasSubstr("eventsd stopped"));
    EXPECT_EQ(access("events.sock", F_OK), -1);
}

TEST_F(Events, AreLeftAloneByASecondServiceThatCannotStart) {
    start(never_ms);
    ASSERT_EQ(result_of(call("events.Report", R"({"text":"one"})"), "number"), "1");
    ASSERT_EQ(shared_number(), 1);
    const std::vector<std::vector<std::string>> rows = {
        {"--publish", fleet.events_address},
        {"--socket", "second.sock", "--script", "missing.txt"},
        {"--socket", "second.sock", "--connect", "nonsense"},
        {"--socket", "second.sock", "--pull", fleet.pull_address},
        {"--socket", "events.sock"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(
            run({TAVRIX_EVENTSD, "--publish", free_bus_address(), "--session", "missing.sock", "--slot", fleet.slot},
                row)
                .status,
            1)
            << row.back();
        EXPECT_EQ(shared_number(), 1) << row.back();
        EXPECT_EQ(result_of(last_directly(), "text"), "\"one\"") << row.back();
        EXPECT_EQ(access("second.sock", F_OK), -1) << row.back();
    }
}

TEST_F(Events, AreRegisteredAndSharedOnce) {
    start(never_ms);
    ASSERT_EQ(result_of(call("events.Report", R"({"text":"one"})"), "number"), "1");
    Process second("second", {TAVRIX_EVENTSD, "--session", "session.sock", "--publish", free_bus_address(), "--slot",
                              fleet.slot, "--socket", "second.sock"});
    EXPECT_TRUE(second.says("a service of this name is registered already"));
    EXPECT_EQ(second.times_said("eventsd ready"), 0);
    const std::string report = request("events.Report", "1", R"(,"params":{"text":"the second's"})");
    for (int number = 1; number <= 3; ++number) { // more than the first has
        EXPECT_EQ(result_of(StreamClient::unix_path("second.sock").ask(report), "number"), std::to_string(number));
        EXPECT_EQ(shared_number(), 1) << "the slot is the first's";
    }
    EXPECT_EQ(fleet.events->end_by(SIGTERM), 0);
    EXPECT_TRUE(second.says("eventsd ready")) << "it takes the place of the one that has gone";
    EXPECT_EQ(result_of(call("events.Last"), "number"), "3");
    EXPECT_TRUE(wait_until([&] { return shared_number() == 3; })) << "and its slot";
}

TEST_F(Events, EndWhenTheirNumberCannotBeShared) {
    start_router();
    EXPECT_THAT(
        run({TAVRIX_EVENTSD, "--session", "session.sock", "--publish", free_bus_address(), "--slot", "/no/slot"}),
        fails(1, HasSubstr("Cannot share the last event's number in /no/slot: Invalid argument; is the slot another "
                           "user's? --slot names another")));
}

TEST(Daemons, RefuseASocketPathThatIsNotTheirs) {
    write_file("notes.txt", "somebody's");
    const std::string too_long(108, 'q');
    for (const auto &[path, complaint] :
         {std::pair(std::string("notes.txt"), "Cannot listen on notes.txt: there is a file that is not a socket"),
          std::pair(too_long, "a socket's path has at most 107 bytes")}) {
        for (const char *daemon : {TAVRIX_ROUTERD, TAVRIX_EVENTSD}) {
            EXPECT_THAT(run({daemon, "--publish", free_bus_address(), "--session", "missing.sock", "--socket", path}),
                        fails(1, HasSubstr(complaint)))
                << daemon;
        }
    }
    EXPECT_EQ(read_file("notes.txt"), "somebody's");
    EXPECT_EQ(access(too_long.substr(0, 107).c_str(), F_OK), -1) << "not cut either";
}

TEST(EventsDaemon, SaysWhyItCannotReadItsScript) {
    Fleet fleet;
    for (const auto &[path, reason] : {std::pair("missing.txt", ENOENT), std::pair(".", EISDIR)}) {
        EXPECT_THAT(
            run({TAVRIX_EVENTSD, "--publish", fleet.events_address, "--script", path, "--slot", fleet.slot}),
            fails(1, HasSubstr("Cannot read the script " + std::string(path) + ": " + std::strerror(reason) + "\n")));
    }
}
