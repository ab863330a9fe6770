#include <string>
#include <vector>

#include <event2/event.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

int calls = 0;
std::string caller;

int note(tavrix_call *call) {
    ++calls;
    caller = caller_of(call);
    return echo(call);
}

const Methods methods = {{"t.Echo", note}, {"t.Defer", defer}};

constexpr size_t long_answer = 4 << 20; // more than a connection holds

std::string call_of(const std::string &method, const std::string &params) {
    return request(method, "1", ",\"params\":" + params);
}

class Sockets : public testing::Test {
  protected:
    Sockets() {
        calls = 0;
        EXPECT_NE(listener, 0U);
    }
    static StreamClient say(const std::string &text) {
        StreamClient client = StreamClient::unix_path("direct.sock");
        client.say(text);
        return client;
    }
    std::string ask(const std::string &text) { return stage.hear(say(text)); }
    /** A client whose call is deferred. */
    StreamClient defer() {
        StreamClient client = say(call_of("t.Defer", "{}"));
        EXPECT_TRUE(stage.wait([] { return deferred != 0; }));
        return client;
    }
    int reply(json_t *result) { return tavrix_call_reply(stage.deferred_call(), result); }

    LogCapture log{"info"};
    Stage stage{methods};
    uint64_t listener = tavrix_service_listen_unix(stage.service, "direct.sock");
};

TEST_F(Sockets, AnswerOneRequestOnAUnixPathAndClose) {
    EXPECT_EQ(ask(call_of("t.Echo", R"({"a":1})")), R"({"jsonrpc":"2.0","id":"t.Echo","result":{"a":1}})");
    EXPECT_EQ(caller,
              "unix " + std::to_string(getpid()) + " " + std::to_string(getuid()) + " " + std::to_string(getgid()));
    EXPECT_EQ(code_of(ask(call_of("t.Unknown", "{}"))), "-32601");
}

TEST_F(Sockets, AnswerOnATcpPort) {
    unsigned port = 0;
    ASSERT_NE(tavrix_service_listen_tcp(stage.service, nullptr, 0, &port), 0U);
    ASSERT_NE(port, 0U);
    const StreamClient client = StreamClient::tcp_port(static_cast<int>(port));
    client.say(call_of("t.Echo", R"({"a":2})"));
    EXPECT_EQ(member(stage.hear(client), "result"), R"({"a":2})");
    EXPECT_EQ(caller, "tcp -1 4294967295 4294967295");
    EXPECT_EQ(tavrix_service_listen_tcp(stage.service, nullptr, port, nullptr), 0U);
    EXPECT_TRUE(log.says("Cannot listen on 127.0.0.1:" + std::to_string(port) +
                         ": Address already in use; is another daemon running there?"));
}

TEST_F(Sockets, TakeARequestThatComesInPieces) {
    const StreamClient client = StreamClient::unix_path("direct.sock");
    for (const char byte : call_of("t.Echo", R"({"brace":"}\"{"})")) {
        client.say(std::string(1, byte));
        stage.step();
    }
    EXPECT_EQ(member(stage.hear(client), "result"), R"({"brace":"}\"{"})");
}

TEST_F(Sockets, TakeARequestOf1024BytesAndNoLongerOne) {
    const size_t rest = call_of("t.Echo", R"({"a":""})").size();
    const std::string longest = call_of("t.Echo", R"({"a":")" + std::string(1024 - rest, 'x') + "\"}");
    ASSERT_EQ(longest.size(), 1024U);
    EXPECT_EQ(member(ask(longest), "id"), "\"t.Echo\"");
    EXPECT_EQ(ask(call_of("t.Echo", R"({"a":")" + std::string(1025 - rest, 'x') + "\"}")), "");
}

TEST_F(Sockets, CloseWithoutAnAnswerWhereTheLibraryDoes) {
    EXPECT_EQ(ask("nonsense"), "");
    EXPECT_EQ(ask("[]"), "");
    EXPECT_EQ(ask(R"({"jsonrpc":"2.0","method":"t.Echo","params":{}})"), "") << "a notification";
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(ask(R"({"jsonrpc":"1.0","method":"t.Echo","id":1})"), "");
}

