/*
 * Discovery over the router: one OpenRPC document of what can be called now.
 */
#include <set>

#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

namespace {

constexpr size_t longest_document = 262144;

std::string described(const std::string &name, const std::string &more = "") {
    return R"({"name":")" + name + R"(","params":[],"result":{"name":"result","schema":{}})" + more + "}";
}

std::string describe(const std::string &methods) {
    return request("router.Describe", "\"described\"",
                   R"(,"params":{"document":{"openrpc":"1.2.6","methods":[)" + methods + "]}}");
}

/** One method's description, so long that the document has this size. */
std::string of_size(size_t size) {
    const std::string empty = R"({"openrpc":"1.2.6","methods":[)" + described("ports.Get", R"(,"summary":"")") + "]}";
    return described("ports.Get", ",\"summary\":\"" + std::string(size - empty.size(), 's') + "\"");
}

class RouterDiscovery : public LoneRouter {
  protected:
    Json discover() const {
        return Json(json_loads(result_of(fleet.ask(request("rpc.discover", "1"))).c_str(), 0, nullptr));
    }
    std::set<std::string> names() const {
        const Json document = discover();
        const json_t *methods = json_object_get(document.get(), "methods");
        std::set<std::string> found;
        for (size_t i = 0; i < json_array_size(methods); ++i) {
            const char *name = json_string_value(json_object_get(json_array_get(methods, i), "name"));
            EXPECT_TRUE(found.insert(name).second) << name << " is there twice";
        }
        return found;
    }
};

} // namespace

TEST_F(RouterDiscovery, HasTheMembersOfOpenRpcAndNoOthers) {
    fleet.start_ports();
    fleet.start_events();
    const Json document = discover();
    EXPECT_THAT(keys_of(document.get()), UnorderedElementsAre("openrpc", "info", "methods", "components"));
    EXPECT_THAT(keys_of(json_object_get(document.get(), "info")), UnorderedElementsAre("title", "version"));
    EXPECT_STREQ(json_string_value(json_object_get(document.get(), "openrpc")), "1.2.6");
    const json_t *methods = json_object_get(document.get(), "methods");
    ASSERT_GT(json_array_size(methods), 20U);
    for (size_t i = 0; i < json_array_size(methods); ++i) {
        const json_t *method = json_array_get(methods, i);
        EXPECT_THAT(keys_of(method), UnorderedElementsAre("name", "summary", "tags", "paramStructure", "params",
                                                          "result", "errors", "examples"))
            << json_string_value(json_object_get(method, "name"));
        const json_t *params = json_object_get(method, "params");
        for (size_t k = 0; k < json_array_size(params); ++k) {
            EXPECT_THAT(keys_of(json_array_get(params, k)),
                        UnorderedElementsAre("name", "summary", "required", "schema"));
        }
        EXPECT_THAT(keys_of(json_object_get(method, "result")), UnorderedElementsAre("name", "schema"));
    }
}

TEST_F(RouterDiscovery, NamesTheWholeErrorCatalogue) {
    const Json document = discover();
    const json_t *errors = json_object_get(json_object_get(document.get(), "components"), "errors");
    EXPECT_EQ(json_object_size(errors), 52U) << "one for each code of tavrix_jrpc.h";
    const json_t *error = json_object_get(errors, "-32034");
    EXPECT_EQ(json_integer_value(json_object_get(error, "code")), TAVRIX_JRPC_NO_SUCH_PORT);
    EXPECT_STREQ(json_string_value(json_object_get(error, "message")),
                 "The given id does not represent any existing port(s).");
}

TEST_F(RouterDiscovery, NamesTheMethodsOfTheRouterAndOfServicesThatAreUp) {
    EXPECT_THAT(names(), UnorderedElementsAre("rpc.discover", "router.Status", "router.Metrics", "router.Lock",
                                              "router.Unlock", "router.Bus", "router.Register", "router.Describe",
                                              "router.Subscribe", "router.Unsubscribe", "router.Monitor"));
    fleet.start_ports();
    EXPECT_THAT(names(), IsSupersetOf({"ports.Get", "ports.poe.GetInstantPower", "mzu.Register", "ports.Discover"}));
}

