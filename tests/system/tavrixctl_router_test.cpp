/*
 * The client's verbs that ask the router about itself.
 */
#include <csignal>

#include "support/answering_service.h"
#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

using RoutedCtl = StartedRouter;

TEST_F(RoutedCtl, StatusShowsServicesAndMethodsAsTables) {
    const AnsweringService service("portsd", {"ports.Get", "ports.Set"}, [](const std::string &method, const auto &) {
        return method == "ports.Get" ? R"("result":{})" : R"("error":{"code":-32602,"message":"m","data":null})";
    });
    ASSERT_EQ(ctl({"call", "--session", "session.sock", "ports.Get"}).status, 0);
    ASSERT_EQ(ctl({"call", "--session", "session.sock", "ports.Set"}).status, 1);
    EXPECT_THAT(
        ctl({"status", "--session", "session.sock"}),
        prints(AllOf(StartsWith("router  unlocked, up "), HasSubstr("2 served, 0 timed out, 0 gone, 0 cancelled"),
                     ContainsRegex("\nportsd +up +first +direct +[^ ]+ [^ ]+ +0 +ports.Get ports.Set\n"),
                     ContainsRegex("\nports.Set +1 +1 +0 +0 +0 "), // one call, one error
                     Not(HasSubstr("\033")))));                    // no colours in a file
}

TEST_F(RoutedCtl, StatusTellsThatNobodyIsThereAndThatTheSystemIsLocked) {
    ASSERT_EQ(ctl({"call", "--socket", "router.sock", "router.Lock"}).status, 0);
    EXPECT_THAT(ctl({"status", "--socket", "router.sock"}).output,
                AllOf(StartsWith("router  locked, up "), HasSubstr("\n\nno services\n\nno calls yet\n")));
}

TEST_F(RoutedCtl, StatusPrintsTheRoutersOwnObjectForPrograms) {
    EXPECT_THAT(ctl({"status", "--json", "short", "--socket", "router.sock"}),
                prints(AllOf(HasSubstr(R"("services":[])"), HasSubstr(R"("locked":false)"))));
}

TEST_F(RoutedCtl, TopPrintsPlainPagesWhenPipedAndEndsAfterItsCount) {
    const AnsweringService service("portsd", {"ports.Get"});
    ASSERT_EQ(ctl({"call", "--session", "session.sock", "ports.Get"}).status, 0);
    const Finished finished = ctl({"top", "--session", "session.sock", "--interval", "0.02", "--count", "3"});
    EXPECT_THAT(finished, prints(Not(HasSubstr("\033"))));
    EXPECT_EQ(count_of(finished.output, "\nportsd "), 3) << finished.output;
    EXPECT_EQ(count_of(finished.output, "CALLS/S"), 3);
}

TEST_F(RoutedCtl, TopEndsCleanlyWithTheSignal) {
    Process top("top", {TAVRIXCTL, "top", "--session", "session.sock", "--interval", "3600"});
    ASSERT_TRUE(top.prints("no calls yet"));
    EXPECT_EQ(top.end_by(SIGINT), 0);
    EXPECT_EQ(top.log(), "");
}

TEST_F(RoutedCtl, TopSaysThatTheRouterHasGone) {
    Process top("top", {TAVRIXCTL, "top", "--session", "session.sock", "--interval", "0.02"});
    ASSERT_TRUE(top.prints("no calls yet"));
    fleet.router.reset();
    EXPECT_EQ(top.wait(), 4);
    EXPECT_NE(top.log(), "");
}

TEST_F(RoutedCtl, MetricsPrintsThePrometheusTextLineByLine) {
    const AnsweringService service("portsd", {"ports.Get"});
    EXPECT_THAT(ctl({"metrics", "--session", "session.sock"}),
                prints(AllOf(HasSubstr("\ntavrix_router_service_up{service=\"portsd\"} 1\n"),
                             HasSubstr("\n# TYPE tavrix_router_clients gauge\n"))));
}

TEST(CtlWaitService, WaitsForTheRouterAndForTheService) {
    Fleet fleet;
    Process waiting("waiting", {TAVRIXCTL, "wait-service", "--session", "session.sock", "portsd"});
    fleet.start_router();
    EXPECT_TRUE(waiting.running()) << "the service is not there yet";
    const AnsweringService service("portsd", {"ports.Get"});
    EXPECT_EQ(waiting.wait(), 0) << waiting.log();
    EXPECT_EQ(waiting.log(), "");
}

TEST_F(RoutedCtl, WaitServiceTakesAServiceThatOnlySaidHello) {
    const PlayedService service(fleet, TAVRIX_CHANNEL_FIRST);
    EXPECT_EQ(ctl({"wait-service", "--socket", "router.sock", "played"}).status, 0);
}

TEST(CtlWaitService, SaysWhichServiceIsMissingAndWhy) {
    EXPECT_THAT(ctl({"wait-service", "--socket", "router.sock", "--timeout", "0.1", "portsd"}),
                fails(3, "tavrixctl: portsd is not there: the router does not answer\n"));
    Fleet fleet;
    fleet.start_router();
    { const AnsweringService service("portsd", {"ports.Get"}); }
    EXPECT_THAT(ctl({"wait-service", "--socket", "router.sock", "--timeout", "1", "portsd", "other"}),
                fails(3, "tavrixctl: portsd is not there: its state is gone\n"
                         "tavrixctl: other is not there: the router does not know it\n"));
    EXPECT_EQ(ctl({"wait-service", "--socket", std::string(200, 'x'), "portsd"}).status, 2) << "at once";
}

TEST_F(RoutedCtl, SendPrintsEveryAnswerOfASession) {
    const AnsweringService service("portsd", {"ports.Get"});
    EXPECT_THAT(
        ctl({"send", "--session", "session.sock", request("ports.Get", "1") + "\n[" + request("ports.Get", "2") + "]"}),
        prints(AllOf(HasSubstr("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":0}\n"),
                     HasSubstr("[{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":0}]\n"))));
    EXPECT_EQ(ctl({"send", "--session", "session.sock", "[1]"}).status, 1) << "a batch with an error";
}
