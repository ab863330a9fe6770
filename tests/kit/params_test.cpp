#include <list>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

using namespace support;

namespace {

constexpr const char *colours[] = {"red", "green", "blue", nullptr};

const Rows inner = {TAVRIX_PARAM("y", TAVRIX_KIND_INTEGER, "", 0)};
const Rows point = {TAVRIX_PARAM("x", TAVRIX_KIND_INTEGER, "", 0),
                    TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "", TAVRIX_OPTIONAL),
                    TAVRIX_PARAM_MEMBERS("inner", TAVRIX_KIND_OBJECT, "", TAVRIX_OPTIONAL, 0, 0, inner)};
const Rows bare_port = {TAVRIX_PARAM("", TAVRIX_KIND_PORT_ID, "", TAVRIX_ALLOW_D_PORT)};
const Rows within = {TAVRIX_PARAM_MEMBERS("points", TAVRIX_KIND_ARRAY, "", TAVRIX_OPTIONAL, 1, 2, point),
                     TAVRIX_PARAM_MEMBERS("bare", TAVRIX_KIND_ARRAY, "", TAVRIX_OPTIONAL, 0, 0, bare_port),
                     TAVRIX_PARAM_MEMBERS("object", TAVRIX_KIND_OBJECT, "", TAVRIX_OPTIONAL, 0, 0, point)};
const Rows required = {TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "", TAVRIX_ANY_PORT),
                       TAVRIX_PARAM("vlan_id", TAVRIX_KIND_VLAN_ID, "", 0),
                       TAVRIX_PARAM("alias", TAVRIX_KIND_ALIAS, "", TAVRIX_OPTIONAL)};

int misread(tavrix_call *call) {
    EXPECT_EQ(tavrix_call_text(call, "vlan_id"), nullptr);
    EXPECT_EQ(tavrix_call_integer(call, "port_id"), 0);
    EXPECT_EQ(tavrix_call_integer(call, "nothing"), 0);
    return 0;
}

const Methods methods = {{"t.Within", accept, within, nullptr, TAVRIX_METHOD_STRICT},
                         {"t.Required", misread, required},
                         {"t.None", accept, nullptr, nullptr, TAVRIX_METHOD_STRICT}};

class Params : public testing::Test {
  protected:
    LogCapture log{"info"};
    Stage stage{methods};
};

TEST_F(Params, WithinOthersAreRefusedUnderTheirWholePath) {
    const std::map<std::string, std::string> cases = {
        {R"({"points":[{"x":1},{}]})", R"(-32602 "points[1].x is missing: -2147483648 to 2147483647")"},
        {R"({"points":[{"x":1,"mac":"no"}]})",
         R"(-32602 "points[0].mac: \"no\" is not a MAC address, such as 00:1A:2B:3C:4D:5E")"},
        {R"({"bare":["d1","d9"]})", R"(-32031 "bare[1]: \"d9\" is not a port d1 to d4")"},
        {R"({"object":{"x":"1"}})", R"(-32602 "object.x: \"1\" is not an integer in -2147483648 to 2147483647")"},
        {R"({"unknown":1})", R"(-32602 "unknown: t.Within has no such parameter")"},
        {R"({"object":{"x":1,"more":2}})", R"(-32602 "object.more: t.Within has no such parameter")"},
        {R"({"points":[{"x":1},{"x":1,"y":2}]})", R"(-32602 "points[1].y: t.Within has no such parameter")"},
        {R"({"points":[{"x":1,"inner":{"y":1,"z":2}}]})",
         R"(-32602 "points[0].inner.z: t.Within has no such parameter")"},
    };
    for (const auto &[params, refusal] : cases) {
        const std::string answer = stage.ask("t.Within", params);
        EXPECT_EQ(code_of(answer) + " " + member(data_of(answer), "reason"), refusal) << params;
    }
}

TEST_F(Params, RefusedCarryTheLibrarysMessageBesideTheKitsReason) {
    const auto data = [this](const char *vlan_id, const char *more = "") {
        return data_of(stage.ask("t.Required", R"({"port_id":"d1","vlan_id":)" + std::string(vlan_id) + more + "}"));
    };
    EXPECT_EQ(data("\"7\""), R"({"message":"Parameter 'vlan_id' is not of type 'integer'.",)"
                             R"("reason":"vlan_id: \"7\" is not an integer in 1 to 4092","parameter":"vlan_id",)"
                             R"("allowed":"1 to 4092","value":"7"})");
    EXPECT_EQ(member(data("7", R"(,"alias":"ninechars")"), "message"), R"("Alias must be 8 characters or fewer.")");
}

