/*
 * Services that register with the router: what it says to each registration, and what becomes of their calls.
 */
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fleet.h"
#include "support/json.h"
#include "support/session.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

constexpr char first_channel[] = "3a6f8f51-502f-4238-9638-29764ff1a8a4";
constexpr char events_channel[] = "505a5451-3ef2-4618-8087-9a22b800a510";
constexpr char ids_of_bus[] = R"(,"id":"2524546b-ca99-4868-a062-359cefacff7c"})";

class RouterServices : public LoneRouter {
  protected:
    std::string status_member(const char *key) {
        return member(member(fleet.ask(request("router.Status", "1")), "result"), key);
    }
};

} // namespace

// --- Registration --------------------------------------------------------------------------------------------------

TEST_F(RouterServices, RegisterToTheByte) {
    SessionClient service;
    EXPECT_EQ(service.ask(R"({"jsonrpc":"2.0","method":"router.Register","id":1,"params":{"name":"portsd",)"
                          R"("channel":"3a6f8f51-502f-4238-9638-29764ff1a8a4","publish":[],)"
                          R"("methods":["ports.Get","mzu.List"],"direct":true}})"),
              R"({"jsonrpc":"2.0","id":1,"result":0})");
    SessionClient client;
    client.say(request("ports.Get", "\"mine\"", ",\"transaction_id\":3,\"params\":{\"port_id\":\"c1-1\"}"));
    const std::string asked = service.hear();
    const std::string number = member(asked, "transaction_id");
    EXPECT_EQ(asked, R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":)" + number +
                         R"(,"params":{"port_id":"c1-1"})" + ids_of_bus);
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","result":{"a":1},"transaction_id":)" + number + "}");
    EXPECT_EQ(client.hear(), R"({"jsonrpc":"2.0","id":"mine","result":{"a":1},"transaction_id":3})");
    EXPECT_EQ(fleet.ask(request("router.Bus", "1"))
                  .find(R"({"jsonrpc":"2.0","id":"router.Bus","result":{"publish":[")" + fleet.router_address +
                        R"("],"folder":null,"services":[{)"),
              0U);
}

TEST_F(RouterServices, ShowInTheMetricsWhateverTheirMethodsAreCalled) {
    std::string method = "p";
    for (int i = 0; i < 98; ++i) {
        method += R"(\")";
    }
    method += "z\xc3\xa9"; // a character of two bytes where a cut would go through it
    Registration registration;
    registration.methods = "[\"" + method + "\"]";
    DirectService service(registration);
    SessionClient client;
    client.say(request(method, "1"));
    service.reply(service.next_request(), "0");
    EXPECT_EQ(member(client.hear(), "result"), "0");
    const std::string metrics = fleet.ask(request("router.Metrics", "2"));
    EXPECT_NE(metrics.find("tavrix_router_calls_total{method="), std::string::npos) << metrics;
}

TEST_F(RouterServices, SettleBothDirectionsOfTheBusBeforeTheyAreThere) {
    support::BusSocket pub(TAVRIX_SP_PUB);
    support::BusSocket sub(TAVRIX_SP_SUB);
    const std::string address = support::free_bus_address();
    pub.bind(address);
    sub.connect(fleet.router_address);
    tavrix_mq_socket_subscribe(sub.number, first_channel);
    SessionClient service;
    Registration registration = Registration::on_bus();
    registration.publish = "[\"" + address + "\"]";
    service.say(registration.line("7"));
    tavrix_mq_socket_set_timeout(sub.number, 20000);
    std::string frame;
    for (int i = 0; i < 3; ++i) { // again and again, until there is a hello
        ASSERT_TRUE(support::take_frame(sub.number, &frame));
        EXPECT_EQ(frame, std::string(first_channel) +
                             R"(|{"jsonrpc":"2.0","method":"service.Probe","params":{"name":"played"}})");
    }
    const std::string unsettled = fleet.ask(request("ports.Get", "1"));
    EXPECT_EQ(code_of(unsettled), "-32601") << "it is not there yet";
    EXPECT_EQ(member(status_member("services").substr(1), "state"), "\"settling\"");
    EXPECT_EQ(service.hear(0), "(time-out)");
    const std::string hello = std::string("2524546b-ca99-4868-a062-359cefacff7c") +
                              R"(|{"jsonrpc":"2.0","method":"router.Hello","params":{"name":"played","channel":")";
    tavrix_mq_socket_send(pub.number, (hello + events_channel + "\"}}").c_str()); // of another channel
    EXPECT_TRUE(support::wait_until([&] {
        tavrix_mq_socket_send(pub.number, (hello + first_channel + "\"}}").c_str());
        return service.hear(5) == R"({"jsonrpc":"2.0","id":7,"result":0})";
    }));
    EXPECT_EQ(member(status_member("services").substr(1), "state"), "\"up\"");
}

