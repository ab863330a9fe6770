/*
 * The JSON-RPC engine with each of its calls failing once.
 */
#include "tavrix_jrpc.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "internal/tavrix_jrpc_seam.h"
#include "support/bus.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"

using fault::each_failure;
using fault::Fault;
using support::BusPair;
using support::Json;
using support::LogCapture;
using support::StreamClient;
using support::taken;

namespace {

json_t *handed_out = nullptr; ///< made before: a handler's own memory is not the engine's

int give(json_t *, json_t **result, json_t **) {
    *result = json_incref(handed_out);
    return 0;
}

int refuse(json_t *, json_t **, json_t **error_data) {
    *error_data = json_incref(handed_out);
    return TAVRIX_ERR_PARAMETER_NOT_FOUND;
}

const tavrix_jrpc_method table[] = {{"x.Give", give}, {"x.Refuse", refuse}, {nullptr, nullptr}};

constexpr char request[] = R"({"jsonrpc":"2.0","id":"r1","method":"x.Give","transaction_id":3})";
constexpr char response[] = R"({"jsonrpc":"2.0","id":"x.Give","result":["kept"],"transaction_id":3})";

/** Each failure with the log off, and with all of its lines. */
void each_failure_at_each_level(const std::function<void(Fault &fault)> &attempt) {
    for (const char *level : {"off", "verbose"}) {
        const LogCapture log(level);
        each_failure(attempt);
    }
}

class EngineFaults : public testing::Test {
  protected:
    EngineFaults() { handed_out = json_pack("[s]", "kept"); }
    ~EngineFaults() override { json_decref(handed_out); }
};

} // namespace

TEST_F(EngineFaults, LeaveAnEvaluationWithAnAnswerOrNone) {
    const struct {
        const char *text;
        std::string answer;
    } rows[] = {
        {request, response},
        {R"({"jsonrpc":"2.0","id":1,"method":"x.Refuse"})",
         R"j({"jsonrpc":"2.0","id":"x.Refuse","error":{"code":-32602,"message":"Invalid parameter(s)","data":["kept"]}})j"},
        {R"({"jsonrpc":"2.0","id":1,"method":"x.Unknown"})",
         R"j({"jsonrpc":"2.0","id":"x.Unknown","error":{"code":-32601,"message":"Method not found","data":null}})j"},
        {R"({"jsonrpc":"2.0","method":"x.Give"})", "(null)"},
    };
    for (const auto &row : rows) {
        each_failure_at_each_level([&](Fault &fault) {
            char *text = nullptr;
            const int rc = fault.in([&] { return tavrix_jrpc_eval_request(row.text, table, &text); });
            const std::string answer = taken(text);
            if (!fault.happened()) {
                EXPECT_EQ(rc, 0);
                EXPECT_EQ(answer, row.answer);
            } else if (rc == 0 && answer != row.answer) {
                EXPECT_NE(answer.find(R"("code":-32603,)"), std::string::npos) << answer;
            } else if (rc != 0) {
                EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
                EXPECT_EQ(answer, "(null)");
            }
        });
    }
}

TEST_F(EngineFaults, LeaveABuilderWithAWholeTextOrNone) {
    const Json id(json_string("m"));
    const Json transaction_id(json_integer(7));
    each_failure([&](Fault &fault) {
        char *text =
            fault.in([&] { return tavrix_jrpc_create_response(handed_out, id.get(), 0, transaction_id.get()); });
        EXPECT_EQ(taken(text),
                  fault.happened() ? "(null)" : R"({"jsonrpc":"2.0","id":"m","result":["kept"],"transaction_id":7})");
    });
    each_failure([&](Fault &fault) {
        char *text =
            fault.in([&] { return tavrix_jrpc_create_error(TAVRIX_JRPC_TIMED_OUT, id.get(), nullptr, 0, nullptr); });
        EXPECT_EQ(
            taken(text),
            fault.happened()
                ? "(null)"
                : R"({"jsonrpc":"2.0","id":"m","error":{"code":-32005,"message":"Command timed out","data":null}})");
    });
}

