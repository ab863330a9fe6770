/*
 * What a service says of itself: an OpenRPC document that is made of the rows that the check goes by.
 */
#include <array>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

namespace {

using support::code_of;
using support::Json;
using support::keys_of;
using support::LogCapture;
using support::member;
using support::Stage;

int accept(tavrix_call *call) { return tavrix_call_reply(call, json_integer(0)); }

constexpr const char *colours[] = {"red", "green", nullptr};
const tavrix_service_param point[] = {
    TAVRIX_PARAM("x", TAVRIX_KIND_INTEGER, "across", 0),
    TAVRIX_PARAM("y", TAVRIX_KIND_INTEGER, "down", TAVRIX_OPTIONAL),
    TAVRIX_PARAM_END,
};
const tavrix_service_param bare_port[] = {
    TAVRIX_PARAM("", TAVRIX_KIND_PORT_ID, "", TAVRIX_ALLOW_D_PORT),
    TAVRIX_PARAM_END,
};
const tavrix_service_param set_params[] = {
    TAVRIX_PARAM_RANGE("size", TAVRIX_KIND_INTEGER, "how large", TAVRIX_OPTIONAL, 2, 9),
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "which port", TAVRIX_ALLOW_C_PORT),
    TAVRIX_PARAM_END,
};
const tavrix_service_param set_result[] = {
    TAVRIX_PARAM_WORDS("colour", colours, "what it became", 0),
    TAVRIX_PARAM_MEMBERS("points", TAVRIX_KIND_ARRAY, "where", TAVRIX_OPTIONAL, 0, 0, point),
    TAVRIX_PARAM_END,
};
const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Set", accept, "Sets a thing.", set_params, set_result, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("t.Get", accept, "Gets nothing.", nullptr, nullptr, TAVRIX_METHOD_READS),
    TAVRIX_METHOD_END,
};

std::string shown(const json_t *value) { return support::rendered(value, JSON_SORT_KEYS); }

class Described {
  public:
    explicit Described(const tavrix_service_method *table, tavrix_service_options options = {})
        : stage(table, options), document(support::parsed(stage.router.description)) {}

    const json_t *method(const char *name) const {
        const json_t *list = json_object_get(document.get(), "methods");
        for (size_t i = 0; i < json_array_size(list); ++i) {
            const json_t *entry = json_array_get(list, i);
            if (std::string(json_string_value(json_object_get(entry, "name"))) == name) {
                return entry;
            }
        }
        return nullptr;
    }
    std::string of_method(const char *name, const char *key) const { return shown(json_object_get(method(name), key)); }
    const json_t *schema(const char *name, const char *param) const {
        const json_t *params = json_object_get(method(name), "params");
        for (size_t i = 0; i < json_array_size(params); ++i) {
            const json_t *entry = json_array_get(params, i);
            if (std::string(json_string_value(json_object_get(entry, "name"))) == param) {
                return json_object_get(entry, "schema");
            }
        }
        return nullptr;
    }

    Stage stage;
    Json document;
};

/** A table of one method with one row. */
struct OneRow {
    explicit OneRow(tavrix_service_param row)
        : rows{row, TAVRIX_PARAM_END}, table{TAVRIX_METHOD("t.One", accept, "Takes one.", rows, nullptr, 0),
                                             TAVRIX_METHOD_END} {}
    OneRow(const OneRow &) = delete;
    OneRow &operator=(const OneRow &) = delete;

    tavrix_service_param rows[2];
    tavrix_service_method table[2];
};

/** A table of one method with one row in each of its levels. */
struct DeepTable {
    explicit DeepTable(size_t levels) : rows(levels) {
        for (size_t i = 0; i < levels; ++i) {
            rows[i][0] = TAVRIX_PARAM("l", TAVRIX_KIND_OBJECT, "", 0);
            rows[i][0].members = i + 1 < levels ? rows[i + 1].data() : nullptr;
            rows[i][1] = TAVRIX_PARAM_END;
        }
        table[0] = TAVRIX_METHOD("t.One", accept, "", rows[0].data(), nullptr, 0);
        table[1] = TAVRIX_METHOD_END;
    }

