#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/direct_service.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/played_server.h"
#include "support/tavrixctl.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using support::ctl;
using support::Finished;
using support::first_line;
using support::Fleet;
using support::member;
using support::PlayedServer;
using support::PlayedService;
using support::script;
using support::StreamClient;
using support::write_file;

namespace {

using RoutedCtlCall = support::StartedRouter;
using RoutedCtlLogLevel = support::StartedRouter;
using RoutedCtlMonitor = support::StartedRouter;
using RoutedCtlSend = support::StartedRouter;
using RoutedCtlStatus = support::StartedRouter;

/** The lines under "examples:", up to the next blank line. */
std::vector<std::string> examples_of(const std::string &help) {
    std::istringstream lines(help.substr(help.find("examples:\n")));
    std::vector<std::string> examples;
    std::string line;
    for (std::getline(lines, line); std::getline(lines, line) && !line.empty();) {
        examples.push_back(line.substr(2));
    }
    return examples;
}

/** A terminal: its name to write to, and what was written. */
class Terminal {
  public:
    Terminal() : fd_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
        if (fd_ < 0 || grantpt(fd_) != 0 || unlockpt(fd_) != 0) {
            throw std::runtime_error("no terminal");
        }
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    ~Terminal() { close(fd_); }
    std::string name() const { return ptsname(fd_); }
    std::string written() const {
        char text[4096];
        const ssize_t got = read(fd_, text, sizeof text);
        return std::string(text, got < 0 ? 0 : static_cast<size_t>(got));
    }

  private:
    int fd_;
};

std::string replaced(std::string text, const std::string &what, const std::string &by) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

} // namespace

