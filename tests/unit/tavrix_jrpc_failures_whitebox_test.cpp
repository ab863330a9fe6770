/*
 * What the engine does when memory, Jansson or the bus refuses: each call it makes fails once.
 */
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>
#include <unistd.h>

#include "internal/tavrix_jrpc_seam.h"
#include "support/bus.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using fault::Failing;
using support::BusSocket;
using support::Json;
using support::LogCapture;

namespace {

constexpr char unit[] = "tavrix_jrpc";

int succeed(json_t *, json_t **, json_t **) { return 0; }
int refuse(json_t *, json_t **, json_t **error_data) {
    *error_data = json_true();
    return TAVRIX_ERR_PARAMETER_NOT_FOUND;
}
const tavrix_jrpc_method table[] = {{"x.Ok", succeed}, {"x.No", refuse}, {nullptr, nullptr}};

struct Answer {
    int rc;
    std::string text;
};
Answer evaluate(const char *method) {
    char *text = nullptr;
    const std::string request =
        std::string(R"({"jsonrpc":"2.0","id":1,"transaction_id":2,"method":")") + method + "\"}";
    const int rc = tavrix_jrpc_eval_request(request.c_str(), table, &text);
    return {rc, support::taken(text)};
}

/** The lines as "TAG|message", each message whole. */
std::vector<std::string> messages(const LogCapture &log) {
    std::vector<std::string> all;
    for (const auto &line : log.lines()) {
        all.push_back(line.tag + "|" + line.message);
    }
    return all;
}

constexpr char no_response[] = "tavrix_jrpc_create_response: Failed to create JRPC response\n";
constexpr char no_error[] = "tavrix_jrpc_create_error: Failed to create JRPC response\n";
constexpr char no_transaction[] = "tavrix_jrpc_eval_request: Failed to add Transaction ID to response\n";

} // namespace

TEST(EvaluateFailures, TurnAResponseThatCannotBeBuiltIntoAnInternalError) {
    const struct {
        const char *function;
        int call;
    } rows[] = {{"realloc", 1}, {"json_dump_callback", 1}, {"json_dump_callback", 2}, {"json_dump_callback", 3}};
    for (const auto &row : rows) {
        const LogCapture log("info");
        const Failing once(row.function, row.call);
        const Answer answer = evaluate("x.Ok");
        EXPECT_EQ(answer.rc, 0) << row.function << row.call;
        EXPECT_NE(answer.text.find(R"("code":-32603,"message":"Internal error")"), std::string::npos) << answer.text;
        EXPECT_EQ(messages(log), (std::vector<std::string>{"ERROR|" + std::string(no_response),
                                                           "ERROR|JSON Response: " + answer.text + "\n"}));
    }
}

TEST(CreateResponseFailures, AreReportedForOneLineAsForSeveral) {
    const Json result(json_true());
    const Json id(json_string("x.Ok"));
    const Json transaction_id(json_integer(2));
    const struct {
        const char *function;
        int indent;
        bool transaction_line;
    } rows[] = {{"realloc", 0, false},
                {"json_dump_callback", 0, false},
                {"json_pack", 1, false},
                {"json_object_set_new", 1, true},
                {"json_dumps", 1, false}};
    for (const auto &row : rows) {
        const LogCapture log("info");
        const Failing once(row.function);
        EXPECT_EQ(tavrix_jrpc_create_response(result.get(), id.get(), row.indent, transaction_id.get()), nullptr)
            << row.function;
        EXPECT_EQ(messages(log), row.transaction_line
                                     ? (std::vector<std::string>{std::string("ERROR|") + no_transaction,
                                                                 "ERROR|" + std::string(no_response)})
                                     : (std::vector<std::string>{std::string("ERROR|") + no_response}));
    }
}

/** Results of growing length, so that each place of the text once is the one for which there is no more memory. */
TEST(CreateResponseFailures, TellWhenThereIsNoRoomForTheTransactionId) {
    const Json id(json_string("x.Ok"));
    const Json transaction_id(json_integer(2));
    int without_room = 0;
    for (size_t length = 0; length < 300; ++length) {
        const Json result(json_string(std::string(length, 'r').c_str()));
        const LogCapture log("info");
        const Failing second("realloc", 2);
        char *text = tavrix_jrpc_create_response(result.get(), id.get(), 0, transaction_id.get());
        if (text == nullptr) {
            const std::vector<std::string> lines = messages(log);
            ASSERT_FALSE(lines.empty());
            EXPECT_EQ(lines.back(), std::string("ERROR|") + no_response);
            EXPECT_LE(lines.size(), 2U);
            without_room += lines.front() == std::string("ERROR|") + no_transaction ? 1 : 0;
        }
        free(text);
    }
    EXPECT_EQ(without_room, static_cast<int>(strlen(R"(,"transaction_id":)")));
}

TEST(EvaluateFailures, AnswerUnknownErrorWhenNotEvenZeroCanBeMade) {
    const Failing once("json_integer");
    const Answer answer = evaluate("x.Ok");
    EXPECT_EQ(answer.rc, 0);
    EXPECT_NE(answer.text.find(R"("code":0,"message":"Unknown Error")"), std::string::npos) << answer.text;
}

