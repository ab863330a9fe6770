#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/json.h"
#include "tavrix.h"
#include "testkit/driven_service.h"

namespace {

/** What the handlers and callbacks below have seen. */
struct Seen {
    std::vector<std::string> words;
    uint64_t number = 0;
};
Seen seen;

void remember(const std::string &word) { seen.words.push_back(word); }

int echo(tavrix_call *call) { return tavrix_call_reply(call, json_incref(tavrix_call_params(call))); }
int fail(tavrix_call * /*call*/) {
    tavrix_lsyslog_log(TAVRIX_LOG_ERROR, "t", 1, "This fails.\n");
    return TAVRIX_ERR_SYSTEM_BUSY;
}
int defer(tavrix_call *call) {
    seen.number = tavrix_call_defer(
        call, [](tavrix_call * /*call*/, void * /*user*/) { remember("abandoned"); }, nullptr);
    return 0;
}
int answer_the_deferred(tavrix_call *call) {
    tavrix_call_reply(tavrix_service_deferred(tavrix_call_service(call), seen.number), json_string("late"));
    return tavrix_call_reply(call, json_string("own"));
}
void on_answer(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    remember("outcome " + std::to_string(answer->outcome) + " " + std::to_string(answer->code));
}
void on_first(tavrix_service *service, const tavrix_answer * /*answer*/, void * /*user*/) {
    remember("first");
    tavrix_service_request(service, "o.Second", nullptr, 100, on_answer, nullptr);
}
int ask(tavrix_call *call) {
    tavrix_service_request(tavrix_call_service(call), "o.First", json_pack("{s:i}", "n", 1), 100, on_first, nullptr);
    remember("asked");
    return 0;
}
int break_down(tavrix_call * /*call*/) {
    std::fprintf(stderr, "what the handler says\n");
    std::abort();
}
int publish(tavrix_call *call) {
    return tavrix_service_publish(tavrix_call_service(call), "t.Told", json_pack("{s:b}", "told", 1));
}

const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Echo", echo, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Fail", fail, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Defer", defer, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.AnswerTheDeferred", answer_the_deferred, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Ask", ask, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.BreakDown", break_down, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Publish", publish, "", nullptr, nullptr, 0),
    TAVRIX_METHOD_END,
};

tavrix_service_options testee_options(const tavrix_service_method *table) {
    tavrix_service_options options{};
    options.name = "testee";
    options.methods = table;
    options.ready = [](tavrix_service * /*service*/, void * /*user*/) { remember("ready"); };
    options.stop = [](tavrix_service * /*service*/, void * /*user*/) { remember("stop"); };
    return options;
}

class TestKit : public testing::Test, protected driven::Service {
  protected:
    TestKit() : driven::Service(testee_options(methods)) {
        seen = {};
        EXPECT_TRUE(logged("INFO testee ready"));
    }

    void timer(int first_ms, int interval_ms, const char *word) {
        tavrix_service_timer(
            service(), first_ms, interval_ms,
            [](tavrix_service * /*service*/, void *user) { remember(static_cast<const char *>(user)); },
            const_cast<char *>(word));
    }
};

using Words = std::vector<std::string>;

TEST_F(TestKit, GivesTheWholeResponseToARequestAndNothingForWhatIsNone) {
    EXPECT_EQ(request(R"({"jsonrpc":"2.0","method":"t.Echo","id":1,"transaction_id":9,"params":{"a":1}})"),
              R"({"jsonrpc":"2.0","id":"t.Echo","result":{"a":1},"transaction_id":9})");
    EXPECT_EQ(request("{"), "(none)");
    EXPECT_EQ(request(R"({"jsonrpc":"2.0","method":"t.Echo"})"), "(none)");
}

TEST_F(TestKit, GivesTheOutcomeOfACall) {
    EXPECT_EQ(call("t.Echo", R"({"b":[2]})"), R"({"result":{"b":[2]}})");
    EXPECT_EQ(call("t.None"), R"({"error":{"code":-32601,"message":"Method not found","data":null}})");
}

