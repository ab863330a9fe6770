/*
 * The methods of the ports service, driven by the test kit on a real database: no router, no bus, no process.
 */
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "ports/methods.h"
#include "support/fleet_database.h"
#include "support/json.h"
#include "support/process.h"
#include "tavrix_jrpc.h"
#include "testkit/driven_service.h"

using namespace driven;
using namespace support;

namespace {

constexpr int wait_timeout_ms = 700;
constexpr int caller_patience_ms = 10000; // the router's reply time-out, unless it is told another
constexpr int lock_patience_ms = 1000;
constexpr char link_changed[] = "events.LinkChanged";
constexpr char get_power[] = "ports.poe.GetInstantPower";
const std::string done = R"({"result":0})";
const std::string deferred = "(none)";

std::string numbers(int count) {
    std::string list;
    for (int i = 1; i <= count; ++i) {
        list += (i == 1 ? "" : ",") + std::to_string(i);
    }
    return "[" + list + "]";
}

std::string filter(const std::string &mac, const std::string &mask = "ff:ff:ff:ff:ff:ff") {
    return R"({"mac":")" + mac + R"(","mask":")" + mask + "\"}";
}

/** Parameters of ports.SetMacFilters for c1-1: so many filters, ending in 01, 02, and so on. */
std::string mac_filters(int count) {
    std::string list;
    for (int i = 1; i <= count; ++i) {
        list += (i == 1 ? "" : ",") +
                filter(std::string("00:00:00:00:") + (i < 100 ? "00:" : "01:") + std::to_string(10 + i % 90));
    }
    return R"({"port_id":"c1-1","filters":[)" + list + "]}";
}

/** Members of mzu.Register's parameters: a unit that the fleet can take, without the member of this name. */
std::string unit_without(const std::string &name) {
    std::string members;
    for (const std::string member :
         {R"("mzu_id":"c9")", R"("model":"ZQN-E10")", R"("mac":"00:11:22:33:44:55")", R"("alias":"attic")"}) {
        if (member.rfind(quoted(name), 0) != 0) {
            members += (members.empty() ? "" : ",") + member;
        }
    }
    return members;
}
std::string unit_but(const std::string &name, const std::string &text) {
    return "{" + unit_without(name) + "," + quoted(name) + ":" + quoted(text) + "}";
}
const std::string good_unit = "{" + unit_without("") + "}";
const std::string d1 = R"("port_id":"d1")";

class PortsService : public testing::Test {
  protected:
    PortsService() {
        make_fleet_database();
        context.database = &database;
        context.wait_timeout_ms = wait_timeout_ms;
        driven = std::make_unique<Service>("portsd", ports::methods(), &context);
        EXPECT_TRUE(ports::listen_for_link_changes(driven->service(), &context));
    }

    std::string call(const char *method, const std::string &params = "{}") { return driven->call(method, params); }
    std::string get(const std::string &port_id) { return call("ports.Get", R"({"port_id":")" + port_id + "\"}"); }
    /** The ids of the ports that are shown, a blank behind each. */
    std::string ids_of(const std::string &port_id) {
        const std::string text = get(port_id);
        constexpr char key[] = R"("port_id":")";
        std::string ids;
        for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
            const size_t begin = at + sizeof key - 1;
            ids += text.substr(begin, text.find('"', begin) - begin) + " ";
        }
        return ids;
    }
    ports::Database database{"zqn_h7.db"};
    ports::Context context;
    std::unique_ptr<Service> driven;
};

/** One call of each method that needs the database, with parameters that the example fleet can take. */
const struct {
    const char *method;
    std::string params;
    bool only_reads;
} good_calls[] = {
    {"ports.Get", R"({"port_id":"c1"})", true},
    {"ports.SetEnabled", R"({"port_id":"c1","status":"disable"})", false},
    {"ports.SetVlanLocal", R"({"port_id":"d1"})", false},
    {"ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":7})", false},
    {"ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":[7,8]})", false},
    {"ports.poe.GetInstantPower", R"({"port_id":"c1-1"})", true},
    {"ports.SetMacFilters", mac_filters(2), false},
    {"mzu.List", "{}", true},
    {"mzu.Register", good_unit, false},
};

} // namespace

// --- Good answers ----------------------------------------------------------------------------------------------------

TEST_F(PortsService, GetsAPortWithEverythingThatIsKnownOfIt) {
    EXPECT_EQ(get("c1-1"), result(R"({"ports":[{"port_id":"c1-1","status":"enable","poe_status":"enabled",)"
                                  R"("link_status":"up","link_speed":"1000 Mbps","vlan_mode":"access",)"
                                  R"("vlan_ids":[10]}]})"));
    EXPECT_EQ(get("d3"), result(R"({"ports":[{"port_id":"d3","status":"disable","poe_status":"unsupported",)"
                                R"("link_status":"down","link_speed":"offline","vlan_mode":"local",)"
                                R"("vlan_ids":[]}]})"));
}

