#include <csignal>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"

using support::Finished;
using support::Fleet;
using support::member;
using support::read_file;
using support::write_file;

namespace {

Finished ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVRIXCTL);
    return support::run(arguments);
}

/** A script in bash that calls the tool by its name. */
Finished script(const std::string &text) { return support::run_script("tavrixctl", TAVRIXCTL, text); }

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

std::string replaced(std::string text, const std::string &what, const std::string &by) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::string first_line(const std::string &text) { return text.substr(0, text.find('\n')); }

} // namespace

TEST(CtlCall, PrintsAResultOnOneLineWhenPiped) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    const Finished finished =
        ctl({"call", "--socket", "router.sock", "--transaction", "7", "ports.Get", R"({"port_id":"d2"})"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, R"({"jsonrpc":"2.0","id":"ports.Get","result":{"ports":[{"port_id":"d2",)"
                               R"("status":"enable","poe_status":"unsupported","link_status":"up",)"
                               R"("link_speed":"1000 Mbps","vlan_mode":"local","vlan_ids":[]}]},"transaction_id":7})"
                               "\n");
    EXPECT_EQ(finished.diagnostics, "");
    const Finished pretty =
        ctl({"call", "--socket", "router.sock", "--json=pretty", "ports.Get", R"({"port_id":"d2"})"});
    EXPECT_EQ(pretty.output.rfind("{\n  \"jsonrpc\": \"2.0\",\n", 0), 0U) << pretty.output;
}

TEST(CtlCall, TellsAnErrorResponseByItsExitStatus) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    const Finished finished = ctl({"call", "--socket", "router.sock", "ports.Get", "{}"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(support::code_of(finished.output), "-32602");
}

TEST(CtlCall, SaysThatNoAnswerCameInTime) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "60000"});
    const Finished finished = ctl({"call", "--socket", "router.sock", "--timeout", "0.2", "ports.Get"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.diagnostics, "tavrixctl: no answer in time\n");
}

TEST(CtlCall, SaysThatThereIsNoConnection) {
    const Finished unix_path = ctl({"call", "--socket", "nobody.sock", "ports.Get"});
    EXPECT_EQ(unix_path.status, 4);
    EXPECT_EQ(unix_path.diagnostics, "tavrixctl: nobody.sock: No such file or directory\n");
    const Finished tcp = ctl({"call", "--tcp", "127.0.0.1:" + std::to_string(support::free_port()), "ports.Get"});
    EXPECT_EQ(tcp.status, 4);
    EXPECT_EQ(ctl({"call", "--tcp", "127.0.0.1", "ports.Get"}).status, 2);
}

