/*
 * Services of the kit beside the real router: they call each other at once, are killed while they wait for each other,
 * answer late, twice and never, and see thousands of others come and go.
 */
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <event2/event.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "kit/support/played_router.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/process.h"
#include "support/session.h"

namespace {

using support::Process;
using support::Service;

/** What the handlers and callbacks below have seen. */
struct Seen {
    int abandoned = 0;
    std::vector<int> results;
    std::vector<std::string> ends;
    int second_reply = 0;
    int served_twice = 0; ///< how often t.Twice has run
    tavrix_caller caller = {TAVRIX_ROAD_PULL, 0, 0, 0};
    int late_reply = 0;
    uint64_t late_call = 0;
    std::vector<uint64_t> lost;
    std::vector<std::pair<uint64_t, int64_t>> held; ///< calls of t.Hold, by number and n
};
Seen seen;

std::string describe(const tavrix_answer *answer) {
    static const char *const names[] = {"result", "error", "time-out", "gone", "cancelled"};
    return std::string(names[answer->outcome]) + " " + std::to_string(answer->code);
}
void on_end(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    if (answer->outcome == TAVRIX_OUTCOME_RESULT) {
        seen.results.push_back(static_cast<int>(json_integer_value(answer->result)));
    } else {
        seen.ends.push_back(describe(answer));
    }
}

// --- Handlers ---

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
int never(tavrix_call *call) {
    tavrix_call_defer(
        call, [](tavrix_call * /*call*/, void * /*user*/) { ++seen.abandoned; }, nullptr);
    return 0;
}
int late(tavrix_call *call) {
    seen.late_call = tavrix_call_defer(
        call,
        [](tavrix_call *abandoned, void * /*user*/) {
            ++seen.abandoned;
            seen.late_reply = tavrix_call_reply(abandoned, json_integer(1));
        },
        nullptr);
    return 0;
}
int twice(tavrix_call *call) {
    ++seen.served_twice;
    seen.caller = tavrix_call_caller(call);
    tavrix_call_reply(call, json_integer(1));
    seen.second_reply = tavrix_call_reply(call, json_integer(2));
    return 0;
}

/** Waits until the test answers it. */
int hold(tavrix_call *call) {
    seen.held.emplace_back(tavrix_call_defer(call, nullptr, nullptr), tavrix_call_integer(call, "n"));
    return TAVRIX_OK;
}
/** Asks its own service, and answers what that answers. */
int ask_itself(tavrix_call *call) { return ask_for(call, "t.Twice", nullptr); }

const tavrix_service_param count[] = {TAVRIX_PARAM("n", TAVRIX_KIND_INTEGER, "", 0), TAVRIX_PARAM_END};
const support::OneMethod left_down("left.Down", down, count);
const support::OneMethod right_down("right.Down", down, count);
const tavrix_service_method *const left_methods = left_down.table;
const tavrix_service_method *const right_methods = right_down.table;
const tavrix_service_method t_methods[] = {
    TAVRIX_METHOD("t.Never", never, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Late", late, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Twice", twice, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.Fill", support::fill, "", count, nullptr, 0),
    TAVRIX_METHOD("t.Nest", support::nest, "", count, nullptr, 0),
    TAVRIX_METHOD("t.Hold", hold, "", count, nullptr, 0),
    TAVRIX_METHOD("t.AskItself", ask_itself, "", nullptr, nullptr, 0),
    TAVRIX_METHOD_END,
};

// --- The stage ---

class Lives : public testing::Test {
  protected:
    Lives() {
        seen = {};
        support::write_file("tavrix_lsyslog.conf",
                            "[logging_levels]\npeer=info\nrouterd=info\nt=off\nleft=off\nright=off\n");
    }

    void start_router(const std::string &reply_timeout_ms = "20000", std::vector<std::string> more = {}) {
        more.insert(more.end(), {"--reply-timeout", reply_timeout_ms});
        router_ = support::started_router("ipc://bus/router", more);
    }
    void start_peer(const std::vector<std::string> &more = {}) {
        peer_.reset();
        peer_ = support::started("peer", {PEER_SERVICE, "--session", "session.sock"}, more);
    }
    Service start(const char *name, const tavrix_service_method *methods, unsigned flags = 0) {
        tavrix_service_options options = support::with_flags(flags);
        options.base = base_.get();
        return support::started_service(name, methods, options);
    }
    /** A router, the service t, and the service left that calls it. */
    void start_both(const std::string &reply_timeout_ms = "20000", const std::vector<std::string> &more = {},
                    unsigned flags = 0) {
        start_router(reply_timeout_ms, more);
        service = start("t", t_methods, flags);
        left = start("left", left_methods);
    }
    bool wait(const std::function<bool()> &condition) {
        return support::wait_until([&] {
            event_base_loop(base_.get(), EVLOOP_NONBLOCK);
            return condition();
        });
    }
    static void request(const Service &service, const char *method, json_t *params = nullptr) {
        EXPECT_NE(tavrix_service_request(service.get(), method, params, 20000, on_end, nullptr), 0U);
    }
    std::string status() const { return support::SessionClient().ask(support::request("router.Status", "1")); }
    void wait_for_calls_in_flight(size_t calls) {
        const std::string shown = "\"in_flight\":" + std::to_string(calls);
        ASSERT_TRUE(wait([&] { return status().find(shown) != std::string::npos; })) << status();
    }
    /** Until so many calls of all services have ended. */
    void wait_for_ends(size_t calls) {
        ASSERT_TRUE(wait([calls] { return seen.results.size() + seen.ends.size() == calls; }))
            << seen.results.size() << " results, " << seen.ends.size() << " other ends";
    }

    support::EventBase base_{event_base_new()};
    std::unique_ptr<Process> router_;
    std::unique_ptr<Process> peer_;
    Service service;
    Service left;
};

using Ends = std::vector<std::string>;

} // namespace

TEST_F(Lives, TwoServicesThatCallEachOtherAtOnceAreBothAnswered) {
    start_router();
    left = start("left", left_methods);
    const Service right = start("right", right_methods);
    constexpr int calls = 20;
    constexpr size_t both = 40;
    for (int i = 0; i < calls; ++i) {
        request(left, "right.Down", json_pack("{s:i}", "n", 9));
        request(right, "left.Down", json_pack("{s:i}", "n", 9));
    }
    wait_for_ends(both);
    EXPECT_EQ(seen.ends, Ends{});
}

TEST_F(Lives, AServiceThatCallsItselfIsAnswered) {
    start_both();
    request(left, "t.AskItself");
    wait_for_ends(1);
    EXPECT_EQ(seen.results, std::vector<int>{1});
    EXPECT_EQ(seen.caller.pid, getpid());
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
                          seen.ends.push_back(describe(answer));
                          *static_cast<int *>(user) = static_cast<int>(json_integer_value(answer->result));
                      },
                      &answers[static_cast<size_t>(i)]),
                  0U);
    }
    ASSERT_TRUE(wait([] { return seen.held.size() == total; })) << seen.held.size();
    EXPECT_EQ(seen.ends, Ends{}) << "all are in flight";
    for (auto held = seen.held.rbegin(); held != seen.held.rend(); ++held) {
        EXPECT_EQ(tavrix_call_reply(tavrix_service_deferred(service.get(), held->first), json_integer(held->second)),
                  TAVRIX_OK);
    }
    ASSERT_TRUE(wait([] { return seen.ends.size() == total; })) << seen.ends.size();
    EXPECT_EQ(seen.ends, Ends(total, "result 0"));
    for (int i = 0; i < total; ++i) {
        EXPECT_EQ(answers[static_cast<size_t>(i)], i);
    }
}

