#include "tavrix_mq.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/handles.h"
#include "support/bus.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/repeating.h"
#include "support/signals.h"
#include "tavrix_error.h"

using namespace support;

extern "C" {
void __lsan_disable() __attribute__((weak)); // there in a sanitized build only
void __lsan_enable() __attribute__((weak));
}

namespace {

/**
 * While it lives, what this thread allocates may be lost: nanomsg does not give back the endpoint of an ipc address
 * that it could not bind to. A suppression by the function's name would want a symbolizer, which not every machine has.
 */
class MayLeak {
  public:
    MayLeak() {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
    }
    MayLeak(const MayLeak &) = delete;
    MayLeak &operator=(const MayLeak &) = delete;
    ~MayLeak() {
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
    }
};

constexpr auto attachments = {tavrix_mq_socket_bind, tavrix_mq_socket_connect};

/** A number that no socket has. */
int closed_socket() {
    BusSocket socket(TAVRIX_SP_PAIR);
    const int number = socket.number;
    socket.close();
    return number;
}

/** What is said of a call that nanomsg refuses. */
std::string line(const std::string &before, int number, int reason) {
    return before + " [" + std::to_string(number) + "]: " + nn_strerror(reason);
}
std::string attach_line(const std::string &address, int reason) {
    return "DEBUG|nn_bind failed for SP addr [" + address + "]: " + nn_strerror(reason);
}

int bind_to(int transport, const std::string &address) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -1;
    return tavrix_mq_socket_bind(socket.number, transport, address.c_str(), &endpoint);
}

/** A Unix socket that is bound or connected to the path and never waits; -1 when that fails. */
int unix_socket(const char *path, int (*attach)(int, const sockaddr *, socklen_t)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (attach(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

/** The file of a Unix socket that nobody listens on any more. */
void leave_socket_file(const char *path) { close(unix_socket(path, bind)); }

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
        EXPECT_EQ(tavrix_mq_socket_init(type, &socket), TAVRIX_ERR_VALIDATION);
        EXPECT_EQ(socket, -77) << "untouched on failure";
        EXPECT_TRUE(log.said({"DEBUG|Validating SP type: " + std::to_string(type),
                              "DEBUG|FAIL: SP type outside acceptable range [1, 10]"}));
        EXPECT_EQ(log.lines().front().file, "tavrix_mq");
    }
}

TEST(MqInit, ReportsThatNoSocketIsLeft) {
    const NoBusSocketIsLeft taken;
    int socket = -1;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_init(TAVRIX_SP_PAIR, &socket), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.sequence().back(), "DEBUG|" + line("nn_socket failed for SP type", 1, EMFILE));
}

TEST(MqAddress, HasAtMost128Characters) {
    const std::string longest = "inproc://" + std::string(128 - 9, 'a');
    const std::string too_long = longest + "a";
    // nanomsg's own limit for a name is the same; the library's test comes first.
    EXPECT_EQ(bind_to(1, "inproc://" + std::string(50, 'a')), 0);
    EXPECT_NE(bind_to(1, longest), TAVRIX_ERR_VALIDATION);
    const LogCapture log("debug");
    EXPECT_EQ(bind_to(1, too_long), TAVRIX_ERR_VALIDATION);
    EXPECT_TRUE(log.said({"DEBUG|Validating SP type: 1", "DEBUG|Validating transport type: 1 with sp_addr: " + too_long,
                          "DEBUG|FAIL: SP address is too long [129] v/s max 128"}));
}

std::string ipc_address(size_t length) { return "ipc://" + std::string(length - 6, 'a'); }

/** Binding and connecting to the address are both refused with the one line, and nothing is written. */
void expect_refused(int transport, const std::string &address, int reason) {
    for (const auto attach : attachments) {
        const BusSocket socket(TAVRIX_SP_PAIR);
        int endpoint = -77;
        const LogCapture log("debug");
        EXPECT_EQ(attach(socket.number, transport, address.c_str(), &endpoint), TAVRIX_ERR_GENERAL) << address;
        EXPECT_EQ(endpoint, -77);
        ASSERT_EQ(log.lines().size(), 2U) << "the check's announcement and the failure";
        EXPECT_EQ(log.sequence().back(), attach_line(address, reason));
    }
}

