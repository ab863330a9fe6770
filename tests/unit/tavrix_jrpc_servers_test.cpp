#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc";
int calls = 0;

int say(json_t *, json_t **result, json_t **) {
    ++calls;
    *result = json_string("said");
    return 0;
}

const tavrix_jrpc_method table[] = {{"x.Say", say}, {nullptr, nullptr}};
constexpr char request[] = R"({"jsonrpc":"2.0","id":1,"method":"x.Say"})";
constexpr char response[] = R"({"jsonrpc":"2.0","id":"x.Say","result":"said"})";

/** The two stream servers, tested alike. */
struct Server {
    const char *name;
    bool is_unix;
    int (*run)(const int *, const tavrix_jrpc_method *);
    const char *send_line;
};

class StreamServer : public testing::TestWithParam<Server> {
  protected:
    void SetUp() override {
        calls = 0;
        const LogCapture log("info");
        if (GetParam().is_unix) {
            ASSERT_EQ(tavrix_jrpc_unix_socket_init("server.sock", &listener, 1), 0);
        } else {
            ASSERT_EQ(tavrix_jrpc_tcp_socket_init(0, &listener, 1), 0);
        }
        ASSERT_GT(listener, 0);
    }
    void TearDown() override { ::close(listener); }

    StreamClient client() const {
        return GetParam().is_unix ? StreamClient::unix_path("server.sock") : StreamClient::tcp_port(port_of(listener));
    }
    int run() const { return GetParam().run(&listener, table); }
    /** The status of serving the text, and what the client hears. */
    std::pair<int, std::string> serve(const std::string &text) const {
        const StreamClient asking = client();
        asking.say(text);
        const int rc = run();
        return {rc, asking.hear()};
    }

    const NothingOpens nothing{};
    int listener = -1;
};

INSTANTIATE_TEST_SUITE_P(Both, StreamServer,
                         testing::Values(Server{"Unix", true, tavrix_jrpc_unix_socket_run,
                                                "[tavrix_jrpc_unix_socket_run]: Error response!\n"},
                                         Server{"Tcp", false, tavrix_jrpc_tcp_socket_run,
                                                "[tavrix_jrpc_socket_run]: Error response!\n"}),
                         [](const auto &row) { return row.param.name; });

TEST_P(StreamServer, AnswersOneRequestAndClosesWithoutLeavingADescriptorOpen) {
    const std::string too_long = std::string(1024 - sizeof request + 2, ' ') + request; // its last byte is the 1025th
    const struct {
        std::string text;
        int rc;
        std::string heard;
        int calls;
    } rows[] = {
        {request, TAVRIX_OK, response, 1},
        {R"({"jsonrpc":"2.0","method":"x.Say"})", TAVRIX_OK, "", 1}, // a notification
        {request + std::string(1024 - sizeof request + 1, ' '), TAVRIX_OK, response, 1},
        {R"({"jsonrpc":"2.0","id":1,"method":"x.Unknown"})", TAVRIX_OK,
         R"({"jsonrpc":"2.0","id":"x.Unknown","error":{"code":-32601,"message":"Method not found","data":null}})", 0},
        {too_long, TAVRIX_ERR_GENERAL, "", 0},
        {"no json", TAVRIX_ERR_GENERAL, "", 0},
    };
    for (const auto &row : rows) {
        calls = 0;
        EXPECT_EQ(serve(row.text), std::pair(row.rc, row.heard)) << row.text;
        EXPECT_EQ(calls, row.calls) << row.text;
    }
}

TEST_P(StreamServer, ClosesAClientThatSaysNothing) {
    const LogCapture log("debug");
    StreamClient silent = client();
    silent.close();
    int rc = 0;
    EXPECT_TRUE(wait_until([&] {
        rc = run();
        return !log.silent(); // it is while nobody is waiting yet
    }));
    EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_socket_recv]: zero bytes received!"})) << "nothing is left to evaluate";
    EXPECT_EQ(calls, 0);
}

TEST_P(StreamServer, ReportsThatNobodyIsWaiting) {
    const LogCapture log("debug");
    EXPECT_EQ(run(), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.silent());
}

// Both accept on a Unix-domain listener, where a send to a closed client fails at once.
TEST_P(StreamServer, ReportsAndClosesAClientThatHasGone) {
    int local = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("gone.sock", &local, 1), 0);
    const LogCapture log("debug");
    StreamClient gone = StreamClient::unix_path("gone.sock");
    gone.say(request);
    gone.close();
    EXPECT_EQ(GetParam().run(&local, table), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(calls, 1) << "the request itself was good";
    EXPECT_EQ(log.count(debug, unit, GetParam().send_line), 1);
    ::close(local);
}

TEST(ServerInit, ReportsAFailedListenerOnlyByLogAndHandle) {
    int first = -1;
    ASSERT_EQ(tavrix_jrpc_tcp_socket_init(0, &first, 0), 0);
    const int taken = port_of(first);
    const std::string unix_line = "DEBUG|[tavrix_jrpc_unix_socket_init]: cannot init unix socket!";
    const struct {
        std::function<int(int *)> init;
        Lines lines;
    } rows[] = {
        {[](int *handle) { return tavrix_jrpc_unix_socket_init("no/such/folder/x.sock", handle, 0); }, {unix_line}},
        // A null path is a failed listener too.
        {[](int *handle) { return tavrix_jrpc_unix_socket_init(nullptr, handle, 0); },
         {"DEBUG|[tavrix_unix_socket_init]: Null Pointer!", unix_line}},
        {[&](int *handle) { return tavrix_jrpc_tcp_socket_init(static_cast<unsigned>(taken), handle, 0); },
         {"DEBUG|[tavrix_jrpc_tcp_socket_init]: cannot init tcp socket!"}},
    };
    for (const auto &row : rows) {
        int handle = -77;
        const LogCapture log("debug");
        EXPECT_EQ(row.init(&handle), 0);
        EXPECT_EQ(handle, 0);
        EXPECT_TRUE(log.said(row.lines));
    }
    ::close(first);
}

