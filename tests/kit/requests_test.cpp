#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

using namespace support;

namespace {

Lines outcomes; ///< what came of it, code, message, and the result or the data
Lines notifications;
std::vector<uint64_t> losses;
uint64_t changing = 0; ///< the subscription that its own callback ends

void note(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    outcomes.push_back(outcome_of(answer) + " " + answer->message + "|" +
                       rendered(answer->result != nullptr ? answer->result : answer->data));
}

void pass_on(tavrix_service *service, const tavrix_answer *answer, void * /*user*/) {
    tavrix_call_pass_on(tavrix_service_deferred(service, deferred), answer);
}

int ask_another(tavrix_call *call) {
    tavrix_service_request(tavrix_call_service(call), "ports.Get", json_pack("{s:s}", "port_id", "d1"), 5000, pass_on,
                           nullptr);
    return defer(call);
}

void note_notification(tavrix_service * /*service*/, const char *method, json_t *params, void *user) {
    notifications.push_back(std::string(user != nullptr ? static_cast<const char *>(user) : "") + method + " " +
                            rendered(params));
}

const Methods methods = {{"t.Ask", ask_another}};

/** The response to the request that stands in a line. */
std::string response(const std::string &line, const std::string &outcome) {
    return "{\"jsonrpc\":\"2.0\",\"id\":" + member(line, "id") + "," + outcome + "}";
}

/** The router that is asked, and no service yet. */
class Router : public testing::Test {
  protected:
    Router() {
        outcomes.clear();
        notifications.clear();
        losses.clear();
        stage.router.settles = false;
    }
    uint64_t request(int timeout_ms = 5000) {
        return tavrix_service_request(stage.service, "ports.Get", json_object(), timeout_ms, note, nullptr);
    }
    void expect_outcomes(const Lines &expected) {
        stage.wait([&] { return outcomes.size() == expected.size(); });
        EXPECT_EQ(outcomes, expected);
    }
    void answer_next(const std::string &outcome) { stage.router.say(response(stage.next(), outcome)); }
    void notify(const char *method) {
        stage.router.say(R"({"jsonrpc":"2.0","method":")" + std::string(method) + "\"}");
    }

    LogCapture log{"info"};
    Stage stage;
};

class Requests : public Router {
  protected:
    Requests() { stage.serve(methods); }
};
using Notifications = Requests;

} // namespace

TEST_F(Requests, GetTheResultThatBelongsToThem) {
    ASSERT_NE(request(), 0U);
    ASSERT_NE(request(), 0U);
    const std::string first = stage.next();
    const std::string second = stage.next();
    EXPECT_EQ(member(first, "method"), "\"ports.Get\"");
    stage.router.say(response(second, R"("result":2)"));
    expect_outcomes({"result 0 |2"});
    stage.router.say(response(first, R"("result":{"one":1})"));
    expect_outcomes({"result 0 |2", R"(result 0 |{"one":1})"});
}

TEST_F(Requests, TellErrorsTimeoutsAndServicesThatHaveGone) {
    const std::pair<const char *, const char *> errors_and_outcomes[] = {
        {R"("error":{"code":-32034,"message":"m","data":{"a":1}})", R"(error -32034 m|{"a":1})"},
        {R"("error":{"code":-32005,"message":"m","data":null})", "time-out -32005 m|null"},
        {R"("error":{"code":-32601,"message":"m","data":{"service":"portsd","channel":"c"}})",
         R"(gone -32601 m|{"service":"portsd","channel":"c"})"},
        {R"("error":{"code":-32601,"message":"m","data":null})", "error -32601 m|null"},
    };
    for (const auto &[error, outcome] : errors_and_outcomes) {
        outcomes.clear();
        request();
        answer_next(error);
        expect_outcomes({outcome});
    }
}

