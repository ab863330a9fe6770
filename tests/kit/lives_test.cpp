/*
 * Services of the kit beside the real router: they call each other at once, are killed while they wait for each other,
 * and answer late and never.
 */
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <event2/event.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "kit/support/played_router.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/matchers.h"
#include "support/process.h"
#include "support/session.h"

using namespace support;

namespace {

using testing::_;
using testing::HasSubstr;

/** What the handlers and callbacks below have seen. */
struct Seen {
    Lines ends;     ///< of calls, with the result behind it when that is an integer
    int served = 0; ///< how often t.One has run
    std::string caller;
    int late_reply = 0;
    uint64_t late_call = 0;
    std::vector<std::pair<uint64_t, int64_t>> held; ///< calls of t.Hold, by number and n
};
Seen seen;

void on_end(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    const std::string value = json_is_integer(answer->result) ? " " + rendered(answer->result) : "";
    seen.ends.push_back(outcome_of(answer) + value);
}

/** Asks for what the call is to be answered with. */
int ask_for(tavrix_call *call, const char *method, json_t *params) {
    auto *pending = new uint64_t(tavrix_call_defer(call, nullptr, nullptr));
    tavrix_service_request(
        tavrix_call_service(call), method, params, 20000,
        [](tavrix_service *service, const tavrix_answer *answer, void *user) {
            const std::unique_ptr<uint64_t> number(static_cast<uint64_t *>(user));
            tavrix_call_pass_on(tavrix_service_deferred(service, *number), answer);
        },
        pending);
    return 0;
}
/** Counts down by asking the other service for the rest of it. */
int down(tavrix_call *call) {
    const int64_t left = tavrix_call_integer(call, "n");
    if (left == 0) {
        return tavrix_call_reply(call, json_integer(0));
    }
    const std::string own = tavrix_service_name(tavrix_call_service(call));
    return ask_for(call, own == "left" ? "right.Down" : "left.Down",
                   json_pack("{s:i}", "n", static_cast<int>(left) - 1));
}
int late(tavrix_call *call) {
    seen.late_call = tavrix_call_defer(
        call,
        [](tavrix_call *ended, void * /*user*/) {
            ++abandoned;
            seen.late_reply = tavrix_call_reply(ended, json_integer(1));
        },
        nullptr);
    return 0;
}
int one(tavrix_call *call) {
    ++seen.served;
    seen.caller = caller_of(call);
    return tavrix_call_reply(call, json_integer(1));
}

/** Waits until the test answers it. */
int hold(tavrix_call *call) {
    seen.held.emplace_back(tavrix_call_defer(call, nullptr, nullptr), tavrix_call_integer(call, "n"));
    return TAVRIX_OK;
}
/** Asks its own service, and answers what that answers. */
int ask_itself(tavrix_call *call) { return ask_for(call, "t.One", nullptr); }

const Rows count = {TAVRIX_PARAM("n", TAVRIX_KIND_INTEGER, "", 0)};
const Methods left_methods = {{"left.Down", down, count}};
const Methods right_methods = {{"right.Down", down, count}};
const Methods t_methods = {{"t.Never", defer},         {"t.Late", late},        {"t.One", one},
                           {"t.Fill", fill, count},    {"t.Nest", nest, count}, {"t.Hold", hold, count},
                           {"t.AskItself", ask_itself}};

class Lives : public testing::Test {
  protected:
    Lives() {
        seen = {};
        abandoned = 0;
        write_file("tavrix_lsyslog.conf", "[logging_levels]\npeer=info\nrouterd=info\nt=off\nleft=off\nright=off\n");
    }