TEST_F(EngineFaults, LeaveFramingWithItsStatus) {
    each_failure([](Fault &fault) {
        char *frame = fault.in([] { return tavrix_api_router_json_add_channel("c", "{}"); });
        EXPECT_EQ(taken(frame), fault.happened() ? "(null)" : "c|{}");
    });
    each_failure([](Fault &fault) {
        char *channel = fault.in([] { return tavrix_api_router_json_parse_channel("events.X"); });
        EXPECT_EQ(taken(channel), fault.happened() ? "(null)" : TAVRIX_CHANNEL_EVENTS);
    });
    each_failure([](Fault &fault) {
        char *json = nullptr;
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_jrpc_parse_msg("c|{}", 4, &json); });
        EXPECT_EQ(taken(json), fault.happened() ? "(null)" : "{}");
    });
    each_failure([](Fault &fault) {
        char *channel = nullptr;
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_jrpc_parse_channel(request, &channel); });
        EXPECT_EQ(taken(channel), fault.happened() ? "(null)" : "r1");
    });
}

TEST_F(EngineFaults, LeaveAMatcherWithAMatchOrNone) {
    using Matcher = int (*)(const char *, const char *, json_t **);
    const struct {
        Matcher match;
        const char *text;
    } rows[] = {{tavrix_jrpc_eval_method, R"({"jsonrpc":"2.0","id":"x"})"},
                {tavrix_jrpc_eval_notification, R"({"jsonrpc":"2.0","method":"x"})"}};
    for (const auto &row : rows) {
        each_failure([&](Fault &fault) {
            json_t *out = nullptr;
            fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return row.match("x", row.text, &out); });
            EXPECT_EQ(taken(out), fault.happened() ? "(null)" : row.text);
        });
    }
}

TEST_F(EngineFaults, LeaveAServingStepWithAReplyOrAStatus) {
    BusPair requests("s");
    BusPair replies("r1", 2000);
    each_failure_at_each_level([&](Fault &fault) {
        requests.publish(std::string("s|") + request);
        const int rc =
            fault.in([&] { return tavrix_jrpc_mq_run(&requests.sub.number, &replies.pub.number, table, 0); });
        if (rc == 0) {
            const std::string reply = replies.receive();
            EXPECT_TRUE(reply == std::string("r1|") + response || reply.find("-32603") != std::string::npos) << reply;
        } else {
            EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
            EXPECT_TRUE(fault.happened());
        }
    });
}

TEST_F(EngineFaults, CostAWaitOneAttempt) {
    BusPair bus("me");
    each_failure_at_each_level([&](Fault &fault) {
        constexpr char frame[] = R"(me|{"jsonrpc":"2.0","id":"x","result":1})";
        bus.publish(frame);
        bus.publish(frame);
        json_t *reply = nullptr;
        EXPECT_EQ(fault.in([&] { return tavrix_jrpc_mq_sub_for_method(bus.sub.number, "x", &reply); }), 0);
        EXPECT_EQ(taken(reply), R"({"jsonrpc":"2.0","id":"x","result":1})");
        while (tavrix_jrpc_mq_run(&bus.sub.number, &bus.pub.number, table, 1) != TAVRIX_ERR_MQ_TIMEOUT) {
        }
    });
}

TEST_F(EngineFaults, LeaveARoutedRequestWithAStatus) {
    constexpr char routed[] = R"({"method":"x.Give","id":")" TAVRIX_ROUTER_REPLY_CHANNEL R"("})";
    each_failure_at_each_level([&](Fault &fault) {
        char *text = nullptr;
        char *channel = nullptr;
        const int rc =
            fault.in([&] { return tavrix_jrpc_router_process_msg(R"({"method":"x.Give","id":1})", &text, &channel); });
        taken(channel);
        // A channel that cannot be made is found out when the request is published.
        EXPECT_EQ(rc, fault.happened() && !fault.was("strdup") ? TAVRIX_ERR_GENERAL : 0) << fault.function();
        EXPECT_EQ(taken(text), rc == 0 ? routed : "(null)");
    });
}

