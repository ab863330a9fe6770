/*
 * What the bus sockets do when nanomsg or memory refuses.
 */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <nanomsg/nn.h>

#include "support/bus.h"
#include "support/log_capture.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"

using support::BusPair;
using support::LogCapture;

namespace {

std::string failing;
std::atomic<int> blocks{0}; ///< in use of this program's own objects, the library's among them

bool fails(const char *name) {
    if (failing != name) {
        return false;
    }
    failing.clear();
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void __real_free(void *memory);
void *__real_nn_allocmsg(size_t size, int type);
int __real_nn_freemsg(void *msg);

void *__wrap_malloc(size_t size) {
    void *memory = fails("malloc") ? nullptr : __real_malloc(size);
    blocks += memory != nullptr ? 1 : 0;
    return memory;
}
void __wrap_free(void *memory) {
    blocks -= memory != nullptr ? 1 : 0;
    __real_free(memory);
}
void *__wrap_nn_allocmsg(size_t size, int type) {
    return fails("nn_allocmsg") ? nullptr : __real_nn_allocmsg(size, type);
}
int __wrap_nn_freemsg(void *msg) {
    const bool failed = fails("nn_freemsg");
    const int rc = __real_nn_freemsg(msg); // released all the same: only the report fails
    if (failed) {
        errno = ENOMEM;
    }
    return failed ? -1 : rc;
}
}

TEST(MqFailures, OfAMessagesAllocationAreReported) {
    BusPair bus;
    const LogCapture log("debug");
    for (const auto send : {tavrix_mq_socket_send, tavrix_mq_socket_send_nonblock}) {
        failing = "nn_allocmsg";
        EXPECT_EQ(send(bus.pub.number, "x"), -1);
    }
    EXPECT_EQ(
        log.count(support::debug, "tavrix_mq",
                  std::string("nn_allocmsg failed to allocate buffer for message: ") + nn_strerror(ENOMEM) + "\n"),
        2);
}

TEST(MqFailures, OfASubscriptionLeaveTheTopicOut) {
    BusPair bus("~");
    const LogCapture log("debug");
    failing = "malloc";
    EXPECT_EQ(tavrix_mq_socket_subscribe(bus.sub.number, "events"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(support::debug, "tavrix_mq",
                        "nn_setsockopt failed for mq_socket [" + std::to_string(bus.sub.number) +
                            "]: " + nn_strerror(ENOMEM) + "\n"),
              1);
    bus.publish("events|1");
    bus.publish("~|2");
    EXPECT_EQ(bus.receive(), "~|2");
}

TEST(MqFailures, CannotHitAnUnsubscription) {
    BusPair bus("~");
    ASSERT_EQ(tavrix_mq_socket_subscribe(bus.sub.number, "events"), 0);
    failing = "malloc";
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(bus.sub.number, "events"), 0);
    EXPECT_EQ(failing, "malloc") << "none was needed";
    failing.clear();
    bus.publish("events|1");
    bus.publish("~|2");
    EXPECT_EQ(bus.receive(), "~|2");
}

namespace {

/** Subscribes to topics of which each begins with the one before, the last of them twice. */
void subscribe_to_three(int sock) {
    for (const char *topic : {"", "a", "ab", "ab"}) {
        EXPECT_EQ(tavrix_mq_socket_subscribe(sock, topic), 0);
    }
}

} // namespace

TEST(MqTopics, AreGivenBackOneByOne) {
    const support::BusSocket sub(TAVRIX_SP_SUB);
    const int before = blocks;
    subscribe_to_three(sub.number);
    EXPECT_EQ(blocks, before + 3);
    for (const char *topic : {"a", "", "ab", "ab", "never"}) {
        tavrix_mq_socket_unsubscribe(sub.number, topic);
    }
    EXPECT_EQ(blocks, before);
}

TEST(MqTopics, AreGivenBackAtClose) {
    const int before = blocks;
    support::BusSocket sub(TAVRIX_SP_SUB);
    support::BusSocket other(TAVRIX_SP_SUB);
    subscribe_to_three(other.number);
    subscribe_to_three(sub.number);
    sub.close();
    EXPECT_EQ(blocks, before + 3) << "the other's";
    other.close();
    EXPECT_EQ(blocks, before);
}

TEST(MqTopics, OfASocketClosedPastTheLibraryAreGivenBackWithTheNextOfItsNumber) {
    const int before = blocks;
    support::BusSocket sub(TAVRIX_SP_SUB);
    subscribe_to_three(sub.number);
    ASSERT_EQ(nn_close(sub.number), 0);
    support::BusSocket next(TAVRIX_SP_SUB);
    ASSERT_EQ(next.number, sub.number);
    sub.number = -1;
    EXPECT_EQ(tavrix_mq_socket_subscribe(next.number, "a"), 0);
    EXPECT_EQ(blocks, before + 1);
    next.close();
    EXPECT_EQ(blocks, before);
}

TEST(MqFailures, OfTheReceivedCopyLoseNothingElse) {
    BusPair bus;
    bus.publish("lost");
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    failing = "malloc";
    EXPECT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(log.has(support::debug, "tavrix_mq",
                        std::string("nn_recv failed for mq_socket [") + std::to_string(bus.sub.number) +
                            "]: " + nn_strerror(ENOMEM) + "\n"));
    bus.publish("next");
    EXPECT_EQ(bus.receive(), "next");
}

TEST(MqFailures, OfAReleaseAreReported) {
    BusPair bus;
    const LogCapture log("debug");
    bus.publish("x");
    char *text = nullptr;
    int length = 0;
    failing = "nn_freemsg";
    EXPECT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(log.has(support::debug, "tavrix_mq",
                        std::string("nn_freemsg failed to free received message: ") + nn_strerror(ENOMEM) + "\n"));
    failing = "nn_freemsg";
    EXPECT_EQ(tavrix_mq_socket_freemsg(__real_nn_allocmsg(1, 0)), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(support::debug, "tavrix_mq",
                        std::string("nn_freemsg failed to free message: ") + nn_strerror(ENOMEM) + "\n"));
}