TEST_F(RouterServices, AreWelcomedUnderTheNumberOfTheirHello) {
    BusService service(fleet);
    const std::string hello = R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"played","channel":")" +
                              std::string(first_channel) + "\"";
    service.publish_reply(hello + "}}");
    service.publish_reply(hello + R"(,"number":"8"}})");
    service.publish_reply(hello + R"(,"number":9007199254740993}})");
    EXPECT_EQ(service.next_request(), R"({"jsonrpc":"2.0","method":"service.Welcome",)"
                                      R"("params":{"name":"played","number":9007199254740993}})")
        << "those without a number get none";
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    service.reply(service.next_request(), "1");
    service.publish_reply(hello + R"(,"number":10}})");
    EXPECT_NE(service.next_request().find("\"number\":10"), std::string::npos);
    service.session.close();
    EXPECT_EQ(member(client.hear(), "result"), "1") << "the answer came before the welcome";
}

TEST_F(RouterServices, ThatDoNotSettleAreTold) {
    Registration registration = Registration::on_bus();
    registration.publish = "[\"" + support::free_bus_address() + "\"]";
    SessionClient service;
    service.say(registration.line("7"));
    const std::string answer = service.hear();
    EXPECT_EQ(code_of(answer), "-32005") << answer;
    EXPECT_EQ(member(answer, "id"), "7");
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32601");
}

TEST_F(RouterServices, OnTheBusGetTheirRequestsThere) {
    BusService service(fleet);
    EXPECT_EQ(service.registered, R"({"jsonrpc":"2.0","id":"registration","result":0})");
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "\"mine\"", ",\"transaction_id\":3,\"params\":{}"));
    const std::string asked = service.next_request();
    EXPECT_EQ(asked, R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":)" + member(asked, "transaction_id") +
                         R"(,"params":{})" + ids_of_bus);
    service.reply(asked, "[1]");
    EXPECT_EQ(client.hear(), R"({"jsonrpc":"2.0","id":"ports.Get","result":[1],"transaction_id":3})");
}

TEST_F(RouterServices, MayPublishOnTheBusAndServeDirectly) {
    Registration registration = Registration::on_bus();
    registration.direct = "true";
    BusService service(fleet, registration);
    EXPECT_EQ(member(service.registered, "result"), "0");
    SessionClient client;
    client.say(request("ports.Get", "1"));
    const std::string asked = service.session.hear_of("ports.Get");
    service.publish_reply(service_reply(asked, "\"by the wrong road\""));
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
    service.session.say(service_reply(asked, "\"right\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

TEST_F(RouterServices, OnAnIpcAddressInTheBusFolder) {
    const std::string bus = "bus-" + std::to_string(getpid());
    fleet.router_address = "ipc://" + bus + "/router";
    fleet.start_lone_router();
    const std::string known = member(fleet.ask(request("router.Bus", "1")), "result");
    const std::string here = std::filesystem::current_path().string() + "/";
    EXPECT_EQ(member(known, "publish"), "[\"ipc://" + here + bus + "/router\"]") << "for services from elsewhere";
    EXPECT_EQ(member(known, "folder"), "\"" + here + bus + "\"");
    EXPECT_EQ(member(known, "reply_timeout_ms"), "10000");
    EXPECT_EQ(member(known, "services"), "[]");
    Registration registration = Registration::on_bus();
    registration.publish = "ipc://" + bus + "/played";
    BusService service(fleet, registration);
    EXPECT_EQ(member(member(fleet.ask(request("router.Bus", "1")), "result"), "services"),
              R"([{"name":"played","channel":"3a6f8f51-502f-4238-9638-29764ff1a8a4","publish":["ipc://)" + bus +
                  R"(/played"],"methods":["ports.Get"]}])");
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    service.reply(service.next_request(), "1");
    EXPECT_EQ(member(client.hear(), "result"), "1");
}