TEST_F(PortsService, GetsThePortsOfAUnitOrOfTheFleetInTheirOrder) {
    EXPECT_EQ(ids_of("c1"), "c1-1 c1-2 c1-3 c1-4 ");
    const std::string in_order = "d1 d2 d3 d4 c1-1 c1-2 c1-3 c1-4 c2-1 c2-2 c3-1 c3-2 ";
    EXPECT_EQ(ids_of("all"), in_order);
    Sql().run("DELETE FROM ports WHERE unit = 0 AND port = 1; INSERT INTO ports (unit, port) VALUES (0, 1)");
    EXPECT_EQ(ids_of("all"), in_order) << "whenever they were stored";
    Sql().run("DELETE FROM ports");
    EXPECT_EQ(get("all"), result(R"({"ports":[]})"));
    EXPECT_EQ(get("c1"), result(R"({"ports":[]})")) << "the unit is there, without ports";
}

TEST_F(PortsService, EnablesAndDisablesAPortAUnitAndTheFleet) {
    const Sql sql;
    constexpr char enabled[] = "SELECT count(*) FROM ports WHERE status = 1";
    EXPECT_EQ(sql.read(enabled), "8");
    EXPECT_EQ(call("ports.SetEnabled", R"({"port_id":"c1-3","status":"enable"})"), done);
    EXPECT_EQ(sql.read(enabled), "9");
    EXPECT_EQ(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"), done);
    EXPECT_EQ(sql.read(enabled), "5");
    for (const auto &[status, count] : {std::pair("enable", "12"), std::pair("disable", "0")}) {
        EXPECT_EQ(call("ports.SetEnabled", std::string(R"({"port_id":"all","status":")") + status + "\"}"), done);
        EXPECT_EQ(sql.read(enabled), count);
    }
}

TEST_F(PortsService, PutsAPortIntoVlansAndTakesItOut) {
    const Sql sql;
    constexpr char modes[] = "SELECT vlan_mode FROM ports WHERE unit = 0 AND port = 1";
    constexpr char members[] = "SELECT vlan_id FROM vlan_members WHERE unit = 0 AND port = 1 ORDER BY vlan_id";
    const std::string others = sql.read("SELECT * FROM vlan_members WHERE unit > 0");
    EXPECT_EQ(call("ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":[4092,1,5,1]})"), done);
    EXPECT_EQ(sql.read(modes) + ": " + sql.read(members), "3: 1 5 4092") << "what is named twice is stored once";
    EXPECT_EQ(call("ports.SetVlanTrunk", R"({"port_id":"d1","vlan_ids":)" + numbers(32) + "}"), done);
    EXPECT_EQ(sql.read("SELECT count(*) FROM vlan_members WHERE unit = 0"), "32");
    for (const std::string id : {"1", "4092"}) {
        EXPECT_EQ(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":)" + id + "}"), done);
        EXPECT_EQ(sql.read(modes) + ": " + sql.read(members), "2: " + id);
    }
    EXPECT_EQ(call("ports.SetVlanLocal", R"({"port_id":"d1"})"), done);
    EXPECT_EQ(sql.read(modes) + ": " + sql.read(members), "1: ");
    EXPECT_EQ(sql.read("SELECT * FROM vlan_members WHERE unit > 0"), others);
}

TEST_F(PortsService, GetsTheInstantPowerOfAPortOrSaysWhyThereIsNone) {
    const Sql sql;
    const auto power_of = [&](const char *port) {
        return call(get_power, R"({"port_id":")" + (port + std::string("\"}")));
    };
    for (const auto &[port, power] : {std::pair("c1-1", "4200"), {"c1-3", "0"}}) {
        EXPECT_EQ(power_of(port), result(std::string(R"({"port_id":")") + port + R"(","power_mw":)" + power + "}"));
    }
    driven->expect_failure(get_power, R"({"port_id":"c1-4"})", TAVRIX_JRPC_NO_POE, TAVRIX_ERR_NO_POE);
    driven->expect_failure(get_power, R"({"port_id":"c3-1"})", TAVRIX_JRPC_MZU_OFFLINE, TAVRIX_ERR_MZU_OFFLINE);
    sql.run("PRAGMA ignore_check_constraints = ON");
    for (const std::string power : {"-1", "4294967297"}) {
        sql.run("UPDATE ports SET power_mw = " + power);
        EXPECT_EQ(code_of(power_of("c1-1")), std::to_string(TAVRIX_JRPC_DATABASE_ERROR)) << power;
        EXPECT_TRUE(driven->logged(("ERROR The database holds " + power + " for a power").c_str()));
    }
    sql.run("UPDATE ports SET power_mw = 2147483647");
    EXPECT_EQ(power_of("c1-1"), result(R"({"port_id":"c1-1","power_mw":2147483647})"));
}

TEST_F(PortsService, PutsNewMacFiltersInThePlaceOfThePorts) {
    const Sql sql;
    constexpr char stored[] = "SELECT unit, port, mac, mask FROM mac_filters";
    EXPECT_EQ(call("ports.SetMacFilters", mac_filters(16)), done);
    EXPECT_EQ(sql.read("SELECT count(*) FROM mac_filters"), "16");
    EXPECT_EQ(call("ports.SetMacFilters",
                   R"({"port_id":"c1-1","filters":[)" + filter("aa-bb-cc-dd-ee-ff", "ff:ff:ff:00:00:00") + "]}"),
              done);
    EXPECT_EQ(sql.read(stored), "1 1 AA:BB:CC:DD:EE:FF FF:FF:FF:00:00:00");
    EXPECT_EQ(call("ports.SetMacFilters", R"({"port_id":"c1-1","filters":[]})"), done);
    EXPECT_EQ(sql.read(stored), "");
}