    std::vector<std::array<tavrix_service_param, 2>> rows;
    tavrix_service_method table[2];
};

/** The kind's row with what it cannot do without. */
tavrix_service_param row_of(int kind) {
    tavrix_service_param row = TAVRIX_PARAM("value", static_cast<tavrix_kind>(kind), "a value", 0);
    row.words = kind == TAVRIX_KIND_WORD ? colours : nullptr;
    row.flags = kind == TAVRIX_KIND_PORT_ID ? static_cast<unsigned>(TAVRIX_ANY_PORT) : 0U;
    return row;
}

json_int_t number(const json_t *schema, const char *key) { return json_integer_value(json_object_get(schema, key)); }

} // namespace

// --- The document --------------------------------------------------------------------------------------------------

TEST(Discovery, HasTheMembersOfOpenRpcAndNoOthers) {
    const Described described(methods);
    EXPECT_EQ(keys_of(described.document.get()), (std::set<std::string>{"openrpc", "info", "methods"}));
    EXPECT_EQ(shown(json_object_get(described.document.get(), "openrpc")), "\"1.2.6\"");
    EXPECT_EQ(keys_of(json_object_get(described.document.get(), "info")), (std::set<std::string>{"title", "version"}));
    const json_t *list = json_object_get(described.document.get(), "methods");
    ASSERT_EQ(json_array_size(list), 3U);
    for (size_t i = 0; i < json_array_size(list); ++i) {
        EXPECT_EQ(keys_of(json_array_get(list, i)), (std::set<std::string>{"name", "summary", "tags", "paramStructure",
                                                                           "params", "result", "errors", "examples"}));
    }
}

TEST(Discovery, TellsTheNameVersionAndSummaryOfTheService) {
    tavrix_service_options options = {};
    options.version = "3.1";
    options.summary = "Keeps things.";
    const Described described(methods, options);
    EXPECT_EQ(shown(json_object_get(described.document.get(), "info")),
              R"({"description":"Keeps things.","title":"tester","version":"3.1"})");
}

TEST(Discovery, DescribesAMethodByItsRows) {
    const Described described(methods);
    EXPECT_EQ(described.of_method("t.Set", "summary"), "\"Sets a thing.\"");
    EXPECT_EQ(described.of_method("t.Set", "tags"), R"([{"name":"changes"}])");
    EXPECT_EQ(described.of_method("t.Get", "tags"), R"([{"name":"reads"}])");
    EXPECT_EQ(described.of_method("t.Set", "paramStructure"), "\"by-name\"");
    EXPECT_EQ(described.of_method("t.Get", "params"), "[]");
    EXPECT_EQ(described.of_method("t.Get", "result"), R"({"name":"result","schema":{"enum":[0],"type":"integer"}})");
    EXPECT_EQ(described.of_method("t.Set", "result"),
              R"({"name":"result","schema":{"properties":{)"
              R"("colour":{"description":"what it became","enum":["red","green"],"type":"string"},)"
              R"("points":{"description":"where","items":{"properties":{)"
              R"("x":{"description":"across","maximum":2147483647,"minimum":-2147483648,"type":"integer"},)"
              R"("y":{"description":"down","maximum":2147483647,"minimum":-2147483648,"type":"integer"}},)"
              R"("required":["x"],"type":"object"},"type":"array"}},"required":["colour"],"type":"object"}})");
}

TEST(Discovery, PutsTheParametersThatMayBeAbsentLast) {
    const Described described(methods);
    EXPECT_EQ(described.of_method("t.Set", "params"),
              R"([{"name":"port_id","required":true,"schema":{"description":"a port c1-1 to c128-99","type":"string"},)"
              R"("summary":"which port"},)"
              R"({"name":"size","required":false,"schema":{"maximum":9,"minimum":2,"type":"integer"},)"
              R"("summary":"how large"}])");
}

TEST(Discovery, NamesTheErrorsThatTheCheckCanAnswer) {
    Described described(methods);
    const std::string errors = described.of_method("t.Set", "errors");
    EXPECT_NE(errors.find(R"x({"code":-32602,"message":"Invalid parameter(s)"})x"), std::string::npos) << errors;
    EXPECT_NE(errors.find(R"({"code":-32032,"message":"The given Port ID does not represent a C-port."})"),
              std::string::npos);
    EXPECT_EQ(described.of_method("t.Get", "errors").find("-32602"), std::string::npos) << "it takes no parameters";
    EXPECT_EQ(code_of(described.stage.ask("t.Set", R"({"port_id":"d1"})")), "-32032");
}

