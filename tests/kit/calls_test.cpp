#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

namespace {

using support::code_of;
using support::Json;
using support::LogCapture;
using support::member;
using support::Stage;

/** What the handlers below leave for the test to look at. */
struct Seen {
    std::vector<uint64_t> numbers;
    int abandoned = 0;
    int late_reply = 1;
    int second_reply = 1;
    int time_left_ms = 0;
    void *user = nullptr;
    tavrix_caller caller = {TAVRIX_ROAD_BUS, 0, 0, 0};
};
Seen seen;

int echo(tavrix_call *call) { return tavrix_call_reply(call, json_incref(tavrix_call_params(call))); }
int fill(tavrix_call *call) {
    const json_int_t size = json_integer_value(json_object_get(tavrix_call_params(call), "n"));
    return tavrix_call_reply(call, json_string(std::string(static_cast<size_t>(size), 'x').c_str()));
}
/** Arrays within each other, the innermost holding a number. */
int nest(tavrix_call *call) {
    const json_int_t depth = json_integer_value(json_object_get(tavrix_call_params(call), "n"));
    json_t *value = json_integer(1);
    for (json_int_t i = 0; i < depth; ++i) {
        value = json_pack("[o]", value);
    }
    return tavrix_call_reply(call, value);
}
int nothing(tavrix_call * /*call*/) { return 0; }
int count(tavrix_call * /*call*/) { return 5; }
int busy(tavrix_call * /*call*/) { return TAVRIX_ERR_SYSTEM_BUSY; }
int null_input(tavrix_call * /*call*/) { return TAVRIX_ERR_NULL_INPUT; }
int no_memory(tavrix_call *call) { return tavrix_call_reply(call, nullptr); }
int twice(tavrix_call *call) {
    tavrix_call_reply(call, json_integer(1));
    seen.second_reply = tavrix_call_reply(call, json_integer(2));
    return TAVRIX_ERR_GENERAL;
}
int refuse(tavrix_call *call) {
    return tavrix_call_fail_with(call, TAVRIX_JRPC_NO_SUCH_PORT, "There is no such port.", json_pack("{s:i}", "n", 3));
}
int refuse_in_latin_1(tavrix_call *call) {
    return tavrix_call_fail_with(call, TAVRIX_JRPC_NO_SUCH_PORT, "T\xfcr fehlt", nullptr);
}
int refuse_with_an_array(tavrix_call *call) {
    return tavrix_call_fail_with(call, TAVRIX_JRPC_NO_SUCH_PORT, "There is none.", json_array());
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
    seen.caller = tavrix_call_caller(call);
    return 0;
}

void on_abandoned(tavrix_call *call, void *user) {
    ++*static_cast<int *>(user);
    EXPECT_STREQ(tavrix_call_method(call)->name, "t.Defer");
    seen.late_reply = tavrix_call_reply(call, json_integer(1));
}
int defer(tavrix_call *call) {
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

const tavrix_service_param members[] = {TAVRIX_PARAM("done", TAVRIX_KIND_BOOLEAN, "", 0), TAVRIX_PARAM_END};
const tavrix_service_param bare[] = {TAVRIX_PARAM("", TAVRIX_KIND_BOOLEAN, "", 0), TAVRIX_PARAM_END};
const tavrix_service_param text_rows[] = {
    TAVRIX_PARAM("text", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("lines", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL | TAVRIX_MULTILINE),
    TAVRIX_PARAM_RANGE("short", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL, 1, 3),
    TAVRIX_PARAM_RANGE("number", TAVRIX_KIND_NUMBER, "", TAVRIX_OPTIONAL, 5, 6),
    TAVRIX_PARAM_END,
};
const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Text", nothing, "", text_rows, nullptr, 0),
    TAVRIX_METHOD("t.DeferTwice", defer_twice, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Members", yes, "", nullptr, members, 0),
    TAVRIX_METHOD("t.Bare", yes, "", nullptr, bare, 0),
    TAVRIX_METHOD("t.Echo", echo, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Fill", fill, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Nest", nest, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Nothing", nothing, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Count", count, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Busy", busy, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.NullInput", null_input, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.NoMemory", no_memory, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Twice", twice, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Refuse", refuse, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.RefuseInLatin1", refuse_in_latin_1, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.RefuseWithAnArray", refuse_with_an_array, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.PassAnArrayOn", pass_an_array_on, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Look", look, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Defer", defer, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.DeferAndFail", defer_and_fail, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.DeferAndReply", defer_and_reply, "", nullptr, nullptr, 0),
    TAVRIX_METHOD_END,
};

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
    return support::taken(text);
}

class Calls : public testing::Test {
  protected:
    void SetUp() override { seen = Seen{}; }
};

} // namespace

TEST_F(Calls, AreAnsweredAsTheLibrarysEvaluatorAnswersThem) {
    const LogCapture log("info");
    Stage stage(methods);
    const std::vector<std::string> requests = {
        R"({"jsonrpc":"2.0","method":"t.Echo","id":"c","params":{"a":"\u00e4\n"}})",
        R"({"jsonrpc":"2.0","method":"t.Nothing","id":"c","transaction_id":12})",
        R"({"jsonrpc":"2.0","method":"t.Count","id":5,"transaction_id":1.5})",
        R"({"jsonrpc":"2.0","method":"t.Unknown","id":"c","transaction_id":3})",
        R"({"id":"c","transaction_id":4,"method":"t.Nothing","jsonrpc":"2.0","more":[]})",
    };
    for (const std::string &request : requests) {
        stage.router.say(request);
        EXPECT_EQ(stage.next(), evaluated(request)) << request;
    }
}

TEST_F(Calls, AreNotAnsweredWhereTheEvaluatorAnswersNothing) {
    const LogCapture log("info");
    Stage stage(methods);
    for (const char *request :
         {R"({"jsonrpc":"1.0","method":"t.Nothing","id":"c"})", R"({"jsonrpc":"2.0","method":"t.Nothing","id":true})",
          R"({"jsonrpc":"2.0","method":"t.Nothing","id":"c","params":[]})",
          R"({"jsonrpc":"2.0","method":"t.Nothing","id":"c","transaction_id":"x"})",
          R"({"method":"t.Nothing","id":"c"})"}) {
        ASSERT_EQ(evaluated(request), "(null)") << request;
        stage.router.say(request);
    }
    EXPECT_EQ(member(stage.ask("t.Count"), "id"), "\"t.Count\"") << "the first answer is the last request's";
}

TEST_F(Calls, FailWithTheStatusAndItsWords) {
    const LogCapture log("info");
    Stage stage(methods);
    const std::string answer = stage.ask("t.Busy");
    EXPECT_EQ(code_of(answer), "-32014");
    EXPECT_EQ(member(member(answer, "error"), "data"), R"({"message":"System is busy"})");
    EXPECT_EQ(code_of(stage.ask("t.NullInput")), "-32001");
}

TEST_F(Calls, FailWithCodeDataAndMessage) {
    const LogCapture log("info");
    Stage stage(methods);
    const std::string error = member(stage.ask("t.Refuse"), "error");
    EXPECT_EQ(member(error, "code"), "-32034");
    EXPECT_EQ(member(error, "data"), R"({"n":3,"message":"There is no such port."})");
}

TEST_F(Calls, WithoutAResultForWantOfMemoryFailInternally) {
    const LogCapture log("info");
    Stage stage(methods);
    EXPECT_EQ(code_of(stage.ask("t.NoMemory")), "-32603");
}

TEST_F(Calls, TakeOneAnswerAndRefuseTheSecond) {
    Stage stage(methods);
    EXPECT_EQ(member(stage.ask("t.Twice"), "result"), "1");
    EXPECT_EQ(seen.second_reply, TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(member(stage.ask("t.Nothing"), "id"), "\"t.Nothing\"");
}

TEST_F(Calls, KnowTheirUserTheirRoadAndTheirTime) {
    tavrix_service_options options = {};
    options.user = &seen;
    Stage stage(methods, options);
    stage.ask("t.Look");
    EXPECT_EQ(seen.user, &seen);
    EXPECT_EQ(seen.caller.road, TAVRIX_ROAD_SESSION);
    EXPECT_EQ(seen.time_left_ms, 5000) << "what the router said";
}

TEST_F(Calls, KnowTheirCallerAsFarAsTheRouterSays) {
    const struct {
        const char *said;
        pid_t pid;
        uid_t uid;
        gid_t gid;
    } rows[] = {
        {R"(,"caller":{"pid":71,"uid":1000,"gid":100}})", 71, 1000, 100},
        {R"(,"caller":{"pid":71,"uid":0,"gid":0}})", 71, 0, 0},
        {R"(,"caller":{"pid":71,"uid":4294967294,"gid":4294967294}})", 71, 4294967294U, 4294967294U},
        {R"(,"caller":{"pid":0,"uid":65534,"gid":65534}})", -1, 65534, 65534},
        {"}", -1, static_cast<uid_t>(-1), static_cast<gid_t>(-1)},
        {R"(,"caller":{"pid":71,"uid":"0","gid":0}})", -1, static_cast<uid_t>(-1), static_cast<gid_t>(-1)},
        {R"(,"caller":0})", -1, static_cast<uid_t>(-1), static_cast<gid_t>(-1)},
    };
    Stage stage(methods);
    for (const auto &row : rows) {
        std::string request = support::direct_request("t.Look", "{}", 1);
        request.pop_back();
        stage.router.say(request + row.said);
        EXPECT_EQ(member(stage.next(), "result"), "0");
        EXPECT_EQ(seen.caller.pid, row.pid) << row.said;
        EXPECT_EQ(seen.caller.uid, row.uid) << row.said;
        EXPECT_EQ(seen.caller.gid, row.gid) << row.said;
    }
    EXPECT_EQ(tavrix_call_caller(nullptr).uid, static_cast<uid_t>(-1));
}

TEST_F(Calls, CanBeAnsweredLaterInAnyOrder) {
    Stage stage(methods);
    stage.router.say(support::direct_request("t.Defer", "{}", 1));
    stage.router.say(support::direct_request("t.Defer", "{}", 2));
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == 2; }));
    EXPECT_EQ(tavrix_call_reply(tavrix_service_deferred(stage.service, seen.numbers[1]), json_integer(20)), 0);
    EXPECT_EQ(member(stage.next(), "transaction_id"), "2");
    EXPECT_EQ(tavrix_call_reply(tavrix_service_deferred(stage.service, seen.numbers[0]), json_integer(10)), 0);
    EXPECT_EQ(member(stage.next(), "transaction_id"), "1");
}

