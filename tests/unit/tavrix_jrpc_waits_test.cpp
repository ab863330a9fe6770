#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/signals.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc";

/** The line before an attempt, the last of which is number 1. */
std::string waiting(const std::string &method, int attempt) {
    return "Waiting for API response <" + method + ">, attempts remaining: " + std::to_string(attempt);
}

constexpr char reply[] = R"(me|{"jsonrpc":"2.0","id":"ports.Get","result":5})";
constexpr char notification[] = R"(ev|{"jsonrpc":"2.0","method":"events.X","params":{"n":1}})";

// --- Matchers ---

struct Candidate {
    const char *name;
    const char *text;
    Lines lines;
    int rc = TAVRIX_ERR_GENERAL;
};

Lines malformed_reply(const char *complaint, const char *id) {
    return {complaint, std::string("DEBUG|Found incorrect method \"") + id + "\"."};
}
constexpr char no_version[] = "DEBUG|Received invalid JSON-RPC format.";
constexpr char wrong_type[] = "ERROR|tavrix_jrpc_eval_request: Invalid Request ID";
constexpr char other_version[] = "DEBUG|Received unsupported JSON-RPC version.";
constexpr char no_text[] = "ERROR|Given parameter <id> is not a string";

const Candidate replies[] = {
    {"Match", R"({"jsonrpc":"2.0","id":"ports.Get"})", {"DEBUG|Found correct method \"ports.Get\"."}, TAVRIX_OK},
    {"OtherMethod", R"({"jsonrpc":"2.0","id":"ports.get"})", {"DEBUG|Found incorrect method \"ports.get\"."}},
    {"Array", "[]", malformed_reply(no_version, "(null)")},
    {"NoVersion", R"({"id":"ports.Get"})", malformed_reply(no_version, "ports.Get")},
    {"VersionNumber", R"({"jsonrpc":2,"id":"ports.Get"})", malformed_reply(wrong_type, "ports.Get")},
    {"VersionOne", R"({"jsonrpc":"1.0","id":"ports.Get"})", malformed_reply(other_version, "ports.Get")},
    {"IdNumber", R"({"jsonrpc":"2.0","id":5})", malformed_reply(no_text, "(null)")},
    {"IdMissing", R"({"jsonrpc":"2.0"})", malformed_reply(no_text, "(null)")},
    {"IdTrue", R"({"jsonrpc":"2.0","id":true})", malformed_reply(wrong_type, "(null)")},
};

const Candidate notifications[] = {
    {"Match",
     R"({"jsonrpc":"2.0","method":"events.X"})",
     {"VERB |JSON Method: events.X", "DEBUG|Found correct method \"events.X\"."},
     TAVRIX_OK},
    {"Other",
     R"({"jsonrpc":"2.0","method":"events.x"})",
     {"VERB |JSON Method: events.x", "DEBUG|Found incorrect method \"events.x\"."}},
    {"Array", "[]", {no_version}},
    {"Number", "7", {no_version}},
    {"NoMethod", R"({"jsonrpc":"2.0"})", {"DEBUG|[tavrix_jrpc_eval_notification]: No JSON method"}},
    {"MethodNumber", R"({"jsonrpc":"2.0","method":1})", {"DEBUG|[tavrix_jrpc_eval_notification]: Invalid JSON method"}},
    {"NoVersion", R"({"method":"events.X"})", {no_version}},
    {"VersionTrue", R"({"jsonrpc":true,"method":"events.X"})", {wrong_type}},
    {"VersionThree", R"({"jsonrpc":"3.0","method":"events.X"})", {other_version}},
};

template <size_t Count>
void expect_decisions(int (*match)(const char *, const char *, json_t **), const char *wanted, const char *level,
                      const Candidate (&rows)[Count]) {
    for (const Candidate &row : rows) {
        SCOPED_TRACE(row.name);
        Json out;
        const LogCapture log(level);
        EXPECT_EQ(match(wanted, row.text, into(out)), row.rc);
        EXPECT_EQ(out != nullptr, row.rc == 0);
        EXPECT_TRUE(log.said(row.lines));
    }
}

TEST(Matchers, Decide) {
    expect_decisions(tavrix_jrpc_eval_method, "ports.Get", "debug", replies);
    expect_decisions(tavrix_jrpc_eval_notification, "events.X", "verbose", notifications);
}

