/*
 * The service kit with each allocation and each system call failing once: whatever fails, every request ends at most
 * once and every call is answered at most once, nothing is lost or left behind, and the next request is served.
 */
#include <cerrno>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "faults.h"
#include "internal.h"
#include "kit/support/played_router.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_service_test.h"

using fault::each_failure;
using fault::Fault;
using support::LogCapture;

// What the kit calls beside the library's own. Jansson's parser counts as one call, as in faults.h.
extern "C" {
json_t *__real_json_loadb(const char *text, size_t length, size_t flags, json_error_t *error);
json_t *__wrap_json_loadb(const char *text, size_t length, size_t flags, json_error_t *error) {
    if (Fault::fails("json_loadb")) {
        if (error != nullptr) {
            *error = {};
        }
        return nullptr;
    }
    const Fault::Truce truce;
    return __real_json_loadb(text, length, flags, error);
}
event_base *__real_event_base_new();
event_base *__wrap_event_base_new() { return Fault::fails("event_base_new") ? nullptr : __real_event_base_new(); }
int __real_accept4(int sock, sockaddr *address, socklen_t *length, int flags);
int __wrap_accept4(int sock, sockaddr *address, socklen_t *length, int flags) {
    return Fault::fails("accept4") ? -1 : __real_accept4(sock, address, length, flags);
}
int __real_getsockname(int sock, sockaddr *address, socklen_t *length);
int __wrap_getsockname(int sock, sockaddr *address, socklen_t *length) {
    return Fault::fails("getsockname") ? -1 : __real_getsockname(sock, address, length);
}
int __real_event_add(event *ev, const timeval *time);
int __wrap_event_add(event *ev, const timeval *time) {
    return Fault::fails("event_add") ? -1 : __real_event_add(ev, time);
}
}

namespace {

/** What the handlers and callbacks have seen of one attempt. */
struct Seen {
    uint64_t deferred = 0;
    int outcomes = 0;
    int notifications = 0;
    bool ready = false;
};
Seen seen;

int echo(tavrix_call *call) { return tavrix_call_reply(call, json_incref(tavrix_call_params(call))); }
int defer(tavrix_call *call) {
    seen.deferred = tavrix_call_defer(call, nullptr, nullptr);
    return 0;
}

const tavrix_service_param pair[] = {
    TAVRIX_PARAM("vlan", TAVRIX_KIND_VLAN_ID, "", 0),
    TAVRIX_PARAM("mode", TAVRIX_KIND_VLAN_MODE, "", 0),
    TAVRIX_PARAM_END,
};
const tavrix_service_param many[] = {
    TAVRIX_PARAM("text", TAVRIX_KIND_TEXT, "", 0),
    TAVRIX_PARAM("long", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL),
    TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "", 0),
    TAVRIX_PARAM("vlans", TAVRIX_KIND_VLAN_IDS, "", 0),
    TAVRIX_PARAM("ports", TAVRIX_KIND_PORTS, "", 0),
    TAVRIX_PARAM_MEMBERS("pairs", TAVRIX_KIND_ARRAY, "", 0, 1, 4, pair),
    TAVRIX_PARAM_END,
};
const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Echo", echo, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Many", echo, "", many, nullptr, TAVRIX_METHOD_STRICT),
    TAVRIX_METHOD("t.Defer", defer, "", nullptr, nullptr, 0),
    TAVRIX_METHOD_END,
};

std::string text(const char *found) { return found != nullptr ? found : "(none)"; }

/** A service without a router, opened and closed without faults. */
class Testee {
  public:
    Testee() {
        seen = {};
        tavrix_service_options options{};
        options.name = "testee";
        options.methods = methods;
        EXPECT_EQ(tavrix_service_test_open(&options, &test_), 0);
    }
    Testee(const Testee &) = delete;
    Testee &operator=(const Testee &) = delete;
    ~Testee() { tavrix_service_test_close(test_); }

    tavrix_service *service() const { return tavrix_service_test_service(test_); }
    tavrix_service_test *test() const { return test_; }

    /** A request that comes over the session while the fault is in force. */
    void take(Fault *fault, const char *method, const char *params) const {
        const Fault::Truce none; // nothing is in force yet
        tavrix::Json request(json_pack("{s:s, s:s, s:s, s:i, s:o}", "jsonrpc", "2.0", "method", method, "id", "test",
                                       "transaction_id", 5, "params", json_loads(params, 0, nullptr)));
        ASSERT_TRUE(request);
        kit::Origin origin{};
        origin.caller.road = TAVRIX_ROAD_SESSION;
        fault->in([&] { kit::evaluate(service(), std::move(request), origin); });
        tavrix_service_test_run(test_);
    }
    /** The only outcome, if there is one. */
    std::string outcome() const {
        std::string outcome = text(tavrix_service_test_next_outcome(test_));
        EXPECT_EQ(tavrix_service_test_next_response(test_), nullptr) << "a second answer to " << outcome;
        return outcome;
    }
    void expect_service() const {
        EXPECT_EQ(text(tavrix_service_test_call(test_, "t.Echo", R"({"n":1})")), R"({"result":{"n":1}})");
    }

