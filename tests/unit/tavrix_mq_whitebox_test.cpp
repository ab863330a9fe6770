/*
 * What the bus sockets do when nanomsg or memory refuses.
 */
#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <nanomsg/nn.h>

#include "support/bus.h"
#include "support/log_capture.h"
#include "tavrix_mq.h"

using support::BusPair;
using support::LogCapture;

namespace {

std::string failing;

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
void *__real_nn_allocmsg(size_t size, int type);
int __real_nn_freemsg(void *msg);

void *__wrap_malloc(size_t size) { return fails("malloc") ? nullptr : __real_malloc(size); }
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

TEST(MqFailures, OfAnUnsubscriptionLeaveTheTopic) {
    BusPair bus("events");
    const LogCapture log("debug");
    failing = "malloc";
    EXPECT_EQ(tavrix_mq_socket_unsubscribe(bus.sub.number, "events"), -1);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"DEBUG|nn_setsockopt failed for mq_socket [" +
                                                       std::to_string(bus.sub.number) + "]: " + nn_strerror(ENOMEM)});
    bus.publish("events|1");
    EXPECT_EQ(bus.receive(), "events|1");
}

TEST(MqFailures, OfTheReceivedCopyLoseNothingElse) {
    BusPair bus;
    bus.publish("lost");
    char *text = nullptr;
    int length = 0;
    const LogCapture log("debug");
    failing = "malloc";
    EXPECT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), -1);
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
    EXPECT_EQ(tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0), -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(log.has(support::debug, "tavrix_mq",
                        std::string("nn_freemsg failed to free received message: ") + nn_strerror(ENOMEM) + "\n"));
    failing = "nn_freemsg";
    EXPECT_EQ(tavrix_mq_socket_freemsg(__real_nn_allocmsg(1, 0)), -1);
    EXPECT_TRUE(log.has(support::debug, "tavrix_mq",
                        std::string("nn_freemsg failed to free message: ") + nn_strerror(ENOMEM) + "\n"));
}
