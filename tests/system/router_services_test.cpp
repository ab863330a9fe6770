/*
 * Services that register with the router: what it says to each registration, and what becomes of their calls.
 */
#include <filesystem>
#include <iterator>

#include "support/mutation.h"
#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

namespace {

constexpr char ids_of_bus[] = R"(,"id":")" TAVRIX_ROUTER_REPLY_CHANNEL R"("})";

constexpr char data_of_gone[] = R"({"message":"played, which serves ports.Get, is not there","service":"played",)"
                                R"("channel":")" TAVRIX_CHANNEL_FIRST R"("})";

class RouterServices : public LoneRouter {
  protected:
    SessionClient client;
};

class RouterServiceAndClient : public RouterServices {
  protected:
    DirectService service;
};

} // namespace

TEST_F(RouterServices, RegisterToTheByte) {
    SessionClient service;
    EXPECT_EQ(service.ask(R"({"jsonrpc":"2.0","method":"router.Register","id":1,"params":{"name":"portsd",)"
                          R"("channel":")" TAVRIX_CHANNEL_FIRST R"(","publish":[],)"
                          R"("methods":["ports.Get","mzu.List"],"direct":true}})"),
              R"({"jsonrpc":"2.0","id":1,"result":0})");
    client.say(request("ports.Get", "\"mine\"", ",\"transaction_id\":3,\"params\":{\"port_id\":\"c1-1\"}"));
    const std::string asked = service.hear();
    const std::string number = member(asked, "transaction_id");
    EXPECT_EQ(asked, R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":)" + number +
                         R"(,"params":{"port_id":"c1-1"})" + ids_of_bus);
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","result":{"a":1},"transaction_id":)" + number + "}");
    EXPECT_EQ(client.hear(), R"({"jsonrpc":"2.0","id":"mine","result":{"a":1},"transaction_id":3})");
    EXPECT_THAT(fleet.ask(request("router.Bus", "1")),
                StartsWith(R"({"jsonrpc":"2.0","id":"router.Bus","result":{"publish":[")" + fleet.router_address +
                           R"("],"folder":null,"services":[{)"));
}

TEST_F(RouterServices, ShowInTheMetricsWhateverTheirMethodsAreCalled) {
    // With a character of two bytes where a cut would go through it.
    const std::string method = "p" + repeated(R"(\")", 2 * 98) + "z\xc3\xa9";
    DirectService service(Registration::of("[\"" + method + "\"]"));
    EXPECT_EQ(result_of(answered(service, client, request(method, "1"), "0")), "0");
    EXPECT_THAT(fleet.ask(request("router.Metrics", "2")), HasSubstr("tavrix_router_calls_total{method="));
}

TEST_F(RouterServices, SettleBothDirectionsOfTheBusBeforeTheyAreThere) {
    const std::string address = free_bus_address();
    const PlayedService bus(fleet, TAVRIX_CHANNEL_FIRST, address);
    Registration registration = Registration::on_bus();
    registration.publish = "[\"" + address + "\"]";
    SessionClient service;
    service.say(registration.line("7"));
    for (int i = 0; i < 3; ++i) { // again and again, until there is a hello
        EXPECT_EQ(bus.next_request(), notification("service.Probe", R"({"name":"played"})"));
    }
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32601") << "it is not there yet";
    EXPECT_EQ(member(fleet.status("services").substr(1), "state"), "\"settling\"");
    EXPECT_EQ(service.hear(0), "(time-out)");
    const std::string hello = R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"played","channel":")";
    bus.reply(hello + TAVRIX_CHANNEL_EVENTS + "\"}}"); // of another channel
    EXPECT_TRUE(wait_until([&] {
        bus.reply(hello + TAVRIX_CHANNEL_FIRST + "\"}}");
        return service.hear(5) == R"({"jsonrpc":"2.0","id":7,"result":0})";
    }));
    EXPECT_EQ(member(fleet.status("services").substr(1), "state"), "\"up\"");
}

