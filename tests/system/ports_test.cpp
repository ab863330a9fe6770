/*
 * Router, ports service and database together.
 */
#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/fleet_database.h"
#include "support/json.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using support::code_of;
using support::Fleet;
using support::member;
using support::request;
using support::Sql;
using support::StreamClient;

namespace {

constexpr char database_error[] = "-32010";

std::string numbers(int from, int to) {
    std::string list = "[";
    for (int i = from; i <= to; ++i) {
        list += (i == from ? "" : ",") + std::to_string(i);
    }
    return list + "]";
}

/** Parameters of ports.SetMacFilters for c1-1: so many filters, ending in 01, 02, and so on. */
std::string mac_filters(int count) {
    std::string list;
    for (int i = 1; i <= count; ++i) {
        list += std::string(i == 1 ? "" : ",") + R"({"mac":"00:00:00:00:00:)" + (i < 10 ? "0" : "") +
                std::to_string(i) + R"(","mask":"ff:ff:ff:ff:ff:ff"})";
    }
    return R"({"port_id":"c1-1","filters":[)" + list + "]}";
}

class Road : public testing::Test {
  protected:
    void SetUp() override {
        fleet.start_lone_router({"--reply-timeout", "5000"});
        fleet.start_ports();
    }
    std::string call(const std::string &method, const std::string &params) {
        return fleet.ask(request(method, "\"a\"", ",\"params\":" + params));
    }
    std::string port(const std::string &id) {
        return member(call("ports.Get", R"({"port_id":")" + id + "\"}"), "result");
    }
    std::string message_of(const std::string &answer) {
        return member(member(member(answer, "error"), "data"), "message");
    }
    Fleet fleet;
};

} // namespace

TEST_F(Road, ReadsAPortAUnitAndTheWholeFleet) {
    EXPECT_EQ(port("c1-1"),
              R"({"ports":[{"port_id":"c1-1","status":"enable","poe_status":"enabled","link_status":"up",)"
              R"("link_speed":"1000 Mbps","vlan_mode":"access","vlan_ids":[10]}]})");
    EXPECT_NE(port("d1").find(R"("vlan_ids":[10,20,30])"), std::string::npos);
    const auto count = [&](const std::string &id) {
        const std::string text = port(id);
        int found = 0;
        for (size_t at = text.find("port_id"); at != std::string::npos; at = text.find("port_id", at + 1)) {
            ++found;
        }
        return found;
    };
    EXPECT_EQ(count("c1"), 4);
    EXPECT_EQ(count("all"), 12);
}

