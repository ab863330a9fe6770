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

TEST_F(Road, RefusesEachKindOfBadParameterWithItsReason) {
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
        {"ports.SetEnabled", R"({"port_id":"d1","status":"on"})", "-32602",
         R"("status: \"on\" is not one of enable, disable")"},
        {"ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":4093})", "-32602",
         R"("vlan_id: 4093 is not in 1 to 4092")"},
        {"ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":"5"})", "-32602",
         "\"Parameter 'vlan_id' is not of type 'integer'.\""},
        {"ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":[]})", "-32602",
         R"("vlan_ids: [] is not an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {"ports.SetVlanTrunk", R"({"port_id":"d1"})", "-32602",
         R"("vlan_ids is missing: an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {"ports.SetMacFilters", R"({"port_id":"d1","filters":[]})", "-32032",
         R"("port_id: \"d1\" is not a port c1-1 to c128-99")"},
        {"ports.SetMacFilters", R"({"port_id":"c1-1"})", "-32602", "\"Missing expected parameter: 'filters'\""},
        {"ports.SetMacFilters", R"({"port_id":"c1-1","filters":{}})", "-32602",
         "\"Parameter 'filters' is not of type 'array'.\""},
        {"ports.SetMacFilters", R"({"port_id":"c1-1","filters":[{"mac":"x","mask":"ff:ff:ff:ff:ff:ff"}]})", "-32602",
         R"("filters: [{\"mac\":\"x\",\"mask\":\"ff:ff:ff:ff:ff:ff\"}] is not )"
         R"(an array of filters: mac and mask, two MAC addresses each, at most 128")"},
        {"ports.SetMacFilters", R"({"port_id":"c1-1","filters":[{"mac":"aa:bb:cc:dd:ee:ff","mask":"x"}]})", "-32602",
         R"("filters: [{\"mac\":\"aa:bb:cc:dd:ee:ff\",\"mask\":\"x\"}] is not )"
         R"(an array of filters: mac and mask, two MAC addresses each, at most 128")"},
        {"mzu.Register", R"({"mzu_id":"c9","mac":"00:11:22:33:44:55","alias":"x"})", "-32602",
         "\"Missing expected parameter: 'model'\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":10,"mac":"00:11:22:33:44:55","alias":"x"})", "-32602",
         "\"Parameter 'model' is not of type 'string'.\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","alias":"x"})", "-32602",
         "\"Missing expected parameter: 'mac'\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":[],"alias":"x"})", "-32602",
         "\"Parameter 'mac' is not of type 'string'.\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44","alias":"x"})", "-32602",
         R"("mac: \"00:11:22:33:44\" is not a MAC address, such as 00:1A:2B:3C:4D:5E")"},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55"})", "-32602",
         "\"Missing expected parameter: 'alias'\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":true})", "-32602",
         "\"Parameter 'alias' is not of type 'string'.\""},
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
        std::string params;
        const char *code;
        const char *message;
    } rows[] = {
        {"ports.Get", R"({"port_id":"c1-99"})", "-32034", "\"The given port does not exist\""},
        {"ports.Get", R"({"port_id":"c99"})", "-32022", "\"The given MZU ID does not represent an existing MZU\""},
        {"ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":)" + numbers(1, 33) + "}", "-32033",
         R"("vlan_ids: [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23... is not )"
         R"(an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {"ports.SetMacFilters", mac_filters(17), "-32039",
         "\"Attempted to set too many entries for the switch or port.\""},
        {"ports.poe.GetInstantPower", R"({"port_id":"c1-4"})", "-32035", "\"The given port/mzu does not support poe\""},
        {"ports.poe.GetInstantPower", R"({"port_id":"c3-1"})", "-32020", "\"MZU offline\""},
        {"mzu.Register", R"({"mzu_id":"c1","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"x"})", "-32023",
         "\"MZU already exists.\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:1b:0d:00:00:01","alias":"x"})", "-32040",
         "\"MAC Address already exists.\""},
        {"mzu.Register", R"({"mzu_id":"c9","model":"unknown","mac":"00:11:22:33:44:55","alias":"x"})", "-32042",
         "\"MZU model does not exist.\""},
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

