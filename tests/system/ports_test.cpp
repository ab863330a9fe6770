/*
 * Router, ports service and database together.
 */
#include <array>
#include <csignal>

#include <unistd.h>

#include "support/fleet_database.h"
#include "support/mutation.h"
#include "support/repeating.h"
#include "support/system_test.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;
using namespace testing;

namespace {

constexpr char disable_c1[] = R"({"port_id":"c1","status":"disable"})";

class Road : public testing::Test {
  protected:
    Road() {
        fleet.start_lone_router({"--reply-timeout", "5000"});
        fleet.start_ports();
    }
    std::string call(const std::string &method, const std::string &params) {
        return fleet.ask(request(method, "\"a\"", ",\"params\":" + params));
    }
    std::string port(const std::string &id) { return result_of(call("ports.Get", R"({"port_id":")" + id + "\"}")); }
    Fleet fleet;
};

} // namespace

TEST_F(Road, LeadsToEachKindOfMethod) {
    EXPECT_EQ(port("c1-1"),
              R"({"ports":[{"port_id":"c1-1","status":"enable","poe_status":"enabled","link_status":"up",)"
              R"("link_speed":"1000 Mbps","vlan_mode":"access","vlan_ids":[10]}]})");
    EXPECT_EQ(count_of(port("all"), "port_id"), 12);
    EXPECT_EQ(result_of(call("ports.SetEnabled", disable_c1)), "0");
    EXPECT_EQ(count_of(port("c1"), R"("status":"disable")"), 4);
    EXPECT_EQ(result_of(call("ports.SetVlanTrunk", R"({"port_id":"c2-1","vlan_ids":[5,4092,1]})")), "0");
    EXPECT_THAT(port("c2-1"), HasSubstr(R"("vlan_mode":"trunk","vlan_ids":[1,5,4092])"));
    EXPECT_EQ(
        result_of(call("ports.SetMacFilters",
                       R"({"port_id":"c1-1","filters":[{"mac":"aa-bb-cc-dd-ee-ff","mask":"ff:ff:ff:00:00:00"}]})")),
        "0");
    EXPECT_EQ(result_of(call("ports.poe.GetInstantPower", R"({"port_id":"c1-1"})")),
              R"({"port_id":"c1-1","power_mw":4200})");
    EXPECT_EQ(result_of(call("mzu.Register",
                             R"({"mzu_id":"c9","model":"Generic MZU","mac":"00-11-22-33-44-55","alias":"o'neil"})")),
              R"({"mzu_id":"c9"})");
    EXPECT_THAT(port("c9"), HasSubstr("c9-8")) << "with its ports";
}

TEST_F(Road, LeadsBackWithACodeAndWords) {
    EXPECT_EQ(error_of(call("ports.Get", "{}")), "-32602 Missing expected parameter: 'port_id'");
    EXPECT_EQ(error_of(call("ports.Get", R"({"port_id":"x1"})")),
              "-32024 port_id: \"x1\" is not a port c1-1 to c128-99, a port d1 to d4, a unit c1 to c128, all");
    EXPECT_EQ(error_of(call("ports.Get", R"({"port_id":"c99"})")),
              "-32022 The given MZU ID does not represent an existing MZU");
    EXPECT_EQ(error_of(call("ports.Nothing", "{}")), "-32601 no service offers ports.Nothing");
}

TEST_F(Road, SurvivesAServiceThatIsKilledInTheMiddleOfAChange) {
    const std::string before = port("c1");
    // Once the rows are written, the change goes on for as good as ever.
    Sql().run("CREATE TRIGGER slow AFTER UPDATE ON ports BEGIN SELECT count(*) FROM ports a, ports b, ports c, ports d,"
              " ports e, ports f, ports g, ports h, ports i, ports j WHERE a.unit + j.unit > 500; END");
    const StreamClient client = fleet.connect();
    client.say(request("ports.SetEnabled", "\"a\"", std::string(",\"params\":") + disable_c1));
    ASSERT_TRUE(wait_until([] { return access("zqn_h7.db-journal", F_OK) == 0; }));
    EXPECT_EQ(fleet.ports->end_by(SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(code_of(client.hear()), "-32601");
    Sql().run("DROP TRIGGER slow");
    fleet.start_ports();
    EXPECT_EQ(port("c1"), before);
    EXPECT_EQ(result_of(call("ports.SetEnabled", disable_c1)), "0");
}

TEST_F(Road, LetsNobodyElseWaitForALockThatOneRequestMeets) {
    write_log_levels("routerd=info\nportsd=debug");
    fleet.start_ports();
    const Sql other;
    other.run("BEGIN IMMEDIATE"); // readers may pass
    const StreamClient client = fleet.connect();
    client.say(request("ports.SetEnabled", "\"a\"", std::string(",\"params\":") + disable_c1));
    ASSERT_TRUE(fleet.ports->says("The database is locked"));
    const StreamClient waiting = fleet.connect();
    waiting.say(request("ports.WaitLinkChanged", "\"a\""));
    EXPECT_TRUE(fleet.ports->says("Waiting for events.LinkChanged"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_THAT(port("d1"), HasSubstr("d1"));
    }
    other.run("COMMIT");
    EXPECT_EQ(result_of(client.hear()), "0");
    EXPECT_THAT(port("c1"), Not(HasSubstr(R"("status":"enable")")));
}

TEST(PortsDaemon, ReloadsItsLoggerOnItsOwnAndOnTheDefaultChannel) {
    Fleet fleet;
    BusSocket peer(TAVRIX_SP_PUB);
    const std::string address = free_bus_address();
    peer.bind(address);
    Process service("reloaded",
                    {TAVRIX_PORTSD, "--session", "", "--publish", fleet.ports_address, "--connect", address});
    for (const auto &[channel, level] :
         {std::pair(TAVRIX_CHANNEL_FIRST, "debug"), std::pair(TAVRIX_CHANNEL_DEFAULT, "verbose")}) {
        write_log_levels(std::string("portsd=") + level);
        const std::string frame = std::string(channel) + R"(|{"jsonrpc":"2.0","method":"logger.ReloadConf"})";
        const std::string set = std::string("Logging level set to ") + level;
        EXPECT_TRUE(wait_until([&] { // what is published before the connection stands is lost
            tavrix_mq_socket_send(peer.number, frame.c_str());
            return service.says(set, 50);
        })) << level;
    }
}

TEST_F(Road, EndsAndSaysWhyItCannotStart) {
    EXPECT_EQ(fleet.ports->end_by(SIGTERM), 0);
    EXPECT_THAT(fleet.ports->log(), HasSubstr("portsd stopped"));
    write_file("empty.db", "");
    write_file("notes.txt",
               "somebody's, and long enough to be more than the beginning of a header: " + std::string(1000, 'x'));
    const std::string bad_name = "A service's name has 1 to 50 letters, digits, dots, dashes and underscores";
    const struct {
        const char *option;
        std::string value;
        std::string reason;
    } rows[] = {
        {"--database", "empty.db",
         "The database empty.db is not the fleet's; in its place one is made with: tavrixctl db init empty.db"},
        {"--database", ".", "Cannot open the database .; is it a file that this user may read and write?"},
        {"--database", "notes.txt", "Cannot use the database: file is not a database"},
        {"--connect", "nonsense", "Cannot listen to nonsense"},
        {"--name", "\xff", bad_name},
        {"--name", "", bad_name},
        {"--name", std::string(51, 'n'), bad_name},
        {"--session", std::string(108, 's'), "a socket's path has at most 107 bytes"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(run({TAVRIX_PORTSD, "--publish", fleet.ports_address, row.option, row.value}),
                    fails(1, HasSubstr(row.reason)))
            << row.option;
    }
}

TEST(PortsDaemon, ObeysSignalsInAFloodOfMessages) {
    Fleet fleet;
    std::vector<std::string> arguments = {TAVRIX_PORTSD, "--session", "", "--publish", fleet.ports_address};
    std::array<BusSocket, 4> peers; // while the bus fetches the next message of one, another's is there
    for (BusSocket &peer : peers) {
        const std::string address = free_bus_address();
        tavrix_mq_socket_init(TAVRIX_SP_PUB, &peer.number);
        peer.bind(address);
        arguments.insert(arguments.end(), {"--connect", address});
    }
    Process service("flooded", arguments);
    for (const char *channel : {TAVRIX_CHANNEL_FIRST, TAVRIX_CHANNEL_DEFAULT}) {
        const std::string frame =
            channel + (R"(|{"jsonrpc":"2.0","method":"service.Welcome","id":"nobody","params":{"name":"portsd",)"
                       R"("list":[)" +
                       repeated("1234,", 19999) + "]}}");
        const Repeating flood([&] {
            for (const BusSocket &peer : peers) {
                tavrix_mq_socket_send(peer.number, frame.c_str());
            }
        });
        EXPECT_TRUE(service.says("portsd ready"));
        const int reloads = service.times_said("Logging level set");
        service.signal(SIGHUP);
        EXPECT_TRUE(wait_until([&] { return service.times_said("Logging level set") > reloads; })) << channel;
    }
}
