#include <fstream>
#include <string>
#include <vector>

#include <event2/event.h>
#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

namespace {

using support::code_of;
using support::LogCapture;
using support::member;
using support::Stage;

struct Outcome {
    tavrix_outcome outcome;
    int code;
    std::string message;
    std::string value; ///< the result, or the data
};

std::vector<Outcome> outcomes;
uint64_t deferred = 0;
std::vector<std::string> notifications;
std::vector<uint64_t> losses;

std::string text_of(const json_t *value) { return value != nullptr ? support::rendered(value) : ""; }

void note(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    outcomes.push_back({answer->outcome, answer->code, answer->message,
                        text_of(answer->result != nullptr ? answer->result : answer->data)});
}

void pass_on(tavrix_service *service, const tavrix_answer *answer, void * /*user*/) {
    tavrix_call_pass_on(tavrix_service_deferred(service, deferred), answer);
}

int ask_another(tavrix_call *call) {
    deferred = tavrix_call_defer(call, nullptr, nullptr);
    tavrix_service_request(tavrix_call_service(call), "ports.Get", json_pack("{s:s}", "port_id", "d1"), 5000, pass_on,
                           nullptr);
    return 0;
}

void note_notification(tavrix_service * /*service*/, const char *method, json_t *params, void *user) {
    notifications.push_back(std::string(user != nullptr ? static_cast<const char *>(user) : "") + method + " " +
                            text_of(params));
}

const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Ask", ask_another, "", nullptr, nullptr, 0),
    TAVRIX_METHOD_END,
};

/** The response to the request that stands in a line. */
std::string response(const std::string &line, const std::string &outcome) {
    return "{\"jsonrpc\":\"2.0\",\"id\":" + member(line, "id") + "," + outcome + "}";
}

class Requests : public testing::Test {
  protected:
    void SetUp() override {
        outcomes.clear();
        notifications.clear();
        losses.clear();
        deferred = 0;
    }
    uint64_t request(Stage &stage, int timeout_ms = 5000) {
        return tavrix_service_request(stage.service, "ports.Get", json_object(), timeout_ms, note, nullptr);
    }
};
using Notifications = Requests;

} // namespace

TEST_F(Requests, GetTheResultThatBelongsToThem) {
    Stage stage(methods);
    ASSERT_NE(request(stage), 0U);
    ASSERT_NE(request(stage), 0U);
    const std::string first = stage.next();
    const std::string second = stage.next();
    EXPECT_EQ(member(first, "method"), "\"ports.Get\"");
    stage.router.say(response(second, R"("result":2)"));
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 1; }));
    EXPECT_EQ(outcomes[0].value, "2");
    stage.router.say(response(first, R"("result":{"one":1})"));
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 2; }));
    EXPECT_EQ(outcomes[1].outcome, TAVRIX_OUTCOME_RESULT);
    EXPECT_EQ(outcomes[1].value, R"({"one":1})");
}

TEST_F(Requests, TellErrorsTimeoutsAndServicesThatHaveGone) {
    const struct {
        const char *error;
        tavrix_outcome outcome;
        int code;
    } rows[] = {
        {R"("error":{"code":-32034,"message":"m","data":{"a":1}})", TAVRIX_OUTCOME_ERROR, -32034},
        {R"("error":{"code":-32005,"message":"m","data":null})", TAVRIX_OUTCOME_TIMEOUT, -32005},
        {R"("error":{"code":-32601,"message":"m","data":{"message":"x","service":"portsd","channel":"c"}})",
         TAVRIX_OUTCOME_GONE, -32601},
        {R"("error":{"code":-32601,"message":"m","data":null})", TAVRIX_OUTCOME_ERROR, -32601},
    };
    Stage stage(methods);
    for (const auto &row : rows) {
        outcomes.clear();
        request(stage);
        stage.router.say(response(stage.next(), row.error));
        ASSERT_TRUE(stage.wait([] { return outcomes.size() == 1; }));
        EXPECT_EQ(outcomes[0].outcome, row.outcome) << row.error;
        EXPECT_EQ(outcomes[0].code, row.code);
        EXPECT_EQ(outcomes[0].message, "m");
    }
}

TEST_F(Requests, TimeOutByThemselvesAndIgnoreWhatComesLater) {
    Stage stage(methods);
    request(stage, 20);
    const std::string line = stage.next();
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 1; }));
    EXPECT_EQ(outcomes[0].outcome, TAVRIX_OUTCOME_TIMEOUT);
    EXPECT_EQ(outcomes[0].code, -32005);
    stage.router.say(response(line, R"("result":1)"));
    request(stage);
    stage.router.say(response(stage.next(), R"("result":2)"));
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 2; }));
    EXPECT_EQ(outcomes[1].value, "2");
}

