/*
 * The client's verbs for one-way messages: subscribe, wait, push.
 */
#include <csignal>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "support/direct_service.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/played_server.h"
#include "support/tavrixctl.h"
#include "tavrix_mq.h"

using support::ctl;
using support::DirectService;
using support::Finished;
using support::Fleet;
using support::member;

namespace {

using RoutedCtlSubscribe = support::StartedRouter;
using RoutedCtlWait = support::StartedRouter;

constexpr char subscribed[] = "{\"jsonrpc\":\"2.0\",\"id\":\"tavrixctl\",\"result\":0}\n";

support::Process subscriber(std::vector<std::string> words) {
    words.insert(words.begin(), {TAVRIXCTL, "subscribe", "--session", "session.sock"});
    return support::Process("subscriber", words);
}

} // namespace

TEST_F(RoutedCtlSubscribe, PrintsMatchingNotificationsAsLines) {
    const DirectService service("portsd", {"ports.Get"});
    auto listening = subscriber({"ports.*", "events.Exactly", "--count", "2"});
    ASSERT_TRUE(listening.says("waiting for ports.* events.Exactly")) << listening.log();
    service.publish("other.Thing", "{}");
    service.publish("ports.Changed", R"({"port_id":"c1-1"})");
    service.publish("events.Exactly", R"({"text":"\u009b2J"})");
    EXPECT_EQ(listening.wait(), 0) << listening.log();
    std::istringstream lines(listening.output());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line.substr(line.find("  ")), R"(  ports.Changed  {"port_id":"c1-1"})");
    std::getline(lines, line);
    EXPECT_EQ(line.substr(line.find("  ")), R"(  events.Exactly  {"text":"\u009B2J"})") << "it steers no terminal";
    EXPECT_FALSE(std::getline(lines, line)) << line;
}

TEST_F(RoutedCtlSubscribe, PrintsTheNotificationItselfForPrograms) {
    const DirectService service("portsd", {"ports.Get"});
    auto listening = subscriber({"*", "--json", "short", "--count", "1"});
    ASSERT_TRUE(listening.says("waiting for *")) << listening.log();
    service.publish("ports.Changed", R"({"port_id":"c1-1"})");
    EXPECT_EQ(listening.wait(), 0);
    EXPECT_EQ(listening.output(), R"({"jsonrpc":"2.0","method":"ports.Changed","params":{"port_id":"c1-1"}})"
                                  "\n");
}