    void start_router(const std::string &reply_timeout_ms = "20000", std::vector<std::string> more = {}) {
        more.insert(more.end(), {"--reply-timeout", reply_timeout_ms});
        router_ = started_router("ipc://bus/router", more);
    }
    void start_peer(const std::vector<std::string> &more = {}) {
        peer_.reset();
        peer_ = started("peer", {PEER_SERVICE, "--session", "session.sock"}, more);
    }
    Service start(const char *name, const tavrix_service_method *methods, unsigned flags = 0) {
        tavrix_service_options options = with_flags(flags);
        options.base = base_.get();
        return started_service(name, methods, options);
    }
    /** A router, the service t, and the service left that calls it. */
    void start_both(const std::string &reply_timeout_ms = "20000", const std::vector<std::string> &more = {}) {
        start_router(reply_timeout_ms, more);
        service = start("t", t_methods);
        left = start("left", left_methods);
    }
    bool wait(const std::function<bool()> &condition) {
        return wait_until([&] {
            event_base_loop(base_.get(), EVLOOP_NONBLOCK);
            return condition();
        });
    }
    static void request(const Service &service, const char *method, json_t *params = nullptr) {
        EXPECT_NE(tavrix_service_request(service.get(), method, params, 20000, on_end, nullptr), 0U);
    }
    std::string status() const { return SessionClient().ask(support::request("router.Status", "1")); }
    void wait_for_calls_in_flight(size_t calls) {
        const std::string shown = "\"in_flight\":" + std::to_string(calls);
        ASSERT_TRUE(wait([&] { return status().find(shown) != std::string::npos; })) << status();
    }
    /** The calls of all services end so, in their order; then others may be made. */
    void expect_ends(const Lines &ends) {
        wait([&] { return seen.ends.size() == ends.size(); });
        EXPECT_EQ(seen.ends, ends);
        seen.ends.clear();
    }

    static std::string itself() {
        return "session " + std::to_string(getpid()) + " " + std::to_string(getuid()) + " " + std::to_string(getgid());
    }

    EventBase base_{event_base_new()};
    std::unique_ptr<Process> router_;
    std::unique_ptr<Process> peer_;
    Service service;
    Service left;
};

} // namespace

TEST_F(Lives, TwoServicesThatCallEachOtherAtOnceAreBothAnswered) {
    start_router();
    left = start("left", left_methods);
    const Service right = start("right", right_methods);
    for (int i = 0; i < 20; ++i) {
        request(left, "right.Down", json_pack("{s:i}", "n", 9));
        request(right, "left.Down", json_pack("{s:i}", "n", 9));
    }
    expect_ends(Lines(40, "result 0 0"));
}

TEST_F(Lives, AServiceThatCallsItselfIsAnswered) {
    start_both();
    request(left, "t.AskItself");
    expect_ends({"result 0 1"});
    EXPECT_EQ(seen.caller, itself());
}

TEST_F(Lives, AThousandCallsInFlightAtOnceGetEachItsOwnAnswer) {
    start_both("20000", {"--max-in-flight", "4096"}); // a user may have half of the places
    constexpr int total = 1000;
    static std::vector<int> answers; // it outlives the services
    answers.assign(total, -1);
    for (int i = 0; i < total; ++i) {
        ASSERT_NE(tavrix_service_request(
                      left.get(), "t.Hold", json_pack("{s:i}", "n", i), 20000,
                      [](tavrix_service * /*service*/, const tavrix_answer *answer, void *user) {
                          seen.ends.push_back(outcome_of(answer));
                          *static_cast<int *>(user) = static_cast<int>(json_integer_value(answer->result));
                      },
                      &answers[static_cast<size_t>(i)]),
                  0U);
    }
    ASSERT_TRUE(wait([] { return seen.held.size() == total; })) << seen.held.size();
    EXPECT_EQ(seen.ends, Lines{}) << "all are in flight";
    for (auto held = seen.held.rbegin(); held != seen.held.rend(); ++held) {
        EXPECT_EQ(tavrix_call_reply(tavrix_service_deferred(service.get(), held->first), json_integer(held->second)),
                  TAVRIX_OK);
    }
    expect_ends(Lines(total, "result 0"));
    for (int i = 0; i < total; ++i) {
        EXPECT_EQ(answers[static_cast<size_t>(i)], i);
    }
}

