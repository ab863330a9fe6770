/*
 * The client's verbs for one-way messages: subscribe, wait, push.
 */
#include <csignal>

#include "support/answering_service.h"
#include "support/played_server.h"
#include "support/system_test.h"
#include "tavrix_mq.h"

using namespace support;
using namespace testing;

namespace {

using RoutedCtl = StartedRouter;

std::unique_ptr<Process> subscriber(const std::string &patterns, const std::vector<std::string> &words) {
    return ctl_that_says("waiting for " + patterns, {"subscribe", "--session", "session.sock"}, words);
}

} // namespace

TEST_F(RoutedCtl, SubscribePrintsMatchingNotificationsAsLines) {
    const AnsweringService service("portsd", {"ports.Get"});
    const auto listening = subscriber("ports.* events.Exactly", {"ports.*", "events.Exactly", "--count", "2"});
    service.publish("other.Thing", "{}");
    service.publish("ports.Changed", R"({"port_id":"c1-1"})");
    service.publish("events.Exactly", R"({"text":"\u009b2J"})");
    EXPECT_EQ(listening->wait(), 0) << listening->log();
    EXPECT_THAT(lines_of(listening->output()),
                ElementsAre(EndsWith(R"(  ports.Changed  {"port_id":"c1-1"})"),
                            EndsWith(R"(  events.Exactly  {"text":"\u009B2J"})"))); // it steers no terminal
}

TEST_F(RoutedCtl, SubscribePrintsTheNotificationItselfForPrograms) {
    const AnsweringService service("portsd", {"ports.Get"});
    const auto listening = subscriber("*", {"*", "--json", "short", "--count", "1"});
    service.publish("ports.Changed", R"({"port_id":"c1-1"})");
    EXPECT_EQ(listening->wait(), 0);
    EXPECT_EQ(listening->output(), R"({"jsonrpc":"2.0","method":"ports.Changed","params":{"port_id":"c1-1"}})"
                                   "\n");
}

TEST(CtlSubscribe, HearsWhatIsPublishedOnTheBus) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_events();
    EXPECT_THAT(ctl({"subscribe", "events.*", "--session", "session.sock", "--count", "1"}),
                ends(0, HasSubstr("  events.LinkChanged  {")));
    for (const std::vector<std::string> &where :
         {std::vector<std::string>{fleet.events_address}, {"--session", "session.sock"}}) {
        EXPECT_THAT(ctl({"wait", "events.LinkChanged"}, where),
                    ends(0, StartsWith(R"({"jsonrpc":"2.0","method":"events.LinkChanged","params":{)")));
    }
}

TEST_F(RoutedCtl, SubscribeEndsCleanlyWithTheSignal) {
    for (const int number : {SIGINT, SIGTERM}) {
        EXPECT_EQ(subscriber("*", {"*"})->end_by(number), 0);
    }
}

TEST(CtlSubscribe, TellsWhatWasLostAndThatTheRouterHasGone) {
    const PlayedServer router("{\"jsonrpc\":\"2.0\",\"id\":\"tavrixctl\",\"result\":0}\n" +
                              notification("router.Lost", R"({"count":7})") + "\n{\"method\":\"a.B\"}\n");
    EXPECT_THAT(ctl({"subscribe", "a.*", "--session", "played.sock"}),
                ends(4, EndsWith("  a.B\n"),
                     "tavrixctl: waiting for a.*\n"
                     "tavrixctl: 7 more were lost: they came faster than they were read\n"
                     "tavrixctl: the router has closed the session\n"));
}

TEST_F(RoutedCtl, SubscribeGivesUpAfterItsTime) {
    EXPECT_EQ(ctl({"subscribe", "*", "--session", "session.sock", "--timeout", "0.1"}).status, 3);
    EXPECT_EQ(ctl({"subscribe", "*", "--session", "session.sock", "--timeout", "0.1", "--count", "1"}).status, 3);
    EXPECT_EQ(ctl({"subscribe", "*", "--session", "nobody.sock"}).status, 4);
    EXPECT_EQ(ctl({"subscribe", std::string(256, 'x'), "--session", "session.sock"}).status, 1) << "the router's limit";
    EXPECT_THAT(script("TAVRIX_SOCKET=router.sock tavrixctl subscribe '*'"),
                fails(2, "tavrixctl: a session of the router is needed: --session or TAVRIX_SESSION tells where\n"));
}

