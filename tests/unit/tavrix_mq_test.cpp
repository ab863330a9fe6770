#include "tavrix_mq.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nanomsg/nn.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "support/bus.h"
#include "support/log_capture.h"

using support::BusPair;
using support::BusSocket;
using support::free_bus_address;
using support::LogCapture;

namespace {

constexpr char unit[] = "tavrix_mq";
constexpr char null_line[] = "NULL pointer!\n";

/** A number that no socket has. */
int closed_socket() {
    BusSocket socket(TAVRIX_SP_PAIR);
    const int number = socket.number;
    socket.close();
    return number;
}

std::string line(const std::string &before, int number, int reason) {
    return before + " [" + std::to_string(number) + "]: " + nn_strerror(reason) + "\n";
}

int bind_to(int transport, const std::string &address) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -1;
    return tavrix_mq_socket_bind(socket.number, transport, address.c_str(), &endpoint);
}

} // namespace

TEST(MqInit, MapsEveryTypeToItsProtocol) {
    const int protocols[] = {16, 49, 48, 32, 33, 81, 80, 98, 99, 112};
    for (int type = 1; type <= 10; ++type) {
        const BusSocket socket(type);
        int protocol = 0;
        size_t size = sizeof protocol;
        ASSERT_EQ(nn_getsockopt(socket.number, NN_SOL_SOCKET, NN_PROTOCOL, &protocol, &size), 0);
        EXPECT_EQ(protocol, protocols[type - 1]) << type;
    }
}

TEST(MqInit, RefusesTypesOutsideItsRange) {
    for (const int type : {0, 11, -1, 1000}) {
        const LogCapture log("debug");
        int socket = -77;
        EXPECT_EQ(tavrix_mq_socket_init(type, &socket), -34);
        EXPECT_EQ(socket, -77) << "untouched on failure";
        EXPECT_EQ(log.sequence(), (std::vector<std::string>{"DEBUG|Validating SP type: " + std::to_string(type),
                                                            "DEBUG|FAIL: SP type outside acceptable range [1, 10]"}));
        EXPECT_EQ(log.lines().front().file, unit);
    }
}

TEST(MqInit, RefusesANullPlaceBeforeItLooksAtTheType) {
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_init(0, nullptr), -20);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"DEBUG|NULL pointer!"});
}

TEST(MqInit, ReportsThatNoSocketIsLeft) {
    std::vector<int> sockets;
    int socket = -1;
    LogCapture log("debug");
    while (tavrix_mq_socket_init(TAVRIX_SP_PAIR, &socket) == 0) {
        sockets.push_back(socket);
    }
    EXPECT_EQ(log.last(), support::whole(support::debug, line("nn_socket failed for SP type", 1, EMFILE)));
    for (const int number : sockets) {
        tavrix_mq_socket_close(number);
    }
}

TEST(MqAddress, IsRefusedWhenNull) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -77;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_bind(socket.number, 3, nullptr, &endpoint), -20);
    EXPECT_EQ(tavrix_mq_socket_bind(socket.number, 3, "tcp://127.0.0.1:1", nullptr), -20);
    EXPECT_EQ(tavrix_mq_socket_connect(socket.number, 3, nullptr, &endpoint), -20);
    EXPECT_EQ(tavrix_mq_socket_connect(socket.number, 3, "tcp://127.0.0.1:1", nullptr), -20);
    EXPECT_EQ(log.count(support::debug, unit, null_line), 4);
    EXPECT_EQ(endpoint, -77);
}

TEST(MqAddress, HasAtMost128Characters) {
    const std::string longest = "inproc://" + std::string(128 - 9, 'a');
    const std::string too_long = longest + "a";
    // nanomsg's own limit for a name is the same; the library's test comes first.
    EXPECT_EQ(bind_to(1, "inproc://" + std::string(50, 'a')), 0);
    LogCapture log("debug");
    EXPECT_NE(bind_to(1, longest), -34);
    EXPECT_FALSE(log.has(support::debug, unit, "FAIL: SP address is too long [128] v/s max 128\n"));
    EXPECT_EQ(bind_to(1, too_long), -34);
    EXPECT_TRUE(log.has(support::debug, unit, "FAIL: SP address is too long [129] v/s max 128\n"));
    EXPECT_TRUE(log.has(support::debug, unit, "Validating transport type: 1 with sp_addr: " + too_long + "\n"));
}

