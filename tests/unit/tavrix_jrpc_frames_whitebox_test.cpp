/*
 * What a received frame costs: it is released as soon as it is split, and its text is read once.
 */
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <jansson.h>

#include "support/bus.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

std::string incoming;        ///< the frame that the bus brings
const void *frame = nullptr; ///< its bytes, for as long as they are held
int readings = 0;            ///< how many texts were read
bool held = false;           ///< whether the frame was there when its text was read, served or sent
std::string published;

void look() { held = held || frame != nullptr; }

int serve(json_t *, json_t **result, json_t **) {
    look();
    *result = json_true();
    return 0;
}
const tavrix_jrpc_method table[] = {{"x.Serve", serve}, {nullptr, nullptr}};

void bring(const char *text) {
    incoming = text;
    readings = 0;
    held = false;
    published.clear();
}

int step() {
    int sub = 1;
    int pub = 2;
    return tavrix_jrpc_mq_run(&sub, &pub, table, 0);
}

constexpr char request_frame[] = R"(s|{"jsonrpc":"2.0","id":"r1","method":"x.Serve"})";
constexpr char notification_frame[] = R"(s|{"jsonrpc":"2.0","method":"x.Serve"})";
constexpr char reply[] = R"(me|{"jsonrpc":"2.0","id":"x.Serve","result":1})";

} // namespace

// They play the other side and note what they are given: nothing of theirs is a failure that Fault::fails() could plan.
extern "C" {
json_t *__real_json_loads(const char *text, size_t flags, json_error_t *error);
void __real_free(void *memory);
int __real_tavrix_socket_send(const int *sock, const char *text);

json_t *__wrap_json_loads(const char *text, size_t flags, json_error_t *error) {
    ++readings;
    look();
    return __real_json_loads(text, flags, error);
}
void __wrap_free(void *memory) {
    if (memory != nullptr && memory == frame) {
        frame = nullptr;
    }
    __real_free(memory);
}
int __wrap_tavrix_mq_socket_recv(int, char **text, int *length, int) {
    *text = strdup(incoming.c_str());
    *length = static_cast<int>(incoming.size());
    frame = *text;
    return 0;
}
int __wrap_tavrix_mq_socket_send(int, const char *text) {
    published = text;
    return 0;
}
int __wrap_tavrix_socket_send(const int *sock, const char *text) {
    look();
    return __real_tavrix_socket_send(sock, text);
}
}

TEST(Frame, IsReleasedBeforeItsRequestIsRead) {
    const LogCapture log("info");
    bring(request_frame);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(published, R"(r1|{"jsonrpc":"2.0","id":"x.Serve","result":true})");
    EXPECT_FALSE(held);
    bring(notification_frame);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(published, "");
    EXPECT_FALSE(held);
}

TEST(Frame, IsReleasedBeforeAReplyIsRead) {
    const int sub = 1;
    Json out;
    bring(reply);
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_method(sub, "x.Serve", into(out)), 0);
    EXPECT_FALSE(held);
    bring(reply);
    EXPECT_EQ(tavrix_jrpc_router_mq_extract_response(&sub, into(out)), 0);
    EXPECT_FALSE(held);
}

TEST(Frame, IsReleasedBeforeANotificationIsRead) {
    const BusSocket sub(TAVRIX_SP_SUB); // its time-out is read and put back
    Json out;
    bring(notification_frame);
    EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(sub.number, "x.Serve", into(out)), 0);
    EXPECT_FALSE(held);
}

TEST(Frame, IsReleasedBeforeItsTextGoesToTheClient) {
    SocketPair pair;
    bring(reply);
    int sub = 1;
    EXPECT_EQ(tavrix_jrpc_router_mq_to_socket(&sub, pair.ours.place()), 0);
    EXPECT_FALSE(held);
    EXPECT_EQ(pair.theirs.hear(), reply + 3);
}

TEST(ServingStep, ReadsAMessageOnce) {
    for (const char *text : {request_frame, notification_frame, R"(s|{"jsonrpc":"2.0","id":"r1","method":"x.Unknown"})",
                             R"(s|{"jsonrpc":"2.0","id":1,"method":"x.Serve"})", "s|no json", "s|[]"}) {
        const LogCapture log("off");
        bring(text);
        step();
        EXPECT_EQ(readings, 1) << text;
    }
}