TEST_F(Road, LeavesNothingChangedWhenAChangeFailsHalfWay) {
    const struct {
        const char *trigger;
        const char *method;
        std::string params;
        const char *state;
    } rows[] = {
        {"BEFORE INSERT ON vlan_members WHEN NEW.vlan_id = 7", "ports.SetVlanTrunk",
         R"({"port_id":"d1","vlan_ids":[5,7,9]})",
         "SELECT vlan_mode, vlan_id FROM ports JOIN vlan_members USING (unit, port) WHERE unit = 0 ORDER BY vlan_id"},
        {"BEFORE INSERT ON vlan_members WHEN NEW.vlan_id = 7", "ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":7})",
         "SELECT vlan_mode, vlan_id FROM ports JOIN vlan_members USING (unit, port) WHERE unit = 0 ORDER BY vlan_id"},
        {"BEFORE DELETE ON vlan_members", "ports.SetVlanLocal", R"({"port_id":"d1"})",
         "SELECT vlan_mode, vlan_id FROM ports JOIN vlan_members USING (unit, port) WHERE unit = 0 ORDER BY vlan_id"},
        {"BEFORE INSERT ON mac_filters WHEN NEW.mac LIKE '%02'", "ports.SetMacFilters", mac_filters(3),
         "SELECT mac FROM mac_filters"},
        {"BEFORE UPDATE ON ports WHEN NEW.port = 3", "ports.SetEnabled", R"({"port_id":"all","status":"disable"})",
         "SELECT status FROM ports ORDER BY unit, port"},
        {"BEFORE INSERT ON ports WHEN NEW.port = 5", "mzu.Register",
         R"({"mzu_id":"c9","model":"ZQN-E10","mac":"00:11:22:33:44:55","alias":"x"})",
         "SELECT count(*) FROM units UNION ALL SELECT count(*) FROM ports"},
    };
    ASSERT_EQ(member(call("ports.SetMacFilters", mac_filters(1)), "result"), "0");
    const Sql sql;
    for (const auto &row : rows) {
        const std::string before = sql.read(row.state);
        sql.run(std::string("CREATE TRIGGER refusal ") + row.trigger + " BEGIN SELECT RAISE(ABORT, 'no'); END");
        const std::string answer = call(row.method, row.params);
        EXPECT_EQ(code_of(answer), database_error) << row.method;
        EXPECT_EQ(message_of(answer), "\"System access error\"") << row.method;
        EXPECT_EQ(sql.read(row.state), before) << row.method;
        sql.run("DROP TRIGGER refusal");
        EXPECT_EQ(member(call(row.method, row.params), "error"), "(none)") << row.method;
        EXPECT_NE(sql.read(row.state), before) << row.method;
    }
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

TEST_F(Road, OpensADatabaseThatTookTheOldOnesPlace) {
    EXPECT_EQ(code_of(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":77})")), "(none)");
    std::filesystem::copy_file("zqn_h7.db", "backup.db");
    EXPECT_EQ(code_of(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":78})")), "(none)");
    std::filesystem::rename("backup.db", "zqn_h7.db"); // an update, or a backup that is put back
    EXPECT_NE(port("d1").find(R"("vlan_ids":[77])"), std::string::npos);
    EXPECT_EQ(code_of(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":79})")), "(none)");
    EXPECT_EQ(Sql().read("SELECT vlan_id FROM vlan_members WHERE unit = 0 AND port = 1"), "79") << "the new file's";
}

