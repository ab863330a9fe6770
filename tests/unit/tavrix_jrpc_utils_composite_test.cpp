/*
 * Lists of records, fields with a rule of their own, and the list of MAC addresses of a reply.
 */
#include "tavrix_jrpc_utils.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/handles.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/params.h"
#include "tavrix_error.h"

using support::Buffer;
using support::Json;
using support::LogCapture;
using support::Params;
using Lines = std::vector<std::string>;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

/** A member of a record, as JSON text; "" leaves it out. */
struct Member {
    const char *name;
    std::string json;
};

std::string object(const std::vector<Member> &members) {
    std::string json;
    for (const Member &member : members) {
        if (!member.json.empty()) {
            json += (json.empty() ? "" : ", ") + ("\"" + std::string(member.name) + "\": " + member.json);
        }
    }
    return "{" + json + "}";
}

std::string list(const std::vector<std::string> &elements) {
    std::string json;
    for (const std::string &element : elements) {
        json += (json.empty() ? "" : ", ") + element;
    }
    return "[" + json + "]";
}

std::string params_of(const std::string &name, const std::string &json) { return "{\"" + name + "\": " + json + "}"; }

std::string text_of(int n) { return std::to_string(n); }

} // namespace

// --- Ports ---------------------------------------------------------------------------------------------------------

namespace {

constexpr int32_t filled = 0x5a5a5a5a;
constexpr int room = 6;

/** Members of a port that are all different: port n. */
std::vector<Member> port(int n) {
    return {{"port_number", text_of(n)},
            {"port_status", text_of(100 + n)},
            {"poe_status", text_of(200 + n)},
            {"link_status", text_of(300 + n)},
            {"link_speed", text_of(400 + n)},
            {"vlan_mode", text_of(500 + n)},
            {"vlan_ids", "[" + text_of(n) + ", " + text_of(n + 1) + "]"}};
}

std::vector<Member> with(std::vector<Member> members, const std::string &name, const std::string &json) {
    for (Member &member : members) {
        if (member.name == name) {
            member.json = json;
        }
    }
    return members;
}

struct Ports {
    tavrix_port_input records[room + 1];
    int count = -77;
    Params params;

    explicit Ports(const std::string &json) : params(params_of("ports", json)) {
        std::memset(records, 0x5a, sizeof records);
    }
    int retrieve(int max = room) {
        return tavrix_jrpc_utils_retrieve_input_ports(params.get(), params.debug(), "ports", records, &count, max);
    }
    bool untouched(int i) const {
        tavrix_port_input fresh;
        std::memset(&fresh, 0x5a, sizeof fresh);
        return std::memcmp(&records[i], &fresh, sizeof fresh) == 0;
    }
    void expect_port(int i, int n) const {
        const tavrix_port_input &record = records[i];
        EXPECT_EQ(record.port_number, n);
        EXPECT_EQ(record.port_status, 100 + n);
        EXPECT_EQ(record.poe_status, 200 + n);
        EXPECT_EQ(record.link_status, 300 + n);
        EXPECT_EQ(record.link_speed, 400 + n);
        EXPECT_EQ(record.vlan_mode, 500 + n);
        EXPECT_EQ(record.vlan_count, 2);
        EXPECT_EQ(record.vlan_ids[0], n);
        EXPECT_EQ(record.vlan_ids[1], n + 1);
        EXPECT_EQ(record.vlan_ids[2], filled);
        EXPECT_EQ(record.user_tag, filled) << "the daemon's own";
        for (const int32_t own : record.user_data) {
            EXPECT_EQ(own, filled) << "the daemon's own";
        }
    }
};

std::string ports_json(int n) {
    std::vector<std::string> elements;
    for (int i = 1; i <= n; ++i) {
        elements.push_back(object(port(i)));
    }
    return list(elements);
}

} // namespace

TEST(RetrievePorts, FillsOneRecordForEachElement) {
    Ports ports(ports_json(3));
    EXPECT_EQ(ports.retrieve(), 0);
    EXPECT_EQ(ports.count, 3);
    for (int i = 0; i < 3; ++i) {
        ports.expect_port(i, i + 1);
    }
    EXPECT_TRUE(ports.untouched(3));
    EXPECT_EQ(ports.params.message(), "(none)");
}

TEST(RetrievePorts, IgnoresWhatIsAboveTheMaximum) {
    const struct {
        int elements;
        int max;
        int count;
    } rows[] = {{10, 4, 4}, {4, 4, 4}, {3, 4, 3}, {5, 0, 0}, {0, 4, 0}, {2, -1, -1}};
    for (const auto &row : rows) {
        Ports ports(ports_json(row.elements));
        EXPECT_EQ(ports.retrieve(row.max), 0) << row.elements << " of " << row.max;
        EXPECT_EQ(ports.count, row.count);
        EXPECT_TRUE(ports.untouched(row.count > 0 ? row.count : 0));
    }
}

TEST(RetrievePorts, NeverLooksAtElementsAboveTheMaximum) {
    Ports ports(list({object(port(1)), "null"}));
    EXPECT_EQ(ports.retrieve(1), 0);
    EXPECT_EQ(ports.count, 1);
}