  private:
    LogCapture log_;
    tavrix_service_test *test_ = nullptr;
};

bool is_error(const std::string &outcome) { return outcome.find(R"({"error":{"code":-32)") == 0; }

void on_answer(tavrix_service * /*service*/, const tavrix_answer * /*answer*/, void * /*user*/) { ++seen.outcomes; }

// --- Calls ---

TEST(KitFaults, ARequestIsAnsweredOnceOrNotAtAll) {
    each_failure([](Fault &fault) {
        const Testee testee;
        testee.take(&fault, "t.Echo", R"({"a":"b"})");
        const std::string outcome = testee.outcome();
        if (!fault.happened()) {
            EXPECT_EQ(outcome, R"({"result":{"a":"b"}})");
        } else {
            EXPECT_TRUE(outcome == "(none)" || outcome == R"({"result":{"a":"b"}})" || is_error(outcome)) << outcome;
        }
        testee.expect_service();
    });
}

TEST(KitFaults, ParametersAreHandedOverWholeOrRefused) {
    const std::string params =
        R"({"text":"a","long":")" + std::string(900, 'x') +
        R"(","mac":"00:11:22:33:44:55","vlans":[1,2],"ports":[{"port_number":7,"port_status":1,"poe_status":1,"link_status":1,)"
        R"("link_speed":4,"vlan_mode":1,"vlan_ids":[9]}],)"
        R"("pairs":[{"vlan":7,"mode":"access"}]})";
    Fault none(0);
    Testee().take(&none, "t.Many", params.c_str()); // the patterns of the rules are compiled once and stay
    each_failure([&](Fault &fault) {
        const Testee testee;
        testee.take(&fault, "t.Many", params.c_str());
        const std::string outcome = testee.outcome();
        if (!fault.happened()) {
            EXPECT_NE(outcome.find(R"("vlans":[1,2])"), std::string::npos) << outcome;
        }
        EXPECT_TRUE(outcome == "(none)" || is_error(outcome) || outcome.find(R"("vlan":7)") != std::string::npos)
            << outcome;
        testee.expect_service();
    });
}

TEST(KitFaults, ARefusalKeepsItsCode) {
    each_failure([](Fault &fault) {
        const Testee testee;
        testee.take(&fault, "t.Many", R"({"text":"a","unknown":1})");
        const std::string outcome = testee.outcome();
        EXPECT_TRUE((fault.happened() && outcome == "(none)") || is_error(outcome)) << outcome;
        testee.expect_service();
    });
}

TEST(KitFaults, ADeferredCallIsAnsweredOnce) {
    each_failure([](Fault &fault) {
        const Testee testee;
        testee.take(&fault, "t.Defer", "{}");
        if (!fault.happened()) {
            tavrix_service *service = testee.service();
            fault.in([&] { tavrix_call_reply(tavrix_service_deferred(service, seen.deferred), json_integer(8)); });
        } else {
            tavrix_call_reply(tavrix_service_deferred(testee.service(), seen.deferred), json_integer(8));
        }
        tavrix_service_test_run(testee.test());
        const std::string outcome = testee.outcome();
        EXPECT_TRUE(outcome == R"({"result":8})" || (fault.happened() && (outcome == "(none)" || is_error(outcome))))
            << outcome;
        EXPECT_EQ(tavrix_service_deferred(testee.service(), seen.deferred), nullptr);
        testee.expect_service();
    });
}

// --- Requests, subscriptions, notifications, timers ---

TEST(KitFaults, ARequestEndsOnceWhenItWasMade) {
    each_failure([](Fault &fault) {
        const Testee testee;
        json_t *params = json_pack("{s:i}", "n", 1);
        const uint64_t number = fault.in(
            [&] { return tavrix_service_request(testee.service(), "o.Get", params, 100, on_answer, nullptr); });
        EXPECT_EQ(number != 0, !fault.happened());
        tavrix_service_test_run(testee.test());
        tavrix_service_test_answer(testee.test(), "o.Get", R"({"result":1})");
        tavrix_service_test_advance(testee.test(), 1000);
        EXPECT_EQ(seen.outcomes, number != 0 ? 1 : 0);
        testee.expect_service();
    });
}