TEST(Discovery, ShowsAnExampleThatIsAccepted) {
    Described described(methods);
    EXPECT_EQ(described.of_method("t.Set", "examples"),
              R"([{"name":"example","params":[{"name":"port_id","value":"c1-1"}]}])");
    EXPECT_EQ(member(described.stage.ask("t.Set", R"({"port_id":"c1-1"})"), "result"), "0");
}

// --- Schemas -------------------------------------------------------------------------------------------------------

TEST(Discovery, GivesEveryKindASchemaAndAnExampleThatItsCheckAccepts) {
    for (int kind = TAVRIX_KIND_NONE + 1; kind < TAVRIX_KIND_COUNT; ++kind) {
        const OneRow one(row_of(kind));
        Described described(one.table);
        const json_t *schema = described.schema("t.One", "value");
        ASSERT_TRUE(json_is_object(schema)) << kind;
        EXPECT_EQ(json_is_string(json_object_get(schema, "type")), kind != TAVRIX_KIND_JSON) << kind << shown(schema);
        const json_t *example = json_array_get(json_object_get(described.method("t.One"), "examples"), 0);
        const json_t *value = json_object_get(json_array_get(json_object_get(example, "params"), 0), "value");
        const std::string params = "{\"value\":" + shown(value) + "}";
        EXPECT_EQ(member(described.stage.ask("t.One", params), "result"), "0") << kind << " " << params;
    }
}

TEST(Discovery, SaysTheBoundsThatTheCheckHasOfEveryIntegerKind) {
    for (int kind = TAVRIX_KIND_VLAN_ID; kind <= TAVRIX_KIND_PORT_NUMBER; ++kind) {
        const OneRow one(row_of(kind));
        Described described(one.table);
        const json_t *schema = described.schema("t.One", "value");
        const json_int_t lowest = number(schema, "minimum");
        const json_int_t highest = number(schema, "maximum");
        const auto answer = [&described](json_int_t value) {
            return described.stage.ask("t.One", "{\"value\":" + std::to_string(value) + "}");
        };
        EXPECT_EQ(member(answer(lowest), "result"), "0") << kind;
        EXPECT_EQ(member(answer(highest), "result"), "0") << kind;
        EXPECT_EQ(code_of(answer(lowest - 1)), "-32602") << kind;
        const std::string refusal = answer(highest + 1);
        EXPECT_EQ(member(member(member(refusal, "error"), "data"), "allowed"),
                  "\"" + std::to_string(lowest) + " to " + std::to_string(highest) + "\"")
            << kind;
    }
}

