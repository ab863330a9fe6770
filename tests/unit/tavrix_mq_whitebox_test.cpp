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
#include "support/faults.h"
#include "support/log_capture.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"

using namespace fault;
using namespace support;

namespace {

std::atomic<int> in_use{0}; ///< blocks of this program's own objects, the library's among them

const std::string no_memory = nn_strerror(ENOMEM);

/** The subscriber hears of its own channel, and not of this one. */
void expect_no_events(BusPair &bus) {
    bus.publish("events|1");
    bus.publish("~|2");
    EXPECT_EQ(bus.receive(), "~|2");
}

/** Subscribes to topics of which each begins with the one before, the last of them twice. */
void subscribe_to_three(int sock) {
    for (const char *topic : {"", "a", "ab", "ab"}) {
        EXPECT_EQ(tavrix_mq_socket_subscribe(sock, topic), 0);
    }
}

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void __real_free(void *memory);
void *__wrap_malloc(size_t size) {
    void *memory = Fault::fails("malloc") ? nullptr : __real_malloc(size);
    in_use += memory != nullptr ? 1 : 0;
    return memory;
}
void __wrap_free(void *memory) {
    in_use -= memory != nullptr ? 1 : 0;
    __real_free(memory);
}
}

TEST(MqFailures, OfAMessagesAllocationAreReported) {
    BusPair bus;
    for (const auto send : {tavrix_mq_socket_send, tavrix_mq_socket_send_nonblock}) {
        const LogCapture log("debug");
        const Failing once("nn_allocmsg");
        EXPECT_EQ(send(bus.pub.number, "x"), TAVRIX_ERR_GENERAL);
        EXPECT_TRUE(log.said({"DEBUG|nn_allocmsg failed to allocate buffer for message: " + no_memory}));
    }
}

TEST(MqFailures, OfASubscriptionLeaveTheTopicOut) {
    BusPair bus("~");
    const LogCapture log("debug");
    const Failing once("malloc");
    EXPECT_EQ(tavrix_mq_socket_subscribe(bus.sub.number, "events"), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(
        log.said({"DEBUG|nn_setsockopt failed for mq_socket [" + std::to_string(bus.sub.number) + "]: " + no_memory}));
    expect_no_events(bus);
}

TEST(MqFailures, CannotHitAnUnsubscription) {
    BusPair bus("~");
    ASSERT_EQ(tavrix_mq_socket_subscribe(bus.sub.number, "events"), 0);
    {
        const Failing ever("malloc", 1, ENOMEM, Failing::always);
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(bus.sub.number, "events"), 0);
        EXPECT_FALSE(ever.happened()) << "none was needed";
    }
    expect_no_events(bus);
}

TEST(MqTopics, AreGivenBackOneByOne) {
    const BusSocket sub(TAVRIX_SP_SUB);
    const int before = in_use;
    subscribe_to_three(sub.number);
    EXPECT_EQ(in_use, before + 3);
    for (const char *topic : {"a", "", "ab", "ab", "never"}) {
        tavrix_mq_socket_unsubscribe(sub.number, topic);
    }
    EXPECT_EQ(in_use, before);
}

TEST(MqTopics, AreGivenBackAtClose) {
    const int before = in_use;
    BusSocket sub(TAVRIX_SP_SUB);
    BusSocket other(TAVRIX_SP_SUB);
    subscribe_to_three(other.number);
    subscribe_to_three(sub.number);
    sub.close();
    EXPECT_EQ(in_use, before + 3) << "the other's";
    other.close();
    EXPECT_EQ(in_use, before);
}

TEST(MqTopics, OfASocketClosedPastTheLibraryAreGivenBackWithTheNextOfItsNumber) {
    const int before = in_use;
    BusSocket sub(TAVRIX_SP_SUB);
    subscribe_to_three(sub.number);
    ASSERT_EQ(nn_close(sub.number), 0);
    BusSocket next(TAVRIX_SP_SUB);
    ASSERT_EQ(next.number, sub.number);
    sub.number = -1;
    EXPECT_EQ(tavrix_mq_socket_subscribe(next.number, "a"), 0);
    EXPECT_EQ(in_use, before + 1);
    next.close();
    EXPECT_EQ(in_use, before);
}

TEST(MqFailures, OfTheReceivedCopyLoseNothingElse) {
    BusPair bus;
    bus.publish("lost");
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    const Failing once("malloc");
    EXPECT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(
        log.said({"DEBUG|nn_recv failed for mq_socket [" + std::to_string(bus.sub.number) + "]: " + no_memory}));
    bus.publish("next");
    EXPECT_EQ(bus.receive(), "next");
}

TEST(MqFailures, OfAReleaseAreReported) {
    BusPair bus;
    bus.publish("x");
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    const Failing twice("nn_freemsg", 1, ENOMEM, 2);
    EXPECT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(tavrix_mq_socket_freemsg(nn_allocmsg(1, 0)), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|nn_freemsg failed to free received message: " + no_memory,
                          "DEBUG|nn_freemsg failed to free message: " + no_memory}));
}
