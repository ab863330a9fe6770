/*
 * The client watching through the router, and playing a record once more.
 */
#include <algorithm>
#include <csignal>

#include "support/answering_service.h"
#include "support/played_server.h"
#include "support/system_test.h"
#include "tavrix_mq.h"

using namespace support;
using namespace testing;

namespace {

std::string up_or_refused(const std::string &method) {
    return method == "ports.Get" ? R"("result":{"up":true})"
                                 : R"("error":{"code":-32602,"message":"Refused","data":{"message":"so"}})";
}

/** A router with a direct service that refuses ports.Set. */
struct Watched {
    static int call(const std::string &method) {
        return ctl({"call", "--session", "session.sock", method, "port_id=c1-1"}).status;
    }

    Fleet fleet;
    const Process &router = fleet.start_router();
    const AnsweringService service{"portsd",
                                   {"ports.Get", "ports.Set"},
                                   [](const auto &method, const auto & /*params*/) { return up_or_refused(method); }};
};

std::unique_ptr<Process> start_monitor(const std::vector<std::string> &words) {
    return ctl_that_says("watching through the router", {"monitor", "--session", "session.sock"}, words);
}

} // namespace

TEST(CtlMonitor, PairsRequestsWithTheirReplies) {
    const Watched watched;
    const auto monitor = start_monitor({"--count", "3"});
    EXPECT_EQ(Watched::call("ports.Get"), 0);
    EXPECT_EQ(Watched::call("ports.Set"), 1);
    watched.service.publish("ports.Changed", R"({"port_id":"c1-1"})");
    EXPECT_EQ(monitor->wait(), 0);
    EXPECT_THAT(lines_of(monitor->output()), // without a channel
                ElementsAre(MatchesRegex(R"(\S+  ports.Get +portsd +\S+ ms +\{"port_id":"c1-1"\} -> \{"up":true\})"),
                            EndsWith(R"(  {"port_id":"c1-1"} -> error -32602 Refused: so)"),
                            MatchesRegex(R"(\S+  ports.Changed +portsd +notified +\{"port_id":"c1-1"\})")));
}

TEST(CtlMonitor, EndsWithFiguresByMethod) {
    const Watched watched;
    for (const int number : {SIGINT, SIGTERM}) {
        const auto monitor = start_monitor({});
        EXPECT_EQ(Watched::call("ports.Get"), 0);
        EXPECT_EQ(Watched::call("ports.Set"), 1);
        EXPECT_EQ(Watched::call("ports.Get"), 0);
        ASSERT_TRUE(wait_until([&] { return lines_of(monitor->output()).size() == 3; }));
        EXPECT_EQ(monitor->end_by(number), 0);
        EXPECT_THAT(lines_of(monitor->log()),
                    ElementsAre(_, MatchesRegex("METHOD +CALLS +ERRORS +NO REPLY +NOTIFIED +P50 +P99"),
                                MatchesRegex("ports.Get +2 +0 +0 +0 +.*"), MatchesRegex("ports.Set +1 +1 +0 +0 +.*")));
    }
}

