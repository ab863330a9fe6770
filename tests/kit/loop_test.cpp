/*
 * The loop beside a serving service: what a program puts on tavrix_service_base() itself, the library's timers and the
 * library's direct sockets work between the service's calls, and a loop of the program's own carries the service.
 */
#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "tavrix.h"

using namespace support;

namespace {

struct FreeEvent {
    void operator()(event *ev) const { event_free(ev); }
};
using Event = std::unique_ptr<event, FreeEvent>;

/** What happened, in its order: a letter each. */
std::string happened;

int note(tavrix_call *call) {
    happened += 'k';
    return echo(call);
}
int note_and_defer(tavrix_call *call) {
    happened += 'k';
    return defer(call);
}
const Methods methods = {{"t.Echo", note}, {"t.Defer", note_and_defer}};

/** A handler of the library's own servers. */
int say(json_t * /*params*/, json_t **result, json_t ** /*error_data*/) {
    happened += 'l';
    *result = json_string("library");
    return TAVRIX_OK;
}
const tavrix_jrpc_method library_methods[] = {{"own.Say", say}, {nullptr, nullptr}};

class Loop : public testing::Test {
  protected:
    Loop() { happened.clear(); }

    /** Puts a descriptor on the service's loop as any program does; it is closed at the end. */
    void watch(int fd, event_callback_fn callback) {
        descriptors_.emplace_back(fd);
        add(Event(event_new(base(), fd, EV_READ | EV_PERSIST, callback, nullptr)), nullptr);
    }
    void add(Event ev, const timeval *time) {
        ASSERT_NE(ev, nullptr);
        ASSERT_EQ(event_add(ev.get(), time), 0);
        watches_.push_back(std::move(ev));
    }
    /** A timer of the library's that goes on expiring, a millisecond each. */
    static int library_timer() {
        int timer = -1;
        EXPECT_EQ(tavrix_timer_init(&timer, 1), TAVRIX_OK);
        EXPECT_EQ(tavrix_timer_nsec_set(timer, 0.001F, 0.001F), TAVRIX_OK);
        return timer;
    }
    event_base *base() { return tavrix_service_base(stage.service); }
    static long count(char letter) { return std::count(happened.begin(), happened.end(), letter); }
    /** Waits until it has happened once more than before. */
    bool again(char letter) {
        const long before = count(letter);
        return stage.wait([&] { return count(letter) > before; });
    }

    LogCapture log{"info"};
    EventBase own; ///< goes last
    Stage stage{methods};

  private:
    std::vector<tavrix::Descriptor> descriptors_;
    std::vector<Event> watches_; ///< go before what they watch, and before their loop
};

void on_library_timer(evutil_socket_t fd, short /*what*/, void * /*argument*/) {
    if (tavrix_timer_read(fd) == TAVRIX_OK) {
        happened += 't';
    }
}
void on_library_client(evutil_socket_t fd, short /*what*/, void * /*argument*/) {
    EXPECT_EQ(tavrix_jrpc_unix_socket_run(&fd, library_methods), TAVRIX_OK);
}
void on_bytes(evutil_socket_t fd, short /*what*/, void * /*argument*/) {
    char byte = '\0';
    if (read(fd, &byte, 1) == 1) {
        happened += byte;
    }
}
void on_own_timer(evutil_socket_t /*fd*/, short /*what*/, void * /*argument*/) { happened += 'o'; }

} // namespace

TEST_F(Loop, ATimerOfTheLibrarysRunsBetweenTheServicesCalls) {
    watch(library_timer(), on_library_timer);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(again('t'));
        EXPECT_EQ(stage.result_of("t.Echo", R"({"a":1})"), R"({"a":1})");
    }
    EXPECT_TRUE(again('t')) << "it goes on after the last call";
    EXPECT_EQ(count('k'), 5);
}