TEST(RetrievePorts, FoldsEveryBadElementIntoOneStatus) {
    const struct {
        const char *member;
        const char *json;
        const char *message;
    } rows[] = {
        {"port_number", "", "Missing expected parameter: 'port_number'"},
        {"port_number", R"("1")", "Parameter 'port_number' is not of type 'integer'."},
        {"port_number", "0", "(none)"},
        {"port_number", "129", "(none)"},
        {"port_status", "", "Missing expected parameter: 'port_status'"},
        {"port_status", "1.0", "Parameter 'port_status' is not of type 'integer'."},
        {"poe_status", "", "Missing expected parameter: 'poe_status'"},
        {"poe_status", "null", "Parameter 'poe_status' is not of type 'integer'."},
        {"link_status", "", "Missing expected parameter: 'link_status'"},
        {"link_status", "true", "Parameter 'link_status' is not of type 'integer'."},
        {"link_speed", "", "Missing expected parameter: 'link_speed'"},
        {"link_speed", "[]", "Parameter 'link_speed' is not of type 'integer'."},
        {"vlan_mode", "", "Missing expected parameter: 'vlan_mode'"},
        {"vlan_mode", R"("trunk")", "Parameter 'vlan_mode' is not of type 'integer'."},
        {"vlan_ids", "", "(none)"},
        {"vlan_ids", "[4093]", "(none)"},
        {"vlan_ids", R"(["1"])", "(none)"},
    };
    for (const auto &row : rows) {
        Ports ports(list({object(port(1)), object(with(port(2), row.member, row.json)), object(port(3))}));
        EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER) << row.member << " " << row.json;
        EXPECT_EQ(ports.params.message(), row.message);
        EXPECT_EQ(ports.count, 3) << "the length of the list";
        ports.expect_port(0, 1);
        EXPECT_EQ(ports.records[1].port_status, filled) << "stored only after everything was read";
        EXPECT_EQ(ports.records[1].poe_status, filled);
        EXPECT_EQ(ports.records[1].link_status, filled);
        EXPECT_EQ(ports.records[1].link_speed, filled);
        EXPECT_EQ(ports.records[1].vlan_mode, filled);
        EXPECT_TRUE(ports.untouched(2));
    }
}

TEST(RetrievePorts, RefusesTooManyVlanIdsWithoutStoringAny) {
    std::string ids = "1";
    for (int i = 2; i <= 33; ++i) {
        ids += ", " + text_of(i);
    }
    Ports ports(list({object(with(port(1), "vlan_ids", "[" + ids + "]"))}));
    EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(ports.records[0].vlan_ids[0], filled);
    EXPECT_EQ(ports.records[0].vlan_count, 33);
    EXPECT_TRUE(ports.untouched(1));
}

TEST(RetrievePorts, WritesTheNumberAndTheVlanIdsStraightIntoTheRecord) {
    Ports ports(list({object(with(port(7), "vlan_ids", "[5, 0]"))}));
    EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(ports.records[0].port_number, 7);
    EXPECT_EQ(ports.records[0].vlan_ids[0], 5);
    EXPECT_EQ(ports.records[0].vlan_count, 2);
    EXPECT_EQ(ports.records[0].vlan_mode, filled);
}

TEST(RetrievePorts, RefusesElementsThatAreNoObjects) {
    for (const char *element : {"null", "1", R"("port")", "[]", "{}"}) {
        Ports ports(list({element}));
        EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER) << element;
        EXPECT_EQ(ports.params.message(), "Missing expected parameter: 'port_number'");
        EXPECT_EQ(ports.count, 1);
        EXPECT_TRUE(ports.untouched(0));
    }
}

TEST(RetrievePorts, ReadsInItsOrder) {
    const LogCapture log("verbose");
    Ports ports(list({object(with(port(1), "vlan_ids", "[9]"))}));
    EXPECT_EQ(ports.retrieve(), 0);
    Lines expected = {"VERB |Retrieving ports input...",
                      "VERB |Parsing input array for parameter: ports",
                      "VERB |Retrieving port #0...",
                      "VERB |Retrieving port number...",
                      "VERB |Parsing input integer for parameter: port_number",
                      "VERB |Parsed port_number: 1",
                      "VERB |Validating port_number: 1",
                      "DEBUG|Retrieved and validated port_number: 1"};
    const struct {
        const char *name;
        int value;
    } plain[] = {
        {"port_status", 101}, {"poe_status", 201}, {"link_status", 301}, {"link_speed", 401}, {"vlan_mode", 501}};
    for (const auto &member : plain) {
        expected.push_back(std::string("VERB |Parsing input integer for parameter: ") + member.name);
        expected.push_back(std::string("VERB |Parsed ") + member.name + ": " + text_of(member.value));
    }
    expected.emplace_back("VERB |Validating vlan id: 9");
    expected.emplace_back("VERB |Successfully retrieved 1 ports.");
    EXPECT_EQ(log.sequence(), expected);
}

TEST(RetrievePorts, NumbersItsElementsFromZeroAndStopsAtTheFirstBadOne) {
    const LogCapture log("verbose");
    Ports ports(list({object(port(1)), object(with(port(2), "port_status", "")), object(port(3))}));
    EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(log.has(support::verbose, unit, "Retrieving port #0...\n"));
    EXPECT_TRUE(log.has(support::verbose, unit, "Retrieving port #1...\n"));
    EXPECT_FALSE(log.has(support::verbose, unit, "Retrieving port #2...\n"));
    EXPECT_EQ(log.count(support::verbose, unit, "Parsing input integer for parameter: poe_status\n"), 1)
        << "nothing is read after the failure";
    EXPECT_EQ(log.text().find("Successfully"), std::string::npos);
}