TEST_F(RouterServices, AreWelcomedUnderTheNumberOfTheirHello) {
    BusService service(fleet);
    const std::string hello = R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"played","channel":")" +
                              std::string(TAVRIX_CHANNEL_FIRST) + "\"";
    service.reply(hello + "}}");
    service.reply(hello + R"(,"number":"8"}})");
    service.reply(hello + R"(,"number":9007199254740993}})");
    EXPECT_EQ(service.next_request(), R"({"jsonrpc":"2.0","method":"service.Welcome",)"
                                      R"("params":{"name":"played","number":9007199254740993}})")
        << "those without a number get none";
    const StreamClient one_shot = fleet.connect();
    service.reply(forwarded(service, one_shot, request("ports.Get", "1")), "1");
    service.reply(hello + R"(,"number":10}})");
    EXPECT_THAT(service.next_request(), HasSubstr("\"number\":10"));
    service.session.close();
    EXPECT_EQ(result_of(one_shot.hear()), "1") << "the answer came before the welcome";
}

TEST_F(RouterServices, ThatDoNotSettleAreTold) {
    Registration registration = Registration::on_bus();
    registration.publish = "[\"" + free_bus_address() + "\"]";
    SessionClient service;
    const std::string answer = service.ask(registration.line("7"));
    EXPECT_EQ(code_of(answer), "-32005") << answer;
    EXPECT_EQ(id_of(answer), "7");
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32601");
}

TEST_F(RouterServices, MayPublishOnTheBusAndServeDirectly) {
    Registration registration = Registration::on_bus();
    registration.direct = "true";
    BusService service(fleet, registration);
    EXPECT_EQ(result_of(service.registered), "0");
    client.say(request("ports.Get", "1"));
    const std::string asked = service.session.hear_of("ports.Get");
    service.reply(service_reply(asked, "\"by the wrong road\""));
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
    service.session.say(service_reply(asked, "\"right\""));
    EXPECT_EQ(result_of(client.hear()), "\"right\"");
}

TEST_F(RouterServices, OnAnIpcAddressInTheBusFolder) {
    const std::string bus = "bus-" + std::to_string(getpid());
    fleet.router_address = "ipc://" + bus + "/router";
    fleet.start_lone_router();
    const std::string known = result_of(fleet.ask(request("router.Bus", "1")));
    const std::string here = std::filesystem::current_path().string() + "/";
    EXPECT_EQ(members_of(known, {"publish", "folder", "reply_timeout_ms", "services"}), // for services from elsewhere
              "[\"ipc://" + here + bus + "/router\"] \"" + here + bus + "\" 10000 []");
    Registration registration = Registration::on_bus();
    registration.publish = "ipc://" + bus + "/played";
    BusService service(fleet, registration);
    EXPECT_EQ(service.registered, R"({"jsonrpc":"2.0","id":"registration","result":0})");
    EXPECT_EQ(result_of(fleet.ask(request("router.Bus", "1")), "services"),
              R"([{"name":"played","channel":")" TAVRIX_CHANNEL_FIRST R"(","publish":["ipc://)" + bus +
                  R"(/played"],"methods":["ports.Get"]}])");
    EXPECT_TRUE(serves(service, fleet.connect()));
}