TEST_F(PortsService, ListsTheUnitsButTheApplianceItself) {
    EXPECT_EQ(call("mzu.List"),
              result(R"({"mzus":[)"
                     R"({"mzu_id":"c1","model":"ZQN-E09","mac":"00:1B:0D:00:00:01","alias":"LOBBY","online":true},)"
                     R"({"mzu_id":"c2","model":"ZQN-E13","mac":"00:1B:0D:00:00:02","alias":"LAB","online":true},)"
                     R"({"mzu_id":"c3","model":"ZQN-E15","mac":"00:1B:0D:00:00:03","alias":"ROOF","online":false}]})"));
    Sql().run("DELETE FROM units WHERE unit > 0");
    EXPECT_EQ(call("mzu.List"), result(R"({"mzus":[]})"));
}

TEST_F(PortsService, RegistersAUnitWithItsEightPorts) {
    EXPECT_EQ(
        call("mzu.Register", R"({"mzu_id":"c128","model":"Generic MZU","mac":"00-11-22-33-44-aa","alias":"o'neil"})"),
        result(R"({"mzu_id":"c128"})"));
    EXPECT_EQ(Sql().read("SELECT unit, model, mac, alias, online FROM units WHERE unit = 128"),
              "128 7 00:11:22:33:44:AA O'NEIL 0");
    EXPECT_EQ(ids_of("c128"), "c128-1 c128-2 c128-3 c128-4 c128-5 c128-6 c128-7 c128-8 ");
}

// --- Parameters that are refused -------------------------------------------------------------------------------------

TEST_F(PortsService, RefusesWhatIsNoPortForEachMethodWithItsReason) {
    const std::string any_ports = "a port c1-1 to c128-99, a port d1 to d4, a unit c1 to c128, all";
    const std::string any_port = "a port c1-1 to c128-99, a port d1 to d4";
    const std::string c_port = "a port c1-1 to c128-99";
    const struct {
        const char *method;
        std::string more; ///< the other members
        std::string allowed;
        int code; ///< for a port that is none
    } methods[] = {
        {"ports.Get", "", any_ports, TAVRIX_JRPC_EXPECTED_MZU},
        {"ports.SetEnabled", R"("status":"enable")", any_ports, TAVRIX_JRPC_EXPECTED_MZU},
        {"ports.SetVlanLocal", "", any_port, TAVRIX_JRPC_INVALID_PARAMS},
        {"ports.SetVlanAccess", R"("vlan_id":7)", any_port, TAVRIX_JRPC_INVALID_PARAMS},
        {"ports.SetVlanTrunk", R"("vlan_ids":[7])", any_port, TAVRIX_JRPC_INVALID_PARAMS},
        {"ports.poe.GetInstantPower", "", c_port, TAVRIX_JRPC_EXPECTED_C_PORT},
        {"ports.SetMacFilters", R"("filters":[])", c_port, TAVRIX_JRPC_EXPECTED_C_PORT},
    };
    for (const auto &row : methods) {
        EXPECT_EQ(
            code_of(driven->request(R"({"jsonrpc":"2.0","id":"me","method":")" + std::string(row.method) + "\"}")),
            std::to_string(TAVRIX_JRPC_INVALID_PARAMS))
            << "without parameters";
        driven->expect_refusal(row.method, row.more, "port_id", "", "is missing: " + row.allowed);
        driven->expect_refusal(row.method, row.more, "port_id", "5", "is not " + row.allowed);
        driven->expect_refusal(row.method, row.more, "port_id", R"("c1-1\n")", "holds a control character");
        for (const char *port_id : {"x1", "", "c0-1", "c129-1", "c1-0", "c1-100", "d0", "d5", "c1-1 ", "ALL"}) {
            driven->expect_refusal(row.method, row.more, "port_id", quoted(port_id), "is not " + row.allowed, row.code);
        }
    }
}

TEST_F(PortsService, RefusesUnitsAndTheFleetWhereOnePortIsMeant) {
    for (const char *method : {"ports.SetVlanLocal", "ports.poe.GetInstantPower"}) {
        for (const char *port_id : {"c1", "all"}) {
            const std::string outcome = call(method, std::string(R"({"port_id":")") + port_id + "\"}");
            EXPECT_EQ(member(member(member(outcome, "error"), "data"), "parameter"), "\"port_id\"")
                << method << port_id;
        }
    }
    driven->expect_refusal(get_power, "", "port_id", "\"d1\"", "is not a port c1-1 to c128-99",
                           TAVRIX_JRPC_EXPECTED_C_PORT);
}