TEST_F(Params, ThatAreMissingAreNamedInTheTablesOrder) {
    const std::string answer = stage.ask("t.Required", "{}");
    EXPECT_EQ(code_of(answer), "-32602");
    EXPECT_EQ(message_of(answer), R"("Missing expected parameter: 'port_id'")");
    EXPECT_EQ(member(data_of(answer), "reason"), R"("port_id is missing: a port c1-1 to c128-99, a port d1 to d4")");
    stage.router.say(R"({"jsonrpc":"2.0","method":"t.Required","id":"c"})");
    EXPECT_EQ(code_of(stage.next()), "-32602") << "no params at all";
}

TEST_F(Params, WithoutARowAreIgnoredUnlessTheTableIsStrict) {
    EXPECT_EQ(stage.result_of("t.Required", R"({"port_id":"d1","vlan_id":1,"more":1})"), "0");
    EXPECT_EQ(stage.code_of("t.None", R"({"more":1})"), "-32602");
}

TEST_F(Params, ReadAsAnotherKindAreAbsentAndTold) {
    stage.ask("t.Required", R"({"port_id":"d1","vlan_id":1})");
    EXPECT_TRUE(log.says("reads its parameter vlan_id as another kind"));
    EXPECT_TRUE(log.says("reads a parameter nothing that has no row"));
}

using Reader = std::string (*)(const tavrix_call *call);

std::string listed(const std::vector<int> &numbers) {
    std::string text;
    for (const int n : numbers) {
        text += (text.empty() ? "" : " ") + std::to_string(n);
    }
    return text;
}

std::string read_text(const tavrix_call *call) { return tavrix_call_text(call, "value"); }
std::string read_word(const tavrix_call *call) {
    return read_text(call) + "/" + std::to_string(tavrix_call_word(call, "value"));
}
std::string read_integer(const tavrix_call *call) { return std::to_string(tavrix_call_integer(call, "value")); }
std::string read_uint64(const tavrix_call *call) { return std::to_string(tavrix_call_uint64(call, "value")); }
std::string read_real(const tavrix_call *call) { return std::to_string(tavrix_call_real(call, "value")); }
std::string read_boolean(const tavrix_call *call) { return tavrix_call_boolean(call, "value") ? "true" : "false"; }
std::string read_json(const tavrix_call *call) { return rendered(tavrix_call_json(call, "value")); }
std::string read_integers(const tavrix_call *call) {
    int count = 0;
    const int *ids = tavrix_call_integers(call, "value", &count);
    return listed({ids, ids + count});
}
std::string read_ports(const tavrix_call *call) {
    int count = 0;
    const tavrix_port_input *port = tavrix_call_ports(call, "value", &count);
    return count != 1 ? std::to_string(count)
                      : listed({port->port_number, port->port_status, port->poe_status, port->link_status,
                                port->link_speed, port->vlan_mode, port->vlan_count, port->vlan_ids[0]});
}
std::string read_hardware(const tavrix_call *call) {
    int count = 0;
    const tavrix_port_hardware_input *port = tavrix_call_ports_hardware(call, "value", &count);
    return count != 1 ? std::to_string(count)
                      : listed({port->port_number, port->poe_status, port->link_status, port->link_speed});
}
std::string read_filters(const tavrix_call *call) {
    int count = 0;
    const tavrix_mac_filter *filters = tavrix_call_mac_filters(call, "value", &count);
    std::string text = std::to_string(count);
    for (int i = 0; i < count; ++i) {
        text += std::string(" ") + filters[i].mac + " " + filters[i].mask;
    }
    return text;
}

/** A value as it comes, and what the getter hands over: the same, unless it is told. */
struct Taken {
    Taken(const char *given) : Taken(std::string(given)) {}
    Taken(const std::string &given) : Taken(given, given) {}
    Taken(std::string given, std::string handed) : json(std::move(given)), value(std::move(handed)) {}

    std::string json;
    std::string value;
};