TEST(Discovery, SaysTheBoundsThatTheCheckHasOfTextsIntegersArraysAndLists) {
    const struct {
        tavrix_kind kind;
        const char *least;
        const char *most;
        std::string (*value)(int64_t size);
    } cases[] = {
        {TAVRIX_KIND_TEXT, "minLength", "maxLength",
         [](int64_t size) { return "\"" + std::string(static_cast<size_t>(size), 'x') + "\""; }},
        {TAVRIX_KIND_INTEGER, "minimum", "maximum", [](int64_t size) { return std::to_string(size); }},
        {TAVRIX_KIND_NUMBER, "minimum", "maximum", [](int64_t size) { return std::to_string(size); }},
        {TAVRIX_KIND_VLAN_ID, "minimum", "maximum", [](int64_t size) { return std::to_string(size); }},
        {TAVRIX_KIND_VLAN_IDS, "minItems", "maxItems",
         [](int64_t size) {
             std::string list;
             for (int64_t i = 1; i <= size; ++i) {
                 list += (i > 1 ? "," : "") + std::to_string(i);
             }
             return "[" + list + "]";
         }},
        {TAVRIX_KIND_MAC_FILTERS, "minItems", "maxItems",
         [](int64_t size) {
             std::string list;
             for (int64_t i = 0; i < size; ++i) {
                 list += (i > 0 ? "," : "") + std::string(R"({"mac":"00:1A:2B:3C:4D:5E","mask":"FF:FF:FF:FF:FF:FF"})");
             }
             return "[" + list + "]";
         }},
        {TAVRIX_KIND_ARRAY, "minItems", "maxItems",
         [](int64_t size) {
             std::string list;
             for (int64_t i = 0; i < size; ++i) {
                 list += list.empty() ? "1" : ",1";
             }
             return "[" + list + "]";
         }},
    };
    for (const auto &row : cases) {
        const OneRow one(TAVRIX_PARAM_RANGE("value", row.kind, "", 0, 3, 7));
        Described described(one.table);
        const json_t *schema = described.schema("t.One", "value");
        ASSERT_EQ(number(schema, row.least), 3) << row.least;
        ASSERT_EQ(number(schema, row.most), 7) << row.most;
        for (const int64_t size : {2, 3, 7, 8}) {
            const std::string answer = described.stage.ask("t.One", "{\"value\":" + row.value(size) + "}");
            EXPECT_EQ(member(answer, "result") == "0", size >= 3 && size <= 7) << row.least << " " << size;
        }
        const json_t *example = json_array_get(json_object_get(described.method("t.One"), "examples"), 0);
        const json_t *value = json_object_get(json_array_get(json_object_get(example, "params"), 0), "value");
        EXPECT_EQ(member(described.stage.ask("t.One", "{\"value\":" + shown(value) + "}"), "result"), "0") << row.kind;
    }
}

TEST(Discovery, SaysHowManyRecordsAndVlansTheCheckTakes) {
    const OneRow filters(TAVRIX_PARAM_RANGE("value", TAVRIX_KIND_MAC_FILTERS, "", 0, 0, 2));
    EXPECT_EQ(number(Described(filters.table).schema("t.One", "value"), "maxItems"), 2);
    const OneRow ports(TAVRIX_PARAM("value", TAVRIX_KIND_PORTS, "", 0));
    EXPECT_EQ(number(Described(ports.table).schema("t.One", "value"), "maxItems"), 128);
    const OneRow vlans(TAVRIX_PARAM_RANGE("value", TAVRIX_KIND_VLAN_IDS, "", 0, 1, 0));
    const Described described(vlans.table);
    EXPECT_EQ(shown(described.schema("t.One", "value")),
              R"({"items":{"maximum":4092,"minimum":1,"type":"integer"},"maxItems":32,"minItems":1,"type":"array"})");
}

TEST(Discovery, GivesTheWordsOfAnEnumeration) {
    const OneRow one(TAVRIX_PARAM("value", TAVRIX_KIND_VLAN_MODE, "", 0));
    EXPECT_EQ(shown(Described(one.table).schema("t.One", "value")),
              R"({"enum":["local","access","trunk"],"type":"string"})");
}

TEST(Discovery, DescribesTheBareElementsOfAnArray) {
    const OneRow one(TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_ARRAY, "", 0, 0, 0, bare_port));
    EXPECT_EQ(shown(Described(one.table).schema("t.One", "value")),
              R"({"items":{"description":"a port d1 to d4","type":"string"},"type":"array"})");
}

TEST(Discovery, DescribesAllLevelsOfTheDeepestTable) {
    const DeepTable deep(8);
    const Described described(deep.table);
    const json_t *schema = described.schema("t.One", "l");
    for (int level = 1; level < 8; ++level) {
        schema = json_object_get(json_object_get(schema, "properties"), "l");
    }
    EXPECT_EQ(shown(json_object_get(schema, "type")), "\"object\"");
    EXPECT_EQ(shown(json_object_get(schema, "properties")), "(null)");
}

TEST(Discovery, ClosesTheObjectsOfAStrictMethodsParameters) {
    OneRow one(TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_OBJECT, "", 0, 0, 0, point));
    EXPECT_EQ(shown(json_object_get(Described(one.table).schema("t.One", "value"), "additionalProperties")), "(null)");
    one.table[0].flags = TAVRIX_METHOD_STRICT;
    one.table[0].result = set_result;
    const Described described(one.table);
    EXPECT_EQ(shown(json_object_get(described.schema("t.One", "value"), "additionalProperties")), "false");
    EXPECT_EQ(described.of_method("t.One", "result").find("additionalProperties"), std::string::npos);
}