TEST_F(EngineFaults, LeaveADispatchedRequestsIdUntilItCanBeRendered) {
    BusPair bus(TAVRIX_CHANNEL_DEFAULT);
    for (const char *level : {"off", "verbose"}) {
        LogCapture log(level);
        each_failure([&](Fault &fault) {
            log.clear();
            const Json asked(json_pack("{s:s, s:i, s:s}", "method", "x.Give", "id", 1, "name", "\xc3\xbc"));
            const int rc =
                fault.in([&] { return tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, asked.get()); });
            EXPECT_EQ(rc, fault.happened() ? TAVRIX_ERR_GENERAL : 0) << fault.function();
            if (rc == 0) {
                EXPECT_NE(bus.receive().find(R"("name":"\u00FC")"), std::string::npos);
            }
            if (log.text().find("Cannot print JSON message") != std::string::npos) {
                EXPECT_EQ(json_integer_value(json_object_get(asked.get(), "id")), 1);
            }
        });
    }
}

TEST_F(EngineFaults, LeaveASystemResponseWholeOrNull) {
    const Json asked(json_loads(R"({"id":"a","transaction_id":9})", 0, nullptr));
    const std::function<int(json_t **)> calls[] = {
        [&](json_t **out) { return tavrix_jrpc_router_create_system_lock_response(asked.get(), out); },
        [](json_t **out) { return tavrix_jrpc_router_create_system_timeout_response("a", 9, out); },
    };
    for (const auto &call : calls) {
        each_failure([&](Fault &fault) {
            json_t *out = asked.get();
            fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return call(&out); });
            EXPECT_EQ(out == nullptr, fault.happened());
            json_decref(out);
        });
    }
}

TEST_F(EngineFaults, LeaveAServersClientClosed) {
    int listener = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("fault.sock", &listener, 1), 0);
    each_failure([&](Fault &fault) {
        StreamClient client = StreamClient::unix_path("fault.sock");
        client.say(request);
        const int rc = fault.in([&] { return tavrix_jrpc_unix_socket_run(&listener, table); });
        if (fault.was("accept")) {
            EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
            EXPECT_EQ(tavrix_jrpc_unix_socket_run(&listener, table), 0) << "the client is still waiting";
        }
        const std::string answer = client.hear();
        EXPECT_NE(answer, "(time-out)");
        EXPECT_EQ(answer.empty(), rc != 0 && !fault.was("accept")) << rc << answer;
    });
    close(listener);
}

TEST_F(EngineFaults, LeaveTheRoutersClientClosedOrAnswered) {
    int listener = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("fault.sock", &listener, 1), 0);
    BusPair bus(TAVRIX_ROUTER_REPLY_CHANNEL);
    each_failure([&](Fault &fault) {
        StreamClient asking = StreamClient::unix_path("fault.sock");
        asking.say(request);
        int client = -1;
        int rc = fault.in([&] { return tavrix_jrpc_router_socket_to_mq(&listener, &bus.pub.number, &client); });
        if (fault.was("accept")) {
            EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
            rc = tavrix_jrpc_router_socket_to_mq(&listener, &bus.pub.number, &client);
        }
        EXPECT_EQ(client >= 0, rc == 0);
        if (client < 0) {
            EXPECT_TRUE(asking.closed_silently());
            return;
        }
        close(client);
    });
    each_failure([&](Fault &fault) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        StreamClient asking(pair[0]);
        bus.publish(std::string(TAVRIX_ROUTER_REPLY_CHANNEL "|") + response);
        const int rc = fault.in([&] { return tavrix_jrpc_router_mq_to_socket(&bus.sub.number, &pair[1]); });
        EXPECT_EQ(rc, fault.happened() ? TAVRIX_ERR_GENERAL : 0);
        EXPECT_EQ(asking.hear(), fault.happened() ? "" : response);
        EXPECT_EQ(pair[1], -1);
    });
    close(listener);
}
