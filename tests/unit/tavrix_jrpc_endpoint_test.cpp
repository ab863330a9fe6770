#include <chrono>
#include <climits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>

#include "support/bus.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc";

int calls = 0;
int handler_rc = 0;

int get(json_t *, json_t **result, json_t **) {
    ++calls;
    *result = json_string("got");
    return handler_rc;
}

const tavrix_jrpc_method table[] = {{"ports.Get", get}, {nullptr, nullptr}};

/** A service with both directions of its bus settled: requests go in, replies come out. */
class Endpoint : public testing::Test {
  protected:
    Endpoint() : requests("service", 2000), replies("", 50) {
        calls = 0;
        handler_rc = 0;
    }

    int step(int nonblock = 0) {
        return tavrix_jrpc_mq_run(&requests.sub.number, &replies.pub.number, table, nonblock);
    }
    int serve(const std::string &frame) {
        requests.publish(frame);
        return step();
    }

    BusPair requests;
    BusPair replies;
};

constexpr char request[] = R"({"jsonrpc":"2.0","id":"R1","method":"ports.Get"})";

std::string mq_run(const std::string &words) { return "[tavrix_jrpc_mq_run]: " + words + "\n"; }
std::string parse_channel(const std::string &words) { return "[tavrix_jrpc_parse_channel]: " + words + "\n"; }

/** Why Jansson stops reading a text. */
std::string complaint(const std::string &text) {
    const json_error_t error = parse_error(text);
    return "Error on line[" + std::to_string(error.line) + "]: " + error.text + "\n";
}

/** The engine's lines, each with its level. */
Lines engine_lines(const LogCapture &log) {
    Lines all;
    for (const auto &line : log.lines()) {
        if (line.file == unit) {
            all.push_back(line.whole());
        }
    }
    return all;
}

struct Served {
    const char *name;
    std::string json;
    int rc;
    Lines lines; ///< between the frame's line and the publishing
    int calls = 0;
    const char *reply = "(nothing)";
};

Served dropped(const char *name, const std::string &json, Lines why) {
    why.push_back("DEBUG|" + mq_run("Error parse_channel, rc = -1"));
    return {name, json, TAVRIX_ERR_GENERAL, why};
}
Served dropped(const char *name, const std::string &json, const char *why) {
    return dropped(name, json, Lines{"DEBUG|" + parse_channel(why)});
}
Served dropped_as_no_json(const char *name, const std::string &json) {
    return dropped(name, json,
                   Lines{"DEBUG|" + parse_channel("Cannot parse JSON message."), "DEBUG|" + complaint(json)});
}

std::vector<Served> served_messages() {
    return {
        dropped_as_no_json("NoJson", "{\n]"),
        dropped_as_no_json("NoneAtAll", "no json"),
        dropped_as_no_json("TwoIds", R"({"id":"a","id":"a"})"),
        dropped("Array", "[]", "Invalid JSON"),
        dropped("String", "\"R1\"", "Invalid JSON"),
        dropped("IdNumber", R"({"jsonrpc":"2.0","id":12,"method":"ports.Get"})", "Invalid ID"),
        dropped("IdNull", R"({"jsonrpc":"2.0","id":null,"method":"ports.Get"})", "Invalid ID"),
        {"NotificationOfAnotherMethod",
         R"({"jsonrpc":"2.0","method":"x"})",
         TAVRIX_ERR_GENERAL,
         {"VERB |" + parse_channel("No ID"), "VERB |Valid JSON received, of length 43\n",
          "VERB |JSON Data:\n{\n    \"jsonrpc\": \"2.0\",\n    \"method\": \"x\"\n}\n",
          "ERROR|invalid method occurred <x>\n"}},
        {"Notification",
         R"({"jsonrpc":"2.0","method":"ports.Get"})",
         TAVRIX_OK,
         {"VERB |" + parse_channel("No ID"), "VERB |Valid JSON received, of length 51\n",
          "VERB |JSON Data:\n{\n    \"jsonrpc\": \"2.0\",\n    \"method\": \"ports.Get\"\n}\n"},
         1},
        {"OtherVersion",
         R"({"jsonrpc":"1.0","id":"R1"})",
         TAVRIX_ERR_GENERAL,
         {"VERB |Valid JSON received, of length 40\n",
          "VERB |JSON Data:\n{\n    \"jsonrpc\": \"1.0\",\n    \"id\": \"R1\"\n}\n",
          "DEBUG|[tavrix_jrpc_create_error]: NULL pointer!\n"}},
        {"Request",
         R"({"jsonrpc":"2.0","id":"R1","method":"ports.Get"} and more)",
         TAVRIX_OK,
         {"VERB |Valid JSON received, of length 67\n",
          "VERB |JSON Data:\n{\n    \"jsonrpc\": \"2.0\",\n    \"id\": \"R1\",\n    \"method\": \"ports.Get\"\n}\n",
          "VERB |creating response\n", "DEBUG|JSON response sent, of string length 49\n",
          "VERB |The JSON Response was:\n{\"jsonrpc\":\"2.0\",\"id\":\"ports.Get\",\"result\":\"got\"}\n",
          "DEBUG|" + mq_run("Sending response over mq_pub ..."),
          "VERB |[tavrix_jrpc_mq_pub]: Prefixing channel with response...\n",
          "VERB |[tavrix_jrpc_mq_pub]: Sending message over mq_pub...\n",
          "VERB |[tavrix_jrpc_mq_pub]: mq_send msg[52]: "
          "R1|{\"jsonrpc\":\"2.0\",\"id\":\"ports.Get\",\"result\":\"got\"}\n"},
         1,
         R"(R1|{"jsonrpc":"2.0","id":"ports.Get","result":"got"})"},
    };
}