/** A value as it comes, in JSON; without one the parameter is missing. */
struct Refused {
    Refused(const char *given) : Refused(std::string(given)) {}
    Refused(std::string given, std::string why = {}, std::string how = "-32602")
        : json(std::move(given)), complaint(std::move(why)), code(std::move(how)) {}

    std::string json;
    std::string complaint; ///< other than that it is not what is allowed
    std::string code;
};

struct KindCase {
    tavrix_service_param row;
    std::string allowed; ///< for people; empty: any words
    Reader read;
    std::vector<Taken> taken;
    std::vector<Refused> refused;
};

constexpr tavrix_service_param of_kind(tavrix_kind kind, unsigned flags = 0) {
    return TAVRIX_PARAM("value", kind, "", flags);
}
constexpr tavrix_service_param bounded(tavrix_kind kind, int64_t least, int64_t most) {
    return TAVRIX_PARAM_RANGE("value", kind, "", 0, least, most);
}

std::string quoted(const std::string &text) { return taken(json_string(text.c_str())); }

/** A kind of texts. */
KindCase texts(const tavrix_service_param &row, const std::string &allowed, const std::vector<Taken> &taken,
               const std::vector<std::string> &refused, const std::string &code = "-32602") {
    KindCase kind{row, allowed, read_text, {}, {"", "1", "null"}};
    for (const Taken &text : taken) {
        kind.taken.emplace_back(quoted(text.json), text.value);
    }
    for (const std::string &text : refused) {
        const bool is_broken = text.find_first_of("\n\a") != std::string::npos;
        kind.refused.emplace_back(quoted(text), is_broken ? "holds a control character" : "", code);
    }
    return kind;
}
KindCase texts(tavrix_kind kind, const std::string &allowed, const std::vector<Taken> &taken,
               const std::vector<std::string> &refused) {
    return texts(of_kind(kind), allowed, taken, refused);
}

/** A kind of words; each that is taken has its position behind a slash. */
KindCase words(const tavrix_service_param &row, const std::string &allowed, const std::vector<std::string> &taken,
               const std::vector<std::string> &refused) {
    KindCase kind = texts(row, allowed, {}, refused);
    kind.read = read_word;
    for (const std::string &word : taken) {
        kind.taken.emplace_back(quoted(word.substr(0, word.find('/'))), word);
    }
    return kind;
}

/** A kind of other values, in JSON. */
KindCase values(const tavrix_service_param &row, const std::string &allowed, Reader read, std::vector<Taken> taken,
                std::vector<Refused> refused) {
    refused.emplace_back("");
    return {row, allowed, read, std::move(taken), std::move(refused)};
}

KindCase integers(const tavrix_service_param &row, int64_t lowest, int64_t highest) {
    const auto text = [](int64_t n) { return std::to_string(n); };
    const std::string bounds = text(lowest) + " to " + text(highest);
    KindCase kind = values(row, bounds, read_integer, {text(lowest), text(highest)}, {});
    for (const int64_t beyond :
         {lowest - 1, highest + 1, highest + 4294967296}) { // 32 bits would cut the last to one within
        kind.refused.emplace_back(text(beyond), "is not in " + bounds);
    }
    for (const char *other : {R"("1")", "1.0", "true"}) {
        kind.refused.emplace_back(other, "is not an integer in " + bounds);
    }
    return kind;
}

/** What ends a line or steers a terminal, and what comes close. */
const std::vector<std::string> controls = {"a\nb",      "a\x1b[b",   "a\x7f",         "a\xc2\x80",    "a\xc2\x85",
                                           "a\xc2\x9b", "a\xc2\x9f", "a\xe2\x80\xa8", "a\xe2\x80\xa9"};
const std::vector<Taken> no_controls = {"a\u00a0b", "a\u00c2b", "a\u2027b", "a\u202ab", "a\u20a8b", "a\u3028b"};