TEST(RetrievePorts, PassesOnWhatTheArrayParserFinds) {
    Ports text(R"("ports")");
    EXPECT_EQ(text.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(text.params.message(), "Parameter 'ports' is not of type 'array'.");
    EXPECT_EQ(text.count, -77);
    EXPECT_TRUE(text.untouched(0));

    Params missing("{}");
    tavrix_port_input record;
    int count = -77;
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(missing.get(), missing.debug(), "ports", &record, &count, 1),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'ports'");
    EXPECT_EQ(count, -77);
    Params null("");
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(null.get(), null.debug(), "ports", &record, &count, 1),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(RetrievePorts, RefusesNullArgumentsInSilence) {
    const LogCapture log("verbose");
    Ports ports(ports_json(1));
    json_t *params = ports.params.get();
    json_t **debug = ports.params.debug();
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(params, debug, nullptr, ports.records, &ports.count, 1),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(params, debug, "ports", nullptr, &ports.count, 1),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(params, debug, "ports", ports.records, nullptr, 1),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(ports.count, -77);
    EXPECT_TRUE(ports.untouched(0));
    EXPECT_TRUE(log.silent());
}

TEST(RetrievePorts, WorksWithoutAPlaceForTheMessage) {
    Ports good(ports_json(1));
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(good.params.get(), nullptr, "ports", good.records, &good.count, 1),
              0);
    Ports bad("[{}]");
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports(bad.params.get(), nullptr, "ports", bad.records, &bad.count, 1),
              TAVRIX_ERR_PARAMETER);
}

// --- Ports, hardware only ------------------------------------------------------------------------------------------

namespace {

std::vector<Member> port_hardware(int n) {
    return {{"port_number", text_of(n)},
            {"poe_status", text_of(200 + n)},
            {"link_status", text_of(300 + n)},
            {"link_speed", text_of(400 + n)}};
}

struct PortsHardware {
    tavrix_port_hardware_input records[room + 1];
    int count = -77;
    Params params;

    explicit PortsHardware(const std::string &json) : params(params_of("ports", json)) {
        std::memset(records, 0x5a, sizeof records);
    }
    int retrieve(int max = room) {
        return tavrix_jrpc_utils_retrieve_input_ports_hardware(params.get(), params.debug(), "ports", records, &count,
                                                               max);
    }
    void expect_port(int i, int n) const {
        EXPECT_EQ(records[i].port_number, n);
        EXPECT_EQ(records[i].poe_status, 200 + n);
        EXPECT_EQ(records[i].link_status, 300 + n);
        EXPECT_EQ(records[i].link_speed, 400 + n);
    }
};

} // namespace

TEST(RetrievePortsHardware, FillsOneRecordForEachElementUpToTheMaximum) {
    std::vector<std::string> elements;
    for (int i = 1; i <= 10; ++i) {
        elements.push_back(object(port_hardware(i)));
    }
    PortsHardware ports(list(elements));
    EXPECT_EQ(ports.retrieve(4), 0);
    EXPECT_EQ(ports.count, 4);
    for (int i = 0; i < 4; ++i) {
        ports.expect_port(i, i + 1);
    }
    EXPECT_EQ(ports.records[4].port_number, filled);
}

TEST(RetrievePortsHardware, FoldsEveryBadElementIntoOneStatus) {
    for (const char *member : {"port_number", "poe_status", "link_status", "link_speed"}) {
        for (const char *json : {"", R"("1")"}) {
            PortsHardware ports(list({object(port_hardware(1)), object(with(port_hardware(2), member, json))}));
            EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER) << member << " " << json;
            EXPECT_EQ(ports.count, 2);
            ports.expect_port(0, 1);
            EXPECT_EQ(ports.records[1].poe_status, filled);
            EXPECT_EQ(ports.records[1].link_status, filled);
            EXPECT_EQ(ports.records[1].link_speed, filled);
        }
    }
    PortsHardware ports(list({object(with(port_hardware(1), "port_number", "129"))}));
    EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER);
}

TEST(RetrievePortsHardware, SaysWhatItDoes) {
    const LogCapture log("verbose");
    PortsHardware ports(list({object(port_hardware(1))}));
    EXPECT_EQ(ports.retrieve(), 0);
    EXPECT_EQ(log.sequence(),
              (Lines{"VERB |Retrieving ports hardware input...", "VERB |Parsing input array for parameter: ports",
                     "VERB |Retrieving port hardware #0...", "VERB |Retrieving port number...",
                     "VERB |Parsing input integer for parameter: port_number", "VERB |Parsed port_number: 1",
                     "VERB |Validating port_number: 1", "DEBUG|Retrieved and validated port_number: 1",
                     "VERB |Parsing input integer for parameter: poe_status", "VERB |Parsed poe_status: 201",
                     "VERB |Parsing input integer for parameter: link_status", "VERB |Parsed link_status: 301",
                     "VERB |Parsing input integer for parameter: link_speed", "VERB |Parsed link_speed: 401",
                     "VERB |Successfully retrieved 1 ports hardware."}));
}

