#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/answering_service.h"
#include "support/mutation.h"
#include "support/played_server.h"
#include "support/repeating.h"
#include "support/system_test.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;
using namespace testing;

namespace {

using RoutedCtl = StartedRouter;

/** The lines under "examples:", up to the next blank line. */
std::vector<std::string> examples_of(const std::string &help) {
    std::vector<std::string> examples;
    for (const std::string &line : lines_of(help.substr(help.find("examples:\n") + 10))) {
        if (line.empty()) {
            break;
        }
        examples.push_back(line.substr(2));
    }
    return examples;
}

/** A terminal: its name to write to, and what was written. */
class Terminal {
  public:
    Terminal() {
        if (!fd_ || grantpt(fd_.get()) != 0 || unlockpt(fd_.get()) != 0) {
            throw std::runtime_error("no terminal");
        }
    }
    std::string name() const { return ptsname(fd_.get()); }
    std::string written() const {
        char text[4096];
        const ssize_t got = read(fd_.get(), text, sizeof text);
        return std::string(text, got < 0 ? 0 : static_cast<size_t>(got));
    }

  private:
    const tavrix::Descriptor fd_{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)};
};

} // namespace

TEST_F(RoutedCtl, CallPrintsTheWholeResponseOnOneLineWhenAskedTo) {
    fleet.start_ports();
    EXPECT_THAT(ctl({"call", "--socket", "router.sock", "--transaction", "7", "ports.Get", "port_id=d2", "--full"}),
                prints(R"({"jsonrpc":"2.0","id":"ports.Get","result":{"ports":[{"port_id":"d2",)"
                       R"("status":"enable","poe_status":"unsupported","link_status":"up",)"
                       R"("link_speed":"1000 Mbps","vlan_mode":"local","vlan_ids":[]}]},"transaction_id":7})"
                       "\n"));
    EXPECT_THAT(ctl({"call", "--socket", "router.sock", "--json=pretty", "--full", "ports.Get", "port_id=d2"}),
                prints(StartsWith("{\n  \"jsonrpc\": \"2.0\",\n")));
}

TEST_F(RoutedCtl, CallTellsAnErrorResponseByItsExitStatus) {
    fleet.start_ports();
    EXPECT_THAT(ctl({"call", "--socket", "router.sock", "ports.Get", "{}", "--full"}),
                ends(1, ResultOf(code_of, "-32602"), ""));
    EXPECT_THAT(ctl({"call", "--socket", "router.sock", "ports.Get", "{}"}),
                fails(1, "tavrixctl: ports.Get: Invalid parameter(s) (-32602): Missing expected parameter: "
                         "'port_id'; port_id is missing: a port c1-1 to c128-99, "
                         "a port d1 to d4, a unit c1 to c128, all\n"));
}

TEST(CtlCall, TellsATimeOutWhoeverReportsIt) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "50"});
    EXPECT_THAT(ctl({"call", "--socket", "router.sock", "ports.Get"}),
                fails(3, "tavrixctl: ports.Get: Command timed out (-32005); is its service stopped, or busy? "
                         "tavrixctl status shows what is in flight\n"));
    EXPECT_EQ(ctl({"call", "--socket", "router.sock", "ports.Get", "--full"}).status, 3);
    EXPECT_EQ(ctl({"send", "--socket", "router.sock", request("ports.Get", "\"a\"")}).status, 3);
}

TEST(CtlCall, SaysWhatAnErrorHoldsWhateverItsData) {
    const std::pair<std::string, std::string> rows[] = {
        {R"({"code":-1,"message":"m","data":null})", "m (-1)"},
        {R"({"code":-1,"message":"m"})", "m (-1)"},
        {R"({"code":-1,"message":"m","data":"plain"})", "m (-1): plain"},
        {R"({"code":-1,"message":"m","data":{"message":"field: why"}})", "m (-1): field: why"},
        {R"({"code":-1,"message":"m","data":{"other":[1]}})", "m (-1): {\"other\":[1]}"},
        {R"({"code":-1,"message":"m\u001b\n","data":{"message":"\u009b2J"}})", "m\\x1b\\x0a (-1): \\xc2\\x9b2J"},
    };
    for (const auto &[error, words] : rows) {
        const PlayedServer server(R"({"jsonrpc":"2.0","id":1,"error":)" + error + "}");
        EXPECT_THAT(ctl({"call", "--direct", "played.sock", "x.Y"}), fails(1, "tavrixctl: x.Y: " + words + "\n"));
    }
}