TEST_F(PortsService, RefusesWhatItsParametersDoNotAllow) {
    const std::string statuses = "one of enable, disable";
    const std::string units = "a unit: c1 to c128";
    const std::string models =
        "one of unknown, ZQN-E09, ZQN-E10, ZQN-E11, ZQN-E12, ZQN-E13, ZQN-E14, Generic MZU, ZQN-E15, ZQN-E16, ZQN-E17";
    const std::string macs = "a MAC address, such as 00:1A:2B:3C:4D:5E";
    const std::string alias = "a text of up to 8 characters";
    const struct {
        const char *method;
        std::string others; ///< the members before it
        const char *parameter;
        std::string allowed;
        std::vector<std::string> values; ///< a number and texts
    } rows[] = {
        {"ports.SetEnabled", d1, "status", statuses, {"true", "\"on\""}},
        {"mzu.Register", unit_without("mzu_id"), "mzu_id", units, {"7", "\"c129\"", "\"all\"", "\"c1-1\""}},
        {"mzu.Register", unit_without("model"), "model", models, {"7", "\"ZQN-E18\"", "\"zqn-e10\""}},
        {"mzu.Register", unit_without("mac"), "mac", macs, {"7", "\"00:11:22:33:44\"", "\"00:11:22:33:44:5g\""}},
        {"mzu.Register", unit_without("alias"), "alias", alias, {"7", "\"ninechars\""}},
    };
    for (const auto &row : rows) {
        driven->expect_refusal(row.method, row.others, row.parameter, "", "is missing: " + row.allowed);
        driven->expect_refusal(row.method, row.others, row.parameter, R"("a\u0007b")", "holds a control character");
        for (const std::string &value : row.values) {
            driven->expect_refusal(row.method, row.others, row.parameter, value, "is not " + row.allowed);
        }
    }
    EXPECT_EQ(Sql().read("SELECT count(*) FROM units"), "4") << "nothing was registered";
}

TEST_F(PortsService, RefusesVlanIdsBeyondTheirBoundsBeforeTheyAreCut) {
    constexpr char method[] = "ports.SetVlanAccess";
    driven->expect_refusal(method, d1, "vlan_id", "", "is missing: 1 to 4092");
    driven->expect_refusal(method, d1, "vlan_id", "\"5\"", "is not an integer in 1 to 4092");
    for (const char *value : {"0", "-1", "4093", "4294967297", "-4294967295"}) {
        driven->expect_refusal(method, d1, "vlan_id", value, "is not in 1 to 4092");
    }
    EXPECT_EQ(Sql().read("SELECT vlan_id FROM vlan_members WHERE unit = 0"), "10 20 30");
}

TEST_F(PortsService, RefusesListsOfVlanIdsThatDoNotFit) {
    constexpr char method[] = "ports.SetVlanTrunk";
    const std::string allowed = "an array of up to 32 VLAN ids, each 1 to 4092, at least 1";
    driven->expect_refusal(method, d1, "vlan_ids", "", "is missing: " + allowed);
    for (const char *value : {"7", "[]", "[\"7\"]", "[0]", "[5,4093]", "[4294967297]", "{}"}) {
        driven->expect_refusal(method, d1, "vlan_ids", value, "is not " + allowed);
    }
    const std::string outcome = call(method, R"({"port_id":"d1","vlan_ids":)" + numbers(33) + "}");
    const std::string data = member(member(outcome, "error"), "data");
    EXPECT_EQ(code_of(outcome), std::to_string(TAVRIX_JRPC_TOO_MANY_VLAN_IDS));
    EXPECT_EQ(member(data, "parameter"), "\"vlan_ids\"");
    EXPECT_EQ(member(data, "message"),
              R"("vlan_ids: [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23... is not )" + allowed + "\"");
    EXPECT_EQ(Sql().read("SELECT vlan_id FROM vlan_members WHERE unit = 0"), "10 20 30");
}

TEST_F(PortsService, RefusesMacFiltersThatAreNoneOrTooMany) {
    constexpr char method[] = "ports.SetMacFilters";
    const std::string port = R"("port_id":"c1-1")";
    const std::string allowed = "an array of filters: mac and mask, two MAC addresses each, at most 128";
    driven->expect_refusal(method, port, "filters", "", "is missing: " + allowed);
    driven->expect_refusal(method, port, "filters", "3", "is not " + allowed);
    for (const std::string &list :
         {filter("x"), filter("aa:bb:cc:dd:ee:ff", "x"), std::string(R"({"mac":"aa:bb:cc:dd:ee:ff"})"),
          std::string("7"), filter("aa:bb:cc:dd:ee:ff") + ",null"}) {
        const std::string outcome = call(method, R"({"port_id":"c1-1","filters":[)" + list + "]}");
        EXPECT_EQ(code_of(outcome), std::to_string(TAVRIX_JRPC_INVALID_PARAMS)) << list << outcome;
        EXPECT_EQ(member(member(member(outcome, "error"), "data"), "parameter"), "\"filters\"") << list;
    }
    ASSERT_EQ(call(method, mac_filters(1)), done);
    const std::string stored = Sql().read("SELECT * FROM mac_filters");
    for (const int count : {17, 128}) {
        driven->expect_failure(method, mac_filters(count), TAVRIX_JRPC_TOO_MANY_ENTRIES, TAVRIX_ERR_TOO_MANY_ENTRIES);
    }
    EXPECT_EQ(code_of(call(method, mac_filters(129))), std::to_string(TAVRIX_JRPC_INVALID_PARAMS))
        << "more than a list can have at all";
    EXPECT_EQ(Sql().read("SELECT * FROM mac_filters"), stored);
}