TEST_F(Lives, CallsBeyondWhatTheRouterLetsOneUserHaveAreEachToldSoAtOnce) {
    start_both("20000", {"--max-in-flight", "20"});
    constexpr size_t half = 10;
    constexpr size_t refused = 5;
    for (size_t i = 0; i < half + refused; ++i) {
        request(left, "t.Hold", json_pack("{s:i}", "n", 0));
    }
    ASSERT_TRUE(wait([] { return seen.held.size() == half && seen.ends.size() == refused; }))
        << seen.held.size() << " held, " << seen.ends.size() << " refused";
    EXPECT_EQ(seen.ends, Ends(refused, "error -32014"));
}

// --- What is too large, or too deep, beside the real router ---------------------------------------------------------

namespace {

/** On the session and on the bus: the largest answers that arrive, and the refusals of larger ones. */
struct Room {
    const char *road;
    unsigned flags;
    int fits; ///< characters of a text, which its envelope makes a little larger
    int too_many;
};

class AnswersBeside : public Lives, public testing::WithParamInterface<Room> {
  protected:
    /** How a call of a method with this n ends. */
    std::string end_of(const char *method, int n) {
        seen.results.clear();
        seen.ends.clear();
        request(left, method, json_pack("{s:i}", "n", n));
        wait_for_ends(1);
        return seen.ends.empty() ? "result" : seen.ends.back();
    }
};

} // namespace