TEST_F(RoutedCtl, CallOffersTheNearestMethodForOneThatIsUnknown) {
    fleet.start_lone_router();
    const AnsweringService service("portsd", {"ports.Get", "ports.SetEnabled"});
    const std::pair<const char *, std::string> rows[] = {
        {"ports.Gte", "ports.Get"}, {"ports.SetEnable", "ports.SetEnabled"}, {"PORTS.GET", "ports.Get"},
        {"port.get", "ports.Get"},  {"router.Stats", "router.Status"},
    };
    for (const std::vector<std::string> &road :
         {std::vector<std::string>{"--socket", "router.sock"}, {"--session", "session.sock"}}) {
        for (const auto &[method, suggestion] : rows) {
            EXPECT_THAT(ctl({"call", road[0], road[1], method}),
                        fails(1, EndsWith("; did you mean " + suggestion + "?\n")));
        }
        EXPECT_THAT(ctl({"call", road[0], road[1], "something.Else"}), fails(1, Not(HasSubstr("did you mean"))));
    }
}

TEST_F(RoutedCtl, CallTakesItsParamsInEachForm) {
    write_file("params.json", R"({"port_id":"d1","file":true})");
    const AnsweringService service("portsd", {"ports.Get"},
                                   [](const auto & /*method*/, const auto &params) { return R"("result":)" + params; });
    const std::pair<std::string, std::string> rows[] = {
        {"port_id=c1-1", R"({"port_id":"c1-1"})"},
        {"a= b:=5 c:=[1,2] d:='{\"x\":1}' e==", R"({"a":"","b":5,"c":[1,2],"d":{"x":1},"e":"="})"},
        {"a=1 a=2", R"({"a":"2"})"},
        {"@params.json port_id=d2", R"({"port_id":"d2","file":true})"},
        {"port_id=d2 '{\"port_id\":\"d3\"}'", R"({"port_id":"d3"})"},
        {"' {\"a\":\"b=c\"}'", R"({"a":"b=c"})"},
        {"- b=2 <<<'{\"a\":1}'", R"({"a":1,"b":"2"})"},
        {"'a=[x]'", R"({"a":"[x]"})"},
    };
    for (const auto &[words, params] : rows) {
        EXPECT_THAT(script("tavrixctl call --session session.sock ports.Get " + words), prints(params + "\n")) << words;
    }
    EXPECT_EQ(script("tavrixctl call --session session.sock ports.Get - </dev/null").status, 2) << "no JSON at all";
}

TEST(CtlCall, TriesEachAddressOfAHost) {
    Fleet fleet;
    const int port = free_port();
    fleet.start_router_with_tcp(port);
    fleet.start_ports();
    // The last two stand for this machine's loopback addresses, IPv6 first; the router listens on IPv4 only. No name
    // service is asked: a machine without /etc/hosts does not know "localhost".
    for (const std::string host : {"127.0.0.1", "", "localhost"}) {
        EXPECT_EQ(ctl({"call", "--tcp", host + ":" + std::to_string(port), "ports.Get", "port_id=d1"}).status, 0)
            << host;
    }
}

TEST(CtlCall, SendsANotificationToADaemonItselfAndWaitsForNoAnswer) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_events("3600000");
    EXPECT_THAT(ctl({"call", "--direct", "events.sock", "--notification", "events.Report", R"({"text":"no answer"})"}),
                prints(""));
    EXPECT_EQ(member(ctl({"call", "--direct", "events.sock", "events.Last"}).output, "text"), "\"no answer\"");
}

TEST_F(RoutedCtl, CallFindsTheRouterByTheEnvironmentUnlessToldOtherwise) {
    const std::pair<std::string, int> rows[] = {
        {"TAVRIX_SOCKET=router.sock tavrixctl call", 0},
        {"TAVRIX_SOCKET=nobody.sock tavrixctl call", 4},
        {"TAVRIX_SOCKET=nobody.sock tavrixctl call --socket router.sock", 0},
        {"TAVRIX_SOCKET=nobody.sock tavrixctl call --direct router.sock", 0},
        {"TAVRIX_SESSION=session.sock tavrixctl call", 0},
        {"TAVRIX_SESSION=nobody.sock tavrixctl call", 4},
        {"TAVRIX_SESSION=nobody.sock TAVRIX_SOCKET=router.sock tavrixctl call", 0},
        {"TAVRIX_SESSION=session.sock tavrixctl call --socket nobody.sock", 4},
    };
    for (const auto &[words, status] : rows) {
        EXPECT_EQ(script(words + " router.Status").status, status) << words;
    }
    const std::string long_text = " router.Status '{\"a\":\"" + std::string(9000, 'x') + "\"}'";
    EXPECT_EQ(script("TAVRIX_SESSION=session.sock tavrixctl call" + long_text).status, 0)
        << "a line may be longer than the other socket's request";
    EXPECT_EQ(script("TAVRIX_SOCKET=router.sock tavrixctl call" + long_text).status, 2);
}