TEST_F(Lives, AnswersThatCouldNotArriveAreRefusedAndTheServiceStays) {
    const struct {
        const char *road;
        unsigned flags;
        int fits; ///< characters of a text, which its envelope makes a little larger
        int too_many;
    } rows[] = {{"session", 0, 9371000, 9371648}, {"bus", TAVRIX_SERVICE_BUS, 8388000, 8388608}};
    start_router();
    left = start("left", left_methods);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.road);
        const int gone = router_->times_said("Service t has gone"); // the one before it
        service = start("t", t_methods, row.flags);
        const auto expect_end = [this](const char *method, int n, const std::string &end) {
            request(left, method, json_pack("{s:i}", "n", n));
            expect_ends({end});
        };
        expect_end("t.Fill", row.fits, "result 0");
        expect_end("t.Fill", row.too_many, "error -32004");
        expect_end("t.Nest", 2046, "result 0"); // and the answer's own braces
        expect_end("t.Nest", 2047, "error -32004");
        expect_end("t.Fill", 1, "result 0");
        EXPECT_EQ(router_->times_said("Service t has gone"), gone) << router_->log();
        service.reset();
        ASSERT_TRUE(wait([&] { return router_->times_said("Service t has gone") > gone; }));
    }
    EXPECT_EQ(router_->times_said("Service left has gone"), 0) << router_->log();
}

TEST_F(Lives, ARequestOf65535BytesIsServedAndNoLongerOneIsMade) {
    start_both();
    const auto make = [&](size_t filling) {
        return tavrix_service_request(left.get(), "t.One", json_pack("{s:s}", "f", std::string(filling, 'x').c_str()),
                                      20000, on_end, nullptr);
    };
    size_t largest = 65535;
    while (largest > 0 && make(largest) == 0) {
        --largest;
    }
    // Braces, names and its id, of at most three digits here, are the rest of it.
    EXPECT_GT(largest, 65535U - 80);
    expect_ends({"result 0 1"});
    EXPECT_EQ(seen.served, 1);
}

TEST_F(Lives, AServiceThatIsKilledEndsItsCallsBothWaysAndServesAgain) {
    start_router();
    start_peer();
    service = start("t", t_methods);
    request(service, "x.Never");
    request(service, "x.Ask"); // which asks t.Never
    wait_for_calls_in_flight(3);
    peer_->signal(SIGKILL);
    expect_ends({"gone -32601", "gone -32601"});
    EXPECT_TRUE(wait([] { return abandoned == 1; }));
    start_peer();
    request(service, "x.Echo");
    expect_ends({"result 0 3"});
}

TEST_F(Lives, TheRoutersDeathEndsCallsBothWaysAndItsReturnIsNoticed) {
    start_both();
    request(left, "t.Never");
    wait_for_calls_in_flight(1);
    router_->end_by(SIGKILL);
    expect_ends({"gone -32601"});
    EXPECT_TRUE(wait([] { return abandoned == 1; }));
    start_router();
    ASSERT_TRUE(wait([&] { return tavrix_service_is_ready(left.get()) && tavrix_service_is_ready(service.get()); }));
    request(left, "t.One");
    expect_ends({"result 0 1"});
}

TEST_F(Lives, AServiceOnTheBusThatEndsHasAnsweredWhatIsInFlight) {
    start_router();
    service = start("t", t_methods);
    constexpr int rounds = 15;
    constexpr size_t calls = 20;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        start_peer({"--bus"});
        for (size_t i = 0; i < calls; ++i) {
            request(service, "x.Never");
        }
        wait_for_calls_in_flight(calls);
        peer_->signal(SIGTERM);
        expect_ends(Lines(calls, "error -32014"));
        EXPECT_EQ(peer_->wait(), 0);
    }
}

TEST_F(Lives, AServiceOnTheBusThatEndsIsNotKeptByARouterThatHangsOrHasGone) {
    start_router();
    start_peer({"--bus"});
    router_->signal(SIGSTOP);
    EXPECT_EQ(peer_->end_by(SIGTERM), 0);
    router_->signal(SIGCONT);
    start_peer({"--bus"});
    router_->end_by(SIGKILL);
    ASSERT_TRUE(peer_->says("has gone"));
    EXPECT_EQ(peer_->end_by(SIGTERM), 0);
}

TEST_F(Lives, ACallerIsKnownOnTheSessionAndNobodyOnTheBus) {
    start_router();
    left = start("left", left_methods);
    service = start("t", t_methods);
    request(left, "t.One");
    expect_ends({"result 0 1"});
    EXPECT_EQ(seen.caller, itself());
    service.reset();
    service = start("t", t_methods, TAVRIX_SERVICE_BUS);
    SessionClient client;
    client.say(R"({"jsonrpc":"2.0","id":1,"method":"t.One","caller":{"pid":1,"uid":0,"gid":0}})");
    ASSERT_TRUE(wait([] { return seen.served == 2; }));
    EXPECT_EQ(seen.caller, "bus -1 4294967295 4294967295");
}