TEST_F(Road, ChangesPortsInTheDatabase) {
    EXPECT_EQ(member(call("ports.SetEnabled", R"({"port_id":"c1-3","status":"enable"})"), "result"), "0");
    EXPECT_NE(port("c1-3").find(R"("status":"enable")"), std::string::npos);
    EXPECT_EQ(member(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"), "result"), "0");
    EXPECT_EQ(port("c1").find(R"("status":"enable")"), std::string::npos);
    EXPECT_EQ(member(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":77})"), "result"), "0");
    EXPECT_NE(port("d1").find(R"("vlan_mode":"access","vlan_ids":[77])"), std::string::npos);
    EXPECT_EQ(member(call("ports.SetVlanTrunk", R"({"port_id":"c2-1","vlan_ids":[5,4092,1]})"), "result"), "0");
    EXPECT_NE(port("c2-1").find(R"("vlan_mode":"trunk","vlan_ids":[1,5,4092])"), std::string::npos);
    EXPECT_EQ(member(call("ports.SetVlanLocal", R"({"port_id":"c2-1"})"), "result"), "0");
    EXPECT_NE(port("c2-1").find(R"("vlan_mode":"local","vlan_ids":[])"), std::string::npos);
    EXPECT_EQ(member(call("ports.SetMacFilters",
                          R"({"port_id":"c1-1","filters":[{"mac":"aa-bb-cc-dd-ee-ff","mask":"ff:ff:ff:00:00:00"}]})"),
                     "result"),
              "0");
}

TEST_F(Road, RefusesWithACodeAndWords) {
    const struct {
        const char *method;
        const char *params;
        const char *code;
        const char *message;
    } rows[] = {
        {"ports.Get", "{}", "-32602", "\"Missing expected parameter: 'port_id'\""},
        {"ports.Get", R"({"port_id":5})", "-32602", "\"Parameter 'port_id' is not of type 'string'.\""},
        {"ports.Get", R"({"port_id":"x1"})", "-32024",
         R"("port_id: \"x1\" is not a port c1-1 to c128-99, a port d1 to d4, a unit c1 to c128, all")"},
        {"ports.SetMacFilters", R"({"port_id":"c1-1","filters":{}})", "-32602",
         "\"Parameter 'filters' is not of type 'array'.\""},
        {"ports.SetVlanTrunk", R"({"port_id":"d1"})", "-32602",
         R"("vlan_ids is missing: an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"ninechars"})", "-32602",
         "\"Alias must be 8 characters or fewer.\""},
        {"ports.Get", R"({"port_id":"c99"})", "-32022", "\"The given MZU ID does not represent an existing MZU\""},
        {"ports.Nothing", "{}", "-32601", "\"no service offers ports.Nothing\""},
    };
    for (const auto &row : rows) {
        const std::string answer = call(row.method, row.params);
        EXPECT_EQ(code_of(answer), row.code) << row.method << row.params;
        EXPECT_EQ(message_of(answer), row.message) << row.method << row.params;
    }
}

TEST_F(Road, ReadsPowerAndRegistersUnits) {
    EXPECT_EQ(member(call("ports.poe.GetInstantPower", R"({"port_id":"c1-1"})"), "result"),
              R"({"port_id":"c1-1","power_mw":4200})");
    EXPECT_EQ(member(call("mzu.Register",
                          R"({"mzu_id":"c9","model":"Generic MZU","mac":"00-11-22-33-44-55","alias":"o'neil"})"),
                     "result"),
              R"({"mzu_id":"c9"})");
    EXPECT_NE(
        call("mzu.List", "{}")
            .find(R"({"mzu_id":"c9","model":"Generic MZU","mac":"00:11:22:33:44:55","alias":"O'NEIL","online":false})"),
        std::string::npos);
    EXPECT_NE(port("c9").find("c9-8"), std::string::npos) << "with its ports";
}

TEST_F(Road, SurvivesAServiceThatIsKilledInMidRequest) {
    fleet.ports->signal(SIGSTOP); // it receives the request, but never gets to it
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "\"a\"", R"(,"params":{"port_id":"d1"})"));
    fleet.ports->signal(SIGKILL);
    EXPECT_EQ(fleet.ports->wait(), 128 + SIGKILL);
    const std::string answer = client.hear();
    EXPECT_EQ(code_of(answer), "-32601") << "at once, and not when the time is over";
    EXPECT_EQ(message_of(answer), "\"portsd, which serves ports.Get, is not there\"");
    EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"d1"})")), "-32601") << "so are those who come later";
    fleet.start_ports();
    EXPECT_NE(port("d1").find("d1"), std::string::npos);
}