/** An address that is one of an ipc socket, and good, cannot be bound. */
void expect_ipc_bind_to_fail(const std::string &address, int reason) {
    const LogCapture log("debug");
    const MayLeak nanomsg;
    EXPECT_EQ(bind_to(TAVRIX_TRANSPORT_IPC, address), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.sequence().back(), attach_line(address, reason));
}

/** Messages come from one end of an address to the other. */
void expect_passage(int transport, const std::string &address) {
    const BusSocket left(TAVRIX_SP_PAIR);
    const BusSocket right(TAVRIX_SP_PAIR);
    int endpoint = -1;
    ASSERT_EQ(tavrix_mq_socket_bind(left.number, transport, address.c_str(), &endpoint), 0) << address;
    ASSERT_EQ(tavrix_mq_socket_connect(right.number, transport, address.c_str(), &endpoint), 0);
    for (const std::string message : {"hello", ""}) {
        ASSERT_EQ(tavrix_mq_socket_send(right.number, message.c_str()), 0);
        tavrix::Text text;
        int length = -1;
        ASSERT_EQ(tavrix_mq_socket_recv(left.number, into(text), &length, 0), 0);
        EXPECT_EQ(text.get(), message);
        EXPECT_EQ(length, static_cast<int>(message.size()));
    }
}

TEST(MqAddress, OfAnIpcSocketHasTheRoomThatTheSystemHasForIt) {
    expect_passage(TAVRIX_TRANSPORT_IPC, ipc_address(113));
    for (size_t length = 114; length <= 128; ++length) {
        expect_refused(TAVRIX_TRANSPORT_IPC, ipc_address(length), ENAMETOOLONG);
    }
    expect_refused(TAVRIX_TRANSPORT_TCP, "ipc://tcp://" + std::string(102, 'a'), ENAMETOOLONG);
}

TEST(MqAddress, OfAnIpcSocketIsNoFolder) {
    ASSERT_EQ(mkdir("folder", 0755), 0);
    for (const char *address : {"ipc://.", "ipc://..", "ipc:///", "ipc://./", "ipc://folder", "ipc://folder/"}) {
        expect_refused(TAVRIX_TRANSPORT_IPC, address, EISDIR);
    }
}

TEST(MqAddress, OfAnIpcSocketMayBeInAFolderThatIsNotThereYet) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -1;
    EXPECT_EQ(tavrix_mq_socket_connect(socket.number, TAVRIX_TRANSPORT_IPC, "ipc://later/bus.ipc", &endpoint), 0);
}

TEST(MqAddress, OfAnIpcSocketIsTakenOverFromOneThatIsGone) {
    leave_socket_file("left_over.ipc");
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -1;
    EXPECT_EQ(tavrix_mq_socket_connect(socket.number, TAVRIX_TRANSPORT_IPC, "ipc://left_over.ipc", &endpoint), 0);
    EXPECT_EQ(access("left_over.ipc", F_OK), 0) << "a connect leaves it";
    EXPECT_EQ(bind_to(TAVRIX_TRANSPORT_IPC, "ipc://left_over.ipc"), 0);
}

TEST(MqAddress, OfAnIpcSocketCannotBeBoundWhereThereIsNoFolderOrSomethingThatStays) {
    BusSocket first(TAVRIX_SP_PAIR);
    first.bind("ipc://taken.ipc");
    expect_ipc_bind_to_fail("ipc://taken.ipc", EADDRINUSE);
    expect_ipc_bind_to_fail("ipc://later/bus.ipc", ENOENT);
    expect_ipc_bind_to_fail("ipc:///proc/self/status", EPERM); // it cannot be removed
}

TEST(MqAddress, OfAnIpcSocketIsNotTakenFromOneThatIsBusy) {
    const int listener = unix_socket("busy.ipc", bind);
    ASSERT_EQ(listen(listener, 0), 0);
    std::vector<int> waiting; // until no more may wait to be accepted
    while (waiting.empty() || waiting.back() >= 0) {
        waiting.push_back(unix_socket("busy.ipc", connect));
    }
    expect_ipc_bind_to_fail("ipc://busy.ipc", EADDRINUSE);
    EXPECT_EQ(access("busy.ipc", F_OK), 0);
    waiting.back() = listener;
    std::for_each(waiting.begin(), waiting.end(), close);
}

