#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

using namespace support;

namespace {

/** What the handlers below leave for the test to look at. */
struct Seen {
    std::vector<uint64_t> numbers;
    int abandoned = 0;
    int late_reply = 1;
    int second_reply = 1;
    int time_left_ms = 0;
    void *user = nullptr;
    std::string caller;
};
Seen seen;

int twice(tavrix_call *call) {
    tavrix_call_reply(call, json_integer(1));
    seen.second_reply = tavrix_call_reply(call, json_integer(2));
    return TAVRIX_ERR_GENERAL;
}
int refuse(tavrix_call *call, const char *message, json_t *data) {
    return tavrix_call_fail_with(call, TAVRIX_JRPC_NO_SUCH_PORT, message, data);
}
int pass_an_array_on(tavrix_call *call) {
    const Json data(json_pack("[i]", 1));
    const tavrix_answer answer = {TAVRIX_OUTCOME_ERROR, nullptr, TAVRIX_JRPC_NO_SUCH_PORT, "", data.get()};
    const int rc = tavrix_call_pass_on(call, &answer);
    EXPECT_EQ(tavrix_call_pass_on(call, &answer), TAVRIX_ERR_NO_RECORDS);
    return rc;
}
int look(tavrix_call *call) {
    seen.user = tavrix_call_user(call);
    seen.time_left_ms = tavrix_call_time_left_ms(call);
    seen.caller = caller_of(call);
    return 0;
}

void on_abandoned(tavrix_call *call, void *user) {
    ++*static_cast<int *>(user);
    EXPECT_STREQ(tavrix_call_method(call)->name, "t.Defer");
    seen.late_reply = tavrix_call_reply(call, json_integer(1));
}
int defer_noted(tavrix_call *call) {
    seen.numbers.push_back(tavrix_call_defer(call, on_abandoned, &seen.abandoned));
    return 0;
}
int defer_twice(tavrix_call *call) {
    seen.numbers.push_back(tavrix_call_defer(call, nullptr, nullptr));
    seen.numbers.push_back(tavrix_call_defer(call, nullptr, nullptr));
    return 0;
}
int yes(tavrix_call *call) { return tavrix_call_reply(call, json_true()); }
int defer_and_fail(tavrix_call *call) {
    tavrix_call_defer(call, nullptr, nullptr);
    return TAVRIX_ERR_SYSTEM_BUSY;
}
int defer_and_reply(tavrix_call *call) {
    tavrix_call_defer(call, nullptr, nullptr);
    return tavrix_call_reply(call, json_integer(4));
}

const Rows members = {TAVRIX_PARAM("done", TAVRIX_KIND_BOOLEAN, "", 0)};
const Rows bare = {TAVRIX_PARAM("", TAVRIX_KIND_BOOLEAN, "", 0)};
const Methods methods = {
    {"t.DeferTwice", defer_twice},
    {"t.Members", yes, nullptr, members},
    {"t.Bare", yes, nullptr, bare},
    {"t.Echo", echo},
    {"t.Fill", fill},
    {"t.Nest", nest},
    {"t.Nothing", accept},
    {"t.Count", [](tavrix_call *) { return 5; }},
    {"t.Busy", [](tavrix_call *) -> int { return TAVRIX_ERR_SYSTEM_BUSY; }},
    {"t.NullInput", [](tavrix_call *) -> int { return TAVRIX_ERR_NULL_INPUT; }},
    {"t.NoMemory", [](tavrix_call *call) { return tavrix_call_reply(call, nullptr); }},
    {"t.Twice", twice},
    {"t.Refuse", [](tavrix_call *call) { return refuse(call, "There is no such port.", json_pack("{s:i}", "n", 3)); }},
    {"t.RefuseInLatin1", [](tavrix_call *call) { return refuse(call, "T\xfcr fehlt", nullptr); }},
    {"t.RefuseWithAnArray", [](tavrix_call *call) { return refuse(call, "There is none.", json_array()); }},
    {"t.PassAnArrayOn", pass_an_array_on},
    {"t.Look", look},
    {"t.Defer", defer_noted},
    {"t.DeferAndFail", defer_and_fail},
    {"t.DeferAndReply", defer_and_reply}};

/** The same methods as the library's table has them. */
const tavrix_jrpc_method library_methods[] = {
    {"t.Echo",
     [](json_t *params, json_t **result, json_t **) {
         *result = json_incref(params);
         return params != nullptr ? 0 : TAVRIX_ERR_GENERAL;
     }},
    {"t.Nothing", [](json_t *, json_t **, json_t **) { return 0; }},
    {"t.Count", [](json_t *, json_t **, json_t **) { return 5; }},
    {nullptr, nullptr},
};

std::string evaluated(const std::string &request) {
    char *text = nullptr;
    tavrix_jrpc_eval_request(request.c_str(), library_methods, &text);
    return taken(text);
}

class Calls : public testing::Test {
  protected:
    Calls() { seen = Seen{}; }