TEST_P(AnswersBeside, TheRouterAreRefusedWhereTheyCouldNotArriveAndTheServiceStays) {
    start_both("20000", {}, GetParam().flags);
    EXPECT_EQ(end_of("t.Fill", GetParam().fits), "result");
    EXPECT_EQ(end_of("t.Fill", GetParam().too_many), "error -32004");
    EXPECT_EQ(end_of("t.Nest", 2046), "result") << "and the answer's own braces";
    EXPECT_EQ(end_of("t.Nest", 2047), "error -32004");
    EXPECT_EQ(end_of("t.Fill", 1), "result");
    EXPECT_EQ(router_->times_said("Service t has gone"), 0) << router_->log();
    EXPECT_EQ(router_->times_said("Service left has gone"), 0) << router_->log();
}

INSTANTIATE_TEST_SUITE_P(Roads, AnswersBeside,
                         testing::Values(Room{"Session", 0, 9371000, 9371648},
                                         Room{"Bus", TAVRIX_SERVICE_BUS, 8388000, 8388608}),
                         [](const auto &tested) { return std::string(tested.param.road); });

TEST_F(Lives, ARequestOf65535BytesIsServedAndNoLongerOneIsMade) {
    start_both();
    const auto make = [&](size_t filling) {
        return tavrix_service_request(left.get(), "t.Twice", json_pack("{s:s}", "f", std::string(filling, 'x').c_str()),
                                      20000, on_end, nullptr);
    };
    size_t largest = 65535;
    while (largest > 0 && make(largest) == 0) {
        --largest;
    }
    // Braces, names and its id, of at most three digits here, are the rest of it.
    EXPECT_GT(largest, 65535U - 80);
    wait_for_ends(1);
    EXPECT_EQ(seen.results, std::vector<int>{1});
    EXPECT_EQ(seen.served_twice, 1);
}

TEST_F(Lives, AServiceThatIsKilledEndsItsCallsBothWaysAndServesAgain) {
    start_router();
    start_peer();
    service = start("t", t_methods);
    request(service, "x.Never");
    request(service, "x.Ask"); // which asks t.Never
    wait_for_calls_in_flight(3);
    peer_->signal(SIGKILL);
    wait_for_ends(2);
    EXPECT_TRUE(wait([] { return seen.abandoned == 1; }));
    EXPECT_EQ(seen.ends, (Ends{"gone -32601", "gone -32601"}));
    start_peer();
    request(service, "x.Echo");
    wait_for_ends(3);
    EXPECT_EQ(seen.results, std::vector<int>{3});
}

TEST_F(Lives, TheRoutersDeathEndsCallsBothWaysAndItsReturnIsNoticed) {
    start_both();
    request(left, "t.Never");
    wait_for_calls_in_flight(1);
    router_->signal(SIGKILL);
    router_->wait();
    EXPECT_TRUE(wait([] { return seen.ends.size() == 1 && seen.abandoned == 1; }));
    EXPECT_EQ(seen.ends, Ends{"gone -32601"});
    seen.ends.clear();
    start_router();
    ASSERT_TRUE(wait([&] { return tavrix_service_is_ready(left.get()) && tavrix_service_is_ready(service.get()); }));
    request(left, "t.Twice");
    wait_for_ends(1);
}

TEST_F(Lives, AServiceOnTheBusThatEndsHasAnsweredWhatIsInFlight) {
    start_router();
    service = start("t", t_methods);
    constexpr int rounds = 15;
    constexpr size_t calls = 20;
    for (int round = 0; round < rounds; ++round) {
        start_peer({"--bus"});
        seen.ends.clear();
        for (size_t i = 0; i < calls; ++i) {
            request(service, "x.Never");
        }
        wait_for_calls_in_flight(calls);
        peer_->signal(SIGTERM);
        wait_for_ends(calls);
        EXPECT_EQ(seen.ends, Ends(calls, "error -32014")) << "in round " << round;
        EXPECT_EQ(peer_->wait(), 0);
    }
}

TEST_F(Lives, AServiceOnTheBusThatEndsDoesNotWaitForARouterThatHasGone) {
    start_router();
    start_peer({"--bus"});
    router_->signal(SIGKILL);
    router_->wait();
    ASSERT_TRUE(peer_->says("has gone"));
    peer_->signal(SIGTERM);
    EXPECT_EQ(peer_->wait(), 0);
}

TEST_F(Lives, AServiceOnTheBusThatEndsWaitsForARouterThatHangsForAWhileOnly) {
    start_router();
    start_peer({"--bus"});
    router_->signal(SIGSTOP);
    peer_->signal(SIGTERM);
    EXPECT_EQ(peer_->wait(), 0);
    router_->signal(SIGCONT);
}