TEST(ServerInit, SaysWhenAListenerStands) {
    int unix_handle = -1;
    int tcp_handle = -1;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_unix_socket_init("stands.sock", &unix_handle, 0), 0);
    EXPECT_EQ(tavrix_jrpc_tcp_socket_init(0, &tcp_handle, 0), 0);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_jrpc_unix_socket_init]: unix socket initialized!",
                          "DEBUG|[tavrix_jrpc_tcp_socket_init]: tcp socket initialized!"}));
    ::close(unix_handle);
    ::close(tcp_handle);
}

TEST(Servers, RefuseNull) {
    const int listener = -1;
    const Statuses refused(2, TAVRIX_ERR_NULL_INPUT);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_unix_socket_init("x", nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_tcp_socket_init(0, nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("tcp://127.0.0.1:1", nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(with_each_null(tavrix_jrpc_unix_socket_run, &listener, &table[0]), refused);
    EXPECT_EQ(with_each_null(tavrix_jrpc_tcp_socket_run, &listener, &table[0]), refused);
    EXPECT_EQ(tavrix_jrpc_pull_socket_run(-1, nullptr), TAVRIX_ERR_NULL_INPUT);
    Lines expected;
    for (const std::string function : {"unix_socket_init", "tcp_socket_init", "tcp_socket_init", "unix_socket_run",
                                       "unix_socket_run", "tcp_socket_run", "tcp_socket_run", "pull_socket_run"}) {
        expected.push_back("DEBUG|[tavrix_jrpc_" + function + "]: NULL pointer!");
    }
    EXPECT_TRUE(log.said(expected));
}

// --- Pull server ---

class PullServer : public testing::Test {
  protected:
    void SetUp() override {
        calls = 0;
        const std::string address = free_bus_address();
        ASSERT_EQ(tavrix_jrpc_pull_socket_init(address.c_str(), &pull.number), 0);
        push.connect(address);
    }
    int serve(const std::string &text) {
        EXPECT_EQ(tavrix_mq_socket_send(push.number, text.c_str()), 0); // waits for the connection
        return tavrix_jrpc_pull_socket_run(pull.number, table);
    }
    BusSocket pull;
    BusSocket push{TAVRIX_SP_PUSH};
};

TEST_F(PullServer, EvaluatesAMessageAsItIsAndReturnsTheStatusAlone) {
    EXPECT_EQ(serve(R"({"jsonrpc":"2.0","method":"x.Say"})"), 0);
    EXPECT_EQ(serve(request), 0);
    EXPECT_EQ(serve("no json"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(serve(std::string("channel|") + request), TAVRIX_ERR_GENERAL) << "no channel is expected";
    EXPECT_EQ(serve(R"({"jsonrpc":"2.0","method":"x.Unknown"})"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(calls, 2);
}

TEST_F(PullServer, FailsWhenNothingCanBeReceived) {
    tavrix_mq_socket_set_timeout(pull.number, 10);
    EXPECT_EQ(tavrix_jrpc_pull_socket_run(pull.number, table), TAVRIX_ERR_GENERAL) << "a time-out too";
    EXPECT_EQ(tavrix_jrpc_pull_socket_run(9999, table), TAVRIX_ERR_GENERAL);
}

TEST(PullServerInit, SpeaksInTheNamesOfTheTcpServerAndThePublisher) {
    BusSocket pull;
    LogCapture log("debug");
    ASSERT_EQ(tavrix_jrpc_pull_socket_init(free_bus_address().c_str(), &pull.number), 0);
    EXPECT_TRUE(log.has(debug, unit, "[tavrix_jrpc_tcp_socket_init]: pull socket initialized!\n"));
    int handle = -77;
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("ipc://x", &handle), TAVRIX_ERR_VALIDATION) << "the bind's own status";
    EXPECT_TRUE(log.has(error, unit, "[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pull, rc = -34\n"));
    EXPECT_EQ(tavrix_jrpc_pull_socket_init(nullptr, &handle), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(handle, -77);
}

TEST(PullServerInit, GivesItsSocketBackWhenItCannotBind) {
    const auto next_number = [] {
        const BusSocket next(TAVRIX_SP_PULL);
        return next.number;
    };
    const int free_number = next_number();
    int handle = -77;
    const LogCapture log("off");
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("ipc://x", &handle), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(next_number(), free_number);
}

TEST(PullServerInit, GoesOnToTheBindWhenNoBusSocketIsLeft) {
    const NoBusSocketIsLeft taken;
    int handle = -77;
    const LogCapture log("info");
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("tcp://127.0.0.1:1", &handle), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"ERROR|[tavrix_jrpc_tcp_socket_init]: cannot init pull socket!",
                          "ERROR|[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pull, rc = -1"}));
}

} // namespace