TEST_F(Requests, AreGoneWithTheConnection) {
    Stage stage(methods);
    request(stage);
    request(stage);
    stage.next();
    stage.router.hang_up();
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 2; }));
    EXPECT_EQ(outcomes[0].outcome, TAVRIX_OUTCOME_GONE);
    EXPECT_EQ(outcomes[1].code, -32601);
}

TEST_F(Requests, MadeBeforeTheSessionStandsWaitForIt) {
    const LogCapture log("info");
    Stage stage;
    stage.router.settles = false;
    stage.router.die();
    stage.open(methods);
    ASSERT_NE(request(stage), 0U);
    stage.step();
    stage.router.listen();
    const std::string line = stage.next();
    EXPECT_EQ(member(line, "method"), "\"ports.Get\"");
    EXPECT_TRUE(outcomes.empty());
}

TEST_F(Requests, AreCancelledOnceAndBeforeCancelReturns) {
    Stage stage(methods);
    const uint64_t number = request(stage);
    EXPECT_EQ(tavrix_service_cancel(stage.service, number), TAVRIX_OK);
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes[0].outcome, TAVRIX_OUTCOME_CANCELLED);
    EXPECT_EQ(tavrix_service_cancel(stage.service, number), TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(outcomes.size(), 1U);
}

TEST_F(Requests, AreCancelledWhenTheServiceEnds) {
    {
        Stage stage(methods);
        request(stage);
    }
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes[0].outcome, TAVRIX_OUTCOME_CANCELLED);
}

TEST_F(Requests, OfThousandInFlightGetEachItsOwnAnswer) {
    Stage stage(methods);
    constexpr int total = 1000;
    std::vector<int> answers(total, -1);
    for (int &answer : answers) {
        ASSERT_NE(tavrix_service_request(
                      stage.service, "ports.Get", nullptr, 20000,
                      [](tavrix_service *, const tavrix_answer *got, void *user) {
                          *static_cast<int *>(user) = static_cast<int>(json_integer_value(got->result));
                      },
                      &answer),
                  0U);
    }
    ASSERT_TRUE(stage.wait([&] { return stage.router.lines.size() == total; }));
    for (int i = total - 1; i >= 0; --i) {
        stage.router.say(response(stage.router.lines[static_cast<size_t>(i)], "\"result\":" + std::to_string(i)));
        if (i % 32 == 0) {
            stage.step();
        }
    }
    ASSERT_TRUE(stage.wait([&] { return answers[0] == 0; }));
    for (int i = 0; i < total; ++i) {
        EXPECT_EQ(answers[static_cast<size_t>(i)], i);
    }
}

TEST_F(Requests, ThatCannotBeMadeAreRefusedInWords) {
    const LogCapture log("info");
    Stage stage(methods);
    EXPECT_EQ(tavrix_service_request(stage.service, "a\nb", nullptr, 100, note, nullptr), 0U);
    EXPECT_EQ(tavrix_service_request(stage.service, "ports.Get", json_array(), 100, note, nullptr), 0U);
    EXPECT_EQ(tavrix_service_request(stage.service, "ports.Get", nullptr, 0, note, nullptr), 0U);
    EXPECT_EQ(tavrix_service_request(stage.service, "ports.Get", nullptr, 100, nullptr, nullptr), 0U);
    const std::string large(65536, 'x');
    EXPECT_EQ(
        tavrix_service_request(stage.service, "ports.Get", json_pack("{s:s}", "a", large.c_str()), 100, note, nullptr),
        0U);
    EXPECT_NE(log.text().find("Cannot call a\\x0ab: "), std::string::npos);
    EXPECT_TRUE(outcomes.empty());
}

TEST_F(Requests, BeyondTheLimitAreRefused) {
    const LogCapture log("info");
    Stage stage(methods);
    for (int i = 0; i < TAVRIX_SERVICE_MAX_REQUESTS; ++i) {
        ASSERT_NE(request(stage), 0U);
    }
    EXPECT_EQ(request(stage), 0U);
}

TEST_F(Requests, CarryACallThatDependsOnThem) {
    const LogCapture log("info");
    Stage stage(methods);
    stage.router.say(support::direct_request("t.Ask", "{}", 9));
    stage.router.say(response(stage.next(), R"("result":{"ports":[]})"));
    EXPECT_EQ(stage.next(), R"({"jsonrpc":"2.0","id":"t.Ask","result":{"ports":[]},"transaction_id":9})");
    stage.router.say(support::direct_request("t.Ask", "{}", 10));
    stage.router.say(response(stage.next(), R"("error":{"code":-32034,"message":"m","data":{"message":"no d1"}})"));
    const std::string answer = stage.next();
    EXPECT_EQ(code_of(answer), "-32034");
    EXPECT_EQ(member(member(answer, "error"), "data"), R"({"message":"no d1"})");
}