TEST_F(Calls, AnsweredLaterTwiceAreRefusedTheSecondTime) {
    Stage stage(methods);
    stage.router.say(support::direct_request("t.Defer", "{}", 1));
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == 1; }));
    EXPECT_EQ(tavrix_call_reply(tavrix_service_deferred(stage.service, seen.numbers[0]), json_integer(1)), 0);
    EXPECT_EQ(tavrix_service_deferred(stage.service, seen.numbers[0]), nullptr);
    EXPECT_EQ(tavrix_call_reply(tavrix_service_deferred(stage.service, seen.numbers[0]), json_integer(2)),
              TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(seen.abandoned, 0);
}

TEST_F(Calls, DeferredAndFailedOrAnsweredAtOnceHaveOneAnswer) {
    const LogCapture log("info");
    Stage stage(methods);
    EXPECT_EQ(code_of(stage.ask("t.DeferAndFail")), "-32014");
    EXPECT_EQ(member(stage.ask("t.DeferAndReply"), "result"), "4");
    EXPECT_EQ(member(stage.ask("t.Nothing"), "id"), "\"t.Nothing\"");
}

TEST_F(Calls, EndWhenTheRouterCancelsThem) {
    Stage stage(methods);
    stage.router.say(support::direct_request("t.Defer", "{}", 41));
    stage.router.say(support::direct_request("t.Defer", "{}", 42));
    stage.router.say(R"({"jsonrpc":"2.0","method":"service.Cancel","params":{"transaction_id":41}})");
    ASSERT_TRUE(stage.wait([] { return seen.abandoned == 1; }));
    EXPECT_EQ(seen.late_reply, TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(tavrix_service_deferred(stage.service, seen.numbers[0]), nullptr);
    EXPECT_NE(tavrix_service_deferred(stage.service, seen.numbers[1]), nullptr);
}

TEST_F(Calls, ThatAreNeverAnsweredEndAtTheirDeadline) {
    Stage stage(methods, {}, [](support::PlayedRouter &router) { router.reply_timeout_ms = 50; });
    stage.router.say(support::direct_request("t.Defer", "{}", 1));
    ASSERT_TRUE(stage.wait([] { return seen.abandoned == 1; }));
    EXPECT_EQ(tavrix_service_deferred(stage.service, seen.numbers[0]), nullptr);
    EXPECT_TRUE(stage.router.lines.empty()) << "the router tells its client itself";
}

TEST_F(Calls, EndWithTheRouterThatSentThem) {
    Stage stage(methods);
    for (int i = 0; i < 3; ++i) {
        stage.router.say(support::direct_request("t.Defer", "{}", i));
    }
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == 3; }));
    stage.router.hang_up();
    ASSERT_TRUE(stage.wait([] { return seen.abandoned == 3; }));
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_EQ(member(stage.ask("t.Nothing"), "id"), "\"t.Nothing\"");
}

