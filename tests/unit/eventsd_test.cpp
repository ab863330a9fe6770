/*
 * The methods of the events service, driven by the test kit: the ports service and the clock are the test's.
 */
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "events/methods.h"
#include "support/json.h"
#include "support/process.h"
#include "tavrix_jrpc.h"
#include "tavrix_shm.h"
#include "testkit/driven_service.h"

using namespace driven;
using namespace support;

namespace {

constexpr int wait_timeout_ms = 600;
constexpr int caller_patience_ms = 10000; // the router's reply time-out, unless it is told another
constexpr char ports_get[] = "ports.Get";
const std::string nothing = "(none)";

std::string event(int number, const std::string &kind, const std::string &entity, const std::string &text) {
    return R"({"number":)" + std::to_string(number) + R"(,"kind":")" + kind + R"(","entity":")" + entity +
           R"(","text":")" + text + "\"}";
}

std::string told(const std::string &params) { return R"({"method":"events.LinkChanged","params":)" + params + "}"; }

class EventsService : public testing::Test {
  protected:
    EventsService() {
        context.wait_timeout_ms = wait_timeout_ms;
        context.slot = "/tavrix-test-eventsd-" + std::to_string(getpid());
        driven = std::make_unique<Service>("eventsd", events::methods(), &context, events::share_number);
    }
    ~EventsService() override { shm_unlink(context.slot.c_str()); }

    std::string call(const char *method, const std::string &params = "{}") { return driven->call(method, params); }
    std::string get(int number) { return call("events.Get", R"({"number":)" + std::to_string(number) + "}"); }
    std::string report(const std::string &text) { return call("events.Report", R"({"text":")" + text + "\"}"); }
    std::string describe(const std::string &port_id) {
        return call("events.Describe", R"({"port_id":")" + port_id + "\"}");
    }
    void play_script(const std::vector<events::LinkChange> &script, int interval_ms) {
        context.script = script;
        EXPECT_TRUE(events::play_script(driven->service(), &context, interval_ms));
    }
    int shared_number() const {
        int number = -1;
        tavrix_shm_get_int(context.slot.c_str(), &number);
        return number;
    }

    events::Context context;
    std::unique_ptr<Service> driven;
};

const std::string no_records = code_and_words(TAVRIX_JRPC_NO_RECORDS, TAVRIX_ERR_NO_RECORDS);

} // namespace

// --- What has happened -----------------------------------------------------------------------------------------------

TEST_F(EventsService, HasNoEventAtFirstAndMakesOneOfAReport) {
    EXPECT_EQ(code_and_words(call("events.Last")), no_records);
    EXPECT_EQ(code_and_words(get(1)), no_records);
    EXPECT_EQ(report("door open"), result(event(1, "report", "", "door open")));
    EXPECT_EQ(report(""), result(event(2, "report", "", "")));
    EXPECT_EQ(get(1), result(event(1, "report", "", "door open")));
    EXPECT_EQ(call("events.Last"), result(event(2, "report", "", "")));
    for (const int number : {3, 0, -1}) {
        EXPECT_EQ(code_and_words(get(number)), no_records) << number;
    }
    EXPECT_EQ(driven->next_notification(), nothing) << "only link changes are told";
}

TEST_F(EventsService, KeepsTheLatestThousand) {
    for (int i = 0; i < 1000; ++i) {
        report("x");
    }
    EXPECT_EQ(get(1), result(event(1, "report", "", "x")));
    report("one more");
    EXPECT_EQ(code_and_words(get(1)), no_records);
    EXPECT_EQ(get(2), result(event(2, "report", "", "x")));
    EXPECT_EQ(get(1001), result(event(1001, "report", "", "one more")));
}

TEST_F(EventsService, PlaysItsScriptInTurnAndTellsOfEachChange) {
    play_script({{"c1-1", "up"}, {"d2", "down"}}, 250);
    driven->advance(249);
    EXPECT_EQ(driven->next_notification(), nothing);
    driven->advance(1);
    EXPECT_EQ(driven->next_notification(), told(event(1, "link", "c1-1", "up")));
    EXPECT_EQ(driven->next_notification(), nothing);
    driven->advance(500);
    EXPECT_EQ(driven->next_notification(), told(event(2, "link", "d2", "down")));
    EXPECT_EQ(driven->next_notification(), told(event(3, "link", "c1-1", "up"))) << "again from its start";
    EXPECT_EQ(call("events.Last"), result(event(3, "link", "c1-1", "up")));
}