TEST_F(PortsService, TakesNoMethodThatItDoesNotHave) {
    for (const char *method : {"ports.Nothing", "ports.get"}) {
        EXPECT_EQ(code_of(call(method, R"({"port_id":"d1"})")), std::to_string(TAVRIX_JRPC_METHOD_NOT_FOUND));
    }
}

TEST_F(PortsService, TellsNobodyWhoWantsNoAnswer) {
    EXPECT_EQ(driven->request(R"({"jsonrpc":"2.0","method":"ports.SetVlanLocal","params":{"port_id":"d1"}})"),
              deferred);
    EXPECT_EQ(Sql().read("SELECT count(*) FROM vlan_members WHERE unit = 0"), "0") << "it is done all the same";
}

// --- What the fleet does not have or allow ---------------------------------------------------------------------------

TEST_F(PortsService, TellsPortsFromUnitsThatAreNotThere) {
    for (const auto &row : good_calls) {
        if (row.params.find("port_id") == std::string::npos) {
            continue;
        }
        const std::string more = row.params.substr(row.params.find('"', row.params.find(':') + 2));
        for (const char *port : {"c1-99", "c99-1"}) {
            driven->expect_failure(row.method, R"({"port_id":")" + (port + more), TAVRIX_JRPC_NO_SUCH_PORT,
                                   TAVRIX_ERR_NO_SUCH_PORT);
        }
    }
    for (const char *method : {"ports.Get", "ports.SetEnabled"}) {
        driven->expect_failure(method, R"({"port_id":"c99","status":"enable"})", TAVRIX_JRPC_NO_SUCH_MZU,
                               TAVRIX_ERR_NO_SUCH_MZU);
    }
}

TEST_F(PortsService, RegistersNoUnitTwiceAndNoneOfAnUnknownModel) {
    constexpr char method[] = "mzu.Register";
    driven->expect_failure(method, unit_but("mzu_id", "c1"), TAVRIX_JRPC_MZU_EXISTS, TAVRIX_ERR_MZU_EXISTS);
    // The appliance's own, in another spelling.
    driven->expect_failure(method, unit_but("mac", "00-1b-0d-00-00-00"), TAVRIX_JRPC_MAC_EXISTS, TAVRIX_ERR_MAC_EXISTS);
    driven->expect_failure(method, unit_but("model", "unknown"), TAVRIX_JRPC_NO_SUCH_MODEL, TAVRIX_ERR_NO_SUCH_MODEL);
    EXPECT_EQ(Sql().read("SELECT count(*) FROM units"), "4");
    EXPECT_EQ(call(method, good_unit), result(R"({"mzu_id":"c9"})"));
}

// --- The database ----------------------------------------------------------------------------------------------------

TEST_F(PortsService, WaitsASecondForALockAndThenGivesUp) {
    const Sql other;
    const std::string before = get("all");
    for (const auto &row : good_calls) {
        other.run("BEGIN EXCLUSIVE");
        EXPECT_EQ(call(row.method, row.params), deferred) << row.method;
        driven->advance(lock_patience_ms - 1);
        EXPECT_EQ(driven->next_outcome(), deferred) << row.method;
        driven->advance(1);
        EXPECT_EQ(code_and_words(driven->next_outcome()),
                  code_and_words(TAVRIX_JRPC_DATABASE_ERROR, TAVRIX_ERR_DB_BUSY))
            << row.method;
        other.run("COMMIT");
        driven->advance(lock_patience_ms);
        EXPECT_EQ(driven->next_outcome(), deferred) << "one answer is all";
        EXPECT_FALSE(driven->logged("Cannot use the database")) << "a lock is no fault: " << row.method;
    }
    EXPECT_EQ(get("all"), before);
    EXPECT_EQ(other.read("SELECT count(*) FROM units"), "4");
}

TEST_F(PortsService, GoesOnAsSoonAsALockHasGone) {
    const Sql other;
    for (const char *lock : {"BEGIN EXCLUSIVE", "BEGIN IMMEDIATE", "BEGIN; SELECT * FROM ports"}) {
        make_fleet_database();
        const Sql sql;
        for (const auto &row : good_calls) {
            sql.run(lock);
            const bool passes = row.only_reads && std::string(lock) != "BEGIN EXCLUSIVE";
            std::string outcome = call(row.method, row.params);
            EXPECT_EQ(outcome == deferred, !passes) << lock << row.method << outcome;
            sql.run("COMMIT");
            driven->advance(lock_patience_ms / 2);
            outcome = passes ? outcome : driven->next_outcome();
            EXPECT_NE(member(outcome, "result"), "(none)") << lock << row.method << outcome;
        }
    }
}