TEST_F(RouterServices, AreRefusedWithWordsForWhatIsWrong) {
    SessionClient service;
    const auto expect_refused = [&service](const Registration &registration, const std::string &words) {
        EXPECT_EQ(error_of(service.ask(registration.line())), "-32602 " + words) << registration.line();
    };
    const std::string c = TAVRIX_CHANNEL_FIRST;
    for (const std::string &name : {std::string(), std::string(51, 'n'), std::string("a b"), std::string("a/b"),
                                    std::string(".."), std::string("a\\nb"), std::string("\\u00e9")}) {
        expect_refused({name, c, "[]", "[]", "true"}, "name: 1 to 50 letters, digits, '.', '-' and '_'");
    }
    for (const std::string &channel : {std::string(), std::string(TAVRIX_ROUTER_REPLY_CHANNEL), c + "|"}) {
        expect_refused({"n", channel, "[]", "[]", "true"}, "channel: none of the service channels");
    }
    for (const std::string &methods :
         {std::string("5"), std::string("[5]"), std::string(R"([""])"), std::string(R"(["p\n"])"),
          std::string(R"(["p|"])"), "[\"p" + std::string(255, 'm') + "\"]",
          array_of(257, [](size_t i) { return "\"p" + std::to_string(i) + "\""; })}) {
        expect_refused({"n", c, "[]", methods, "true"}, "methods: at most 256 names of at most 255 bytes");
    }
    expect_refused({"n", c, "[]", R"(["ports.Get","events.List"])", "true"},
                   "methods: events.List is not of this channel");
    for (const std::string &channel : {c, std::string(TAVRIX_CHANNEL_DEFAULT)}) {
        expect_refused({"n", channel, "[]", R"(["router.Status"])", "true"},
                       "methods: router.Status is not of this channel");
    }
    for (const std::string &publish : {std::string(R"("tcp://127.0.0.1:1")"), std::string(R"(["tcp://\n"])"),
                                       "[" + repeated(R"("tcp://127.0.0.1:1",)", 9 * 20 - 1) + "]"}) {
        expect_refused({"n", c, publish, "[]", "true"}, "publish: at most 8 addresses of the bus");
    }
    for (const char *publish : {"[]", ""}) {
        expect_refused({"n", c, publish, "[]", publish[0] == '[' ? "false" : ""},
                       "publish: a service that takes its requests from the bus needs an address there");
    }
    for (const std::string &address :
         {std::string("nonsense"), std::string("inproc://x"), "ipc://" + std::string(108, 'p')}) {
        expect_refused({"n", c, "[\"tcp://127.0.0.1:1\",\"" + address + "\"]", "[]", ""},
                       "publish: " + address + " is not an address of the bus");
    }
    for (const char *direct : {"5", "\"true\""}) {
        expect_refused({"n", c, "[]", "[]", direct}, "direct: true or false");
    }
    const std::string bad_callers = "callers: true or false; only a direct service is told who calls";
    expect_refused({"n", c, "[]", "[]", "true", "1"}, bad_callers);
    for (const char *direct : {"", "false"}) {
        expect_refused({"n", c, R"(["tcp://127.0.0.1:1"])", "[]", direct, "true"}, bad_callers);
    }
    EXPECT_EQ(code_of(service.ask(request("router.Register", "1"))), "-32602") << "no params at all";
    EXPECT_EQ(fleet.status("services"), "[]") << "none of them left anything behind";
    EXPECT_EQ(result_of(service.ask(Registration{std::string(50, 'n')}.line())), "0") << "50 fit";
}

TEST_F(RouterServices, SayWhatTheyLikeAsTheirAddress) {
    for (const std::string address :
         {"tcp://", "ipc://", "tcp://:", "tcp://127.0.0.1", "tcp://127.0.0.1:0", "tcp://127.0.0.1:99999", "tcp://;:1",
          "ipc:///", "ipc://.", "ipc:///nowhere/at/all", "tcp://no such host:1", "tcp://[::1]:1"}) {
        SessionClient service;
        service.say(Registration{"n", TAVRIX_CHANNEL_FIRST, "[\"" + address + "\"]", "[]", ""}.line());
        EXPECT_EQ(member(service.ask(request("router.Status", "1")), "jsonrpc"), "\"2.0\"") << address;
    }
    EXPECT_EQ(code_of(fleet.ask(request("router.Status", "1"))), "(none)");
}

TEST_F(RouterServices, HaveOneNameEach) {
    DirectService first;
    SessionClient second;
    EXPECT_EQ(error_of(second.ask(Registration::of(R"(["ports.Set"])").line())),
              "-32007 a service of this name is registered already");
    EXPECT_EQ(error_of(second.ask(Registration::of(R"(["ports.Set","ports.Get"])", "other").line())),
              "-32007 ports.Get is offered by played already");
    EXPECT_EQ(result_of(second.ask(Registration::of(R"(["ports.Set"])", "other").line())), "0");
    EXPECT_EQ(error_of(second.ask(Registration{"third"}.line())), "-32007 this session is a service already");
}

TEST_F(RouterServices, MayOfferWhatOneThatHasGoneOffered) {
    { DirectService gone; }
    EXPECT_TRUE(fleet.router->says("Service played has gone"));
    DirectService heir(Registration{"heir"});
    EXPECT_TRUE(serves(heir, SessionClient()));
    EXPECT_EQ(code_of(SessionClient().ask(Registration{}.line())), "-32007") << "it is the heir's now";
}

TEST_F(RouterServices, WithoutMethodsGetWhatNoOtherOffers) {
    DirectService named;
    DirectService taker(Registration::of("[]", "any"));
    EXPECT_TRUE(serves(named, client));
    EXPECT_TRUE(serves(taker, client, "mzu.Whatever"));
}

TEST_F(RouterServices, AreBoundedInNumber) {
    std::vector<SessionClient> services(256);
    for (size_t i = 0; i < services.size(); ++i) {
        const std::string number = std::to_string(i);
        const Registration registration = Registration::of("[\"ports.M" + number + "\"]", "s" + number);
        EXPECT_EQ(result_of(services[i].ask(registration.line())), "0");
    }
    SessionClient one_more;
    EXPECT_EQ(error_of(one_more.ask(Registration{"more"}.line())), "-32014 too many services");
    services.pop_back();
    EXPECT_TRUE(fleet.router->says("Service s255 has gone"));
    EXPECT_EQ(result_of(one_more.ask(Registration{"more"}.line())), "0") << "one that has gone makes room";
}

TEST_F(RouterServices, MayComeAndGoTenThousandTimes) {
    write_log_levels("routerd=off"); // two lines each
    fleet.router->signal(SIGHUP);
    const auto open_ones = [this] {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(fleet.router->pid()) + "/fd");
        return std::distance(begin(all), end(all));
    };
    EXPECT_EQ(id_of(client.ask(request("router.Status", "1"))), "1");
    const auto before = open_ones();
    for (int i = 0; i < 10000; ++i) {
        const std::string method = "ports.M" + std::to_string(i);
        DirectService service(Registration::of("[\"" + method + "\"]", "s" + std::to_string(i)));
        if (i % 100 == 0) {
            ASSERT_TRUE(serves(service, client, method));
        }
    }
    EXPECT_TRUE(wait_until([&] { return open_ones() <= before; }));
    EXPECT_LE(json_array_size(parsed(fleet.status("services")).get()), 256U) << "those that have gone make room";
}

TEST_F(RouterServices, ThatGoHaveTheirCallersAnsweredAtOnceAndAreCalledAgain) {
    fleet.start_lone_router({"--reply-timeout", "86400000"}); // nobody waits for that
    const auto come_and_go = [this](auto begin) {
        EXPECT_TRUE(wait_until([this] { return fleet.status("services").find("\"up\"") == std::string::npos; }));
        SessionClient caller;
        const StreamClient one_shot = fleet.connect();
        {
            auto service = begin();
            forwarded(service, caller, request("ports.Get", "1", ",\"transaction_id\":8"));
            forwarded(service, one_shot, request("ports.Get", "\"text\""));
        }
        EXPECT_EQ(caller.hear(),
                  R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found","data":)" +
                      std::string(data_of_gone) + R"(},"transaction_id":8})");
        const std::string other = one_shot.hear();
        EXPECT_EQ(code_of(other), "-32601");
        EXPECT_EQ(id_of(other), "\"text\"") << "the router's own answer";
        EXPECT_EQ(data_of(other), data_of_gone);
        EXPECT_EQ(data_of(caller.ask(request("ports.Get", "2"))), data_of_gone) << "and so is who comes later";
        EXPECT_EQ(fleet.status("in_flight"), "0");
        auto back = begin();
        EXPECT_TRUE(serves(back, caller)) << "the first one after it";
    };
    come_and_go([] { return DirectService(); });
    EXPECT_EQ(fleet.status("gone"), "2");
    EXPECT_EQ(member(member(fleet.status("methods"), "ports.Get"), "gone"), "2");
    Registration registration = Registration::on_bus();
    for (const std::string &publish : {std::string("[]"), free_bus_address()}) { // another one each time, or the same
        registration.publish = publish;
        come_and_go([&] { return BusService(fleet, registration); });
    }
}

TEST_F(RouterServiceAndClient, ThatReplyWithNothingAreAnErrorForTheirCallers) {
    client.say(request("ports.Get", "1", ",\"transaction_id\":8"));
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","transaction_id":)" +
                member(service.next_request(), "transaction_id") + "}");
    EXPECT_EQ(client.hear(), R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"Internal error",)"
                             R"("data":null},"transaction_id":8})");
}

TEST_F(RouterServices, NobodyServesWhatNobodyEverOffered) {
    const std::string nobody = fleet.ask(request("ports.Get", "7"));
    EXPECT_EQ(code_of(nobody), "-32601");
    EXPECT_EQ(data_of(nobody), R"({"message":"no service is there for ports.Get","service":null,)"
                               R"("channel":")" TAVRIX_CHANNEL_FIRST R"("})");
    const DirectService service;
    EXPECT_EQ(error_of(fleet.ask(request("ports.Other", "7"))), "-32601 no service offers ports.Other");
}

TEST_F(RouterServices, HearOfEachOther) {
    DirectService first;
    client.ask(subscription("Subscribe", R"(["*"])"));
    {
        DirectService second({"second", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.List"])", "true"});
        EXPECT_EQ(first.hear(), notification("router.ServiceUp", R"({"name":"second","channel":")" TAVRIX_CHANNEL_EVENTS
                                                                 R"(","publish":[],"methods":["events.List"]})"));
        EXPECT_EQ(id_of(second.ask(request("router.Status", "\"next\""))), "\"next\"") << "not of itself";
    }
    EXPECT_EQ(first.hear(), notification("router.ServiceDown", R"({"name":"second"})"));
    first.say(notification("ports.Changed"));
    EXPECT_EQ(client.hear(), notification("ports.Changed")) << "those are for services";
}

/** Otherwise one that comes and goes would close all that are at work for a while. */
TEST_F(RouterServices, AreNotClosedForAllThatPublishNowhereAndComeAndGo) {
    DirectService at_work;
    const std::string methods =
        array_of(256, [](size_t i) { return "\"events." + std::string(110, 'x') + std::to_string(i) + "\""; });
    constexpr int times = 400; // some 12 MiB
    for (int i = 0; i < times; ++i) {
        const DirectService passing({"passing", TAVRIX_CHANNEL_EVENTS, "[]", methods, "true"});
    }
    EXPECT_TRUE(wait_until([&] {
        const std::string services = fleet.status("services");
        return member(services.substr(services.find(R"({"name":"passing")")), "state") == "\"gone\"";
    }));
    EXPECT_EQ(member(at_work.hear_of("router.Lost"), "method"), "\"router.Lost\"");
    EXPECT_TRUE(serves(at_work, client));
}

TEST_F(RouterServices, AreShownInTheStatus) {
    { DirectService gone(Registration{"gone"}); }
    EXPECT_TRUE(fleet.router->says("Service gone has gone"));
    DirectService up(Registration::of(R"(["ports.Set"])"));
    forwarded(up, client, request("ports.Set", "1"));
    const std::string services = fleet.status("services");
    const std::string played = services.substr(services.find(R"({"name":"played")"));
    EXPECT_EQ(members_of(played, {"state", "channel", "methods", "direct", "in_flight"}),
              "\"up\" \"" TAVRIX_CHANNEL_FIRST R"(" ["ports.Set"] true 1)");
    EXPECT_GT(std::stol(member(played, "since")), 1577836800L) << "seconds since 1970";
    EXPECT_EQ(member(services.substr(services.find(R"({"name":"gone")")), "state"), "\"gone\"");
}

TEST_F(RouterServices, AreToldWhatNobodyWaitsForAnyMore) {
    fleet.start_lone_router({"--reply-timeout", "200"});
    DirectService service;
    const auto cancel = [](const std::string &asked) {
        return notification("service.Cancel", R"({"transaction_id":)" + member(asked, "transaction_id") + "}");
    };
    StreamClient leaving = fleet.connect();
    const std::string abandoned = forwarded(service, leaving, request("ports.Get", "1"));
    leaving.close();
    EXPECT_EQ(service.hear(), cancel(abandoned));
    SessionClient caller;
    const std::string late = forwarded(service, caller, request("ports.Get", "1"));
    EXPECT_EQ(service.hear(), cancel(late));
    EXPECT_EQ(code_of(caller.hear()), "-32005");
    service.reply(late, "\"late\"");
    service.reply(abandoned, "\"late\"");
    EXPECT_EQ(id_of(service.ask(request("router.Status", "1"))), "1");
    EXPECT_EQ(fleet.status("discarded"), "2");
    EXPECT_EQ(fleet.status("timeouts"), "1");
    EXPECT_EQ(fleet.status("cancelled"), "1");
}

TEST_F(RouterServiceAndClient, ReplyToTheirOwnRequestsOnly) {
    DirectService foreign({"foreign", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.List"])", "true"});
    BusService on_bus(fleet, Registration::on_bus("bus", R"(["mzu.List"])"));
    const std::string asked = forwarded(service, client, request("ports.Get", "1"));
    foreign.reply(asked, "\"foreign\"");
    on_bus.reply(asked, "\"bus\"");
    service.say(R"({"jsonrpc":"2.0","id":"ports.Set","result":1,"transaction_id":)" + member(asked, "transaction_id") +
                "}");
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","result":1})");
    service.say(R"({"jsonrpc":"2.0","id":"ports.Get","result":1,"transaction_id":"x"})");
    service.say("{}");
    EXPECT_EQ(code_of(SessionClient().ask(service_reply(asked, "\"a client's\""))), "-32601");
    EXPECT_TRUE(wait_until([&] { return fleet.status("discarded") == "6"; })) << fleet.status("discarded");
    service.reply(asked, "\"right\"");
    EXPECT_EQ(result_of(client.hear()), "\"right\"");
    const std::string over_bus = forwarded(on_bus, client, request("mzu.List", "2"));
    foreign.reply(over_bus, "\"foreign\"");
    on_bus.session.say(service_reply(over_bus, "\"by the wrong road\""));
    // A client that is a service would take such a reply for a request, and believe what it says of its caller.
    on_bus.reply(R"({"jsonrpc":"2.0","method":"ports.Set","params":{},"id":"mzu.List","result":1,)"
                 R"("caller":{"pid":1,"uid":0,"gid":0},"transaction_id":)" +
                 member(over_bus, "transaction_id") + "}");
    EXPECT_THAT(client.hear(), AllOf(HasSubstr("\"result\":1"), Not(HasSubstr("\"method\""))));
}