TEST(Matchers, RefuseWhatIsNoJsonInTheEvaluatorsWords) {
    json_t *out = nullptr;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_eval_method("m", "{", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_jrpc_eval_notification("m", "{", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(error, unit, "tavrix_jrpc_eval_request: Cannot parse JSON data\n"), 2);
    EXPECT_EQ(log.count(error, unit, std::string("error: on line 1: ") + parse_error("{").text + "\n"), 2);
    EXPECT_EQ(out, nullptr);
}

TEST(Matchers, RefuseNullArguments) {
    json_t *out = nullptr;
    expect_nulls_refused(
        TAVRIX_ERR_NULL_INPUT, "DEBUG|[tavrix_jrpc_eval_method]: Null Pointer!",
        [&](auto... texts) { return tavrix_jrpc_eval_method(texts..., &out); }, "m", "{}");
    expect_nulls_refused(TAVRIX_ERR_NULL_INPUT, "DEBUG|[tavrix_jrpc_eval_notification]: Null Pointer!",
                         tavrix_jrpc_eval_notification, "m", "{}", &out);
    EXPECT_EQ(tavrix_jrpc_eval_method("m", R"({"jsonrpc":"2.0","id":"m"})", nullptr), 0) << "only the verdict";
}

// --- Waiting for a reply ---

TEST(ReplyWait, GivesUpAfterTheMethodsNumberOfAttempts) {
    const std::pair<const char *, int> rows[] = {
        {"ports.Get", 60},
        {"ports.SetEnabled", 60},
        {"ports.SetVlanLocal", 100},
        {"ports.SetVlanAccess", 100},
        {"ports.SetVlanTrunk", 100},
        {"ports.poe.GetInstantPower", 200},
        {"db.ApplyBackup", 200},
        {"ports.get", 10},
        {"anything", 10},
    };
    const BusSocket silent(TAVRIX_SP_SUB);
    tavrix_mq_socket_set_timeout(silent.number, 1);
    for (const auto &[method, attempts] : rows) {
        json_t *out = nullptr;
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_mq_sub_for_method(silent.number, method, &out), TAVRIX_ERR_NO_RESPONSE) << method;
        EXPECT_EQ(out, nullptr);
        std::vector<std::string> expected;
        for (int attempt = attempts; attempt > 0; --attempt) {
            expected.push_back("DEBUG|" + waiting(method, attempt));
            expected.push_back("DEBUG|Unable to receive an API response, rc = -46");
        }
        expected.push_back("DEBUG|Could not receive expected API response.");
        EXPECT_TRUE(log.said(expected));
    }
}

TEST(ReplyWait, TakesTheReplyAndLetsOthersCostAnAttempt) {
    BusPair bus("me");
    for (const char *frame : {"me without bar", "me|no json", R"(me|{"jsonrpc":"2.0","id":"other","result":1})",
                              R"(me|{"jsonrpc":"2.0","id":5,"result":1})", reply}) {
        bus.publish(frame);
    }
    json_t *out = nullptr;
    const LogCapture log("debug");
    ASSERT_EQ(tavrix_jrpc_mq_sub_for_method(bus.sub.number, "ports.Get", &out), 0);
    EXPECT_EQ(taken(out), R"({"jsonrpc":"2.0","id":"ports.Get","result":5})");
    const std::string function = "[tavrix_jrpc_mq_sub_for_method] ";
    for (int attempt = 60; attempt > 55; --attempt) {
        EXPECT_TRUE(log.has(debug, unit, waiting("ports.Get", attempt) + "\n")) << attempt;
    }
    EXPECT_FALSE(log.has(debug, unit, waiting("ports.Get", 55) + "\n")) << "the fifth frame was the one";
    EXPECT_TRUE(log.has(debug, unit, "Unable to parse API response, rc = -1\n"));
    EXPECT_EQ(log.count(debug, unit, "Incorrect API response received. rc = -1\n"), 3);
    EXPECT_TRUE(log.has(debug, unit, function + "Received:\n" + reply + "\n"));
    EXPECT_EQ(log.count(debug, unit, function + "Received API response, evaluating id...\n"), 4);
    EXPECT_EQ(log.last(),
              "DEBUG|" + function + R"(JSON Out: {"jsonrpc": "2.0", "id": "ports.Get", "result": 5})" + "\n");
}

TEST(ReplyWait, RunsOutOnFramesThatDoNotMatch) {
    BusPair bus("me");
    for (int i = 0; i < 10; ++i) {
        bus.publish(R"(me|{"jsonrpc":"2.0","id":"other"})");
    }
    bus.publish(R"(me|{"jsonrpc":"2.0","id":"anything"})");
    Json out;
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_method(bus.sub.number, "anything", into(out)), TAVRIX_ERR_NO_RESPONSE);
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_method(bus.sub.number, "anything", into(out)), 0) << "the eleventh was left";
}