TEST_F(Requests, TimeOutByThemselvesAndIgnoreWhatComesLater) {
    request(20);
    const std::string line = stage.next();
    expect_outcomes({"time-out -32005 Command timed out|(null)"});
    stage.router.say(response(line, R"("result":1)"));
    request();
    answer_next(R"("result":2)");
    expect_outcomes({outcomes.front(), "result 0 |2"});
}

TEST_F(Requests, AreCancelledOnceAndBeforeCancelReturnsOrWhenTheServiceEnds) {
    const std::string cancelled = "cancelled 0 Cancelled|(null)";
    const uint64_t number = request();
    EXPECT_EQ(tavrix_service_cancel(stage.service, number), TAVRIX_OK);
    EXPECT_EQ(outcomes, Lines{cancelled});
    EXPECT_EQ(tavrix_service_cancel(stage.service, number), TAVRIX_ERR_NO_RECORDS);
    request();
    EXPECT_EQ(outcomes, Lines{cancelled});
    stage.close();
    EXPECT_EQ(outcomes, (Lines{cancelled, cancelled}));
}

TEST_F(Requests, ThatCannotBeMadeAreRefusedInWords) {
    const auto make = [this](const char *method, json_t *params, int timeout_ms = 100,
                             tavrix_answer_callback callback = note) {
        return tavrix_service_request(stage.service, method, params, timeout_ms, callback, nullptr);
    };
    EXPECT_EQ(make("a\nb", nullptr), 0U);
    EXPECT_EQ(make("ports.Get", json_array()), 0U);
    EXPECT_EQ(make("ports.Get", nullptr, 0), 0U);
    EXPECT_EQ(make("ports.Get", nullptr, 100, nullptr), 0U);
    EXPECT_EQ(make("ports.Get", json_pack("{s:s}", "a", std::string(65536, 'x').c_str())), 0U);
    EXPECT_TRUE(log.says("Cannot call a\\x0ab: "));
    EXPECT_TRUE(outcomes.empty());
}