TEST_F(Loop, ADirectServerOfTheLibrarysAnswersBesideTheKitsAndTheSession) {
    int listener = -1;
    ASSERT_EQ(tavrix_jrpc_unix_socket_init("library.sock", &listener, 1), TAVRIX_OK);
    ASSERT_GT(listener, 0);
    watch(listener, on_library_client);
    ASSERT_NE(tavrix_service_listen_unix(stage.service, "kit.sock"), 0U);
    for (int i = 0; i < 3; ++i) {
        const StreamClient to_library = StreamClient::unix_path("library.sock");
        const StreamClient to_kit = StreamClient::unix_path("kit.sock");
        to_library.say(request("own.Say", "1"));
        to_kit.say(request("t.Echo", "1", R"(,"params":{"b":2})"));
        EXPECT_EQ(stage.result_of("t.Echo", R"({"a":1})"), R"({"a":1})");
        EXPECT_EQ(member(stage.hear(to_library), "result"), "\"library\"");
        EXPECT_EQ(member(stage.hear(to_kit), "result"), R"({"b":2})");
    }
    EXPECT_EQ(count('l'), 3);
    EXPECT_EQ(count('k'), 6);
    EXPECT_EQ(unlink("library.sock"), 0);
}

TEST_F(Loop, DescriptorsAndTimersOfTheProgramsOwnMoveWhileACallWaits) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    watch(ends[0], on_bytes);
    const timeval tick = {0, 1000};
    add(Event(event_new(base(), -1, EV_PERSIST, on_own_timer, nullptr)), &tick);
    stage.router.say(direct_request("t.Defer", "{}", 9));
    ASSERT_TRUE(stage.wait([] { return deferred != 0; }));
    EXPECT_TRUE(again('o'));
    EXPECT_EQ(write(ends[1], "p", 1), 1);
    EXPECT_TRUE(stage.wait([] { return count('p') == 1; }));
    EXPECT_EQ(stage.result_of("t.Echo", R"({"a":1})"), R"({"a":1})") << "another call meanwhile";
    // What waits is answered from the program's own event.
    add(Event(event_new(
            base(), -1, 0,
            [](evutil_socket_t /*fd*/, short /*what*/, void *used) {
                tavrix_call_reply(static_cast<Stage *>(used)->deferred_call(), json_integer(4));
            },
            &stage)),
        &tick);
    const std::string answer = stage.next();
    EXPECT_EQ(member(answer, "result"), "4");
    EXPECT_EQ(member(answer, "transaction_id"), "9");
    close(ends[1]);
}

TEST_F(Loop, ASignalOfTheProgramsOwnIsHeardBesideTheServices) {
    tavrix_service_options options = {};
    options.name = "second";
    options.session = "";
    options.base = base(); // where SIGTERM, SIGINT and SIGHUP are caught from now on
    tavrix_service *second = nullptr;
    ASSERT_EQ(tavrix_service_open(&options, &second), TAVRIX_OK);
    ASSERT_EQ(tavrix_service_start(second), TAVRIX_OK);
    add(Event(evsignal_new(
            base(), SIGUSR1, [](evutil_socket_t /*number*/, short /*what*/, void * /*argument*/) { happened += 'u'; },
            nullptr)),
        nullptr);
    raise(SIGUSR1);
    EXPECT_TRUE(stage.wait([] { return count('u') == 1; }));
    tavrix_service_close(second);
}

TEST_F(Loop, OfTheProgramsOwnCarriesAServiceThatItClosesItself) {
    stage.close();
    own.reset(event_base_new());
    tavrix_service_options options = {};
    options.base = own.get();
    stage.serve(methods, options);
    EXPECT_EQ(base(), own.get());
    watch(library_timer(), on_library_timer);
    EXPECT_TRUE(again('t'));
    EXPECT_EQ(stage.result_of("t.Echo", R"({"a":1})"), R"({"a":1})");
    stage.close();
    const long before = count('t');
    EXPECT_TRUE(wait_until([&] {
        event_base_loop(own.get(), EVLOOP_NONBLOCK);
        return count('t') > before;
    })) << "the loop outlives the service";
}