TEST_F(Lives, ACallerIsKnownOnTheSessionAndNobodyOnTheBus) {
    start_router();
    left = start("left", left_methods);
    {
        const Service direct = start("t", t_methods);
        request(left, "t.Twice");
        ASSERT_TRUE(wait([] { return seen.results.size() == 1; }));
        EXPECT_EQ(seen.caller.road, TAVRIX_ROAD_SESSION);
        EXPECT_EQ(seen.caller.pid, getpid());
        EXPECT_EQ(seen.caller.uid, getuid());
        EXPECT_EQ(seen.caller.gid, getgid());
    }
    const Service on_bus = start("t", t_methods, TAVRIX_SERVICE_BUS);
    support::SessionClient client;
    client.say(R"({"jsonrpc":"2.0","id":1,"method":"t.Twice","caller":{"pid":1,"uid":0,"gid":0}})");
    ASSERT_TRUE(wait([] { return seen.caller.road == TAVRIX_ROAD_BUS; }));
    EXPECT_EQ(seen.caller.pid, -1);
    EXPECT_EQ(seen.caller.uid, static_cast<uid_t>(-1));
}

TEST_F(Lives, ARequestOnTheBusIsServedOnceByWhicheverAddressItComes) {
    start_router("20000", {"--publish", support::free_bus_address()});
    left = start("left", left_methods);
    const Service on_bus = start("t", t_methods, TAVRIX_SERVICE_BUS);
    for (size_t calls = 1; calls <= 100; ++calls) { // long enough for a second connection, which takes its time
        request(left, "t.Twice");
        ASSERT_TRUE(wait([calls] { return seen.results.size() == calls; }));
        ASSERT_EQ(seen.served_twice, static_cast<int>(calls));
    }
}

TEST_F(Lives, AServiceThatIsEndedBeforeItServesLeavesNoSocketBehind) {
    setenv("PEER_ENDS_EARLY", "1", 1);
    const support::Finished early =
        support::run({PEER_SERVICE, "--session", "session.sock", "--publish", "ipc://early"});
    unsetenv("PEER_ENDS_EARLY");
    EXPECT_EQ(early.status, 0) << early.diagnostics;
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
        const support::Finished finished = support::run(demanding);
        EXPECT_EQ(finished.status, 1);
        EXPECT_TRUE(support::holds(finished.diagnostics, "is registered already"));
        EXPECT_FALSE(std::filesystem::exists("second"));
        Process patient("patient", second);
        ASSERT_TRUE(patient.says("is registered already"));
        patient.signal(SIGTERM);
        EXPECT_EQ(patient.wait(), 0);
        EXPECT_FALSE(std::filesystem::exists("second"));
    }
    EXPECT_EQ(support::run({PEER_SERVICE, "--session", "session.sock"}).status, 1) << "its address is taken";
    EXPECT_TRUE(std::filesystem::exists("bus/peer")) << "and stays the first one's";
}

TEST_F(Lives, ARouterAndServicesFromOtherFoldersFindEachOther) {
    const std::filesystem::path here = std::filesystem::current_path();
    std::filesystem::create_directory("elsewhere");
    std::filesystem::current_path("elsewhere");
    router_ = support::started_router("ipc://bus/router", {}, "../");
    std::filesystem::current_path(here);
    start_peer({"--bus"});
    EXPECT_TRUE(std::filesystem::exists("elsewhere/bus/peer"));
    start_peer({"--bus", "--publish", "ipc://peer-here"});
    EXPECT_TRUE(std::filesystem::exists("peer-here"));
    EXPECT_TRUE(support::holds(status(), "ipc://" + here.string() + "/peer-here"));
}

TEST_F(Lives, TheSocketForSingleRequestsIsToldFromTheSessionsOne) {
    start_router();
    const std::string told = "router.sock takes single requests, it is not the router's session socket: name that one "
                             "by --session or TAVRIX_SESSION";
    const support::Finished demanding = support::run({PEER_SERVICE, "--session", "router.sock", "--need-router"});
    EXPECT_EQ(demanding.status, 1);
    EXPECT_TRUE(support::holds(demanding.diagnostics, told));
    const Process patient("patient", {PEER_SERVICE, "--session", "router.sock"});
    ASSERT_TRUE(patient.says(told)) << patient.log();
    json_t *answer = nullptr;
    EXPECT_EQ(tavrix_request_wait("router.sock", "router.Status", nullptr, 20000, &answer), TAVRIX_ERR_NO_RESPONSE);
}