TEST_F(RoutedCtl, CallPrintsAResultOnSeveralLinesOnATerminal) {
    const Terminal terminal;
    EXPECT_EQ(script("tavrixctl call --socket router.sock router.Status >" + terminal.name()).status, 0);
    EXPECT_THAT(terminal.written(), StartsWith("{\r\n  \"locked\": false,\r\n"));
}

TEST(CtlCall, TellsAnAnswerThatIsNoResponse) {
    const std::string no_response = "tavrixctl: the answer is not a JSON-RPC response";
    const struct {
        std::vector<std::string> words;
        std::string answer;
        int status;
        std::string output;
        TextMatcher diagnostics;
    } rows[] = {
        {{"call", "--full", "x.Y"}, R"({"result":0})", 0, "{\"result\":0}\n", ""},
        {{"call", "--full", "x.Y"}, "5", 1, "5\n", no_response + "\n"},
        {{"call", "--full", "x.Y"}, R"({"id":1})", 1, "{\"id\":1}\n", no_response + "\n"},
        {{"call", "--full", "x.Y"}, "", 4, "", "tavrixctl: the connection was closed without an answer\n"},
        {{"call", "x.Y"}, R"({"id":1})", 1, "", no_response + ": {\"id\":1}\n"},
        {{"call", "x.Y"}, "\033[2J", 1, "", no_response + ": \\x1b[2J\n"},
        {{"send", "{}"},
         "\033[2J",
         1,
         "\\x1b[2J\n",
         AllOf(StartsWith("tavrixctl: the answer is not JSON: "), Not(HasSubstr("\033")))},
        {{"call", "x.Y"}, // U+009B and DEL, raw
         "{\"result\":\"\xc2\x9b\x32J \x7f\x7f \xc3\xa4 \\u001b\"}",
         0,
         "\"\\u009B2J \\u007F\\u007F \\u00E4 \\u001B\"\n",
         ""},
    };
    for (const auto &row : rows) {
        const PlayedServer server(row.answer);
        EXPECT_THAT(ctl(row.words, {"--direct", "played.sock"}), ends(row.status, row.output, row.diagnostics));
    }
}

TEST(CtlCall, SendsTextAsTheUserWroteIt) {
    const std::string text = repeated("\xc3\xa4", 800); // escaped, it would be three times as long
    EXPECT_EQ(ctl({"call", "m", "--direct", "nobody.sock", "{\"text\":\"" + text + "\"}"}).status, 4) << "it fits";
}

TEST_F(RoutedCtl, CallGivesUpOnARouterThatStandsStill) {
    fleet.router->signal(SIGSTOP);
    EXPECT_EQ(ctl({"call", "--socket", "router.sock", "--timeout", "0.2", "router.Status"}).status, 3);
    // More than the socket holds: some of it stays with the client.
    write_file("long.txt", std::string(1 << 20, 'x'));
    EXPECT_EQ(script("tavrixctl send --socket router.sock --timeout 0.2 - <long.txt").status, 3);
    // And in the end nobody gets in any more: the backlog is full.
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(ctl({"call", "--socket", "router.sock", "--timeout", "0.05", "router.Status"}).status, 3) << i;
    }
    fleet.router->signal(SIGCONT);
}

TEST_F(RoutedCtl, CallSaysThatStandardOutputIsClosed) {
    const std::string slot = "/tavrix-test-" + std::to_string(getpid());
    ASSERT_EQ(ctl({"shm", "set", slot, "text", "--create"}).status, 0);
    for (const std::string &words :
         std::vector<std::string>{"call --socket router.sock router.Status", "error -35", "error -32601",
                                  "validate port_id d1", "shm get " + slot, "completion bash"}) {
        EXPECT_THAT(script("tavrixctl " + words + " >&-"), fails(1, "tavrixctl: cannot write to standard output\n"))
            << words;
    }
    shm_unlink(slot.c_str());
}