TEST(RetrievePortsHardware, PassesOnWhatTheArrayParserFinds) {
    PortsHardware text("1");
    EXPECT_EQ(text.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(text.params.message(), "Parameter 'ports' is not of type 'array'.");
    Params missing("{}");
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports_hardware(missing.get(), missing.debug(), "ports", text.records,
                                                              &text.count, 1),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(text.count, -77);
}

TEST(RetrievePortsHardware, RefusesNullArgumentsInSilence) {
    const LogCapture log("verbose");
    PortsHardware ports(list({object(port_hardware(1))}));
    json_t *params = ports.params.get();
    json_t **debug = ports.params.debug();
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports_hardware(params, debug, nullptr, ports.records, &ports.count, 1),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports_hardware(params, debug, "ports", nullptr, &ports.count, 1),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_ports_hardware(params, debug, "ports", ports.records, nullptr, 1),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(ports.count, -77);
    EXPECT_TRUE(log.silent());
}

// --- MAC filters ---------------------------------------------------------------------------------------------------

namespace {

tavrix_mac_filter *const untouched_filters = reinterpret_cast<tavrix_mac_filter *>(0x10);

struct MacFilters {
    Params params;
    int rc;
    int count = -77;
    std::unique_ptr<tavrix_mac_filter, tavrix::FreeMemory> filters;
    bool untouched;

    explicit MacFilters(const std::string &json) : params(params_of("filters", json)) {
        tavrix_mac_filter *out = untouched_filters;
        rc = tavrix_jrpc_utils_retrieve_input_mac_filters(params.get(), params.debug(), "filters", &out, &count, 11,
                                                          TAVRIX_ERR_NO_MEMORY);
        untouched = out == untouched_filters;
        if (!untouched) {
            filters.reset(out);
        }
    }
};

std::string filter(const std::string &mac, const std::string &mask) { return object({{"mac", mac}, {"mask", mask}}); }

} // namespace

TEST(RetrieveMacFilters, ReadsEveryElementInCanonicalForm) {
    const MacFilters read(list({filter(R"("aa:bb:cc:dd:ee:0f")", R"("ff:ff:ff:00:00:00")"),
                                filter(R"("01-23-45-67-89-AB")", R"("FF-FF-FF-FF-FF-FF")")}));
    ASSERT_EQ(read.rc, 0);
    ASSERT_EQ(read.count, 2);
    EXPECT_STREQ(read.filters.get()[0].mac, "AA:BB:CC:DD:EE:0F");
    EXPECT_STREQ(read.filters.get()[0].mask, "FF:FF:FF:00:00:00");
    EXPECT_STREQ(read.filters.get()[1].mac, "01:23:45:67:89:AB");
    EXPECT_STREQ(read.filters.get()[1].mask, "FF:FF:FF:FF:FF:FF");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(read.filters.get()[i].first, 11);
        EXPECT_EQ(read.filters.get()[i].second, TAVRIX_ERR_NO_MEMORY);
    }
    EXPECT_EQ(read.params.message(), "(none)");
}

TEST(RetrieveMacFilters, AllocatesOneElementForAnEmptyList) {
    const MacFilters read("[]");
    ASSERT_EQ(read.rc, 0);
    EXPECT_EQ(read.count, 0);
    ASSERT_NE(read.filters, nullptr);
    EXPECT_EQ(read.filters->first, 11);
    EXPECT_EQ(read.filters->second, TAVRIX_ERR_NO_MEMORY);
}

TEST(RetrieveMacFilters, KeepsTheInnerStatus) {
    const std::string good = R"("aa:bb:cc:dd:ee:ff")";
    const struct {
        std::string element;
        int rc;
        const char *message;
    } rows[] = {
        {filter("", good), TAVRIX_ERR_PARAMETER_NOT_FOUND, "Missing expected parameter: 'mac'"},
        {filter(good, ""), TAVRIX_ERR_PARAMETER_NOT_FOUND, "Missing expected parameter: 'mask'"},
        {filter("", ""), TAVRIX_ERR_PARAMETER_NOT_FOUND, "Missing expected parameter: 'mac'"},
        {filter("1", good), TAVRIX_ERR_INVALID_PARAMETER, "Parameter 'mac' is not of type 'string'."},
        {filter(good, "null"), TAVRIX_ERR_INVALID_PARAMETER, "Parameter 'mask' is not of type 'string'."},
        {filter(R"("aa:bb:cc:dd:ee:fg")", good), TAVRIX_ERR_VALIDATION, "(none)"},
        {filter(good, R"("ff:ff")"), TAVRIX_ERR_VALIDATION, "(none)"},
        {filter(R"("aa:bb:cc:dd:ee:ff:00:11")", good), TAVRIX_ERR_VALIDATION, "(none)"},
        {"null", TAVRIX_ERR_PARAMETER_NOT_FOUND, "Missing expected parameter: 'mac'"},
        {"7", TAVRIX_ERR_PARAMETER_NOT_FOUND, "Missing expected parameter: 'mac'"},
    };
    for (const auto &row : rows) {
        const MacFilters read(list({filter(good, good), row.element, filter(good, good)}));
        EXPECT_EQ(read.rc, row.rc) << row.element;
        EXPECT_EQ(read.params.message(), row.message);
        EXPECT_EQ(read.count, 3) << "the length of the list";
        EXPECT_TRUE(read.untouched);
    }
}

