#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using support::BusSocket;
using support::LogCapture;
using support::StreamClient;

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

std::string padded_to(size_t size) { return request + std::string(size - sizeof request + 1, ' '); }

/** The two stream servers, tested alike. */
struct Server {
    const char *name;
    bool is_unix;
    int (*run)(const int *, const tavrix_jrpc_method *);
    const char *null_line;
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
        if (GetParam().is_unix) {
            return StreamClient::unix_path("server.sock");
        }
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
        return StreamClient::tcp_port(ntohs(address.sin_port));
    }
    int run() const { return GetParam().run(&listener, table); }

    int listener = -1;
};

INSTANTIATE_TEST_SUITE_P(
    Both, StreamServer,
    testing::Values(Server{"Unix", true, tavrix_jrpc_unix_socket_run, "[tavrix_jrpc_unix_socket_run]: NULL pointer!\n",
                           "[tavrix_jrpc_unix_socket_run]: Error response!\n"},
                    Server{"Tcp", false, tavrix_jrpc_tcp_socket_run, "[tavrix_jrpc_tcp_socket_run]: NULL pointer!\n",
                           "[tavrix_jrpc_socket_run]: Error response!\n"}),
    [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(StreamServer, AnswersOneRequestAndCloses) {
    const StreamClient asking = client();
    asking.say(request);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(asking.hear(), response);
}

TEST_P(StreamServer, AnswersAFailureLikeAnyOther) {
    const StreamClient asking = client();
    asking.say(R"({"jsonrpc":"2.0","id":1,"method":"x.Unknown"})");
    EXPECT_EQ(run(), 0);
    EXPECT_NE(asking.hear().find("-32601"), std::string::npos);
}

TEST_P(StreamServer, SendsNothingForANotification) {
    const StreamClient asking = client();
    asking.say(R"({"jsonrpc":"2.0","method":"x.Say"})");
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(asking.closed_silently());
    EXPECT_EQ(calls, 1);
}

TEST_P(StreamServer, ReadsAtMost1024Bytes) {
    const StreamClient exact = client();
    exact.say(padded_to(1024));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(exact.hear(), response);
    const StreamClient cut = client();
    cut.say(std::string(1024 - sizeof request + 2, ' ') + request); // its last byte is the 1025th
    EXPECT_EQ(run(), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(calls, 1);
}

TEST_P(StreamServer, ClosesAClientWhoseRequestFails) {
    const StreamClient asking = client();
    asking.say("no json");
    EXPECT_EQ(run(), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(asking.closed_silently());
}

TEST_P(StreamServer, ClosesAClientThatSaysNothing) {
    const LogCapture log("debug");
    const int open_before = support::open_descriptors();
    StreamClient silent = client();
    silent.close();
    int rc = 0;
    EXPECT_TRUE(support::wait_until([&] {
        rc = run();
        return !log.silent(); // it is while nobody is waiting yet
    }));
    EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"DEBUG|[tavrix_socket_recv]: zero bytes received!"})
        << "nothing is left to evaluate";
    EXPECT_EQ(support::open_descriptors(), open_before);
    EXPECT_EQ(calls, 0);
}

TEST_P(StreamServer, ReportsThatNobodyIsWaiting) {
    const LogCapture log("debug");
    EXPECT_EQ(run(), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.silent());
}

TEST_P(StreamServer, RefusesNull) {
    const LogCapture log("debug");
    EXPECT_EQ(GetParam().run(nullptr, table), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(GetParam().run(&listener, nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(log.count(support::debug, unit, GetParam().null_line), 2);
}

TEST_P(StreamServer, LeavesNoDescriptorOpen) {
    const int open_before = support::open_descriptors();
    for (const char *text : {request, "no json", R"({"jsonrpc":"2.0","method":"x.Say"})"}) {
        const StreamClient asking = client();
        asking.say(text);
        run();
    }
    EXPECT_EQ(support::open_descriptors(), open_before);
}

// Both accept on a Unix-domain listener, where a send to a closed client fails at once.
TEST_P(StreamServer, ReportsAndClosesAClientThatHasGone) {
    int local = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("gone.sock", &local, 1), 0);
    const LogCapture log("debug");
    const int open_before = support::open_descriptors();
    StreamClient gone = StreamClient::unix_path("gone.sock");
    gone.say(request);
    gone.close();
    EXPECT_EQ(GetParam().run(&local, table), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(calls, 1) << "the request itself was good";
    EXPECT_EQ(log.count(support::debug, unit, GetParam().send_line), 1);
    EXPECT_EQ(support::open_descriptors(), open_before);
    ::close(local);
}

TEST(ServerInit, ReportsAFailedListenerOnlyByLogAndHandle) {
    int handle = -77;
    {
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_unix_socket_init("no/such/folder/x.sock", &handle, 0), 0);
        EXPECT_EQ(handle, 0);
        EXPECT_EQ(log.last(),
                  support::whole(support::debug, "[tavrix_jrpc_unix_socket_init]: cannot init unix socket!\n"));
    }
    handle = -77;
    {
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_unix_socket_init(nullptr, &handle, 0), 0) << "a null path is a failed listener too";
        EXPECT_EQ(handle, 0);
        EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                      "DEBUG|[tavrix_unix_socket_init]: Null Pointer!",
                                      "DEBUG|[tavrix_jrpc_unix_socket_init]: cannot init unix socket!",
                                  }));
    }
    int first = -1;
    ASSERT_EQ(tavrix_jrpc_tcp_socket_init(0, &first, 0), 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(first, reinterpret_cast<sockaddr *>(&address), &length);
    handle = -77;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_tcp_socket_init(ntohs(address.sin_port), &handle, 0), 0);
    EXPECT_EQ(handle, 0);
    EXPECT_EQ(log.last(), support::whole(support::debug, "[tavrix_jrpc_tcp_socket_init]: cannot init tcp socket!\n"));
    ::close(first);
}