TEST(MqAddress, OfAnIpcSocketIsNotLookedAtForAClosedSocket) {
    leave_socket_file("kept.ipc");
    const int closed = closed_socket();
    int endpoint = -77;
    for (const auto attach : attachments) {
        const LogCapture log("debug");
        EXPECT_EQ(attach(closed, TAVRIX_TRANSPORT_IPC, "ipc://kept.ipc", &endpoint), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.sequence().back(), attach_line("ipc://kept.ipc", EBADF));
    }
    EXPECT_EQ(access("kept.ipc", F_OK), 0) << "nothing is removed for it";
}

TEST(MqAddress, RefusesTransportsOutsideTheirRangeOnceTheLengthIsRight) {
    constexpr char transport_line[] = "DEBUG|FAIL: Transport type outside acceptable range [1, 3]";
    for (const int transport : {0, 4, -1}) {
        const LogCapture log("debug");
        EXPECT_EQ(bind_to(transport, "tcp://127.0.0.1:1"), TAVRIX_ERR_VALIDATION);
        EXPECT_EQ(log.sequence().back(), transport_line);
    }
    const LogCapture log("debug");
    EXPECT_EQ(bind_to(9, std::string(129, 'a')), TAVRIX_ERR_VALIDATION);
    EXPECT_NE(log.sequence().back(), transport_line);
}

TEST(MqAddress, NeedsItsTransportsSchemeAndSaysNothingWithoutIt) {
    for (const auto &[transport, address] :
         {std::pair(2, "tcp://127.0.0.1:1"), {1, "ipc://a"}, {3, "inproc://a"}, {3, "127.0.0.1:1"}, {3, ""}}) {
        const BusSocket socket(TAVRIX_SP_PAIR);
        int endpoint = 0;
        const LogCapture log("verbose");
        EXPECT_EQ(tavrix_mq_socket_connect(socket.number, transport, address, &endpoint), TAVRIX_ERR_VALIDATION);
        EXPECT_EQ(log.sequence().size(), 1U) << "only the line that announces the check";
    }
}

TEST(MqAddress, FindsTheSchemeAnywhere) {
    // The check passes; what nanomsg makes of the address is its own affair.
    expect_refused(TAVRIX_TRANSPORT_TCP, "tcp://nowhere", EINVAL);
    EXPECT_EQ(bind_to(2, "xipc://a"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(bind_to(3, "xipc://tcp://a"), TAVRIX_ERR_GENERAL);
    ASSERT_EQ(mkdir("tcp:", 0755), 0);
    EXPECT_EQ(bind_to(3, "ipc://tcp://a"), 0) << "an ipc socket in the folder tcp:";
}

TEST(MqEndpoint, IsRemovedOnceByItsId) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    int endpoint = -1;
    ASSERT_EQ(tavrix_mq_socket_bind(socket.number, 3, free_bus_address().c_str(), &endpoint), 0);
    EXPECT_EQ(tavrix_mq_socket_shutdown(socket.number, endpoint), 0);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_shutdown(socket.number, endpoint + 1000), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|" + line("nn_shutdown failed for mq_eid", endpoint + 1000, EINVAL)}));
}

TEST(MqMessages, TravelOverAllThreeTransports) {
    expect_passage(TAVRIX_TRANSPORT_INPROC, "inproc://here");
    expect_passage(TAVRIX_TRANSPORT_IPC, "ipc://./pair.ipc");
    expect_passage(TAVRIX_TRANSPORT_TCP, free_bus_address());
}

TEST(MqMessages, AreAnnouncedAtVerboseLevelInTheWordsOfTheWaitingSend) {
    BusPair bus;
    for (const auto send : {tavrix_mq_socket_send, tavrix_mq_socket_send_nonblock}) {
        const LogCapture log("verbose");
        ASSERT_EQ(send(bus.pub.number, "abc"), 0);
        EXPECT_TRUE(log.said(
            {"VERB |[tavrix_mq_socket_send]: message[3]: abc", "VERB |[tavrix_mq_socket_send]: sent: 3 out of 3"}));
        EXPECT_EQ(bus.receive(), "abc");
    }
    const LogCapture log("debug");
    ASSERT_EQ(tavrix_mq_socket_send(bus.pub.number, "abc"), 0);
    EXPECT_EQ(bus.receive(), "abc");
    EXPECT_TRUE(log.silent());
}

TEST(MqMessages, MayHoldAnyBytesOnTheWayIn) {
    BusPair bus;
    const std::string raw("a\0b", 3);
    ASSERT_EQ(nn_send(bus.pub.number, raw.data(), raw.size(), 0), 3);
    EXPECT_EQ(bus.receive(), raw);
}

TEST(MqSend, FailsWhenItMayNotWaitAndNobodyIsThere) {
    const BusSocket lonely(TAVRIX_SP_PAIR);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_send_nonblock(lonely.number, "x"), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|" + line("nn_send failed for mq_socket", lonely.number, EAGAIN)}));
}

/** The status of a receive that brings nothing. */
int receive_nothing(int number, int nonblock = 0) {
    char *text = nullptr;
    int length = -77;
    const int rc = tavrix_mq_socket_recv(number, &text, &length, nonblock);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, -77);
    return rc;
}

