#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tavrix.h"
#include "tavrix_service_test.h"

namespace {

/** What the handlers and callbacks below have seen. */
struct Seen {
    std::vector<std::string> words;
    tavrix_call *call = nullptr;
    uint64_t number = 0;
    int ticks = 0;
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

tavrix_service_options options_of(const tavrix_service_method *table) {
    tavrix_service_options options{};
    options.name = "testee";
    options.methods = table;
    options.ready = [](tavrix_service * /*service*/, void * /*user*/) { remember("ready"); };
    options.stop = [](tavrix_service * /*service*/, void * /*user*/) { remember("stop"); };
    return options;
}

std::string text(const char *found) { return found != nullptr ? found : "(none)"; }

class TestKit : public testing::Test {
  protected:
    TestKit() {
        seen = {};
        const tavrix_service_options options = options_of(methods);
        EXPECT_EQ(tavrix_service_test_open(&options, &test_), 0);
        EXPECT_TRUE(tavrix_service_test_logged(test_, "INFO testee ready"));
        seen.words.clear();
    }
    ~TestKit() override { tavrix_service_test_close(test_); }

    std::string call(const char *method, const char *params = nullptr) {
        return text(tavrix_service_test_call(test_, method, params));
    }
    std::string next_outcome() { return text(tavrix_service_test_next_outcome(test_)); }
    void timer(int first_ms, int interval_ms, const char *word) {
        tavrix_service_timer(
            tavrix_service_test_service(test_), first_ms, interval_ms,
            [](tavrix_service * /*service*/, void *user) { remember(static_cast<const char *>(user)); },
            const_cast<char *>(word));
    }

