/*
 * Renderings that only a chatty line needs are not made below its level.
 */
#include <string>

#include <gtest/gtest.h>

#include "internal/tavrix_jrpc_seam.h"
#include "support/bus.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace fault;
using namespace support;

namespace {

int succeed(json_t *, json_t **, json_t **) { return 0; }
const tavrix_jrpc_method table[] = {{"test.Run", succeed}, {nullptr, nullptr}};

int evaluate_notification() {
    char *text = nullptr;
    return tavrix_jrpc_eval_request(R"({"jsonrpc":"2.0","method":"test.Run"})", table, &text);
}

} // namespace

TEST(Rendering, OfARequestHappensAtVerboseLevelOnly) {
    for (const std::string level : {"off", "info", "debug", "verbose"}) {
        const LogCapture log(level);
        const Failing none("json_dumps", 0);
        EXPECT_EQ(evaluate_notification(), 0);
        EXPECT_EQ(none.calls(), level == "verbose" ? 1 : 0) << level;
    }
}

TEST(Rendering, ThatFailsAtVerboseLevelEndsTheEvaluation) {
    const LogCapture log("verbose");
    const Failing once("json_dumps");
    EXPECT_EQ(evaluate_notification(), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"ERROR|tavrix_jrpc_eval_request: Could not print JSON"}));
}

TEST(Rendering, OfARoutedRequestHappensOnceBelowVerboseLevel) {
    const BusSocket pub(TAVRIX_SP_PUB);
    for (const char *level : {"info", "verbose"}) {
        const LogCapture log(level);
        const Json request(json_pack("{s:s, s:i}", "method", "ports.Get", "id", 1));
        const Failing none("json_dumps", 0);
        EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, request.get()), 0);
        EXPECT_EQ(none.calls(), std::string(level) == "verbose" ? 2 : 1) << "one goes onto the bus";
    }
}

TEST(Rendering, OfARoutedRequestThatHasNoneIsNotTriedBelowVerboseLevel) {
    const BusSocket pub(TAVRIX_SP_PUB);
    for (const char *text : {"\xff", "\x80"}) {
        const Json request(
            json_pack("{s:s, s:i, s:o}", "method", "ports.Get", "id", 1, "name", json_string_nocheck(text)));
        for (const char *level : {"off", "info", "debug"}) {
            const LogCapture log(level);
            const Failing none("json_dumps", 0);
            EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, request.get()), TAVRIX_ERR_GENERAL);
            EXPECT_EQ(none.calls(), 0) << level;
        }
    }
}

TEST(Rendering, OfARoutedRequestThatFailsIsReported) {
    const BusSocket pub(TAVRIX_SP_PUB);
    const Json request(json_pack("{s:s, s:i}", "method", "ports.Get", "id", 1));
    const Failing ever("json_dumps", 1, ENOMEM, Failing::always);
    LogCapture log("verbose");
    EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, request.get()), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_router_mq_dispatch_request]: Cannot print JSON message\n");
    char *text = nullptr;
    char *channel = nullptr;
    EXPECT_EQ(tavrix_jrpc_router_process_msg(R"({"method":"ports.Get","id":1})", &text, &channel), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(channel, nullptr);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_router_process_msg]: Cannot print JSON message\n");
    log.begin("debug");
    EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&pub.number, request.get()), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_router_mq_dispatch_request]: Cannot re-encode JSON message\n");
    EXPECT_EQ(tavrix_jrpc_router_socket_dispatch_response(&pub.number, request.get()), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_router_socket_dispatch_response]: Cannot decode JSON message\n");
}
