#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

namespace {

using support::code_of;
using support::LogCapture;
using support::member;
using support::Stage;

constexpr const char *colours[] = {"red", "green", "blue", nullptr};

const tavrix_service_param inner[] = {
    TAVRIX_PARAM("y", TAVRIX_KIND_INTEGER, "", 0),
    TAVRIX_PARAM_END,
};
const tavrix_service_param point[] = {
    TAVRIX_PARAM("x", TAVRIX_KIND_INTEGER, "", 0),
    TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM_MEMBERS("inner", TAVRIX_KIND_OBJECT, "", TAVRIX_OPTIONAL, 0, 0, inner),
    TAVRIX_PARAM_END,
};
const tavrix_service_param bare_port[] = {
    TAVRIX_PARAM("", TAVRIX_KIND_PORT_ID, "", TAVRIX_ALLOW_D_PORT),
    TAVRIX_PARAM_END,
};

/** One row for each kind; each request of a test uses one of them. */
const tavrix_service_param rows[] = {
    TAVRIX_PARAM_RANGE("text", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL, 2, 5),
    TAVRIX_PARAM("lines", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL | TAVRIX_MULTILINE),
    TAVRIX_PARAM_RANGE("integer", TAVRIX_KIND_INTEGER, "", TAVRIX_OPTIONAL, -5, 5000000000),
    TAVRIX_PARAM("plain", TAVRIX_KIND_INTEGER, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("boolean", TAVRIX_KIND_BOOLEAN, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("number", TAVRIX_KIND_NUMBER, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM_RANGE("from_to", TAVRIX_KIND_NUMBER, "", TAVRIX_OPTIONAL, -2, 9007199254740993),
    TAVRIX_PARAM("uint64", TAVRIX_KIND_UINT64, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("float", TAVRIX_KIND_FLOAT, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM_WORDS("colour", colours, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM_MEMBERS("points", TAVRIX_KIND_ARRAY, "", TAVRIX_OPTIONAL, 1, 2, point),
    TAVRIX_PARAM_MEMBERS("bare", TAVRIX_KIND_ARRAY, "", TAVRIX_OPTIONAL, 0, 0, bare_port),
    TAVRIX_PARAM_MEMBERS("object", TAVRIX_KIND_OBJECT, "", TAVRIX_OPTIONAL, 0, 0, point),
    TAVRIX_PARAM("json", TAVRIX_KIND_JSON, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("port", TAVRIX_KIND_PORT_ID, "", TAVRIX_OPTIONAL | TAVRIX_ANY_PORT),
    TAVRIX_PARAM("c_port", TAVRIX_KIND_PORT_ID, "", TAVRIX_OPTIONAL | TAVRIX_ALLOW_C_PORT),
    TAVRIX_PARAM("d_port", TAVRIX_KIND_PORT_ID, "", TAVRIX_OPTIONAL | TAVRIX_ALLOW_D_PORT),
    TAVRIX_PARAM("any_port", TAVRIX_KIND_PORT_ID, "", TAVRIX_OPTIONAL | TAVRIX_ANY_PORTS),
    TAVRIX_PARAM("mzu", TAVRIX_KIND_MZU_ID, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("status", TAVRIX_KIND_STATUS, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("vlan_mode", TAVRIX_KIND_VLAN_MODE, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("model", TAVRIX_KIND_MZU_MODEL, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("secure", TAVRIX_KIND_SECURE_OPTION, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("password", TAVRIX_KIND_PASSWORD, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("alias", TAVRIX_KIND_ALIAS, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("vlan_id", TAVRIX_KIND_VLAN_ID, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM_RANGE("vlan_ids", TAVRIX_KIND_VLAN_IDS, "", TAVRIX_OPTIONAL, 1, 0),
    TAVRIX_PARAM_RANGE("few", TAVRIX_KIND_VLAN_IDS, "", TAVRIX_OPTIONAL, 2, 3),
    TAVRIX_PARAM_RANGE("ports", TAVRIX_KIND_PORTS, "", TAVRIX_OPTIONAL, 0, 2),
    TAVRIX_PARAM_RANGE("hardware", TAVRIX_KIND_PORTS_HARDWARE, "", TAVRIX_OPTIONAL, 1, 0),
    TAVRIX_PARAM_RANGE("filters", TAVRIX_KIND_MAC_FILTERS, "", TAVRIX_OPTIONAL, 0, 2),
    TAVRIX_PARAM_END,
};

/** The checked values as a text, each read with its getter. */
std::string last_values;

void add(const std::string &text) { last_values += (last_values.empty() ? "" : " ") + text; }

std::string integers(const tavrix_call *call, const char *name) {
    int count = 0;
    const int *ids = tavrix_call_integers(call, name, &count);
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += (i > 0 ? "," : "") + std::to_string(ids[i]);
    }
    return text;
}

void add_records(const tavrix_call *call) {
    int count = 0;
    if (const tavrix_port_input *ports = tavrix_call_ports(call, "ports", &count); ports != nullptr) {
        add(std::to_string(count) + " ports, the first " + std::to_string(ports[0].port_number) + " in " +
            std::to_string(ports[0].vlan_ids[0]));
    }
    if (const tavrix_port_hardware_input *ports = tavrix_call_ports_hardware(call, "hardware", &count);
        ports != nullptr) {
        add(std::to_string(count) + " ports, the first " + std::to_string(ports[0].port_number));
    }
    if (const tavrix_mac_filter *filters = tavrix_call_mac_filters(call, "filters", &count); filters != nullptr) {
        add(std::to_string(count) + " filters" + (count > 0 ? std::string(", the first ") + filters[0].mac : ""));
    }
}

int show(tavrix_call *call) {
    last_values.clear();
    for (const char *name : {"text", "lines", "colour", "port", "c_port", "d_port", "any_port", "mzu", "status",
                             "vlan_mode", "model", "secure", "mac", "password", "alias"}) {
        if (tavrix_call_has(call, name)) {
            add(std::string(tavrix_call_text(call, name)) + "/" + std::to_string(tavrix_call_word(call, name)));
        }
    }
    for (const char *name : {"integer", "plain", "vlan_id"}) {
        if (tavrix_call_has(call, name)) {
            add(std::to_string(tavrix_call_integer(call, name)));
        }
    }
    for (const char *name : {"number", "from_to", "float"}) {
        if (tavrix_call_has(call, name)) {
            add(std::to_string(tavrix_call_real(call, name)));
        }
    }
    if (tavrix_call_has(call, "boolean")) {
        add(tavrix_call_boolean(call, "boolean") ? "true" : "false");
    }
    if (tavrix_call_has(call, "uint64")) {
        add(std::to_string(tavrix_call_uint64(call, "uint64")));
    }
    for (const char *name : {"vlan_ids", "few"}) {
        if (tavrix_call_has(call, name)) {
            add(integers(call, name));
        }
    }
    for (const char *name : {"points", "bare", "object", "json"}) {
        if (const json_t *value = tavrix_call_json(call, name)) {
            add(support::rendered(value));
        }
    }
    add_records(call);
    return 0;
}

const tavrix_service_param required[] = {
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "", TAVRIX_ANY_PORT),
    TAVRIX_PARAM("vlan_id", TAVRIX_KIND_VLAN_ID, "", 0),
    TAVRIX_PARAM_END,
};
int misread(tavrix_call *call) {
    EXPECT_EQ(tavrix_call_text(call, "vlan_id"), nullptr);
    EXPECT_EQ(tavrix_call_integer(call, "port_id"), 0);
    EXPECT_EQ(tavrix_call_integer(call, "nothing"), 0);
    return 0;
}

const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Show", show, "", rows, nullptr, TAVRIX_METHOD_STRICT),
    TAVRIX_METHOD("t.Required", misread, "", required, nullptr, 0),
    TAVRIX_METHOD(
        "t.None", [](tavrix_call *) { return 0; }, "", nullptr, nullptr, TAVRIX_METHOD_STRICT),
    TAVRIX_METHOD_END,
};

class Params : public testing::Test {
  protected:
    /** The values that the handler saw, or the code and reason of the refusal. */
    std::string show_of(const std::string &params) {
        last_values = "(not called)";
        const std::string answer = stage.ask("t.Show", params);
        if (member(answer, "error") == "(none)") {
            return last_values;
        }
        data = member(member(answer, "error"), "data");
        return code_of(answer) + " " + member(data, "reason");
    }

    LogCapture log{"info"};
    Stage stage{methods};
    std::string data;
};

} // namespace

TEST_F(Params, OfEachKindAreHandedOverChecked) {
    const std::map<std::string, std::string> cases = {
        {R"({"text":"ab"})", "ab/0"},
        {R"({"lines":"a\nb"})", "a\nb/0"},
        {R"({"integer":5000000000})", "5000000000"},
        {R"({"integer":-5})", "-5"},
        {R"({"boolean":true})", "true"},
        {R"({"boolean":false})", "false"},
        {R"({"number":2})", "2.000000"},
        {R"({"from_to":-2})", "-2.000000"},
        {R"({"from_to":-2.0})", "-2.000000"},
        {R"({"from_to":9007199254740993})", "9007199254740992.000000"},
        {R"({"uint64":"0x10"})", "16"},
        {R"({"uint64":"18446744073709551615"})", "18446744073709551615"},
        {R"({"float":"2.5"})", "2.500000"},
        {R"({"colour":"blue"})", "blue/2"},
        {R"({"points":[{"x":1},{"x":2,"mac":"00:11:22:33:44:55"}]})", R"([{"x":1},{"x":2,"mac":"00:11:22:33:44:55"}])"},
        {R"({"bare":["d1","d4"]})", R"(["d1","d4"])"},
        {R"({"object":{"x":1}})", R"({"x":1})"},
        {R"({"json":null})", "null"},
        {R"({"port":"c128-99"})", "c128-99/0"},
        {R"({"any_port":"all"})", "all/0"},
        {R"({"any_port":"c2"})", "c2/0"},
        {R"({"mzu":"c128"})", "c128/0"},
        {R"({"status":"enable"})", "enable/1"},
        {R"({"vlan_mode":"trunk"})", "trunk/3"},
        {R"({"model":"ZQN-E10"})", "ZQN-E10/2"},
        {R"({"secure":"disable"})", "disable/2"},
        {R"({"mac":"aa-bb-cc-00-11-22"})", "AA:BB:CC:00:11:22/0"},
        {R"({"alias":"ab1"})", "AB1/0"},
        {R"({"vlan_id":4092})", "4092"},
        {R"({"vlan_ids":[1,4092]})", "1,4092"},
        {R"({"few":[1,2,3]})", "1,2,3"},
        {R"({"ports":[{"port_number":7,"port_status":1,"poe_status":1,"link_status":1,"link_speed":4,"vlan_mode":1,"vlan_ids":[9]}]})",
         "1 ports, the first 7 in 9"},
        {R"({"hardware":[{"port_number":7,"poe_status":1,"link_status":1,"link_speed":4}]})", "1 ports, the first 7"},
        {R"({"filters":[{"mac":"aa:bb:cc:00:11:22","mask":"ff:ff:ff:00:00:00"}]})",
         "1 filters, the first AA:BB:CC:00:11:22"},
        {R"({"filters":[]})", "0 filters"},
        {"{}", ""},
    };
    for (const auto &[params, values] : cases) {
        EXPECT_EQ(show_of(params), values) << params;
    }
}

TEST_F(Params, AreRefusedInWordsThatSayWhatCameAndWhatIsAllowed) {
    const std::map<std::string, std::string> cases = {
        {R"({"vlan_id":4093})", R"(-32602 "vlan_id: 4093 is not in 1 to 4092")"},
        {R"({"vlan_id":0})", R"(-32602 "vlan_id: 0 is not in 1 to 4092")"},
        {R"({"vlan_id":4294967297})", R"(-32602 "vlan_id: 4294967297 is not in 1 to 4092")"},
        {R"({"vlan_id":"7"})", R"(-32602 "vlan_id: \"7\" is not an integer in 1 to 4092")"},
        {R"({"vlan_id":7.0})", R"(-32602 "vlan_id: 7.0 is not an integer in 1 to 4092")"},
        {R"({"integer":5000000001})", R"(-32602 "integer: 5000000001 is not in -5 to 5000000000")"},
        {R"({"plain":4294967297})", R"(-32602 "plain: 4294967297 is not in -2147483648 to 2147483647")"},
        {R"({"text":"a"})", R"(-32602 "text: \"a\" is not a text of 2 to 5 characters")"},
        {R"({"text":"abcdef"})", R"(-32602 "text: \"abcdef\" is not a text of 2 to 5 characters")"},
        {R"({"text":"ab\n"})", R"(-32602 "text: \"ab\\n\" holds a control character")"},
        {R"({"mac":"00:11:22:33:44:5\u0007"})",
         R"(-32602 "mac: \"00:11:22:33:44:5\\u0007\" holds a control character")"},
        {R"({"boolean":1})", R"(-32602 "boolean: 1 is not true or false")"},
        {R"({"number":"1"})", R"(-32602 "number: \"1\" is not a number")"},
        {R"({"from_to":-3})", R"(-32602 "from_to: -3 is not a number from -2 to 9007199254740993")"},
        {R"({"from_to":-2.5})", R"(-32602 "from_to: -2.5 is not a number from -2 to 9007199254740993")"},
        {R"({"from_to":9007199254740994})",
         R"(-32602 "from_to: 9007199254740994 is not a number from -2 to 9007199254740993")"},
        {R"({"from_to":1e300})", R"(-32602 "from_to: 1e300 is not a number from -2 to 9007199254740993")"},
        {R"({"uint64":"12x"})",
         R"(-32602 "uint64: \"12x\" is not a text with a number of 64 bits, such as \"4711\" or \"0x1267\"")"},
        {R"({"uint64":"-1"})",
         R"(-32602 "uint64: \"-1\" is not a text with a number of 64 bits, such as \"4711\" or \"0x1267\"")"},
        {R"({"float":" 2.5"})", R"(-32602 "float: \" 2.5\" is not a text with a number, such as \"2.5\"")"},
        {R"({"float":"nan"})", R"(-32602 "float: \"nan\" is not a text with a number, such as \"2.5\"")"},
        {R"({"float":"inf"})", R"(-32602 "float: \"inf\" is not a text with a number, such as \"2.5\"")"},
        {R"({"float":"1e300"})", R"(-32602 "float: \"1e300\" is not a text with a number, such as \"2.5\"")"},
        {R"({"float":"fast"})", R"(-32602 "float: \"fast\" is not a text with a number, such as \"2.5\"")"},
        {R"({"colour":"pink"})", R"(-32602 "colour: \"pink\" is not one of red, green, blue")"},
        {R"({"status":"up"})", R"(-32602 "status: \"up\" is not one of enable, disable")"},
        {R"({"vlan_mode":"trans"})", R"(-32602 "vlan_mode: \"trans\" is not one of local, access, trunk")"},
        {R"({"secure":"Enable"})", R"(-32602 "secure: \"Enable\" is not one of current, enable, disable")"},
        {R"({"points":[]})", R"(-32602 "points: [] is not an array of 1 to 2 elements")"},
        {R"({"points":[7]})", R"(-32602 "points: [7] holds an element that is no object")"},
        {R"({"points":[{"x":1},{}]})", R"(-32602 "points[1].x is missing: -2147483648 to 2147483647")"},
        {R"({"points":[{"x":1,"mac":"no"}]})",
         R"(-32602 "points[0].mac: \"no\" is not a MAC address, such as 00:1A:2B:3C:4D:5E")"},
        {R"({"bare":["d1","d9"]})", R"(-32031 "bare[1]: \"d9\" is not a port d1 to d4")"},
        {R"({"object":{"x":"1"}})", R"(-32602 "object.x: \"1\" is not an integer in -2147483648 to 2147483647")"},
        {R"({"object":[]})", R"(-32602 "object: [] is not an object")"},
        {R"({"port":"c2-100"})", R"(-32602 "port: \"c2-100\" is not a port c1-1 to c128-99, a port d1 to d4")"},
        {R"({"c_port":"d1"})", R"(-32032 "c_port: \"d1\" is not a port c1-1 to c128-99")"},
        {R"({"d_port":"c1-1"})", R"(-32031 "d_port: \"c1-1\" is not a port d1 to d4")"},
        {R"({"any_port":"x"})",
         R"(-32024 "any_port: \"x\" is not a port c1-1 to c128-99, a port d1 to d4, a unit c1 to c128, all")"},
        {R"({"alias":"ninechars"})", R"(-32602 "alias: \"ninechars\" is not a text of up to 8 characters")"},
        {R"({"password":"abc"})", R"(-32602 "password: is not a password: 4 to 15 letters, digits, and ! ? _ @ -")"},
        {R"({"vlan_ids":[]})",
         R"(-32602 "vlan_ids: [] is not an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {R"({"vlan_ids":7})",
         R"(-32602 "vlan_ids: 7 is not an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {R"({"vlan_ids":[4294967297]})",
         R"(-32602 "vlan_ids: [4294967297] is not an array of up to 32 VLAN ids, each 1 to 4092, at least 1")"},
        {R"({"few":[1]})", R"(-32602 "few: [1] is not an array of up to 3 VLAN ids, each 1 to 4092, at least 2")"},
        {R"({"few":[1,2,3,4]})",
         R"(-32602 "few: [1,2,3,4] is not an array of up to 3 VLAN ids, each 1 to 4092, at least 2")"},
        {R"({"hardware":[]})",
         R"(-32602 "hardware: [] is not an array of ports: port_number 1 to 128, poe_status, link_status, link_speed, at least 1, at most 128")"},
        {R"({"filters":[{"mac":"00:11:22:33:44:55"}]})",
         R"(-32602 "filters: [{\"mac\":\"00:11:22:33:44:55\"}] is not an array of filters: mac and mask, two MAC addresses each, at most 2")"},
        {R"({"filters":[1,2,3]})",
         R"(-32602 "filters: [1,2,3] is not an array of filters: mac and mask, two MAC addresses each, at most 2")"},
        {R"({"unknown":1})", R"(-32602 "unknown: t.Show has no such parameter")"},
        {R"({"object":{"x":1,"more":2}})", R"(-32602 "object.more: t.Show has no such parameter")"},
        {R"({"points":[{"x":1},{"x":1,"y":2}]})", R"(-32602 "points[1].y: t.Show has no such parameter")"},
        {R"({"points":[{"x":1,"inner":{"y":1,"z":2}}]})",
         R"(-32602 "points[0].inner.z: t.Show has no such parameter")"},
    };
    for (const auto &[params, refusal] : cases) {
        EXPECT_EQ(show_of(params), refusal) << params;
        EXPECT_EQ(last_values, "(not called)") << params;
    }
}

TEST_F(Params, RefusedCarryTheLibrarysMessageBesideTheKitsReason) {
    show_of(R"({"vlan_id":"7"})");
    EXPECT_EQ(data, R"({"message":"Parameter 'vlan_id' is not of type 'integer'.",)"
                    R"("reason":"vlan_id: \"7\" is not an integer in 1 to 4092","parameter":"vlan_id",)"
                    R"("allowed":"1 to 4092","value":"7"})");
    show_of(R"({"alias":"ninechars"})");
    EXPECT_EQ(member(data, "message"), R"("Alias must be 8 characters or fewer.")");
    show_of(R"({"password":"abc"})");
    EXPECT_EQ(data.find("abc"), std::string::npos) << data;
}

TEST_F(Params, ThatAreMissingAreNamedInTheTablesOrder) {
    const std::string error = member(stage.ask("t.Required", "{}"), "error");
    EXPECT_EQ(member(error, "code"), "-32602");
    EXPECT_EQ(member(member(error, "data"), "message"), R"("Missing expected parameter: 'port_id'")");
    EXPECT_EQ(member(member(error, "data"), "reason"),
              R"("port_id is missing: a port c1-1 to c128-99, a port d1 to d4")");
    stage.router.say(R"({"jsonrpc":"2.0","method":"t.Required","id":"c"})");
    EXPECT_EQ(code_of(stage.next()), "-32602") << "no params at all";
}

TEST_F(Params, WithoutARowAreIgnoredUnlessTheTableIsStrict) {
    EXPECT_EQ(member(stage.ask("t.Required", R"({"port_id":"d1","vlan_id":1,"more":1})"), "result"), "0");
    EXPECT_EQ(code_of(stage.ask("t.None", R"({"more":1})")), "-32602");
}

TEST_F(Params, ReadAsAnotherKindAreAbsentAndTold) {
    stage.ask("t.Required", R"({"port_id":"d1","vlan_id":1})");
    EXPECT_NE(log.text().find("reads its parameter vlan_id as another kind"), std::string::npos);
    EXPECT_NE(log.text().find("reads a parameter nothing that has no row"), std::string::npos);
}

TEST_F(Params, OfAnySizeLeaveNothingBehind) {
    const std::string large(30000, 'x');
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(show_of("{\"lines\":\"" + large + "\"}"), large + "/0");
    }
}

// --- Every kind ----------------------------------------------------------------------------------------------------

namespace {

std::string read_text(const tavrix_call *call) { return tavrix_call_text(call, "value"); }
std::string read_word(const tavrix_call *call) {
    return read_text(call) + "/" + std::to_string(tavrix_call_word(call, "value"));
}
std::string read_integer(const tavrix_call *call) { return std::to_string(tavrix_call_integer(call, "value")); }
std::string read_uint64(const tavrix_call *call) { return std::to_string(tavrix_call_uint64(call, "value")); }
std::string read_real(const tavrix_call *call) { return std::to_string(tavrix_call_real(call, "value")); }
std::string read_boolean(const tavrix_call *call) { return tavrix_call_boolean(call, "value") ? "true" : "false"; }
std::string read_json(const tavrix_call *call) { return support::rendered(tavrix_call_json(call, "value")); }
std::string read_integers(const tavrix_call *call) { return integers(call, "value"); }
std::string read_ports(const tavrix_call *call) {
    int count = 0;
    const tavrix_port_input *ports = tavrix_call_ports(call, "value", &count);
    std::string text = std::to_string(count);
    for (int i = 0; ports != nullptr && i < count; ++i) {
        const tavrix_port_input &port = ports[i];
        for (const int n : {port.port_number, port.port_status, port.poe_status, port.link_status, port.link_speed,
                            port.vlan_mode, port.vlan_count, port.vlan_ids[0]}) {
            text += " " + std::to_string(n);
        }
    }
    return text;
}
std::string read_hardware(const tavrix_call *call) {
    int count = 0;
    const tavrix_port_hardware_input *ports = tavrix_call_ports_hardware(call, "value", &count);
    std::string text = std::to_string(count);
    for (int i = 0; ports != nullptr && i < count; ++i) {
        const tavrix_port_hardware_input &port = ports[i];
        for (const int n : {port.port_number, port.poe_status, port.link_status, port.link_speed}) {
            text += " " + std::to_string(n);
        }
    }
    return text;
}
std::string read_filters(const tavrix_call *call) {
    int count = 0;
    const tavrix_mac_filter *filters = tavrix_call_mac_filters(call, "value", &count);
    std::string text = std::to_string(count);
    for (int i = 0; filters != nullptr && i < count; ++i) {
        text += std::string(" ") + filters[i].mac + " " + filters[i].mask;
    }
    return text;
}

/** A value as it comes, in JSON, and what the getter hands over. */
struct Taken {
    std::string json;
    std::string value;
};

/** A value as it comes, in JSON, and the error's code. Without a value the parameter is missing. */
struct Refused {
    std::string json;
    const char *code = "-32602";
};

struct KindCase {
    tavrix_service_param row;
    std::string (*read)(const tavrix_call *call);
    std::vector<Taken> taken;
    std::vector<Refused> refused;
};

constexpr tavrix_service_param of_kind(tavrix_kind kind, unsigned flags = 0) {
    return TAVRIX_PARAM("value", kind, "", flags);
}

/** A text of this many letters, in JSON. */
std::string letters(size_t count) { return "\"" + std::string(count, 'x') + "\""; }

/** An array of this many times the element. */
std::string array_of(size_t count, const std::string &element) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += (i > 0 ? "," : "") + element;
    }
    return "[" + text + "]";
}

std::vector<KindCase> plain_kinds() {
    return {
        {TAVRIX_PARAM_RANGE("value", TAVRIX_KIND_TEXT, "", 0, 2, 5),
         read_text,
         {{R"("ab")", "ab"}, {R"("abcde")", "abcde"}},
         {{R"("a")"}, {R"("abcdef")"}, {R"("a\tb")"}, {"7"}, {""}}},
        {TAVRIX_PARAM_RANGE("value", TAVRIX_KIND_INTEGER, "", 0, -5, 9),
         read_integer,
         {{"-5", "-5"}, {"9", "9"}},
         {{"-6"}, {"10"}, {"1.0"}, {R"("1")"}, {""}}},
        {of_kind(TAVRIX_KIND_BOOLEAN), read_boolean, {{"true", "true"}, {"false", "false"}}, {{"1"}, {R"("true")"}}},
        {TAVRIX_PARAM_RANGE("value", TAVRIX_KIND_NUMBER, "", 0, -2, 3),
         read_real,
         {{"-2", "-2.000000"}, {"2.5", "2.500000"}},
         {{"3.5"}, {"-3"}, {R"("1")"}, {""}}},
        {of_kind(TAVRIX_KIND_UINT64),
         read_uint64,
         {{R"("4711")", "4711"}, {R"("0x1267")", "4711"}, {R"("011147")", "4711"}},
         {{"4711"}, {R"("-1")"}, {R"("18446744073709551616")"}, {R"("")"}}},
        {of_kind(TAVRIX_KIND_FLOAT),
         read_real,
         {{R"("2.5")", "2.500000"}, {R"("-1")", "-1.000000"}},
         {{"2.5"}, {R"("2,5")"}, {R"("")"}}},
        {TAVRIX_PARAM_WORDS("value", colours, "", 0),
         read_word,
         {{R"("red")", "red/0"}, {R"("blue")", "blue/2"}},
         {{R"("Red")"}, {R"("")"}, {"0"}}},
        {TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_ARRAY, "", 0, 1, 2, bare_port),
         read_json,
         {{R"(["d1","d4"])", R"(["d1","d4"])"}},
         {{"[]"}, {R"(["d1","d2","d3"])"}, {R"("d1")"}, {""}}},
        {TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_OBJECT, "", 0, 0, 0, inner),
         read_json,
         {{R"({"y":1})", R"({"y":1})"}},
         {{"[]"}, {R"("y")"}, {"null"}, {""}}},
        // Everything is a value; only none is refused.
        {of_kind(TAVRIX_KIND_JSON), read_json, {{"null", "null"}, {"[1]", "[1]"}, {R"("x")", R"("x")"}}, {{""}}},
    };
}

std::vector<KindCase> text_kinds() {
    return {
        {of_kind(TAVRIX_KIND_PORT_ID, TAVRIX_ANY_PORT),
         read_text,
         {{R"("c128-99")", "c128-99"}, {R"("D4")", "D4"}},
         {{R"("c129-1")"}, {R"("d5")"}, {R"("c2")"}, {R"("all")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_MZU_ID),
         read_text,
         {{R"("c1")", "c1"}, {R"("C128")", "C128"}},
         {{R"("c129")"}, {R"("c2-3")"}, {R"("all")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_STATUS),
         read_word,
         {{R"("disable")", "disable/0"}, {R"("enable")", "enable/1"}},
         {{R"("Enable")"}, {R"("up")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_DESCRIPTION),
         read_text,
         {{R"("")", ""}, {letters(50), std::string(50, 'x')}},
         {{letters(51)}, {R"("a \" b")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_VLAN_MODE),
         read_word,
         {{R"("local")", "local/1"}, {R"("access")", "access/2"}, {R"("trunk")", "trunk/3"}},
         {{R"("trans")"}, {R"("unknown")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_MZU_MODEL),
         read_word,
         {{R"("unknown")", "unknown/0"}, {R"("Generic MZU")", "Generic MZU/7"}, {R"("ZQN-E17")", "ZQN-E17/10"}},
         {{R"("ZQN-E18")"}, {R"("zqn-e09")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_MZU_SW_UPGRADE_FILENAME),
         read_text,
         {{R"("mzu 2.img")", "mzu 2.img"}, {R"("")", ""}},
         {{R"("two\nlines")"}, {"1"}, {"null"}}},
        {of_kind(TAVRIX_KIND_UNIT_SW_UPGRADE_FILENAME),
         read_text,
         {{R"("zqn-1.2.3-004.img")", "zqn-1.2.3-004.img"}, {R"("/a/zqn_4.5.6-789")", "/a/zqn_4.5.6-789"}},
         {{R"("ZQN-1.2.3-004.img")"}, {R"("zqn-1.2.3-04.img")"}, {R"("1.2.3-004.img")"}, {R"("")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_UNIT_SW_BANK),
         read_word,
         {{R"("all")", "all/0"}, {R"("current")", "current/1"}, {R"("default")", "default/3"}},
         {{R"("next")"}, {R"("All")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_MAC_ADDRESS),
         read_text,
         {{R"("aa-bb-CC-00-11-22")", "AA:BB:CC:00:11:22"}, {R"("AA:BB:CC:00:11:22")", "AA:BB:CC:00:11:22"}},
         {{R"("aa:bb:cc:00:11:2g")"}, {R"("aa:bb:cc-00-11-22")"}, {R"("none")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_MACADDR_ALLOWED),
         read_text,
         {{R"("none")", "none"}, {R"("aa-bb-CC-00-11-22")", "AA:BB:CC:00:11:22"}},
         {{R"("None")"}, {R"("aa:bb:cc:00:11")"}, {R"("")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_IP_ADDRESS),
         read_text,
         {{R"("192.168.1.1")", "192.168.1.1"}, {R"("0.0.0.0")", "0.0.0.0"}},
         {{R"("01.2.3.4")"}, {R"("1.1.1")"}, {R"("256.1.1.1")"}, {R"("::1")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_USERNAME),
         read_text,
         {{R"("operator7")", "operator7"}, {R"("abcd")", "abcd"}},
         {{R"("root")"}, {R"("abc")"}, {letters(16)}, {R"("ab-cd")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_PASSWORD),
         read_text,
         {{R"("aB3!?_@-")", "aB3!?_@-"}},
         {{R"("abc")"}, {letters(16)}, {R"("with blank")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_DATE),
         read_text,
         {{R"("2030-02-28")", "2030-02-28"}, {R"("2000-1-1")", "2000-1-1"}},
         {{R"("1999-12-31")"}, {R"("2030-13-01")"}, {R"("2030-01-32")"}, {R"("28.02.2030")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_TIME),
         read_text,
         {{R"("00:00")", "00:00"}, {R"("23:59")", "23:59"}},
         {{R"("24:00")"}, {R"("7:30")"}, {R"("07:30:00")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_ENTITY_NAME), // any text: the library has no rule for it
         read_text,
         {{R"("c1-1")", "c1-1"}, {R"("anything")", "anything"}, {R"("")", ""}},
         {{R"("a\nb")"}, {"1"}, {"null"}}},
        {of_kind(TAVRIX_KIND_ENTITY_EXTENSION),
         read_text,
         {{R"("")", ""}, {letters(1000), std::string(1000, 'x')}},
         {{letters(1001)}, {R"("a\nb")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_ALIAS),
         read_text,
         {{R"("ab1")", "AB1"}, {R"("")", ""}},
         {{letters(9)}, {R"("a\nb")"}, {"1"}}},
        {of_kind(TAVRIX_KIND_SECURE_OPTION),
         read_word,
         {{R"("current")", "current/0"}, {R"("enable")", "enable/1"}, {R"("disable")", "disable/2"}},
         {{R"("Enable")"}, {R"("on")"}, {"1"}}},
    };
}

KindCase integers_within(tavrix_kind kind, int lowest, int highest) {
    const auto text = [](int n) { return std::to_string(n); };
    return {of_kind(kind),
            read_integer,
            {{text(lowest), text(lowest)}, {text(highest), text(highest)}},
            {{text(lowest - 1)}, {text(highest + 1)}, {"4294967297"}, {R"("1")"}, {"1.0"}}};
}

KindCase any_integers(tavrix_kind kind) {
    return {of_kind(kind),
            read_integer,
            {{"-2147483648", "-2147483648"}, {"2147483647", "2147483647"}},
            {{"-2147483649"}, {"2147483648"}, {R"("1")"}, {"true"}}};
}

std::vector<KindCase> integer_kinds() {
    return {
        integers_within(TAVRIX_KIND_VLAN_ID, 1, 4092),
        integers_within(TAVRIX_KIND_UNIT_ID, 1, 1),
        integers_within(TAVRIX_KIND_PERIODIC_INTERVAL, 1, 3600),
        integers_within(TAVRIX_KIND_LASER_ID, 0, 1),
        integers_within(TAVRIX_KIND_OLT_ID, 0, 1),
        integers_within(TAVRIX_KIND_ONU_ID, -1, 128),
        integers_within(TAVRIX_KIND_PORT_NUMBER, 1, 128),
        any_integers(TAVRIX_KIND_PORT_LINK_SPEED),
        any_integers(TAVRIX_KIND_ENABLE),
    };
}

std::vector<KindCase> list_kinds() {
    const std::string port = R"({"port_number":7,"port_status":1,"poe_status":2,"link_status":3,"link_speed":4,)"
                             R"("vlan_mode":5,"vlan_ids":[9]})";
    const std::string hardware = R"({"port_number":7,"poe_status":2,"link_status":3,"link_speed":4})";
    const std::string filter = R"({"mac":"aa-bb-cc-00-11-22","mask":"ff:ff:ff:00:00:00"})";
    return {
        {of_kind(TAVRIX_KIND_VLAN_IDS),
         read_integers,
         {{"[1,4092]", "1,4092"}, {"[]", ""}},
         {{"[4093]"}, {"[0]"}, {R"(["1"])"}, {"1"}, {array_of(33, "1"), "-32033"}, {""}}},
        {of_kind(TAVRIX_KIND_PORTS),
         read_ports,
         {{"[" + port + "]", "1 7 1 2 3 4 5 1 9"}, {"[]", "0"}},
         {{"[" + hardware + "]"}, {"[1]"}, {"{}"}, {array_of(129, port)}, {""}}},
        {of_kind(TAVRIX_KIND_PORTS_HARDWARE),
         read_hardware,
         {{"[" + hardware + "]", "1 7 2 3 4"}, {"[]", "0"}},
         {{R"([{"port_number":7}])"}, {"[1]"}, {"{}"}, {array_of(129, hardware)}, {""}}},
        {of_kind(TAVRIX_KIND_MAC_FILTERS),
         read_filters,
         {{"[" + filter + "]", "1 AA:BB:CC:00:11:22 FF:FF:FF:00:00:00"}, {"[]", "0"}},
         {{R"([{"mac":"aa-bb-cc-00-11-22"}])"}, {"[1]"}, {"{}"}, {array_of(129, filter)}, {""}}},
    };
}

std::vector<KindCase> kind_cases() {
    std::vector<KindCase> all;
    for (const auto &some : {plain_kinds(), text_kinds(), integer_kinds(), list_kinds()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

/** What the handler of the kind under test reads its parameter with. */
std::string (*read_value)(const tavrix_call *call) = nullptr;

int show_value(tavrix_call *call) {
    last_values = read_value(call);
    return 0;
}

void expect_taken_and_refused(const KindCase &kind) {
    read_value = kind.read;
    const tavrix_service_param row[] = {kind.row, TAVRIX_PARAM_END};
    const tavrix_service_method table[] = {TAVRIX_METHOD("t.One", show_value, "", row, nullptr, 0), TAVRIX_METHOD_END};
    Stage stage(table);
    for (const Taken &taken : kind.taken) {
        last_values = "(not called)";
        const std::string answer = stage.ask("t.One", "{\"value\":" + taken.json + "}");
        EXPECT_EQ(last_values, taken.value) << taken.json << ": " << answer;
    }
    for (const Refused &refused : kind.refused) {
        last_values = "(not called)";
        const std::string answer = stage.ask("t.One", refused.json.empty() ? "{}" : "{\"value\":" + refused.json + "}");
        const std::string data = member(member(answer, "error"), "data");
        EXPECT_EQ(last_values, "(not called)") << refused.json;
        EXPECT_EQ(code_of(answer), refused.code) << refused.json << ": " << answer;
        EXPECT_EQ(member(data, "parameter"), "\"value\"") << refused.json << ": " << answer;
        EXPECT_GT(member(data, "allowed").size(), std::string("\"\"").size()) << refused.json << ": " << answer;
        EXPECT_EQ(member(data, "allowed").front(), '"') << refused.json << ": " << answer;
    }
}

} // namespace

TEST(Kinds, HandOverWhatTheyTakeAndRefuseTheRest) {
    const LogCapture log("info");
    for (const KindCase &kind : kind_cases()) {
        SCOPED_TRACE("kind " + std::to_string(kind.row.kind));
        expect_taken_and_refused(kind);
    }
}

TEST(Kinds, AreAllTried) {
    std::map<int, int> times;
    for (const KindCase &kind : kind_cases()) {
        ++times[kind.row.kind];
        EXPECT_GE(kind.taken.size(), 1U) << kind.row.kind;
        // Any JSON is a value, so that kind can only be missed.
        EXPECT_GE(kind.refused.size(), kind.row.kind == TAVRIX_KIND_JSON ? 1U : 2U) << kind.row.kind;
    }
    for (int kind = TAVRIX_KIND_NONE + 1; kind < TAVRIX_KIND_COUNT; ++kind) {
        EXPECT_EQ(times[kind], 1) << "rows of the kind " << kind;
    }
}

TEST(Rows, AreCheckedInTheTablesOrderWhateverTheRequests) {
    const LogCapture log("info");
    const tavrix_service_param unsorted[] = {
        TAVRIX_PARAM("middle", TAVRIX_KIND_IP_ADDRESS, "", 0),
        TAVRIX_PARAM("zone", TAVRIX_KIND_VLAN_ID, "", 0),
        TAVRIX_PARAM("alpha", TAVRIX_KIND_STATUS, "", 0),
        TAVRIX_PARAM_END,
    };
    const tavrix_service_method table[] = {TAVRIX_METHOD(
                                               "t.Rows", [](tavrix_call *) { return 0; }, "", unsorted, nullptr, 0),
                                           TAVRIX_METHOD_END};
    Stage stage(table);
    const auto refused = [&](const std::string &params) {
        return member(member(member(stage.ask("t.Rows", params), "error"), "data"), "parameter");
    };
    EXPECT_EQ(refused(R"({"middle":"192.168.1.1","zone":0,"alpha":"up"})"), "\"zone\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":0,"middle":"192.168.1.1"})"), "\"zone\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":7,"middle":"1.1.1"})"), "\"middle\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":0,"middle":"1.1.1"})"), "\"middle\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":7,"middle":"192.168.1.1"})"), "\"alpha\"");
    EXPECT_EQ(refused(R"({"alpha":"up","middle":"192.168.1.1"})"), "\"zone\"") << "a missing one is no later";
}

// --- The kinds' bounds are the library's ---------------------------------------------------------------------------

namespace {

struct IntegerKind {
    tavrix_kind kind;
    int (*retrieve)(json_t *, json_t **, const char *, int *);
};

} // namespace

TEST(Kinds, RefuseTheIntegersThatTheLibraryRefusesAndNoOthers) {
    const LogCapture log("info");
    const IntegerKind kinds[] = {
        {TAVRIX_KIND_VLAN_ID, tavrix_jrpc_utils_retrieve_input_vlan_id},
        {TAVRIX_KIND_UNIT_ID, tavrix_jrpc_utils_retrieve_input_unit_id},
        {TAVRIX_KIND_PERIODIC_INTERVAL, tavrix_jrpc_utils_retrieve_input_periodic_interval},
        {TAVRIX_KIND_LASER_ID, tavrix_jrpc_utils_retrieve_input_laser_id},
        {TAVRIX_KIND_OLT_ID, tavrix_jrpc_utils_retrieve_input_olt_id},
        {TAVRIX_KIND_ONU_ID, tavrix_jrpc_utils_retrieve_input_onu_id},
        {TAVRIX_KIND_PORT_NUMBER, tavrix_jrpc_utils_retrieve_input_port_number},
        {TAVRIX_KIND_PORT_LINK_SPEED, tavrix_jrpc_utils_retrieve_input_port_link_speed},
        {TAVRIX_KIND_ENABLE, tavrix_jrpc_utils_retrieve_input_enable},
    };
    for (const IntegerKind &kind : kinds) {
        const tavrix_service_param row[] = {TAVRIX_PARAM("n", kind.kind, "", 0), TAVRIX_PARAM_END};
        const tavrix_service_method table[] = {TAVRIX_METHOD(
                                                   "t.One", [](tavrix_call *) { return 0; }, "", row, nullptr, 0),
                                               TAVRIX_METHOD_END};
        Stage stage(table);
        for (const int n : {-2, -1, 0, 1, 2, 128, 129, 3600, 3601, 4092, 4093}) {
            json_t *params = json_pack("{s:i}", "n", n);
            int out = 0;
            const bool accepted = kind.retrieve(params, nullptr, "n", &out) == TAVRIX_OK;
            json_decref(params);
            const std::string answer = stage.ask("t.One", "{\"n\":" + std::to_string(n) + "}");
            EXPECT_EQ(member(answer, "result") == "0", accepted) << kind.kind << " " << n << " " << answer;
        }
    }
}

namespace {

/** Why a service with these rows cannot be opened; empty when it can. */
std::string refusal_of(const tavrix_service_param *params, const tavrix_service_param *result = nullptr) {
    const LogCapture log("info");
    const tavrix_service_method table[] = {TAVRIX_METHOD(
                                               "t.One", [](tavrix_call *) { return 0; }, "", params, result, 0),
                                           TAVRIX_METHOD_END};
    tavrix_service_options options = {};
    options.name = "tester";
    options.methods = table;
    tavrix_service *service = nullptr;
    const int rc = tavrix_service_open(&options, &service);
    tavrix_service_close(service);
    EXPECT_EQ(rc == TAVRIX_OK, log.text().empty()) << log.text();
    if (rc == TAVRIX_OK) {
        return "";
    }
    EXPECT_EQ(rc, TAVRIX_ERR_PARAMETER);
    const size_t begin = log.text().find("Method t.One: ");
    return begin == std::string::npos ? log.text() : log.text().substr(begin + 14, log.text().find('\n') - begin - 14);
}

/** Rows that hold `rows` in an object, or in an array. */
struct Holder {
    Holder(const char *name, tavrix_kind kind, const tavrix_service_param *held)
        : row{TAVRIX_PARAM_MEMBERS(name, kind, "", TAVRIX_OPTIONAL, 0, 0, held), TAVRIX_PARAM_END} {}
    tavrix_service_param row[2];
};

} // namespace

TEST(Rows, ThatCannotBeServedAreRefusedWhenTheServiceOpens) {
    const struct {
        tavrix_service_param row;
        const char *error;
    } rows_and_errors[] = {
        {TAVRIX_PARAM("a", TAVRIX_KIND_NONE, "", 0), "is of no kind"},
        {TAVRIX_PARAM("a", TAVRIX_KIND_COUNT, "", 0), "is of no kind"},
        {TAVRIX_PARAM("a", TAVRIX_KIND_WORD, "", 0), "is a word without words"},
        {TAVRIX_PARAM("a", TAVRIX_KIND_PORT_ID, "", 0), "is a port without a form that is allowed"},
        {TAVRIX_PARAM_MEMBERS("a", TAVRIX_KIND_JSON, "", 0, 0, 0, point),
         "has members, and is neither an object nor an array"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_INTEGER, "", 0, 5, 4), "has bounds in the wrong order"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_NUMBER, "", 0, 1, 0), "has bounds in the wrong order"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_TEXT, "", 0, 1, 0), "has bounds in the wrong order"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_VLAN_IDS, "", 0, 33, 0), "has bounds in the wrong order"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_PORTS, "", 0, 3, 2), "has bounds in the wrong order"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_VLAN_IDS, "", 0, 0, 33), "has bounds beyond those of its kind"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_VLAN_ID, "", 0, 1, 4093), "has bounds beyond those of its kind"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_ONU_ID, "", 0, -2, 5), "has bounds beyond those of its kind"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_ARRAY, "", 0, -1, 5), "has bounds beyond those of its kind"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_MAC_FILTERS, "", 0, 0, -5), "has bounds beyond those of its kind"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_BOOLEAN, "", 0, 0, 1), "has bounds, and its kind takes none"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_UINT64, "", 0, 0, 1), "has bounds, and its kind takes none"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_FLOAT, "", 0, 0, 1), "has bounds, and its kind takes none"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_OBJECT, "", 0, 0, 1), "has bounds, and its kind takes none"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_JSON, "", 0, 0, 1), "has bounds, and its kind takes none"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_DESCRIPTION, "", 0, 0, 9), "has bounds, and its kind takes none"},
        {TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_STATUS, "", 0, 0, 1), "has bounds, and its kind takes none"},
    };
    for (const auto &[row, error] : rows_and_errors) {
        const tavrix_service_param one[] = {row, TAVRIX_PARAM_END};
        const Holder object("o", TAVRIX_KIND_OBJECT, one);
        const Holder array("list", TAVRIX_KIND_ARRAY, object.row);
        EXPECT_EQ(refusal_of(one), std::string("parameter a ") + error);
        EXPECT_EQ(refusal_of(object.row), std::string("parameter o.a ") + error);
        EXPECT_EQ(refusal_of(array.row), std::string("parameter list[].o.a ") + error);
        EXPECT_EQ(refusal_of(nullptr, object.row), std::string("parameter o.a ") + error) << "of the result";
    }
}

TEST(Rows, WithTheNarrowestAndWidestBoundsAreTaken) {
    const tavrix_service_param taken[] = {
        TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_VLAN_IDS, "", 0, 32, 32),
        TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_VLAN_IDS, "", 0, 32, 0),
        TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_VLAN_ID, "", 0, 1, 4092),
        TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_ONU_ID, "", 0, -1, 128),
        TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_NUMBER, "", 0, INT64_MIN, INT64_MAX),
        TAVRIX_PARAM_RANGE("a", TAVRIX_KIND_PORTS, "", 0, 128, 0),
    };
    for (const tavrix_service_param &row : taken) {
        const tavrix_service_param one[] = {row, TAVRIX_PARAM_END};
        EXPECT_EQ(refusal_of(one), "");
    }
}

TEST(Rows, WithoutANameStandAloneInArraysAndResults) {
    const tavrix_service_param bare[] = {TAVRIX_PARAM("", TAVRIX_KIND_INTEGER, "", 0), TAVRIX_PARAM_END};
    const tavrix_service_param two[] = {bare[0], TAVRIX_PARAM("b", TAVRIX_KIND_INTEGER, "", 0), TAVRIX_PARAM_END};
    EXPECT_EQ(refusal_of(nullptr, bare), "");
    EXPECT_EQ(refusal_of(Holder("list", TAVRIX_KIND_ARRAY, bare).row), "");
    EXPECT_EQ(refusal_of(bare), "parameter  has a row without a name");
    EXPECT_EQ(refusal_of(Holder("list", TAVRIX_KIND_ARRAY, two).row), "parameter list[] has a row without a name");
    EXPECT_EQ(refusal_of(Holder("o", TAVRIX_KIND_OBJECT, bare).row), "parameter o has a row without a name");
    const tavrix_service_param twice[] = {two[1], two[1], TAVRIX_PARAM_END};
    EXPECT_EQ(refusal_of(Holder("o", TAVRIX_KIND_OBJECT, twice).row), "parameter o.b has two rows");
    tavrix_service_param many[TAVRIX_SERVICE_MAX_PARAMS + 2] = {};
    std::vector<std::string> names(TAVRIX_SERVICE_MAX_PARAMS + 1);
    for (size_t i = 0; i < names.size(); ++i) {
        names[i] = "p" + std::to_string(i);
        many[i] = TAVRIX_PARAM(names[i].c_str(), TAVRIX_KIND_INTEGER, "", 0);
    }
    EXPECT_EQ(refusal_of(Holder("o", TAVRIX_KIND_OBJECT, many).row), "more than 32 parameters in o");
    many[TAVRIX_SERVICE_MAX_PARAMS] = TAVRIX_PARAM_END;
    EXPECT_EQ(refusal_of(Holder("o", TAVRIX_KIND_OBJECT, many).row), "");
}

TEST(Rows, ThatHoldThemselvesOrLieTooDeepAreRefused) {
    tavrix_service_param endless[] = {TAVRIX_PARAM("a", TAVRIX_KIND_INTEGER, "", 0),
                                      TAVRIX_PARAM("inner", TAVRIX_KIND_OBJECT, "", TAVRIX_OPTIONAL), TAVRIX_PARAM_END};
    endless[1].members = endless;
    const std::string too_deep = " lies too deep: a table has 8 levels, and does not hold itself";
    EXPECT_EQ(refusal_of(endless), "parameter inner.inner.inner.inner.inner.inner.inner.inner.a" + too_deep);
    tavrix_service_param list[] = {TAVRIX_PARAM("", TAVRIX_KIND_ARRAY, "", 0), TAVRIX_PARAM_END};
    list[0].members = list;
    EXPECT_EQ(refusal_of(nullptr, list), "parameter [][][][][][][][]" + too_deep);
    const tavrix_service_param last[] = {TAVRIX_PARAM("a", TAVRIX_KIND_INTEGER, "", 0), TAVRIX_PARAM_END};
    std::vector<std::unique_ptr<Holder>> holders;
    for (int level = 1; level <= 8; ++level) {
        EXPECT_EQ(refusal_of(holders.empty() ? last : holders.back()->row), "") << level;
        holders.push_back(
            std::make_unique<Holder>("o", TAVRIX_KIND_OBJECT, holders.empty() ? last : holders.back()->row));
    }
    EXPECT_EQ(refusal_of(holders.back()->row), "parameter o.o.o.o.o.o.o.o.a" + too_deep);
}