TEST_F(Lives, LateAnswersAreRefusedSecondOnesTooAndNoneIsATimeOut) {
    start_both("300");
    request(left, "t.Twice");
    wait_for_ends(1);
    EXPECT_EQ(seen.results, std::vector<int>{1});
    EXPECT_EQ(seen.second_reply, TAVRIX_ERR_NO_RECORDS);
    request(left, "t.Never");
    request(left, "t.Late");
    ASSERT_TRUE(wait([] { return seen.ends.size() == 2 && seen.abandoned == 2; }));
    EXPECT_EQ(seen.ends, (Ends{"time-out -32005", "time-out -32005"}));
    EXPECT_EQ(seen.late_reply, TAVRIX_ERR_NO_RECORDS);
    EXPECT_EQ(tavrix_service_deferred(service.get(), seen.late_call), nullptr);
}

TEST_F(Lives, AServiceThatDoesNotReadIsToldHowManyNotificationsItHasLost) {
    start_router();
    std::map<std::string, uint64_t> heard;
    service = start("t", t_methods);
    tavrix_service_on_lost(
        service.get(),
        [](tavrix_service * /*service*/, uint64_t how_many, void * /*user*/) { seen.lost.push_back(how_many); },
        nullptr);
    const auto count_heard = [](tavrix_service * /*service*/, const char *method, json_t * /*params*/, void *user) {
        ++(*static_cast<std::map<std::string, uint64_t> *>(user))[method];
    };
    ASSERT_NE(tavrix_service_subscribe(service.get(), "events.*", count_heard, &heard), 0U);
    support::DirectService publisher(
        {"flood", "505a5451-3ef2-4618-8087-9a22b800a510", "[]", R"(["events.List"])", "true"});
    const auto publish = [&](const std::string &method, const std::string &filling) {
        return publisher.say_bytes(R"({"jsonrpc":"2.0","method":")" + method + R"(","params":{"filling":")" + filling +
                                   "\"}}\n");
    };
    ASSERT_TRUE(wait([&] { return publish("events.Settled", "") && heard["events.Settled"] > 0; }));
    constexpr uint64_t flood = 800; // eight megabytes, beyond what router and kernel keep for one session
    const std::string filling(10000, 'x');
    for (uint64_t i = 0; i < flood; ++i) {
        ASSERT_TRUE(publish("events.Told", filling));
    }
    publisher.say(support::request("router.Status", "\"taken\""));
    ASSERT_TRUE(support::holds(publisher.hear_of("\"taken\""), "result"))
        << "the router has taken them all before the service reads again";
    ASSERT_TRUE(wait([] { return !seen.lost.empty(); })) << heard["events.Told"];
    EXPECT_GT(heard["events.Told"], 0U) << "what was kept for it comes first";
    EXPECT_EQ(heard["events.Told"] + seen.lost.front(), flood);
    EXPECT_TRUE(publish("events.After", ""));
    EXPECT_TRUE(wait([&] { return heard["events.After"] == 1; })) << "it goes on hearing";
    EXPECT_EQ(seen.lost.size(), 1U);
}

TEST_F(Lives, TenThousandRegistrationsLeaveNothingBehind) {
    start_router();
    service = start("t", t_methods);
    const std::string descriptors = "/proc/" + std::to_string(router_->pid()) + "/fd";
    const auto open = [&] {
        return std::distance(std::filesystem::directory_iterator(descriptors), std::filesystem::directory_iterator{});
    };
    const auto before = open();
    constexpr int rounds = 200;
    constexpr int at_once = 50;
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::unique_ptr<support::SessionClient>> others;
        for (int i = 0; i < at_once; ++i) {
            others.push_back(std::make_unique<support::SessionClient>());
            others.back()->say(support::Registration{"s" + std::to_string(round * at_once + i),
                                                     "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3", "[]",
                                                     "[\"y" + std::to_string(i) + ".Get\"]"}
                                   .line());
        }
        for (auto &other : others) {
            ASSERT_EQ(support::member(other->hear(), "result"), "0") << router_->log();
            event_base_loop(base_.get(), EVLOOP_NONBLOCK);
        }
    }
    EXPECT_TRUE(wait([&] { return open() == before; })) << open() << " descriptors instead of " << before;
    // Those that have gone are remembered for a while, up to a bound; none of them is there.
    const std::string known = status();
    EXPECT_EQ(support::count_of(known, "\"state\":\"up\""), 1) << known;
    EXPECT_LE(support::count_of(known, "\"state\":"), 256);
    EXPECT_TRUE(tavrix_service_is_ready(service.get()));
    left = start("left", left_methods);
    request(left, "t.Twice");
    wait_for_ends(1);
}