TEST(MqAddress, LengthIsCheckedBeforeTheTransport) {
    const LogCapture log("debug");
    EXPECT_EQ(bind_to(9, std::string(129, 'a')), -34);
    EXPECT_FALSE(log.has(support::debug, unit, "FAIL: Transport type outside acceptable range [1, 3]\n"));
}

TEST(MqAddress, RefusesTransportsOutsideTheirRange) {
    for (const int transport : {0, 4, -1}) {
        const LogCapture log("debug");
        EXPECT_EQ(bind_to(transport, "tcp://127.0.0.1:1"), -34);
        EXPECT_TRUE(log.has(support::debug, unit, "FAIL: Transport type outside acceptable range [1, 3]\n"));
    }
}

TEST(MqAddress, NeedsItsTransportsSchemeAndSaysNothingWithoutIt) {
    const struct {
        int transport;
        const char *address;
    } rows[] = {{2, "tcp://127.0.0.1:1"}, {1, "ipc://a"}, {3, "inproc://a"}, {3, "127.0.0.1:1"}, {3, ""}};
    for (const auto &row : rows) {
        BusSocket socket(TAVRIX_SP_PAIR);
        int endpoint = 0;
        const LogCapture log("verbose");
        EXPECT_EQ(tavrix_mq_socket_connect(socket.number, row.transport, row.address, &endpoint), -34);
        EXPECT_EQ(log.sequence().size(), 1U) << "only the line that announces the check";
    }
}

TEST(MqAddress, FindsTheSchemeAnywhere) {
    // The check passes; what nanomsg makes of the address is its own affair.
    EXPECT_EQ(bind_to(2, "xipc://a"), -1);
    EXPECT_EQ(bind_to(3, "xipc://tcp://a"), -1);
    ASSERT_EQ(mkdir("tcp:", 0755), 0);
    EXPECT_EQ(bind_to(3, "ipc://tcp://a"), 0) << "an ipc socket in the folder tcp:";
}

TEST(MqEndpoint, ReportsARefusedBindAndARefusedConnectInTheSameWords) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -77;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_bind(socket.number, 3, "tcp://nowhere", &endpoint), -1);
    EXPECT_EQ(tavrix_mq_socket_connect(socket.number, 3, "tcp://nowhere", &endpoint), -1);
    EXPECT_EQ(endpoint, -77);
    const std::string words = std::string("nn_bind failed for SP addr [tcp://nowhere]: ") + nn_strerror(EINVAL) + "\n";
    EXPECT_EQ(log.count(support::debug, unit, words), 2);
}

TEST(MqEndpoint, IsRemovedOnceByItsId) {
    BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -1;
    ASSERT_EQ(tavrix_mq_socket_bind(socket.number, 3, free_bus_address().c_str(), &endpoint), 0);
    EXPECT_EQ(tavrix_mq_socket_shutdown(socket.number, endpoint), 0);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_shutdown(socket.number, endpoint + 1000), -1);
    EXPECT_EQ(log.first(),
              support::whole(support::debug, line("nn_shutdown failed for mq_eid", endpoint + 1000, EINVAL)));
}

TEST(MqMessages, TravelOverAllThreeTransports) {
    const struct {
        int transport;
        std::string address;
    } rows[] = {{1, "inproc://here"}, {2, "ipc://./pair.ipc"}, {3, free_bus_address()}};
    for (const auto &row : rows) {
        BusSocket left(TAVRIX_SP_PAIR);
        BusSocket right(TAVRIX_SP_PAIR);
        int endpoint = -1;
        ASSERT_EQ(tavrix_mq_socket_bind(left.number, row.transport, row.address.c_str(), &endpoint), 0) << row.address;
        ASSERT_EQ(tavrix_mq_socket_connect(right.number, row.transport, row.address.c_str(), &endpoint), 0);
        ASSERT_EQ(tavrix_mq_socket_send(right.number, "hello"), 0);
        char *text = nullptr;
        int length = 0;
        ASSERT_EQ(tavrix_mq_socket_recv(left.number, &text, &length, 0), 0);
        EXPECT_STREQ(text, "hello");
        EXPECT_EQ(length, 5);
        free(text);
    }
}