TEST_F(RoutedCtl, SendsATextAsItStands) {
    EXPECT_THAT(ctl({"send", "--socket", "router.sock", request("router.Status", "7")}),
                prints(HasSubstr("\"jsonrpc\":\"2.0\"")));
    EXPECT_THAT(ctl({"send", "--socket", "router.sock", "{broken"}), ends(1, ResultOf(code_of, "-32600"), ""));
    EXPECT_EQ(
        script("printf '%s' '" + request("router.Status", "7") + "' | tavrixctl send --socket router.sock -").status,
        0);
    write_file("long.txt", std::string(1 << 20, 'x')); // which the router refuses to read whole
    EXPECT_THAT(script("tavrixctl send --socket router.sock - <long.txt"), ends(1, ResultOf(code_of, "-32600"), ""));
}

TEST(CtlHelp, OffersTheNearestVerbForOneThatIsUnknown) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"mointor"}, "'mointor'; did you mean 'monitor'?\n"},
        {{"shm", "gte", "/x"}, "'gte'; did you mean 'get'?\n"},
        {{"help", "cal"}, "'cal'; did you mean 'call'?\n"},
        {{"nonsense\033"}, "'nonsense\\x1b'; see tavrixctl --help\n"},
    };
    for (const auto &[words, told] : rows) {
        EXPECT_THAT(ctl(words), fails(2, "tavrixctl: there is no verb " + told));
    }
}

TEST(CtlHelp, IsTheSameByVerbAndByOption) {
    EXPECT_EQ(ctl({"help"}).output, ctl({"--help"}).output);
    EXPECT_EQ(ctl({"help", "call"}).output, ctl({"call", "-h"}).output);
    EXPECT_EQ(ctl({"help", "shm", "get"}).output, ctl({"shm", "get", "--help"}).output);
    EXPECT_THAT(ctl({"-V"}), prints(AllOf(StartsWith("tavrixctl 1."), ctl({"call", "--version"}).output)));
}

TEST(CtlCall, RefusesWrongUsage) {
    const std::vector<std::vector<std::string>> rows = {
        {"no json"},
        {"[]"},
        {"{}", "more"},
        {"key:=no json"},
        {"key=\xff"},
        {"@no-such-file"},
        {"--timeout", "0"},
        {"--timeout", "x"},
        {"--json", "ugly"},
        {"--tcp", "a:1", "--direct", "b"},
        {"--socket", "a", "--direct", "b"},
        {"--socket", "a", "--tcp", "b:1"},
        {"--session", "a", "--socket", "b"},
        {"--tcp", "localhost"},
        {"--tcp", "localhost:"},
        {"--tcp", "localhost:x"},
        {"--tcp", "localhost:0"},
        {"--tcp", "localhost:65536"},
        {"--notification"},
        {"--id", ""},
        {"--id", "\xff"},
        {"--direct", "x", "--id", ""},
        {"{\"long\":\"" + std::string(8192, 'x') + "\"}"},
        {"--direct", "x", "{\"long\":\"" + std::string(1024, 'x') + "\"}"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(ctl({"call", "m"}, row), fails(2, Not(IsEmpty()))) << row.back().substr(0, 40);
    }
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{}, {"call"}, {"call", "\xff"}}) {
        EXPECT_THAT(ctl(words), fails(2, Not(IsEmpty())));
    }
}

TEST(CtlHelp, GivesExamplesThatWorkWithTheDaemonsOwnAddresses) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_ports();
    fleet.start_events();
    const std::string note = "/tavrix-test-note-" + std::to_string(getpid());
    const std::vector<std::pair<std::string, std::string>> private_names = {
        {"tcp://127.0.0.1:7001", fleet.router_address},
        {"tcp://127.0.0.1:7002", fleet.ports_address},
        {"tcp://127.0.0.1:7003", fleet.events_address},
        {"tcp://127.0.0.1:7013", fleet.pull_address},
        {"/run/tavrix/events.sock", "events.sock"},
        {"/tavrix_last_event", fleet.slot},
        {"/note", note},
    };
    write_file("schema.sql", read_file(TAVRIX_SOURCE_DIR "/daemons/ports/schema.sql"));
    unlink("another.db");
    unlink("new.db");
    const std::string traffic = "export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock\n"
                                "while tavrixctl call ports.Get '{\"port_id\":\"d1\"}' >/dev/null; do\n"
                                "  tavrixctl call log.Nobody --timeout 0.2 2>/dev/null # goes out on the bus\n"
                                "done &\n"
                                "trap \"kill $!\" EXIT\n";
    std::vector<std::string> all = verbs();
    all.insert(all.end(), {"shm get", "shm set"});
    for (const std::string &verb : all) {
        const Finished help = script("tavrixctl " + verb + " --help");
        ASSERT_THAT(help, prints(HasSubstr("examples:\n  "))) << verb;
        for (std::string example : examples_of(help.output)) {
            for (const auto &[name, by] : private_names) {
                example = replaced(example, name, by);
            }
            if (example.rfind("tavrix-eventsd ", 0) == 0) {
                continue; // it runs
            }
            const std::string enough = example.find(" monitor") != std::string::npos ? " --count 1" : "";
            std::string text = traffic;
            EXPECT_EQ(script(text.append(example).append(enough)).status, 0) << example;
        }
    }
    shm_unlink(note.c_str());
    unlink("new.db");
}