TEST_F(Calls, BeyondTheLimitAreAnsweredBusy) {
    const LogCapture log("info");
    Stage stage(methods);
    for (int i = 0; i < TAVRIX_SERVICE_MAX_DEFERRED; ++i) {
        stage.router.say(support::direct_request("t.Defer", "{}", i));
        if (i % 64 == 0) {
            stage.step();
        }
    }
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == TAVRIX_SERVICE_MAX_DEFERRED; }));
    EXPECT_TRUE(stage.router.lines.empty());
    EXPECT_EQ(code_of(stage.ask("t.Defer")), "-32014");
    EXPECT_EQ(seen.numbers.back(), 0U);
}

TEST_F(Calls, InFlightAreAnsweredWhenTheServiceEnds) {
    const LogCapture log("info");
    Stage stage(methods);
    stage.router.say(support::direct_request("t.Defer", "{}", 1));
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == 1; }));
    tavrix_service_stop(stage.service);
    EXPECT_EQ(tavrix_service_run(stage.service), TAVRIX_OK);
    stage.router.step();
    ASSERT_EQ(stage.router.lines.size(), 1U);
    EXPECT_EQ(code_of(stage.router.lines[0]), "-32014");
}

TEST_F(Calls, OnOneSessionAreAnsweredInTheirOrderByThousands) {
    Stage stage(methods);
    constexpr int total = 5000;
    int answered = 0;
    for (int i = 0; i < total; ++i) {
        stage.router.say(support::direct_request("t.Echo", "{\"n\":" + std::to_string(i) + "}", i));
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
    const LogCapture log("info");
    Stage stage(methods);
    const std::string too_large = stage.ask("t.Fill", R"({"n":9371600})");
    EXPECT_EQ(code_of(too_large), "-32004");
    EXPECT_NE(too_large.find("The answer cannot be sent: it has 93716"), std::string::npos) << too_large;
    EXPECT_NE(too_large.find("bytes, and at most 9371648 can be sent."), std::string::npos) << too_large;
    EXPECT_NE(log.text().find("t.Fill: the answer cannot be sent: it has"), std::string::npos) << log.text();
    EXPECT_EQ(member(stage.ask("t.Fill", R"({"n":9371000})"), "result").size(), 9371002U);

    const std::string deepest = stage.ask("t.Nest", R"({"n":2046})"); // and the answer's own braces
    EXPECT_EQ(member(deepest, "result").size(), 2 * 2046U + 1) << "every parser reads this";
    const std::string too_deep = stage.ask("t.Nest", R"({"n":2047})");
    EXPECT_EQ(code_of(too_deep), "-32004");
    EXPECT_NE(too_deep.find("it is nested deeper than the 2047 levels that can be read."), std::string::npos)
        << too_deep;
    const std::string quoted = stage.ask("t.Echo", R"({"t":"\"\\\"[)" + std::string(5000, '[') + R"("})");
    EXPECT_EQ(code_of(quoted), "(none)") << "brackets in a text nest nothing";
}