TEST_F(Lives, ARequestOnTheBusIsServedOnceByWhicheverAddressItComes) {
    start_router("20000", {"--publish", free_bus_address()});
    left = start("left", left_methods);
    const Service on_bus = start("t", t_methods, TAVRIX_SERVICE_BUS);
    for (int calls = 1; calls <= 100; ++calls) { // long enough for a second connection, which takes its time
        request(left, "t.One");
        expect_ends({"result 0 1"});
        ASSERT_EQ(seen.served, calls);
    }
}

TEST_F(Lives, AServiceThatIsEndedBeforeItServesLeavesNoSocketBehind) {
    setenv("PEER_ENDS_EARLY", "1", 1);
    EXPECT_THAT(run({PEER_SERVICE, "--session", "session.sock", "--publish", "ipc://early"}), ends(0));
    unsetenv("PEER_ENDS_EARLY");
    EXPECT_FALSE(std::filesystem::exists("early"));
}

TEST_F(Lives, ASecondInstanceThatIsRefusedLeavesNoSocketBehind) {
    start_router();
    start_peer();
    const std::vector<std::string> second = {PEER_SERVICE, "--session", "session.sock", "--publish", "ipc://second"};
    std::vector<std::string> demanding = second;
    demanding.emplace_back("--need-router");
    constexpr int rounds = 10;
    for (int round = 0; round < rounds; ++round) {
        EXPECT_THAT(run(demanding), ends(1, _, HasSubstr("is registered already")));
        EXPECT_FALSE(std::filesystem::exists("second"));
        Process patient("patient", second);
        ASSERT_TRUE(patient.says("is registered already"));
        EXPECT_EQ(patient.end_by(SIGTERM), 0);
        EXPECT_FALSE(std::filesystem::exists("second"));
    }
    EXPECT_EQ(run({PEER_SERVICE, "--session", "session.sock"}).status, 1) << "its address is taken";
    EXPECT_TRUE(std::filesystem::exists("bus/peer")) << "and stays the first one's";
}

TEST_F(Lives, ARouterAndServicesFromOtherFoldersFindEachOther) {
    const std::filesystem::path here = std::filesystem::current_path();
    std::filesystem::create_directory("elsewhere");
    std::filesystem::current_path("elsewhere");
    router_ = started_router("ipc://bus/router", {}, "../");
    std::filesystem::current_path(here);
    start_peer({"--bus"});
    EXPECT_TRUE(std::filesystem::exists("elsewhere/bus/peer"));
    start_peer({"--bus", "--publish", "ipc://peer-here"});
    EXPECT_TRUE(std::filesystem::exists("peer-here"));
    EXPECT_TRUE(holds(status(), "ipc://" + here.string() + "/peer-here"));
}

TEST_F(Lives, TheSocketForSingleRequestsIsToldFromTheSessionsOne) {
    start_router();
    const std::string told = "router.sock takes single requests, it is not the router's session socket: name that one "
                             "by --session or TAVRIX_SESSION";
    EXPECT_THAT(run({PEER_SERVICE, "--session", "router.sock", "--need-router"}), ends(1, _, HasSubstr(told)));
    const Process patient("patient", {PEER_SERVICE, "--session", "router.sock"});
    ASSERT_TRUE(patient.says(told)) << patient.log();
    json_t *answer = nullptr;
    EXPECT_EQ(tavrix_request_wait("router.sock", "router.Status", nullptr, 20000, &answer), TAVRIX_ERR_NO_RESPONSE);
}

TEST_F(Lives, LateAnswersAreRefusedAndNoneIsATimeOut) {
    start_both("300");
    request(left, "t.Never");
    request(left, "t.Late");
    expect_ends({"time-out -32005", "time-out -32005"});
    ASSERT_TRUE(wait([] { return abandoned == 2; }));
    EXPECT_EQ(seen.late_reply, TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(tavrix_service_deferred(service.get(), seen.late_call), nullptr);
}