TEST_F(Road, SurvivesAServiceThatIsKilledInTheMiddleOfAChange) {
    const std::string before = port("c1");
    // Once the rows are written, the change goes on for as good as ever.
    Sql().run("CREATE TRIGGER slow AFTER UPDATE ON ports BEGIN SELECT count(*) FROM ports a, ports b, ports c, ports d,"
              " ports e, ports f, ports g, ports h, ports i, ports j WHERE a.unit + j.unit > 500; END");
    const StreamClient client = fleet.connect();
    client.say(request("ports.SetEnabled", "\"a\"", R"(,"params":{"port_id":"c1","status":"disable"})"));
    ASSERT_TRUE(support::wait_until([] { return access("zqn_h7.db-journal", F_OK) == 0; }));
    fleet.ports->signal(SIGKILL);
    EXPECT_EQ(fleet.ports->wait(), 128 + SIGKILL);
    EXPECT_EQ(code_of(client.hear()), "-32601");
    Sql().run("DROP TRIGGER slow");
    fleet.start_ports();
    EXPECT_EQ(port("c1"), before);
    EXPECT_EQ(member(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"), "result"), "0");
}

TEST_F(Road, ReportsALockedDatabaseAndGoesOnAfterwards) {
    const Sql other;
    const std::string before = port("c1");
    fleet.start_ports(); // which reads the schema when it first asks: a lock keeps it from that, too
    const struct {
        const char *lock;
        bool readable;
    } rows[] = {
        {"BEGIN EXCLUSIVE", false},
        {"BEGIN IMMEDIATE", true},
        {"BEGIN; SELECT * FROM ports", true}, // a reader: only the commit fails
    };
    const struct {
        const char *method;
        const char *params;
        bool only_reads;
    } calls[] = {
        {"mzu.List", "{}", true},
        {"ports.Get", R"({"port_id":"c1"})", true},
        {"ports.SetEnabled", R"({"port_id":"c1","status":"disable"})", false},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"x"})", false},
    };
    const std::string locked = std::string("\"") + tavrix_error_decode(TAVRIX_ERR_DB_BUSY) + "\"";
    for (const auto &row : rows) {
        other.run(row.lock);
        for (const auto &asked : calls) {
            const bool answered = row.readable && asked.only_reads;
            const std::string answer = call(asked.method, asked.params);
            EXPECT_EQ(code_of(answer), answered ? "(none)" : database_error) << row.lock << asked.method;
            EXPECT_EQ(message_of(answer), answered ? "(none)" : locked) << row.lock << asked.method;
        }
        other.run("COMMIT");
        EXPECT_EQ(port("c1"), before) << row.lock;
    }
    EXPECT_EQ(member(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"), "result"), "0");
}

TEST_F(Road, WaitsForALockThatGoesAway) {
    constexpr char locked[] = "The database is locked";
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\n");
    fleet.start_ports();
    const Sql other;
    const struct {
        const char *lock;
        const char *method;
        std::string params;
    } rows[] = {
        {"BEGIN EXCLUSIVE", "ports.Get", R"({"port_id":"c1"})"},
        {"BEGIN EXCLUSIVE", "mzu.List", "{}"},
        {"BEGIN EXCLUSIVE", "ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"},
        {"BEGIN IMMEDIATE", "ports.SetMacFilters", mac_filters(2)},
        {"BEGIN IMMEDIATE", "mzu.Register",
         R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"x"})"},
        {"BEGIN; SELECT * FROM ports", "ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":7})"},
        {"BEGIN; SELECT * FROM ports", "mzu.Register",
         R"({"mzu_id":"c10","model":"ZQN-E10","mac":"00:11:22:33:44:56","alias":"x"})"},
    };
    for (const auto &row : rows) {
        const int waits = fleet.ports->times_said(locked);
        other.run(row.lock);
        const StreamClient client = fleet.connect();
        client.say(request(row.method, "\"a\"", ",\"params\":" + row.params));
        EXPECT_TRUE(support::wait_until([&] { return fleet.ports->times_said(locked) > waits; })) << row.method;
        other.run("COMMIT");
        EXPECT_EQ(code_of(client.hear()), "(none)") << row.lock << row.method;
    }
}

TEST_F(Road, LetsNobodyElseWaitForALockThatOneRequestMeets) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\n");
    fleet.start_ports();
    const Sql other;
    other.run("BEGIN IMMEDIATE"); // readers may pass
    const StreamClient client = fleet.connect();
    client.say(request("ports.SetEnabled", "\"a\"", R"(,"params":{"port_id":"c1","status":"disable"})"));
    ASSERT_TRUE(fleet.ports->says("The database is locked"));
    const StreamClient waiting = fleet.connect();
    waiting.say(request("ports.WaitLinkChanged", "\"a\""));
    EXPECT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_NE(port("d1").find("d1"), std::string::npos);
    }
    other.run("COMMIT");
    EXPECT_EQ(member(client.hear(), "result"), "0");
    EXPECT_EQ(port("c1").find(R"("status":"enable")"), std::string::npos);
}