TEST(CtlSubscribe, HearsWhatIsPublishedOnTheBus) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_events();
    const Finished finished = ctl({"subscribe", "events.*", "--session", "session.sock", "--count", "1"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_NE(finished.output.find("  events.LinkChanged  {"), std::string::npos) << finished.output;
}

TEST_F(RoutedCtlSubscribe, EndsCleanlyWithTheSignal) {
    for (const int number : {SIGINT, SIGTERM}) {
        auto listening = subscriber({"*"});
        ASSERT_TRUE(listening.says("waiting for *")) << listening.log();
        listening.signal(number);
        EXPECT_EQ(listening.wait(), 0);
    }
}

TEST(CtlSubscribe, TellsWhatWasLostAndThatTheRouterHasGone) {
    const support::PlayedServer router(std::string(subscribed) +
                                       R"({"jsonrpc":"2.0","method":"router.Lost","params":{"count":7}})"
                                       "\n"
                                       R"({"jsonrpc":"2.0","method":"a.B"})"
                                       "\n");
    const Finished finished = ctl({"subscribe", "a.*", "--session", "played.sock"});
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(finished.diagnostics, "tavrixctl: waiting for a.*\n"
                                    "tavrixctl: 7 more were lost: they came faster than they were read\n"
                                    "tavrixctl: the router has closed the session\n");
    EXPECT_EQ(finished.output.substr(finished.output.find("  ")), "  a.B\n");
}

TEST_F(RoutedCtlSubscribe, GivesUpAfterItsTime) {
    EXPECT_EQ(ctl({"subscribe", "*", "--session", "session.sock", "--timeout", "0.1"}).status, 3);
    EXPECT_EQ(ctl({"subscribe", "*", "--session", "session.sock", "--timeout", "0.1", "--count", "1"}).status, 3);
    EXPECT_EQ(ctl({"subscribe", "*", "--session", "nobody.sock"}).status, 4);
    EXPECT_EQ(ctl({"subscribe", std::string(129, 'x'), "--session", "session.sock"}).status, 1) << "the router's limit";
    const Finished no_session = support::script("TAVRIX_SOCKET=router.sock tavrixctl subscribe '*'");
    EXPECT_EQ(no_session.status, 2);
    EXPECT_EQ(no_session.diagnostics,
              "tavrixctl: a session of the router is needed: --session or TAVRIX_SESSION tells where\n");
}

TEST(CtlPush, SaysThatNobodyTakesTheMessage) {
    const Finished finished = ctl({"push", support::free_bus_address(), "x.Y", "--timeout", "0.2"});
    EXPECT_EQ(finished.status, 4);
    EXPECT_NE(finished.diagnostics.find("nobody takes the message; is a daemon running"), std::string::npos);
}

TEST(CtlPush, SaysWhatItCannotKnow) {
    support::BusSocket pull(TAVRIX_SP_PULL);
    const std::string address = support::free_bus_address();
    pull.bind(address);
    const Finished finished = ctl({"push", address, "x.Y"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.diagnostics,
              "tavrixctl: taken; whether it was obeyed cannot be known: nobody answers a pushed message\n");
}

TEST(CtlWait, PrintsTheNotification) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_events();
    const Finished finished = ctl({"wait", "events.LinkChanged", fleet.events_address});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(member(finished.output, "method"), "\"events.LinkChanged\"");
    EXPECT_EQ(member(finished.output, "id"), "(none)");
}

TEST_F(RoutedCtlWait, EndsWithTheSignalThatEndsIt) {
    for (const int number : {SIGINT, SIGTERM}) {
        support::Process waiting("wait", {TAVRIXCTL, "wait", "x.Y", fleet.router_address});
        ASSERT_TRUE(waiting.says("waiting for x.Y")) << waiting.log();
        waiting.signal(number);
        EXPECT_EQ(waiting.wait(), 128 + number);
        EXPECT_EQ(waiting.log(), "tavrixctl: waiting for x.Y\n");
    }
}

TEST(CtlWait, GivesUpWithoutConnectionOrNotification) {
    EXPECT_EQ(ctl({"wait", "x.Y", support::free_bus_address(), "--timeout", "0.2"}).status, 4);
    Fleet fleet;
    fleet.start_router();
    EXPECT_EQ(ctl({"wait", "x.Y", fleet.router_address, "--timeout", "2"}).status, 3);
}

TEST(CtlWait, AsksTheRouterWhereNoAddressIsGiven) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address});
    fleet.start_events();
    const Finished finished = ctl({"wait", "events.LinkChanged", "--session", "session.sock"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(member(finished.output, "method"), "\"events.LinkChanged\"");
}

TEST_F(RoutedCtlWait, TakesOnlyWhatItsFiltersFit) {
    const DirectService service("portsd", {"ports.Get"});
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
        support::Process waiting("waiting",
                                 {TAVRIXCTL, "wait", "--session", "session.sock", "ports.Changed", row.filter});
        ASSERT_TRUE(waiting.says("waiting for ports.Changed")) << waiting.log();
        service.publish("ports.Changed", row.other);
        service.publish("ports.Changed", row.fitting);
        EXPECT_EQ(waiting.wait(), 0) << row.filter;
        EXPECT_EQ(member(waiting.output(), "params"), row.fitting) << row.filter;
    }
}

TEST(CtlWait, ListensToSeveralAddressesUntilItsCount) {
    support::BusSocket pubs[] = {support::BusSocket(TAVRIX_SP_PUB), support::BusSocket(TAVRIX_SP_PUB)};
    const std::string addresses[] = {support::free_bus_address(), support::free_bus_address()};
    pubs[0].bind(addresses[0]);
    pubs[1].bind(addresses[1]);
    support::Process waiting("waiting",
                             {TAVRIXCTL, "wait", "a.B", addresses[0], addresses[1], "number=1", "--count", "2"});
    ASSERT_TRUE(waiting.says("waiting for a.B")) << waiting.log();
    tavrix_mq_socket_send(pubs[0].number, R"(a.B|{"jsonrpc":"2.0","method":"a.B","params":{"number":2}})");
    tavrix_mq_socket_send(pubs[0].number, R"(a.B|{"jsonrpc":"2.0","method":"a.B","params":{"number":1}})");
    tavrix_mq_socket_send(pubs[1].number, R"(a.B|{"jsonrpc":"2.0","method":"a.B","params":{"number":1}})");
    EXPECT_EQ(waiting.wait(), 0);
    const std::string line = R"({"jsonrpc":"2.0","method":"a.B","params":{"number":1}})"
                             "\n";
    EXPECT_EQ(waiting.output(), line + line);
}

TEST(CtlWait, RefusesWordsThatAreNeitherAddressNorFilter) {
    EXPECT_EQ(ctl({"wait", "x.Y", "localhost:1"}).status, 2);
    EXPECT_EQ(ctl({"wait", "x.Y", "a:=no json"}).status, 2);
    EXPECT_EQ(ctl({"wait", "x.Y", "--channel", "c", "--session", "session.sock"}).status, 2) << "of the bus only";
}