TEST(CtlPush, SaysThatNobodyTakesTheMessage) {
    EXPECT_THAT(ctl({"push", free_bus_address(), "x.Y", "--timeout", "0.2"}),
                fails(4, HasSubstr("nobody takes the message; is a daemon running")));
}

TEST(CtlPush, SaysWhatItCannotKnow) {
    BusSocket pull(TAVRIX_SP_PULL);
    const std::string address = free_bus_address();
    pull.bind(address);
    EXPECT_THAT(
        ctl({"push", address, "x.Y"}),
        ends(0, "", "tavrixctl: taken; whether it was obeyed cannot be known: nobody answers a pushed message\n"));
}

TEST_F(RoutedCtl, WaitEndsWithTheSignalThatEndsIt) {
    for (const int number : {SIGINT, SIGTERM}) {
        const auto waiting = ctl_that_says("waiting for x.Y", {"wait", "x.Y", fleet.router_address});
        EXPECT_EQ(waiting->end_by(number), 128 + number);
        EXPECT_EQ(waiting->log(), "tavrixctl: waiting for x.Y\n");
    }
}

TEST_F(RoutedCtl, WaitGivesUpWithoutConnectionOrNotification) {
    EXPECT_EQ(ctl({"wait", "x.Y", free_bus_address(), "--timeout", "0.2"}).status, 4);
    EXPECT_EQ(ctl({"wait", "x.Y", fleet.router_address, "--timeout", "2"}).status, 3);
}

TEST_F(RoutedCtl, WaitTakesOnlyWhatItsFiltersFit) {
    const AnsweringService service("portsd", {"ports.Get"});
    const struct {
        const char *filter;
        const char *fitting;
        const char *other;
    } rows[] = {
        {"text=up", R"({"text":"up"})", R"({"text":"down"})"},
        {"number=5", R"({"number":5})", R"({"number":50})"},
        {"number:=5", R"({"number":5})", R"({"number":"5"})"},
        {"list:=[1]", R"({"list":[1]})", R"({"list":[1,2]})"},
        {"text=", R"({"text":""})", R"({})"},
    };
    for (const auto &row : rows) {
        const auto waiting = ctl_that_says("waiting for ports.Changed",
                                           {"wait", "--session", "session.sock", "ports.Changed", row.filter});
        service.publish("ports.Changed", row.other);
        service.publish("ports.Changed", row.fitting);
        EXPECT_EQ(waiting->wait(), 0) << row.filter;
        EXPECT_EQ(member(waiting->output(), "params"), row.fitting) << row.filter;
    }
}

TEST(CtlWait, ListensToSeveralAddressesUntilItsCount) {
    BusSocket pubs[] = {BusSocket(TAVRIX_SP_PUB), BusSocket(TAVRIX_SP_PUB)};
    const std::string addresses[] = {free_bus_address(), free_bus_address()};
    pubs[0].bind(addresses[0]);
    pubs[1].bind(addresses[1]);
    const auto waiting =
        ctl_that_says("waiting for a.B", {"wait", "a.B", addresses[0], addresses[1], "number=1", "--count", "2"});
    const std::string fits = notification("a.B", R"({"number":1})");
    tavrix_mq_socket_send(pubs[0].number, ("a.B|" + notification("a.B", R"({"number":2})")).c_str());
    for (const BusSocket &pub : pubs) {
        tavrix_mq_socket_send(pub.number, ("a.B|" + fits).c_str());
    }
    EXPECT_EQ(waiting->wait(), 0);
    EXPECT_THAT(lines_of(waiting->output()), ElementsAre(fits, fits));
}

TEST(CtlWait, RefusesWordsThatAreNeitherAddressNorFilter) {
    EXPECT_EQ(ctl({"wait", "x.Y", "localhost:1"}).status, 2);
    EXPECT_EQ(ctl({"wait", "x.Y", "a:=no json"}).status, 2);
    EXPECT_EQ(ctl({"wait", "x.Y", "--channel", "c", "--session", "session.sock"}).status, 2) << "of the bus only";
}