TEST(CtlMonitor, ShowsOnlyWhatItsFiltersWant) {
    const Watched watched;
    const struct {
        std::vector<std::string> filter;
        std::string method;
        const char *other;
    } rows[] = {
        {{"ports.S*"}, "ports.Set", "ports.Get"},
        {{"ports.Get"}, "ports.Get", "ports.Set"},
        {{"--errors"}, "ports.Set", "ports.Get"},
        {{"--service", "portsd"}, "ports.Get", "router.Status"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> words = row.filter;
        words.insert(words.end(), {"--json", "lines", "--count", "1"});
        const auto monitor = start_monitor(words);
        Watched::call(row.other);
        Watched::call(row.method);
        EXPECT_EQ(monitor->wait(), 0);
        EXPECT_EQ(member(monitor->output(), "method"), "\"" + row.method + "\"");
    }
    const auto slow = start_monitor({"--slower-than", "3600000"});
    Watched::call("ports.Get");
    EXPECT_EQ(slow->end_by(SIGINT), 0);
    EXPECT_EQ(slow->output(), "");
}

TEST(CtlMonitor, PrintsAnObjectALineForPrograms) {
    const Watched watched;
    const auto monitor = start_monitor({"--json", "lines", "--count", "2"});
    EXPECT_EQ(Watched::call("ports.Get"), 0);
    watched.service.publish("ports.Changed", "{}");
    EXPECT_EQ(monitor->wait(), 0);
    const std::vector<std::string> lines = lines_of(monitor->output());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(members_of(lines[0], {"outcome", "service", "road", "client"}),
              R"("result" "portsd" "direct" "session")");
    EXPECT_EQ(member(member(lines[0], "request"), "params"), R"({"port_id":"c1-1"})");
    EXPECT_EQ(result_of(member(lines[0], "reply")), R"({"up":true})");
    EXPECT_NE(member(lines[0], "seconds"), "(none)");
    EXPECT_EQ(member(member(lines[1], "notification"), "method"), "\"ports.Changed\"");
    EXPECT_EQ(member(lines[1], "outcome"), "(none)");
}

TEST(CtlMonitor, TellsOfRepliesWhoseRequestItDidNotSeeAndOfLoss) {
    const PlayedServer router(
        "{\"jsonrpc\":\"2.0\",\"id\":\"tavrixctl\",\"result\":0}\n"
        "{\"jsonrpc\":\"2.0\",\"method\":\"router.Traffic\",\"params\":{\"time\":1.5,\"leg\":\"reply\",\"call\":7,"
        "\"method\":\"a.B\\u001b\",\"service\":null,\"road\":\"bus\",\"client\":\"unix\",\"outcome\":\"timeout\","
        "\"seconds\":0.25,\"message\":null}}\n"
        "{\"jsonrpc\":\"2.0\",\"method\":\"router.Lost\",\"params\":{\"count\":3}}\n");
    EXPECT_THAT(ctl({"monitor", "--session", "played.sock"}), // the router goes away
                ends(4, MatchesRegex("\\S+  a.B\\\\x1b +bus +250.0 ms +\\(asked before\\) -> timeout\n"),
                     HasSubstr("3 more were lost")));
}

TEST(CtlMonitor, SaysWhichAddressIsDeadAndKeepsToItsMethods) {
    BusSocket pub(TAVRIX_SP_PUB);
    const std::string address = free_bus_address();
    const std::string dead = free_bus_address();
    pub.bind(address);
    const auto monitor = ctl_that_says("tavrixctl: " + dead + ": nobody publishes there yet",
                                       {"monitor", address, dead, "ports.*", "--json", "lines", "--count", "2"});
    EXPECT_THAT(monitor->log(), Not(HasSubstr(address)));
    for (const char *frame :
         {R"(c|{"jsonrpc":"2.0","method":"other.Get","id":1})", R"(c|{"jsonrpc":"2.0","method":"ports.Get","id":1})",
          R"(r|{"jsonrpc":"2.0","id":"ports.Get","result":0})"}) {
        tavrix_mq_socket_send(pub.number, frame);
    }
    EXPECT_EQ(monitor->wait(), 0);
    EXPECT_THAT(lines_of(monitor->output()),
                ElementsAre(AllOf(HasSubstr(R"("channel":"c")"), HasSubstr(R"("method":"ports.Get")")),
                            HasSubstr(R"("id":"ports.Get")")));
}

/** A publisher on the bus, and a monitor of it. */
class Published {
  public:
    explicit Published(std::vector<std::string> words) {
        pub_.bind(address_);
        words.insert(words.begin(), {TAVRIXCTL, "monitor", address_});
        monitor = std::make_unique<Process>("monitor", words);
        // What is published before the connection stands is lost.
        EXPECT_TRUE(wait_until([this] {
            call("first.Call", 1, R"("error":{"code":-32603,"message":"Failed"})");
            return monitor->prints("first.Call", 50);
        })) << monitor->log();
    }

    void call(const std::string &method, int transaction_id, const std::string &outcome) const {
        const std::string number = R"(,"transaction_id":)" + std::to_string(transaction_id) + "}";
        say(R"(c|{"jsonrpc":"2.0","id":"r","method":")" + method + '"' + number);
        say(R"(r|{"jsonrpc":"2.0","id":")" + method + "\"," + outcome + number);
    }
    void say(const std::string &frame) const { tavrix_mq_socket_send(pub_.number, frame.c_str()); }

    /** What it prints until a last frame has come, without the first calls; it has ended then. */
    std::vector<std::string> lines_until(const std::string &last) const {
        EXPECT_TRUE(monitor->prints(last)) << monitor->output();
        EXPECT_EQ(monitor->end_by(SIGINT), 0);
        std::vector<std::string> lines = lines_of(monitor->output());
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const auto &line) { return line.find("first.Call") != std::string::npos; }),
                    lines.end());
        return lines;
    }

    std::unique_ptr<Process> monitor;

  private:
    const std::string address_ = free_bus_address();
    BusSocket pub_{TAVRIX_SP_PUB};
};

constexpr char refused[] = R"("error":{"code":-32602,"message":"Refused"})";

TEST(CtlMonitor, TellsOnTheBusHowLongAReplyTook) {
    for (const bool is_for_people : {true, false}) {
        const Published bus(is_for_people ? std::vector<std::string>{} : std::vector<std::string>{"--json", "lines"});
        bus.call("ports.Get", 7, R"("result":0)");
        bus.say(R"(r|{"jsonrpc":"2.0","id":"ports.Get","result":0,"transaction_id":8})");
        bus.say(R"(r|{"jsonrpc":"2.0","id":"ports.Gte","result":0,"transaction_id":7})");
        bus.call("ports.Set", 9, refused);
        const auto timed =
            MatchesRegex(is_for_people ? R"(.*  r  \{.*\}  after [0-9.]+ ms)" : R"(.*"seconds":[0-9].*)");
        EXPECT_THAT(bus.lines_until("Refused"),
                    ElementsAre(Not(timed), timed, Not(timed), Not(timed), Not(timed), timed));
        EXPECT_THAT(bus.monitor->log(),
                    AllOf(ContainsRegex("ports.Get +1 +0 +0 +0 "), ContainsRegex("ports.Set +1 +1 +0 +0 ")));
    }
}