TEST(MqReceive, SaysNoMessageAtOnceWhenItMayNotWaitAndElseWhenItsTimeOutRanOut) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    ASSERT_EQ(tavrix_mq_socket_set_timeout(socket.number, 30), 0);
    for (const int nonblock : {1, 0, -1}) {
        const LogCapture log("verbose");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(receive_nothing(socket.number, nonblock), TAVRIX_ERR_MQ_TIMEOUT);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(nonblock == 1 || waited >= std::chrono::milliseconds(29)) << "not before its time";
        const int reason = nonblock == 1 ? EAGAIN : ETIMEDOUT;
        EXPECT_TRUE(log.said({"VERB |" + line("nn_recv no data in mq_socket", socket.number, reason)}));
    }
}

TEST(MqReceive, FailsOnASignalAndDoesNotTryAgain) {
    const BusSocket socket(TAVRIX_SP_PAIR);
    tavrix_mq_socket_set_timeout(socket.number, -1);
    const LogCapture log("debug");
    const Ticking interrupts;
    EXPECT_EQ(receive_nothing(socket.number), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|" + line("nn_recv failed for mq_socket", socket.number, EINTR)}));
}

TEST(MqClose, WarnsWhenTheSocketIsClosedAlready) {
    const int closed = closed_socket();
    const LogCapture log("info");
    EXPECT_EQ(tavrix_mq_socket_close(closed), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"WARN |" + line("nn_close failed for mq_socket", closed, EBADF)}))
        << "unguarded: shown below debug level too";
}

TEST(MqTerminate, DoesNothing) {
    BusPair bus;
    tavrix_mq_socket_terminate();
    bus.publish("still here");
    EXPECT_EQ(bus.receive(), "still here");
}

TEST(MqFreeMsg, ReleasesWhatNanomsgAllocated) { EXPECT_EQ(tavrix_mq_socket_freemsg(nn_allocmsg(10, 0)), 0); }

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