TEST_F(TestKit, KeepsTheResponseOfADeferredCallApartFromTheNextOnes) {
    EXPECT_EQ(call("t.Defer"), "(none)");
    EXPECT_EQ(call("t.AnswerTheDeferred"), R"({"result":"own"})");
    EXPECT_EQ(call("t.Echo", "{}"), R"({"result":{}})");
    EXPECT_EQ(driven::text(tavrix_service_test_next_response(test())),
              R"({"jsonrpc":"2.0","id":"t.Defer","result":"late","transaction_id":1})");
    EXPECT_EQ(tavrix_service_test_next_response(test()), nullptr);
}

TEST_F(TestKit, CancelsACallByItsTransactionId) {
    call("t.Defer");
    cancel(2);
    EXPECT_EQ(seen.words, Words{});
    cancel(1);
    EXPECT_EQ(seen.words, Words{"abandoned"});
}

TEST_F(TestKit, ShowsARequestAndLetsItBeAnsweredOnce) {
    call("t.Ask");
    EXPECT_EQ(next_request(), R"({"method":"o.First","params":{"n":1}})");
    EXPECT_TRUE(answer("o.First", R"({"result":1})"));
    EXPECT_FALSE(answer("o.First", R"({"result":1})"));
    EXPECT_EQ(next_request(), R"({"method":"o.Second"})");
}

TEST_F(TestKit, PlaysAnswersAfterTheHandler) {
    play("o.First", R"({"result":1})");
    play("o.Second", R"({"error":{"code":-32014}})");
    EXPECT_EQ(call("t.Ask"), R"({"result":0})");
    EXPECT_EQ(seen.words, (Words{"asked", "first", "outcome 1 -32014"}));
    EXPECT_EQ(next_request(), "(none)");
}

TEST_F(TestKit, ReplacesWhatItPlays) {
    play("o.First", R"({"result":1})");
    tavrix_service_test_play(test(), "o.First", nullptr);
    call("t.Ask");
    EXPECT_EQ(seen.words, Words{"asked"});
}

TEST_F(TestKit, ShowsNotifications) {
    call("t.Publish");
    EXPECT_EQ(next_notification(), R"({"method":"t.Told","params":{"told":true}})");
    EXPECT_EQ(next_notification(), "(none)");
}

TEST_F(TestKit, ShowsLogLinesWithTheirLevelAndWithoutDebugging) {
    tavrix_lsyslog_reload_conf();
    call("t.Fail");
    EXPECT_EQ(next_log(), "ERROR This fails.");
    EXPECT_FALSE(logged("DEBUG"));
    EXPECT_EQ(next_log(), "(none)");
}

