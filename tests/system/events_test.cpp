/*
 * Daemons that call daemons: awaited replies and notifications, direct and one-way requests, shared state.
 */
#include <csignal>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"
#include "tavrix_shm.h"

using support::code_of;
using support::Finished;
using support::Fleet;
using support::member;
using support::request;
using support::StreamClient;

namespace {

Finished ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVRIXCTL);
    return support::run(arguments);
}

class Events : public testing::Test {
  protected:
    void start(const std::string &interval_ms = "50") {
        fleet.start_router({"--connect", fleet.events_address});
        fleet.start_ports({"--connect", fleet.events_address, "--events", fleet.events_address});
        fleet.start_events(interval_ms);
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
    Fleet fleet;
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
    EXPECT_EQ(code_of(call("events.Get", R"({"number":100000})")), "-32013");
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
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=info\neventsd=debug\n");
    EXPECT_EQ(member(call("logger.ReloadConf"), "result"), "0");
    EXPECT_TRUE(fleet.events->says("Logging level set to debug."));
    EXPECT_TRUE(fleet.ports->says("Logging level set to info."));
}

TEST_F(Events, StopCleanlyAlsoWhileTheyWaitForAReply) {
    start();
    fleet.ports->signal(SIGKILL);
    fleet.ports->wait();
    const StreamClient client = StreamClient::unix_path("events.sock");
    client.say(request("events.Describe", "1", R"(,"params":{"port_id":"d1"})"));
    // The wait's patience is a minute; the second connection shows that it has begun to be served.
    fleet.events->signal(SIGTERM);
    EXPECT_EQ(fleet.events->wait(), 0) << fleet.events->log();
    EXPECT_EQ(access("events.sock", F_OK), -1);
}

TEST_F(Events, StopThePortsServiceWhileItWaitsForThem) {
    start("3600000");
    const StreamClient client = fleet.connect();
    client.say(request("ports.WaitLinkChanged", "1"));
    fleet.ports->signal(SIGTERM);
    EXPECT_EQ(fleet.ports->wait(), 0) << fleet.ports->log();
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
    EXPECT_EQ(support::run(
                  {TAVRIX_EVENTSD, "--script", "missing.txt", "--publish", fleet.events_address, "--slot", fleet.slot})
                  .status,
              1);
    EXPECT_EQ(support::run({TAVRIX_EVENTSD, "--help"}).status, 0);
}