    tavrix_service_test *test_ = nullptr;
};

using Words = std::vector<std::string>;

// --- Requests to the service ---

TEST_F(TestKit, GivesTheWholeResponseToAText) {
    EXPECT_EQ(text(tavrix_service_test_request(
                  test_, R"({"jsonrpc":"2.0","method":"t.Echo","id":1,"transaction_id":9,"params":{"a":1}})")),
              R"({"jsonrpc":"2.0","id":"t.Echo","result":{"a":1},"transaction_id":9})");
}

TEST_F(TestKit, GivesNothingForWhatIsNoRequest) {
    EXPECT_EQ(tavrix_service_test_request(test_, "{"), nullptr);
    EXPECT_EQ(tavrix_service_test_request(test_, R"({"jsonrpc":"2.0","method":"t.Echo"})"), nullptr);
}

TEST_F(TestKit, GivesTheOutcomeOfACall) {
    EXPECT_EQ(call("t.Echo", R"({"b":[2]})"), R"({"result":{"b":[2]}})");
    EXPECT_EQ(call("t.None"), R"({"error":{"code":-32601,"message":"Method not found","data":null}})");
}

TEST_F(TestKit, KeepsTheResponseOfADeferredCallApartFromTheNextOnes) {
    EXPECT_EQ(call("t.Defer"), "(none)");
    EXPECT_EQ(call("t.AnswerTheDeferred"), R"({"result":"own"})");
    EXPECT_EQ(call("t.Echo", "{}"), R"({"result":{}})");
    EXPECT_EQ(text(tavrix_service_test_next_response(test_)),
              R"({"jsonrpc":"2.0","id":"t.Defer","result":"late","transaction_id":1})");
    EXPECT_EQ(tavrix_service_test_next_response(test_), nullptr);
}

TEST_F(TestKit, CancelsACallByItsTransactionId) {
    call("t.Defer");
    tavrix_service_test_cancel(test_, 2);
    EXPECT_EQ(seen.words, Words{});
    tavrix_service_test_cancel(test_, 1);
    EXPECT_EQ(seen.words, Words{"abandoned"});
}

// --- What the service sends ---

TEST_F(TestKit, ShowsARequestAndLetsItBeAnsweredOnce) {
    call("t.Ask");
    EXPECT_EQ(text(tavrix_service_test_next_request(test_)), R"({"method":"o.First","params":{"n":1}})");
    EXPECT_TRUE(tavrix_service_test_answer(test_, "o.First", R"({"result":1})"));
    EXPECT_FALSE(tavrix_service_test_answer(test_, "o.First", R"({"result":1})"));
    EXPECT_EQ(text(tavrix_service_test_next_request(test_)), R"({"method":"o.Second"})");
}

TEST_F(TestKit, PlaysAnswersAfterTheHandler) {
    tavrix_service_test_play(test_, "o.First", R"({"result":1})");
    tavrix_service_test_play(test_, "o.Second", R"({"error":{"code":-32014}})");
    EXPECT_EQ(call("t.Ask"), R"({"result":0})");
    EXPECT_EQ(seen.words, (Words{"asked", "first", "outcome 1 -32014"}));
    EXPECT_EQ(tavrix_service_test_next_request(test_), nullptr);
}

TEST_F(TestKit, ReplacesWhatItPlays) {
    tavrix_service_test_play(test_, "o.First", R"({"result":1})");
    tavrix_service_test_play(test_, "o.First", nullptr);
    call("t.Ask");
    EXPECT_EQ(seen.words, Words{"asked"});
}

TEST_F(TestKit, ShowsNotifications) {
    call("t.Publish");
    EXPECT_EQ(text(tavrix_service_test_next_notification(test_)), R"({"method":"t.Told","params":{"told":true}})");
    EXPECT_EQ(tavrix_service_test_next_notification(test_), nullptr);
}

TEST_F(TestKit, ShowsLogLinesWithTheirLevelAndWithoutDebugging) {
    tavrix_lsyslog_reload_conf();
    call("t.Fail");
    EXPECT_EQ(text(tavrix_service_test_next_log(test_)), "ERROR This fails.");
    EXPECT_FALSE(tavrix_service_test_logged(test_, "DEBUG"));
    EXPECT_EQ(tavrix_service_test_next_log(test_), nullptr);
}

TEST_F(TestKit, LeavesTheTestsOwnStandardErrorAlone) {
    testing::internal::CaptureStderr();
    call("t.Fail");
    std::fprintf(stderr, "the test's\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "the test's\n");
}

// --- What happens to the service ---

TEST_F(TestKit, RingsTimersInTheirOrderEachAtItsTime) {
    timer(30, 0, "thirty");
    timer(10, 10, "ten");
    tavrix_service_test_advance(test_, 9);
    EXPECT_EQ(seen.words, Words{});
    tavrix_service_test_advance(test_, 1);
    EXPECT_EQ(seen.words, Words{"ten"});
    tavrix_service_test_advance(test_, 20);
    EXPECT_EQ(seen.words, (Words{"ten", "ten", "thirty", "ten"}));
    tavrix_service_test_advance(test_, 100);
    EXPECT_EQ(seen.words.size(), 14U);
}

TEST_F(TestKit, StandsStillUntilItIsMoved) {
    timer(0, 0, "at once");
    tavrix_service_test_run(test_);
    EXPECT_EQ(seen.words, Words{});
    tavrix_service_test_advance(test_, 0);
    EXPECT_EQ(seen.words, Words{"at once"});
}

TEST_F(TestKit, EndsRequestsAndCallsWhenTheirTimeHasPassed) {
    call("t.Ask");
    tavrix_service_test_advance(test_, 100);
    EXPECT_EQ(seen.words, (Words{"asked", "first"}));
    call("t.Defer");
    tavrix_service_test_advance(test_, 9999);
    EXPECT_EQ(tavrix_call_time_left_ms(tavrix_service_deferred(tavrix_service_test_service(test_), seen.number)), 1);
    tavrix_service_test_advance(test_, 1);
    EXPECT_EQ(seen.words.back(), "abandoned");
}

TEST_F(TestKit, DeliversNotificationsAndTellsOfLostOnes) {
    tavrix_service *service = tavrix_service_test_service(test_);
    tavrix_service_subscribe(
        service, "o.*",
        [](tavrix_service * /*service*/, const char *method, json_t *params, void * /*user*/) {
            remember(method + std::to_string(json_integer_value(json_object_get(params, "n"))));
        },
        nullptr);
    tavrix_service_on_lost(
        service,
        [](tavrix_service * /*service*/, uint64_t count, void * /*user*/) {
            remember("lost " + std::to_string(count));
        },
        nullptr);
    tavrix_service_test_notify(test_, "o.Happened", R"({"n":3})");
    tavrix_service_test_notify(test_, "other.Happened", nullptr);
    tavrix_service_test_lose(test_, 4);
    EXPECT_EQ(seen.words, (Words{"o.Happened3", "lost 4"}));
}

TEST_F(TestKit, EndsWhatIsInFlightWhenTheRouterRestarts) {
    call("t.Defer");
    tavrix_service_request(tavrix_service_test_service(test_), "o.First", nullptr, 100, on_answer, nullptr);
    tavrix_service_test_run(test_);
    tavrix_service_test_restart_router(test_);
    EXPECT_EQ(seen.words, (Words{"outcome 3 -32601", "abandoned", "ready"}));
    EXPECT_EQ(call("t.Echo", "{}"), R"({"result":{}})");
}

TEST_F(TestKit, EndsWhatIsInFlightWhenTheServiceStopsItself) {
    EXPECT_EQ(call("t.Defer"), "(none)");
    tavrix_service_timer(
        tavrix_service_test_service(test_), 10, 0,
        [](tavrix_service *service, void * /*user*/) { tavrix_service_stop(service); }, nullptr);
    tavrix_service_test_advance(test_, 9);
    EXPECT_FALSE(tavrix_service_test_is_stopped(test_));
    EXPECT_EQ(next_outcome(), "(none)");
    tavrix_service_test_advance(test_, 1);
    EXPECT_TRUE(tavrix_service_test_is_stopped(test_));
    EXPECT_NE(next_outcome().find("The service ends."), std::string::npos);
    EXPECT_EQ(next_outcome(), "(none)");
}

TEST_F(TestKit, StopsAsSigtermDoes) {
    call("t.Defer");
    EXPECT_FALSE(tavrix_service_test_is_stopped(test_));
    tavrix_service_test_stop(test_);
    EXPECT_TRUE(tavrix_service_test_is_stopped(test_));
    EXPECT_NE(next_outcome().find("The service ends."), std::string::npos);
    EXPECT_NE(call("t.Echo").find("-32014"), std::string::npos);
    tavrix_service_test_close(test_);
    test_ = nullptr;
    EXPECT_EQ(seen.words, Words{"stop"});
}

// --- Mistakes ---

using TestKitDeathTest = TestKit;

TEST_F(TestKitDeathTest, ShowsWhyAHandlerEndedTheProgram) {
    EXPECT_DEATH(call("t.BreakDown"), "what the handler says");
}

TEST_F(TestKitDeathTest, RefusesWhatIsNoObject) {
    EXPECT_DEATH(call("t.Echo", "[]"), "this is no JSON object: \\[\\]");
    EXPECT_DEATH(tavrix_service_test_play(test_, "o.First", "1"), "this is no JSON object: 1");
    EXPECT_DEATH(tavrix_service_test_call(nullptr, "t.Echo", nullptr), "there is no test");
}

TEST(TestKitOpen, TellsOnStandardErrorWhyAServiceCannotBe) {
    const tavrix_service_method two_channels[] = {
        TAVRIX_METHOD("ports.A", echo, "", nullptr, nullptr, 0),
        TAVRIX_METHOD("events.A", echo, "", nullptr, nullptr, 0),
        TAVRIX_METHOD_END,
    };
    const tavrix_service_options options = options_of(two_channels);
    tavrix_service_test *test = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tavrix_service_test_open(&options, &test), TAVRIX_ERR_PARAMETER);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("two channels"), std::string::npos);
    EXPECT_EQ(test, nullptr);
}

} // namespace
