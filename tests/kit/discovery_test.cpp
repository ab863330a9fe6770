/*
 * What a service says of itself: an OpenRPC document that is made of the rows that the check goes by.
 */
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

using namespace support;

namespace {

constexpr const char *colours[] = {"red", "green", nullptr};
const Rows point = {TAVRIX_PARAM("x", TAVRIX_KIND_INTEGER, "across", 0),
                    TAVRIX_PARAM("y", TAVRIX_KIND_INTEGER, "down", TAVRIX_OPTIONAL)};
const Rows bare_port = {TAVRIX_PARAM("", TAVRIX_KIND_PORT_ID, "", TAVRIX_ALLOW_D_PORT)};
const Rows set_params = {TAVRIX_PARAM_RANGE("size", TAVRIX_KIND_INTEGER, "how large", TAVRIX_OPTIONAL, 2, 9),
                         TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "which port", TAVRIX_ALLOW_C_PORT)};
const Rows set_result = {TAVRIX_PARAM_WORDS("colour", colours, "what it became", 0),
                         TAVRIX_PARAM_MEMBERS("points", TAVRIX_KIND_ARRAY, "where", TAVRIX_OPTIONAL, 0, 0, point)};
const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Set", accept, "Sets a thing.", set_params, set_result, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("t.Get", accept, "Gets nothing.", nullptr, nullptr, TAVRIX_METHOD_READS),
    TAVRIX_METHOD_END,
};

std::string shown(const json_t *value) { return rendered(value, JSON_SORT_KEYS); }

class Described {
  public:
    explicit Described(const tavrix_service_method *table, tavrix_service_options options = {})
        : stage(table, options), document(parsed(stage.router.description)) {}

    const json_t *method(const std::string &name) const {
        const json_t *all = json_object_get(document.get(), "methods");
        size_t i = 0;
        while (i < json_array_size(all) && member(rendered(json_array_get(all, i)), "name") != "\"" + name + "\"") {
            ++i;
        }
        return json_array_get(all, i);
    }
    std::string of_method(const char *name, const char *key) const { return shown(json_object_get(method(name), key)); }
    /** Of the only parameter of t.One. */
    const json_t *schema() const {
        return json_object_get(json_array_get(json_object_get(method("t.One"), "params"), 0), "schema");
    }
    std::string of_schema(const char *key) const { return shown(json_object_get(schema(), key)); }
    std::string ask_one(const std::string &value) { return stage.ask("t.One", "{\"value\":" + value + "}"); }
    void expect_that_the_example_is_accepted() {
        const json_t *example = json_array_get(json_object_get(method("t.One"), "examples"), 0);
        const json_t *value = json_object_get(json_array_get(json_object_get(example, "params"), 0), "value");
        EXPECT_EQ(member(ask_one(shown(value)), "result"), "0") << shown(value);
    }

    Stage stage;
    Json document;
};

/** The kind's row with what it cannot do without. */
tavrix_service_param row_of(int kind) {
    tavrix_service_param row = TAVRIX_PARAM("value", static_cast<tavrix_kind>(kind), "a value", 0);
    row.words = kind == TAVRIX_KIND_WORD ? colours : nullptr;
    row.flags = kind == TAVRIX_KIND_PORT_ID ? static_cast<unsigned>(TAVRIX_ANY_PORT) : 0U;
    return row;
}

} // namespace

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
    EXPECT_TRUE(holds(errors, R"x({"code":-32602,"message":"Invalid parameter(s)"})x"));
    EXPECT_TRUE(holds(errors, R"({"code":-32032,"message":"The given Port ID does not represent a C-port."})"));
    EXPECT_FALSE(holds(described.of_method("t.Get", "errors"), "-32602")) << "it takes no parameters";
    EXPECT_EQ(described.stage.code_of("t.Set", R"({"port_id":"d1"})"), "-32032");
}

TEST(Discovery, ShowsAnExampleThatIsAccepted) {
    Described described(methods);
    EXPECT_EQ(described.of_method("t.Set", "examples"),
              R"([{"name":"example","params":[{"name":"port_id","value":"c1-1"}]}])");
    EXPECT_EQ(described.stage.result_of("t.Set", R"({"port_id":"c1-1"})"), "0");
}

