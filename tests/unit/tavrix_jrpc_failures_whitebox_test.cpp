/*
 * What the engine does when memory, Jansson or the bus refuses: each call it makes fails once.
 */
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <jansson.h>
#include <unistd.h>

#include "internal/tavrix_jrpc_seam.h"
#include "support/bus.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace fault;
using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc";

int succeed(json_t *, json_t **, json_t **) { return 0; }
int refuse(json_t *, json_t **, json_t **error_data) {
    *error_data = json_true();
    return TAVRIX_ERR_PARAMETER_NOT_FOUND;
}
const tavrix_jrpc_method table[] = {{"x.Ok", succeed}, {"x.No", refuse}, {nullptr, nullptr}};

Answer evaluate(const char *method) {
    return answer_of([&](char **text) {
        return tavrix_jrpc_eval_request(
            (std::string(R"({"jsonrpc":"2.0","id":1,"transaction_id":2,"method":")") + method + "\"}").c_str(), table,
            text);
    });
}

/** What is said of a response, or an error, that cannot be built. */
constexpr char no_response[] = "ERROR|tavrix_jrpc_create_response: Failed to create JRPC response";
constexpr char no_error[] = "ERROR|tavrix_jrpc_create_error: Failed to create JRPC response";
constexpr char no_transaction[] = "ERROR|tavrix_jrpc_eval_request: Failed to add Transaction ID to response";

TEST(EvaluateFailures, TurnAResponseThatCannotBeBuiltIntoAnInternalError) {
    for (const auto &[function, call] :
         {std::pair("realloc", 1), {"json_dump_callback", 1}, {"json_dump_callback", 2}, {"json_dump_callback", 3}}) {
        const LogCapture log("info");
        const Failing once(function, call);
        const Answer answer = evaluate("x.Ok");
        EXPECT_EQ(answer.rc, 0) << function << call;
        EXPECT_NE(answer.text.find(R"("code":-32603,"message":"Internal error")"), std::string::npos) << answer.text;
        EXPECT_TRUE(log.said({no_response, "ERROR|JSON Response: " + answer.text}));
        EXPECT_EQ(log.lines().front().file, unit);
    }
}

TEST(CreateResponseFailures, AreReportedForOneLineAsForSeveral) {
    const Json result(json_true());
    const Json id(json_string("x.Ok"));
    const Json transaction_id(json_integer(2));
    const std::tuple<const char *, int, Lines> rows[] = {{"realloc", 0, {no_response}},
                                                         {"json_dump_callback", 0, {no_response}},
                                                         {"json_pack", 1, {no_response}},
                                                         {"json_object_set_new", 1, {no_transaction, no_response}},
                                                         {"json_dumps", 1, {no_response}}};
    for (const auto &[function, indent, lines] : rows) {
        const LogCapture log("info");
        const Failing once(function);
        EXPECT_EQ(tavrix_jrpc_create_response(result.get(), id.get(), indent, transaction_id.get()), nullptr)
            << function;
        EXPECT_TRUE(log.said(lines));
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
            const bool has_no_room = log.said({no_transaction, no_response});
            EXPECT_TRUE(has_no_room || log.said({no_response}));
            without_room += has_no_room ? 1 : 0;
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
        Lines lines = {no_error};
    } rows[] = {{"json_pack", 1},
                {"json_pack", 2},
                {"json_object_set_new", 1, {no_transaction, no_error}},
                {"json_object_set_new", 2},
                {"json_dumps", 1}};
    for (const auto &row : rows) {
        const LogCapture log("info");
        const Failing once(row.function, row.call);
        const Answer answer = evaluate("x.No");
        EXPECT_EQ(answer.rc, TAVRIX_ERR_GENERAL) << row.function << row.call;
        EXPECT_EQ(answer.text, "(null)");
        EXPECT_TRUE(log.said(row.lines));
    }
}

TEST(FramingFailures, ReportThatMemoryIsOut) {
    char *text = nullptr;
    const LogCapture log("debug");
    const Failing ever("malloc", 1, ENOMEM, Failing::always);
    EXPECT_EQ(tavrix_api_router_json_add_channel("a", "b"), nullptr);
    EXPECT_EQ(tavrix_jrpc_parse_msg("a|b", 3, &text), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_api_router_json_add_channel]: Failed to allocate memory",
                          "DEBUG|[tavrix_connect_parse_msg]: Failed to allocate memory"}));
}

TEST(PublishFailures, ReportAFrameThatCannotBeMade) {
    const BusSocket pub(TAVRIX_SP_PUB);
    const LogCapture log("debug");
    const Failing once("malloc");
    EXPECT_EQ(tavrix_jrpc_mq_pub(&pub.number, "c", "{}"), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_mq_pub]: add_channel failed\n"));
}

TEST(SubInitFailures, LeaveTheSocketOpenWhenTheTimeOutCannotBeSet) {
    int sub = -77;
    const LogCapture log("debug");
    const Failing once("tavrix_mq_socket_set_timeout");
    EXPECT_EQ(tavrix_jrpc_mq_sub_init(&sub, 1), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(sub, -77);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_mq_sub_init]: Error tavrix_mq_socket_set_timeout for sub, rc = -1\n");
    BusSocket first;
    first.number = 0; // the number that the next socket has
    EXPECT_EQ(first.timeout_ms(), -1) << "still open";
}

