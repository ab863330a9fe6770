/*
 * Lists of records, fields with a rule of their own, and the list of MAC addresses of a reply.
 */
#include "tavrix_jrpc_utils.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "common/handles.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/params.h"
#include "tavrix_error.h"

using namespace support;
using fault::Fault;
using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

/** A member of a record, as JSON text; "" leaves it out. */
struct Member {
    std::string name;
    std::string json;
    bool is_of_hardware = false;
};

std::string object(const std::vector<Member> &members) {
    std::string json;
    for (const Member &member : members) {
        if (!member.json.empty()) {
            json += (json.empty() ? "" : ", ") + ("\"" + member.name + "\": " + member.json);
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

std::string text_of(int n) { return std::to_string(n); }

// --- Ports, and of their hardware alone ----------------------------------------------------------------------------

constexpr int32_t filled = 0x5a5a5a5a;
constexpr int room = 6;

/** Members of a port that are all different: port n. What only the hardware has is read of the same text. */
std::vector<Member> port(int n) {
    return {{"port_number", text_of(n), true},
            {"port_status", text_of(100 + n)},
            {"poe_status", text_of(200 + n), true},
            {"link_status", text_of(300 + n), true},
            {"link_speed", text_of(400 + n), true},
            {"vlan_mode", text_of(500 + n)},
            {"vlan_ids", "[" + text_of(n) + ", " + text_of(n + 1) + "]"}};
}

Member &member_of(std::vector<Member> &members, const std::string &name) {
    return *std::find_if(members.begin(), members.end(), [&](const Member &member) { return member.name == name; });
}

std::string port_with(int n, const std::string &name, const std::string &json) {
    std::vector<Member> members = port(n);
    member_of(members, name).json = json;
    return object(members);
}

std::string ports_json(int n) {
    std::vector<std::string> elements;
    for (int i = 1; i <= n; ++i) {
        elements.push_back(object(port(i)));
    }
    return list(elements);
}

/** The members that are stored once all are read. */
std::vector<int> late_members(const tavrix_port_input &port) {
    return {port.port_status, port.poe_status, port.link_status, port.link_speed, port.vlan_mode};
}
std::vector<int> late_members(const tavrix_port_hardware_input &port) {
    return {port.poe_status, port.link_status, port.link_speed};
}

void expect_port(const tavrix_port_input &record, int n) {
    EXPECT_EQ(record.port_number, n);
    EXPECT_EQ(late_members(record), (std::vector<int>{100 + n, 200 + n, 300 + n, 400 + n, 500 + n}));
    EXPECT_EQ(record.vlan_count, 2);
    EXPECT_EQ(record.vlan_ids[0], n);
    EXPECT_EQ(record.vlan_ids[1], n + 1);
    EXPECT_EQ(record.vlan_ids[2], filled);
    EXPECT_EQ(record.user_tag, filled) << "the daemon's own";
    for (const int32_t own : record.user_data) {
        EXPECT_EQ(own, filled) << "the daemon's own";
    }
}
void expect_port(const tavrix_port_hardware_input &record, int n) {
    EXPECT_EQ(record.port_number, n);
    EXPECT_EQ(late_members(record), (std::vector<int>{200 + n, 300 + n, 400 + n}));
}

template <class Record, int (*reader)(json_t *, json_t **, const char *, Record *, int *, int)>
struct PortList {
    static constexpr bool has_only_hardware = std::is_same_v<Record, tavrix_port_hardware_input>;

    Record records[room + 1];
    int count = -77;
    Params params;

    explicit PortList(const std::string &json, const char *key = "ports")
        : params(std::string("{\"") + key + "\": " + json + "}") {
        std::memset(records, 0x5a, sizeof records);
    }
    int retrieve(int max = room) { return params.read(reader, "ports", records, &count, max); }
    Statuses retrieve_nulls() { return with_each_null(params.reading(reader), "ports", records, &count, 1); }
    int retrieve_without_message() { return reader(params.get(), nullptr, "ports", records, &count, 1); }
    bool untouched(int i) const {
        Record fresh;
        std::memset(&fresh, 0x5a, sizeof fresh);
        return std::memcmp(&records[i], &fresh, sizeof fresh) == 0;
    }
};

using Ports = PortList<tavrix_port_input, tavrix_jrpc_utils_retrieve_input_ports>;
using PortsHardware = PortList<tavrix_port_hardware_input, tavrix_jrpc_utils_retrieve_input_ports_hardware>;

template <class Kind>
class RetrievePortLists : public testing::Test {};
using Kinds = testing::Types<Ports, PortsHardware>;
TYPED_TEST_SUITE(RetrievePortLists, Kinds, );

TYPED_TEST(RetrievePortLists, FillOneRecordForEachElement) {
    TypeParam ports(ports_json(3));
    EXPECT_EQ(ports.retrieve(), 0);
    EXPECT_EQ(ports.count, 3);
    for (int i = 0; i < 3; ++i) {
        expect_port(ports.records[i], i + 1);
    }
    EXPECT_TRUE(ports.untouched(3));
    EXPECT_EQ(ports.params.message(), "(none)");
}

TYPED_TEST(RetrievePortLists, IgnoreWhatIsAboveTheMaximum) {
    const std::tuple<int, int, int> rows[] = {{10, 4, 4}, {4, 4, 4}, {3, 4, 3}, {5, 0, 0}, {0, 4, 0}, {2, -1, -1}};
    for (const auto &[elements, max, count] : rows) {
        TypeParam ports(ports_json(elements));
        EXPECT_EQ(ports.retrieve(max), 0) << elements << " of " << max;
        EXPECT_EQ(ports.count, count);
        EXPECT_TRUE(ports.untouched(std::max(count, 0)));
    }
    TypeParam ports(list({object(port(1)), "null"}));
    EXPECT_EQ(ports.retrieve(1), 0) << "they are not even looked at";
    EXPECT_EQ(ports.count, 1);
}

TYPED_TEST(RetrievePortLists, FoldEveryBadElementIntoOneStatus) {
    const std::tuple<const char *, const char *, const char *> rows[] = {
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
    for (const auto &[member, json, message] : rows) {
        std::vector<Member> members = port(2);
        if (TypeParam::has_only_hardware && !member_of(members, member).is_of_hardware) {
            continue;
        }
        TypeParam ports(list({object(port(1)), port_with(2, member, json), object(port(3))}));
        EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER) << member << " " << json;
        EXPECT_EQ(ports.params.message(), message);
        EXPECT_EQ(ports.count, 3) << "the length of the list";
        expect_port(ports.records[0], 1);
        const std::vector<int> late = late_members(ports.records[1]);
        EXPECT_EQ(late, std::vector<int>(late.size(), filled)) << "stored only after everything was read";
        EXPECT_TRUE(ports.untouched(2));
    }
}

TYPED_TEST(RetrievePortLists, RefuseElementsThatAreNoObjects) {
    for (const char *element : {"null", "1", R"("port")", "[]", "{}"}) {
        TypeParam ports(list({element}));
        EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER) << element;
        EXPECT_EQ(ports.params.message(), "Missing expected parameter: 'port_number'");
        EXPECT_EQ(ports.count, 1);
        EXPECT_TRUE(ports.untouched(0));
    }
}

TYPED_TEST(RetrievePortLists, PassOnWhatTheArrayParserFinds) {
    TypeParam text(R"("ports")");
    EXPECT_EQ(text.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(text.params.message(), "Parameter 'ports' is not of type 'array'.");
    EXPECT_EQ(text.count, -77);
    EXPECT_TRUE(text.untouched(0));
    TypeParam missing("[]", "other");
    EXPECT_EQ(missing.retrieve(), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.params.message(), "Missing expected parameter: 'ports'");
    EXPECT_EQ(missing.count, -77);
}

TYPED_TEST(RetrievePortLists, RefuseNullArgumentsInSilence) {
    const LogCapture log("verbose");
    TypeParam ports(ports_json(1));
    EXPECT_EQ(ports.retrieve_nulls(), Statuses(3, TAVRIX_ERR_PARAMETER));
    EXPECT_EQ(ports.count, -77);
    EXPECT_TRUE(ports.untouched(0));
    EXPECT_TRUE(log.silent());
}

TYPED_TEST(RetrievePortLists, WorkWithoutAPlaceForTheMessage) {
    EXPECT_EQ(TypeParam(ports_json(1)).retrieve_without_message(), 0);
    EXPECT_EQ(TypeParam("[{}]").retrieve_without_message(), TAVRIX_ERR_PARAMETER);
}

TEST(RetrievePorts, WritesTheNumberAndTheVlanIdsStraightIntoTheRecordUnlessTheyAreTooMany) {
    Ports bad(list({port_with(7, "vlan_ids", "[5, 0]")}));
    EXPECT_EQ(bad.retrieve(), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(bad.records[0].port_number, 7);
    EXPECT_EQ(bad.records[0].vlan_ids[0], 5);
    EXPECT_EQ(bad.records[0].vlan_count, 2);
    EXPECT_EQ(bad.records[0].vlan_mode, filled);
    Ports too_many(list({port_with(1, "vlan_ids", array_of(33, "7"))}));
    EXPECT_EQ(too_many.retrieve(), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(too_many.records[0].vlan_ids[0], filled);
    EXPECT_EQ(too_many.records[0].vlan_count, 33);
    EXPECT_TRUE(too_many.untouched(1));
}

TYPED_TEST(RetrievePortLists, ReadInTheirOrder) {
    const std::string kind = TypeParam::has_only_hardware ? " hardware" : "";
    Lines expected = {"VERB |Retrieving ports" + kind + " input...",
                      "VERB |Parsing input array for parameter: ports",
                      "VERB |Retrieving port" + kind + " #0...",
                      "VERB |Retrieving port number...",
                      "VERB |Parsing input integer for parameter: port_number",
                      "VERB |Parsed port_number: 1",
                      "VERB |Validating port_number: 1",
                      "DEBUG|Retrieved and validated port_number: 1"};
    for (const auto &[name, json, is_of_hardware] : port(1)) {
        if (name != "port_number" && name != "vlan_ids" && (is_of_hardware || !TypeParam::has_only_hardware)) {
            expected.push_back("VERB |Parsing input integer for parameter: " + name);
            expected.push_back("VERB |Parsed " + name + ": " + json);
        }
    }
    if (!TypeParam::has_only_hardware) {
        expected.insert(expected.end(), {"VERB |Validating vlan id: 1", "VERB |Validating vlan id: 2"});
    }
    expected.push_back("VERB |Successfully retrieved 1 ports" + kind + ".");
    const LogCapture log("verbose");
    EXPECT_EQ(TypeParam(ports_json(1)).retrieve(), 0);
    EXPECT_TRUE(log.said(expected));
}

TEST(RetrievePorts, NumbersItsElementsFromZeroAndStopsAtTheFirstBadOne) {
    const LogCapture log("verbose");
    Ports ports(list({object(port(1)), port_with(2, "port_status", ""), object(port(3))}));
    EXPECT_EQ(ports.retrieve(), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(log.has(verbose, unit, "Retrieving port #0...\n"));
    EXPECT_TRUE(log.has(verbose, unit, "Retrieving port #1...\n"));
    EXPECT_FALSE(log.has(verbose, unit, "Retrieving port #2...\n"));
    EXPECT_EQ(log.count(verbose, unit, "Parsing input integer for parameter: poe_status\n"), 1)
        << "nothing is read after the failure";
    EXPECT_EQ(log.text().find("Successfully"), std::string::npos);
}

// --- MAC filters ---------------------------------------------------------------------------------------------------

tavrix_mac_filter *const untouched_filters = reinterpret_cast<tavrix_mac_filter *>(0x10);
constexpr auto read_filters = tavrix_jrpc_utils_retrieve_input_mac_filters;

struct MacFilters {
    Params params;
    int rc;
    int count = -77;
    std::unique_ptr<tavrix_mac_filter, tavrix::FreeMemory> filters;
    bool untouched;

    explicit MacFilters(const std::string &json, const char *key = "filters") : params(R"({"filters": )" + json + "}") {
        tavrix_mac_filter *out = untouched_filters;
        rc = params.read(read_filters, key, &out, &count, 11, int{TAVRIX_ERR_NO_MEMORY});
        untouched = out == untouched_filters;
        if (!untouched) {
            filters.reset(out);
        }
    }
};

std::string filter(const std::string &mac, const std::string &mask) { return object({{"mac", mac}, {"mask", mask}}); }

const std::string good_filter = filter(R"("aa:bb:cc:dd:ee:0f")", R"("ff:ff:ff:00:00:00")");

TEST(RetrieveMacFilters, ReadsEveryElementInCanonicalForm) {
    const MacFilters read(list({good_filter, filter(R"("01-23-45-67-89-AB")", R"("FF-FF-FF-FF-FF-FF")")}));
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
    const std::tuple<std::string, int, const char *> rows[] = {
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
    for (const auto &[element, rc, message] : rows) {
        const MacFilters read(list({good_filter, element, good_filter}));
        EXPECT_EQ(read.rc, rc) << element;
        EXPECT_EQ(read.params.message(), message);
        EXPECT_EQ(read.count, 3) << "the length of the list";
        EXPECT_TRUE(read.untouched);
    }
}

TEST(RetrieveMacFilters, PassesOnWhatTheArrayParserFinds) {
    for (const auto &[key, rc, message] :
         {std::tuple("filters", TAVRIX_ERR_INVALID_PARAMETER, "Parameter 'filters' is not of type 'array'."),
          {"absent", TAVRIX_ERR_PARAMETER_NOT_FOUND, "Missing expected parameter: 'absent'"}}) {
        const MacFilters read(R"("filters")", key);
        EXPECT_EQ(read.rc, rc);
        EXPECT_EQ(read.params.message(), message);
        EXPECT_EQ(read.count, -77);
        EXPECT_TRUE(read.untouched);
    }
}

TEST(RetrieveMacFilters, SaysWhatItDoes) {
    const LogCapture log("verbose");
    const MacFilters read(list({good_filter}));
    const Lines lines = log.sequence();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], "VERB |jrpc utils input mac filters");
    EXPECT_EQ(lines[1], "VERB |Parsing input array for parameter: filters");
    EXPECT_EQ(lines[2], "VERB |Retrieving mac address...");
    EXPECT_EQ(lines[3], "VERB |Parsing input string for parameter: mac");
    EXPECT_TRUE(log.has(verbose, unit, "Parsing input string for parameter: mask\n"));
    EXPECT_EQ(lines.back(), "DEBUG|Retrieved and validated mac address: FF:FF:FF:00:00:00");
}

TEST(RetrieveMacFilters, RefusesEachNullArgument) {
    Params params(R"({"filters": []})");
    tavrix_mac_filter *out = untouched_filters;
    int count = -77;
    expect_nulls_named(TAVRIX_ERR_NULL_INPUT, read_filters, params.get(), params.debug(), "filters", &out, &count, 1,
                       2);
    EXPECT_EQ(out, untouched_filters);
    EXPECT_EQ(count, -77);
}

TEST(RetrieveMacFilters, ReadsALongList) {
    set_log_level("off");
    const MacFilters read(array_of(2000, good_filter));
    ASSERT_EQ(read.rc, 0);
    ASSERT_EQ(read.count, 2000);
    EXPECT_STREQ(read.filters.get()[1999].mask, "FF:FF:FF:00:00:00");
    EXPECT_EQ(read.filters.get()[1999].second, TAVRIX_ERR_NO_MEMORY);
}

// --- Allowed MAC address -------------------------------------------------------------------------------------------

/** {"field": value} */
std::string json(const std::string &value) { return taken(json_pack("{s:s}", "field", value.c_str())); }

int retrieve_allowed(Params &params, Buffer &out) {
    return params.read(tavrix_jrpc_utils_retrieve_input_macaddr_allowed, "field", out.get(), out.size());
}

TEST(RetrieveMacaddrAllowed, AcceptsAnAddressInCanonicalForm) {
    const LogCapture log("verbose");
    Params params(json("aA-bb-cc-dd-ee-ff"));
    Buffer out(20);
    EXPECT_EQ(retrieve_allowed(params, out), 0);
    EXPECT_EQ(out.text(), "AA:BB:CC:DD:EE:FF");
    const Lines lines = log.sequence();
    EXPECT_EQ(lines[0], "VERB |Retrieving mac address...");
    EXPECT_EQ(lines[1], "VERB |Parsing input string for parameter: field");
    EXPECT_EQ(lines[2], "VERB |Parsed field: aA-bb-cc-dd-ee-ff");
    EXPECT_EQ(lines.back(), "DEBUG|Retrieved and validated mac address allowed: AA:BB:CC:DD:EE:FF");
}

TEST(RetrieveMacaddrAllowed, AcceptsNoneWithoutASuccessLine) {
    const LogCapture log("verbose");
    Params params(json("none"));
    Buffer out(20);
    EXPECT_EQ(retrieve_allowed(params, out), 0);
    EXPECT_EQ(out.text(), "none");
    EXPECT_TRUE(log.said({"VERB |Retrieving mac address...", "VERB |Parsing input string for parameter: field",
                          "VERB |Parsed field: none"}));
}

TEST(RetrieveMacaddrAllowed, RefusesAnythingElse) {
    for (const char *text :
         {"None", "none ", "all", "", "aa:bb:cc:dd:ee:f", "aa:bb:cc:dd:ee:fg", "aa:bb-cc:dd-ee:ff"}) {
        const LogCapture log("debug");
        Params params(json(text));
        Buffer out(20);
        EXPECT_EQ(retrieve_allowed(params, out), TAVRIX_ERR_VALIDATION) << text;
        EXPECT_EQ(out.text(), text);
        EXPECT_EQ(params.message(), "(none)");
        EXPECT_EQ(log.text().find("Retrieved"), std::string::npos);
    }
}

TEST(RetrieveMacaddrAllowed, StaysWithinBuffersOfAnySize) {
    set_log_level("off");
    Params params(json("aa:bb:cc:dd:ee:ff"));
    for (size_t size = 1; size <= 20; ++size) {
        Buffer out(size);
        EXPECT_EQ(retrieve_allowed(params, out), size >= 18 ? 0 : TAVRIX_ERR_VALIDATION) << size;
    }
}

// --- Alias ---------------------------------------------------------------------------------------------------------

constexpr char alias_message[] = "Alias must be 8 characters or fewer.";

int retrieve_alias(Params &params, Buffer &out, const char *key = "field") {
    return params.read(tavrix_jrpc_utils_retrieve_input_alias, key, out.get(), out.size());
}

TEST(RetrieveAlias, ComesBackInUpperCase) {
    for (const auto &[value, upper] : {std::pair<std::string, std::string>("ab1", "AB1"),
                                       {"", ""},
                                       {"abcdefgh", "ABCDEFGH"},
                                       {"A-b_c d", "A-B_C D"},
                                       {"12345678", "12345678"}}) {
        const LogCapture log("verbose");
        Params params(json(value));
        Buffer out(32);
        EXPECT_EQ(retrieve_alias(params, out), 0) << value;
        EXPECT_EQ(out.text(), upper);
        EXPECT_EQ(params.message(), "(none)");
        EXPECT_TRUE(log.said({"VERB |Retrieving alias", "VERB |Parsing input string for parameter: field",
                              "VERB |Parsed field: " + value, "DEBUG|Retrieved and validated alias: " + upper}));
    }
}

TEST(RetrieveAlias, RefusesNineCharactersWithAMessage) {
    for (const char *value : {"abcdefghi", "abcdefghijklmnopqrstuvwxyz"}) {
        const LogCapture log("debug");
        Params params(json(value));
        Buffer out(32);
        EXPECT_EQ(retrieve_alias(params, out), TAVRIX_ERR_VALIDATION);
        EXPECT_EQ(out.text(), value) << "neither cut nor in upper case";
        EXPECT_EQ(params.message(), alias_message);
        EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_alias(params.get(), nullptr, "field", out.get(), out.size()),
                  TAVRIX_ERR_VALIDATION)
            << "without a place for it";
        EXPECT_TRUE(log.silent());
    }
}

TEST(RetrieveAlias, ReplacesAnEarlierMessageByItsOwnOnly) {
    Params refused(json("abcdefghi"));
    refused.set_message("earlier");
    Buffer out(32);
    EXPECT_EQ(retrieve_alias(refused, out), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(refused.message(), alias_message);
    Params params(json("ab1"));
    params.set_message("earlier");
    EXPECT_EQ(retrieve_alias(params, out), 0);
    EXPECT_EQ(retrieve_alias(params, out, "absent"), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "earlier");
}

TEST(RetrieveAlias, MeasuresWhatFitTheBuffer) {
    Params params(json("abcdefghi"));
    Buffer eight(9);
    EXPECT_EQ(retrieve_alias(params, eight), 0);
    EXPECT_EQ(eight.text(), "ABCDEFGH");
    Buffer nine(10);
    EXPECT_EQ(retrieve_alias(params, nine), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(nine.text(), "abcdefghi");
}

// --- Secure option -------------------------------------------------------------------------------------------------

struct SecureOption {
    Params params;
    int out = 77;

    explicit SecureOption(const std::string &json) : params(json) {}
    int parse() { return params.read(tavrix_jrpc_utils_parse_input_secure_option, "field", &out); }
};

TEST(ParseSecureOption, MapsItsThreeWordsAndRecordsTheChoiceWheneverAnythingIsLogged) {
    for (const auto &[word, value] : {std::pair<std::string, int>("current", 0), {"enable", 1}, {"disable", 2}}) {
        const std::string record = "CONF |Vaultline - field: <" + word + ">";
        SecureOption option(json(word));
        LogCapture log("verbose");
        EXPECT_EQ(option.parse(), 0);
        EXPECT_EQ(option.out, value);
        EXPECT_EQ(option.params.message(), "(none)");
        EXPECT_TRUE(log.said({"VERB |Parsing input string for parameter: field", "VERB |Parsed field: " + word, record,
                              "VERB |Mapped string <" + word + "> to enum value <" + std::to_string(value) + ">"}));
        log.begin("info");
        EXPECT_EQ(option.parse(), 0);
        EXPECT_TRUE(log.said({record}));
    }
}

TEST(ParseSecureOption, RefusesOtherWordsAfterRecordingThem) {
    for (const std::string word : {"Enable", "", "enabled", "unknown"}) {
        const LogCapture log("info");
        SecureOption option(json(word));
        EXPECT_EQ(option.parse(), TAVRIX_ERR_INVALID_PARAMETER) << word;
        EXPECT_EQ(option.out, 77);
        EXPECT_EQ(option.params.message(), "(none)");
        EXPECT_TRUE(log.said(
            {"CONF |Vaultline - field: <" + word + ">", "ERROR|Invalid parameter <" + word + "> for field: <field>"}));
        EXPECT_EQ(log.lines().back().file, unit);
    }
}

TEST(ParseSecureOption, CutsAWordAt99Characters) {
    const LogCapture log("info");
    EXPECT_EQ(SecureOption(json(std::string(120, 'x'))).parse(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(log.sequence()[0], "CONF |Vaultline - field: <" + std::string(99, 'x') + ">");
}

TEST(ParseSecureOption, FoldsTheParsersStatusAndKeepsItsMessage) {
    SecureOption missing("{}");
    EXPECT_EQ(missing.parse(), TAVRIX_ERR_INVALID_PARAMETER) << "not TAVRIX_ERR_PARAMETER_NOT_FOUND";
    EXPECT_EQ(missing.params.message(), "Missing expected parameter: 'field'");
    const LogCapture log("info");
    SecureOption number(R"({"field": 1})");
    EXPECT_EQ(number.parse(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.params.message(), "Parameter 'field' is not of type 'string'.");
    EXPECT_TRUE(log.said({"ERROR|Given parameter <field> is not a string"})) << "nothing is recorded";
    EXPECT_EQ(number.out, 77);
}

TEST(ParseSecureOption, ReportsNullArgumentsWithoutALineEnd) {
    SecureOption option(json("enable"));
    const LogCapture log("info");
    const auto parse = option.params.reading(tavrix_jrpc_utils_parse_input_secure_option);
    EXPECT_EQ(parse(nullptr, &option.out), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(parse("field", nullptr), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(log.count(error, unit, "tavrix_jrpc_utils_parse_input_secure_option received NULL input"), 2);
    EXPECT_EQ(option.out, 77);
    EXPECT_EQ(option.params.message(), "(none)");
}

// --- List of MAC addresses -----------------------------------------------------------------------------------------

std::string mac_of(int n) {
    char text[20];
    std::snprintf(text, sizeof text, "00:00:00:00:%02X:%02X", static_cast<unsigned>(n) / 256U % 256U,
                  static_cast<unsigned>(n) % 256U);
    return text;
}

json_t *const untouched_array = reinterpret_cast<json_t *>(0x10);

/** The texts of a reply's list, in the form that a daemon holds them, and the list that is made of them. */
struct Macs {
    std::unique_ptr<char[][20]> texts;
    json_t *out = untouched_array;

    explicit Macs(int n) : texts(new char[static_cast<size_t>(n) + 1][20]()) {
        for (int i = 0; i < n; ++i) {
            std::strcpy(texts[static_cast<size_t>(i)], mac_of(i).c_str());
        }
    }
    int populate(int count) { return tavrix_jrpc_utils_populate_json_mac_addresses_array(&out, texts.get(), count); }
    Json array() { return Json(std::exchange(out, untouched_array)); }
};

TEST(PopulateMacAddresses, ListsUpTo512) {
    for (const int count : {-1, 0, 1, 511, 512, 513, 600}) {
        Macs macs(std::max(count, 1));
        EXPECT_EQ(macs.populate(count), 0);
        const Json array = macs.array();
        EXPECT_EQ(array->refcount, 1U);
        ASSERT_TRUE(json_is_array(array.get()));
        EXPECT_EQ(json_array_size(array.get()), static_cast<size_t>(std::clamp(count, 0, 512)));
        for (size_t i = 0; i < json_array_size(array.get()); ++i) {
            const json_t *entry = json_array_get(array.get(), i);
            EXPECT_EQ(json_string_value(entry), mac_of(static_cast<int>(i)));
            EXPECT_EQ(entry->refcount, 1U);
        }
    }
}

TEST(PopulateMacAddresses, RefusesNullArgumentsInSilence) {
    const auto populate = tavrix_jrpc_utils_populate_json_mac_addresses_array;
    const LogCapture log("verbose");
    Macs macs(1);
    EXPECT_EQ(with_each_null(populate, &macs.out, macs.texts.get(), 1), Statuses(2, TAVRIX_ERR_NULL_INPUT));
    EXPECT_EQ(populate(nullptr, nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(populate(&macs.out, nullptr, -1), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(macs.out, untouched_array);
    EXPECT_EQ(populate(&macs.out, nullptr, 0), 0) << "no text is needed for none";
    EXPECT_EQ(taken(macs.out), "[]");
    EXPECT_TRUE(log.silent());
}

TEST(PopulateMacAddresses, EndsTheListAtATextThatIsNoUtf8) {
    const LogCapture log("info");
    Macs macs(5);
    std::strcpy(macs.texts[3], "\xff\xfe");
    EXPECT_EQ(macs.populate(5), 0);
    EXPECT_EQ(json_array_size(macs.array().get()), 3U);
    EXPECT_TRUE(log.said({"WARN |Failed to create JSON object for MAC address 3"}));
}

TEST(PopulateMacAddresses, NeverReadsPastAnEntry) {
    Macs macs(2);
    std::memset(macs.texts[0], 'x', 20);
    EXPECT_EQ(macs.populate(2), 0);
    EXPECT_EQ(json_string_value(json_array_get(macs.array().get(), 0)), std::string(20, 'x'));
}

TEST(PopulateMacAddresses, AnswersEveryShortageOfMemoryWithoutALeak) {
    // Allocation by allocation until all of them succeed: a shortage at once gives no array, one while a text is made
    // ends the list with a warning, one while the list grows gives up the list.
    int shortened = 0;
    int given_up = 0;
    size_t listed = 0;
    for (int successes = 0; listed < 20 && successes < 200; ++successes) {
        const LogCapture log("info");
        Macs macs(20);
        Fault ever("Jansson", successes + 1, ENOMEM, Fault::always);
        const int rc = ever.in([&] { return macs.populate(20); });
        EXPECT_TRUE(rc == 0 || macs.out == nullptr) << rc;
        if (successes < 2) {
            EXPECT_EQ(rc, TAVRIX_ERR_NO_MEMORY);
            EXPECT_TRUE(log.said({"ERROR|Unable to create JSON array for MAC addresses"}));
            EXPECT_EQ(log.lines().front().file, unit);
        } else if (rc == TAVRIX_ERR_GENERAL) {
            ++given_up;
            EXPECT_THAT(log.sequence(),
                        ElementsAre(MatchesRegex("ERROR.Failed to append MAC address [0-9]+ to array")));
        } else {
            EXPECT_EQ(rc, 0);
            listed = json_array_size(macs.array().get());
            shortened += listed < 20 ? 1 : 0;
            EXPECT_TRUE(log.said(
                listed < 20 ? Lines{"WARN |Failed to create JSON object for MAC address " + std::to_string(listed)}
                            : Lines{}));
        }
    }
    EXPECT_EQ(listed, 20U);
    EXPECT_GT(shortened, 0);
    EXPECT_GT(given_up, 0);
}

} // namespace