TEST_F(RouterDiscovery, ForgetsAServiceThatHasGone) {
    {
        DirectService service;
        EXPECT_EQ(result_of(service.ask(describe(described("ports.Get")))), "0");
        EXPECT_EQ(names().count("ports.Get"), 1U);
    }
    EXPECT_TRUE(wait_until([this] { return names().count("ports.Get") == 0; }));
    EXPECT_EQ(code_of(fleet.ask(request("ports.Discover", "1"))), "-32601");
    const DirectService again;
    EXPECT_EQ(names().count("ports.Get"), 0U) << "it has described nothing yet";
    EXPECT_EQ(error_of(fleet.ask(request("ports.Discover", "1"))), "-32601 no service offers ports.Discover");
}

TEST_F(RouterDiscovery, TakesADocumentOf262144BytesAndNoMore) {
    DirectService service;
    EXPECT_EQ(error_of(service.ask(describe(of_size(longest_document + 1)))), "-32602 document: at most 262144 bytes");
    EXPECT_EQ(names().count("ports.Get"), 0U);
    EXPECT_EQ(result_of(service.ask(describe(of_size(longest_document)))), "0");
    EXPECT_EQ(names().count("ports.Get"), 1U);
    EXPECT_EQ(code_of(service.ask(describe(of_size(longest_document + 1)))), "-32602");
    EXPECT_EQ(names().count("ports.Get"), 1U) << "the earlier one stays";
}

TEST_F(RouterDiscovery, TakesALongDocumentFromAServiceOnTheBusToo) {
    BusService service(fleet);
    ASSERT_EQ(result_of(service.registered), "0");
    EXPECT_EQ(result_of(service.session.ask(describe(of_size(longest_document)))), "0");
    service.session.say(std::string(longest_document + 1024, ' '));
    EXPECT_EQ(code_of(service.session.hear()), "-32600") << "a line that is longer than any description";
    EXPECT_TRUE(service.session.gets_closed());
}

TEST_F(RouterDiscovery, TakesAServicesWordForItsOwnMethodsOnly) {
    DirectService service;
    const std::string needs = "ports.Get needs params, an array, and a result, an object";
    const std::pair<std::string, std::string> rows[] = {
        {described("mzu.List"), "it describes 'mzu.List', which the service does not offer"},
        {described("mzu.Discover"), "it describes 'mzu.Discover', which the service does not offer"},
        {"1", "it describes '', which the service does not offer"},
        {R"({"name":"ports.Get","result":{}})", needs},
        {R"({"name":"ports.Get","params":[]})", needs},
    };
    for (const auto &[methods, problem] : rows) {
        EXPECT_EQ(error_of(service.ask(describe(methods))), "-32602 document: " + problem) << methods;
    }
    EXPECT_EQ(error_of(service.ask(request("router.Describe", "1", R"(,"params":{"document":[]})"))),
              "-32602 document: an object with methods, an array");
    EXPECT_EQ(result_of(service.ask(describe(described("ports.Get") + "," + described("ports.Discover")))), "0");
}

TEST_F(RouterDiscovery, IsDescribedByServicesOnly) {
    SessionClient client;
    EXPECT_EQ(error_of(client.ask(describe(""))), "-32600 this session is not a service");
    EXPECT_EQ(code_of(fleet.ask(describe(""))), "-32601") << "it needs a session";
}

TEST_F(RouterDiscovery, PassesAServicesOwnDiscoveryOn) {
    fleet.start_ports();
    EXPECT_EQ(member(result_of(fleet.ask(request("ports.Discover", "1")), "info"), "title"), "\"portsd\"");
    EXPECT_EQ(code_of(fleet.ask(request("mzu.Discover", "1"))), "-32601") << "its first method begins with ports";
}

TEST_F(RouterDiscovery, AnswersOnSessionsAndWhileTheSystemIsLocked) {
    SessionClient client;
    client.ask(request("router.Lock", "1"));
    EXPECT_EQ(id_of(client.ask(request("rpc.discover", "\"mine\"", ",\"transaction_id\":4"))), "\"mine\"");
    const std::string one_shot = fleet.ask(request("rpc.discover", "1", ",\"transaction_id\":4"));
    EXPECT_EQ(id_of(one_shot), "\"rpc.discover\"");
    EXPECT_EQ(member(one_shot, "transaction_id"), "4");
}

TEST_F(RouterDiscovery, KeepsTheReservedNamesToTheRouter) {
    const Registration taken{"played", TAVRIX_CHANNEL_DEFAULT, "[]", R"(["rpc.discover"])", "true"};
    EXPECT_EQ(code_of(SessionClient().ask(taken.line())), "-32602");
    EXPECT_EQ(code_of(fleet.ask(request("rpc.other", "1"))), "-32601");
}