TEST_F(Requests, CanBeWaitedForByASimpleProgram) {
    const LogCapture log("info");
    json_t *answer = nullptr;
    EXPECT_EQ(tavrix_request_wait("nobody.sock", "ports.Get", nullptr, 100, &answer), TAVRIX_ERR_CONNECT_TIMEOUT);
    Stage stage;
    EXPECT_EQ(tavrix_request_wait("session.sock", "ports.Get", nullptr, 20, &answer), TAVRIX_ERR_TIMEOUT);
    EXPECT_EQ(tavrix_request_wait("session.sock", "a\nb", nullptr, 20, &answer), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(answer, nullptr);
}

// --- The router that is asked --------------------------------------------------------------------------------------

TEST(Router, ThatAnswersWithoutANewlineAndClosesIsToldOnceToBeAnotherSocket) {
    LogCapture log("info");
    Stage stage;
    stage.router.polite = false;
    stage.open(methods);
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_NE(stage.next().find("router.Bus"), std::string::npos);
        stage.router.say_bytes(R"({"jsonrpc":"2.0","id":"router.Bus","result":{}})");
        stage.router.hang_up();
    }
    EXPECT_NE(stage.next(), "(nothing)") << "it goes on";
    const size_t first = log.text().find("[ERROR]");
    EXPECT_EQ(log.text().find("[ERROR]", first + 1), std::string::npos) << log.text();
    EXPECT_NE(log.text().find("session.sock takes single requests"), std::string::npos);
}

TEST(Router, ThatIsNotThereYetIsToldAsAnErrorAndWaitedFor) {
    LogCapture log("info");
    Stage stage;
    stage.router.settles = false;
    stage.router.die();
    stage.open(methods);
    stage.step();
    EXPECT_NE(log.text().find("] Waiting for the router at session.sock: No such file or directory; is it running?\n"),
              std::string::npos)
        << log.text();
    EXPECT_NE(log.text().find("[ERROR] [tester"), std::string::npos) << log.text();
    stage.router.listen();
    EXPECT_TRUE(stage.wait_ready());
}

TEST(Router, ThatClosesBeforeTheServiceIsReadyEndsOneThatNeedsIt) {
    const LogCapture log("info");
    Stage stage;
    stage.router.polite = false;
    tavrix_service_options options = {};
    options.flags = TAVRIX_SERVICE_NEED_ROUTER;
    stage.open(methods, options);
    EXPECT_NE(stage.next(), "(nothing)");
    stage.router.hang_up();
    EXPECT_EQ(tavrix_service_run(stage.service), TAVRIX_ERR_GENERAL);
    EXPECT_NE(log.text().find("The router at session.sock has gone: it closed the connection\n"), std::string::npos);
}

TEST(Router, ThatCannotBeReachedIsAnError) {
    LogCapture log("info");
    std::ofstream("plain.txt") << "no folder";
    Stage stage;
    tavrix_service_options options = {};
    options.session = "plain.txt/session.sock";
    stage.open(methods, options);
    EXPECT_NE(log.text().find("Cannot reach the router at plain.txt/session.sock: Not a directory; is this its session "
                              "socket, and may this process's user reach it? Trying again until it can be reached\n"),
              std::string::npos)
        << log.text();
}

// --- Notifications -------------------------------------------------------------------------------------------------

TEST_F(Notifications, ArriveByPattern) {
    Stage stage(methods);
    char first[] = "1 ";
    char second[] = "2 ";
    tavrix_service_subscribe(stage.service, "events.*", note_notification, first);
    tavrix_service_subscribe(stage.service, "events.LinkChanged", note_notification, second);
    ASSERT_TRUE(stage.wait([&] { return stage.router.patterns == R"(router.Subscribe ["events.LinkChanged"])"; }));
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.LinkChanged","params":{"n":1}})");
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.Other"})");
    stage.router.say(R"({"jsonrpc":"2.0","method":"other.Thing"})");
    ASSERT_TRUE(stage.wait([] { return notifications.size() == 3; }));
    EXPECT_EQ(notifications, (std::vector<std::string>{R"(1 events.LinkChanged {"n":1})",
                                                       R"(2 events.LinkChanged {"n":1})", "1 events.Other "}));
}

TEST_F(Notifications, AreSubscribedToAgainWhenTheRouterComesBackAndTheGapIsTold) {
    const LogCapture log("info");
    Stage stage(methods);
    tavrix_service_on_lost(
        stage.service, [](tavrix_service *, uint64_t count, void *) { losses.push_back(count); }, nullptr);
    tavrix_service_subscribe(stage.service, "events.*", note_notification, nullptr);
    ASSERT_TRUE(stage.wait([&] { return !stage.router.patterns.empty(); }));
    stage.router.patterns.clear();
    stage.router.hang_up();
    ASSERT_TRUE(stage.wait([&] { return !stage.router.patterns.empty() && !losses.empty(); }));
    EXPECT_EQ(stage.router.patterns, R"(router.Subscribe ["events.*"])");
    EXPECT_EQ(losses, std::vector<uint64_t>{0});
    stage.router.say(R"({"jsonrpc":"2.0","method":"router.Lost","params":{"count":12}})");
    ASSERT_TRUE(stage.wait([] { return losses.size() == 2; }));
    EXPECT_EQ(losses[1], 12U);
}