std::vector<KindCase> plain_kinds() {
    const std::string points = R"([{"x":1},{"x":2,"mac":"00:11:22:33:44:55"}])";
    KindCase plain_text = texts(TAVRIX_KIND_TEXT, "a text", no_controls, {});
    KindCase lines = texts(of_kind(TAVRIX_KIND_TEXT, TAVRIX_MULTILINE), "a text", {std::string(30000, 'x')}, {});
    for (const std::string &text : controls) {
        plain_text.refused.emplace_back(quoted(text), "holds a control character");
        lines.taken.emplace_back(quoted(text), text);
    }
    return {
        plain_text,
        lines,
        texts(bounded(TAVRIX_KIND_TEXT, 2, 5), "a text of 2 to 5 characters", {"ab", "abcde"}, {"a", "abcdef"}),
        // Characters, as the description's minLength and maxLength count them, not bytes.
        texts(bounded(TAVRIX_KIND_TEXT, 1, 3), "a text of 1 to 3 characters", {"äöü", "€𝄞"}, {"äöüß", ""}),
        integers(bounded(TAVRIX_KIND_INTEGER, -5, 5000000000), -5, 5000000000),
        integers(of_kind(TAVRIX_KIND_INTEGER), INT32_MIN, INT32_MAX),
        values(of_kind(TAVRIX_KIND_BOOLEAN), "true or false", read_boolean, {"true", "false"}, {"1", R"("true")"}),
        values(of_kind(TAVRIX_KIND_NUMBER), "a number", read_real, {{"2", "2.000000"}, {"2.5", "2.500000"}},
               {R"("1")"}),
        values(bounded(TAVRIX_KIND_NUMBER, -2, 9007199254740993), "a number from -2 to 9007199254740993", read_real,
               {{"-2", "-2.000000"}, {"-2.0", "-2.000000"}, {"9007199254740993", "9007199254740992.000000"}},
               {"-3", "-2.5", "9007199254740994", "1e300", R"("1")"}),
        // Shown in no more digits than they need.
        values(bounded(TAVRIX_KIND_NUMBER, 5, 6), "a number from 5 to 6", read_real, {{"5.5", "5.500000"}},
               {"4.9999", "0.1", "-2.5", "7.0", "4.9999000000000011", "1e100"}),
        values(of_kind(TAVRIX_KIND_UINT64), "a text with a number of 64 bits, such as \"4711\" or \"0x1267\"",
               read_uint64,
               {{R"("4711")", "4711"},
                {R"("0x1267")", "4711"},
                {R"("011147")", "4711"},
                {R"("18446744073709551615")", "18446744073709551615"}},
               {"4711", R"("12x")", R"("-1")", R"("18446744073709551616")", R"("")"}),
        values(of_kind(TAVRIX_KIND_FLOAT), "a text with a number, such as \"2.5\"", read_real,
               {{R"("2.5")", "2.500000"}, {R"("-1")", "-1.000000"}},
               {"2.5", R"("2,5")", R"("")", R"(" 2.5")", R"("nan")", R"("inf")", R"("1e300")", R"("fast")"}),
        words(TAVRIX_PARAM_WORDS("value", colours, "", 0), "one of red, green, blue", {"red/0", "blue/2"},
              {"Red", "", "pink"}),
        values(TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_ARRAY, "", 0, 1, 2, bare_port), "an array of 1 to 2 elements",
               read_json, {R"(["d1","d4"])"}, {"[]", R"(["d1","d2","d3"])", R"("d1")"}),
        values(TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_ARRAY, "", 0, 1, 2, point), "an array of 1 to 2 elements",
               read_json, {points}, {"[]", {"[7]", "holds an element that is not an object"}}),
        values(TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_OBJECT, "", 0, 0, 0, inner), "an object", read_json,
               {R"({"y":1})"}, {"[]", R"("y")", "null"}),
        // Everything is a value; only none is refused.
        values(of_kind(TAVRIX_KIND_JSON), "any value", read_json, {"null", "[1]", R"("x")"}, {}),
    };
}