TEST_F(RouterServices, AreRefusedWithWordsForWhatIsWrong) {
    const std::string bad_name = R"("name: 1 to 50 letters, digits, '.', '-' and '_'")";
    const std::string bad_channel = R"("channel: none of the service channels")";
    const std::string bad_methods = R"("methods: at most 256 names of at most 128 bytes")";
    const std::string bad_publish = R"("publish: at most 8 addresses of the bus")";
    const std::string needs_address =
        R"("publish: a service that takes its requests from the bus needs an address there")";
    const std::string bad_callers = R"("callers: true or false; only a direct service is told who calls")";
    std::string methods = "\"p0\"";
    std::string addresses = "\"tcp://127.0.0.1:1\"";
    for (int i = 1; i <= 256; ++i) {
        methods += ",\"p" + std::to_string(i) + "\"";
        addresses += i <= 8 ? ",\"tcp://127.0.0.1:1\"" : "";
    }
    const std::string c = first_channel;
    const struct {
        Registration registration;
        std::string message;
    } rows[] = {
        {{"", c, "[]", "[]", "true"}, bad_name},
        {{std::string(51, 'n'), c, "[]", "[]", "true"}, bad_name},
        {{"a b", c, "[]", "[]", "true"}, bad_name},
        {{"a/b", c, "[]", "[]", "true"}, bad_name},
        {{"..", c, "[]", "[]", "true"}, bad_name},
        {{"a\\nb", c, "[]", "[]", "true"}, bad_name},
        {{"\\u00e9", c, "[]", "[]", "true"}, bad_name},
        {{"n", "", "[]", "[]", "true"}, bad_channel},
        {{"n", "2524546b-ca99-4868-a062-359cefacff7c", "[]", "[]", "true"}, bad_channel},
        {{"n", c + "|", "[]", "[]", "true"}, bad_channel},
        {{"n", c, "[]", "5", "true"}, bad_methods},
        {{"n", c, "[]", "[5]", "true"}, bad_methods},
        {{"n", c, "[]", R"([""])", "true"}, bad_methods},
        {{"n", c, "[]", R"(["p\n"])", "true"}, bad_methods},
        {{"n", c, "[]", "[\"p" + std::string(128, 'm') + "\"]", "true"}, bad_methods},
        {{"n", c, "[]", "[" + methods + "]", "true"}, bad_methods},
        {{"n", c, "[]", R"(["ports.Get","events.List"])", "true"}, R"("methods: events.List is not of this channel")"},
        {{"n", c, "[]", R"(["router.Status"])", "true"}, R"("methods: router.Status is not of this channel")"},
        {{"n", "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3", "[]", R"(["router.Status"])", "true"},
         R"("methods: router.Status is not of this channel")"},
        {{"n", c, R"("tcp://127.0.0.1:1")", "[]", "true"}, bad_publish},
        {{"n", c, "[" + addresses + "]", "[]", "true"}, bad_publish},
        {{"n", c, R"(["tcp://\n"])", "[]", "true"}, bad_publish},
        {{"n", c, "[]", "[]", "false"}, needs_address},
        {{"n", c, "", "", ""}, needs_address},
        {{"n", c, R"(["nonsense"])", "[]", ""}, R"("publish: nonsense is no address of the bus")"},
        {{"n", c, R"(["tcp://127.0.0.1:1","inproc://x"])", "[]", ""},
         R"("publish: inproc://x is no address of the bus")"},
        {{"n", c, "[\"ipc://" + std::string(108, 'p') + "\"]", "[]", ""},
         "\"publish: ipc://" + std::string(108, 'p') + " is no address of the bus\""},
        {{"n", c, "[]", "[]", "5"}, R"("direct: true or false")"},
        {{"n", c, "[]", "[]", "\"true\""}, R"("direct: true or false")"},
        {{"n", c, "[]", "[]", "true", "1"}, bad_callers},
        {{"n", c, R"(["tcp://127.0.0.1:1"])", "[]", "", "true"}, bad_callers},
        {{"n", c, R"(["tcp://127.0.0.1:1"])", "[]", "false", "true"}, bad_callers},
    };
    SessionClient service;
    for (const auto &row : rows) {
        const std::string answer = service.ask(row.registration.line());
        EXPECT_EQ(code_of(answer), "-32602") << row.message;
        EXPECT_EQ(message_of(answer), row.message) << row.registration.line();
    }
    EXPECT_EQ(code_of(service.ask(request("router.Register", "1"))), "-32602") << "no params at all";
    EXPECT_EQ(status_member("services"), "[]") << "none of them left anything behind";
    EXPECT_EQ(member(service.ask(Registration{std::string(50, 'n')}.line()), "result"), "0") << "50 fit";
}

TEST_F(RouterServices, SayWhatTheyLikeAsTheirAddress) {
    for (const std::string address :
         {"tcp://", "ipc://", "tcp://:", "tcp://127.0.0.1", "tcp://127.0.0.1:0", "tcp://127.0.0.1:99999", "tcp://;:1",
          "ipc:///", "ipc://.", "ipc:///nowhere/at/all", "tcp://no such host:1", "tcp://[::1]:1"}) {
        SessionClient service;
        service.say(Registration{"n", first_channel, "[\"" + address + "\"]", "[]", ""}.line());
        EXPECT_EQ(member(service.ask(request("router.Status", "1")), "jsonrpc"), "\"2.0\"") << address;
    }
    EXPECT_EQ(code_of(fleet.ask(request("router.Status", "1"))), "(none)");
}

TEST_F(RouterServices, HaveOneNameEach) {
    DirectService first;
    SessionClient second;
    Registration other;
    other.methods = R"(["ports.Set"])";
    const std::string taken = second.ask(other.line());
    EXPECT_EQ(code_of(taken), "-32007");
    EXPECT_EQ(message_of(taken), "\"a service of this name is registered already\"");
    other.name = "other";
    other.methods = R"(["ports.Set","ports.Get"])";
    const std::string offered = second.ask(other.line());
    EXPECT_EQ(code_of(offered), "-32007");
    EXPECT_EQ(message_of(offered), "\"ports.Get is offered by played already\"");
    other.methods = R"(["ports.Set"])";
    EXPECT_EQ(member(second.ask(other.line()), "result"), "0");
    const std::string twice = second.ask(Registration{"third"}.line());
    EXPECT_EQ(code_of(twice), "-32007");
    EXPECT_EQ(message_of(twice), "\"this session is a service already\"");
}

TEST_F(RouterServices, MayOfferWhatOneThatHasGoneOffered) {
    { DirectService gone; }
    EXPECT_TRUE(fleet.router->says("Service played has gone"));
    DirectService heir(Registration{"heir"});
    SessionClient client;
    client.say(request("ports.Get", "1"));
    heir.reply(heir.next_request(), "\"inherited\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"inherited\"");
    SessionClient former;
    EXPECT_EQ(code_of(former.ask(Registration{}.line())), "-32007") << "it is the heir's now";
}

TEST_F(RouterServices, WithoutMethodsGetWhatNoOtherOffers) {
    DirectService named;
    Registration any{"any"};
    any.methods = "[]";
    DirectService taker(any);
    SessionClient client;
    client.say(request("ports.Get", "1"));
    named.reply(named.next_request(), "\"named\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"named\"");
    client.say(request("mzu.Whatever", "1"));
    taker.reply(taker.next_request(), "\"taker\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"taker\"");
}

TEST_F(RouterServices, AreBoundedInNumber) {
    std::vector<SessionClient> services;
    services.reserve(256);
    std::string refused;
    for (int i = 0; i < 256 && refused.empty(); ++i) {
        Registration registration{"s" + std::to_string(i)};
        registration.methods = "[\"ports.M" + std::to_string(i) + "\"]";
        services.emplace_back();
        const std::string answer = services.back().ask(registration.line());
        refused = member(answer, "result") == "0" ? "" : answer;
    }
    EXPECT_EQ(refused, "");
    SessionClient one_more;
    const std::string answer = one_more.ask(Registration{"more"}.line());
    EXPECT_EQ(code_of(answer), "-32014");
    EXPECT_EQ(message_of(answer), "\"too many services\"");
    services.pop_back();
    EXPECT_TRUE(fleet.router->says("Service s255 has gone"));
    EXPECT_EQ(member(one_more.ask(Registration{"more"}.line()), "result"), "0") << "one that has gone makes room";
}

TEST_F(RouterServices, MayComeAndGoTenThousandTimes) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=off\n"); // two lines each
    fleet.router->signal(SIGHUP);
    const std::string descriptors = "/proc/" + std::to_string(fleet.router->pid()) + "/fd";
    const auto open_ones = [&descriptors] {
        const std::filesystem::directory_iterator all(descriptors);
        return std::distance(begin(all), end(all));
    };
    SessionClient client;
    EXPECT_EQ(member(client.ask(request("router.Status", "1")), "id"), "1");
    const auto before = open_ones();
    for (int i = 0; i < 10000; ++i) {
        Registration registration{"s" + std::to_string(i)};
        registration.methods = "[\"ports.M" + std::to_string(i) + "\"]";
        DirectService service(registration);
        if (i % 100 == 0) {
            client.say(request("ports.M" + std::to_string(i), std::to_string(i)));
            service.reply(service.next_request(), "1");
            ASSERT_EQ(member(client.hear(), "id"), std::to_string(i));
        }
    }
    EXPECT_TRUE(support::wait_until([&] { return open_ones() <= before; }));
    const std::string services = status_member("services");
    size_t count = 0;
    for (size_t at = services.find("\"name\":"); at != std::string::npos; at = services.find("\"name\":", at + 1)) {
        ++count;
    }
    EXPECT_LE(count, 256U) << "those that have gone make room";
}

// --- Their life ----------------------------------------------------------------------------------------------------

TEST_F(RouterServices, ThatGoHaveTheirCallersAnsweredAtOnce) {
    SessionClient client;
    const StreamClient one_shot = fleet.connect();
    {
        DirectService service;
        client.say(request("ports.Get", "1", ",\"transaction_id\":8"));
        service.next_request();
        one_shot.say(request("ports.Get", "\"text\""));
        service.next_request();
    }
    const std::string data = R"({"message":"played, which serves ports.Get, is not there","service":"played",)"
                             R"("channel":"3a6f8f51-502f-4238-9638-29764ff1a8a4"})";
    const std::string answer = client.hear();
    EXPECT_EQ(answer, R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found","data":)" + data +
                          R"(},"transaction_id":8})");
    const std::string other = one_shot.hear();
    EXPECT_EQ(code_of(other), "-32601");
    EXPECT_EQ(member(other, "id"), "\"text\"") << "the router's own answer";
    EXPECT_EQ(data_of(other), data);
    const std::string after = client.ask(request("ports.Get", "2"));
    EXPECT_EQ(data_of(after), data) << "and so is who comes later";
    EXPECT_EQ(status_member("gone"), "2");
    EXPECT_EQ(member(member(status_member("methods"), "ports.Get"), "gone"), "2");
}

TEST_F(RouterServices, ThatReplyWithNothingAreAnErrorForTheirCallers) {
    DirectService service;
    SessionClient client;
    client.say(request("ports.Get", "1", ",\"transaction_id\":8"));
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","transaction_id":)" +
                member(service.next_request(), "transaction_id") + "}");
    EXPECT_EQ(client.hear(), R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"Internal error",)"
                             R"("data":null},"transaction_id":8})");
}

TEST_F(RouterServices, ThatComeBackAreCalledAgain) {
    SessionClient client;
    for (int i = 0; i < 3; ++i) {
        BusService service(fleet);
        client.say(request("ports.Get", "1"));
        service.reply(service.next_request(), std::to_string(i));
        EXPECT_EQ(member(client.hear(), "result"), std::to_string(i));
        service.session.close();
        EXPECT_TRUE(support::wait_until([&] { return code_of(client.ask(request("ports.Get", "1"))) == "-32601"; }));
    }
}

TEST_F(RouterServices, OnTheBusThatAreKilledHaveTheirCallersAnsweredAtOnceAndAreCalledAgain) {
    fleet.start_lone_router({"--reply-timeout", "86400000"}); // nobody waits for that
    Registration registration = Registration::on_bus();
    registration.publish = support::free_bus_address();
    SessionClient client;
    std::string over_one_shot;
    {
        BusService killed(fleet, registration);
        for (const char *id : {"1", "2"}) {
            client.say(request("ports.Get", id));
            killed.next_request();
        }
        const StreamClient one_shot = fleet.connect();
        one_shot.say(request("ports.Get", "\"text\""));
        killed.next_request();
        killed.session.close(); // as the rest of it at the end of the block
        over_one_shot = one_shot.hear();
    }
    const std::string data = R"({"message":"played, which serves ports.Get, is not there","service":"played",)"
                             R"("channel":"3a6f8f51-502f-4238-9638-29764ff1a8a4"})";
    EXPECT_EQ(code_of(over_one_shot), "-32601");
    EXPECT_EQ(data_of(over_one_shot), data);
    for (const char *id : {"1", "2"}) {
        const std::string answer = client.hear();
        EXPECT_EQ(member(answer, "id"), id);
        EXPECT_EQ(code_of(answer), "-32601");
        EXPECT_EQ(data_of(answer), data);
    }
    EXPECT_EQ(data_of(client.ask(request("ports.Get", "3"))), data) << "and so is who comes later";
    EXPECT_EQ(status_member("in_flight"), "0");
    BusService back(fleet, registration);
    client.say(request("ports.Get", "4"));
    back.reply(back.next_request(), "\"back\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"back\"") << "the first one after it";
}

TEST_F(RouterServices, RealOnesAreKnownToBeGoneAndToBeBack) {
    fleet.start_ports();
    const std::string asked = request("ports.Get", "1", R"(,"params":{"port_id":"c1-1"})");
    EXPECT_EQ(code_of(fleet.ask(asked)), "(none)");
    fleet.ports->signal(SIGKILL);
    EXPECT_TRUE(support::wait_until([&] { return code_of(fleet.ask(asked)) == "-32601"; }));
    EXPECT_EQ(member(data_of(fleet.ask(asked)), "service"), "\"portsd\"");
    fleet.start_ports();
    EXPECT_EQ(code_of(fleet.ask(asked)), "(none)") << "the first one after the restart";
}

TEST_F(RouterServices, NobodyServesWhatNobodyEverOffered) {
    const std::string nobody = fleet.ask(request("ports.Get", "7"));
    EXPECT_EQ(code_of(nobody), "-32601");
    EXPECT_EQ(data_of(nobody), R"({"message":"no service is there for ports.Get","service":null,)"
                               R"("channel":"3a6f8f51-502f-4238-9638-29764ff1a8a4"})");
    DirectService service;
    EXPECT_EQ(message_of(fleet.ask(request("ports.Other", "7"))), "\"no service offers ports.Other\"");
}

TEST_F(RouterServices, HearOfEachOther) {
    DirectService first;
    SessionClient client;
    client.ask(request("router.Subscribe", "1", R"(,"params":{"methods":["*"]})"));
    {
        DirectService second({"second", events_channel, "[]", R"(["events.List"])", "true"});
        EXPECT_EQ(first.hear(),
                  R"({"jsonrpc":"2.0","method":"router.ServiceUp","params":{"name":"second","channel":")" +
                      std::string(events_channel) + R"(","publish":[],"methods":["events.List"]}})");
        EXPECT_EQ(member(second.ask(request("router.Status", "\"next\"")), "id"), "\"next\"") << "not of itself";
    }
    EXPECT_EQ(first.hear(), R"({"jsonrpc":"2.0","method":"router.ServiceDown","params":{"name":"second"}})");
    first.say(R"({"jsonrpc":"2.0","method":"ports.Changed"})");
    EXPECT_EQ(member(client.hear(), "method"), "\"ports.Changed\"") << "those are for services";
}

/** Otherwise one that comes and goes would close all that are at work for a while. */
TEST_F(RouterServices, AreNotClosedForAllThatPublishNowhereAndComeAndGo) {
    DirectService at_work;
    std::string methods = "[";
    for (int i = 0; i < 256; ++i) {
        methods += (i > 0 ? ",\"events." : "\"events.") + std::string(110, 'x') + std::to_string(i) + "\"";
    }
    constexpr int times = 400; // some 12 MiB
    for (int i = 0; i < times; ++i) {
        const DirectService passing({"passing", events_channel, "[]", methods + "]", "true"});
    }
    EXPECT_TRUE(support::wait_until([&] {
        const std::string services = status_member("services");
        return member(services.substr(services.find(R"({"name":"passing")")), "state") == "\"gone\"";
    }));
    EXPECT_EQ(member(at_work.hear_of("router.Lost"), "method"), "\"router.Lost\"");
    SessionClient client;
    client.say(request("ports.Get", "1"));
    at_work.reply(at_work.next_request(), "\"there\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"there\"");
}

TEST_F(RouterServices, AreShownInTheStatus) {
    { DirectService gone(Registration{"gone"}); }
    EXPECT_TRUE(fleet.router->says("Service gone has gone"));
    Registration registration;
    registration.methods = R"(["ports.Set"])";
    DirectService up(registration);
    SessionClient client;
    client.say(request("ports.Set", "1"));
    up.next_request();
    const std::string services = status_member("services");
    const std::string played = services.substr(services.find(R"({"name":"played")"));
    EXPECT_EQ(member(played, "state"), "\"up\"");
    EXPECT_EQ(member(played, "channel"), "\"" + std::string(first_channel) + "\"");
    EXPECT_EQ(member(played, "methods"), R"(["ports.Set"])");
    EXPECT_EQ(member(played, "direct"), "true");
    EXPECT_EQ(member(played, "in_flight"), "1");
    EXPECT_GT(std::stol(member(played, "since")), 1577836800L) << "seconds since 1970";
    EXPECT_EQ(member(services.substr(services.find(R"({"name":"gone")")), "state"), "\"gone\"");
}

// --- Cancellation --------------------------------------------------------------------------------------------------

TEST_F(RouterServices, AreToldWhatNobodyWaitsForAnyMore) {
    fleet.start_lone_router({"--reply-timeout", "200"});
    DirectService service;
    const auto cancel = [](const std::string &asked) {
        return R"({"jsonrpc":"2.0","method":"service.Cancel","params":{"transaction_id":)" +
               member(asked, "transaction_id") + "}}";
    };
    StreamClient leaving = fleet.connect();
    leaving.say(request("ports.Get", "1"));
    const std::string abandoned = service.next_request();
    leaving.close();
    EXPECT_EQ(service.hear(), cancel(abandoned));
    SessionClient client;
    client.say(request("ports.Get", "1"));
    const std::string late = service.next_request();
    EXPECT_EQ(service.hear(), cancel(late));
    EXPECT_EQ(code_of(client.hear()), "-32005");
    service.reply(late, "\"late\"");
    service.reply(abandoned, "\"late\"");
    EXPECT_EQ(member(service.ask(request("router.Status", "1")), "id"), "1");
    EXPECT_EQ(status_member("discarded"), "2");
    EXPECT_EQ(status_member("timeouts"), "1");
    EXPECT_EQ(status_member("cancelled"), "1");
}

// --- Whose reply it is ---------------------------------------------------------------------------------------------

TEST_F(RouterServices, ReplyToTheirOwnRequestsOnly) {
    DirectService service;
    DirectService foreign({"foreign", events_channel, "[]", R"(["events.List"])", "true"});
    BusService on_bus(fleet, {"bus", first_channel, "[]", R"(["mzu.List"])", ""});
    SessionClient client;
    client.say(request("ports.Get", "1"));
    const std::string asked = service.next_request();
    foreign.reply(asked, "\"foreign\"");
    on_bus.reply(asked, "\"bus\"");
    service.say(R"({"jsonrpc":"2.0","id":"ports.Set","result":1,"transaction_id":)" + member(asked, "transaction_id") +
                "}");
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","result":1})");
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","result":1,"transaction_id":"x"})");
    service.say("{}");
    EXPECT_TRUE(support::wait_until([&] { return status_member("discarded") == "6"; })) << status_member("discarded");
    service.reply(asked, "\"right\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
    client.say(request("mzu.List", "2"));
    const std::string over_bus = on_bus.next_request();
    foreign.reply(over_bus, "\"foreign\"");
    on_bus.session.say(service_reply(over_bus, "\"by the wrong road\""));
    on_bus.reply(over_bus, "\"right\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

/** A client that is a service would take such a reply for a request, and believe what it says of its caller. */
TEST_F(RouterServices, ReplyWithNoRequest) {
    BusService on_bus(fleet, {"bus", first_channel, "[]", R"(["mzu.List"])", ""});
    SessionClient client;
    client.say(request("mzu.List", "2"));
    on_bus.publish_reply(R"({"jsonrpc":"2.0","method":"ports.Set","params":{},"id":"mzu.List","result":1,)"
                         R"("caller":{"pid":1,"uid":0,"gid":0},"transaction_id":)" +
                         member(on_bus.next_request(), "transaction_id") + "}");
    const std::string answer = client.hear();
    EXPECT_EQ(member(answer, "result"), "1");
    EXPECT_EQ(answer.find("\"method\""), std::string::npos) << answer;
}

TEST_F(RouterServices, CannotAnswerAsAClient) {
    DirectService service;
    SessionClient client;
    SessionClient stranger;
    client.say(request("ports.Get", "1"));
    const std::string asked = service.next_request();
    EXPECT_EQ(code_of(stranger.ask(service_reply(asked, "\"forged\""))), "-32601");
    service.reply(asked, "\"right\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

// --- Who calls -------------------------------------------------------------------------------------------------------

namespace {

/** What the router says of this process, as the last member of a request. */
std::string this_process() {
    return R"(,"caller":{"pid":)" + std::to_string(getpid()) + R"(,"uid":)" + std::to_string(getuid()) + R"(,"gid":)" +
           std::to_string(getgid()) + "}}";
}

bool ends_with(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

constexpr char forged[] = R"(,"caller":{"pid":1,"uid":0,"gid":0,"road":"x"},"params":{"caller":"mine"})";

Registration told_who_calls() {
    Registration registration;
    registration.callers = "true";
    return registration;
}

} // namespace

TEST_F(RouterServices, AreToldWhoCallsThroughBothUnixSockets) {
    DirectService service(told_who_calls());
    const StreamClient once = fleet.connect();
    once.say(request("ports.Get", "1"));
    std::string asked = service.next_request();
    EXPECT_TRUE(ends_with(asked, this_process())) << asked;
    service.reply(asked, "0");
    EXPECT_EQ(member(once.hear(), "caller"), "(none)") << "answers have no such member";
    SessionClient session;
    session.say(request("ports.Get", "1"));
    asked = service.next_request();
    EXPECT_TRUE(ends_with(asked, this_process())) << asked;
    session.say("[" + request("ports.Get", "2") + "," + request("ports.Get", "3") + "]");
    EXPECT_TRUE(ends_with(service.next_request(), this_process()));
    EXPECT_TRUE(ends_with(service.next_request(), this_process()));
}

TEST_F(RouterServices, AreToldTheProcessThatCalls) {
    DirectService service(told_who_calls());
    const support::Process other("ctl", {TAVRIXCTL, "call", "--session", "session.sock", "ports.Get"});
    const std::string asked = service.next_request();
    EXPECT_EQ(member(member(asked, "caller"), "pid"), std::to_string(other.pid())) << asked;
    EXPECT_EQ(member(member(asked, "caller"), "uid"), std::to_string(getuid()));
}

TEST_F(RouterServices, NeverHearAClientsOwnWordForWhoItIs) {
    DirectService service(told_who_calls());
    Registration other{"other"};
    other.methods = R"(["mzu.List"])";
    DirectService untold(other);
    SessionClient session;
    const StreamClient once = fleet.connect();
    once.say(request("ports.Get", "1", forged));
    const std::string ids = ids_of_bus;
    const std::string asked = service.next_request();
    EXPECT_EQ(asked, R"({"jsonrpc":"2.0","method":"ports.Get","params":{"caller":"mine"},"transaction_id":)" +
                         member(asked, "transaction_id") + ids.substr(0, ids.size() - 1) + this_process());
    session.say(request("ports.Get", "1", forged));
    EXPECT_TRUE(ends_with(service.next_request(), this_process()));
    session.say(request("mzu.List", "1", forged));
    const std::string untold_request = untold.next_request();
    EXPECT_TRUE(ends_with(untold_request, ids)) << untold_request;
    EXPECT_EQ(member(untold_request, "caller"), "(none)");
    session.say(request("logger.ReloadConf", "1", forged)); // which goes to all of them
    EXPECT_TRUE(ends_with(service.hear_of("logger.ReloadConf"), this_process()));
    EXPECT_EQ(member(untold.hear_of("logger.ReloadConf"), "caller"), "(none)");
}

TEST_F(RouterServices, AreToldOfNobodyWhoCallsOverTcp) {
    const int port = support::free_port();
    fleet.start_router_with_tcp(port);
    DirectService service(told_who_calls());
    for (const char *own : {"", forged}) {
        const StreamClient once = StreamClient::tcp_port(port);
        once.say(request("ports.Get", "1", own));
        const std::string asked = service.next_request();
        EXPECT_EQ(member(asked, "caller"), "(none)") << asked;
        service.reply(asked, "0");
        once.hear();
    }
}

TEST_F(RouterServices, AreNotToldWhoCallsUnlessTheyAsk) {
    for (const char *callers : {"", "false"}) {
        Registration registration;
        registration.callers = callers;
        DirectService service(registration);
        SessionClient client;
        client.say(request("ports.Get", "1"));
        const std::string asked = service.next_request();
        EXPECT_TRUE(ends_with(asked, ids_of_bus)) << asked;
        client.close();
        service.close();
        EXPECT_TRUE(
            support::wait_until([&] { return status_member("services").find("\"gone\"") != std::string::npos; }));
    }
}

TEST_F(RouterServices, ReplyTwiceToNoAvail) {
    DirectService service;
    SessionClient client;
    client.say(request("ports.Get", "1"));
    const std::string first = service.next_request();
    service.reply(first, "1");
    service.reply(first, "2");
    EXPECT_EQ(member(client.hear(), "result"), "1");
    client.say(request("ports.Get", "2"));
    const std::string second = service.next_request();
    EXPECT_NE(member(second, "transaction_id"), member(first, "transaction_id"));
    service.reply(first, "3");
    service.reply(second, "4");
    EXPECT_EQ(member(client.hear(), "result"), "4");
}

TEST_F(RouterServices, ReplyWithAsMuchAsTheBusCarries) {
    DirectService service;
    SessionClient client;
    for (const size_t size : {65536U, 8U * 1024 * 1024}) {
        const std::string result = "\"" + std::string(size, 'r') + "\"";
        client.say(request("ports.Get", "1"));
        service.reply(service.next_request(), result);
        EXPECT_TRUE(member(client.hear(), "result") == result) << size;
    }
    service.say(std::string(9 * 1024 * 1024, ' '));
    EXPECT_EQ(code_of(service.hear()), "-32600") << "a line that is longer than any reply";
    EXPECT_TRUE(service.gets_closed());
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "1"))), "-32601");
}

/** The router escapes what is beyond ASCII. A service of the kit leaves its session over a longer line. */
TEST_F(RouterServices, SendNobodyALineThatGrowsBeyondWhatSessionsTake) {
    DirectService service;
    SessionClient client;
    client.ask(request("router.Subscribe", "1", R"(,"params":{"methods":["ports.*"]})"));
    const auto letters = [](size_t count) {
        std::string text;
        for (size_t i = 0; i < count; ++i) {
            text += "\xc3\xa9";
        }
        return "\"" + text + "\"";
    };
    constexpr size_t too_many = size_t{9} * 1024 * 1024 / 6;
    client.say(request("ports.Get", "\"long\"", ",\"transaction_id\":5"));
    service.reply(service.next_request(), letters(too_many));
    EXPECT_EQ(client.hear(), R"({"jsonrpc":"2.0","id":"long","error":{"code":-32603,"message":"Internal error",)"
                             R"("data":{"message":"the answer is too long"}},"transaction_id":5})");
    const auto say_changed = [&](const std::string &what) {
        service.say(R"({"jsonrpc":"2.0","method":"ports.Changed","params":{"to":)" + what + "}}");
    };
    say_changed(letters(too_many));
    say_changed("1");
    EXPECT_EQ(member(member(client.hear(), "params"), "to"), "1");
    client.say(request("ports.Get", "2"));
    service.reply(service.next_request(), letters(too_many - 100));
    EXPECT_EQ(client.hear().size(),
              6 * (too_many - 100) + std::string(R"({"jsonrpc":"2.0","id":2,"result":""})").size());
}

TEST_F(RouterServices, ThatDoNotReadAreBusyAtLast) {
    fleet.start_lone_router({"--max-in-flight", "100000", "--reply-timeout", "86400000"});
    DirectService service;
    SessionClient client;
    const std::string filling = ",\"params\":{\"filling\":\"" + std::string(60000, 'x') + "\"}";
    std::string answer;
    for (int i = 0; i < 400 && answer.empty(); ++i) { // up to 24 megabytes
        client.say(request("ports.Get", std::to_string(i), filling));
        client.say(request("router.Status", "\"status\""));
        const std::string line = client.hear();
        answer = member(line, "id") == "\"status\"" ? "" : line;
    }
    EXPECT_EQ(code_of(answer), "-32014") << answer;
    EXPECT_EQ(message_of(answer), "\"played does not read its requests\"");
    EXPECT_EQ(status_member("busy"), "1");
    EXPECT_EQ(status_member("served"), "0");
    service.reply(service.next_request(), "\"it reads again\"");
    EXPECT_EQ(member(client.hear_of("it reads again"), "result"), "\"it reads again\"");
}

// --- The logger's configuration ------------------------------------------------------------------------------------

TEST_F(RouterServices, AllRereadTheLoggersConfigurationAndOneAnswers) {
    DirectService direct;
    BusService on_bus(fleet, {"bus", TAVRIX_CHANNEL_DEFAULT, "[]", R"(["other.List"])", ""});
    SessionClient client;
    client.say(request("logger.ReloadConf", "1"));
    const std::string over_bus = on_bus.next_request();
    EXPECT_EQ(member(over_bus, "method"), "\"logger.ReloadConf\"");
    direct.reply(direct.hear_of("logger.ReloadConf"), "\"first\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"first\"");
    on_bus.reply(over_bus, "\"second\"");
    EXPECT_EQ(member(client.ask(request("router.Status", "\"next\"")), "id"), "\"next\"");
}