TEST_F(Endpoint, SaysWhatItMakesOfAMessageInThisOrder) {
    for (const Served &row : served_messages()) {
        SCOPED_TRACE(row.name);
        calls = 0;
        const std::string frame = "service|" + row.json;
        requests.publish(frame);
        const LogCapture log("verbose");
        EXPECT_EQ(step(), row.rc);
        Lines lines = {"VERB |" + mq_run("waiting to receive... "),
                       "VERB |" + mq_run("mq_recv msg[" + std::to_string(frame.size()) + "]: " + frame)};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(engine_lines(log), lines);
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(replies.receive(), row.reply);
    }
}

TEST_F(Endpoint, AnswersAFailedMethod) {
    handler_rc = TAVRIX_ERR_PARAMETER_NOT_FOUND;
    EXPECT_EQ(serve(std::string("service|") + request), 0);
    EXPECT_NE(replies.receive().find("-32602"), std::string::npos);
}

TEST_F(Endpoint, DropsAFrameWithoutBar) {
    const LogCapture log("debug");
    EXPECT_EQ(serve("service without bar"), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_mq_run]: Error parse_msg, rc = -1\n"));
}

TEST_F(Endpoint, RefusesAnEmptyFrame) {
    BusPair everything("", 2000);
    ASSERT_EQ(tavrix_mq_socket_send(everything.pub.number, ""), 0);
    EXPECT_EQ(tavrix_jrpc_mq_run(&everything.sub.number, &replies.pub.number, table, 0), TAVRIX_ERR_GENERAL);
}

TEST_F(Endpoint, SaysWhenNothingArrived) {
    EXPECT_EQ(step(1), TAVRIX_ERR_MQ_TIMEOUT);
    tavrix_mq_socket_set_timeout(requests.sub.number, 20);
    EXPECT_EQ(step(0), TAVRIX_ERR_MQ_TIMEOUT);
}

TEST_F(Endpoint, PassesAFailedReceiveOn) {
    int closed = 9999;
    EXPECT_EQ(tavrix_jrpc_mq_run(&closed, &replies.pub.number, table, 0), TAVRIX_ERR_GENERAL);
}

TEST_F(Endpoint, ReportsAReplyThatCannotBePublished) {
    int closed = 9999;
    requests.publish(std::string("service|") + request);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_mq_run(&requests.sub.number, &closed, table, 0), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_mq_run]: Sending response over mq_pub ...\n"));
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_mq_pub]: Error mq_send, rc = -1\n"));
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_mq_run]: Error mq_send, rc = -1\n"));
}

TEST_F(Endpoint, ListensOnSeveralChannels) {
    ASSERT_EQ(tavrix_jrpc_mq_sub_set_channel(free_bus_address().c_str(), "second", &requests.sub.number), 0);
    EXPECT_EQ(serve(std::string("second|") + request), 0);
    EXPECT_EQ(serve(std::string("service|") + request), 0);
    EXPECT_EQ(calls, 2);
}

TEST(PubInit, BindsAPublisher) {
    BusSocket pub;
    const LogCapture log("debug");
    const std::string address = free_bus_address();
    ASSERT_EQ(tavrix_jrpc_mq_pub_init(address.c_str(), &pub.number), 0);
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_mq_pub_init]: mq_socket for pub initialized.\n"));
    BusSocket sub(TAVRIX_SP_SUB);
    sub.connect(address);
    tavrix_mq_socket_subscribe(sub.number, "c");
    settle(pub.number, sub.number, "c");
}