TEST(MqSubscribe, AndUnsubscribeAreRefusedOnOtherSockets) {
    const BusSocket pair(TAVRIX_SP_PAIR);
    const int closed = closed_socket();
    for (const auto call : {tavrix_mq_socket_subscribe, tavrix_mq_socket_unsubscribe}) {
        const LogCapture log("debug");
        EXPECT_EQ(call(pair.number, "x"), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(call(closed, "x"), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(call(-1, "x"), TAVRIX_ERR_GENERAL);
        constexpr char failed[] = "DEBUG|nn_setsockopt failed for mq_socket";
        EXPECT_TRUE(
            log.said({line(failed, pair.number, ENOPROTOOPT), line(failed, closed, EBADF), line(failed, -1, EBADF)}));
    }
}

/** What a subscriber receives up to the frame that ends a round. */
std::vector<std::string> frames_to_the_end(int sub) {
    std::vector<std::string> frames;
    for (std::string frame; frame != "~" && take_frame(sub, &frame);) {
        frames.push_back(frame);
    }
    return frames;
}

/** The characters by which the longer topics go on from one. */
template <class Topics>
std::set<char> branches_of(const std::string &topic, const Topics &topics) {
    std::set<char> branches;
    for (const std::string &other : topics) {
        if (other.size() > topic.size() && other.compare(0, topic.size(), topic) == 0) {
            branches.insert(other[topic.size()]);
        }
    }
    return branches;
}

/** Topics that begin with each other, the empty one among them; from none do the others go on with more than `most`. */
std::vector<std::string> tangled_topics(size_t most) {
    std::vector<std::string> topics;
    for (const std::string base : {"", "a", "cabled", "da far beyond ten characters "}) {
        topics.push_back(base);
        const size_t letters = base.empty() ? most - 1 : most; // beside the frame that ends a round
        for (size_t i = 0; i < letters; ++i) {
            topics.push_back(base + static_cast<char>('a' + i));
            topics.push_back(base + "b" + static_cast<char>('a' + i));
        }
    }
    std::vector<std::string> all = topics;
    all.emplace_back("~");
    size_t widest = 0;
    for (const std::string &topic : all) {
        widest = std::max(widest, branches_of(topic, all).size());
    }
    EXPECT_EQ(widest, most);
    return topics;
}

/**
 * What nanomsg holds when it is used alone. A topic of which the longer ones have come to go on with more than eight
 * characters, or with eight again, is lost.
 */
struct NanomsgTopics {
    std::multiset<std::string> topics;

    /** Without one, nanomsg may be asked to remove anything but this topic. */
    bool has_node(const std::string &topic) const {
        return topics.count(topic) > 0 || branches_of(topic, topics).size() >= 2;
    }
    bool wants(const std::string &frame) const {
        return std::any_of(topics.begin(), topics.end(),
                           [&](const std::string &topic) { return frame.compare(0, topic.size(), topic) == 0; });
    }
    void subscribe(const std::string &topic) {
        const std::multiset<std::string> before = topics;
        topics.insert(topic);
        lose_since(before, topic);
    }
    void unsubscribe(const std::string &topic) {
        const std::multiset<std::string> before = topics;
        if (const auto entry = topics.find(topic); entry != topics.end()) {
            topics.erase(entry);
            lose_since(before, topic);
        }
    }

  private:
    void lose_since(const std::multiset<std::string> &before, const std::string &changed) {
        for (size_t length = 0; length < changed.size(); ++length) {
            const std::string shorter = changed.substr(0, length);
            if ((branches_of(shorter, before).size() > 8) != (branches_of(shorter, topics).size() > 8)) {
                topics.erase(shorter);
            }
        }
    }
};

/** Two subscribers to one publisher, one by the library and one by nanomsg alone. */
struct Twins {
    BusPair ours{"~"};
    BusSocket theirs{TAVRIX_SP_SUB};
    NanomsgTopics known;

    Twins() {
        theirs.connect(ours.address);
        EXPECT_EQ(alone(NN_SUB_SUBSCRIBE, "~"), 0);
        EXPECT_EQ(tavrix_mq_socket_set_timeout(theirs.number, 20000), 0);
        settle(ours.pub.number, theirs.number, "~");
        std::string frame = ours.receive();
        while (frame != "~|settled" && frame != "(nothing)") {
            frame = ours.receive();
        }
        known.subscribe("~");
    }
    int alone(int option, const std::string &topic) const {
        return nn_setsockopt(theirs.number, NN_SUB, option, topic.data(), topic.size());
    }
    void subscribe(const std::string &topic) {
        EXPECT_EQ(tavrix_mq_socket_subscribe(ours.sub.number, topic.c_str()), 0);
        EXPECT_EQ(alone(NN_SUB_SUBSCRIBE, topic), 0);
        known.subscribe(topic);
    }
    void unsubscribe(const std::string &topic) {
        const int rc = tavrix_mq_socket_unsubscribe(ours.sub.number, topic.c_str());
        EXPECT_EQ(rc, known.has_node(topic) ? alone(NN_SUB_UNSUBSCRIBE, topic) : 0) << topic;
        known.unsubscribe(topic);
    }
    void check(const std::vector<std::string> &channels) {
        std::vector<std::string> expected;
        for (const std::string &channel : channels) {
            ours.publish(channel + "|");
            if (known.wants(channel + "|")) {
                expected.push_back(channel + "|");
            }
        }
        ours.publish("~");
        expected.emplace_back("~");
        ASSERT_EQ(frames_to_the_end(ours.sub.number), expected);
        ASSERT_EQ(frames_to_the_end(theirs.number), expected) << "by nanomsg alone";
    }
};

const std::vector<std::string> related_topics = {
    "", "e", "ev", "events", "events.more", "errors", "errands and more of them", "other", "\x01", "\x01\x01", "\x02",
};

TEST(MqUnsubscribe, LeavesTheOtherTopicsAlone) {
    for (const std::string &kept : related_topics) {
        Twins topics;
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

/** "t" and topics that go on from it, up to one character. */
std::vector<std::string> topics_to(char last) {
    std::vector<std::string> topics = {"t"};
    for (char letter = 'a'; letter <= last; ++letter) {
        topics.push_back(std::string("t") + letter);
    }
    return topics;
}

TEST(MqUnsubscribe, SurvivesATopicThatNanomsgHasLostAmongNineLongerOnes) {
    const BusSocket sub(TAVRIX_SP_SUB);
    for (const std::string &topic : topics_to('i')) {
        ASSERT_EQ(tavrix_mq_socket_subscribe(sub.number, topic.c_str()), 0);
    }
    for (char letter = 'a'; letter <= 'i'; ++letter) {
        ASSERT_EQ(tavrix_mq_socket_unsubscribe(sub.number, (std::string("t") + letter).c_str()), 0);
    }
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "t"), TAVRIX_ERR_GENERAL) << "none is left";
    EXPECT_EQ(tavrix_mq_socket_subscribe(sub.number, "t"), 0);
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "t"), 0);
}

