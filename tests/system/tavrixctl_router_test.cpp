/*
 * The client's verbs that ask the router about itself.
 */
#include <csignal>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "support/direct_service.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/tavrixctl.h"

using support::ctl;
using support::DirectService;
using support::Finished;
using support::Fleet;
using support::member;
using support::script;

namespace {

using RoutedCtlCall = support::StartedRouter;
using RoutedCtlMetrics = support::StartedRouter;
using RoutedCtlSend = support::StartedRouter;
using RoutedCtlStatus = support::StartedRouter;
using RoutedCtlTop = support::StartedRouter;
using RoutedCtlWaitService = support::StartedRouter;

/** The words of the first line that begins with the word. */
std::vector<std::string> row(const std::string &output, const std::string &first) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream text(line);
        std::vector<std::string> words((std::istream_iterator<std::string>(text)), {});
        if (!words.empty() && words[0] == first) {
            return words;
        }
    }
    return {};
}

size_t count_of(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

} // namespace

TEST_F(RoutedCtlStatus, ShowsServicesAndMethodsAsTables) {
    const DirectService service("portsd", {"ports.Get", "ports.Set"}, [](const std::string &method, const auto &) {
        return method == "ports.Get" ? R"("result":{})" : R"("error":{"code":-32602,"message":"m","data":null})";
    });
    ASSERT_EQ(ctl({"call", "--session", "session.sock", "ports.Get"}).status, 0);
    ASSERT_EQ(ctl({"call", "--session", "session.sock", "ports.Set"}).status, 1);
    const Finished finished = ctl({"status", "--session", "session.sock"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(finished.output.rfind("router  unlocked, up ", 0), 0U) << finished.output;
    EXPECT_NE(finished.output.find("2 served, 0 timed out, 0 gone, 0 cancelled"), std::string::npos);
    const std::vector<std::string> shown = row(finished.output, "portsd");
    ASSERT_EQ(shown.size(), 9U) << finished.output; // "since" is two words
    EXPECT_EQ(shown[1] + " " + shown[2] + " " + shown[3], "up first direct");
    EXPECT_EQ(shown[6] + " " + shown[7] + " " + shown[8], "0 ports.Get ports.Set");
    const std::vector<std::string> counts = row(finished.output, "ports.Set");
    ASSERT_GE(counts.size(), 6U) << finished.output;
    EXPECT_EQ(counts[1] + counts[2] + counts[3] + counts[4] + counts[5], "11000") << "one call, one error";
    EXPECT_EQ(finished.output.find('\033'), std::string::npos) << "no colours in a file";
}

TEST_F(RoutedCtlStatus, TellsThatNobodyIsThereAndThatTheSystemIsLocked) {
    ASSERT_EQ(ctl({"call", "--socket", "router.sock", "router.Lock"}).status, 0);
    const std::string output = ctl({"status", "--socket", "router.sock"}).output;
    EXPECT_EQ(output.rfind("router  locked, up ", 0), 0U) << output;
    EXPECT_NE(output.find("\n\nno services\n\nno calls yet\n"), std::string::npos) << output;
}

TEST_F(RoutedCtlStatus, PrintsTheRoutersOwnObjectForPrograms) {
    const Finished finished = ctl({"status", "--json", "short", "--socket", "router.sock"});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(member(finished.output, "services"), "[]");
    EXPECT_EQ(member(finished.output, "locked"), "false");
}

TEST(CtlStatus, SaysThatThereIsNoRouter) {
    EXPECT_EQ(ctl({"status", "--session", "nobody.sock"}).status, 4);
    EXPECT_EQ(ctl({"status", "--session", "a", "--socket", "b"}).status, 2);
}

TEST_F(RoutedCtlTop, PrintsPlainPagesWhenPipedAndEndsAfterItsCount) {
    const DirectService service("portsd", {"ports.Get"});
    ASSERT_EQ(ctl({"call", "--session", "session.sock", "ports.Get"}).status, 0);
    const Finished finished = ctl({"top", "--session", "session.sock", "--interval", "0.02", "--count", "3"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_EQ(count_of(finished.output, "\nportsd "), 3U) << finished.output;
    EXPECT_EQ(count_of(finished.output, "CALLS/S"), 3U);
    EXPECT_EQ(finished.output.find('\033'), std::string::npos);
}

TEST_F(RoutedCtlTop, EndsCleanlyWithTheSignal) {
    support::Process top("top", {TAVRIXCTL, "top", "--session", "session.sock", "--interval", "3600"});
    ASSERT_TRUE(top.prints("no calls yet"));
    top.signal(SIGINT);
    EXPECT_EQ(top.wait(), 0);
    EXPECT_EQ(top.log(), "");
}

TEST_F(RoutedCtlTop, SaysThatTheRouterHasGone) {
    support::Process top("top", {TAVRIXCTL, "top", "--session", "session.sock", "--interval", "0.02"});
    ASSERT_TRUE(top.prints("no calls yet"));
    fleet.router.reset();
    EXPECT_EQ(top.wait(), 4);
    EXPECT_NE(top.log(), "");
}

TEST_F(RoutedCtlMetrics, PrintsThePrometheusTextLineByLine) {
    const DirectService service("portsd", {"ports.Get"});
    const Finished finished = ctl({"metrics", "--session", "session.sock"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_NE(finished.output.find("\ntavrix_router_service_up{service=\"portsd\"} 1\n"), std::string::npos)
        << finished.output;
    EXPECT_NE(finished.output.find("\n# TYPE tavrix_router_clients gauge\n"), std::string::npos);
}

TEST(CtlWaitService, WaitsForTheRouterAndForTheService) {
    Fleet fleet;
    support::Process waiting("waiting", {TAVRIXCTL, "wait-service", "--session", "session.sock", "portsd"});
    fleet.start_router();
    EXPECT_TRUE(waiting.running()) << "the service is not there yet";
    const DirectService service("portsd", {"ports.Get"});
    EXPECT_EQ(waiting.wait(), 0) << waiting.log();
    EXPECT_EQ(waiting.log(), "");
}

TEST_F(RoutedCtlWaitService, TakesAServiceThatOnlySaidHello) {
    fleet.start_ports();
    EXPECT_EQ(ctl({"wait-service", "--socket", "router.sock", "portsd"}).status, 0);
}

TEST(CtlWaitService, SaysWhichServiceIsMissingAndWhy) {
    const Finished nobody = ctl({"wait-service", "--socket", "router.sock", "--timeout", "0.1", "portsd"});
    EXPECT_EQ(nobody.status, 3);
    EXPECT_EQ(nobody.diagnostics, "tavrixctl: portsd is not there: the router does not answer\n");
    Fleet fleet;
    fleet.start_router();
    { const DirectService service("portsd", {"ports.Get"}); }
    const Finished gone = ctl({"wait-service", "--socket", "router.sock", "--timeout", "1", "portsd", "other"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(gone.diagnostics, "tavrixctl: portsd is not there: its state is gone\n"
                                "tavrixctl: other is not there: the router does not know it\n");
    EXPECT_EQ(ctl({"wait-service", "--socket", std::string(200, 'x'), "portsd"}).status, 2) << "at once";
}

TEST_F(RoutedCtlCall, FindsTheSessionByTheEnvironmentAndElseTheOtherSocket) {
    EXPECT_EQ(script("TAVRIX_SESSION=session.sock tavrixctl call router.Status").status, 0);
    EXPECT_EQ(script("TAVRIX_SESSION=nobody.sock tavrixctl call router.Status").status, 4);
    EXPECT_EQ(script("TAVRIX_SESSION=nobody.sock TAVRIX_SOCKET=router.sock tavrixctl call router.Status").status, 0);
    EXPECT_EQ(script("TAVRIX_SESSION=session.sock tavrixctl call --socket nobody.sock router.Status").status, 4);
    const std::string long_text(9000, 'x');
    EXPECT_EQ(script("TAVRIX_SESSION=session.sock tavrixctl call router.Status '{\"a\":\"" + long_text + "\"}'").status,
              0)
        << "a line may be longer than the other socket's request";
    EXPECT_EQ(script("TAVRIX_SOCKET=router.sock tavrixctl call router.Status '{\"a\":\"" + long_text + "\"}'").status,
              2);
}

TEST_F(RoutedCtlSend, PrintsEveryAnswerOfASession) {
    const DirectService service("portsd", {"ports.Get"});
    const Finished finished =
        ctl({"send", "--session", "session.sock",
             support::request("ports.Get", "1") + "\n[" + support::request("ports.Get", "2") + "]"});
    EXPECT_EQ(finished.status, 0) << finished.diagnostics;
    EXPECT_NE(finished.output.find(R"({"jsonrpc":"2.0","id":1,"result":0})"
                                   "\n"),
              std::string::npos)
        << finished.output;
    EXPECT_NE(finished.output.find(R"([{"jsonrpc":"2.0","id":2,"result":0}])"
                                   "\n"),
              std::string::npos);
    EXPECT_EQ(ctl({"send", "--session", "session.sock", "[1]"}).status, 1) << "a batch with an error";
}