TEST_F(PortsService, ServesOthersWhileOneRequestWaitsForALock) {
    const Sql other;
    other.run("BEGIN IMMEDIATE");
    EXPECT_EQ(call("ports.SetVlanLocal", R"({"port_id":"d1"})"), deferred);
    EXPECT_EQ(ids_of("c2"), "c2-1 c2-2 ");
    EXPECT_EQ(call("ports.WaitLinkChanged"), deferred);
    driven->notify(link_changed, R"({"number":1})");
    EXPECT_EQ(driven->next_outcome(), result(R"({"number":1})"));
    other.run("COMMIT");
    driven->advance(lock_patience_ms / 2);
    EXPECT_EQ(driven->next_outcome(), done);
}

TEST_F(PortsService, DoesNothingForACallerWhoHasGoneMeanwhile) {
    const Sql other;
    other.run("BEGIN IMMEDIATE");
    EXPECT_EQ(call("ports.SetVlanLocal", R"({"port_id":"d1"})"), deferred);
    driven->cancel(1);
    other.run("COMMIT");
    driven->advance(2 * lock_patience_ms);
    EXPECT_EQ(driven->next_outcome(), deferred);
    EXPECT_EQ(other.read("SELECT vlan_id FROM vlan_members WHERE unit = 0"), "10 20 30");
    EXPECT_TRUE(context.retries.empty());
}

TEST_F(PortsService, TellsThatATableIsMissing) {
    Sql().run("DROP TABLE mac_filters; DROP TABLE vlan_members; DROP TABLE ports; DROP TABLE units");
    for (const auto &row : good_calls) {
        driven->expect_failure(row.method, row.params, TAVRIX_JRPC_DATABASE_ERROR, TAVRIX_ERR_SYSTEM_ACCESS);
        EXPECT_TRUE(driven->logged("ERROR Cannot use the database: no such table: ")) << row.method;
    }
}

TEST_F(PortsService, ChecksTheTablesItNeedsAtItsStart) {
    const Sql sql;
    EXPECT_EQ(ports::Database("zqn_h7.db").check_schema(), TAVRIX_OK);
    sql.run("BEGIN EXCLUSIVE");
    EXPECT_EQ(ports::Database("zqn_h7.db").check_schema(), TAVRIX_OK) << "whoever has locked it is done some time";
    sql.run("COMMIT");
    for (const char *change :
         {"DROP TABLE mac_filters", "DROP TABLE vlan_members", "ALTER TABLE ports RENAME COLUMN power_mw TO power",
          "ALTER TABLE units RENAME COLUMN alias TO name"}) {
        make_fleet_database();
        Sql().run(change);
        EXPECT_EQ(ports::Database("zqn_h7.db").check_schema(), TAVRIX_ERR_SYSTEM_ACCESS) << change;
    }
}

TEST_F(PortsService, TellsHowADatabaseThatIsMissingIsMade) {
    std::filesystem::remove("zqn_h7.db");
    for (const auto &row : good_calls) {
        EXPECT_EQ(code_of(call(row.method, row.params)), std::to_string(TAVRIX_JRPC_DATABASE_ERROR)) << row.method;
        EXPECT_TRUE(driven->logged("ERROR Cannot open the database zqn_h7.db: there is none; it is made with: "
                                   "tavrixctl db init zqn_h7.db"))
            << row.method;
    }
    EXPECT_EQ(access("zqn_h7.db", F_OK), -1) << "none is made in its place";
}

TEST_F(PortsService, OpensADatabaseThatTookTheOldOnesPlace) {
    EXPECT_EQ(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":77})"), done);
    std::filesystem::copy_file("zqn_h7.db", "backup.db");
    EXPECT_EQ(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":78})"), done);
    std::filesystem::rename("backup.db", "zqn_h7.db");
    EXPECT_NE(get("d1").find(R"("vlan_ids":[77])"), std::string::npos);
    EXPECT_TRUE(driven->logged("The database zqn_h7.db has been replaced: opening it again"));
    EXPECT_EQ(call("ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":79})"), done);
    EXPECT_EQ(Sql().read("SELECT vlan_id FROM vlan_members WHERE unit = 0 AND port = 1"), "79") << "the new file's";
}

TEST_F(PortsService, ComesBackWithADatabaseThatWasAway) {
    const std::string before = get("all");
    std::filesystem::rename("zqn_h7.db", "aside.db");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(code_of(get("all")), std::to_string(TAVRIX_JRPC_DATABASE_ERROR));
    }
    write_file("zqn_h7.db", std::string(4096, 'x'));
    EXPECT_EQ(code_of(get("all")), std::to_string(TAVRIX_JRPC_DATABASE_ERROR)) << "no database";
    std::filesystem::rename("aside.db", "zqn_h7.db");
    EXPECT_EQ(get("all"), before);
    EXPECT_EQ(call("ports.SetEnabled", R"({"port_id":"c1","status":"disable"})"), done);
}

TEST_F(PortsService, ShowsNoTextThatIsNoUtf8) {
    const Sql sql;
    sql.run("PRAGMA ignore_check_constraints = ON");
    sql.run("UPDATE units SET alias = CAST(x'ff41' AS TEXT) WHERE unit = 1");
    EXPECT_EQ(code_of(call("mzu.List")), std::to_string(TAVRIX_JRPC_DATABASE_ERROR));
    sql.run("UPDATE units SET alias = 'LOBBY' WHERE unit = 1");
    EXPECT_EQ(code_of(call("mzu.List")), "(none)");
}