TEST_F(TestKit, LeavesTheTestsOwnStandardErrorAlone) {
    testing::internal::CaptureStderr();
    call("t.Fail");
    std::fprintf(stderr, "the test's\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "the test's\n");
}

TEST_F(TestKit, RingsTimersInTheirOrderEachAtItsTime) {
    timer(30, 0, "thirty");
    timer(10, 10, "ten");
    advance(9);
    EXPECT_EQ(seen.words, Words{});
    advance(1);
    EXPECT_EQ(seen.words, Words{"ten"});
    advance(20);
    EXPECT_EQ(seen.words, (Words{"ten", "ten", "thirty", "ten"}));
    advance(100);
    EXPECT_EQ(seen.words.size(), 14U);
}

TEST_F(TestKit, StandsStillUntilItIsMoved) {
    timer(0, 0, "at once");
    run();
    EXPECT_EQ(seen.words, Words{});
    advance(0);
    EXPECT_EQ(seen.words, Words{"at once"});
}

TEST_F(TestKit, EndsRequestsAndCallsWhenTheirTimeHasPassed) {
    call("t.Ask");
    advance(100);
    EXPECT_EQ(seen.words, (Words{"asked", "first"}));
    call("t.Defer");
    advance(9999);
    EXPECT_EQ(tavrix_call_time_left_ms(tavrix_service_deferred(service(), seen.number)), 1);
    advance(1);
    EXPECT_EQ(seen.words.back(), "abandoned");
}

TEST_F(TestKit, DeliversNotificationsAndTellsOfLostOnes) {
    tavrix_service_subscribe(
        service(), "o.*",
        [](tavrix_service * /*service*/, const char *method, json_t *params, void * /*user*/) {
            remember(method + std::to_string(json_integer_value(json_object_get(params, "n"))));
        },
        nullptr);
    tavrix_service_on_lost(
        service(),
        [](tavrix_service * /*service*/, uint64_t count, void * /*user*/) {
            remember("lost " + std::to_string(count));
        },
        nullptr);
    notify("o.Happened", R"({"n":3})");
    notify("other.Happened", nullptr);
    lose(4);
    EXPECT_EQ(seen.words, (Words{"o.Happened3", "lost 4"}));
}

TEST_F(TestKit, EndsWhatIsInFlightWhenTheRouterRestarts) {
    call("t.Defer");
    tavrix_service_request(service(), "o.First", nullptr, 100, on_answer, nullptr);
    run();
    restart_router();
    EXPECT_EQ(seen.words, (Words{"outcome 3 -32601", "abandoned", "ready"}));
    EXPECT_EQ(call("t.Echo", "{}"), R"({"result":{}})");
}

TEST_F(TestKit, EndsWhatIsInFlightWhenTheServiceStopsItself) {
    EXPECT_EQ(call("t.Defer"), "(none)");
    tavrix_service_timer(
        service(), 10, 0, [](tavrix_service *service, void * /*user*/) { tavrix_service_stop(service); }, nullptr);
    advance(9);
    EXPECT_FALSE(is_stopped());
    EXPECT_EQ(next_outcome(), "(none)");
    advance(1);
    EXPECT_TRUE(is_stopped());
    EXPECT_TRUE(support::holds(next_outcome(), "The service ends."));
    EXPECT_EQ(next_outcome(), "(none)");
}

TEST_F(TestKit, StopsAsSigtermDoes) {
    call("t.Defer");
    EXPECT_FALSE(is_stopped());
    stop();
    EXPECT_TRUE(is_stopped());
    EXPECT_TRUE(support::holds(next_outcome(), "The service ends."));
    EXPECT_EQ(support::code_of(call("t.Echo")), "-32014");
    close();
    EXPECT_EQ(seen.words, Words{"stop"});
}

using TestKitDeathTest = TestKit;

TEST_F(TestKitDeathTest, ShowsWhyAHandlerEndedTheProgram) {
    EXPECT_DEATH(call("t.BreakDown"), "what the handler says");
}

TEST_F(TestKitDeathTest, RefusesWhatIsNoObject) {
    EXPECT_DEATH(call("t.Echo", "[]"), "this is not a JSON object: \\[\\]");
    EXPECT_DEATH(play("o.First", "1"), "this is not a JSON object: 1");
    EXPECT_DEATH(tavrix_service_test_call(nullptr, "t.Echo", nullptr), "there is no test");
}

TEST(TestKitOpen, TellsOnStandardErrorWhyAServiceCannotBe) {
    const tavrix_service_method two_channels[] = {
        TAVRIX_METHOD("ports.A", echo, "", nullptr, nullptr, 0),
        TAVRIX_METHOD("events.A", echo, "", nullptr, nullptr, 0),
        TAVRIX_METHOD_END,
    };
    const tavrix_service_options options = testee_options(two_channels);
    tavrix_service_test *test = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tavrix_service_test_open(&options, &test), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(
        support::holds(testing::internal::GetCapturedStderr(), "Methods ports.A and events.A belong to two channels"));
    EXPECT_EQ(test, nullptr);
}

} // namespace