TEST_F(Requests, ThatTheRouterCouldNotReadAreNotMade) {
    json_t *deep = json_array();
    for (int i = 0; i < 3000; ++i) {
        deep = json_pack("[o]", deep);
    }
    EXPECT_EQ(tavrix_service_request(stage.service, "t.Ask", json_pack("{s:O}", "deep", deep), 1000, note, nullptr),
              0U);
    EXPECT_TRUE(log.says("Cannot call t.Ask: it is nested deeper than the 2047 levels"));
    json_t *answer = nullptr;
    EXPECT_EQ(tavrix_request_wait("session.sock", "t.Ask", json_pack("{s:o}", "deep", deep), 1000, &answer),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(answer, nullptr);
}

TEST_F(Requests, BeyondTheLimitAreRefused) {
    for (int i = 0; i < TAVRIX_SERVICE_MAX_REQUESTS; ++i) {
        ASSERT_NE(request(), 0U);
    }
    EXPECT_EQ(request(), 0U);
}

TEST_F(Requests, CarryACallThatDependsOnThem) {
    stage.router.say(direct_request("t.Ask", "{}", 9));
    answer_next(R"("result":{"ports":[]})");
    EXPECT_EQ(stage.next(), R"({"jsonrpc":"2.0","id":"t.Ask","result":{"ports":[]},"transaction_id":9})");
    stage.router.say(direct_request("t.Ask", "{}", 10));
    answer_next(R"("error":{"code":-32034,"message":"m","data":{"message":"no d1"}})");
    const std::string answer = stage.next();
    EXPECT_EQ(code_of(answer), "-32034");
    EXPECT_EQ(data_of(answer), R"({"message":"no d1"})");
}

TEST_F(Router, IsAskedOnceItIsThereForWhatWasRequestedBefore) {
    stage.router.die();
    stage.open(methods);
    ASSERT_NE(request(), 0U);
    stage.step();
    stage.router.listen();
    EXPECT_EQ(member(stage.next(), "method"), "\"ports.Get\"");
    EXPECT_TRUE(outcomes.empty());
}

TEST_F(Router, IsAskedByAClientWithoutMethodsThatDoesNotRegister) {
    stage.serve(nullptr);
    EXPECT_TRUE(stage.router.registration.empty());
    request();
    answer_next(R"("result":1)");
    expect_outcomes({"result 0 |1"});
}

TEST_F(Router, CanBeWaitedForByASimpleProgram) {
    json_t *answer = nullptr;
    EXPECT_EQ(tavrix_request_wait("nobody.sock", "ports.Get", nullptr, 100, &answer), TAVRIX_ERR_CONNECT_TIMEOUT);
    EXPECT_EQ(tavrix_request_wait("session.sock", "ports.Get", nullptr, 20, &answer), TAVRIX_ERR_TIMEOUT);
    EXPECT_EQ(tavrix_request_wait("session.sock", "a\nb", nullptr, 20, &answer), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(answer, nullptr);
}

TEST_F(Router, ThatAnswersWithoutANewlineAndClosesIsToldOnceToBeAnotherSocket) {
    stage.router.polite = false;
    stage.open(methods);
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_TRUE(holds(stage.next(), "router.Bus"));
        stage.router.say_bytes(R"({"jsonrpc":"2.0","id":"router.Bus","result":{}})");
        stage.router.hang_up();
    }
    EXPECT_NE(stage.next(), "(nothing)") << "it goes on";
    EXPECT_EQ(log.text().find("[ERROR]"), log.text().rfind("[ERROR]")) << log.text();
    EXPECT_TRUE(log.says("session.sock takes single requests"));
}

TEST_F(Router, ThatIsNotThereYetIsToldOnceAsAnErrorAndWaitedFor) {
    stage.router.die();
    stage.open(methods);
    for (int i = 0; i < 3; ++i) {
        stage.step();
    }
    EXPECT_TRUE(log.says("] Waiting for the router at session.sock: No such file or directory; is it running?\n"));
    EXPECT_TRUE(log.says("[ERROR] [tester"));
    stage.router.listen();
    EXPECT_TRUE(stage.wait_ready());
    EXPECT_EQ(log.text().find("[ERROR]"), log.text().rfind("[ERROR]")) << log.text();
}

TEST_F(Router, ThatClosesBeforeTheServiceIsReadyEndsOneThatNeedsIt) {
    stage.router.polite = false;
    stage.open(methods, with_flags(TAVRIX_SERVICE_NEED_ROUTER));
    EXPECT_NE(stage.next(), "(nothing)");
    stage.router.hang_up();
    EXPECT_EQ(tavrix_service_run(stage.service), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.says("The router at session.sock has gone: it closed the connection\n"));
}

TEST_F(Router, ThatCannotBeReachedIsAnError) {
    std::ofstream("plain.txt") << "no folder";
    tavrix_service_options options = {};
    options.session = "plain.txt/session.sock";
    stage.open(methods, options);
    EXPECT_TRUE(log.says("Cannot reach the router at plain.txt/session.sock: Not a directory; is this its session "
                         "socket, and may this process's user reach it? Trying again until it can be reached\n"));
}

TEST_F(Notifications, ArriveByPattern) {
    char first[] = "1 ";
    char second[] = "2 ";
    tavrix_service_subscribe(stage.service, "events.*", note_notification, first);
    tavrix_service_subscribe(stage.service, "events.LinkChanged", note_notification, second);
    ASSERT_TRUE(stage.wait([&] { return stage.router.patterns == R"(router.Subscribe ["events.LinkChanged"])"; }));
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.LinkChanged","params":{"n":1}})");
    notify("events.Other");
    notify("other.Thing");
    ASSERT_TRUE(stage.wait([] { return notifications.size() == 3; }));
    EXPECT_EQ(notifications,
              (Lines{R"(1 events.LinkChanged {"n":1})", R"(2 events.LinkChanged {"n":1})", "1 events.Other (null)"}));
}