    /** Says so many requests that are deferred, with the transaction ids 0, 1, 2...; and waits until they are. */
    void defer(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            stage.router.say(direct_request("t.Defer", "{}", static_cast<int>(i)));
            if (i % 64 == 0) {
                stage.step();
            }
        }
        ASSERT_TRUE(stage.wait([count] { return seen.numbers.size() == count; }));
    }
    tavrix_call *deferred(size_t number) { return tavrix_service_deferred(stage.service, seen.numbers[number]); }
    void expect_that_nothing_more_comes() {
        EXPECT_EQ(member(stage.ask("t.Nothing"), "id"), "\"t.Nothing\"") << "the first answer is the last request's";
    }

    LogCapture log{"debug"};
    Stage stage{methods};
};

} // namespace

TEST_F(Calls, AreAnsweredAsTheLibrarysEvaluatorAnswersThem) {
    for (const char *request : {
             R"({"jsonrpc":"2.0","method":"t.Echo","id":"c","params":{"a":"\u00e4\n"}})",
             R"({"jsonrpc":"2.0","method":"t.Nothing","id":"c","transaction_id":12})",
             R"({"jsonrpc":"2.0","method":"t.Count","id":5,"transaction_id":1.5})",
             R"({"jsonrpc":"2.0","method":"t.Unknown","id":"c","transaction_id":3})",
             R"({"id":"c","transaction_id":4,"method":"t.Nothing","jsonrpc":"2.0","more":[]})",
         }) {
        stage.router.say(request);
        EXPECT_EQ(stage.next(), evaluated(request)) << request;
    }
}

TEST_F(Calls, AreNotAnsweredWhereTheEvaluatorAnswersNothing) {
    for (const char *request :
         {R"({"jsonrpc":"1.0","method":"t.Nothing","id":"c"})", R"({"jsonrpc":"2.0","method":"t.Nothing","id":true})",
          R"({"jsonrpc":"2.0","method":"t.Nothing","id":"c","params":[]})",
          R"({"jsonrpc":"2.0","method":"t.Nothing","id":"c","transaction_id":"x"})",
          R"({"method":"t.Nothing","id":"c"})"}) {
        ASSERT_EQ(evaluated(request), "(null)") << request;
        stage.router.say(request);
    }
    expect_that_nothing_more_comes();
}

TEST_F(Calls, FailWithCodeAndDataThatCanBeReadWhateverItsBytesAre) {
    const std::pair<const char *, const char *> methods_and_errors[] = {
        {"t.Busy", R"(-32014 {"message":"System is busy"})"}, // the status's words
        {"t.NullInput", R"(-32001 {"message":"The input to an internal function was null"})"},
        {"t.NoMemory", "-32603 null"}, // for its result
        {"t.Refuse", R"(-32034 {"n":3,"message":"There is no such port."})"},
        {"t.RefuseInLatin1", R"(-32034 {"message":"T\\xfcr fehlt"})"},
        {"t.RefuseWithAnArray", R"(-32034 {"message":"There is none."})"},
        {"t.PassAnArrayOn", "-32034 [1]"}, // another service's own words
    };
    for (const auto &[method, error] : methods_and_errors) {
        const std::string answer = stage.ask(method);
        EXPECT_EQ(code_of(answer) + " " + data_of(answer), error) << method;
    }
    EXPECT_TRUE(log.says("t.RefuseWithAnArray: an error's data that is not an object is left out"));
}