TEST_F(Calls, FailWithAMessageThatCanBeReadWhateverItsBytesAre) {
    const LogCapture log("info");
    Stage stage(methods);
    EXPECT_EQ(member(member(stage.ask("t.RefuseInLatin1"), "error"), "data"), R"({"message":"T\\xfcr fehlt"})");
    EXPECT_EQ(member(member(stage.ask("t.RefuseWithAnArray"), "error"), "data"), R"({"message":"There is none."})");
    EXPECT_NE(log.text().find("t.RefuseWithAnArray: an error's data that is no object is left out"), std::string::npos);
    EXPECT_EQ(member(member(stage.ask("t.PassAnArrayOn"), "error"), "data"), "[1]") << "another service's own words";
}

TEST_F(Calls, WhoseResultIsNotTheirRowsAreSaidInTheLog) {
    const LogCapture log("debug");
    Stage stage(methods);
    const auto tells = [&](const char *method) {
        return log.text().find(std::string(method) + " answers another result than its row says") != std::string::npos;
    };
    EXPECT_EQ(member(stage.ask("t.Nothing"), "result"), "0");
    EXPECT_FALSE(tells("t.Nothing"));
    EXPECT_EQ(member(stage.ask("t.Echo", "{}"), "result"), "{}");
    EXPECT_TRUE(tells("t.Echo")) << "which has no rows for it";
    EXPECT_EQ(member(stage.ask("t.Members"), "result"), "true");
    EXPECT_TRUE(tells("t.Members"));
    EXPECT_EQ(member(stage.ask("t.Bare"), "result"), "true");
    EXPECT_FALSE(tells("t.Bare"));
}

