/*
 * Router, ports service and database together.
 */
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "support/fleet.h"
#include "support/json.h"

using support::code_of;
using support::Fleet;
using support::member;
using support::request;
using support::StreamClient;

namespace {

class Road : public testing::Test {
  protected:
    void SetUp() override {
        fleet.start_router({"--reply-timeout", "5000"});
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

TEST_F(Road, RefusesEachKindOfBadParameterWithItsReason) {
    const struct {
        const char *method;
        const char *params;
        const char *code;
        const char *message;
    } rows[] = {
        {"ports.Get", "{}", "-32602", "\"Missing expected parameter: 'port_id'\""},
        {"ports.Get", R"({"port_id":5})", "-32602", "\"Parameter 'port_id' is not of type 'string'.\""},
        {"ports.Get", R"({"port_id":"x1"})", "-32024", "\"Parameter 'port_id' has no valid value.\""},
        {"ports.SetEnabled", R"({"port_id":"d1","status":"on"})", "-32602",
         "\"Parameter 'status' has no valid value.\""},
        {"ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":4093})", "-32602",
         "\"Parameter 'vlan_id' has no valid value.\""},
        {"ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":"5"})", "-32602",
         "\"Parameter 'vlan_id' is not of type 'integer'.\""},
        {"ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":[]})", "-32602",
         "\"Parameter 'vlan_ids' needs at least one VLAN id.\""},
        {"ports.SetVlanTrunk", R"({"port_id":"d1"})", "-32602", "\"Parameter 'vlan_ids' has no valid value.\""},
        {"ports.SetMacFilters", R"({"port_id":"d1","filters":[]})", "-32032",
         "\"Parameter 'port_id' has no valid value.\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"ninechars"})", "-32602",
         "\"Alias must be 8 characters or fewer.\""},
    };
    for (const auto &row : rows) {
        const std::string answer = call(row.method, row.params);
        EXPECT_EQ(code_of(answer), row.code) << row.method << row.params;
        EXPECT_EQ(message_of(answer), row.message) << row.method << row.params;
    }
}

TEST_F(Road, RefusesWhatTheFleetDoesNotHaveOrAllow) {
    const struct {
        const char *method;
        const char *params;
        const char *code;
    } rows[] = {
        {"ports.Get", R"({"port_id":"c1-99"})", "-32034"},
        {"ports.Get", R"({"port_id":"c99"})", "-32022"},
        {"ports.SetVlanTrunk",
         R"({"port_id":"d1","vlan_ids":[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31,32,33]})",
         "-32033"},
        {"ports.poe.GetInstantPower", R"({"port_id":"c1-4"})", "-32035"},
        {"ports.poe.GetInstantPower", R"({"port_id":"c3-1"})", "-32020"},
        {"mzu.Register", R"({"mzu_id":"c1","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"x"})", "-32023"},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:1b:0d:00:00:01","alias":"x"})", "-32040"},
        {"mzu.Register", R"({"mzu_id":"c9","model":"unknown","mac":"00:11:22:33:44:55","alias":"x"})", "-32042"},
        {"ports.Nothing", "{}", "-32601"},
        {"ports.WaitLinkChanged", "{}", "-32003"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(code_of(call(row.method, row.params)), row.code) << row.method << row.params;
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
    EXPECT_EQ(code_of(client.hear()), "-32005");
    fleet.start_ports();
    EXPECT_NE(port("d1").find("d1"), std::string::npos);
}

TEST_F(Road, ReloadsTheLoggersOfAllDaemonsOverTheBus) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=debug\nportsd=debug\n");
    EXPECT_EQ(member(fleet.ask(request("logger.ReloadConf", "\"a\"")), "result"), "0");
    EXPECT_TRUE(fleet.router->says("Logging level set to debug."));
    EXPECT_TRUE(fleet.ports->says("Logging level set to debug."));
}

TEST_F(Road, StopsAndSaysWhyItCannotStart) {
    fleet.ports->signal(SIGTERM);
    EXPECT_EQ(fleet.ports->wait(), 0);
    EXPECT_NE(fleet.ports->log().find("portsd stopped"), std::string::npos);
    const support::Finished finished =
        support::run({TAVRIX_PORTSD, "--database", "missing.db", "--publish", fleet.ports_address});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.diagnostics.find("Failed to open a database connection to file <missing.db>"),
              std::string::npos);
}

TEST(PortsDaemon, StopsWhileNoRouterIsThere) {
    Fleet fleet;
    support::Process lonely("lonely",
                            {TAVRIX_PORTSD, "--publish", fleet.ports_address, "--connect", fleet.router_address});
    ASSERT_TRUE(lonely.says("portsd serving"));
    lonely.signal(SIGINT);
    EXPECT_EQ(lonely.wait(), 0);
}