std::vector<KindCase> text_kinds() {
    const std::string letters(1000, 'x');
    return {
        texts(of_kind(TAVRIX_KIND_PORT_ID, TAVRIX_ANY_PORT), "a port c1-1 to c128-99, a port d1 to d4",
              {"c128-99", "D4"}, {"c129-1", "c2-100", "d5", "c2", "all"}),
        texts(of_kind(TAVRIX_KIND_PORT_ID, TAVRIX_ALLOW_C_PORT), "a port c1-1 to c128-99", {"c1-1"}, {"d1"}, "-32032"),
        texts(of_kind(TAVRIX_KIND_PORT_ID, TAVRIX_ALLOW_D_PORT), "a port d1 to d4", {"d1"}, {"c1-1"}, "-32031"),
        texts(of_kind(TAVRIX_KIND_PORT_ID, TAVRIX_ANY_PORTS),
              "a port c1-1 to c128-99, a port d1 to d4, a unit c1 to c128, all", {"all", "c2"}, {"x"}, "-32024"),
        texts(TAVRIX_KIND_MZU_ID, "", {"c1", "C128"}, {"c129", "c2-3", "all"}),
        words(of_kind(TAVRIX_KIND_STATUS), "one of enable, disable", {"disable/0", "enable/1"}, {"Enable", "up"}),
        texts(TAVRIX_KIND_DESCRIPTION, "", {"", letters.substr(0, 50)}, {letters.substr(0, 51), "a \" b"}),
        words(of_kind(TAVRIX_KIND_VLAN_MODE), "one of local, access, trunk", {"local/1", "access/2", "trunk/3"},
              {"trans", "unknown"}),
        words(of_kind(TAVRIX_KIND_MZU_MODEL), "", {"unknown/0", "ZQN-E10/2", "Generic MZU/7", "ZQN-E17/10"},
              {"ZQN-E18", "zqn-e09"}),
        texts(TAVRIX_KIND_MZU_SW_UPGRADE_FILENAME, "", {"mzu 2.img", ""}, {"two\nlines"}),
        texts(TAVRIX_KIND_UNIT_SW_UPGRADE_FILENAME, "", {"zqn-1.2.3-004.img", "/a/zqn_4.5.6-789"},
              {"ZQN-1.2.3-004.img", "zqn-1.2.3-04.img", "1.2.3-004.img", ""}),
        words(of_kind(TAVRIX_KIND_UNIT_SW_BANK), "", {"all/0", "current/1", "default/3"}, {"next", "All"}),
        texts(TAVRIX_KIND_MAC_ADDRESS, "a MAC address, such as 00:1A:2B:3C:4D:5E",
              {{"aa-bb-CC-00-11-22", "AA:BB:CC:00:11:22"}, "AA:BB:CC:00:11:22"},
              {"aa:bb:cc:00:11:2g", "aa:bb:cc-00-11-22", "none", "00:11:22:33:44:5\a"}),
        texts(TAVRIX_KIND_MACADDR_ALLOWED, "", {"none", {"aa-bb-CC-00-11-22", "AA:BB:CC:00:11:22"}},
              {"None", "aa:bb:cc:00:11", ""}),
        texts(TAVRIX_KIND_IP_ADDRESS, "", {"192.168.1.1", "0.0.0.0"}, {"01.2.3.4", "1.1.1", "256.1.1.1", "::1"}),
        texts(TAVRIX_KIND_USERNAME, "", {"operator7", "abcd"}, {"root", "abc", letters.substr(0, 16), "ab-cd"}),
        texts(TAVRIX_KIND_PASSWORD, "a password: 4 to 15 letters, digits, and ! ? _ @ -", {"aB3!?_@-"},
              {"abc", letters.substr(0, 16), "with blank"}),
        texts(TAVRIX_KIND_DATE, "", {"2030-02-28", "2000-1-1"},
              {"1999-12-31", "2030-13-01", "2030-01-32", "28.02.2030"}),
        texts(TAVRIX_KIND_TIME, "", {"00:00", "23:59"}, {"24:00", "7:30", "07:30:00"}),
        // Any text: the library has no rule for it.
        texts(TAVRIX_KIND_ENTITY_NAME, "", {"c1-1", "anything", ""}, {"a\nb"}),
        texts(TAVRIX_KIND_ENTITY_EXTENSION, "", {"", letters}, {letters + "x", "a\nb"}),
        texts(TAVRIX_KIND_ALIAS, "a text of up to 8 characters", {{"ab1", "AB1"}, ""}, {"ninechars", "a\nb"}),
        words(of_kind(TAVRIX_KIND_SECURE_OPTION), "one of current, enable, disable",
              {"current/0", "enable/1", "disable/2"}, {"Enable", "on"}),
    };
}