namespace {

/** What the router says of this process, as the last member of a request. */
std::string this_process() {
    return R"(,"caller":{"pid":)" + std::to_string(getpid()) + R"(,"uid":)" + std::to_string(getuid()) + R"(,"gid":)" +
           std::to_string(getgid()) + "}}";
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
    const std::string asked = forwarded(service, once, request("ports.Get", "1"));
    EXPECT_THAT(asked, EndsWith(this_process()));
    service.reply(asked, "0");
    EXPECT_EQ(member(once.hear(), "caller"), "(none)") << "answers have no such member";
    SessionClient session;
    session.say(request("ports.Get", "1"));
    session.say("[" + request("ports.Get", "2") + "," + request("ports.Get", "3") + "]");
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(service.next_request(), EndsWith(this_process()));
    }
}

TEST_F(RouterServices, AreToldTheProcessThatCalls) {
    DirectService service(told_who_calls());
    const Process other("ctl", {TAVRIXCTL, "call", "--session", "session.sock", "ports.Get"});
    const std::string asked = service.next_request();
    EXPECT_EQ(member(member(asked, "caller"), "pid"), std::to_string(other.pid())) << asked;
    EXPECT_EQ(member(member(asked, "caller"), "uid"), std::to_string(getuid()));
}

TEST_F(RouterServices, NeverHearAClientsOwnWordForWhoItIs) {
    DirectService service(told_who_calls());
    DirectService untold(Registration::of(R"(["mzu.List"])", "other"));
    SessionClient session;
    const StreamClient once = fleet.connect();
    once.say(request("ports.Get", "1", forged));
    const std::string ids = ids_of_bus;
    const std::string asked = service.next_request();
    EXPECT_EQ(asked, R"({"jsonrpc":"2.0","method":"ports.Get","params":{"caller":"mine"},"transaction_id":)" +
                         member(asked, "transaction_id") + ids.substr(0, ids.size() - 1) + this_process());
    session.say(request("ports.Get", "1", forged));
    EXPECT_THAT(service.next_request(), EndsWith(this_process()));
    session.say(request("mzu.List", "1", forged));
    EXPECT_THAT(untold.next_request(), EndsWith(ids));
    session.say(request("logger.ReloadConf", "1", forged)); // which goes to all of them
    EXPECT_THAT(service.hear_of("logger.ReloadConf"), EndsWith(this_process()));
    EXPECT_EQ(member(untold.hear_of("logger.ReloadConf"), "caller"), "(none)");
}