TEST_F(RoutedCtl, MonitorPrintsEveryFrameOfBothDirections) {
    PlayedService service(fleet, TAVRIX_CHANNEL_FIRST); // one that takes its requests from the bus
    const auto monitor = ctl_that_says("connected to 2 of 2", {"monitor", fleet.router_address, fleet.ports_address});
    {
        // Again and again: the publishers' ends of the monitor's connections may stand a moment later than its own.
        const Repeating calls([&] { EXPECT_TRUE(serves(service, fleet.connect())); });
        EXPECT_TRUE(monitor->prints(R"(  first  {"jsonrpc":"2.0","method":"ports.Get")"));
        EXPECT_TRUE(monitor->prints(R"(  replies  {"jsonrpc":"2.0","id":"ports.Get")"));
    }
    EXPECT_EQ(monitor->end_by(SIGINT), 0);
}

/** The lines that a monitor of the bus prints, without their times, while these frames come again and again. */
std::vector<std::string> monitored(const std::vector<std::string> &words, const std::vector<std::string> &frames) {
    const std::string address = free_bus_address();
    BusSocket publisher(TAVRIX_SP_PUB);
    publisher.bind(address);
    std::vector<std::string> arguments = {TAVRIXCTL, "monitor", words[0], words[1], address};
    arguments.insert(arguments.end(), words.begin() + 2, words.end());
    Process monitor("monitor", arguments);
    EXPECT_TRUE(wait_until([&] {
        for (const std::string &frame : frames) {
            tavrix_mq_socket_send(publisher.number, frame.c_str());
        }
        return monitor.wait(50) != -1;
    })) << monitor.log();
    std::vector<std::string> lines = lines_of(monitor.output());
    for (std::string &line : lines) {
        line.erase(0, line[0] == '{' ? 0 : line.find("  "));
    }
    return lines;
}

TEST(CtlMonitor, TakesSeveralChannelsBeforeAndAfterTheAddresses) {
    EXPECT_THAT(
        monitored({"--channel", "3a6f8f51", "--channel", "no-such-channel", "--channel", "2524546b", "--count", "4"},
                  {"3a6f8f51|{}", "9d4f|{}", "2524546b|{}"}),
        AllOf(Contains("  3a6f8f51  {}"), Contains("  2524546b  {}"), Each(Not(HasSubstr("9d4f")))));
}