TEST_F(PortsService, ShowsNoStoredValueThatIsNone) {
    const Sql sql;
    sql.run("PRAGMA ignore_check_constraints = ON");
    const struct {
        const char *set;
        const char *noun;
        const char *port_id = "d1"; ///< null: the list of units shows it
    } rows[] = {
        {"ports SET status = 2", "2 for a port status"},
        {"ports SET status = -1", "-1 for a port status", "all"},
        {"ports SET status = 4294967297", "a value in column status that is not a 32-bit integer"}, // 1 when cut
        {"ports SET status = 'on'", "a value in column status that is not a 32-bit integer"},
        {"vlan_members SET vlan_id = 4093 WHERE vlan_id = 10", "an invalid VLAN id"},
        {"vlan_members SET vlan_id = 4294967297 WHERE vlan_id = 10", "an invalid VLAN id"},
        {"ports SET poe_status = 5", "5 for a PoE status"},
        {"ports SET link_status = 4", "4 for a link status"},
        {"ports SET link_speed = 7", "7 for a link speed"},
        {"ports SET vlan_mode = 5", "5 for a VLAN mode"},
        {"units SET model = 11", "11 for a model", nullptr},
        {"ports SET link_speed = 2147483647", "2147483647 for a link speed", "c1"},
        {"ports SET vlan_mode = -2147483648", "-2147483648 for a VLAN mode", "c1"},
        {"units SET model = -1", "-1 for a model", nullptr},
    };
    for (const auto &row : rows) {
        const auto show = [&] { return row.port_id != nullptr ? get(row.port_id) : call("mzu.List"); };
        sql.run(std::string("UPDATE ") + row.set);
        EXPECT_EQ(code_and_words(show()),
                  code_and_words(TAVRIX_JRPC_DATABASE_ERROR, std::string("The database holds an invalid value.")))
            << row.set;
        EXPECT_TRUE(driven->logged((std::string("ERROR The database holds ") + row.noun).c_str())) << row.set;
        sql.run("UPDATE ports SET status = 1, poe_status = 0, link_status = 0, link_speed = 0, vlan_mode = 1");
        sql.run("UPDATE units SET model = 1");
        sql.run("UPDATE vlan_members SET vlan_id = 10 WHERE vlan_id > 4092");
        EXPECT_NE(member(show(), "result"), "(none)") << row.set;
    }
}

TEST_F(PortsService, LeavesNothingHalfDone) {
    const Sql sql;
    constexpr char vlans[] =
        "SELECT vlan_mode, vlan_id FROM ports JOIN vlan_members USING (unit, port) WHERE unit = 0 ORDER BY vlan_id";
    const struct {
        const char *trigger;
        const char *method;
        std::string params;
        const char *state;
    } rows[] = {
        {"BEFORE INSERT ON vlan_members WHEN NEW.vlan_id = 8", "ports.SetVlanTrunk",
         R"({"port_id":"d1","vlan_ids":[7,8,9]})", vlans},
        {"BEFORE INSERT ON vlan_members WHEN NEW.vlan_id = 7", "ports.SetVlanAccess", R"({"port_id":"d1","vlan_id":7})",
         vlans},
        {"BEFORE DELETE ON vlan_members", "ports.SetVlanLocal", R"({"port_id":"d1"})", vlans},
        {"BEFORE UPDATE ON ports WHEN NEW.port = 3", "ports.SetEnabled", R"({"port_id":"all","status":"disable"})",
         "SELECT status FROM ports ORDER BY unit, port"},
        {"BEFORE INSERT ON mac_filters WHEN NEW.mac LIKE '%12'", "ports.SetMacFilters", mac_filters(3),
         "SELECT mac FROM mac_filters"},
        {"BEFORE INSERT ON ports WHEN NEW.port = 5", "mzu.Register", good_unit,
         "SELECT count(*) FROM units UNION ALL SELECT count(*) FROM ports"},
    };
    ASSERT_EQ(call("ports.SetMacFilters", mac_filters(1)), done);
    for (const auto &row : rows) {
        const std::string before = sql.read(row.state);
        sql.run(std::string("CREATE TRIGGER refusal ") + row.trigger + " BEGIN SELECT RAISE(ABORT, 'no'); END");
        driven->expect_failure(row.method, row.params, TAVRIX_JRPC_DATABASE_ERROR, TAVRIX_ERR_SYSTEM_ACCESS);
        EXPECT_TRUE(driven->logged("ERROR Cannot use the database: no")) << row.method;
        EXPECT_EQ(sql.read(row.state), before) << row.method;
        sql.run("DROP TRIGGER refusal");
        EXPECT_EQ(code_of(call(row.method, row.params)), "(none)") << row.method;
        EXPECT_NE(sql.read(row.state), before) << row.method;
    }
}

// --- Waiting for a link change ---------------------------------------------------------------------------------------