TEST(ServerInit, SaysWhenAListenerStands) {
    int unix_handle = -1;
    int tcp_handle = -1;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_unix_socket_init("stands.sock", &unix_handle, 0), 0);
    EXPECT_EQ(tavrix_jrpc_tcp_socket_init(0, &tcp_handle, 0), 0);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                  "DEBUG|[tavrix_jrpc_unix_socket_init]: unix socket initialized!",
                                  "DEBUG|[tavrix_jrpc_tcp_socket_init]: tcp socket initialized!",
                              }));
    ::close(unix_handle);
    ::close(tcp_handle);
}

TEST(ServerInit, RefusesNull) {
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_unix_socket_init("x", nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_tcp_socket_init(0, nullptr, 0), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("tcp://127.0.0.1:1", nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                  "DEBUG|[tavrix_jrpc_unix_socket_init]: NULL pointer!",
                                  "DEBUG|[tavrix_jrpc_tcp_socket_init]: NULL pointer!",
                                  "DEBUG|[tavrix_jrpc_tcp_socket_init]: NULL pointer!",
                              }));
}

// --- Pull server ---

namespace {

class PullServer : public testing::Test {
  protected:
    void SetUp() override {
        calls = 0;
        address = support::free_bus_address();
        ASSERT_EQ(tavrix_jrpc_pull_socket_init(address.c_str(), &pull.number), 0);
        push = std::make_unique<BusSocket>(TAVRIX_SP_PUSH);
        push->connect(address);
    }
    int serve(const std::string &text) {
        EXPECT_EQ(tavrix_mq_socket_send(push->number, text.c_str()), 0); // waits for the connection
        return tavrix_jrpc_pull_socket_run(pull.number, table);
    }
    std::string address;
    BusSocket pull;
    std::unique_ptr<BusSocket> push;
};

} // namespace

TEST_F(PullServer, EvaluatesAMessageAsItIsAndAnswersNothing) {
    EXPECT_EQ(serve(R"({"jsonrpc":"2.0","method":"x.Say"})"), 0);
    EXPECT_EQ(serve(request), 0);
    EXPECT_EQ(calls, 2);
}

TEST_F(PullServer, ReturnsTheEvaluationsStatus) {
    EXPECT_EQ(serve("no json"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(serve(std::string("channel|") + request), TAVRIX_ERR_GENERAL) << "no channel is expected";
    EXPECT_EQ(serve(R"({"jsonrpc":"2.0","method":"x.Unknown"})"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(calls, 0);
}

TEST_F(PullServer, FailsWhenNothingCanBeReceived) {
    tavrix_mq_socket_set_timeout(pull.number, 10);
    EXPECT_EQ(tavrix_jrpc_pull_socket_run(pull.number, table), TAVRIX_ERR_GENERAL) << "a time-out too";
    EXPECT_EQ(tavrix_jrpc_pull_socket_run(9999, table), TAVRIX_ERR_GENERAL);
}

TEST_F(PullServer, RefusesANullTable) {
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_pull_socket_run(pull.number, nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_TRUE(log.has(support::debug, unit, "[tavrix_jrpc_pull_socket_run]: NULL pointer!\n"));
}

TEST(PullServerInit, SpeaksInTheNamesOfTheTcpServerAndThePublisher) {
    BusSocket pull;
    LogCapture log("debug");
    ASSERT_EQ(tavrix_jrpc_pull_socket_init(support::free_bus_address().c_str(), &pull.number), 0);
    EXPECT_TRUE(log.has(support::debug, unit, "[tavrix_jrpc_tcp_socket_init]: pull socket initialized!\n"));
    int handle = -77;
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("ipc://x", &handle), TAVRIX_ERR_VALIDATION) << "the bind's own status";
    EXPECT_TRUE(log.has(support::error, unit, "[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pull, rc = -34\n"));
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
    std::vector<int> sockets;
    int socket = -1;
    while (tavrix_mq_socket_init(TAVRIX_SP_PAIR, &socket) == 0) {
        sockets.push_back(socket);
    }
    int handle = -77;
    const LogCapture log("info");
    EXPECT_EQ(tavrix_jrpc_pull_socket_init("tcp://127.0.0.1:1", &handle), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                  "ERROR|[tavrix_jrpc_tcp_socket_init]: cannot init pull socket!",
                                  "ERROR|[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pull, rc = -1",
                              }));
    for (const int number : sockets) {
        tavrix_mq_socket_close(number);
    }
}