TEST(PubInit, RefusesBadAddresses) {
    int pub = -77;
    for (const auto &[address, rc] :
         {std::pair("ipc://x", TAVRIX_ERR_VALIDATION), {"tcp://nowhere", TAVRIX_ERR_GENERAL}}) {
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_mq_pub_init(address, &pub), rc) << "the bind's own status";
        EXPECT_EQ(log.last(),
                  "DEBUG|[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pub, rc = " + std::to_string(rc) + "\n");
    }
    EXPECT_EQ(pub, -77);
}

TEST(PubInit, LeavesTheSocketOpenWhenItCannotBind) {
    int pub = -77;
    BusSocket first;
    first.number = 0; // the number that the next socket has
    ASSERT_EQ(tavrix_jrpc_mq_pub_init("tcp://nowhere", &pub), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(first.timeout_ms(), -1);
}

TEST(SubInit, MakesAStepWaitForASecond) {
    BusSocket sub;
    ASSERT_EQ(tavrix_jrpc_mq_sub_init(&sub.number, 1), 0);
    BusSocket pub(TAVRIX_SP_PUB);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tavrix_jrpc_mq_run(&sub.number, &pub.number, table, 0), TAVRIX_ERR_MQ_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990)) << "not before its time";
}

TEST(SubInit, SetsATimeOutWhenAskedTo) {
    for (const int with_timeout : {0, 1, -1}) {
        BusSocket sub;
        const LogCapture log("debug");
        ASSERT_EQ(tavrix_jrpc_mq_sub_init(&sub.number, with_timeout), 0);
        EXPECT_EQ(sub.timeout_ms(), with_timeout != 0 ? 1000 : -1);
        EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_mq_sub_init]: mq_socket for sub initialized.\n");
    }
}

TEST(Init, ReportsThatNoBusSocketIsLeft) {
    const NoBusSocketIsLeft taken;
    int out = -77;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_mq_pub_init("tcp://127.0.0.1:1", &out), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_mq_pub_init]: Error mq_socket_init for pub, rc = -1\n");
    EXPECT_EQ(tavrix_jrpc_mq_sub_init(&out, 1), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|[tavrix_jrpc_mq_sub_init]: Error mq_socket_init for sub, rc = -1\n");
    EXPECT_EQ(out, -77);
}

TEST(Endpoints, RefuseNull) {
    BusSocket sub(TAVRIX_SP_SUB);
    BusSocket pub(TAVRIX_SP_PUB);
    int number = -77;
    constexpr int refused = TAVRIX_ERR_NULL_INPUT;
    const auto line = [](const std::string &function, const char *words) {
        return "DEBUG|[tavrix_jrpc_" + function + "]: " + words;
    };
    expect_nulls_refused(refused, line("mq_pub_init", "NULL pointer!"), tavrix_jrpc_mq_pub_init, "tcp://127.0.0.1:1",
                         &number);
    expect_nulls_refused(refused, line("mq_sub_init", "NULL pointer!"), tavrix_jrpc_mq_sub_init, &number, 1);
    expect_nulls_refused(refused, line("mq_sub_set_channel", "NULL pointer!"), tavrix_jrpc_mq_sub_set_channel,
                         "tcp://127.0.0.1:1", "c", &sub.number);
    expect_nulls_refused(refused, line("mq_run", "Null Pointer!"), tavrix_jrpc_mq_run, &sub.number, &pub.number,
                         &table[0], 0);
    expect_nulls_refused(refused, line("mq_pub", "Null Pointer!"), tavrix_jrpc_mq_pub, &pub.number, "c", "{}");
    EXPECT_EQ(number, -77);
    EXPECT_EQ(sub.timeout_ms(), -1) << "the socket is still open";
}

TEST(SetChannel, ClosesTheSocketWhenAStepFails) {
    const std::tuple<int, const char *, const char *> rows[] = {
        {TAVRIX_SP_SUB, "ipc://x", "Error mq_socket_connect for sub, rc = -34\n"},
        {TAVRIX_SP_SUB, "tcp://nowhere", "Error mq_socket_connect for sub, rc = -1\n"},
        {TAVRIX_SP_PAIR, "tcp://127.0.0.1:1", "Error mq_socket_subscribe for sub, rc = -1\n"}};
    for (const auto &[sp_type, address, words] : rows) {
        BusSocket socket(sp_type);
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_mq_sub_set_channel(address, "c", &socket.number), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.last(), std::string("DEBUG|[tavrix_jrpc_mq_sub_set_channel]: ") + words);
        EXPECT_EQ(socket.timeout_ms(), INT_MIN) << "closed";
        socket.number = -1;
    }
}

} // namespace