TEST(CtlCall, ReachesTheRouterOverTcp) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router({"--tcp", std::to_string(port)});
    fleet.start_ports();
    const Finished finished =
        ctl({"call", "--tcp", "127.0.0.1:" + std::to_string(port), "ports.Get", R"({"port_id":"d1"})"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
}

TEST(CtlCall, SendsANotificationWithoutWaitingForAnAnswer) {
    Fleet fleet;
    fleet.start_router();
    const Finished finished = ctl({"call", "--socket", "router.sock", "--notification", "ports.Get"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, "");
    EXPECT_TRUE(fleet.router->says("Refused the notification ports.Get"));
}

TEST(CtlCall, RefusesWrongUsage) {
    const std::vector<std::vector<std::string>> rows = {
        {},
        {"nonsense"},
        {"call"},
        {"call", "m", "no json"},
        {"call", "m", "[]"},
        {"call", "m", "{}", "more"},
        {"call", "m", "--timeout", "0"},
        {"call", "m", "--timeout", "x"},
        {"call", "m", "--json", "ugly"},
        {"call", "m", "--tcp", "a:1", "--direct", "b"},
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

TEST(CtlHelp, ExplainsTheToolAndEachVerbWithExamples) {
    for (const char *verb :
         {"", "call", "send", "monitor", "push", "wait", "error", "validate", "shm", "log-level", "completion"}) {
        std::vector<std::string> words;
        if (verb[0] != '\0') {
            words.emplace_back(verb);
        }
        words.emplace_back("--help");
        const Finished help = ctl(words);
        EXPECT_EQ(help.status, 0) << verb;
        EXPECT_NE(help.output.find("examples:"), std::string::npos) << verb;
        EXPECT_NE(help.output.find("tavrixctl"), std::string::npos) << verb;
        words.back() = "--version";
        const Finished version = ctl(words);
        EXPECT_EQ(version.status, 0) << verb;
        EXPECT_EQ(version.output.rfind("tavrixctl 1.", 0), 0U) << verb << version.output;
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
    const std::string traffic = "export TAVRIX_SOCKET=router.sock\n"
                                "while tavrixctl call ports.Get '{\"port_id\":\"d1\"}' >/dev/null; do :; done &\n"
                                "trap \"kill $!\" EXIT\n";
    for (const char *verb : {"", "call", "send", "monitor", "push", "wait", "error", "validate", "shm set", "shm get",
                             "shm", "log-level", "completion"}) {
        const std::string help = script(std::string("tavrixctl ") + verb + " --help").output;
        ASSERT_NE(help.find("examples:\n  "), std::string::npos) << verb;
        for (std::string example : examples_of(help)) {
            for (const auto &[name, by] : private_names) {
                example = replaced(example, name, by);
            }
            if (example.rfind("tavrix-eventsd ", 0) == 0) {
                continue; // it runs
            }
            const std::string enough = example.find(" monitor ") != std::string::npos ? " --count 1" : "";
            const Finished finished = script(traffic + example + enough);
            EXPECT_EQ(finished.status, 0) << example << "\n" << finished.output << finished.diagnostics;
        }
    }
    shm_unlink(note.c_str());
}

TEST(CtlMonitor, PrintsEveryFrameOfBothDirections) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", fleet.router_address, fleet.ports_address});
    ASSERT_TRUE(monitor.says("connected to 2 of 2")) << monitor.log();
    fleet.ask(support::request("ports.Get", "\"a\"", R"(,"transaction_id":31,"params":{"port_id":"d1"})"));
    EXPECT_TRUE(monitor.prints(R"(  3a6f8f51-502f-4238-9638-29764ff1a8a4  {"jsonrpc":"2.0","method":"ports.Get")"));
    EXPECT_TRUE(monitor.prints(R"(  2524546b-ca99-4868-a062-359cefacff7c  {"jsonrpc":"2.0","id":"ports.Get")"));
    monitor.signal(SIGINT);
    EXPECT_EQ(monitor.wait(), 0);
}

TEST(CtlMonitor, KeepsToItsChannelsAndItsCount) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    support::Process monitor("monitor", {TAVRIXCTL, "monitor", fleet.router_address, fleet.ports_address, "--channel",
                                         "2524546b", "--count", "1"});
    ASSERT_TRUE(monitor.says("connected to 2 of 2"));
    fleet.ask(support::request("ports.Get", "\"a\"", R"(,"params":{"port_id":"d1"})"));
    EXPECT_EQ(monitor.wait(), 0);
    const std::string output = monitor.output();
    EXPECT_EQ(output.find('\n'), output.size() - 1) << "one line";
    EXPECT_NE(output.find("2524546b-ca99-4868-a062-359cefacff7c"), std::string::npos);
}

TEST(CtlMonitor, TakesSeveralChannelsBeforeAndAfterTheAddresses) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    support::Process monitor("monitor",
                             {TAVRIXCTL, "monitor", "--channel", "3a6f8f51", fleet.router_address, fleet.ports_address,
                              "--channel", "no-such-channel", "--channel", "2524546b", "--count", "2"});
    ASSERT_TRUE(monitor.says("connected to 2 of 2")) << monitor.log();
    fleet.ask(support::request("ports.Get", "\"a\"", R"(,"params":{"port_id":"d1"})"));
    EXPECT_EQ(monitor.wait(), 0);
    EXPECT_NE(monitor.output().find("  3a6f8f51"), std::string::npos) << monitor.output();
    EXPECT_NE(monitor.output().find("  2524546b"), std::string::npos) << monitor.output();
}

TEST(CtlMonitor, RefusesAnAddressThatIsNone) { EXPECT_EQ(ctl({"monitor", "localhost:1"}).status, 2); }

TEST(CtlError, ExplainsBothNumberings) {
    EXPECT_EQ(ctl({"error", "-35"}).output, "status   -35  Request parameter not found\n"
                                            "json-rpc -32602  Invalid parameter(s)\n");
    EXPECT_EQ(ctl({"error", "35"}).output, ctl({"error", "-35"}).output);
    EXPECT_EQ(ctl({"error", "-32011"}).output, "json-rpc -32011  Insufficient memory error. Please reset the H7.\n"
                                               "status   -21  Data was about to be written to unallocated memory\n");
    EXPECT_EQ(ctl({"error", "-32601"}).output, "json-rpc -32601  Method not found\n");
    EXPECT_EQ(ctl({"error", "-12345"}).status, 2);
}

TEST(CtlValidate, TellsValidFromInvalid) {
    EXPECT_EQ(ctl({"validate", "port_id", "c128-99"}).status, 0);
    const Finished invalid = ctl({"validate", "port_id", "c129-1"});
    EXPECT_EQ(invalid.status, 1);
    EXPECT_EQ(first_line(invalid.output), "does not match the field's pattern");
    EXPECT_EQ(ctl({"validate", "vlan_id", "4093"}).status, 1);
    EXPECT_EQ(ctl({"validate", "onu_id", "-1"}).status, 0);
    EXPECT_EQ(ctl({"validate", "vlan_id", "x"}).status, 2);
    EXPECT_EQ(ctl({"validate", "date_time", "2026-05-01", "13:45"}).status, 0);
    EXPECT_EQ(ctl({"validate", "date_time", "2026-05-01"}).status, 2);
    EXPECT_EQ(ctl({"validate", "no_field", "x"}).status, 2);
}

TEST(CtlShm, SharesValuesWithAnotherProcess) {
    const std::string name = "/tavrix-test-" + std::to_string(getpid());
    EXPECT_EQ(ctl({"shm", "get", name}).status, 1);
    EXPECT_EQ(ctl({"shm", "set", name, "hello", "--create"}).status, 0);
    EXPECT_EQ(ctl({"shm", "get", name}).output, "hello\n");
    EXPECT_EQ(ctl({"shm", "set", name, "--int", "--create", "42"}).status, 0);
    EXPECT_EQ(ctl({"shm", "get", name, "--int"}).output, "42\n");
    EXPECT_EQ(ctl({"shm", "set", name, "--size", "4", "long"}).status, 2);
    shm_unlink(name.c_str());
}

TEST(CtlLogLevel, EditsTheFileAndKeepsTheRest) {
    const auto edited = [](const std::string &before, const std::string &daemon) {
        write_file("levels.conf", before);
        EXPECT_EQ(ctl({"log-level", daemon, "debug", "--file", "levels.conf", "--no-reload"}).status, 0);
        return read_file("levels.conf");
    };
    EXPECT_EQ(edited("", "a"), "[logging_levels]\na=debug\n");
    EXPECT_EQ(edited("[logging_levels]\na=info\n", "a"), "[logging_levels]\na=debug\n");
    EXPECT_EQ(edited("# c\n[x]\na=1\n[logging_levels]\nb=info\n[y]\na=2\n", "a"),
              "# c\n[x]\na=1\n[logging_levels]\nb=info\na=debug\n[y]\na=2\n");
    EXPECT_EQ(edited("[logging_levels]\na=info", "a"), "[logging_levels]\na=debug\n") << "its last line counts now";
    EXPECT_EQ(ctl({"log-level", "a", "error", "--file", "levels.conf"}).status, 2) << "no word of the file";
    EXPECT_EQ(ctl({"log-level", "a=b", "debug", "--file", "levels.conf"}).status, 2);
}

TEST(CtlLogLevel, MakesTheDaemonsRereadIt) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    const Finished finished =
        ctl({"log-level", "portsd", "verbose", "--file", "tavrix_lsyslog.conf", "--socket", "router.sock"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_TRUE(fleet.ports->says("Logging level set to verbose."));
}

TEST(CtlCompletion, AsksTheToolItself) {
    EXPECT_NE(ctl({"completion", "bash"}).output.find("complete -o default -F _tavrixctl tavrixctl"),
              std::string::npos);
    EXPECT_EQ(ctl({"__complete", "mon"}).output, "monitor\n");
    EXPECT_EQ(ctl({"__complete", "validate", "vlan_n"}).output, "vlan_name_id\n");
    EXPECT_EQ(ctl({"__complete", "log-level", "portsd", "v"}).output, "verbose\n");
    EXPECT_EQ(ctl({"__complete", "call", "--tim"}).output, "--timeout\n");
    EXPECT_EQ(ctl({"__complete", "shm", "g"}).output, "get\n");
}

TEST(CtlPush, SaysThatNobodyTakesTheMessage) {
    const Finished finished = ctl({"push", support::free_bus_address(), "x.Y", "--timeout", "0.2"});
    EXPECT_EQ(finished.status, 4);
    EXPECT_NE(finished.diagnostics.find("nobody takes the message"), std::string::npos);
}

TEST(CtlWait, GivesUpWithoutConnectionOrNotification) {
    EXPECT_EQ(ctl({"wait", "x.Y", support::free_bus_address(), "--timeout", "0.2"}).status, 4);
    Fleet fleet;
    fleet.start_router();
    EXPECT_EQ(ctl({"wait", "x.Y", fleet.router_address, "--timeout", "2"}).status, 3);
}