TEST(KitFaults, ASubscriptionHearsOrIsRefused) {
    each_failure([](Fault &fault) {
        const Testee testee;
        const uint64_t number = fault.in([&] {
            return tavrix_service_subscribe(
                testee.service(), "o.*",
                [](tavrix_service * /*service*/, const char * /*method*/, json_t * /*params*/, void * /*user*/) {
                    ++seen.notifications;
                },
                nullptr);
        });
        tavrix_service_test_run(testee.test());
        tavrix_service_test_notify(testee.test(), "o.Happened", nullptr);
        EXPECT_EQ(seen.notifications, number != 0 ? 1 : 0);
        EXPECT_TRUE(number != 0 || fault.happened());
    });
}

TEST(KitFaults, ANotificationIsPublishedWholeOrRefused) {
    each_failure([](Fault &fault) {
        const Testee testee;
        json_t *params = json_pack("{s:i}", "n", 1);
        const int rc = fault.in([&] { return tavrix_service_publish(testee.service(), "t.Told", params); });
        EXPECT_EQ(rc != 0, fault.happened());
        tavrix_service_test_run(testee.test());
        EXPECT_EQ(text(tavrix_service_test_next_notification(testee.test())) != "(none)", rc == 0);
    });
}

TEST(KitFaults, ATimerIsSetOrRefused) {
    each_failure([](Fault &fault) {
        const Testee testee;
        const uint64_t number = fault.in([&] {
            return tavrix_service_timer(
                testee.service(), 1, 1, [](tavrix_service * /*service*/, void * /*user*/) {}, nullptr);
        });
        EXPECT_EQ(number == 0, fault.happened());
    });
}

TEST(KitFaults, AListenerListensOrIsRefusedWithALine) {
    each_failure([](Fault &fault) {
        const Testee testee;
        const uint64_t number = fault.in([&] { return tavrix_service_listen_unix(testee.service(), "own.sock"); });
        EXPECT_TRUE(number != 0 || fault.happened());
        EXPECT_EQ(support::StreamClient::unix_path("own.sock").connected(), number != 0) << fault.function();
    });
    each_failure([](Fault &fault) {
        const Testee testee;
        unsigned port = 0;
        const uint64_t number =
            fault.in([&] { return tavrix_service_listen_tcp(testee.service(), nullptr, 0, &port); });
        EXPECT_EQ(number == 0, fault.happened()) << fault.function();
    });
}

// --- With a router: opening, connecting, registering, serving ---

TEST(KitFaults, AServiceIsOpenedOrToldWhyNot) {
    kit::played_clock_ms = -1;
    each_failure([](Fault &fault) {
        const LogCapture log;
        tavrix_service_options options{};
        options.name = "testee";
        options.methods = methods;
        options.session = "session.sock";
        tavrix_service *service = nullptr;
        const int rc = fault.in([&] { return tavrix_service_open(&options, &service); });
        EXPECT_EQ(rc != 0, service == nullptr) << fault.function();
        EXPECT_TRUE(rc == 0 || fault.happened());
        tavrix_service_close(service);
    });
}

/** One whole life beside a played router: opened without faults, then everything until an answer came back. */
class Life {
  public:
    Life() {
        tavrix_service_options options{};
        options.name = "testee";
        options.methods = methods;
        options.session = "session.sock";
        options.flags = TAVRIX_SERVICE_SILENT | TAVRIX_SERVICE_NO_SIGNALS;
        router_.settles = false;
        EXPECT_EQ(tavrix_service_open(&options, &service_), 0);
    }
    Life(const Life &) = delete;
    Life &operator=(const Life &) = delete;
    ~Life() { tavrix_service_close(service_); }

    /** Until the service is ready and has answered, or has given up. */
    bool live() {
        int rc = tavrix_service_start(service_);
        for (int turns = 0; rc == 0 && !service_->failed && turns < max_turns; ++turns) {
            event_base_loop(service_->base, EVLOOP_NONBLOCK);
            const Fault::Truce truce; // the router's own calls are not counted
            router_.step();
            if (tavrix_service_is_ready(service_) && router_.lines.empty() && turns % ask_again == 0) {
                router_.say(support::direct_request("t.Echo", R"({"n":1})", 5));
            }
            if (!router_.lines.empty()) {
                return router_.lines.front().find(R"("n":1)") != std::string::npos ||
                       router_.lines.front().find("error") != std::string::npos;
            }
            usleep(turn_us);
        }
        return rc != 0 || service_->failed;
    }

  private:
    static constexpr int max_turns = 40000;
    static constexpr int ask_again = 100;
    static constexpr useconds_t turn_us = 500;

    LogCapture log_;
    support::PlayedRouter router_;
    tavrix_service *service_ = nullptr;
};

TEST(KitFaults, AServiceRegistersAndServesAllTheSameOrGivesUp) {
    kit::played_clock_ms = -1;
    each_failure([](Fault &fault) {
        Life life;
        EXPECT_TRUE(fault.in([&] { return life.live(); })) << fault.function();
    });
}

} // namespace