// --- Waiting for a notification ---

TEST(NotificationWait, TakesTheFifthFrameAndRestoresTheTimeOut) {
    BusPair bus("ev", 700);
    const Lines frames = {"ev without bar", "ev|no json", R"(ev|{"jsonrpc":"2.0","method":"events.Y"})",
                          R"(ev|{"jsonrpc":"2.0","id":"events.X","result":0})", notification};
    for (const std::string &frame : frames) {
        bus.publish(frame);
    }
    json_t *out = nullptr;
    const LogCapture log("debug");
    ASSERT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "events.X", &out), 0);
    EXPECT_EQ(taken(out), R"({"jsonrpc":"2.0","method":"events.X","params":{"n":1}})");
    EXPECT_EQ(bus.sub.timeout_ms(), 700);
    const std::string function = "[tavrix_jrpc_mq_sub_for_notifcation] ";
    for (int attempt = 5; attempt > 0; --attempt) {
        EXPECT_TRUE(log.has(
            debug, unit,
            function + "Waiting for <events.X> response, attempts remaining: " + std::to_string(attempt) + "\n"));
    }
    EXPECT_TRUE(log.has(debug, unit, "Unable to parse notification message, rc = -1\n"));
    EXPECT_EQ(log.count(debug, unit, "Incorrect notification received. rc = -1\n"), 3);
    EXPECT_TRUE(log.has(debug, unit, function + "Recv:\n" + notification + "\n"));
    EXPECT_EQ(log.count(debug, unit, function + "Received notification, evaluating method name...\n"), 4);
    EXPECT_EQ(log.last(),
              "DEBUG|" + function + R"(JSON Out: {"jsonrpc": "2.0", "method": "events.X", "params": {"n": 1}})" + "\n");
}

TEST(NotificationWait, GivesUpAfterFiveFramesAndRestoresTheTimeOut) {
    BusPair bus("ev", 700);
    for (int i = 0; i < 5; ++i) {
        bus.publish("ev|{}");
    }
    json_t *out = nullptr;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "events.X", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(log.last(), "DEBUG|Could not receive expected notification.\n");
    EXPECT_EQ(bus.sub.timeout_ms(), 700);
}

TEST(NotificationWait, WaitsBeyondTheSocketsOwnTimeOut) {
    BusPair bus("ev", 1);
    Json out;
    std::thread late([&] {
        wait_until([&] { return bus.sub.timeout_ms() == -1; }); // the wait has lifted the time-out
        bus.publish(notification);
    });
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "events.X", into(out)), 0);
    late.join();
}

TEST(NotificationWait, FailsWhenTheTimeOutCannotBeRead) {
    json_t *out = nullptr;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(9999, "events.X", &out), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(
        log.has(debug, unit, "[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_get_timeout for sub, rc = -1\n"));
}

TEST(NotificationWait, CountsAFailedReceiveAsAnAttempt) {
    const BusSocket push(TAVRIX_SP_PUSH); // has a time-out, but cannot receive
    json_t *out = nullptr;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(push.number, "events.X", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(debug, unit, "Unable to receive an API response from TRLX Service, rc = -1\n"), 5);
    EXPECT_EQ(push.timeout_ms(), -1);
}

TEST(Waits, CountASignalAsAnAttempt) {
    const BusSocket silent(TAVRIX_SP_SUB); // without a time-out: only signals end an attempt
    const Ticking interrupts(SA_RESTART);
    json_t *out = nullptr;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_method(silent.number, "anything", &out), TAVRIX_ERR_NO_RESPONSE);
    EXPECT_EQ(log.count(debug, unit, "Unable to receive an API response, rc = -1\n"), 10);
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(silent.number, "events.X", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(debug, unit, "Unable to receive an API response from TRLX Service, rc = -1\n"), 5);
}

TEST(Waits, RefuseNullArguments) {
    json_t *out = nullptr;
    expect_nulls_refused(TAVRIX_ERR_NULL_INPUT, "DEBUG|[tavrix_jrpc_mq_sub_for_method]: Null Pointer!",
                         tavrix_jrpc_mq_sub_for_method, 0, "m", &out);
    expect_nulls_refused(TAVRIX_ERR_NULL_INPUT, "DEBUG|[tavrix_jrpc_mq_sub_for_notifcation]: Null Pointer!",
                         tavrix_jrpc_mq_sub_for_notifcation, 0, "m", &out);
}

} // namespace