TEST_F(Calls, TakeOneAnswerAndRefuseTheSecond) {
    EXPECT_EQ(stage.result_of("t.Twice"), "1");
    EXPECT_EQ(seen.second_reply, TAVRIX_ERR_NO_RECORDS);
    expect_that_nothing_more_comes();
}

TEST_F(Calls, KnowTheirUserAndTheirTime) {
    tavrix_service_options options = {};
    options.user = &seen;
    stage.close();
    stage.serve(methods, options);
    stage.ask("t.Look");
    EXPECT_EQ(seen.user, &seen);
    EXPECT_EQ(seen.time_left_ms, 5000) << "what the router said";
}

TEST_F(Calls, KnowTheirRoadAndTheirCallerAsFarAsTheRouterSays) {
    const char *const nobody = "session -1 4294967295 4294967295";
    const std::pair<const char *, const char *> said_and_known[] = {
        {R"(,"caller":{"pid":71,"uid":1000,"gid":100})", "session 71 1000 100"},
        {R"(,"caller":{"pid":71,"uid":0,"gid":0})", "session 71 0 0"},
        {R"(,"caller":{"pid":71,"uid":4294967294,"gid":4294967294})", "session 71 4294967294 4294967294"},
        {R"(,"caller":{"pid":0,"uid":65534,"gid":65534})", "session -1 65534 65534"},
        {"", nobody},
        {R"(,"caller":{"pid":71,"uid":"0","gid":0})", nobody},
        {R"(,"caller":0)", nobody},
    };
    for (const auto &[said, known] : said_and_known) {
        stage.router.say(request("t.Look", "\"c\"", said));
        EXPECT_EQ(member(stage.next(), "result"), "0");
        EXPECT_EQ(seen.caller, known) << said;
    }
    EXPECT_EQ(tavrix_call_caller(nullptr).uid, static_cast<uid_t>(-1));
}

TEST_F(Calls, CanBeAnsweredLaterInAnyOrderAndOnce) {
    defer(2);
    for (const size_t number : {size_t{1}, size_t{0}}) {
        EXPECT_EQ(tavrix_call_reply(deferred(number), json_integer(20)), TAVRIX_OK);
        EXPECT_EQ(member(stage.next(), "transaction_id"), std::to_string(number));
        EXPECT_EQ(deferred(number), nullptr);
        EXPECT_EQ(tavrix_call_reply(deferred(number), json_integer(2)), TAVRIX_ERR_NO_RECORDS);
    }
    EXPECT_EQ(seen.abandoned, 0);
}

TEST_F(Calls, DeferredAndFailedOrAnsweredAtOnceHaveOneAnswer) {
    EXPECT_EQ(stage.code_of("t.DeferAndFail"), "-32014");
    EXPECT_EQ(stage.result_of("t.DeferAndReply"), "4");
    expect_that_nothing_more_comes();
}

