/*
 * Services of the kit beside the real router: they call each other at once, are killed while they wait for each other,
 * answer late and never, and see thousands of others come and go.
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
#include "support/log_capture.h"
#include "support/matchers.h"
#include "support/process.h"
#include "support/session.h"

namespace {

using support::Lines;
using support::Process;
using support::Service;
using testing::_;
using testing::HasSubstr;

/** What the handlers and callbacks below have seen. */
struct Seen {
    Lines ends;     ///< of calls; behind an integer that is the result
    int served = 0; ///< how often t.One has run
    std::string caller;
    int late_reply = 0;
    uint64_t late_call = 0;
    std::vector<uint64_t> lost;
    std::vector<std::pair<uint64_t, int64_t>> held; ///< calls of t.Hold, by number and n
};
Seen seen;

void on_end(tavrix_service * /*service*/, const tavrix_answer *answer, void * /*user*/) {
    const std::string value = json_is_integer(answer->result) ? " " + support::rendered(answer->result) : "";
    seen.ends.push_back(support::outcome_of(answer) + value);
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
        [](tavrix_call *abandoned, void * /*user*/) {
            ++support::abandoned;
            seen.late_reply = tavrix_call_reply(abandoned, json_integer(1));
        },
        nullptr);
    return 0;
}
int one(tavrix_call *call) {
    ++seen.served;
    seen.caller = support::caller_of(call);
    return tavrix_call_reply(call, json_integer(1));
}

/** Waits until the test answers it. */
int hold(tavrix_call *call) {
    seen.held.emplace_back(tavrix_call_defer(call, nullptr, nullptr), tavrix_call_integer(call, "n"));
    return TAVRIX_OK;
}
/** Asks its own service, and answers what that answers. */
int ask_itself(tavrix_call *call) { return ask_for(call, "t.One", nullptr); }

const support::Rows count = {TAVRIX_PARAM("n", TAVRIX_KIND_INTEGER, "", 0)};
const support::Methods left_methods = {{"left.Down", down, count}};
const support::Methods right_methods = {{"right.Down", down, count}};
const support::Methods t_methods = {{"t.Never", support::defer},
                                    {"t.Late", late},
                                    {"t.One", one},
                                    {"t.Fill", support::fill, count},
                                    {"t.Nest", support::nest, count},
                                    {"t.Hold", hold, count},
                                    {"t.AskItself", ask_itself}};

class Lives : public testing::Test {
  protected:
    Lives() {
        seen = {};
        support::abandoned = 0;
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
    /** The calls of all services end so, in their order; then others may be made. */
    void expect_ends(const Lines &ends) {
        wait([&] { return seen.ends.size() == ends.size(); });
        EXPECT_EQ(seen.ends, ends);
        seen.ends.clear();
    }

    static std::string itself() {
        return "session " + std::to_string(getpid()) + " " + std::to_string(getuid()) + " " + std::to_string(getgid());
    }

    support::EventBase base_{event_base_new()};
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
                          seen.ends.push_back(support::outcome_of(answer));
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

TEST_F(Lives, CallsBeyondWhatTheRouterLetsOneUserHaveAreEachToldSoAtOnce) {
    start_both("20000", {"--max-in-flight", "20"});
    constexpr size_t half = 10;
    constexpr size_t refused = 5;
    for (size_t i = 0; i < half + refused; ++i) {
        request(left, "t.Hold", json_pack("{s:i}", "n", 0));
    }
    ASSERT_TRUE(wait([] { return seen.held.size() == half; })) << seen.held.size();
    expect_ends(Lines(refused, "error -32014"));
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
    EXPECT_TRUE(wait([] { return support::abandoned == 1; }));
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
    EXPECT_TRUE(wait([] { return support::abandoned == 1; }));
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
    support::SessionClient client;
    client.say(R"({"jsonrpc":"2.0","id":1,"method":"t.One","caller":{"pid":1,"uid":0,"gid":0}})");
    ASSERT_TRUE(wait([] { return seen.served == 2; }));
    EXPECT_EQ(seen.caller, "bus -1 4294967295 4294967295");
}

TEST_F(Lives, ARequestOnTheBusIsServedOnceByWhicheverAddressItComes) {
    start_router("20000", {"--publish", support::free_bus_address()});
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
    EXPECT_THAT(support::run({PEER_SERVICE, "--session", "session.sock", "--publish", "ipc://early"}),
                support::ends(0));
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
        EXPECT_THAT(support::run(demanding), support::ends(1, _, HasSubstr("is registered already")));
        EXPECT_FALSE(std::filesystem::exists("second"));
        Process patient("patient", second);
        ASSERT_TRUE(patient.says("is registered already"));
        EXPECT_EQ(patient.end_by(SIGTERM), 0);
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
    EXPECT_THAT(support::run({PEER_SERVICE, "--session", "router.sock", "--need-router"}),
                support::ends(1, _, HasSubstr(told)));
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
    ASSERT_TRUE(wait([] { return support::abandoned == 2; }));
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
    support::DirectService publisher({"flood", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.List"])", "true"});
    const auto publish = [&](const std::string &method, const std::string &filling) {
        return publisher.say_bytes(support::notification(method, R"({"filling":")" + filling + "\"}") + "\n");
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
    request(left, "t.One");
    expect_ends({"result 0 1"});
}