TEST(MqMessages, AreAnnouncedAtVerboseLevelInTheWordsOfTheWaitingSend) {
    BusPair bus;
    for (const auto send : {tavrix_mq_socket_send, tavrix_mq_socket_send_nonblock}) {
        const LogCapture log("verbose");
        ASSERT_EQ(send(bus.pub.number, "abc"), 0);
        EXPECT_EQ(log.sequence(), (std::vector<std::string>{"VERB |[tavrix_mq_socket_send]: message[3]: abc",
                                                            "VERB |[tavrix_mq_socket_send]: sent: 3 out of 3"}));
        EXPECT_EQ(bus.receive(), "abc");
    }
    const LogCapture log("debug");
    ASSERT_EQ(tavrix_mq_socket_send(bus.pub.number, "abc"), 0);
    EXPECT_EQ(bus.receive(), "abc");
    EXPECT_TRUE(log.silent());
}

TEST(MqMessages, MayBeEmpty) {
    BusPair bus;
    ASSERT_EQ(tavrix_mq_socket_send(bus.pub.number, ""), 0);
    char *text = nullptr;
    int length = -1;
    ASSERT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), 0);
    EXPECT_EQ(length, 0);
    EXPECT_STREQ(text, "");
    free(text);
}

TEST(MqMessages, MayHoldAnyBytesOnTheWayIn) {
    BusPair bus;
    const std::string raw("a\0b", 3);
    ASSERT_EQ(nn_send(bus.pub.number, raw.data(), raw.size(), 0), 3);
    EXPECT_EQ(bus.receive(), raw);
}

TEST(MqSend, RefusesANullText) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_send(socket.number, nullptr), -20);
    EXPECT_EQ(tavrix_mq_socket_send_nonblock(socket.number, nullptr), -20);
    EXPECT_EQ(log.count(support::debug, unit, null_line), 2);
}

TEST(MqSend, FailsWhenItMayNotWaitAndNobodyIsThere) {
    const BusSocket lonely(TAVRIX_SP_PAIR);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_send_nonblock(lonely.number, "x"), -1);
    EXPECT_EQ(log.first(), support::whole(support::debug, line("nn_send failed for mq_socket", lonely.number, EAGAIN)));
}

TEST(MqSend, ReportsASocketThatIsClosed) {
    const int closed = closed_socket();
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_send(closed, "x"), -1);
    EXPECT_EQ(log.first(), support::whole(support::debug, line("nn_send failed for mq_socket", closed, EBADF)));
}

TEST(MqReceive, RefusesNullPlaces) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_recv(socket.number, nullptr, &length, 1), -20);
    EXPECT_EQ(tavrix_mq_socket_recv(socket.number, &text, nullptr, 1), -20);
    EXPECT_EQ(log.count(support::debug, unit, null_line), 2);
}

TEST(MqReceive, SaysNoMessageAtOnceWhenItMayNotWait) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    char *text = nullptr;
    int length = -77;
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_mq_socket_recv(socket.number, &text, &length, 1), -46);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, -77);
    EXPECT_EQ(log.first(),
              support::whole(support::verbose, line("nn_recv no data in mq_socket", socket.number, EAGAIN)));
}

TEST(MqReceive, SaysNoMessageWhenItsTimeOutRanOut) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    ASSERT_EQ(tavrix_mq_socket_set_timeout(socket.number, 30), 0);
    char *text = nullptr;
    int length = 0;
    for (const int nonblock : {0, -1}) {
        const LogCapture log("verbose");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(tavrix_mq_socket_recv(socket.number, &text, &length, nonblock), -46);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29)) << "not before its time";
        EXPECT_EQ(log.first(),
                  support::whole(support::verbose, line("nn_recv no data in mq_socket", socket.number, ETIMEDOUT)));
    }
}

TEST(MqReceive, ReportsASocketThatIsClosed) {
    const int closed = closed_socket();
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_recv(closed, &text, &length, 0), -1);
    EXPECT_EQ(log.first(), support::whole(support::debug, line("nn_recv failed for mq_socket", closed, EBADF)));
}

TEST(MqReceive, FailsOnASignalAndDoesNotTryAgain) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    itimerval ticking{};
    ticking.it_value.tv_usec = 20000;
    ticking.it_interval.tv_usec = 20000;
    const BusSocket socket(TAVRIX_SP_PAIR);
    tavrix_mq_socket_set_timeout(socket.number, -1);
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    setitimer(ITIMER_REAL, &ticking, nullptr);
    EXPECT_EQ(tavrix_mq_socket_recv(socket.number, &text, &length, 0), -1);
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(log.first(), support::whole(support::debug, line("nn_recv failed for mq_socket", socket.number, EINTR)));
}