TEST(RetrieveMacFilters, PassesOnWhatTheArrayParserFinds) {
    const MacFilters text(R"("filters")");
    EXPECT_EQ(text.rc, TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(text.params.message(), "Parameter 'filters' is not of type 'array'.");
    EXPECT_EQ(text.count, -77);
    EXPECT_TRUE(text.untouched);

    Params missing("{}");
    tavrix_mac_filter *out = untouched_filters;
    int count = -77;
    EXPECT_EQ(
        tavrix_jrpc_utils_retrieve_input_mac_filters(missing.get(), missing.debug(), "filters", &out, &count, 1, 2),
        TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(out, untouched_filters);
    EXPECT_EQ(count, -77);
}

TEST(RetrieveMacFilters, SaysWhatItDoes) {
    const LogCapture log("verbose");
    const MacFilters read(list({filter(R"("aa:bb:cc:dd:ee:ff")", R"("ff:ff:ff:ff:ff:ff")")}));
    const Lines lines = log.sequence();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], "VERB |jrpc utils input mac filters");
    EXPECT_EQ(lines[1], "VERB |Parsing input array for parameter: filters");
    EXPECT_EQ(lines[2], "VERB |Retrieving mac address...");
    EXPECT_EQ(lines[3], "VERB |Parsing input string for parameter: mac");
    EXPECT_TRUE(log.has(support::verbose, unit, "Parsing input string for parameter: mask\n"));
    EXPECT_EQ(lines.back(), "DEBUG|Retrieved and validated mac address: FF:FF:FF:FF:FF:FF");
}

TEST(RetrieveMacFilters, RefusesEachNullArgument) {
    Params params(R"({"filters": []})");
    tavrix_mac_filter *out = untouched_filters;
    int count = -77;
    const struct {
        json_t *params;
        json_t **debug;
        const char *key;
        tavrix_mac_filter **out;
        int *count;
    } rows[] = {
        {nullptr, params.debug(), "filters", &out, &count},
        {params.get(), nullptr, "filters", &out, &count},
        {params.get(), params.debug(), nullptr, &out, &count},
        {params.get(), params.debug(), "filters", nullptr, &count},
        {params.get(), params.debug(), "filters", &out, nullptr},
    };
    for (int i = 0; i < 5; ++i) {
        const LogCapture log("verbose");
        const auto &row = rows[i];
        EXPECT_EQ(
            tavrix_jrpc_utils_retrieve_input_mac_filters(row.params, row.debug, row.key, row.out, row.count, 1, 2), -20)
            << i;
        EXPECT_EQ(log.sequence(), Lines{"WARN |Found a null input parameter at varg index <" + text_of(i) + ">"});
    }
    EXPECT_EQ(out, untouched_filters);
    EXPECT_EQ(count, -77);
}

TEST(RetrieveMacFilters, ReadsALongList) {
    std::vector<std::string> elements(2000, filter(R"("aa:bb:cc:dd:ee:ff")", R"("ff:ff:ff:ff:ff:ff")"));
    support::set_log_level("off");
    const MacFilters read(list(elements));
    ASSERT_EQ(read.rc, 0);
    ASSERT_EQ(read.count, 2000);
    EXPECT_STREQ(read.filters.get()[1999].mask, "FF:FF:FF:FF:FF:FF");
    EXPECT_EQ(read.filters.get()[1999].second, TAVRIX_ERR_NO_MEMORY);
}

// --- Allowed MAC address -------------------------------------------------------------------------------------------

namespace {

int retrieve_allowed(Params &params, Buffer &out) {
    return tavrix_jrpc_utils_retrieve_input_macaddr_allowed(params.get(), params.debug(), "mac", out.get(), out.size());
}

} // namespace

TEST(RetrieveMacaddrAllowed, AcceptsAnAddressInCanonicalForm) {
    const LogCapture log("verbose");
    Params params(R"({"mac": "aA-bb-cc-dd-ee-ff"})");
    Buffer out(20);
    EXPECT_EQ(retrieve_allowed(params, out), 0);
    EXPECT_EQ(out.text(), "AA:BB:CC:DD:EE:FF");
    const Lines lines = log.sequence();
    EXPECT_EQ(lines[0], "VERB |Retrieving mac address...");
    EXPECT_EQ(lines[1], "VERB |Parsing input string for parameter: mac");
    EXPECT_EQ(lines[2], "VERB |Parsed mac: aA-bb-cc-dd-ee-ff");
    EXPECT_EQ(lines.back(), "DEBUG|Retrieved and validated mac address allowed: AA:BB:CC:DD:EE:FF");
}

TEST(RetrieveMacaddrAllowed, AcceptsNoneWithoutASuccessLine) {
    const LogCapture log("verbose");
    Params params(R"({"mac": "none"})");
    Buffer out(20);
    EXPECT_EQ(retrieve_allowed(params, out), 0);
    EXPECT_EQ(out.text(), "none");
    EXPECT_EQ(log.sequence(), (Lines{"VERB |Retrieving mac address...", "VERB |Parsing input string for parameter: mac",
                                     "VERB |Parsed mac: none"}));
}