TEST_F(PortsService, AnswersEverybodyWhoWaitsWithTheNextLinkChange) {
    constexpr char event[] = R"({"number":7,"kind":"link","entity":"c1-1","text":"up"})";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(call("ports.WaitLinkChanged"), deferred);
    }
    driven->notify("events.SomethingElse", "{}");
    EXPECT_EQ(driven->next_outcome(), deferred);
    driven->notify(link_changed, event);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(driven->next_outcome(), result(event));
    }
    EXPECT_EQ(call("ports.WaitLinkChanged"), deferred) << "the change before is none of his";
    driven->notify(link_changed, R"({"number":8})");
    EXPECT_EQ(driven->next_outcome(), result(R"({"number":8})"));
    driven->advance(wait_timeout_ms);
    EXPECT_EQ(driven->next_outcome(), deferred) << "those times are over with their waits";
    EXPECT_EQ(call("ports.WaitLinkChanged"), deferred);
    driven->notify(link_changed, nullptr);
    EXPECT_EQ(driven->next_outcome(), result("null")) << "a change that tells nothing";
}

TEST_F(PortsService, EndsEachWaitInItsOwnTime) {
    EXPECT_EQ(call("ports.WaitLinkChanged"), deferred);
    driven->advance(wait_timeout_ms / 2);
    EXPECT_EQ(call("ports.WaitLinkChanged"), deferred);
    driven->advance(wait_timeout_ms / 2 - 1);
    EXPECT_EQ(driven->next_outcome(), deferred);
    driven->advance(1);
    EXPECT_EQ(code_and_words(driven->next_outcome()), code_and_words(TAVRIX_JRPC_TIMED_OUT, TAVRIX_ERR_TIMEOUT));
    EXPECT_EQ(driven->next_outcome(), deferred) << "the second has half of its time left";
    EXPECT_EQ(context.waiters.size(), 1U);
    driven->notify(link_changed, R"({"number":1})");
    EXPECT_EQ(driven->next_outcome(), result(R"({"number":1})"));
    EXPECT_TRUE(context.waiters.empty());
}

TEST_F(PortsService, WaitsNoLongerThanItsCaller) {
    context.wait_timeout_ms = 2 * caller_patience_ms;
    call("ports.WaitLinkChanged");
    driven->advance(caller_patience_ms - 1);
    EXPECT_EQ(context.waiters.size(), 1U);
    driven->advance(1);
    EXPECT_TRUE(context.waiters.empty());
    driven->notify(link_changed, "{}");
    driven->advance(caller_patience_ms);
    EXPECT_EQ(driven->next_outcome(), deferred) << "the router has answered him";
}

TEST_F(PortsService, ForgetsAWaitThatIsCancelled) {
    call("ports.WaitLinkChanged");
    call("ports.WaitLinkChanged");
    driven->cancel(1);
    EXPECT_EQ(context.waiters.size(), 1U);
    driven->notify(link_changed, R"({"number":1})");
    EXPECT_EQ(driven->next_outcome(), result(R"({"number":1})"));
    driven->advance(wait_timeout_ms);
    EXPECT_EQ(driven->next_outcome(), deferred);
}

TEST_F(PortsService, ForgetsItsWaitsWithTheRouterAndListensAgainToTheNextOne) {
    call("ports.WaitLinkChanged");
    driven->restart_router();
    EXPECT_TRUE(context.waiters.empty());
    driven->notify(link_changed, R"({"number":1})");
    EXPECT_EQ(driven->next_outcome(), deferred);
    call("ports.WaitLinkChanged");
    driven->notify(link_changed, R"({"number":2})");
    EXPECT_EQ(driven->next_outcome(), result(R"({"number":2})"));
}

TEST_F(PortsService, AnswersThoseWhoWaitWhenItStops) {
    const Sql other;
    other.run("BEGIN IMMEDIATE");
    call("ports.WaitLinkChanged");
    call("ports.SetVlanLocal", R"({"port_id":"d1"})");
    driven->stop();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(code_of(driven->next_outcome()), std::to_string(TAVRIX_JRPC_SYSTEM_BUSY));
    }
    other.run("COMMIT");
    driven->advance(2 * lock_patience_ms);
    EXPECT_EQ(driven->next_outcome(), deferred);
    EXPECT_EQ(other.read("SELECT count(*) FROM vlan_members WHERE unit = 0"), "3");
}

TEST_F(PortsService, RefusesTheWaitThatIsOneTooMany) {
    for (int i = 0; i < TAVRIX_SERVICE_MAX_DEFERRED; ++i) {
        ASSERT_EQ(call("ports.WaitLinkChanged"), deferred) << i;
    }
    EXPECT_EQ(code_of(call("ports.WaitLinkChanged")), std::to_string(TAVRIX_JRPC_SYSTEM_BUSY));
    EXPECT_EQ(context.waiters.size(), static_cast<size_t>(TAVRIX_SERVICE_MAX_DEFERRED));
    driven->notify(link_changed, "{}");
    for (int i = 0; i < TAVRIX_SERVICE_MAX_DEFERRED; ++i) {
        ASSERT_EQ(driven->next_outcome(), result("{}")) << i;
    }
    EXPECT_EQ(driven->next_outcome(), deferred);
}