TEST(EvaluateFailures, LeaveNoResponseWhenTheErrorCannotBeBuilt) {
    const struct {
        const char *function;
        int call;
    } rows[] = {
        {"json_pack", 1}, {"json_pack", 2}, {"json_object_set_new", 1}, {"json_object_set_new", 2}, {"json_dumps", 1},
    };
    for (const auto &row : rows) {
        const LogCapture log("info");
        const Failing once(row.function, row.call);
        const Answer answer = evaluate("x.No");
        EXPECT_EQ(answer.rc, TAVRIX_ERR_GENERAL) << row.function << row.call;
        EXPECT_EQ(answer.text, "(null)");
        EXPECT_EQ(log.count(support::error, unit, no_error), 1);
        const bool transaction = once.was("json_object_set_new") && row.call == 1;
        EXPECT_EQ(log.count(support::error, unit, no_transaction), transaction ? 1 : 0);
    }
}

TEST(FramingFailures, ReportThatMemoryIsOut) {
    char *text = nullptr;
    const LogCapture log("debug");
    {
        const Failing once("malloc");
        EXPECT_EQ(tavrix_api_router_json_add_channel("a", "b"), nullptr);
    }
    {
        const Failing once("malloc");
        EXPECT_EQ(tavrix_jrpc_parse_msg("a|b", 3, &text), TAVRIX_ERR_GENERAL);
    }
    {
        const Failing once("strdup");
        EXPECT_EQ(tavrix_jrpc_parse_channel(R"({"id":"a"})", &text), TAVRIX_ERR_GENERAL);
    }
    {
        const Failing once("strdup");
        EXPECT_EQ(tavrix_api_router_json_parse_channel("ports.Get"), nullptr);
    }
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(log.has(support::debug, unit, "[tavrix_api_router_json_add_channel]: Failed to allocate memory\n"));
    EXPECT_TRUE(log.has(support::debug, unit, "[tavrix_connect_parse_msg]: Failed to allocate memory\n"));
}

TEST(PublishFailures, ReportAFrameThatCannotBeMade) {
    const BusSocket pub(TAVRIX_SP_PUB);
    const LogCapture log("debug");
    const Failing once("malloc");
    EXPECT_EQ(tavrix_jrpc_mq_pub(&pub.number, "c", "{}"), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(support::debug, unit, "[tavrix_jrpc_mq_pub]: add_channel failed\n"));
}

TEST(SubInitFailures, LeaveTheSocketOpenWhenTheTimeOutCannotBeSet) {
    int sub = -77;
    const LogCapture log("debug");
    const Failing once("tavrix_mq_socket_set_timeout");
    EXPECT_EQ(tavrix_jrpc_mq_sub_init(&sub, 1), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(sub, -77);
    EXPECT_TRUE(log.has(support::debug, unit,
                        "[tavrix_jrpc_mq_sub_init]: Error tavrix_mq_socket_set_timeout for sub, rc = -1\n"));
    int ms = 0;
    EXPECT_EQ(tavrix_mq_socket_get_timeout(0, &ms), 0) << "the first number";
    EXPECT_EQ(tavrix_mq_socket_close(0), 0);
}

TEST(NotificationWaitFailures, ReportATimeOutThatCannotBeLifted) {
    const BusSocket sub(TAVRIX_SP_SUB);
    json_t *out = nullptr;
    const LogCapture log("debug");
    const Failing once("tavrix_mq_socket_set_timeout");
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(sub.number, "x", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.sequence(),
              std::vector<std::string>{
                  "DEBUG|[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = -1"});
}

TEST(NotificationWaitFailures, OnlyLogATimeOutThatCannotBeRestored) {
    support::BusPair bus("ev");
    bus.publish(R"(ev|{"jsonrpc":"2.0","method":"x"})");
    Json out;
    const LogCapture log("debug");
    const Failing second("tavrix_mq_socket_set_timeout", 2);
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "x", into(out)), 0);
    const std::vector<std::string> lines = log.sequence();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()),
              (std::vector<std::string>{
                  "DEBUG|[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = -1",
                  R"(DEBUG|[tavrix_jrpc_mq_sub_for_notifcation] JSON Out: {"jsonrpc": "2.0", "method": "x"})",
              }));
}

TEST(NotificationWaitFailures, OnlyLogATimeOutThatCannotBeRestoredWhenTheyGiveUp) {
    support::BusPair bus("ev");
    for (int frame = 0; frame < 5; ++frame) {
        bus.publish("ev|{}");
    }
    json_t *out = nullptr;
    const LogCapture log("debug");
    const Failing second("tavrix_mq_socket_set_timeout", 2);
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "x", &out), TAVRIX_ERR_GENERAL);
    const std::vector<std::string> lines = log.sequence();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()),
              (std::vector<std::string>{
                  "DEBUG|[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = -1",
                  "DEBUG|Could not receive expected notification.",
              }));
}

// --- Router ---

