/*
 * The level "off" changes what is written and nothing else: every refusal below has the same outcome as at the level
 * "verbose", where it says why.
 */
#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tavrix.h"

using namespace support;

namespace {

int number = -1;
char *text = nullptr;
json_t *json = nullptr;

/** Hands a JSON text to a function, as an object of its own. */
int with(const char *request, const std::function<int(json_t *)> &call) {
    json_t *parsed = json_loads(request, 0, nullptr);
    const int rc = call(parsed);
    json_decref(parsed);
    return rc;
}
int dispatch(const char *request) {
    const int nobody = -1;
    return with(request, [&](json_t *parsed) { return tavrix_jrpc_router_mq_dispatch_request(&nobody, parsed); });
}
int lock(const char *request) {
    return with(request, [](json_t *parsed) { return tavrix_jrpc_router_create_system_lock_response(parsed, &json); });
}
const std::string long_address = "tcp://" + std::string(TAVRIX_MQ_MAX_ADDRESS, '1');
const std::string long_extension(1001, 'x');

const std::pair<const char *, std::function<int()>> refusals[] = {
    {"Indent",
     [] { return tavrix_jrpc_create_error(TAVRIX_JRPC_TIMED_OUT, nullptr, nullptr, 99, nullptr) != nullptr; }},
    {"Channel", [] { return tavrix_api_router_json_add_channel(nullptr, nullptr) != nullptr; }},
    {"ChannelOfNoMethod", [] { return tavrix_api_router_json_parse_channel(nullptr) != nullptr; }},
    {"NoFrame", [] { return tavrix_jrpc_parse_msg(nullptr, 1, &text); }},
    {"FrameWithoutBar", [] { return tavrix_jrpc_parse_msg("junk", 4, &text); }},
    {"NoText", [] { return tavrix_jrpc_parse_channel(nullptr, &text); }},
    {"NoReplyText", [] { return tavrix_jrpc_eval_method("hello.Say", nullptr, &json); }},
    {"NoNotificationText", [] { return tavrix_jrpc_eval_notification("hello.Say", nullptr, &json); }},
    {"NotificationWithoutMethod", [] { return tavrix_jrpc_eval_notification("x", R"({"jsonrpc":"2.0"})", &json); }},
    {"NotificationOfANumber",
     [] { return tavrix_jrpc_eval_notification("x", R"({"jsonrpc":"2.0","method":5})", &json); }},
    {"AnotherNotification",
     [] { return tavrix_jrpc_eval_notification("x", R"({"jsonrpc":"2.0","method":"y"})", &json); }},
    {"NotificationWithoutVersion", [] { return tavrix_jrpc_eval_notification("x", R"({"method":"x"})", &json); }},
    {"NotificationOfAnotherVersion",
     [] { return tavrix_jrpc_eval_notification("x", R"({"jsonrpc":"1.0","method":"x"})", &json); }},
    {"NoPublisher", [] { return tavrix_jrpc_mq_pub_init(nullptr, &number); }},
    {"PublisherWithoutAddress", [] { return tavrix_jrpc_mq_pub_init("nowhere", &number); }},
    {"NoSubscriber", [] { return tavrix_jrpc_mq_sub_init(nullptr, 1); }},
    {"NoChannel", [] { return tavrix_jrpc_mq_sub_set_channel(nullptr, nullptr, nullptr); }},
    {"ChannelWithoutAddress", [] { return tavrix_jrpc_mq_sub_set_channel("nowhere", "c", &number); }},
    {"NoEndpoint", [] { return tavrix_jrpc_mq_run(nullptr, nullptr, nullptr, 1); }},
    {"NoMessage", [] { return tavrix_jrpc_mq_pub(nullptr, nullptr, nullptr); }},
    {"MessageToNobody", [] { return tavrix_jrpc_mq_pub(&number, "c", "{}"); }},
    {"NoReply", [] { return tavrix_jrpc_mq_sub_for_method(-1, nullptr, nullptr); }},
    {"NoNotification", [] { return tavrix_jrpc_mq_sub_for_notifcation(-1, nullptr, nullptr); }},
    {"NotificationOfNobody", [] { return tavrix_jrpc_mq_sub_for_notifcation(-1, "x", &json); }},
    {"NoUnixServer", [] { return tavrix_jrpc_unix_socket_init(nullptr, nullptr, 0); }},
    {"UnixServerNowhere", [] { return tavrix_jrpc_unix_socket_init("no/such/folder/s.sock", &number, 0); }},
    {"NoTcpServer", [] { return tavrix_jrpc_tcp_socket_init(0, nullptr, 0); }},
    {"NoUnixRequest", [] { return tavrix_jrpc_unix_socket_run(nullptr, nullptr); }},
    {"NoTcpRequest", [] { return tavrix_jrpc_tcp_socket_run(nullptr, nullptr); }},
    {"NoPullServer", [] { return tavrix_jrpc_pull_socket_init(nullptr, nullptr); }},
    {"NoPullRequest", [] { return tavrix_jrpc_pull_socket_run(-1, nullptr); }},
    {"NoWayIn", [] { return tavrix_jrpc_router_socket_to_mq(nullptr, nullptr, nullptr); }},
    {"NoWayBack", [] { return tavrix_jrpc_router_mq_to_socket(nullptr, nullptr); }},
    {"NoIncoming", [] { return tavrix_jrpc_router_socket_extract_request(nullptr, nullptr, nullptr); }},
    {"IncomingOfNobody", [] { return tavrix_jrpc_router_socket_extract_request(&number, &number, &json); }},
    {"NoOutgoing", [] { return tavrix_jrpc_router_mq_dispatch_request(nullptr, nullptr); }},
    {"OutgoingWithoutMethod", [] { return dispatch(R"({"id":"a"})"); }},
    {"OutgoingOfANumber", [] { return dispatch(R"({"id":"a","method":5})"); }},
    {"OutgoingWithoutId", [] { return dispatch(R"({"method":"x"})"); }},
    {"OutgoingWithAnArrayForAnId", [] { return dispatch(R"({"id":[],"method":"x"})"); }},
    {"NoResponse", [] { return tavrix_jrpc_router_mq_extract_response(nullptr, nullptr); }},
    {"ResponseOfNobody", [] { return tavrix_jrpc_router_mq_extract_response(&number, &json); }},
    {"NoResponseToSend", [] { return tavrix_jrpc_router_socket_dispatch_response(nullptr, nullptr); }},
    {"ResponseToNobody",
     [] {
         return with("{}", [](json_t *parsed) { return tavrix_jrpc_router_socket_dispatch_response(&number, parsed); });
     }},
    {"NothingToLock", [] { return tavrix_jrpc_router_create_system_lock_response(nullptr, nullptr); }},
    {"LockWithoutId", [] { return lock(R"({"transaction_id":1})"); }},
    {"LockWithANumberForAnId", [] { return lock(R"({"transaction_id":1,"id":5})"); }},
    {"NothingIsLate", [] { return tavrix_jrpc_router_create_system_timeout_response(nullptr, 0, nullptr); }},
    {"BusType", [] { return tavrix_mq_socket_init(0, &number); }},
    {"BusTransport", [] { return tavrix_mq_socket_bind(-1, 9, "tcp://127.0.0.1:1", &number); }},
    {"BusAddress", [] { return tavrix_mq_socket_bind(-1, TAVRIX_TRANSPORT_TCP, long_address.c_str(), &number); }},
    {"NoBusAddress", [] { return tavrix_mq_socket_bind(-1, TAVRIX_TRANSPORT_TCP, nullptr, &number); }},
    {"BusReceive", [] { return tavrix_mq_socket_recv(-1, &text, &number, 1); }},
    {"BusSend", [] { return tavrix_mq_socket_send(-1, "x"); }},
    {"BusTimeout", [] { return tavrix_mq_socket_get_timeout(-1, &number); }},
    {"BusEndpoint", [] { return tavrix_mq_socket_shutdown(-1, -1); }},
    {"UnixListener", [] { return tavrix_unix_socket_init(nullptr, &number, 0); }},
    {"TcpListener", [] { return tavrix_tcp_socket_init(0, nullptr, 0); }},
    {"Accept", [] { return tavrix_socket_accept(nullptr, &number); }},
    {"TcpAccept", [] { return tavrix_tcp_socket_accept(nullptr, &number); }},
    {"Connect", [] { return tavrix_tcp_socket_connect(nullptr, 1, &number); }},
    {"Receive", [] { return tavrix_socket_recv(nullptr, nullptr, 0); }},
    {"Send", [] { return tavrix_socket_send(nullptr, nullptr); }},
    {"Close", [] { return tavrix_socket_close(nullptr); }},
    {"Timer", [] { return tavrix_timer_init(nullptr, 1); }},
    {"TimerFree", [] { return tavrix_timer_free(nullptr); }},
    {"Word", [] { return validate_status("neither"); }},
    {"Extension", [] { return validate_entity_extension(long_extension.c_str()); }},
};

/** What a call gives at a level, and whether it says anything. Nothing of one call is left for the next. */
std::pair<int, bool> at_level(const char *level, const std::function<int()> &call) {
    const LogCapture log(level);
    number = -1;
    text = nullptr;
    json = nullptr;
    const int rc = call();
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(json, nullptr);
    return {rc, !log.lines().empty()}; // perror() of the stream sockets is no line of the log
}

} // namespace

TEST(Quiet, ChangesNoOutcome) {
    for (const auto &[name, call] : refusals) {
        SCOPED_TRACE(name);
        const auto [loud_rc, spoke] = at_level("verbose", call);
        EXPECT_TRUE(spoke) << "at the level \"verbose\" it says why";
        const auto [quiet_rc, spoke_quietly] = at_level("off", call);
        EXPECT_FALSE(spoke_quietly);
        EXPECT_EQ(quiet_rc, loud_rc);
    }
}