TEST(Discovery, GivesEveryKindASchemaAndAnExampleThatItsCheckAccepts) {
    for (int kind = TAVRIX_KIND_NONE + 1; kind < TAVRIX_KIND_COUNT; ++kind) {
        SCOPED_TRACE("kind " + std::to_string(kind));
        const OneParam one(row_of(kind));
        Described described(one.methods);
        ASSERT_TRUE(json_is_object(described.schema()));
        EXPECT_EQ(described.of_schema("type") != "(null)", kind != TAVRIX_KIND_JSON) << shown(described.schema());
        described.expect_that_the_example_is_accepted();
    }
}

TEST(Discovery, SaysTheBoundsThatTheCheckHasOfEveryIntegerKind) {
    for (int kind = TAVRIX_KIND_VLAN_ID; kind <= TAVRIX_KIND_PORT_NUMBER; ++kind) {
        SCOPED_TRACE("kind " + std::to_string(kind));
        const OneParam one(row_of(kind));
        Described described(one.methods);
        const std::string bounds = described.of_schema("minimum") + " to " + described.of_schema("maximum");
        EXPECT_EQ(member(data_of(described.ask_one("\"\"")), "allowed"), "\"" + bounds + "\"");
    }
}

TEST(Discovery, SaysTheBoundsThatTheCheckHasOfTextsIntegersArraysAndLists) {
    using Value = std::string (*)(int64_t size);
    const Value number = [](int64_t size) { return std::to_string(size); };
    const Value elements = [](int64_t size) { return array_of(static_cast<size_t>(size), "1"); };
    const struct {
        tavrix_kind kind;
        const char *least;
        const char *most;
        Value value;
    } cases[] = {
        {TAVRIX_KIND_TEXT, "minLength", "maxLength",
         [](int64_t size) { return "\"" + std::string(static_cast<size_t>(size), 'x') + "\""; }},
        {TAVRIX_KIND_INTEGER, "minimum", "maximum", number},
        {TAVRIX_KIND_NUMBER, "minimum", "maximum", number},
        {TAVRIX_KIND_VLAN_ID, "minimum", "maximum", number},
        {TAVRIX_KIND_VLAN_IDS, "minItems", "maxItems", elements},
        {TAVRIX_KIND_MAC_FILTERS, "minItems", "maxItems",
         [](int64_t size) {
             return array_of(static_cast<size_t>(size), R"({"mac":"00:1A:2B:3C:4D:5E","mask":"FF:FF:FF:FF:FF:FF"})");
         }},
        {TAVRIX_KIND_ARRAY, "minItems", "maxItems", elements},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE("kind " + std::to_string(row.kind));
        const OneParam one(TAVRIX_PARAM_RANGE("value", row.kind, "", 0, 3, 7));
        Described described(one.methods);
        EXPECT_EQ(described.of_schema(row.least), "3");
        EXPECT_EQ(described.of_schema(row.most), "7");
        for (const int64_t size : {2, 3, 7, 8}) {
            EXPECT_EQ(member(described.ask_one(row.value(size)), "result") == "0", size >= 3 && size <= 7) << size;
        }
        described.expect_that_the_example_is_accepted();
    }
}

TEST(Discovery, DescribesWordsElementsAndListsByWhatTheirRowsSay) {
    const struct {
        tavrix_service_param row;
        const char *schema;
    } rows[] = {
        {TAVRIX_PARAM("value", TAVRIX_KIND_VLAN_MODE, "", 0), R"({"enum":["local","access","trunk"],"type":"string"})"},
        {TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_ARRAY, "", 0, 0, 0, bare_port),
         R"({"items":{"description":"a port d1 to d4","type":"string"},"type":"array"})"},
        {TAVRIX_PARAM_RANGE("value", TAVRIX_KIND_VLAN_IDS, "", 0, 1, 0),
         R"({"items":{"maximum":4092,"minimum":1,"type":"integer"},"maxItems":32,"minItems":1,"type":"array"})"},
    };
    for (const auto &row : rows) {
        const OneParam one(row.row);
        EXPECT_EQ(shown(Described(one.methods).schema()), row.schema);
    }
    const OneParam ports(TAVRIX_PARAM("value", TAVRIX_KIND_PORTS, "", 0));
    EXPECT_EQ(Described(ports.methods).of_schema("maxItems"), "128");
}

TEST(Discovery, DescribesAllLevelsOfTheDeepestTable) {
    constexpr size_t levels = 8;
    tavrix_service_param rows[levels][2] = {};
    for (size_t i = 0; i < levels; ++i) {
        rows[i][0] = TAVRIX_PARAM("l", TAVRIX_KIND_OBJECT, "", 0);
        rows[i][0].members = i + 1 < levels ? rows[i + 1] : nullptr;
        rows[i][1] = TAVRIX_PARAM_END;
    }
    const Methods deep = {{"t.One", accept, rows[0]}};
    const Described described(deep);
    const json_t *schema = described.schema();
    for (size_t level = 1; level < levels; ++level) {
        schema = json_object_get(json_object_get(schema, "properties"), "l");
    }
    EXPECT_EQ(shown(schema), R"({"type":"object"})");
}