TEST(MqUnsubscribe, OfAnAbsentTopicFailsOnASocketWithoutTopicsAndIsSilentBesideOthers) {
    const BusSocket sub(TAVRIX_SP_SUB);
    LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "t"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, ""), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said(Lines(2, "DEBUG|" + line("nn_setsockopt failed for mq_socket", sub.number, EINVAL))));
    ASSERT_EQ(tavrix_mq_socket_subscribe(sub.number, "events"), 0);
    log.begin("verbose");
    for (const char *absent : {"e", "event", "events.more", "other", "eventx"}) {
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, absent), 0) << absent;
    }
    EXPECT_TRUE(log.silent());
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "events"), 0);
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "events"), TAVRIX_ERR_GENERAL);
}

int subscriber_of_the_library() {
    int sock = -1;
    EXPECT_EQ(tavrix_mq_socket_init(TAVRIX_SP_SUB, &sock), 0);
    return sock;
}
int subscriber_of_nanomsg() { return nn_socket(AF_SP, NN_SUB); }

TEST(MqUnsubscribe, KnowsNothingOfASocketThatHadTheNumberBefore) {
    for (const auto close : {tavrix_mq_socket_close, nn_close}) {
        for (const auto open : {subscriber_of_the_library, subscriber_of_nanomsg}) {
            const int before = open();
            ASSERT_EQ(tavrix_mq_socket_subscribe(before, "t"), 0);
            ASSERT_EQ(close(before), 0);
            const int after = open();
            ASSERT_EQ(after, before);
            EXPECT_EQ(tavrix_mq_socket_unsubscribe(after, "t"), TAVRIX_ERR_GENERAL);
            ASSERT_EQ(tavrix_mq_socket_subscribe(after, "t"), 0);
            EXPECT_EQ(tavrix_mq_socket_unsubscribe(after, "t"), 0);
            EXPECT_EQ(tavrix_mq_socket_unsubscribe(after, "t"), TAVRIX_ERR_GENERAL);
            ASSERT_EQ(close(after), 0);
        }
    }
}