TEST_F(Road, GivesUpOnALockWithWhoeverAsked) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\n");
    fleet.start_ports();
    const std::string before = port("c1");
    const Sql other;
    other.run("BEGIN IMMEDIATE");
    StreamClient client = fleet.connect();
    client.say(request("ports.SetEnabled", "\"a\"", R"(,"params":{"port_id":"c1","status":"disable"})"));
    ASSERT_TRUE(fleet.ports->says("The database is locked"));
    client.close();
    EXPECT_TRUE(fleet.ports->says("ports.SetEnabled: cancelled"));
    other.run("COMMIT");
    EXPECT_EQ(code_of(call("ports.SetEnabled", R"({"port_id":"d1","status":"disable"})")), "(none)");
    EXPECT_EQ(port("c1"), before) << "what nobody waits for is not done behind his back";
}

TEST_F(Road, StandsWhileTheRouterIsStartedAnewInMidRequest) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nportsd=debug\n");
    fleet.start_ports();
    const StreamClient client = fleet.connect();
    client.say(request("ports.WaitLinkChanged", "1"));
    ASSERT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    fleet.router->signal(SIGKILL);
    EXPECT_EQ(fleet.router->wait(), 128 + SIGKILL);
    EXPECT_EQ(client.hear(), "");
    fleet.start_router();
    ASSERT_TRUE(fleet.router->says("Service portsd settled")) << "it registers by itself";
    EXPECT_NE(port("d1").find(R"({"port_id":"d1")"), std::string::npos);
}

TEST_F(Road, ReloadsTheLoggersOfAllDaemonsOverTheBus) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=debug\nportsd=debug\n");
    EXPECT_EQ(member(fleet.ask(request("logger.ReloadConf", "\"a\"")), "result"), "0");
    EXPECT_TRUE(fleet.router->says("Logging level set to debug."));
    EXPECT_TRUE(fleet.ports->says("Logging level set to debug."));
}

TEST(PortsDaemon, ReloadsItsLoggerOnItsOwnAndOnTheDefaultChannel) {
    Fleet fleet;
    support::BusSocket peer(TAVRIX_SP_PUB);
    const std::string address = support::free_bus_address();
    peer.bind(address);
    support::Process service("reloaded",
                             {TAVRIX_PORTSD, "--session", "", "--publish", fleet.ports_address, "--connect", address});
    const struct {
        const char *channel;
        const char *level;
    } rows[] = {{TAVRIX_CHANNEL_FIRST, "debug"}, {TAVRIX_CHANNEL_DEFAULT, "verbose"}};
    for (const auto &row : rows) {
        support::write_file("tavrix_lsyslog.conf", std::string("[logging_levels]\nportsd=") + row.level + "\n");
        const std::string frame = std::string(row.channel) + R"(|{"jsonrpc":"2.0","method":"logger.ReloadConf"})";
        EXPECT_TRUE(support::wait_until([&] { // what is published before the connection stands is lost
            tavrix_mq_socket_send(peer.number, frame.c_str());
            return service.says(std::string("Logging level set to ") + row.level, 50);
        })) << row.level;
    }
}