TEST(Discovery, ClosesTheObjectsOfAStrictMethodsParameters) {
    OneParam one(TAVRIX_PARAM_MEMBERS("value", TAVRIX_KIND_OBJECT, "", 0, 0, 0, point));
    EXPECT_EQ(Described(one.methods).of_schema("additionalProperties"), "(null)");
    one.methods.table[0].flags = TAVRIX_METHOD_STRICT;
    one.methods.table[0].result = set_result;
    const Described described(one.methods);
    EXPECT_EQ(described.of_schema("additionalProperties"), "false");
    EXPECT_FALSE(holds(described.of_method("t.One", "result"), "additionalProperties"));
}

TEST(Discovery, LeavesTheRecordsOfAListOpenAsTheirRetrieverDoes) {
    OneParam records(TAVRIX_PARAM("value", TAVRIX_KIND_MAC_FILTERS, "", 0));
    records.methods.table[0].flags = TAVRIX_METHOD_STRICT;
    Described filters(records.methods);
    EXPECT_FALSE(holds(shown(filters.schema()), "additionalProperties"));
    EXPECT_EQ(member(filters.ask_one(R"([{"mac":"00:1A:2B:3C:4D:5E","mask":"00:1A:2B:3C:4D:5E","more":1}])"), "result"),
              "0")
        << "the list's own retriever passes over it";
}

TEST(Discovery, IsAnsweredByTheServiceItselfUnderItsFirstMethodsPrefix) {
    Described described(methods);
    const Json result = parsed(described.stage.result_of("t.Discover"));
    EXPECT_TRUE(json_equal(result.get(), described.document.get()) != 0) << shown(result.get());
    EXPECT_NE(described.method("t.Discover"), nullptr);
    EXPECT_EQ(described.stage.code_of("u.Discover"), "-32601");
    EXPECT_EQ(described.stage.code_of("t.Discovery"), "-32601");
}

TEST(Discovery, LeavesItsNameToARowOfTheTable) {
    const Methods own = {{"t.Discover", accept}};
    Described described(own);
    EXPECT_EQ(described.stage.result_of("t.Discover"), "0");
    EXPECT_EQ(described.of_method("t.Discover", "summary"), "\"Does one thing.\"");
    EXPECT_EQ(json_array_size(json_object_get(described.document.get(), "methods")), 1U);
}

TEST(Discovery, IsHandedOverOnceTheServiceIsRegistered) {
    const Described described(methods);
    const std::vector<std::string> &heard = described.stage.router.heard_methods;
    ASSERT_GE(heard.size(), 3U);
    EXPECT_EQ(heard[heard.size() - 2], "router.Register");
    EXPECT_EQ(heard[heard.size() - 1], "router.Describe");
}

TEST(Discovery, WhichTheRouterRefusesIsToldUnlessItKnowsNothingOfItAndTheServiceIsReadyAllTheSame) {
    const struct {
        const char *error;
        bool is_told;
    } rows[] = {
        {R"x({"code":-32602,"message":"Invalid parameter(s)","data":{"message":"too long"}})x", true},
        {R"({"code":-32601,"message":"Method not found","data":null})", false},
    };
    for (const auto &row : rows) {
        const LogCapture log("info");
        const Stage stage(methods, {}, [&](PlayedRouter &router) { router.describe_error = row.error; });
        EXPECT_TRUE(tavrix_service_is_ready(stage.service));
        const std::string told = "The router at session.sock does not list the methods of tester: too long\n";
        EXPECT_EQ(log.text().find(told) != std::string::npos, row.is_told) << log.text();
        EXPECT_EQ(log.text().find("does not list") != std::string::npos, row.is_told) << log.text();
    }
}

TEST(Discovery, OfATableWithTextsThatAreNotUtf8IsRefusedAndTold) {
    const LogCapture log("info");
    Methods one = {{"t.One", accept}};
    one.table[0].summary = "\xff";
    Stage stage(one);
    EXPECT_EQ(stage.code_of("t.Discover"), "-32603");
    EXPECT_TRUE(log.says("tester cannot be described: there is no memory, or a text of its table is not UTF-8\n"));
}