TEST_F(RouterServices, AreToldOfNobodyWhoCallsOverTcp) {
    const int port = free_port();
    fleet.start_router_with_tcp(port);
    DirectService service(told_who_calls());
    for (const char *own : {"", forged}) {
        const StreamClient once = StreamClient::tcp_port(port);
        once.say(request("ports.Get", "1", own));
        EXPECT_EQ(member(service.next_request(), "caller"), "(none)");
    }
}

TEST_F(RouterServices, AreNotToldWhoCallsUnlessTheyAsk) {
    for (const std::string callers : {"", "false"}) {
        const std::string method = "ports.Get" + callers;
        DirectService service(
            {"played" + callers, TAVRIX_CHANNEL_FIRST, "[]", "[\"" + method + "\"]", "true", callers});
        client.say(request(method, "1"));
        EXPECT_THAT(service.next_request(), EndsWith(ids_of_bus));
    }
}

TEST_F(RouterServiceAndClient, ReplyTwiceToNoAvail) {
    const std::string first = forwarded(service, client, request("ports.Get", "1"));
    service.reply(first, "1");
    service.reply(first, "2");
    EXPECT_EQ(result_of(client.hear()), "1");
    const std::string second = forwarded(service, client, request("ports.Get", "2"));
    EXPECT_NE(member(second, "transaction_id"), member(first, "transaction_id"));
    service.reply(first, "3");
    service.reply(second, "4");
    EXPECT_EQ(result_of(client.hear()), "4");
}