TEST_F(Road, GoesOnWithADatabaseThatWasAwayForAWhile) {
    const std::string before = port("c1");
    std::filesystem::rename("zqn_h7.db", "aside.db");
    for (int i = 0; i < 2; ++i) {
        const std::string answer = call("ports.Get", R"({"port_id":"c1"})");
        EXPECT_EQ(code_of(answer), database_error) << answer;
        EXPECT_EQ(code_of(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})")), database_error);
    }
    EXPECT_EQ(access("zqn_h7.db", F_OK), -1) << "none is made in its place";
    support::write_file("zqn_h7.db", std::string(4096, 'x'));
    EXPECT_EQ(code_of(call("ports.Get", R"({"port_id":"c1"})")), database_error) << "no database";
    std::filesystem::rename("aside.db", "zqn_h7.db");
    EXPECT_EQ(port("c1"), before);
    EXPECT_EQ(member(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"), "result"), "0");
}

TEST_F(Road, AnswersWithAnErrorWhenAStoredValueIsNone) {
    const Sql sql;
    sql.run("PRAGMA ignore_check_constraints = ON");
    const struct {
        const char *break_it;
        const char *mend_it;
        const char *method;
        const char *params;
    } rows[] = {
        {"UPDATE ports SET status = 2 WHERE unit = 0", "UPDATE ports SET status = 1", "ports.Get",
         R"({"port_id":"d1"})"},
        {"UPDATE ports SET status = -1 WHERE unit = 0", "UPDATE ports SET status = 1", "ports.Get",
         R"({"port_id":"all"})"},
        {"UPDATE ports SET poe_status = 5", "UPDATE ports SET poe_status = 0", "ports.Get", R"({"port_id":"c1-1"})"},
        {"UPDATE ports SET link_status = 99", "UPDATE ports SET link_status = 0", "ports.Get", R"({"port_id":"c1"})"},
        {"UPDATE ports SET link_speed = 2147483647", "UPDATE ports SET link_speed = 0", "ports.Get",
         R"({"port_id":"c1"})"},
        {"UPDATE ports SET vlan_mode = -2147483648", "UPDATE ports SET vlan_mode = 1", "ports.Get",
         R"({"port_id":"c1"})"},
        {"UPDATE units SET model = 11 WHERE unit = 1", "UPDATE units SET model = 1", "mzu.List", "{}"},
        {"UPDATE units SET model = -1 WHERE unit = 1", "UPDATE units SET model = 1", "mzu.List", "{}"},
    };
    for (const auto &row : rows) {
        sql.run(row.break_it);
        const std::string answer = call(row.method, row.params);
        EXPECT_EQ(code_of(answer), database_error) << row.break_it << answer;
        sql.run(row.mend_it);
        EXPECT_EQ(code_of(call(row.method, row.params)), "(none)") << row.break_it;
    }
    EXPECT_TRUE(fleet.ports->running());
}

TEST_F(Road, ShowsTextsOfTheDatabaseAsTheyAreOrNotAtAll) {
    const Sql sql;
    sql.run("PRAGMA ignore_check_constraints = ON");
    sql.run("UPDATE units SET alias = CAST(x'ff41' AS TEXT) WHERE unit = 1"); // no UTF-8
    EXPECT_EQ(code_of(call("mzu.List", "{}")), database_error);
    sql.run("UPDATE units SET alias = 'LOBBY' WHERE unit = 1");
    EXPECT_EQ(code_of(call("mzu.List", "{}")), "(none)");
}

TEST_F(Road, StoresUpToItsBoundsAndNoMore) {
    const Sql sql;
    constexpr char stored[] = "SELECT mac, mask FROM mac_filters WHERE unit = 1 AND port = 1";
    EXPECT_EQ(member(call("ports.SetMacFilters", mac_filters(1)), "result"), "0");
    EXPECT_EQ(sql.read(stored), "00:00:00:00:00:01 FF:FF:FF:FF:FF:FF");
    EXPECT_EQ(code_of(call("ports.SetMacFilters", mac_filters(17))), "-32039");
    EXPECT_EQ(sql.read(stored), "00:00:00:00:00:01 FF:FF:FF:FF:FF:FF");
    EXPECT_EQ(member(call("ports.SetMacFilters", mac_filters(16)), "result"), "0");
    EXPECT_EQ(sql.read("SELECT count(*) FROM mac_filters"), "16");
    EXPECT_EQ(member(call("ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":)" + numbers(1, 32) + "}"), "result"),
              "0");
    EXPECT_NE(port("d1").find(R"("vlan_ids":)" + numbers(1, 32)), std::string::npos);
    EXPECT_EQ(code_of(call("ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":)" + numbers(1, 33) + "}")), "-32033");
    for (const char *fits : {"1", "4092"}) {
        EXPECT_EQ(
            member(call("ports.SetVlanAccess", std::string(R"({"port_id":"d1","vlan_id":)") + fits + "}"), "result"),
            "0");
        EXPECT_NE(port("d1").find(std::string(R"("vlan_ids":[)") + fits + "]"), std::string::npos);
    }
    for (const char *outside : {"0", "-1", "4093"}) {
        EXPECT_EQ(code_of(call("ports.SetVlanAccess", std::string(R"({"port_id":"d1","vlan_id":)") + outside + "}")),
                  "-32602");
    }
    EXPECT_EQ(member(call("ports.SetEnabled", R"({"port_id":"all","status":"disable"})"), "result"), "0");
    EXPECT_EQ(sql.read("SELECT DISTINCT status FROM ports"), "0");
}

TEST_F(Road, AsksForTheParametersOfEachMethod) {
    for (const char *method : {"ports.Get", "ports.SetEnabled", "ports.SetVlanLocal", "ports.SetVlanAccess",
                               "ports.SetVlanTrunk", "ports.poe.GetInstantPower", "ports.SetMacFilters"}) {
        EXPECT_EQ(message_of(call(method, "{}")), "\"Missing expected parameter: 'port_id'\"") << method;
        EXPECT_EQ(code_of(fleet.ask(request(method, "\"a\""))), "-32602") << method << " without parameters";
    }
    EXPECT_EQ(message_of(call("mzu.Register", "{}")), "\"Missing expected parameter: 'mzu_id'\"");
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