namespace {

struct RouterFailure {
    const char *name;
    const char *function;
    const char *words;
};

class RouterFailures : public testing::TestWithParam<RouterFailure> {};

INSTANTIATE_TEST_SUITE_P(Calls, RouterFailures,
                         testing::Values(RouterFailure{"Delete", "json_object_del", "Cannot delete JSON ID"},
                                         RouterFailure{"Update", "json_object_set_new", "Cannot update JSON ID"},
                                         RouterFailure{"Encode", "json_dumps", "Cannot re-encode JSON message"}),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(RouterFailures, AreReportedOnBothPaths) {
    char *request = nullptr;
    char *channel = nullptr;
    const LogCapture log("debug");
    {
        const Failing once(GetParam().function);
        EXPECT_EQ(tavrix_jrpc_router_process_msg(R"({"method":"p","id":1})", &request, &channel), TAVRIX_ERR_GENERAL);
    }
    EXPECT_EQ(request, nullptr);
    EXPECT_STREQ(channel, "3a6f8f51-502f-4238-9638-29764ff1a8a4") << "stored before the failing step";
    free(channel);
    const Json object(json_loads(R"({"method":"p","id":1})", 0, nullptr));
    const BusSocket pub(TAVRIX_SP_PUB);
    {
        const Failing once(GetParam().function);
        EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, object.get()), TAVRIX_ERR_GENERAL);
    }
    for (const char *function : {"tavrix_jrpc_router_process_msg", "tavrix_jrpc_router_mq_dispatch_request"}) {
        EXPECT_TRUE(log.has(support::debug, unit, std::string("[") + function + "]: " + GetParam().words + "\n"));
    }
}

TEST(RouterFailure, WithoutAServiceChannelIsReportedOnTheSplitPath) {
    const Json object(json_loads(R"({"method":"p","id":1})", 0, nullptr));
    const BusSocket pub(TAVRIX_SP_PUB);
    const LogCapture log("debug");
    const Failing once("strdup");
    EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, object.get()), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(support::debug, unit, "[tavrix_jrpc_router_mq_dispatch_request]: No JSON uuid\n"));
}

TEST(RouterFailure, WithoutAServiceChannelIsReportedAndClosesTheClientInOneCall) {
    int listener = -1;
    int client = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("router.sock", &listener, 1), 0);
    support::StreamClient asking = support::StreamClient::unix_path("router.sock");
    asking.say(R"({"method":"p","id":1})");
    const BusSocket pub(TAVRIX_SP_PUB);
    const LogCapture log("debug");
    {
        const Failing once("strdup");
        EXPECT_EQ(tavrix_jrpc_router_socket_to_mq(&listener, &pub.number, &client), TAVRIX_ERR_NULL_INPUT);
    }
    EXPECT_EQ(log.last(),
              support::whole(support::debug, "[tavrix_jrpc_router_socket_to_mq]: Error mq_pub, rc = -20\n"));
    EXPECT_TRUE(asking.closed_silently());
    EXPECT_EQ(client, -1);
    close(listener);
}

TEST(ServerFailures, OfTheClientsCloseAreItsStatusAndComeOnce) {
    int listener = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("server.sock", &listener, 1), 0);
    support::StreamClient asking = support::StreamClient::unix_path("server.sock");
    asking.say(R"({"jsonrpc":"2.0","id":1,"method":"x.Ok"})");
    const support::StderrCapture out;
    {
        const Failing ever("close", 1, EIO, Failing::always);
        EXPECT_EQ(tavrix_jrpc_unix_socket_run(&listener, table), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(ever.calls(), 1);
    }
    EXPECT_EQ(out.text().find("tavrix_socket_close: "), out.text().rfind("tavrix_socket_close: "));
    EXPECT_NE(out.text().find("tavrix_socket_close: "), std::string::npos);
    close(listener);
}

TEST(RouterProcessMsg, RefusesNullArguments) {
    char *text = nullptr;
    EXPECT_EQ(tavrix_jrpc_router_process_msg(nullptr, &text, &text), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_jrpc_router_process_msg("{}", nullptr, &text), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_jrpc_router_process_msg("{}", &text, nullptr), TAVRIX_ERR_GENERAL);
}

TEST(SystemResponseFailures, GiveNull) {
    const Json asked(json_loads(R"({"id":"a","transaction_id":1})", 0, nullptr));
    const struct {
        const char *function;
        int call;
        bool transaction_line;
    } rows[] = {
        {"json_pack", 1, false},
        {"json_pack", 2, false},
        {"json_object_set_new", 1, false},
        {"json_object_set_new", 2, true},
    };
    for (const auto &row : rows) {
        json_t *response = asked.get();
        const LogCapture log("info");
        {
            const Failing once(row.function, row.call);
            EXPECT_EQ(tavrix_jrpc_router_create_system_lock_response(asked.get(), &response), TAVRIX_ERR_GENERAL);
        }
        EXPECT_EQ(response, nullptr);
        EXPECT_EQ(log.has(support::error, unit, no_transaction), row.transaction_line);
        if (row.transaction_line) {
            continue;
        }
        response = asked.get();
        const Failing once(row.function, row.call);
        EXPECT_EQ(tavrix_jrpc_router_create_system_timeout_response("a", 1, &response), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(response, nullptr);
    }
}