TEST(MqUnsubscribe, LeavesATopicThatWasSubscribedPastTheLibrary) {
    BusPair bus("~");
    ASSERT_EQ(nn_setsockopt(bus.sub.number, NN_SUB, NN_SUB_SUBSCRIBE, "t", 1), 0);
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(bus.sub.number, "t"), 0);
    bus.publish("t|1");
    EXPECT_EQ(bus.receive(), "t|1");
}

TEST(MqUnsubscribe, HeedsNoNameThatTheSocketIsGiven) {
    for (const bool named_first : {true, false}) {
        const BusSocket sub(TAVRIX_SP_SUB);
        const auto give_name = [&] { return nn_setsockopt(sub.number, NN_SOL_SOCKET, NN_SOCKET_NAME, "mine", 4); };
        ASSERT_EQ(named_first ? give_name() : 0, 0);
        ASSERT_EQ(tavrix_mq_socket_subscribe(sub.number, "t"), 0);
        ASSERT_EQ(named_first ? 0 : give_name(), 0);
        ASSERT_EQ(tavrix_mq_socket_subscribe(sub.number, "u"), 0);
        char name[64] = "";
        size_t size = sizeof name;
        ASSERT_EQ(nn_getsockopt(sub.number, NN_SOL_SOCKET, NN_SOCKET_NAME, name, &size), 0);
        EXPECT_STREQ(name, "mine");
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "t"), 0);
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub.number, "u"), 0);
    }
}

TEST(MqUnsubscribe, KeepsTheTopicsOfManySocketsApart) {
    const LogCapture quiet("off");
    std::vector<std::unique_ptr<BusSocket>> sockets;
    while (sockets.size() < 200) {
        sockets.push_back(std::make_unique<BusSocket>(TAVRIX_SP_SUB));
        for (const std::string &topic : topics_to('h')) {
            ASSERT_EQ(tavrix_mq_socket_subscribe(sockets.back()->number, topic.c_str()), 0);
        }
    }
    for (int i = 0; i < 100; ++i) {
        const BusSocket other(TAVRIX_SP_SUB);
        ASSERT_EQ(tavrix_mq_socket_subscribe(other.number, "ti"), 0);
        sockets[static_cast<size_t>(i)]->close(); // and the next one has its number
    }
    for (const auto &sub : sockets) {
        const int expected = sub->number >= 0 ? 0 : TAVRIX_ERR_GENERAL;
        std::vector<std::string> topics = topics_to('h');
        if (sub->number % 2 == 0) { // the one that all others begin with goes first, or last
            std::reverse(topics.begin(), topics.end());
        }
        for (const std::string &topic : topics) {
            EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub->number, topic.c_str()), expected) << sub->number;
        }
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(sub->number, "t"), TAVRIX_ERR_GENERAL) << sub->number;
    }
}

TEST(MqUnsubscribe, MayBeCalledByManyThreadsOnTheirSocketsAndOnOne) {
    const LogCapture quiet("off");
    BusPair bus("~");
    std::atomic<int> refused{0};
    on_threads(4, [&](int me) {
        const std::string topic = std::string("t") + static_cast<char>('a' + me);
        const BusSocket own(TAVRIX_SP_SUB);
        for (int round = 0; round < 2000; ++round) {
            for (const int sock : {bus.sub.number, own.number}) {
                refused += tavrix_mq_socket_subscribe(sock, topic.c_str()) != 0 ? 1 : 0;
                refused += tavrix_mq_socket_subscribe(sock, "t") != 0 ? 1 : 0;
                refused += tavrix_mq_socket_unsubscribe(sock, topic.c_str()) != 0 ? 1 : 0;
                refused += tavrix_mq_socket_unsubscribe(sock, "t") != 0 ? 1 : 0;
            }
        }
    });
    EXPECT_EQ(refused, 0);
    for (const char *frame : {"t|", "ta|", "tb|", "tc|", "td|", "~"}) {
        bus.publish(frame);
    }
    EXPECT_EQ(bus.receive(), "~") << "as often as a topic was added it was taken away";
}

constexpr unsigned walk_seed = 20261121;
constexpr int walk_rounds = 10000;
constexpr int rounds_of_a_socket = 500; ///< then a new one begins with nothing

/** The choices of a random walk over topics; sometimes more come than go, sometimes more go than come. */
class Walk {
  public:
    explicit Walk(std::vector<std::string> topics) : topics_(std::move(topics)) {}