TEST_F(RouterServiceAndClient, ReplyWithAsMuchAsTheBusCarries) {
    for (const size_t size : {65536U, 8U * 1024 * 1024}) {
        const std::string result = "\"" + std::string(size, 'r') + "\"";
        EXPECT_TRUE(result_of(answered(service, client, request("ports.Get", "1"), result)) == result) << size;
    }
    service.say(std::string(9 * 1024 * 1024, ' '));
    EXPECT_EQ(code_of(service.hear()), "-32600") << "a line that is longer than any reply";
    EXPECT_TRUE(service.gets_closed());
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "1"))), "-32601");
}

/** The router escapes what is beyond ASCII. A service of the kit leaves its session over a longer line. */
TEST_F(RouterServiceAndClient, SendNobodyALineThatGrowsBeyondWhatSessionsTake) {
    client.ask(subscription("Subscribe", R"(["ports.*"])"));
    const auto letters = [](size_t count) { return "\"" + repeated("\xc3\xa9", 2 * count) + "\""; };
    constexpr size_t too_many = size_t{9} * 1024 * 1024 / 6;
    EXPECT_EQ(answered(service, client, request("ports.Get", "\"long\"", ",\"transaction_id\":5"), letters(too_many)),
              R"({"jsonrpc":"2.0","id":"long","error":{"code":-32603,"message":"Internal error",)"
              R"("data":{"message":"the answer is too long"}},"transaction_id":5})");
    service.say(notification("ports.Changed", "{\"to\":" + letters(too_many) + "}"));
    service.say(notification("ports.Changed", "{\"to\":1}"));
    EXPECT_EQ(client.hear(), notification("ports.Changed", "{\"to\":1}"));
    EXPECT_EQ(answered(service, client, request("ports.Get", "2"), letters(too_many - 100)).size(),
              6 * (too_many - 100) + std::string(R"({"jsonrpc":"2.0","id":2,"result":""})").size());
}