TEST(RetrieveMacaddrAllowed, RefusesAnythingElse) {
    for (const char *text :
         {"None", "none ", "all", "", "aa:bb:cc:dd:ee:f", "aa:bb:cc:dd:ee:fg", "aa:bb-cc:dd-ee:ff"}) {
        const LogCapture log("debug");
        Params params(std::string(R"({"mac": ")") + text + R"("})");
        Buffer out(20);
        EXPECT_EQ(retrieve_allowed(params, out), TAVRIX_ERR_VALIDATION) << text;
        EXPECT_EQ(out.text(), text);
        EXPECT_EQ(params.message(), "(none)");
        EXPECT_EQ(log.text().find("Retrieved"), std::string::npos);
    }
}

TEST(RetrieveMacaddrAllowed, StaysWithinBuffersOfAnySize) {
    support::set_log_level("off");
    Params params(R"({"mac": "aa:bb:cc:dd:ee:ff"})");
    for (size_t size = 1; size <= 20; ++size) {
        Buffer out(size);
        EXPECT_EQ(retrieve_allowed(params, out), size >= 18 ? 0 : TAVRIX_ERR_VALIDATION) << size;
    }
}

// --- Alias ---------------------------------------------------------------------------------------------------------

namespace {

constexpr char alias_message[] = "Alias must be 8 characters or fewer.";

int retrieve_alias(Params &params, Buffer &out, const char *key = "alias") {
    return tavrix_jrpc_utils_retrieve_input_alias(params.get(), params.debug(), key, out.get(), out.size());
}

std::string alias_json(const std::string &value) { return R"({"alias": ")" + value + R"("})"; }

} // namespace

TEST(RetrieveAlias, ComesBackInUpperCase) {
    const struct {
        const char *value;
        const char *out;
    } rows[] = {{"ab1", "AB1"}, {"", ""}, {"abcdefgh", "ABCDEFGH"}, {"A-b_c d", "A-B_C D"}, {"12345678", "12345678"}};
    for (const auto &row : rows) {
        const LogCapture log("verbose");
        Params params(alias_json(row.value));
        Buffer out(32);
        EXPECT_EQ(retrieve_alias(params, out), 0) << row.value;
        EXPECT_EQ(out.text(), row.out);
        EXPECT_EQ(params.message(), "(none)");
        EXPECT_EQ(log.sequence(), (Lines{"VERB |Retrieving alias", "VERB |Parsing input string for parameter: alias",
                                         std::string("VERB |Parsed alias: ") + row.value,
                                         std::string("DEBUG|Retrieved and validated alias: ") + row.out}));
    }
}

TEST(RetrieveAlias, RefusesNineCharactersWithAMessage) {
    for (const char *value : {"abcdefghi", "abcdefghijklmnopqrstuvwxyz"}) {
        const LogCapture log("debug");
        Params params(alias_json(value));
        Buffer out(32);
        EXPECT_EQ(retrieve_alias(params, out), TAVRIX_ERR_VALIDATION);
        EXPECT_EQ(out.text(), value) << "neither cut nor in upper case";
        EXPECT_EQ(params.message(), alias_message);
        EXPECT_TRUE(log.silent());
    }
}

TEST(RetrieveAlias, ReplacesAnEarlierMessage) {
    Params params(alias_json("abcdefghi"));
    params.set_message("earlier");
    Buffer out(32);
    EXPECT_EQ(retrieve_alias(params, out), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(params.message(), alias_message);
}

TEST(RetrieveAlias, LeavesAnEarlierMessageOtherwise) {
    Params params(alias_json("ab1"));
    params.set_message("earlier");
    Buffer out(32);
    EXPECT_EQ(retrieve_alias(params, out), 0);
    EXPECT_EQ(retrieve_alias(params, out, "absent"), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "earlier");
}

TEST(RetrieveAlias, MeasuresWhatFitTheBuffer) {
    Params params(alias_json("abcdefghi"));
    Buffer nine(9);
    EXPECT_EQ(retrieve_alias(params, nine), 0);
    EXPECT_EQ(nine.text(), "ABCDEFGH");
    Buffer ten(10);
    EXPECT_EQ(retrieve_alias(params, ten), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(ten.text(), "abcdefghi");
}

TEST(RetrieveAlias, WorksWithoutAPlaceForTheMessage) {
    const Params params(alias_json("abcdefghi"));
    Buffer out(32);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_alias(params.get(), nullptr, "alias", out.get(), out.size()),
              TAVRIX_ERR_VALIDATION);
}

// --- Both ----------------------------------------------------------------------------------------------------------

namespace {

struct Limited {
    const char *name;
    int (*retrieve)(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
    std::vector<std::string> texts; ///< taken, or refused for their length, where there is room

    int operator()(Params &params, Buffer &out, const char *key = "k") const {
        return retrieve(params.get(), params.debug(), key, out.get(), out.size());
    }
};

class LimitedTexts : public testing::TestWithParam<Limited> {};

INSTANTIATE_TEST_SUITE_P(
    Retrieve, LimitedTexts,
    testing::Values(Limited{"Macaddr", tavrix_jrpc_utils_retrieve_input_macaddr_allowed, {"none", "aa:bb:cc:dd:ee:ff"}},
                    Limited{"Alias", tavrix_jrpc_utils_retrieve_input_alias, {"ab1", "nine char"}}),
    [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(LimitedTexts, PassOnWhatTheParserFindsAndRefuseNullArguments) {
    const Limited &retrieve = GetParam();
    Buffer out(32);
    Params missing("{}");
    EXPECT_EQ(retrieve(missing, out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'k'");
    Params number(R"({"k": 1})");
    EXPECT_EQ(retrieve(number, out), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'k' is not of type 'string'.");
    const LogCapture log("verbose");
    EXPECT_EQ(retrieve(number, out, nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(retrieve.retrieve(number.get(), number.debug(), "k", nullptr, 32), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

TEST_P(LimitedTexts, RefuseABufferOfNoBytesAfterWhatTheParserFinds) {
    const Limited &retrieve = GetParam();
    Buffer out(0);
    Params missing("{}");
    EXPECT_EQ(retrieve(missing, out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    Params number(R"({"k": 1})");
    EXPECT_EQ(retrieve(number, out), TAVRIX_ERR_INVALID_PARAMETER);
    const LogCapture log("debug");
    for (const std::string &text : retrieve.texts) {
        Params good(R"({"k": ")" + text + R"("})");
        EXPECT_EQ(retrieve(good, out), TAVRIX_ERR_PARAMETER) << text;
        EXPECT_EQ(good.message(), "(none)") << text;
    }
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

// --- Secure option -------------------------------------------------------------------------------------------------

namespace {

int parse_secure_option(Params &params, int *out, const char *key = "secure") {
    return tavrix_jrpc_utils_parse_input_secure_option(params.get(), params.debug(), key, out);
}

} // namespace

TEST(ParseSecureOption, MapsItsThreeWords) {
    const struct {
        const char *word;
        int value;
    } rows[] = {{"current", 0}, {"enable", 1}, {"disable", 2}};
    for (const auto &row : rows) {
        Params params(std::string(R"({"secure": ")") + row.word + R"("})");
        int out = 77;
        EXPECT_EQ(parse_secure_option(params, &out), 0);
        EXPECT_EQ(out, row.value);
        EXPECT_EQ(params.message(), "(none)");
    }
}

TEST(ParseSecureOption, RecordsTheChoiceWheneverAnythingIsLogged) {
    Params params(R"({"secure": "enable"})");
    int out = 77;
    {
        const LogCapture log("info");
        EXPECT_EQ(parse_secure_option(params, &out), 0);
        EXPECT_EQ(log.sequence(), Lines{"CONF |Vaultline - secure: <enable>"});
    }
    const LogCapture log("verbose");
    EXPECT_EQ(parse_secure_option(params, &out), 0);
    EXPECT_EQ(log.sequence(),
              (Lines{"VERB |Parsing input string for parameter: secure", "VERB |Parsed secure: enable",
                     "CONF |Vaultline - secure: <enable>", "VERB |Mapped string <enable> to enum value <1>"}));
}

TEST(ParseSecureOption, RefusesOtherWordsAfterRecordingThem) {
    for (const std::string word : {"Enable", "", "enabled", "unknown"}) {
        const LogCapture log("info");
        Params params(R"({"secure": ")" + word + R"("})");
        int out = 77;
        EXPECT_EQ(parse_secure_option(params, &out), TAVRIX_ERR_INVALID_PARAMETER) << word;
        EXPECT_EQ(out, 77);
        EXPECT_EQ(params.message(), "(none)");
        EXPECT_EQ(log.sequence(), (Lines{"CONF |Vaultline - secure: <" + word + ">",
                                         "ERROR|Invalid parameter <" + word + "> for field: <secure>"}));
        EXPECT_EQ(log.lines().back().file, unit);
    }
}

TEST(ParseSecureOption, CutsAWordAt99Characters) {
    const LogCapture log("info");
    Params params(R"({"secure": ")" + std::string(120, 'x') + R"("})");
    int out = 77;
    EXPECT_EQ(parse_secure_option(params, &out), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(log.sequence()[0], "CONF |Vaultline - secure: <" + std::string(99, 'x') + ">");
}

TEST(ParseSecureOption, FoldsTheParsersStatusAndKeepsItsMessage) {
    int out = 77;
    Params missing("{}");
    EXPECT_EQ(parse_secure_option(missing, &out), TAVRIX_ERR_INVALID_PARAMETER) << "not TAVRIX_ERR_PARAMETER_NOT_FOUND";
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'secure'");
    const LogCapture log("info");
    Params number(R"({"secure": 1})");
    EXPECT_EQ(parse_secure_option(number, &out), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'secure' is not of type 'string'.");
    EXPECT_EQ(log.sequence(), Lines{"ERROR|Given parameter <secure> is not a string"}) << "nothing is recorded";
    EXPECT_EQ(out, 77);
}

TEST(ParseSecureOption, ReportsNullArgumentsWithoutALineEnd) {
    Params params(R"({"secure": "enable"})");
    int out = 77;
    {
        const LogCapture log("info");
        EXPECT_EQ(parse_secure_option(params, &out, nullptr), TAVRIX_ERR_INVALID_PARAMETER);
        EXPECT_EQ(log.count(support::error, unit, "tavrix_jrpc_utils_parse_input_secure_option received NULL input"),
                  1);
    }
    const LogCapture log("info");
    EXPECT_EQ(parse_secure_option(params, nullptr), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(log.count(support::error, unit, "tavrix_jrpc_utils_parse_input_secure_option received NULL input"), 1);
    EXPECT_EQ(out, 77);
    EXPECT_EQ(params.message(), "(none)");
}

// --- List of MAC addresses -----------------------------------------------------------------------------------------

namespace {

std::string mac_of(int n) {
    char text[20];
    std::snprintf(text, sizeof text, "00:00:00:00:%02X:%02X", static_cast<unsigned>(n) / 256U % 256U,
                  static_cast<unsigned>(n) % 256U);
    return text;
}

/** The texts of a reply's list, in the form that a daemon holds them. */
struct Macs {
    std::unique_ptr<char[][20]> texts;
    explicit Macs(int n) : texts(new char[static_cast<size_t>(n) + 1][20]()) {
        for (int i = 0; i < n; ++i) {
            std::strcpy(texts[static_cast<size_t>(i)], mac_of(i).c_str());
        }
    }
};

json_t *const untouched_array = reinterpret_cast<json_t *>(0x10);

} // namespace

TEST(PopulateMacAddresses, ListsUpTo512) {
    for (const int count : {0, 1, 511, 512, 513, 600}) {
        const Macs macs(count);
        json_t *out = untouched_array;
        EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, macs.texts.get(), count), 0);
        const Json array(out);
        EXPECT_EQ(array->refcount, 1U);
        ASSERT_TRUE(json_is_array(array.get()));
        const size_t listed = json_array_size(array.get());
        EXPECT_EQ(listed, static_cast<size_t>(count > 512 ? 512 : count));
        for (size_t i = 0; i < listed; ++i) {
            const json_t *entry = json_array_get(array.get(), i);
            EXPECT_EQ(json_string_value(entry), mac_of(static_cast<int>(i)));
            EXPECT_EQ(entry->refcount, 1U);
        }
    }
}

TEST(PopulateMacAddresses, MakesAnEmptyListOfNothing) {
    for (const int count : {0, -1}) {
        const Macs macs(1);
        json_t *out = untouched_array;
        EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, macs.texts.get(), count), 0);
        const Json array(out);
        EXPECT_EQ(json_array_size(array.get()), 0U);
    }
    json_t *out = untouched_array;
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, nullptr, 0), 0);
    const Json array(out);
    EXPECT_TRUE(json_is_array(array.get()));
}

TEST(PopulateMacAddresses, RefusesNullArgumentsInSilence) {
    const LogCapture log("verbose");
    const Macs macs(1);
    json_t *out = untouched_array;
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(nullptr, macs.texts.get(), 1), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(nullptr, nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, nullptr, 1), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, nullptr, -1), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(out, untouched_array);
    EXPECT_TRUE(log.silent());
}

TEST(PopulateMacAddresses, EndsTheListAtATextThatIsNoUtf8) {
    const LogCapture log("info");
    const Macs macs(5);
    std::strcpy(macs.texts[3], "\xff\xfe");
    json_t *out = untouched_array;
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, macs.texts.get(), 5), 0);
    const Json array(out);
    EXPECT_EQ(json_array_size(array.get()), 3U);
    EXPECT_EQ(log.sequence(), Lines{"WARN |Failed to create JSON object for MAC address 3"});
}

TEST(PopulateMacAddresses, NeverReadsPastAnEntry) {
    const Macs macs(2);
    std::memset(macs.texts[0], 'x', 20);
    json_t *out = untouched_array;
    EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, macs.texts.get(), 2), 0);
    const Json array(out);
    EXPECT_EQ(json_string_value(json_array_get(array.get(), 0)), std::string(20, 'x'));
}

TEST(PopulateMacAddresses, ReportsThatThereIsNoMemoryForTheArray) {
    const Macs macs(1);
    for (const int successes : {0, 1}) {
        const LogCapture log("info");
        json_t *out = untouched_array;
        int rc = 0;
        {
            const fault::Failing ever("Jansson", successes + 1, ENOMEM, fault::Fault::always);
            rc = tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, macs.texts.get(), 1);
        }
        EXPECT_EQ(rc, TAVRIX_ERR_NO_MEMORY);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(log.sequence(), Lines{"ERROR|Unable to create JSON array for MAC addresses"});
        EXPECT_EQ(log.lines().front().file, unit);
    }
}

TEST(PopulateMacAddresses, AnswersEveryShortageOfMemoryWithoutALeak) {
    // Allocation by allocation until all of them succeed: a shortage while a text is made ends the list with a warning,
    // one while the list grows gives up the list.
    const Macs macs(20);
    int shortened = 0;
    int given_up = 0;
    size_t listed = 0;
    for (int successes = 2; listed < 20 && successes < 200; ++successes) {
        const LogCapture log("info");
        json_t *out = untouched_array;
        int rc = 0;
        {
            const fault::Failing ever("Jansson", successes + 1, ENOMEM, fault::Fault::always);
            rc = tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, macs.texts.get(), 20);
        }
        if (rc == TAVRIX_ERR_GENERAL) {
            ++given_up;
            EXPECT_EQ(out, nullptr);
            const Lines lines = log.sequence();
            ASSERT_EQ(lines.size(), 1U);
            EXPECT_EQ(lines[0].rfind("ERROR|Failed to append MAC address ", 0), 0U) << lines[0];
            EXPECT_EQ(lines[0].substr(lines[0].size() - 9), " to array");
            continue;
        }
        EXPECT_EQ(rc, 0);
        const Json array(out);
        listed = json_array_size(array.get());
        if (listed < 20) {
            ++shortened;
            EXPECT_EQ(log.sequence(),
                      Lines{"WARN |Failed to create JSON object for MAC address " + std::to_string(listed)});
        } else {
            EXPECT_TRUE(log.silent());
        }
    }
    EXPECT_EQ(listed, 20U);
    EXPECT_GT(shortened, 0);
    EXPECT_GT(given_up, 0);
}