TEST(NotificationWaitFailures, ReportATimeOutThatCannotBeLifted) {
    const BusSocket sub(TAVRIX_SP_SUB);
    json_t *out = nullptr;
    const LogCapture log("debug");
    const Failing once("tavrix_mq_socket_set_timeout");
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(sub.number, "x", &out), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = -1"}));
}

TEST(NotificationWaitFailures, OnlyLogATimeOutThatCannotBeRestored) {
    const std::tuple<const char *, int, const char *> rows[] = {
        {R"(ev|{"jsonrpc":"2.0","method":"x"})", TAVRIX_OK,
         R"(DEBUG|[tavrix_jrpc_mq_sub_for_notifcation] JSON Out: {"jsonrpc": "2.0", "method": "x"})"},
        {"ev|{}", TAVRIX_ERR_GENERAL, "DEBUG|Could not receive expected notification."}};
    for (const auto &[frame, rc, last] : rows) {
        BusPair bus("ev");
        for (int attempt = 0; attempt < 5; ++attempt) {
            bus.publish(frame);
        }
        Json out;
        const LogCapture log("debug");
        const Failing second("tavrix_mq_socket_set_timeout", 2);
        EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "x", into(out)), rc);
        const Lines lines = log.sequence();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[lines.size() - 2],
                  "DEBUG|[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = -1");
        EXPECT_EQ(lines.back(), last);
    }
}

// --- Router ---

TEST(RouterFailures, AreReportedOnBothPaths) {
    for (const auto &[call, words] : {std::pair("json_object_del", "Cannot delete JSON ID"),
                                      {"json_object_set_new", "Cannot update JSON ID"},
                                      {"json_dumps", "Cannot re-encode JSON message"}}) {
        char *request = nullptr;
        char *channel = nullptr;
        const LogCapture log("debug");
        {
            const Failing once(call);
            EXPECT_EQ(tavrix_jrpc_router_process_msg(R"({"method":"p","id":1})", &request, &channel),
                      TAVRIX_ERR_GENERAL);
        }
        EXPECT_EQ(request, nullptr);
        EXPECT_EQ(taken(channel), TAVRIX_CHANNEL_FIRST) << "stored before the failing step";
        const Json object(json_loads(R"({"method":"p","id":1})", 0, nullptr));
        const BusSocket pub(TAVRIX_SP_PUB);
        {
            const Failing once(call);
            EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, object.get()), TAVRIX_ERR_GENERAL);
        }
        for (const std::string function :
             {"tavrix_jrpc_router_process_msg", "tavrix_jrpc_router_mq_dispatch_request"}) {
            EXPECT_TRUE(log.has(debug, unit, "[" + function + "]: " + words + "\n"));
        }
    }
}

TEST(RouterFailure, WithoutAServiceChannelIsReportedOnTheSplitPath) {
    const Json object(json_loads(R"({"method":"p","id":1})", 0, nullptr));
    const BusSocket pub(TAVRIX_SP_PUB);
    const LogCapture log("debug");
    const Failing once("strdup");
    EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, object.get()), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_router_mq_dispatch_request]: No JSON uuid\n"));
}

TEST(RouterFailure, WithoutAServiceChannelIsReportedAndClosesTheClientInOneCall) {
    int listener = -1;
    int client = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("router.sock", &listener, 1), 0);
    StreamClient asking = StreamClient::unix_path("router.sock");
    asking.say(R"({"method":"p","id":1})");
    const BusSocket pub(TAVRIX_SP_PUB);
    const LogCapture log("debug");
    {
        const Failing once("strdup");
        EXPECT_EQ(tavrix_jrpc_router_socket_to_mq(&listener, &pub.number, &client), TAVRIX_ERR_NULL_INPUT);
    }
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_router_socket_to_mq]: Error mq_pub, rc = -20\n");
    EXPECT_TRUE(asking.closed_silently());
    EXPECT_EQ(client, -1);
    close(listener);
}

TEST(ServerFailures, OfTheClientsCloseAreItsStatusAndComeOnce) {
    int listener = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("server.sock", &listener, 1), 0);
    StreamClient asking = StreamClient::unix_path("server.sock");
    asking.say(R"({"jsonrpc":"2.0","id":1,"method":"x.Ok"})");
    const StderrCapture out;
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
    EXPECT_EQ(with_each_null(tavrix_jrpc_router_process_msg, "{}", &text, &text), Statuses(3, TAVRIX_ERR_GENERAL));
}

TEST(SystemResponseFailures, NameTheTransactionIdOnlyWhereItIsTheCause) {
    const Json asked(json_loads(R"({"id":"a","transaction_id":1})", 0, nullptr));
    for (const int call : {1, 2}) {
        json_t *response = asked.get();
        const LogCapture log("info");
        const Failing once("json_object_set_new", call);
        EXPECT_EQ(tavrix_jrpc_router_create_system_lock_response(asked.get(), &response), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(response, nullptr);
        EXPECT_EQ(log.sequence() == Lines{no_transaction}, call == 2) << log.text();
    }
}

} // namespace