TEST_F(EventsService, TellsNothingWithoutAScript) {
    play_script({}, 1);
    driven->advance(1000);
    EXPECT_EQ(driven->next_notification(), nothing);
    EXPECT_EQ(code_and_words(call("events.Last")), no_records);
}

TEST_F(EventsService, ReadsAScriptLineByLine) {
    write_file("links.txt", "# port and state\n\nc1-1 up\n  C128-99\tdown  \n#d1 up\nd4 down");
    std::vector<events::LinkChange> script;
    EXPECT_TRUE(events::read_script("links.txt", &script));
    ASSERT_EQ(script.size(), 3U);
    EXPECT_EQ(script[0].port_id + script[0].state, "c1-1up");
    EXPECT_EQ(script[1].port_id + script[1].state, "C128-99down");
    EXPECT_EQ(script[2].port_id + script[2].state, "d4down");
    for (const char *line : {"c1-1", "c1-1 sideways", "c1-1 up down", "c129-1 up", "c1 up", "all up", "d5 up"}) {
        write_file("bad.txt", std::string("d1 up\n") + line + "\n");
        EXPECT_FALSE(events::read_script("bad.txt", &script)) << line;
    }
    EXPECT_FALSE(events::read_script("missing.txt", &script));
}

// --- Parameters that are refused -------------------------------------------------------------------------------------

TEST_F(EventsService, RefusesNumbersThatAreNoEvents) {
    constexpr char method[] = "events.Get";
    const std::string range = "-2147483648 to 2147483647";
    driven->expect_refusal(method, "", "number", "", "is missing: " + range);
    driven->expect_refusal(method, "", "number", "\"1\"", "is not an integer in " + range);
    driven->expect_refusal(method, "", "number", "1.5", "is not an integer in " + range);
    report("which a number that is cut would name");
    for (const char *value : {"4294967297", "2147483648", "-2147483649"}) {
        driven->expect_refusal(method, "", "number", value, "is not in " + range);
    }
}

TEST_F(EventsService, RefusesReportsThatAreNoLineOfText) {
    constexpr char method[] = "events.Report";
    const std::string allowed = "a text of 0 to 127 characters";
    driven->expect_refusal(method, "", "text", "", "is missing: " + allowed);
    driven->expect_refusal(method, "", "text", "7", "is not " + allowed);
    driven->expect_refusal(method, "", "text", "null", "is not " + allowed);
    driven->expect_refusal(method, "", "text", R"("two\nlines")", "holds a control character");
    for (const std::string &too_long : {std::string(128, 'x'), std::string(127, 'x') + "\xc3\xa9"}) {
        const std::string outcome = report(too_long);
        EXPECT_EQ(code_of(outcome), std::to_string(TAVRIX_JRPC_INVALID_PARAMS)) << too_long;
        const std::string data = member(member(outcome, "error"), "data");
        EXPECT_EQ(member(data, "parameter"), "\"text\"");
        EXPECT_EQ(member(data, "allowed"), "\"" + allowed + "\"");
    }
    EXPECT_EQ(code_and_words(call("events.Last")), no_records) << "nothing was made of any of them";
    for (const std::string &fits : {std::string(127, 'x'), std::string(126, 'x') + "\xc3\xa9"}) {
        EXPECT_EQ(member(member(report(fits), "result"), "text"), "\"" + fits + "\"");
    }
}

TEST_F(EventsService, RefusesToDescribeWhatIsNoPort) {
    constexpr char method[] = "events.Describe";
    const std::string allowed = "a port c1-1 to c128-99, a port d1 to d4";
    driven->expect_refusal(method, "", "port_id", "", "is missing: " + allowed);
    driven->expect_refusal(method, "", "port_id", "[]", "is not " + allowed);
    for (const char *port_id : {"", "x1", "c1", "all", "d5", "c129-1", "c1-0"}) {
        driven->expect_refusal(method, "", "port_id", quoted(port_id), "is not " + allowed);
    }
    EXPECT_EQ(driven->next_request(), nothing) << "the ports service is not asked";
}

TEST_F(EventsService, HasNoOtherMethod) {
    EXPECT_EQ(code_of(call("events.Nothing")), std::to_string(TAVRIX_JRPC_METHOD_NOT_FOUND));
    EXPECT_EQ(code_of(call("events.LinkChanged")), std::to_string(TAVRIX_JRPC_METHOD_NOT_FOUND)) << "it is told only";
}

// --- Asking the ports service ----------------------------------------------------------------------------------------