TEST_F(RoutedCtlCall, PrintsTheWholeResponseOnOneLineWhenAskedTo) {
    fleet.start_ports();
    const Finished finished =
        ctl({"call", "--socket", "router.sock", "--transaction", "7", "ports.Get", "port_id=d2", "--full"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, R"({"jsonrpc":"2.0","id":"ports.Get","result":{"ports":[{"port_id":"d2",)"
                               R"("status":"enable","poe_status":"unsupported","link_status":"up",)"
                               R"("link_speed":"1000 Mbps","vlan_mode":"local","vlan_ids":[]}]},"transaction_id":7})"
                               "\n");
    EXPECT_EQ(finished.diagnostics, "");
    const Finished pretty =
        ctl({"call", "--socket", "router.sock", "--json=pretty", "--full", "ports.Get", R"({"port_id":"d2"})"});
    EXPECT_EQ(pretty.output.rfind("{\n  \"jsonrpc\": \"2.0\",\n", 0), 0U) << pretty.output;
}

TEST_F(RoutedCtlCall, TellsAnErrorResponseByItsExitStatus) {
    fleet.start_ports();
    const Finished full = ctl({"call", "--socket", "router.sock", "ports.Get", "{}", "--full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(support::code_of(full.output), "-32602");
    EXPECT_EQ(full.diagnostics, "");
    const Finished words = ctl({"call", "--socket", "router.sock", "ports.Get", "{}"});
    EXPECT_EQ(words.status, 1);
    EXPECT_EQ(words.output, "");
    EXPECT_EQ(words.diagnostics, "tavrixctl: ports.Get: Invalid parameter(s) (-32602): Missing expected parameter: "
                                 "'port_id'; port_id is missing: a port c1-1 to c128-99, "
                                 "a port d1 to d4, a unit c1 to c128, all\n");
}

TEST(CtlCall, PrintsTheResultAlone) {
    const support::PlayedServer server(R"({"jsonrpc":"2.0","id":1,"result":{"a":[1,"\u001b"]},"transaction_id":5})");
    const Finished finished = ctl({"call", "--direct", "played.sock", "x.Y"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, "{\"a\":[1,\"\\u001B\"]}\n");
    EXPECT_EQ(finished.diagnostics, "");
}

TEST(CtlCall, TellsATimeOutWhoeverReportsIt) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "50"});
    const Finished finished = ctl({"call", "--socket", "router.sock", "ports.Get"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(finished.diagnostics,
              "tavrixctl: ports.Get: Command timed out (-32005); is its service stopped, or busy? "
              "tavrixctl status shows what is in flight\n");
    EXPECT_EQ(ctl({"call", "--socket", "router.sock", "ports.Get", "--full"}).status, 3);
    EXPECT_EQ(ctl({"send", "--socket", "router.sock", support::request("ports.Get", "\"a\"")}).status, 3);
}

TEST(CtlCall, SaysWhatAnErrorHoldsWhateverItsData) {
    const struct {
        const char *error;
        const char *words;
    } rows[] = {
        {R"({"code":-1,"message":"m","data":null})", "m (-1)"},
        {R"({"code":-1,"message":"m"})", "m (-1)"},
        {R"({"code":-1,"message":"m","data":"plain"})", "m (-1): plain"},
        {R"({"code":-1,"message":"m","data":{"message":"field: why"}})", "m (-1): field: why"},
        {R"({"code":-1,"message":"m","data":{"other":[1]}})", "m (-1): {\"other\":[1]}"},
        {R"({"code":-1,"message":"m\u001b\n","data":{"message":"\u009b2J"}})", "m\\x1b\\x0a (-1): \\xc2\\x9b2J"},
    };
    for (const auto &row : rows) {
        const support::PlayedServer server(std::string(R"({"jsonrpc":"2.0","id":1,"error":)") + row.error + "}");
        const Finished finished = ctl({"call", "--direct", "played.sock", "x.Y"});
        EXPECT_EQ(finished.status, 1) << row.error;
        EXPECT_EQ(finished.diagnostics, std::string("tavrixctl: x.Y: ") + row.words + "\n") << row.error;
    }
}

TEST(CtlCall, OffersTheNearestMethodForOneThatIsUnknown) {
    const Fleet fleet;
    const support::Process router("routerd", {TAVRIX_ROUTERD, "--socket", "router.sock", "--session", "session.sock",
                                              "--publish", fleet.router_address});
    ASSERT_TRUE(router.says("routerd ready")) << router.log();
    const support::DirectService service("portsd", {"ports.Get", "ports.SetEnabled"});
    const struct {
        const char *method;
        const char *suggestion;
    } rows[] = {
        {"ports.Gte", "ports.Get"}, {"ports.SetEnable", "ports.SetEnabled"}, {"PORTS.GET", "ports.Get"},
        {"port.get", "ports.Get"},  {"router.Stats", "router.Status"},       {"something.Else", ""},
    };
    for (const auto &row : rows) {
        for (const std::vector<std::string> &road :
             {std::vector<std::string>{"--socket", "router.sock"}, {"--session", "session.sock"}}) {
            const Finished finished = ctl({"call", road[0], road[1], row.method});
            EXPECT_EQ(finished.status, 1) << row.method;
            const std::string ending =
                row.suggestion[0] == '\0' ? "" : std::string("; did you mean ") + row.suggestion + "?\n";
            const std::string &said = finished.diagnostics;
            EXPECT_EQ(said.find("did you mean") == std::string::npos, ending.empty()) << said;
            EXPECT_EQ(said.substr(said.size() - std::min(said.size(), ending.size())), ending) << said;
        }
    }
}

TEST(CtlCall, TakesItsParamsInEachForm) {
    write_file("params.json", R"({"port_id":"d1","file":true})");
    Fleet fleet;
    fleet.start_router();
    const support::DirectService service(
        "portsd", {"ports.Get"}, [](const auto & /*method*/, const auto &params) { return R"("result":)" + params; });
    const struct {
        const char *words;
        const char *params;
    } rows[] = {
        {"port_id=c1-1", R"({"port_id":"c1-1"})"},
        {"a= b:=5 c:=[1,2] d:='{\"x\":1}' e==", R"({"a":"","b":5,"c":[1,2],"d":{"x":1},"e":"="})"},
        {"a=1 a=2", R"({"a":"2"})"},
        {"@params.json port_id=d2", R"({"port_id":"d2","file":true})"},
        {"port_id=d2 '{\"port_id\":\"d3\"}'", R"({"port_id":"d3"})"},
        {"' {\"a\":\"b=c\"}'", R"({"a":"b=c"})"},
        {"- b=2 <<<'{\"a\":1}'", R"({"a":1,"b":"2"})"},
        {"'a=[x]'", R"({"a":"[x]"})"},
    };
    for (const auto &row : rows) {
        const Finished finished = script(std::string("tavrixctl call --session session.sock ports.Get ") + row.words);
        EXPECT_EQ(finished.output, row.params + std::string("\n")) << row.words << finished.diagnostics;
    }
}

TEST(CtlCall, SaysThatNoAnswerCameInTime) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "60000"});
    const Finished finished = ctl({"call", "--socket", "router.sock", "--timeout", "0.2", "ports.Get"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.diagnostics, "tavrixctl: no answer in time; is it stopped, or busy? --timeout waits longer\n");
}

TEST(CtlCall, SaysThatThereIsNoConnection) {
    const Finished unix_path = ctl({"call", "--socket", "nobody.sock", "ports.Get"});
    EXPECT_EQ(unix_path.status, 4);
    EXPECT_EQ(unix_path.diagnostics,
              "tavrixctl: nobody.sock: No such file or directory; is tavrix-routerd running? --help says "
              "how to name another place\n");
    const Finished tcp = ctl({"call", "--tcp", "127.0.0.1:" + std::to_string(support::free_port()), "ports.Get"});
    EXPECT_EQ(tcp.status, 4);
    EXPECT_EQ(ctl({"call", "--tcp", "127.0.0.1", "ports.Get"}).status, 2);
}

TEST(CtlCall, ReachesTheRouterOverTcp) {
    Fleet fleet;
    const int port = support::free_port();
    write_file("policy.conf", "[tcp]\nall=*\n");
    fleet.start_router({"--tcp", std::to_string(port), "--policy", "policy.conf"});
    fleet.start_ports();
    const Finished finished =
        ctl({"call", "--tcp", "127.0.0.1:" + std::to_string(port), "ports.Get", R"({"port_id":"d1"})"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
}

TEST(CtlCall, TriesEachAddressOfAHost) {
    Fleet fleet;
    const int port = support::free_port();
    write_file("policy.conf", "[tcp]\nall=*\n");
    fleet.start_router({"--tcp", std::to_string(port), "--policy", "policy.conf"});
    fleet.start_ports();
    // Both stand for this machine's loopback addresses, IPv6 first; the router listens on IPv4 only. No name service is
    // asked: a machine without /etc/hosts does not know "localhost".
    for (const char *host : {"", "localhost"}) {
        const Finished finished =
            ctl({"call", "--tcp", host + (":" + std::to_string(port)), "ports.Get", R"({"port_id":"d1"})"});
        EXPECT_EQ(finished.status, 0) << host << finished.diagnostics;
    }
}

TEST(CtlCall, SendsANotificationToADaemonItselfAndWaitsForNoAnswer) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_events("3600000");
    const Finished finished =
        ctl({"call", "--direct", "events.sock", "--notification", "events.Report", R"({"text":"no answer"})"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(finished.output, "");
    const Finished last = ctl({"call", "--direct", "events.sock", "events.Last"});
    EXPECT_EQ(member(last.output, "text"), "\"no answer\"");
}

TEST_F(RoutedCtlCall, ReadsItsParamsFromStandardInput) {
    fleet.start_ports();
    const Finished finished = script(R"(echo '{"port_id":"d2"}' | tavrixctl call --socket router.sock ports.Get -)");
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_NE(finished.output.find(R"("port_id":"d2")"), std::string::npos) << finished.output;
    EXPECT_EQ(script("tavrixctl call --socket router.sock ports.Get - </dev/null").status, 2) << "no JSON at all";
}

TEST_F(RoutedCtlCall, FindsTheRouterByTheEnvironmentUnlessToldOtherwise) {
    EXPECT_EQ(script("TAVRIX_SOCKET=router.sock tavrixctl call router.Status").status, 0);
    EXPECT_EQ(script("TAVRIX_SOCKET=nobody.sock tavrixctl call router.Status").status, 4);
    EXPECT_EQ(script("TAVRIX_SOCKET=nobody.sock tavrixctl call --socket router.sock router.Status").status, 0);
    EXPECT_EQ(script("TAVRIX_SOCKET=nobody.sock tavrixctl call --direct router.sock router.Status").status, 0);
}

TEST_F(RoutedCtlCall, PrintsAResultOnSeveralLinesOnATerminal) {
    const Terminal terminal;
    const Finished finished = script("tavrixctl call --socket router.sock router.Status >" + terminal.name());
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(terminal.written().rfind("{\r\n  \"locked\": false,\r\n", 0), 0U);
}

TEST(CtlCall, TellsAnAnswerThatIsNoResponse) {
    const struct {
        const char *answer;
        int status;
        const char *diagnostics;
    } rows[] = {
        {R"({"jsonrpc":"2.0","id":1,"result":0})", 0, ""},
        {"5", 1, "tavrixctl: the answer is no JSON-RPC response\n"},
        {R"({"jsonrpc":"2.0","id":1})", 1, "tavrixctl: the answer is no JSON-RPC response\n"},
        {"", 4, "tavrixctl: the connection was closed without an answer\n"},
    };
    for (const auto &row : rows) {
        const PlayedServer server(row.answer);
        const Finished finished = ctl({"call", "--full", "--direct", "played.sock", "x.Y"});
        EXPECT_EQ(finished.status, row.status) << row.answer;
        EXPECT_EQ(finished.diagnostics, row.diagnostics);
        EXPECT_EQ(first_line(finished.output), row.answer);
    }
    {
        const PlayedServer server(R"({"jsonrpc":"2.0","id":1})");
        EXPECT_EQ(ctl({"call", "--direct", "played.sock", "x.Y"}).diagnostics,
                  "tavrixctl: the answer is no JSON-RPC response: {\"jsonrpc\":\"2.0\",\"id\":1}\n");
    }
    {
        const PlayedServer server("\033[2J");
        EXPECT_EQ(ctl({"call", "--direct", "played.sock", "x.Y"}).diagnostics,
                  "tavrixctl: the answer is no JSON-RPC response: \\x1b[2J\n");
    }
    const PlayedServer server("\033[2J");
    const Finished finished = ctl({"send", "--direct", "played.sock", "{}"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.diagnostics.rfind("tavrixctl: the answer is no JSON: ", 0), 0U) << finished.diagnostics;
    EXPECT_EQ(finished.diagnostics.find('\033'), std::string::npos);
    EXPECT_EQ(finished.output, "\\x1b[2J\n");
}

TEST(CtlCall, PrintsAnAnswerThatSteersNoTerminal) {
    const PlayedServer server("{\"result\":\"\xc2\x9b\x32J \x7f\x7f \xc3\xa4 \\u001b\"}"); // U+009B and DEL, raw
    const Finished finished = ctl({"call", "--direct", "played.sock", "x.Y"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(finished.output, R"("\u009B2J \u007F\u007F \u00E4 \u001B")"
                               "\n");
}

TEST(CtlCall, SendsTextAsTheUserWroteIt) {
    std::string text;
    while (text.size() < 800) {
        text += "\xc3\xa4"; // escaped, it would be three times as long
    }
    EXPECT_EQ(ctl({"call", "m", "--direct", "nobody.sock", "{\"text\":\"" + text + "\"}"}).status, 4) << "it fits";
}

TEST_F(RoutedCtlCall, GivesUpOnARouterThatStandsStill) {
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

TEST_F(RoutedCtlCall, SaysThatStandardOutputIsClosed) {
    const std::string slot = "/tavrix-test-" + std::to_string(getpid());
    ASSERT_EQ(ctl({"shm", "set", slot, "text", "--create"}).status, 0);
    for (const std::string &words :
         {std::string("call --socket router.sock router.Status"), std::string("error -35"), std::string("error -32601"),
          std::string("validate port_id d1"), "shm get " + slot, std::string("completion bash")}) {
        const Finished finished = script("tavrixctl " + words + " >&-");
        EXPECT_EQ(finished.status, 1) << words;
        EXPECT_EQ(finished.diagnostics, "tavrixctl: cannot write to standard output\n") << words;
    }
    shm_unlink(slot.c_str());
}

TEST_F(RoutedCtlSend, SendsATextAsItStands) {
    const Finished good = ctl({"send", "--socket", "router.sock", support::request("router.Status", "7")});
    EXPECT_EQ(good.status, 0) << good.diagnostics;
    EXPECT_EQ(member(good.output, "jsonrpc"), "\"2.0\"");
    const Finished broken = ctl({"send", "--socket", "router.sock", "{broken"});
    EXPECT_EQ(broken.status, 1);
    EXPECT_EQ(support::code_of(broken.output), "-32600");
    const Finished piped =
        script("printf '%s' '" + support::request("router.Status", "7") + "' | tavrixctl send --socket router.sock -");
    EXPECT_EQ(piped.status, 0) << piped.diagnostics;
}

TEST_F(RoutedCtlSend, PrintsTheAnswerToATextThatTheRouterRefusesToReadWhole) {
    write_file("long.txt", std::string(1 << 20, 'x'));
    const Finished finished = script("tavrixctl send --socket router.sock - <long.txt");
    EXPECT_EQ(finished.status, 1) << finished.diagnostics;
    EXPECT_EQ(support::code_of(finished.output), "-32600") << finished.output;
    EXPECT_EQ(finished.diagnostics, "");
}

TEST(CtlHelp, OffersTheNearestVerbForOneThatIsUnknown) {
    const struct {
        std::vector<std::string> words;
        const char *diagnostics;
    } rows[] = {
        {{"mointor"}, "tavrixctl: there is no verb 'mointor'; did you mean 'monitor'?\n"},
        {{"shm", "gte", "/x"}, "tavrixctl: there is no verb 'gte'; did you mean 'get'?\n"},
        {{"help", "cal"}, "tavrixctl: there is no verb 'cal'; did you mean 'call'?\n"},
        {{"nonsense\033"}, "tavrixctl: there is no verb 'nonsense\\x1b'; see tavrixctl --help\n"},
    };
    for (const auto &row : rows) {
        const Finished finished = ctl(row.words);
        EXPECT_EQ(finished.status, 2);
        EXPECT_EQ(finished.diagnostics, row.diagnostics);
    }
}

TEST(CtlHelp, IsTheSameByVerbAndByOption) {
    EXPECT_EQ(ctl({"help"}).output, ctl({"--help"}).output);
    EXPECT_EQ(ctl({"help", "call"}).output, ctl({"call", "-h"}).output);
    EXPECT_EQ(ctl({"help", "shm", "get"}).output, ctl({"shm", "get", "--help"}).output);
    EXPECT_EQ(ctl({"-V"}).output, ctl({"call", "--version"}).output);
}

TEST(CtlCall, RefusesWrongUsage) {
    const std::vector<std::vector<std::string>> rows = {
        {},
        {"nonsense"},
        {"call"},
        {"call", "m", "no json"},
        {"call", "m", "[]"},
        {"call", "m", "{}", "more"},
        {"call", "m", "key:=no json"},
        {"call", "m", "key=\xff"},
        {"call", "m", "@no-such-file"},
        {"call", "m", "--timeout", "0"},
        {"call", "m", "--timeout", "x"},
        {"call", "m", "--json", "ugly"},
        {"call", "m", "--tcp", "a:1", "--direct", "b"},
        {"call", "m", "--socket", "a", "--direct", "b"},
        {"call", "m", "--socket", "a", "--tcp", "b:1"},
        {"call", "m", "--tcp", "localhost:"},
        {"call", "m", "--tcp", "localhost:x"},
        {"call", "m", "--tcp", "localhost:0"},
        {"call", "m", "--tcp", "localhost:65536"},
        {"call", "m", "--notification"},
        {"call", "m", "--id", ""},
        {"call", "m", "--id", "\xff"},
        {"call", "\xff"},
        {"call", "m", "--direct", "x", "--id", ""},
        {"call", "m", "{\"long\":\"" + std::string(8192, 'x') + "\"}"},
        {"call", "m", "--direct", "x", "{\"long\":\"" + std::string(1024, 'x') + "\"}"},
    };
    for (const auto &row : rows) {
        const Finished finished = ctl(row);
        EXPECT_EQ(finished.status, 2) << (row.empty() ? "nothing" : row.back().substr(0, 40));
        EXPECT_EQ(finished.output, "");
        EXPECT_NE(finished.diagnostics, "");
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
    write_file("schema.sql", support::read_file(TAVRIX_SOURCE_DIR "/daemons/ports/schema.sql"));
    unlink("another.db");
    unlink("new.db");
    const std::string traffic = "export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock\n"
                                "while tavrixctl call ports.Get '{\"port_id\":\"d1\"}' >/dev/null; do\n"
                                "  tavrixctl call log.Nobody --timeout 0.2 2>/dev/null # goes out on the bus\n"
                                "done &\n"
                                "trap \"kill $!\" EXIT\n";
    for (const char *verb : {"",        "call",    "send", "status",    "top",  "metrics",   "wait-service",
                             "monitor", "replay",  "push", "subscribe", "wait", "error",     "validate",
                             "shm set", "shm get", "shm",  "log-level", "help", "completion"}) {
        const std::string help = script(std::string("tavrixctl ") + verb + " --help").output;
        ASSERT_NE(help.find("examples:\n  "), std::string::npos) << verb;
        for (std::string example : examples_of(help)) {
            for (const auto &[name, by] : private_names) {
                example = replaced(example, name, by);
            }
            if (example.rfind("tavrix-eventsd ", 0) == 0) {
                continue; // it runs
            }
            const std::string enough = example.find(" monitor") != std::string::npos ? " --count 1" : "";
            std::string text = traffic;
            const Finished finished = script(text.append(example).append(enough));
            EXPECT_EQ(finished.status, 0) << example << "\n" << finished.output << finished.diagnostics;
        }
    }
    shm_unlink(note.c_str());
    unlink("new.db");
}

TEST_F(RoutedCtlMonitor, PrintsEveryFrameOfBothDirections) {
    PlayedService service(fleet, TAVRIX_CHANNEL_FIRST); // one that takes its requests from the bus
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", fleet.router_address, fleet.ports_address});
    ASSERT_TRUE(monitor.says("connected to 2 of 2")) << monitor.log();
    const StreamClient client = fleet.connect();
    client.say(support::request("ports.Get", "\"a\"", R"(,"transaction_id":31,"params":{"port_id":"d1"})"));
    service.reply(R"({"jsonrpc":"2.0","id":"ports.Get","result":0,"transaction_id":)" +
                  support::member(service.next_request(), "transaction_id") + "}");
    EXPECT_EQ(support::member(client.hear(), "transaction_id"), "31");
    EXPECT_TRUE(monitor.prints(R"(  first  {"jsonrpc":"2.0","method":"ports.Get")"));
    EXPECT_TRUE(monitor.prints(R"(  replies  {"jsonrpc":"2.0","id":"ports.Get")"));
    monitor.signal(SIGINT);
    EXPECT_EQ(monitor.wait(), 0);
}

/** Publishes on all addresses, a round after the other, until the monitors have had enough. */
void publish_until_they_end(const std::vector<support::Process *> &monitors, const std::vector<std::string> &addresses,
                            const std::vector<std::string> &frames) {
    std::vector<std::unique_ptr<support::BusSocket>> publishers;
    for (const std::string &address : addresses) {
        publishers.push_back(std::make_unique<support::BusSocket>(TAVRIX_SP_PUB));
        publishers.back()->bind(address);
    }
    EXPECT_TRUE(support::wait_until([&] {
        for (const auto &publisher : publishers) {
            for (const std::string &frame : frames) {
                tavrix_mq_socket_send(publisher->number, frame.c_str());
            }
        }
        poll(nullptr, 0, 50);
        return std::all_of(monitors.begin(), monitors.end(),
                           [](support::Process *monitor) { return monitor->wait(0) != -1; });
    })) << monitors.back()->log();
}

TEST(CtlMonitor, KeepsToItsChannelsAndItsCount) {
    const std::vector<std::string> addresses = {support::free_bus_address(), support::free_bus_address()};
    support::Process monitor(
        "monitor", {TAVRIXCTL, "monitor", addresses[0], addresses[1], "--channel", "2524546b", "--count", "1"});
    publish_until_they_end({&monitor}, addresses, {"3a6f8f51|{}", "2524546b-ca99|{}"});
    const std::string output = monitor.output();
    EXPECT_EQ(output.find('\n'), output.size() - 1) << "one line";
    EXPECT_NE(output.find("  2524546b-ca99  {}"), std::string::npos) << output;
}

TEST(CtlMonitor, TakesSeveralChannelsBeforeAndAfterTheAddresses) {
    const std::vector<std::string> addresses = {support::free_bus_address(), support::free_bus_address()};
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", "--channel", "3a6f8f51", addresses[0], addresses[1],
                                         "--channel", "no-such-channel", "--channel", "2524546b", "--count", "4"});
    publish_until_they_end({&monitor}, addresses, {"3a6f8f51|{}", "9d4f|{}", "2524546b|{}"});
    EXPECT_NE(monitor.output().find("  3a6f8f51  {}"), std::string::npos) << monitor.output();
    EXPECT_NE(monitor.output().find("  2524546b  {}"), std::string::npos) << monitor.output();
    EXPECT_EQ(monitor.output().find("9d4f"), std::string::npos) << monitor.output();
}

TEST(CtlMonitor, NamesTheSystemsChannelsForPeopleAndPrograms) {
    const struct {
        std::string channel;
        const char *shown;
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
        const std::string address = support::free_bus_address();
        support::Process monitor("monitor", {TAVRIXCTL, "monitor", address, "--count", "1"});
        support::Process lines("lines", {TAVRIXCTL, "monitor", address, "--count", "1", "--json", "lines"});
        publish_until_they_end({&monitor, &lines}, {address}, {row.channel + "|{}"});
        const std::string line = first_line(monitor.output());
        EXPECT_EQ(line.substr(line.find("  ")), std::string("  ") + row.shown + "  {}");
        EXPECT_EQ(support::member(lines.output(), "channel"), '"' + row.channel + '"');
        EXPECT_EQ(support::member(lines.output(), "name"), row.name) << row.channel;
    }
}

TEST(CtlMonitor, KeepsTheChannelsExactTextForPrograms) {
    const std::string address = support::free_bus_address();
    for (const auto &[frame, channel] : {std::pair("a\\b\x1b\xc3\xa4|{}", R"("channel":"a\\b\u001B\u00E4")"),
                                         std::pair("no\xff UTF-8|{}", R"("channel":"no\\xff UTF-8")"),
                                         std::pair("no bar", R"("channel":"","name":null)")}) {
        support::Process monitor("monitor", {TAVRIXCTL, "monitor", address, "--count", "1", "--json", "lines"});
        publish_until_they_end({&monitor}, {address}, {frame});
        EXPECT_NE(monitor.output().find(channel), std::string::npos) << monitor.output();
    }
}

TEST(CtlMonitor, TakesAChannelByItsName) {
    const std::string address = support::free_bus_address();
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", address, "--channel", "replies", "--count", "1"});
    publish_until_they_end({&monitor}, {address},
                           {"x|{}", "2524546b|{}", std::string(TAVRIX_ROUTER_REPLY_CHANNEL) + "|{}"});
    EXPECT_NE(monitor.output().find("  replies  {}"), std::string::npos) << monitor.output();
}

TEST(CtlMonitor, TakesAChannelsNameForTheBeginningOfOthersToo) {
    for (const std::string frame : {"events.LinkChanged|{}", TAVRIX_CHANNEL_EVENTS "|{}"}) {
        const std::string address = support::free_bus_address();
        support::Process monitor("monitor", {TAVRIXCTL, "monitor", address, "--channel", "events", "--count", "1"});
        publish_until_they_end({&monitor}, {address}, {"x|{}", frame});
        EXPECT_NE(monitor.output().find("  events"), std::string::npos) << monitor.output();
    }
}

TEST(CtlMonitor, KeepsAFrameThatIsNoJsonOnOneHarmlessLine) {
    const std::string address = support::free_bus_address();
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", address, "--count", "2"});
    publish_until_they_end({&monitor}, {address}, {"cha\tnnel|no\nJSON \033[2J \\ \xc3\xa4", "no bar"});
    std::istringstream lines(monitor.output());
    std::string line;
    std::vector<std::string> shown;
    while (std::getline(lines, line)) {
        shown.push_back(line.substr(line.find("  ")));
    }
    std::sort(shown.begin(), shown.end()); // the second frame may be the first that is heard
    EXPECT_EQ(shown, (std::vector<std::string>{"  -  no bar", R"(  cha\x09nnel  no\x0aJSON \x1b[2J \x5c \xc3\xa4)"}));
}

TEST(CtlMonitor, PrintsJsonThatSteersNoTerminal) {
    const std::string address = support::free_bus_address();
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", address, "--count", "1"});
    publish_until_they_end({&monitor}, {address}, {"channel|{\"\x7f\":\"\xc2\x9b\x32J\"}"});
    const std::string line = first_line(monitor.output());
    EXPECT_EQ(line.substr(line.find("  ")), R"(  channel  {"\u007F":"\u009B2J"})");
}

TEST_F(RoutedCtlLogLevel, MakesTheDaemonsRereadIt) {
    fleet.start_ports();
    const Finished finished =
        ctl({"log-level", "portsd", "verbose", "--file", "tavrix_lsyslog.conf", "--socket", "router.sock"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_TRUE(fleet.ports->says("Logging level set to verbose."));
}

TEST_F(RoutedCtlLogLevel, ShowsWhatEachDaemonHas) {
    fleet.start_ports();
    write_file("levels.conf", "[other]\nx=1\n[logging_levels]\n# c\nportsd=info\ntool=off\n");
    const Finished shown = ctl({"log-level", "--file", "levels.conf", "--socket", "router.sock"});
    EXPECT_EQ(shown.status, 0) << shown.diagnostics;
    EXPECT_EQ(shown.output, "DAEMON   LEVEL  STATE\n"
                            "portsd   info   up\n"
                            "routerd  -      up\n"
                            "tool     off    -\n");
    const Finished one = ctl({"log-level", "portsd", "--file", "levels.conf", "--socket", "router.sock"});
    EXPECT_EQ(one.output, "DAEMON  LEVEL  STATE\nportsd  info   up\n");
    const Finished changed = ctl({"log-level", "routerd", "debug", "--file", "levels.conf", "--socket", "router.sock"});
    EXPECT_NE(changed.output.find("\nrouterd  debug  up\n"), std::string::npos) << changed.output;
}

TEST_F(RoutedCtlLogLevel, RefusesADaemonThatNobodyKnows) {
    fleet.start_ports();
    write_file("levels.conf", "[logging_levels]\ntool=off\n");
    for (const char *level : {"debug", ""}) {
        std::vector<std::string> words = {"log-level", "--file", "levels.conf", "--socket", "router.sock", "portsdd"};
        if (level[0] != '\0') {
            words.emplace_back(level);
        }
        const Finished finished = ctl(words);
        EXPECT_EQ(finished.status, 2) << level;
        EXPECT_EQ(finished.diagnostics, "tavrixctl: there is no daemon 'portsdd'; did you mean 'portsd'?\n");
    }
    EXPECT_EQ(support::read_file("levels.conf"), "[logging_levels]\ntool=off\n");
    EXPECT_EQ(ctl({"log-level", "--file", "levels.conf", "--socket", "router.sock", "tool", "info"}).status, 0)
        << "the file knows it";
    EXPECT_EQ(ctl({"log-level", "--file", "levels.conf", "--socket", "nobody.sock", "tool", "debug"}).status, 4)
        << "set, but nobody has been told";
    EXPECT_EQ(support::read_file("levels.conf"), "[logging_levels]\ntool=debug\n");
}

TEST_F(RoutedCtlStatus, HasColoursOnATerminalOnlyAndNotAgainstItsWill) {
    const support::DirectService service("portsd", {"ports.Get"});
    const struct {
        const char *environment;
        bool coloured;
    } rows[] = {{"TERM=xterm NO_COLOR=", true}, {"TERM=xterm NO_COLOR=1", false}, {"TERM=dumb NO_COLOR=", false}};
    for (const auto &row : rows) {
        const Terminal terminal;
        const Finished finished =
            script(std::string(row.environment) + " tavrixctl status --session session.sock >" + terminal.name());
        EXPECT_EQ(finished.status, 0) << finished.diagnostics;
        const std::string written = terminal.written();
        EXPECT_NE(written.find("portsd"), std::string::npos);
        EXPECT_EQ(written.find("\033[32mup\033[0m") != std::string::npos, row.coloured) << row.environment;
        EXPECT_EQ(written.find('\033') != std::string::npos, row.coloured) << row.environment;
    }
}

TEST(CtlLogLevel, MakesTheRouterRereadItAlsoWithoutAService) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "86400000"});
    const Finished finished =
        ctl({"log-level", "routerd", "verbose", "--file", "tavrix_lsyslog.conf", "--socket", "router.sock"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
}