TEST(Discovery, LeavesTheRecordsOfAListOpenAsTheirRetrieverDoes) {
    OneRow records(TAVRIX_PARAM("value", TAVRIX_KIND_MAC_FILTERS, "", 0));
    records.table[0].flags = TAVRIX_METHOD_STRICT;
    Described filters(records.table);
    EXPECT_EQ(shown(filters.schema("t.One", "value")).find("additionalProperties"), std::string::npos);
    const std::string mac = "\"00:1A:2B:3C:4D:5E\"";
    EXPECT_EQ(member(filters.stage.ask("t.One", R"({"value":[{"mac":)" + mac + ",\"mask\":" + mac + R"(,"more":1}]})"),
                     "result"),
              "0")
        << "the list's own retriever passes over it";
}

// --- Who is asked --------------------------------------------------------------------------------------------------

TEST(Discovery, IsAnsweredByTheServiceItselfUnderItsFirstMethodsPrefix) {
    Described described(methods);
    const std::string answer = described.stage.ask("t.Discover");
    const Json result(json_loads(member(answer, "result").c_str(), 0, nullptr));
    EXPECT_TRUE(json_equal(result.get(), described.document.get()) != 0) << answer;
    EXPECT_NE(described.method("t.Discover"), nullptr);
    EXPECT_EQ(code_of(described.stage.ask("u.Discover")), "-32601");
    EXPECT_EQ(code_of(described.stage.ask("t.Discovery")), "-32601");
}

TEST(Discovery, LeavesItsNameToARowOfTheTable) {
    const tavrix_service_method table[] = {TAVRIX_METHOD("t.Discover", accept, "Finds things.", nullptr, nullptr, 0),
                                           TAVRIX_METHOD_END};
    Described described(table);
    EXPECT_EQ(member(described.stage.ask("t.Discover"), "result"), "0");
    EXPECT_EQ(described.of_method("t.Discover", "summary"), "\"Finds things.\"");
    EXPECT_EQ(json_array_size(json_object_get(described.document.get(), "methods")), 1U);
}

TEST(Discovery, IsHandedOverOnceTheServiceIsRegistered) {
    const Described described(methods);
    const std::vector<std::string> &heard = described.stage.router.heard_methods;
    ASSERT_GE(heard.size(), 3U);
    EXPECT_EQ(heard[heard.size() - 2], "router.Register");
    EXPECT_EQ(heard[heard.size() - 1], "router.Describe");
}

TEST(Discovery, WhichTheRouterRefusesIsToldAndTheServiceIsReadyAllTheSame) {
    const LogCapture log("info");
    Stage stage(methods, {}, [](support::PlayedRouter &router) {
        router.describe_error = R"x({"code":-32602,"message":"Invalid parameter(s)","data":{"message":"too long"}})x";
    });
    EXPECT_TRUE(tavrix_service_is_ready(stage.service));
    EXPECT_NE(log.text().find("The router at session.sock does not list the methods of tester: too long\n"),
              std::string::npos);
}

TEST(Discovery, IsNotMissedByARouterThatKnowsNothingOfIt) {
    const LogCapture log("info");
    Stage stage(methods, {}, [](support::PlayedRouter &router) {
        router.describe_error = R"({"code":-32601,"message":"Method not found","data":null})";
    });
    EXPECT_TRUE(tavrix_service_is_ready(stage.service));
    EXPECT_EQ(log.text().find("does not list"), std::string::npos);
}

TEST(Discovery, OfATableWithTextsThatAreNotUtf8IsRefusedAndTold) {
    const LogCapture log("info");
    const tavrix_service_method table[] = {TAVRIX_METHOD("t.One", accept, "\xff", nullptr, nullptr, 0),
                                           TAVRIX_METHOD_END};
    Stage stage(table);
    EXPECT_EQ(code_of(stage.ask("t.Discover")), "-32603");
    EXPECT_NE(log.text().find("tester cannot be described: there is no memory, or a text of its table is not UTF-8\n"),
              std::string::npos);
}