TEST(MqClose, WarnsWhenTheSocketIsClosedAlready) {
    BusSocket socket(TAVRIX_SP_PAIR);
    const int number = std::exchange(socket.number, -1);
    EXPECT_EQ(tavrix_mq_socket_close(number), 0);
    const LogCapture log("info");
    EXPECT_EQ(tavrix_mq_socket_close(number), -1);
    ASSERT_EQ(log.lines().size(), 1U) << "unguarded: shown below debug level too";
    EXPECT_EQ(log.first(), support::whole(support::warning, line("nn_close failed for mq_socket", number, EBADF)));
}

TEST(MqTerminate, DoesNothing) {
    BusPair bus;
    tavrix_mq_socket_terminate();
    bus.publish("still here");
    EXPECT_EQ(bus.receive(), "still here");
}

TEST(MqFreeMsg, ReleasesWhatNanomsgAllocated) {
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_freemsg(nn_allocmsg(10, 0)), 0);
    EXPECT_EQ(tavrix_mq_socket_freemsg(nullptr), -20);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"DEBUG|NULL pointer!"});
}

TEST(MqDescriptors, BecomeReadableWhenThereIsWork) {
    BusPair bus;
    int receive_fd = -1;
    ASSERT_EQ(tavrix_mq_socket_recvfd(bus.sub.number, &receive_fd), 0);
    pollfd state{receive_fd, POLLIN, 0};
    EXPECT_EQ(poll(&state, 1, 0), 0);
    bus.publish("x");
    EXPECT_EQ(poll(&state, 1, 5000), 1);
    EXPECT_EQ(bus.receive(), "x");
    int send_fd = -1;
    ASSERT_EQ(tavrix_mq_socket_sendfd(bus.pub.number, &send_fd), 0);
    state.fd = send_fd;
    EXPECT_EQ(poll(&state, 1, 5000), 1);
}

TEST(MqDescriptors, AreRefusedForNullPlacesAndClosedSockets) {
    const int closed = closed_socket();
    for (const auto read : {tavrix_mq_socket_recvfd, tavrix_mq_socket_sendfd, tavrix_mq_socket_get_timeout}) {
        const LogCapture log("debug");
        EXPECT_EQ(read(closed, nullptr), -20);
        int out = -77;
        EXPECT_EQ(read(closed, &out), -1);
        EXPECT_EQ(out, -77);
        EXPECT_EQ(log.first(), support::whole(support::debug, null_line));
        EXPECT_EQ(log.lines().at(1).message, line("nn_getsockopt failed for mq_socket", closed, EBADF));
    }
}

TEST(MqSubscribe, FiltersByPrefix) {
    BusPair bus("events");
    bus.publish("other|1");
    bus.publish("event|2");
    bus.publish("events|3");
    bus.publish("events.more|4");
    EXPECT_EQ(bus.receive(), "events|3");
    EXPECT_EQ(bus.receive(), "events.more|4");
    ASSERT_EQ(tavrix_mq_socket_subscribe(bus.sub.number, "other"), 0);
    ASSERT_EQ(tavrix_mq_socket_unsubscribe(bus.sub.number, "events"), 0);
    bus.publish("events|5");
    bus.publish("other|6");
    EXPECT_EQ(bus.receive(), "other|6");
}

TEST(MqSubscribe, IsRefusedForNullTopicsAndOtherSockets) {
    const BusSocket sub(TAVRIX_SP_SUB);
    const BusSocket pair(TAVRIX_SP_PAIR);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_subscribe(sub.number, nullptr), -20);
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, nullptr), -20);
    EXPECT_EQ(log.count(support::debug, unit, null_line), 2);
    EXPECT_EQ(tavrix_mq_socket_subscribe(pair.number, "x"), -1);
    EXPECT_EQ(log.last(),
              support::whole(support::debug, line("nn_setsockopt failed for mq_socket", pair.number, ENOPROTOOPT)));
}

namespace {

/** The topics of one socket as the bus counts them, beside the socket itself. */
struct Topics {
    BusPair bus{"~"}; ///< always subscribed: its frame ends a round
    std::map<std::string, int> counts;