    void next_round(int round) {
        if (round % 100 == 0) {
            coming_ = 2 + random_() % 6;
        }
    }
    const std::string &topic() { return topics_[random_() % topics_.size()]; }
    bool comes() { return random_() % 10 < coming_; }
    std::vector<std::string> channels() { return {topic(), topic(), topic() + "b", topic() + "z"}; }

  private:
    std::vector<std::string> topics_;
    std::minstd_rand random_{walk_seed};
    unsigned long coming_ = 5;
};

TEST(MqUnsubscribe, KeepsToPrefixesAndToNanomsgAloneThroughARandomWalk) {
    const LogCapture quiet("off");
    for (const size_t most : {7U, 12U}) { // with seven nothing is ever lost, and what counts are the prefixes alone
        Walk walk(tangled_topics(most));
        std::unique_ptr<Twins> twins;
        for (int round = 0; round < walk_rounds && !HasFailure(); ++round) {
            SCOPED_TRACE("seed " + std::to_string(walk_seed) + ", round " + std::to_string(round));
            if (round % rounds_of_a_socket == 0) {
                twins = std::make_unique<Twins>();
            }
            walk.next_round(round);
            if (walk.comes()) {
                twins->subscribe(walk.topic());
            } else {
                twins->unsubscribe(walk.topic());
            }
            twins->check(walk.channels());
        }
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

TEST(MqSockets, SayThatTheyAreClosed) {
    const int closed = closed_socket();
    int out = -77;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_mq_socket_send(closed, "x"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(receive_nothing(closed), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_mq_socket_set_timeout(closed, 5), TAVRIX_ERR_GENERAL);
    for (const auto read : {tavrix_mq_socket_recvfd, tavrix_mq_socket_sendfd, tavrix_mq_socket_get_timeout}) {
        EXPECT_EQ(read(closed, &out), TAVRIX_ERR_GENERAL);
    }
    EXPECT_EQ(out, -77);
    Lines expected;
    for (const std::string function : {"send", "recv", "setsockopt", "getsockopt", "getsockopt", "getsockopt"}) {
        expected.push_back("DEBUG|" + line("nn_" + function + " failed for mq_socket", closed, EBADF));
    }
    EXPECT_TRUE(log.said(expected));
}

TEST(MqSockets, RefuseNullBeforeTheyLookAtAnythingElse) {
    const Statuses one(1, TAVRIX_ERR_NULL_INPUT);
    const Statuses two(2, TAVRIX_ERR_NULL_INPUT);
    constexpr int no_socket = -1;
    char *text = nullptr;
    int number = -77;
    const LogCapture log("debug");
    EXPECT_EQ(with_each_null(tavrix_mq_socket_init, 0, &number), one);
    EXPECT_EQ(with_each_null(tavrix_mq_socket_bind, no_socket, 3, "tcp://127.0.0.1:1", &number), two);
    EXPECT_EQ(with_each_null(tavrix_mq_socket_connect, no_socket, 3, "tcp://127.0.0.1:1", &number), two);
    EXPECT_EQ(with_each_null(tavrix_mq_socket_send, no_socket, "x"), one);
    EXPECT_EQ(with_each_null(tavrix_mq_socket_send_nonblock, no_socket, "x"), one);
    EXPECT_EQ(with_each_null(tavrix_mq_socket_recv, no_socket, &text, &number, 1), two);
    EXPECT_EQ(tavrix_mq_socket_freemsg(nullptr), TAVRIX_ERR_NULL_INPUT);
    for (const auto read : {tavrix_mq_socket_recvfd, tavrix_mq_socket_sendfd, tavrix_mq_socket_get_timeout}) {
        EXPECT_EQ(with_each_null(read, no_socket, &number), one);
    }
    EXPECT_EQ(with_each_null(tavrix_mq_socket_subscribe, no_socket, "x"), one);
    EXPECT_EQ(with_each_null(tavrix_mq_socket_unsubscribe, no_socket, "x"), one);
    EXPECT_TRUE(log.said(Lines(15, "DEBUG|NULL pointer!")));
    EXPECT_EQ(number, -77);
}

} // namespace