TEST_F(Calls, EndWhenTheRouterCancelsThem) {
    defer(2);
    stage.router.say(R"({"jsonrpc":"2.0","method":"service.Cancel","params":{"transaction_id":0}})");
    ASSERT_TRUE(stage.wait([] { return seen.abandoned == 1; }));
    EXPECT_EQ(seen.late_reply, TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(deferred(0), nullptr);
    EXPECT_NE(deferred(1), nullptr);
}

TEST_F(Calls, ThatAreNeverAnsweredEndAtTheirDeadline) {
    stage.router.reply_timeout_ms = 50;
    stage.restart_router();
    defer(1);
    ASSERT_TRUE(stage.wait([] { return seen.abandoned == 1; }));
    EXPECT_EQ(deferred(0), nullptr);
    EXPECT_TRUE(stage.router.lines.empty()) << "the router tells its client itself";
}

TEST_F(Calls, EndWithTheRouterThatSentThem) {
    defer(3);
    stage.router.hang_up();
    ASSERT_TRUE(stage.wait([] { return seen.abandoned == 3; }));
    ASSERT_TRUE(stage.wait_ready());
    expect_that_nothing_more_comes();
}

TEST_F(Calls, BeyondTheLimitAreAnsweredBusy) {
    defer(TAVRIX_SERVICE_MAX_DEFERRED);
    EXPECT_TRUE(stage.router.lines.empty());
    EXPECT_EQ(stage.code_of("t.Defer"), "-32014");
    EXPECT_EQ(seen.numbers.back(), 0U);
}

TEST_F(Calls, OnOneSessionAreAnsweredInTheirOrderByThousands) {
    constexpr int total = 5000;
    int answered = 0;
    for (int i = 0; i < total; ++i) {
        stage.router.say(direct_request("t.Echo", "{\"n\":" + std::to_string(i) + "}", i));
        if (i % 64 == 63 || i == total - 1) {
            stage.wait([&] { return static_cast<int>(stage.router.lines.size()) == i + 1 - answered; });
            for (; !stage.router.lines.empty(); stage.router.lines.pop_front(), ++answered) {
                ASSERT_EQ(member(stage.router.lines.front(), "result"), "{\"n\":" + std::to_string(answered) + "}");
            }
        }
    }
    EXPECT_EQ(answered, total);
}

TEST_F(Calls, WhoseAnswerNobodyCouldReadAreAnsweredWithAnError) {
    const std::string too_large = stage.ask("t.Fill", R"({"n":9371600})");
    EXPECT_EQ(code_of(too_large), "-32004");
    EXPECT_TRUE(holds(too_large, "The answer cannot be sent: it has 93716"));
    EXPECT_TRUE(holds(too_large, "bytes, and at most 9371648 can be sent."));
    EXPECT_TRUE(log.says("t.Fill: the answer cannot be sent: it has"));
    EXPECT_EQ(stage.result_of("t.Fill", R"({"n":9371000})").size(), 9371002U);

    const std::string deepest = stage.result_of("t.Nest", R"({"n":2046})"); // and the answer's own braces
    EXPECT_EQ(deepest.size(), 2 * 2046U) << "every parser reads this";
    const std::string too_deep = stage.ask("t.Nest", R"({"n":2047})");
    EXPECT_EQ(code_of(too_deep), "-32004");
    EXPECT_TRUE(holds(too_deep, "it is nested deeper than the 2047 levels that can be read."));
    EXPECT_EQ(stage.code_of("t.Echo", R"({"t":"\"\\\"[)" + std::string(5000, '[') + R"("})"), "(none)")
        << "brackets in a text nest nothing";
}

TEST_F(Calls, WhoseResultIsNotTheirRowsAreSaidInTheLog) {
    const struct {
        const char *method;
        const char *result;
        bool is_told;
    } rows[] = {
        {"t.Nothing", "0", false}, {"t.Echo", "{}", true}, {"t.Members", "true", true}, {"t.Bare", "true", false}};
    for (const auto &row : rows) {
        EXPECT_EQ(stage.result_of(row.method), row.result);
        const std::string told = std::string(row.method) + " answers another result than its row says";
        EXPECT_EQ(static_cast<bool>(log.says(told)), row.is_told) << row.method;
    }
}

TEST_F(Calls, AreDeferredOnce) {
    stage.router.say(direct_request("t.DeferTwice", "{}", 7));
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == 2; }));
    EXPECT_EQ(seen.numbers[1], 0U);
    ASSERT_NE(deferred(0), nullptr) << "the second time has changed nothing";
    EXPECT_EQ(tavrix_call_reply(deferred(0), json_integer(0)), TAVRIX_OK);
    EXPECT_EQ(member(stage.next(), "result"), "0");
}