TEST_F(Road, StopsAndSaysWhyItCannotStart) {
    fleet.ports->signal(SIGTERM);
    EXPECT_EQ(fleet.ports->wait(), 0);
    EXPECT_NE(fleet.ports->log().find("portsd stopped"), std::string::npos);
    support::write_file("empty.db", "");
    support::write_file("notes.txt", "somebody's, and long enough to be more than the beginning of a header: " +
                                         std::string(1000, 'x'));
    const std::string fifty_one(51, 'n');
    const std::string too_long(108, 's');
    const struct {
        const char *option;
        const char *value;
        const char *reason;
    } rows[] = {
        {"--database", "missing.db", "Failed to open a database connection to file <missing.db>"},
        {"--database", "empty.db",
         "The database empty.db is not the fleet's; in its place one is made with: tavrixctl db init empty.db"},
        {"--database", ".", "Cannot open the database .; is it a file that this user may read and write?"},
        {"--database", "notes.txt", "Cannot use the database: file is not a database"},
        {"--connect", "nonsense", "Cannot listen to nonsense"},
        {"--publish", "nonsense", "Cannot publish on nonsense"},
        {"--name", "\xff", "A service's name has 1 to 50 letters, digits, dots, dashes and underscores"},
        {"--name", "", "A service's name has 1 to 50 letters, digits, dots, dashes and underscores"},
        {"--name", fifty_one.c_str(), "A service's name has 1 to 50 letters, digits, dots, dashes and underscores"},
        {"--session", too_long.c_str(), "a socket's path has at most 107 bytes"},
    };
    for (const auto &row : rows) {
        const support::Finished finished =
            support::run({TAVRIX_PORTSD, "--publish", fleet.ports_address, row.option, row.value});
        EXPECT_EQ(finished.status, 1) << row.option;
        EXPECT_NE(finished.diagnostics.find(row.reason), std::string::npos) << row.option << finished.diagnostics;
    }
}

TEST(PortsDaemon, ShowsInItsHelpWhatItDoesUnasked) {
    const support::Finished finished = support::run({TAVRIX_PORTSD, "--help"});
    EXPECT_EQ(finished.status, 0);
    for (const char *text :
         {"(default /run/tavrix/session.sock)", "(default: one in the router's bus folder)", "(default zqn_h7.db)",
          "(default 5000)", "Keep --wait-timeout below the router's --reply-timeout"}) {
        EXPECT_NE(finished.output.find(text), std::string::npos) << text << "\n" << finished.output;
    }
}

TEST(PortsDaemon, StopsWhileNoRouterIsThere) {
    Fleet fleet;
    support::Process lonely("lonely", {TAVRIX_PORTSD, "--session", "missing.sock"});
    ASSERT_TRUE(lonely.says("Waiting for the router at missing.sock: No such file or directory; is it running?"));
    lonely.signal(SIGINT);
    EXPECT_EQ(lonely.wait(), 0);
}

TEST(PortsDaemon, ObeysSignalsInAFloodOfMessages) {
    Fleet fleet;
    std::vector<std::string> arguments = {TAVRIX_PORTSD, "--session", "", "--publish", fleet.ports_address};
    std::array<support::BusSocket, 4> peers; // while the bus fetches the next message of one, another's is there
    for (support::BusSocket &peer : peers) {
        const std::string address = support::free_bus_address();
        tavrix_mq_socket_init(TAVRIX_SP_PUB, &peer.number);
        peer.bind(address);
        arguments.insert(arguments.end(), {"--connect", address});
    }
    support::Process service("flooded", arguments);
    const std::string request_text =
        R"(|{"jsonrpc":"2.0","method":"service.Welcome","id":"nobody","params":{"name":"portsd","list":)" +
        numbers(1, 4000) + "}}";
    for (const char *channel : {TAVRIX_CHANNEL_FIRST, TAVRIX_CHANNEL_DEFAULT}) {
        std::atomic<bool> enough{false};
        std::thread flood([&] {
            while (!enough) {
                for (const support::BusSocket &peer : peers) {
                    tavrix_mq_socket_send(peer.number, (channel + request_text).c_str());
                }
            }
        });
        EXPECT_TRUE(service.says("portsd ready"));
        const int reloads = service.times_said("Logging level set");
        service.signal(SIGHUP);
        EXPECT_TRUE(support::wait_until([&] { return service.times_said("Logging level set") > reloads; })) << channel;
        enough = true;
        flood.join();
    }
}