TEST_F(Sockets, AnswerAClientThatHasShutItsSendingSideDown) {
    const StreamClient client = defer();
    shutdown(client.fd(), SHUT_WR);
    for (int i = 0; i < 5; ++i) {
        stage.step();
    }
    EXPECT_EQ(reply(json_integer(3)), TAVRIX_OK);
    EXPECT_EQ(member(stage.hear(client), "result"), "3");
}

TEST_F(Sockets, AbandonTheCallOfAClientThatGoes) {
    defer().close();
    EXPECT_TRUE(stage.wait([] { return abandoned == 1; }));
    EXPECT_EQ(stage.deferred_call(), nullptr);
}

TEST_F(Sockets, SilentClientsHoldNobodyUpAndMakeRoom) {
    std::vector<StreamClient> silent;
    for (int i = 0; i < TAVRIX_SERVICE_MAX_CLIENTS; ++i) {
        silent.push_back(StreamClient::unix_path("direct.sock"));
        stage.step();
    }
    EXPECT_EQ(member(ask(call_of("t.Echo", "{}")), "result"), "{}");
    EXPECT_EQ(stage.hear(silent.front()), "") << "the one that has been silent for longest was closed";
}

TEST_F(Sockets, LeaveHalfOfThePlacesToOtherUsers) {
    constexpr size_t half = TAVRIX_SERVICE_MAX_CLIENTS / 2;
    unsigned port = 0;
    ASSERT_NE(tavrix_service_listen_tcp(stage.service, nullptr, 0, &port), 0U);
    std::vector<StreamClient> own;
    std::vector<StreamClient> network; // all who come over TCP are one user
    const auto is_closed = [](const StreamClient &client) {
        char byte = '\0';
        return recv(client.fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    };
    while (own.size() < half) {
        own.push_back(StreamClient::unix_path("direct.sock"));
        stage.step();
    }
    EXPECT_FALSE(is_closed(own[0]));
    EXPECT_EQ(member(ask(call_of("t.Echo", "{}")), "result"), "{}");
    EXPECT_TRUE(is_closed(own[0])) << "the one who asked was one too many of his user's, with half of the places free";
    while (network.size() < half) {
        network.push_back(StreamClient::tcp_port(static_cast<int>(port)));
        stage.step();
    }
    EXPECT_FALSE(is_closed(own[1])) << "the network has its own half";
    EXPECT_FALSE(is_closed(network[0]));
    network.push_back(StreamClient::tcp_port(static_cast<int>(port)));
    ASSERT_TRUE(stage.wait([&] { return is_closed(network[0]); }));
    EXPECT_FALSE(is_closed(network[1]));
    EXPECT_FALSE(is_closed(own[1])) << "though he has been silent for longer";
}

/** Lets the time be over that an event waits for this at most; false when none waits so. */
bool let_time_pass(tavrix_service *service, short what) {
    std::pair<short, event *> waiting{what, nullptr};
    event_base_foreach_event(
        tavrix_service_base(service),
        [](const event_base *, const event *candidate, void *user) {
            auto &[wanted, found] = *static_cast<std::pair<short, event *> *>(user);
            if (event_get_fd(candidate) >= 0 && event_pending(candidate, wanted, nullptr) != 0 &&
                event_pending(candidate, EV_TIMEOUT, nullptr) != 0) {
                found = const_cast<event *>(candidate);
            }
            return 0;
        },
        &waiting);
    if (waiting.second != nullptr) {
        event_active(waiting.second, EV_TIMEOUT, 1);
    }
    return waiting.second != nullptr;
}

TEST_F(Sockets, CloseAClientThatSaysNothingInTime) {
    ASSERT_FALSE(let_time_pass(stage.service, EV_READ)) << "the service's own sockets wait for ever";
    const StreamClient client = say(R"({"jsonrpc":"2.0","method":)");
    ASSERT_TRUE(stage.wait([&] { return let_time_pass(stage.service, EV_READ); }));
    EXPECT_EQ(stage.hear(client), "");
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(member(ask(call_of("t.Echo", "{}")), "result"), "{}") << "the others are served as before";
}

TEST_F(Sockets, WaitForAHandlerAsLongAsItsCallerDoes) {
    const StreamClient client = defer();
    EXPECT_FALSE(let_time_pass(stage.service, EV_READ)) << "it has said what it wants";
    reply(json_integer(3));
    EXPECT_EQ(member(stage.hear(client), "result"), "3");
}

TEST_F(Sockets, TellTheClientsOfAServiceThatNeverAnswersSoAtTheDeadline) {
    stage.router.reply_timeout_ms = 50;
    stage.restart_router();
    EXPECT_EQ(code_of(stage.hear(defer())), "-32005") << "no router does";
    EXPECT_EQ(abandoned, 1);
    EXPECT_EQ(stage.deferred_call(), nullptr);
}

TEST_F(Sockets, CloseAClientThatDoesNotReadItsAnswerInTime) {
    const StreamClient client = defer();
    reply(json_string(std::string(long_answer, 'x').c_str()));
    ASSERT_TRUE(let_time_pass(stage.service, EV_WRITE));
    stage.step();
    const std::string heard = stage.hear(client);
    EXPECT_GT(heard.size(), 0U);
    EXPECT_LT(heard.size(), long_answer) << "what had been sent, and no more";
}

TEST_F(Sockets, TakeNoPlaceThatIsServedOrIsNoSocket) {
    write_file("file", "precious");
    EXPECT_EQ(tavrix_service_listen_unix(stage.service, "direct.sock"), 0U);
    EXPECT_EQ(tavrix_service_listen_unix(stage.service, "file"), 0U);
    EXPECT_EQ(tavrix_service_listen_unix(stage.service, std::string(108, 'p').c_str()), 0U);
    EXPECT_TRUE(log.says("Cannot listen on direct.sock: another daemon serves there"));
    EXPECT_TRUE(log.says("Cannot listen on file: there is a file that is not a socket"));
}

TEST_F(Sockets, RemoveTheirFileWhenTheyAreCancelled) {
    EXPECT_EQ(tavrix_service_cancel(stage.service, listener), TAVRIX_OK);
    EXPECT_NE(access("direct.sock", F_OK), 0);
}

TEST_F(Sockets, PullTakesOneWayRequests) {
    const std::string address = free_bus_address();
    ASSERT_NE(tavrix_service_listen_pull(stage.service, address.c_str()), 0U);
    BusSocket push(TAVRIX_SP_PUSH);
    push.connect(address);
    ASSERT_EQ(tavrix_mq_socket_send(push.number, call_of("t.Echo", "{}").c_str()), TAVRIX_OK);
    EXPECT_TRUE(stage.wait([] { return calls == 1; }));
    EXPECT_EQ(caller, "pull -1 4294967295 4294967295");
    EXPECT_EQ(tavrix_service_listen_pull(stage.service, "nowhere"), 0U);
}

TEST_F(Sockets, EndWithTheService) {
    const StreamClient client = defer();
    stage.close();
    EXPECT_EQ(code_of(client.hear()), "-32014");
    EXPECT_NE(access("direct.sock", F_OK), 0);
}

TEST_F(Sockets, TimersRunOnceOrAgainAndAgainUntilTheyAreCancelled) {
    struct Ticks {
        int count = 0;
        uint64_t number = 0;
    } once, often;
    const auto tick = [](tavrix_service *service, void *user) {
        auto *ticks = static_cast<Ticks *>(user);
        if (++ticks->count == 3) {
            EXPECT_EQ(tavrix_service_cancel(service, ticks->number), TAVRIX_OK);
        }
    };
    once.number = tavrix_service_timer(stage.service, 0, 0, tick, &once);
    often.number = tavrix_service_timer(stage.service, 1, 1, tick, &often);
    ASSERT_TRUE(stage.wait([&] { return often.count == 3 && once.count == 1; }));
    EXPECT_EQ(tavrix_service_cancel(stage.service, once.number), TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(tavrix_service_cancel(stage.service, often.number), TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(tavrix_service_timer(stage.service, -1, 0, tick, &once), 0U);
}

} // namespace