/** With the bounds of the library's own retrievers. */
std::vector<KindCase> integer_kinds() {
    return {
        integers(of_kind(TAVRIX_KIND_VLAN_ID), 1, 4092),
        integers(of_kind(TAVRIX_KIND_UNIT_ID), 1, 1),
        integers(of_kind(TAVRIX_KIND_PERIODIC_INTERVAL), 1, 3600),
        integers(of_kind(TAVRIX_KIND_LASER_ID), 0, 1),
        integers(of_kind(TAVRIX_KIND_OLT_ID), 0, 1),
        integers(of_kind(TAVRIX_KIND_ONU_ID), -1, 128),
        integers(of_kind(TAVRIX_KIND_PORT_NUMBER), 1, 128),
        integers(of_kind(TAVRIX_KIND_PORT_LINK_SPEED), INT32_MIN, INT32_MAX),
        integers(of_kind(TAVRIX_KIND_ENABLE), INT32_MIN, INT32_MAX),
    };
}

std::vector<KindCase> list_kinds() {
    const std::string port = R"({"port_number":7,"port_status":1,"poe_status":2,"link_status":3,"link_speed":4,)"
                             R"("vlan_mode":5,"vlan_ids":[9]})";
    const std::string hardware = R"({"port_number":7,"poe_status":2,"link_status":3,"link_speed":4})";
    const std::string filter = R"({"mac":"aa-bb-cc-00-11-22","mask":"ff:ff:ff:00:00:00"})";
    const std::string filtered = " AA:BB:CC:00:11:22 FF:FF:FF:00:00:00";
    return {
        values(of_kind(TAVRIX_KIND_VLAN_IDS), "an array of up to 32 VLAN ids, each 1 to 4092", read_integers,
               {{"[1,4092]", "1 4092"}, {"[]", ""}},
               {"[4093]", "[0]", R"(["1"])", "1", "[4294967297]", {array_of(33, "1"), "", "-32033"}}),
        values(bounded(TAVRIX_KIND_VLAN_IDS, 1, 0), "an array of up to 32 VLAN ids, each 1 to 4092, at least 1",
               read_integers, {{"[1]", "1"}}, {"[]"}),
        values(bounded(TAVRIX_KIND_VLAN_IDS, 2, 3), "an array of up to 3 VLAN ids, each 1 to 4092, at least 2",
               read_integers, {{"[1,2]", "1 2"}, {"[1,2,3]", "1 2 3"}}, {"[1]", "[1,2,3,4]"}),
        values(of_kind(TAVRIX_KIND_PORTS), "", read_ports, {{"[" + port + "]", "7 1 2 3 4 5 1 9"}, {"[]", "0"}},
               {"[" + hardware + "]", "[1]", "{}", array_of(129, port)}),
        values(of_kind(TAVRIX_KIND_PORTS_HARDWARE), "", read_hardware,
               {{"[" + hardware + "]", "7 2 3 4"}, {array_of(128, hardware), "128"}, {"[]", "0"}},
               {R"([{"port_number":7}])", "[1]", "{}", array_of(129, hardware)}),
        values(bounded(TAVRIX_KIND_PORTS_HARDWARE, 1, 0),
               "an array of ports: port_number 1 to 128, poe_status, link_status, link_speed, at least 1, at most 128",
               read_hardware, {{"[" + hardware + "]", "7 2 3 4"}}, {"[]"}),
        values(of_kind(TAVRIX_KIND_MAC_FILTERS), "", read_filters, {{"[" + filter + "]", "1" + filtered}, {"[]", "0"}},
               {R"([{"mac":"aa-bb-cc-00-11-22"}])", "[1]", "{}", array_of(129, filter)}),
        values(bounded(TAVRIX_KIND_MAC_FILTERS, 0, 2),
               "an array of filters: mac and mask, two MAC addresses each, at most 2", read_filters,
               {{array_of(2, filter), "2" + filtered + filtered}, {"[]", "0"}}, {"[1,2,3]", array_of(3, filter)}),
    };
}