TEST_F(Calls, AreDeferredOnce) {
    Stage stage(methods);
    stage.router.say(support::direct_request("t.DeferTwice", "{}", 7));
    ASSERT_TRUE(stage.wait([] { return seen.numbers.size() == 2; }));
    EXPECT_EQ(seen.numbers[1], 0U);
    tavrix_call *call = tavrix_service_deferred(stage.service, seen.numbers[0]);
    ASSERT_NE(call, nullptr) << "the second time has changed nothing";
    EXPECT_EQ(tavrix_call_reply(call, json_integer(0)), TAVRIX_OK);
    EXPECT_EQ(member(stage.next(), "result"), "0");
}

TEST_F(Calls, TakeNoTextThatEndsALineOrSteersATerminal) {
    Stage stage(methods);
    for (const char *bad : {R"(\n)", R"(\u001b)", R"(\u007f)", R"(\u0080)", R"(\u0085)", R"(\u009b)", R"(\u009f)",
                            R"(\u2028)", R"(\u2029)"}) {
        const std::string answer = stage.ask("t.Text", R"({"text":"a)" + std::string(bad) + R"(b"})");
        EXPECT_EQ(code_of(answer), "-32602") << bad;
        EXPECT_NE(answer.find("holds a control character"), std::string::npos) << answer;
        const std::string lines = R"({"lines":"a)" + std::string(bad) + R"(b"})";
        EXPECT_EQ(code_of(stage.ask("t.Text", lines)), "(none)") << bad << " is what this row is for";
    }
    for (const char *good : {R"(\u00a0)", R"(\u00c2)", R"(\u2027)", R"(\u202a)", R"(\u20a8)", R"(\u3028)"}) {
        const std::string params = R"({"text":"a)" + std::string(good) + R"(b"})";
        EXPECT_EQ(code_of(stage.ask("t.Text", params)), "(none)") << good;
    }
}

TEST_F(Calls, CountTheCharactersOfATextAsTheirDescriptionDoes) {
    Stage stage(methods);
    EXPECT_EQ(code_of(stage.ask("t.Text", R"({"short":"äöü"})")), "(none)");
    EXPECT_EQ(code_of(stage.ask("t.Text", R"({"short":"€𝄞"})")), "(none)");
    const std::string refusal = stage.ask("t.Text", R"({"short":"äöüß"})");
    EXPECT_EQ(code_of(refusal), "-32602");
    EXPECT_NE(refusal.find("is not a text of 1 to 3 characters"), std::string::npos) << refusal;
    EXPECT_EQ(code_of(stage.ask("t.Text", R"({"short":""})")), "-32602");
    EXPECT_NE(stage.router.description.find(R"("minLength":1,"maxLength":3)"), std::string::npos)
        << stage.router.description;
}

TEST_F(Calls, ShowARefusedNumberInNoMoreDigitsThanItNeeds) {
    Stage stage(methods);
    for (const char *number : {"4.9999", "0.1", "-2.5", "7.0", "4.9999000000000011", "1e100"}) {
        const std::string refusal = stage.ask("t.Text", R"({"number":)" + std::string(number) + "}");
        EXPECT_NE(refusal.find("number: " + std::string(number) + " is not a number from 5 to 6"), std::string::npos)
            << refusal;
    }
}