TEST(CtlMonitor, NamesTheSystemsChannelsForPeopleAndPrograms) {
    const struct {
        std::string channel;
        std::string shown;
        const char *name;
    } rows[] = {
        {TAVRIX_CHANNEL_FIRST, "first", "\"first\""},
        {TAVRIX_CHANNEL_EVENTS, "events", "\"events\""},
        {TAVRIX_CHANNEL_INTERFACES, "interfaces", "\"interfaces\""},
        {TAVRIX_CHANNEL_DEFAULT, "default", "\"default\""},
        {TAVRIX_ROUTER_REPLY_CHANNEL, "replies", "\"replies\""},
        {"3a6f8f51", "3a6f8f51", "null"},
        {"first", "first", "null"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(monitored({"--count", "1"}, {row.channel + "|{}"}), ElementsAre("  " + row.shown + "  {}"));
        const std::string line = monitored({"--count", "1", "--json", "lines"}, {row.channel + "|{}"}).front();
        EXPECT_EQ(member(line, "channel"), '"' + row.channel + '"');
        EXPECT_EQ(member(line, "name"), row.name) << row.channel;
    }
}

TEST(CtlMonitor, KeepsTheChannelsExactTextForPrograms) {
    for (const auto &[frame, channel] : {std::pair("a\\b\x1b\xc3\xa4|{}", R"("channel":"a\\b\u001B\u00E4")"),
                                         std::pair("no\xff UTF-8|{}", R"("channel":"no\\xff UTF-8")"),
                                         std::pair("no bar", R"("channel":"","name":null)")}) {
        EXPECT_THAT(monitored({"--count", "1", "--json", "lines"}, {frame}), ElementsAre(HasSubstr(channel)));
    }
}

TEST(CtlMonitor, TakesAChannelsNameForTheBeginningOfOthersToo) {
    const std::pair<std::string, std::string> rows[] = {
        {"replies", TAVRIX_ROUTER_REPLY_CHANNEL}, {"events", TAVRIX_CHANNEL_EVENTS}, {"events", "events.LinkChanged"}};
    for (const auto &[name, channel] : rows) {
        EXPECT_THAT(monitored({"--channel", name, "--count", "1"}, {"x|{}", "2524546b|{}", channel + "|{}"}),
                    ElementsAre(StartsWith("  " + name)));
    }
}

TEST(CtlMonitor, KeepsAFrameOnOneHarmlessLine) {
    EXPECT_THAT(monitored({"--count", "3"},
                          {"cha\tnnel|no\nJSON \033[2J \\ \xc3\xa4", "no bar", "channel|{\"\x7f\":\"\xc2\x9b\x32J\"}"}),
                UnorderedElementsAre("  -  no bar", // any of the frames may be the first that is heard
                                     R"(  cha\x09nnel  no\x0aJSON \x1b[2J \x5c \xc3\xa4)",
                                     R"(  channel  {"\u007F":"\u009B2J"})"));
}

TEST_F(RoutedCtl, LogLevelShowsWhatEachDaemonHas) {
    fleet.start_ports();
    write_file("levels.conf", "[other]\nx=1\n[logging_levels]\n# c\nportsd=info\ntool=off\n");
    const std::string log_level = "tavrixctl log-level --file levels.conf --socket router.sock ";
    EXPECT_THAT(script(log_level), prints("DAEMON   LEVEL  STATE\n"
                                          "portsd   info   up\n"
                                          "routerd  -      up\n"
                                          "tool     off    -\n"));
    EXPECT_THAT(script(log_level + "portsd"), prints("DAEMON  LEVEL  STATE\nportsd  info   up\n"));
    EXPECT_THAT(script(log_level + "routerd debug"), prints(HasSubstr("\nrouterd  debug  up\n")));
}

TEST_F(RoutedCtl, LogLevelRefusesADaemonThatNobodyKnows) {
    fleet.start_ports();
    write_file("levels.conf", "[logging_levels]\ntool=off\n");
    const std::string log_level = "tavrixctl log-level --file levels.conf --socket ";
    for (const char *words : {"portsdd debug", "portsdd"}) {
        EXPECT_THAT(script(log_level + "router.sock " + words),
                    fails(2, "tavrixctl: there is no daemon 'portsdd'; did you mean 'portsd'?\n"));
    }
    EXPECT_EQ(read_file("levels.conf"), "[logging_levels]\ntool=off\n");
    EXPECT_EQ(script(log_level + "router.sock tool info").status, 0) << "the file knows it";
    EXPECT_EQ(script(log_level + "nobody.sock tool debug").status, 4) << "set, but nobody has been told";
    EXPECT_EQ(read_file("levels.conf"), "[logging_levels]\ntool=debug\n");
}

TEST_F(RoutedCtl, StatusHasColoursOnATerminalOnlyAndNotAgainstItsWill) {
    const AnsweringService service("portsd", {"ports.Get"});
    for (const auto &[environment, coloured] :
         {std::pair("TERM=xterm NO_COLOR=", true), std::pair("TERM=xterm NO_COLOR=1", false),
          std::pair("TERM=dumb NO_COLOR=", false)}) {
        const Terminal terminal;
        script(std::string(environment) + " tavrixctl status --session session.sock >" + terminal.name());
        const std::string written = terminal.written();
        EXPECT_THAT(written, HasSubstr("portsd"));
        EXPECT_EQ(written.find("\033[32mup\033[0m") != std::string::npos, coloured) << environment;
        EXPECT_EQ(written.find('\033') != std::string::npos, coloured) << environment;
    }
}

TEST(CtlLogLevel, MakesTheRouterRereadItAlsoWithoutAService) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "86400000"});
    EXPECT_EQ(
        ctl({"log-level", "routerd", "verbose", "--file", "tavrix_lsyslog.conf", "--socket", "router.sock"}).status, 0);
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
}