std::vector<KindCase> kind_cases() {
    std::vector<KindCase> all = plain_kinds();
    for (const auto &some : {text_kinds(), integer_kinds(), list_kinds()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

/** What the handler of the kind under test reads its parameter with, and what it has read. */
Reader read_value = nullptr;
std::string handed_over;

int show_value(tavrix_call *call) {
    handed_over = tavrix_call_has(call, "value") ? read_value(call) : "(absent)";
    return 0;
}

/** The reason of a refusal: it shows what came, but for a password, and no more than 60 bytes of it. */
std::string reason_of(const KindCase &kind, const Refused &refused, const std::string &allowed) {
    if (refused.json.empty()) {
        return "value is missing: " + allowed;
    }
    constexpr size_t most = 60;
    const std::string whole =
        refused.json[0] == '"' ? rendered(parsed(refused.json).get(), JSON_ENSURE_ASCII) : refused.json;
    const std::string shown = whole.substr(0, most) + (whole.size() > most ? "... " : " ");
    return "value: " + (kind.row.kind == TAVRIX_KIND_PASSWORD ? "" : shown) +
           (refused.complaint.empty() ? "is not " + allowed : refused.complaint);
}

void expect_refusal(Stage &stage, const KindCase &kind, const Refused &refused) {
    handed_over = "(not called)";
    const std::string params = refused.json.empty() ? "{}" : "{\"value\":" + refused.json + "}";
    const std::string answer = stage.ask("t.One", params);
    SCOPED_TRACE(params + " is answered " + answer);
    EXPECT_EQ(handed_over, "(not called)");
    const std::string data = data_of(answer);
    const std::string allowed = json_string_value(parsed(member(data, "allowed")).get());
    EXPECT_EQ(code_of(answer), refused.code);
    EXPECT_EQ(member(data, "parameter"), "\"value\"");
    EXPECT_NE(allowed, "");
    EXPECT_TRUE(kind.allowed.empty() || kind.allowed == allowed) << kind.allowed;
    const bool is_shown = !refused.json.empty() && kind.row.kind != TAVRIX_KIND_PASSWORD;
    EXPECT_EQ(member(data, "value") != "(none)", is_shown);
    EXPECT_EQ(member(data, "reason"), quoted(reason_of(kind, refused, allowed)));
}

TEST(Kinds, HandOverWhatTheyTakeAndRefuseTheRest) {
    const LogCapture log("info");
    for (const KindCase &kind : kind_cases()) {
        SCOPED_TRACE("kind " + std::to_string(kind.row.kind));
        read_value = kind.read;
        const Rows row = {kind.row};
        Rows optional = row;
        optional.table[0].flags |= TAVRIX_OPTIONAL;
        const Methods table = {{"t.One", show_value, row}, {"t.None", show_value, optional}};
        Stage stage(table);
        for (const Taken &taken : kind.taken) {
            handed_over = "(not called)";
            const std::string answer = stage.ask("t.One", "{\"value\":" + taken.json + "}");
            EXPECT_EQ(handed_over, taken.value) << taken.json << ": " << answer;
        }
        stage.ask("t.None");
        EXPECT_EQ(handed_over, "(absent)");
        for (const Refused &refused : kind.refused) {
            expect_refusal(stage, kind, refused);
        }
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
        EXPECT_GE(times[kind], 1) << "rows of the kind " << kind;
    }
}

TEST(Rows, AreCheckedInTheTablesOrderWhateverTheRequests) {
    const LogCapture log("info");
    const Rows unsorted = {TAVRIX_PARAM("middle", TAVRIX_KIND_IP_ADDRESS, "", 0),
                           TAVRIX_PARAM("zone", TAVRIX_KIND_VLAN_ID, "", 0),
                           TAVRIX_PARAM("alpha", TAVRIX_KIND_STATUS, "", 0)};
    const Methods rows = {{"t.Rows", accept, unsorted}};
    Stage stage(rows);
    const auto refused = [&](const std::string &params) {
        return member(data_of(stage.ask("t.Rows", params)), "parameter");
    };
    EXPECT_EQ(refused(R"({"middle":"192.168.1.1","zone":0,"alpha":"up"})"), "\"zone\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":0,"middle":"192.168.1.1"})"), "\"zone\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":0,"middle":"1.1.1"})"), "\"middle\"");
    EXPECT_EQ(refused(R"({"alpha":"up","zone":7,"middle":"192.168.1.1"})"), "\"alpha\"");
    EXPECT_EQ(refused(R"({"alpha":"up","middle":"192.168.1.1"})"), "\"zone\"") << "a missing one is no later";
}