TEST_F(EventsService, DescribesAPortAsThePortsServiceShowsItWithItsLatestEvent) {
    play_script({{"c1-1", "up"}, {"c1-1", "down"}, {"d2", "up"}}, 10);
    driven->advance(30);
    report("of no port");
    driven->play(ports_get, R"({"result":{"ports":[{"port_id":"c1-1","status":"enable"}]}})");
    const std::string ports = R"({"ports":[{"port_id":"c1-1","status":"enable"}],"last_event":)";
    EXPECT_EQ(describe("c1-1"), result(ports + event(2, "link", "c1-1", "down") + "}"));
    EXPECT_EQ(describe("C1-1"), result(ports + event(2, "link", "c1-1", "down") + "}"));
    EXPECT_EQ(describe("c1-2"), result(ports + "null}"));
}

TEST_F(EventsService, AsksForThePortThatItIsAskedFor) {
    EXPECT_EQ(describe("d1"), nothing) << "it is answered when the ports service has answered";
    EXPECT_EQ(driven->next_request(), R"({"method":"ports.Get","params":{"port_id":"d1"}})");
    EXPECT_EQ(driven->next_request(), nothing);
    EXPECT_EQ(code_and_words(call("events.Last")), no_records) << "others are served meanwhile";
    EXPECT_EQ(driven->next_outcome(), nothing);
    EXPECT_TRUE(driven->answer(ports_get, R"({"result":{"ports":[1]}})"));
    EXPECT_EQ(driven->next_outcome(), result(R"({"ports":[1],"last_event":null})"));
    EXPECT_EQ(driven->next_outcome(), nothing);
}

TEST_F(EventsService, GivesEachCallerTheAnswerToHisQuestion) {
    describe("d1");
    describe("d2");
    driven->cancel(1);
    EXPECT_FALSE(driven->answer(ports_get, R"({"result":{"ports":["first"]}})")) << "nobody waits for it any more";
    EXPECT_EQ(driven->next_outcome(), nothing);
    EXPECT_TRUE(driven->answer(ports_get, R"({"result":{"ports":["second"]}})"));
    EXPECT_EQ(driven->next_outcome(), result(R"({"ports":["second"],"last_event":null})"));
    EXPECT_EQ(driven->next_outcome(), nothing);
}

TEST_F(EventsService, PassesTheErrorOfThePortsServiceOnAsItCameOrThatThereIsNone) {
    for (const auto &[code, data] : {std::pair<std::string, std::string>("-32034", R"({"message":"why","more":[1]})"),
                                     {"-32034", "null"},
                                     {"-32034", ""},
                                     {"-32601", R"({"message":"no service is there for ports.Get","channel":"c"})"}}) {
        driven->play(ports_get, R"({"error":{"code":)" + code + R"(,"message":"m")" +
                                    (data.empty() ? "" : ",\"data\":" + data) + "}}");
        const std::string error = member(describe("d1"), "error");
        EXPECT_EQ(member(error, "code"), code);
        EXPECT_EQ(member(error, "data"), data.empty() ? "null" : data);
    }
}

TEST_F(EventsService, FailsWhenTheAnswerShowsNoPorts) {
    for (const char *played : {R"({"result":0})", R"({"result":{}})", R"({"result":[]})"}) {
        driven->play(ports_get, played);
        EXPECT_EQ(code_of(describe("d1")), std::to_string(TAVRIX_JRPC_INTERNAL_ERROR)) << played;
    }
}

TEST_F(EventsService, GivesUpOnThePortsServiceInItsTimeOnly) {
    describe("d1");
    driven->advance(wait_timeout_ms - 1);
    EXPECT_EQ(driven->next_outcome(), nothing);
    driven->advance(1);
    EXPECT_EQ(code_of(driven->next_outcome()), std::to_string(TAVRIX_JRPC_TIMED_OUT));
    EXPECT_FALSE(driven->answer(ports_get, R"({"result":{"ports":[]}})")) << "it is too late";
    EXPECT_EQ(driven->next_outcome(), nothing);
    describe("d1");
    EXPECT_TRUE(driven->answer(ports_get, R"({"result":{"ports":[]}})"));
    EXPECT_EQ(driven->next_outcome(), result(R"({"ports":[],"last_event":null})"));
}