TEST(CtlMonitor, ShowsOnTheBusTheFramesOfTheCallsThatItsFiltersWant) {
    const std::pair<std::vector<std::string>, std::vector<const char *>> rows[] = {
        {{"--errors"}, {"  c  .*ports.Set", "  r  .*ports.Set"}}, // the request first
        {{"--slower-than", "0"}, {"  c  .*ports.Get", "  r  .*ports.Get", "  c  .*ports.Set", "  r  .*ports.Set"}},
    };
    for (const auto &[filter, shown] : rows) {
        const Published bus(filter);
        bus.say(R"(c|{"jsonrpc":"2.0","method":"ports.Changed","params":{}})");
        bus.call("ports.Get", 7, R"("result":0)");
        bus.call("ports.Set", 8, refused);
        const std::vector<std::string> lines = bus.lines_until("Refused");
        ASSERT_EQ(lines.size(), shown.size()) << bus.monitor->output();
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_THAT(lines[i], ContainsRegex(shown[i]));
        }
    }
}

TEST(CtlMonitor, RefusesOptionsOfTheOtherRoad) {
    const std::pair<std::vector<std::string>, int> rows[] = {
        {{"x://localhost:1"}, 2}, // no address of the bus
        {{"tcp://127.0.0.1:1", "--service", "portsd"}, 2},
        {{"tcp://127.0.0.1:1", "--record", "x"}, 2},
        {{"tcp://127.0.0.1:1", "--session", "session.sock"}, 2},
        {{"--channel", "c", "--session", "session.sock"}, 2},
        {{"--session", "nobody.sock"}, 4},
        {{"--session", "nobody.sock", "--record", "no-folder/x"}, 1},
    };
    for (const auto &[row, status] : rows) {
        EXPECT_EQ(ctl({"monitor"}, row).status, status) << row[0];
    }
}

TEST(CtlReplay, SendsARecordOnceMore) {
    {
        const Watched watched;
        const auto monitor = start_monitor({"--record", "traffic.json", "--count", "3"});
        EXPECT_EQ(Watched::call("ports.Get"), 0);
        watched.service.publish("ports.Changed", "{}");
        EXPECT_EQ(Watched::call("ports.Set"), 1);
        EXPECT_EQ(monitor->wait(), 0);
    }
    Fleet fleet;
    for (const char *speed : {"0", "1000"}) {
        fleet.start_router();
        std::string heard;
        {
            const AnsweringService service("portsd", {"ports.Get", "ports.Set"},
                                           [&heard](const std::string &method, const std::string &params) {
                                               heard += method + params;
                                               return up_or_refused(method);
                                           });
            EXPECT_THAT(ctl({"replay", "traffic.json", "--session", "session.sock", "--speed", speed}),
                        ends(0, "", "2 ended as recorded, 0 otherwise, 0 without an answer\n"));
        }
        EXPECT_EQ(heard, R"(ports.Get{"port_id":"c1-1"}ports.Set{"port_id":"c1-1"})") << speed;
    }
    EXPECT_THAT(ctl({"replay", "traffic.json", "--session", "session.sock"}),
                ends(1, "ports.Get {\"port_id\":\"c1-1\"}: error instead of result\n",
                     "1 ended as recorded, 1 otherwise, 0 without an answer\n"));
}

TEST(CtlReplay, GivesUpOnAnswersThatDoNotCome) {
    Fleet fleet;
    fleet.start_router();
    const AnsweringService service("portsd", {"ports.Get"}, [](const auto &, const auto &) { return ""; });
    write_file("traffic.json", R"({"time":1,"method":"ports.Get","outcome":"result","request":{"params":{}}})"
                               "\n");
    EXPECT_THAT(ctl({"replay", "traffic.json", "--session", "session.sock", "--timeout", "0.2"}),
                fails(3, "0 ended as recorded, 0 otherwise, 1 without an answer\n"));
}

TEST(CtlReplay, RefusesWhatIsNoRecord) {
    write_file("wrong.json", R"({"time":1,"method":"ports.Get","request":{}})"
                             "\nnonsense\n");
    EXPECT_THAT(ctl({"replay", "wrong.json", "--session", "session.sock"}),
                fails(2, "tavrixctl: wrong.json:2: this is not a line of a record\n"));
    EXPECT_EQ(ctl({"replay", "no-such-file", "--session", "session.sock"}).status, 2);
    EXPECT_EQ(script("TAVRIX_SESSION=session.sock tavrixctl replay wrong.json").status, 2)
        << "a record is never sent to the usual system by mistake";
}