/** Why a service with these rows cannot be opened; empty when it can. */
std::string refusal_of(const tavrix_service_param *params, const tavrix_service_param *result = nullptr) {
    const LogCapture log("info");
    const Methods one = {{"t.One", accept, params, result}};
    tavrix_service_options options = {};
    options.name = "tester";
    options.methods = one;
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

/** A row that holds others in an object, or in an array. */
Rows holder(const char *name, tavrix_kind kind, const tavrix_service_param *held) {
    return {TAVRIX_PARAM_MEMBERS(name, kind, "", TAVRIX_OPTIONAL, 0, 0, held)};
}

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
        const Rows one = {row};
        const Rows object = holder("o", TAVRIX_KIND_OBJECT, one);
        EXPECT_EQ(refusal_of(one), std::string("parameter a ") + error);
        EXPECT_EQ(refusal_of(object), std::string("parameter o.a ") + error);
        EXPECT_EQ(refusal_of(holder("list", TAVRIX_KIND_ARRAY, object)), std::string("parameter list[].o.a ") + error);
        EXPECT_EQ(refusal_of(nullptr, object), std::string("parameter o.a ") + error) << "of the result";
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
        EXPECT_EQ(refusal_of(Rows{row}), "");
    }
}

TEST(Rows, WithoutANameStandAloneInArraysAndResults) {
    const Rows bare = {TAVRIX_PARAM("", TAVRIX_KIND_INTEGER, "", 0)};
    const Rows two = {bare[0], TAVRIX_PARAM("b", TAVRIX_KIND_INTEGER, "", 0)};
    EXPECT_EQ(refusal_of(nullptr, bare), "");
    EXPECT_EQ(refusal_of(holder("list", TAVRIX_KIND_ARRAY, bare)), "");
    EXPECT_EQ(refusal_of(bare), "parameter  has a row without a name");
    EXPECT_EQ(refusal_of(holder("list", TAVRIX_KIND_ARRAY, two)), "parameter list[] has a row without a name");
    EXPECT_EQ(refusal_of(holder("o", TAVRIX_KIND_OBJECT, bare)), "parameter o has a row without a name");
    const Rows twice = {two[1], two[1]};
    EXPECT_EQ(refusal_of(holder("o", TAVRIX_KIND_OBJECT, twice)), "parameter o.b has two rows");
    std::vector<std::string> names(TAVRIX_SERVICE_MAX_PARAMS + 1);
    std::vector<tavrix_service_param> many;
    for (size_t i = 0; i < names.size(); ++i) {
        names[i] = "p" + std::to_string(i);
        many.push_back(TAVRIX_PARAM(names[i].c_str(), TAVRIX_KIND_INTEGER, "", 0));
    }
    many.push_back(TAVRIX_PARAM_END);
    EXPECT_EQ(refusal_of(holder("o", TAVRIX_KIND_OBJECT, many.data())), "more than 32 parameters in o");
    many[TAVRIX_SERVICE_MAX_PARAMS] = TAVRIX_PARAM_END;
    EXPECT_EQ(refusal_of(holder("o", TAVRIX_KIND_OBJECT, many.data())), "");
}

TEST(Rows, ThatHoldThemselvesOrLieTooDeepAreRefused) {
    Rows endless = {TAVRIX_PARAM("a", TAVRIX_KIND_INTEGER, "", 0),
                    TAVRIX_PARAM("inner", TAVRIX_KIND_OBJECT, "", TAVRIX_OPTIONAL)};
    endless.table[1].members = endless;
    const std::string too_deep = " lies too deep: a table has 8 levels, and does not hold itself";
    EXPECT_EQ(refusal_of(endless), "parameter inner.inner.inner.inner.inner.inner.inner.inner.a" + too_deep);
    Rows list = {TAVRIX_PARAM("", TAVRIX_KIND_ARRAY, "", 0)};
    list.table[0].members = list;
    EXPECT_EQ(refusal_of(nullptr, list), "parameter [][][][][][][][]" + too_deep);
    std::list<Rows> levels = {{TAVRIX_PARAM("a", TAVRIX_KIND_INTEGER, "", 0)}};
    for (int level = 1; level <= 8; ++level) {
        EXPECT_EQ(refusal_of(levels.back()), "") << level;
        levels.push_back(holder("o", TAVRIX_KIND_OBJECT, levels.back()));
    }
    EXPECT_EQ(refusal_of(levels.back()), "parameter o.o.o.o.o.o.o.o.a" + too_deep);
}

} // namespace