    void subscribe(const std::string &topic) {
        ASSERT_EQ(tavrix_mq_socket_subscribe(bus.sub.number, topic.c_str()), 0);
        ++counts[topic];
    }
    /** nanomsg does not always say that a topic is not there. */
    void unsubscribe(const std::string &topic) {
        const int rc = tavrix_mq_socket_unsubscribe(bus.sub.number, topic.c_str());
        if (counts[topic] > 0) {
            EXPECT_EQ(rc, 0) << topic;
            --counts[topic];
        }
    }
    bool wants(const std::string &frame) const {
        return std::any_of(counts.begin(), counts.end(), [&](const auto &topic) {
            return topic.second > 0 && frame.compare(0, topic.first.size(), topic.first) == 0;
        });
    }
    /** Publishes a frame on each of the channels and compares what arrives. */
    void check(const std::vector<std::string> &channels) {
        std::vector<std::string> expected;
        for (const std::string &channel : channels) {
            const std::string frame = channel + "|{\"jsonrpc\":\"2.0\",\"method\":\"x\"}";
            bus.publish(frame);
            if (wants(frame)) {
                expected.push_back(frame);
            }
        }
        bus.publish("~");
        std::vector<std::string> arrived;
        for (std::string frame = bus.receive(); frame != "~" && frame != "(nothing)"; frame = bus.receive()) {
            arrived.push_back(frame);
        }
        ASSERT_EQ(arrived, expected);
    }
};

const std::vector<std::string> related_topics = {
    "", "e", "ev", "events", "events.more", "errors", "errands and more of them", "other", "\x01", "\x01\x01", "\x02",
};

} // namespace

TEST(MqUnsubscribe, LeavesTheOtherTopicsAlone) {
    for (const std::string &kept : related_topics) {
        Topics topics;
        topics.subscribe(kept);
        for (const std::string &never : related_topics) {
            if (never != kept) {
                topics.unsubscribe(never);
            }
        }
        topics.check(related_topics);
    }
}

TEST(MqUnsubscribe, SurvivesATopicThatIsNotThere) {
    for (const std::string &topic : related_topics) {
        const BusSocket fresh(TAVRIX_SP_SUB);
        tavrix_mq_socket_unsubscribe(fresh.number, topic.c_str());
        EXPECT_EQ(tavrix_mq_socket_subscribe(fresh.number, topic.c_str()), 0);
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(fresh.number, topic.c_str()), 0);
        tavrix_mq_socket_unsubscribe(fresh.number, topic.c_str());
        EXPECT_EQ(tavrix_mq_socket_subscribe(fresh.number, topic.c_str()), 0);
    }
}

TEST(MqUnsubscribe, IsRefusedOnOtherSockets) {
    const BusSocket pair(TAVRIX_SP_PAIR);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(pair.number, "x"), -1);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.first(),
              support::whole(support::debug, line("nn_setsockopt failed for mq_socket", pair.number, ENOPROTOOPT)));
}

TEST(MqUnsubscribe, KeepsCountThroughARandomWalk) {
    std::minstd_rand random(20261121);
    Topics topics;
    for (int step = 0; step < 400; ++step) {
        const std::string &topic = related_topics[random() % related_topics.size()];
        if (random() % 2 == 0) {
            topics.subscribe(topic);
        } else {
            topics.unsubscribe(topic);
        }
        topics.check(related_topics);
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
}

TEST(MqTimeout, IsReadBackAsItWasSet) {
    const BusSocket socket(TAVRIX_SP_SUB);
    int ms = 0;
    ASSERT_EQ(tavrix_mq_socket_get_timeout(socket.number, &ms), 0);
    EXPECT_EQ(ms, -1) << "a new socket waits for ever";
    for (const int wanted : {1000, 0, -1}) {
        EXPECT_EQ(tavrix_mq_socket_set_timeout(socket.number, wanted), 0);
        EXPECT_EQ(tavrix_mq_socket_get_timeout(socket.number, &ms), 0);
        EXPECT_EQ(ms, wanted);
    }
}

TEST(MqTimeout, CannotBeSetOnAClosedSocket) {
    const int closed = closed_socket();
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_set_timeout(closed, 5), -1);
    EXPECT_EQ(log.first(), support::whole(support::debug, line("nn_setsockopt failed for mq_socket", closed, EBADF)));
}