TEST_F(Notifications, AreSubscribedToAgainWhenTheRouterComesBackAndTheGapIsTold) {
    tavrix_service_on_lost(
        stage.service, [](tavrix_service *, uint64_t count, void *) { losses.push_back(count); }, nullptr);
    tavrix_service_subscribe(stage.service, "events.*", note_notification, nullptr);
    ASSERT_TRUE(stage.wait([&] { return !stage.router.patterns.empty(); }));
    stage.router.patterns.clear();
    stage.router.hang_up();
    ASSERT_TRUE(stage.wait([&] { return !stage.router.patterns.empty() && !losses.empty(); }));
    EXPECT_EQ(stage.router.patterns, R"(router.Subscribe ["events.*"])");
    stage.router.say(R"({"jsonrpc":"2.0","method":"router.Lost","params":{"count":12}})");
    ASSERT_TRUE(stage.wait([] { return losses.size() == 2; }));
    EXPECT_EQ(losses, (std::vector<uint64_t>{0, 12}));
}

TEST_F(Notifications, EndWithTheirSubscription) {
    const uint64_t number = tavrix_service_subscribe(stage.service, "events.*", note_notification, nullptr);
    EXPECT_EQ(tavrix_service_cancel(stage.service, number), TAVRIX_OK);
    ASSERT_TRUE(stage.wait([&] { return stage.router.patterns == R"(router.Unsubscribe ["events.*"])"; }));
    notify("events.Other");
    request();
    answer_next(R"("result":1)");
    expect_outcomes({"result 0 |1"});
    EXPECT_TRUE(notifications.empty());
}

TEST_F(Notifications, MayEndTheirSubscriptionFromTheCallback) {
    changing = tavrix_service_subscribe(
        stage.service, "events.*",
        [](tavrix_service *service, const char *method, json_t *, void *) {
            notifications.emplace_back(method);
            EXPECT_EQ(tavrix_service_cancel(service, changing), TAVRIX_OK);
            EXPECT_EQ(tavrix_service_cancel(service, changing), TAVRIX_ERR_NO_RECORDS);
        },
        nullptr);
    notify("events.A");
    notify("events.B");
    ASSERT_TRUE(stage.wait([&] { return stage.router.patterns.rfind("router.Unsubscribe", 0) == 0; }));
    EXPECT_EQ(notifications, Lines{"events.A"});
}

TEST_F(Notifications, OfOneMessageDoNotReachSubscriptionsThatTheirCallbacksMake) {
    static tavrix_notification_callback again = nullptr;
    again = [](tavrix_service *service, const char *method, json_t *, void *) {
        notifications.emplace_back(method);
        ASSERT_LT(notifications.size(), 10U) << "it never ends";
        EXPECT_EQ(tavrix_service_cancel(service, changing), TAVRIX_OK);
        changing = tavrix_service_subscribe(service, "events.*", again, nullptr);
    };
    changing = tavrix_service_subscribe(stage.service, "events.*", again, nullptr);
    notify("events.A");
    notify("events.B");
    ASSERT_TRUE(stage.wait([] { return !notifications.empty() && notifications.back() == "events.B"; }));
    EXPECT_EQ(notifications, (Lines{"events.A", "events.B"})) << "once each, the new ones too";
}

TEST_F(Router, IsToldNotificationsOverTheSessionByAServiceWithoutAPublisher) {
    stage.serve(methods, with_flags(TAVRIX_SERVICE_SILENT));
    EXPECT_TRUE(holds(stage.router.registration, R"("publish":[])"));
    EXPECT_EQ(tavrix_service_publish(stage.service, "t.Happened", json_pack("{s:i}", "n", 1)), TAVRIX_OK);
    EXPECT_EQ(stage.next(), R"({"jsonrpc":"2.0","method":"t.Happened","params":{"n":1}})");
    EXPECT_EQ(tavrix_service_publish(stage.service, "t|x", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_service_publish(stage.service, "t.Happened", json_array()), TAVRIX_ERR_PARAMETER);
}