TEST_F(EventsService, AsksNoLongerThanItsCallerWaits) {
    context.wait_timeout_ms = 2 * caller_patience_ms;
    describe("d1");
    driven->advance(caller_patience_ms);
    EXPECT_FALSE(driven->answer(ports_get, R"({"result":{"ports":[]}})")) << "the question has ended with the call";
    EXPECT_EQ(driven->next_outcome(), nothing) << "the router has answered him";
}

TEST_F(EventsService, ForgetsItsQuestionsWithTheRouter) {
    describe("d1");
    driven->restart_router();
    EXPECT_FALSE(driven->answer(ports_get, R"({"result":{"ports":[]}})"));
    EXPECT_EQ(driven->next_outcome(), nothing) << "the next router knows nothing of the caller";
    driven->play(ports_get, R"({"result":{"ports":[]}})");
    EXPECT_EQ(describe("d2"), result(R"({"ports":[],"last_event":null})"));
}

TEST_F(EventsService, AnswersThoseWhoWaitWhenItStops) {
    describe("d1");
    driven->stop();
    EXPECT_TRUE(driven->is_stopped());
    EXPECT_EQ(code_of(driven->next_outcome()), std::to_string(TAVRIX_JRPC_SYSTEM_BUSY));
    EXPECT_EQ(driven->next_outcome(), nothing) << "one answer is all";
    EXPECT_FALSE(driven->answer(ports_get, R"({"result":{"ports":[]}})"));
    EXPECT_EQ(code_of(call("events.Last")), std::to_string(TAVRIX_JRPC_SYSTEM_BUSY));
}

TEST_F(EventsService, RefusesTheDescriptionThatIsOneTooMany) {
    for (int i = 0; i < TAVRIX_SERVICE_MAX_DEFERRED; ++i) {
        ASSERT_EQ(describe("d1"), nothing) << i;
    }
    EXPECT_EQ(code_of(describe("d1")), std::to_string(TAVRIX_JRPC_SYSTEM_BUSY));
    driven->advance(wait_timeout_ms);
    for (int i = 0; i < TAVRIX_SERVICE_MAX_DEFERRED; ++i) {
        ASSERT_EQ(code_of(driven->next_outcome()), std::to_string(TAVRIX_JRPC_TIMED_OUT)) << i;
    }
    EXPECT_EQ(driven->next_outcome(), nothing);
    EXPECT_EQ(describe("d1"), nothing) << "there is room again";
}

// --- The shared number -----------------------------------------------------------------------------------------------

TEST_F(EventsService, SharesTheNumberOfItsLastEventWhenItRegistersAgainToo) {
    EXPECT_EQ(shared_number(), 0) << "numbers begin anew";
    report("one");
    EXPECT_EQ(shared_number(), 1);
    driven->restart_router();
    EXPECT_EQ(shared_number(), 1);
    play_script({{"d1", "up"}}, 10);
    driven->advance(20);
    EXPECT_EQ(shared_number(), 3);
}

TEST_F(EventsService, GoesOnWithAnErrorInItsLogWhenTheSlotHasGone) {
    shm_unlink(context.slot.c_str());
    EXPECT_EQ(report("one"), result(event(1, "report", "", "one")));
    EXPECT_TRUE(driven->logged("ERROR The number of event 1 is not shared"));
}

TEST_F(EventsService, LeavesTheSlotToAnotherUntilItHasRegistered) {
    report("the other's");
    events::Context second;
    second.slot = context.slot;
    second.log.add("report", "", "one");
    second.log.add("report", "", "two");
    EXPECT_EQ(shared_number(), 1);
    const Service registered("eventsd", events::methods(), &second, events::share_number);
    EXPECT_EQ(shared_number(), 2) << "what it has counted before";
    EXPECT_FALSE(registered.is_stopped());
}

TEST_F(EventsService, NeedsNoSlotButEndsWhenItCannotUseTheOneThatIsNamed) {
    for (const std::string slot : {"", "/no/slot"}) {
        events::Context other;
        other.slot = slot;
        driven::Service service("eventsd", events::methods(), &other, events::share_number);
        EXPECT_EQ(service.is_stopped(), !slot.empty());
        EXPECT_EQ(other.has_failed, !slot.empty());
        EXPECT_EQ(service.logged("ERROR Cannot share the last event's number in /no/slot: Invalid argument; is the "
                                 "slot another user's? --slot names another"),
                  !slot.empty());
        if (slot.empty()) {
            EXPECT_EQ(service.call("events.Report", R"({"text":"one"})"), result(event(1, "report", "", "one")));
            EXPECT_FALSE(service.logged("not shared"));
        }
    }
}