TEST_F(RouterServices, ThatDoNotReadAreBusyAtLast) {
    fleet.start_lone_router({"--max-in-flight", "100000", "--reply-timeout", "86400000"});
    DirectService service;
    SessionClient caller;
    const std::string filling = ",\"params\":{\"filling\":\"" + std::string(60000, 'x') + "\"}";
    std::string answer;
    for (int i = 0; i < 400 && answer.empty(); ++i) { // up to 24 megabytes
        caller.say(request("ports.Get", std::to_string(i), filling));
        caller.say(request("router.Status", "\"status\""));
        const std::string line = caller.hear();
        answer = id_of(line) == "\"status\"" ? "" : line;
    }
    EXPECT_EQ(error_of(answer), "-32014 played does not read its requests");
    EXPECT_EQ(fleet.status("busy"), "1");
    EXPECT_EQ(fleet.status("served"), "0");
    service.reply(service.next_request(), "\"it reads again\"");
    EXPECT_EQ(result_of(caller.hear_of("it reads again")), "\"it reads again\"");
}

TEST_F(RouterServices, AllRereadTheLoggersConfigurationAndOneAnswers) {
    DirectService direct;
    BusService on_bus(fleet, {"bus", TAVRIX_CHANNEL_DEFAULT, "[]", R"(["other.List"])", ""});
    const std::string over_bus = forwarded(on_bus, client, request("logger.ReloadConf", "1"));
    EXPECT_EQ(member(over_bus, "method"), "\"logger.ReloadConf\"");
    direct.reply(direct.hear_of("logger.ReloadConf"), "\"first\"");
    EXPECT_EQ(result_of(client.hear()), "\"first\"");
    on_bus.reply(over_bus, "\"second\"");
    EXPECT_EQ(id_of(client.ask(request("router.Status", "\"next\""))), "\"next\"");
}