TEST_F(Notifications, EndWithTheirSubscription) {
    Stage stage(methods);
    const uint64_t number = tavrix_service_subscribe(stage.service, "events.*", note_notification, nullptr);
    EXPECT_EQ(tavrix_service_cancel(stage.service, number), TAVRIX_OK);
    ASSERT_TRUE(stage.wait([&] { return stage.router.patterns == R"(router.Unsubscribe ["events.*"])"; }));
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.Other"})");
    request(stage);
    stage.router.say(response(stage.next(), R"("result":1)"));
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 1; }));
    EXPECT_TRUE(notifications.empty());
}

TEST_F(Notifications, MayEndTheirSubscriptionFromTheCallback) {
    static uint64_t own = 0;
    Stage stage(methods);
    own = tavrix_service_subscribe(
        stage.service, "events.*",
        [](tavrix_service *service, const char *method, json_t *, void *) {
            notifications.emplace_back(method);
            EXPECT_EQ(tavrix_service_cancel(service, own), TAVRIX_OK);
            EXPECT_EQ(tavrix_service_cancel(service, own), TAVRIX_ERR_NO_RECORDS);
        },
        nullptr);
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.A"})");
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.B"})");
    ASSERT_TRUE(stage.wait([&] { return stage.router.patterns.rfind("router.Unsubscribe", 0) == 0; }));
    EXPECT_EQ(notifications, std::vector<std::string>{"events.A"});
}

TEST_F(Notifications, OfOneMessageDoNotReachSubscriptionsThatTheirCallbacksMake) {
    static uint64_t own = 0;
    static tavrix_notification_callback again = nullptr;
    Stage stage(methods);
    again = [](tavrix_service *service, const char *method, json_t *, void *) {
        notifications.emplace_back(method);
        ASSERT_LT(notifications.size(), 10U) << "it never ends";
        EXPECT_EQ(tavrix_service_cancel(service, own), TAVRIX_OK);
        own = tavrix_service_subscribe(service, "events.*", again, nullptr);
    };
    own = tavrix_service_subscribe(stage.service, "events.*", again, nullptr);
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.A"})");
    stage.router.say(R"({"jsonrpc":"2.0","method":"events.B"})");
    ASSERT_TRUE(stage.wait([] { return !notifications.empty() && notifications.back() == "events.B"; }));
    EXPECT_EQ(notifications, (std::vector<std::string>{"events.A", "events.B"})) << "once each, the new ones too";
}

TEST_F(Requests, ThatTheRouterCouldNotReadAreNotMade) {
    const LogCapture log("info");
    Stage stage(methods);
    json_t *deep = json_array();
    for (int i = 0; i < 3000; ++i) {
        deep = json_pack("[o]", deep);
    }
    EXPECT_EQ(tavrix_service_request(stage.service, "t.Ask", json_pack("{s:O}", "deep", deep), 1000, note, nullptr),
              0U);
    EXPECT_NE(log.text().find("Cannot call t.Ask: it is nested deeper than the 2047 levels"), std::string::npos);
    json_t *response = nullptr;
    EXPECT_EQ(tavrix_request_wait("session.sock", "t.Ask", json_pack("{s:o}", "deep", deep), 1000, &response),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(response, nullptr);
}

TEST_F(Notifications, GoOverTheSessionWithoutAPublisher) {
    tavrix_service_options options = {};
    options.flags = TAVRIX_SERVICE_SILENT;
    Stage stage(methods, options);
    EXPECT_NE(stage.router.registration.find(R"("publish":[])"), std::string::npos);
    EXPECT_EQ(tavrix_service_publish(stage.service, "t.Happened", json_pack("{s:i}", "n", 1)), TAVRIX_OK);
    EXPECT_EQ(stage.next(), R"({"jsonrpc":"2.0","method":"t.Happened","params":{"n":1}})");
    EXPECT_EQ(tavrix_service_publish(stage.service, "t|x", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_service_publish(stage.service, "t.Happened", json_array()), TAVRIX_ERR_PARAMETER);
}

TEST_F(Requests, OfAClientWithoutMethodsNeedNoRegistration) {
    Stage stage(nullptr);
    EXPECT_TRUE(stage.router.registration.empty());
    request(stage);
    stage.router.say(response(stage.next(), R"("result":1)"));
    ASSERT_TRUE(stage.wait([] { return outcomes.size() == 1; }));
}
