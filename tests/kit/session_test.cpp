#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <event2/event.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"

namespace {

using support::LogCapture;
using support::Stage;

constexpr size_t long_answer = 1 << 20; // more than a connection holds
uint64_t deferred = 0;

int echo(tavrix_call *call) { return tavrix_call_reply(call, json_incref(tavrix_call_params(call))); }
int defer(tavrix_call *call) {
    deferred = tavrix_call_defer(call, nullptr, nullptr);
    return 0;
}
int answer_long_and_signal(tavrix_call *call) {
    raise(static_cast<int>(json_integer_value(json_object_get(tavrix_call_params(call), "number"))));
    return tavrix_call_reply(call, json_string(std::string(long_answer, 'x').c_str()));
}

const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Echo", echo, "Gives its parameters back.", nullptr, nullptr, TAVRIX_METHOD_READS),
    TAVRIX_METHOD_END,
};
const tavrix_service_method ending_methods[] = {
    TAVRIX_METHOD("t.Defer", defer, "", nullptr, nullptr, 0),
    TAVRIX_METHOD("t.LongAndSignal", answer_long_and_signal, "", nullptr, nullptr, 0),
    TAVRIX_METHOD_END,
};

tavrix_service_options named(const char *name) {
    tavrix_service_options options = {};
    options.name = name;
    options.methods = methods;
    options.session = "session.sock";
    options.flags = TAVRIX_SERVICE_NO_SIGNALS;
    return options;
}

/** The stage's service as a daemon runs, heeding signals; the router moves from a timer of the service's. */
struct Running {
    Stage *stage;
    std::function<void()> ready{}; ///< once, when the service is registered
    std::function<void()> turn{};  ///< after each move of the router
    int cancelled = 0;

    int run() {
        deferred = 0;
        stage->router.settles = false;
        tavrix_service_options options = named("tester");
        options.methods = ending_methods;
        options.flags = 0;
        EXPECT_EQ(tavrix_service_open(&options, &stage->service), TAVRIX_OK);
        tavrix_service_timer(
            stage->service, 0, 1,
            [](tavrix_service * /*service*/, void *user) { static_cast<Running *>(user)->move(); }, this);
        return tavrix_service_run(stage->service);
    }
    void move() {
        stage->router.step();
        if (ready && tavrix_service_is_ready(stage->service)) {
            std::exchange(ready, nullptr)();
        }
        if (turn) {
            turn();
        }
    }
};

void count_cancelled(tavrix_service * /*service*/, const tavrix_answer *answer, void *user) {
    static_cast<Running *>(user)->cancelled += answer->outcome == TAVRIX_OUTCOME_CANCELLED ? 1 : 0;
}

void write_level(const char *word) {
    std::ofstream("tavrix_lsyslog.conf") << "[logging_levels]\ntester=" << word << '\n';
}

/** Whether the service logs what only a developer wants: here that there is no such method. */
bool logs_debug_lines(Stage *stage, LogCapture *log) {
    log->clear();
    EXPECT_EQ(support::code_of(stage->ask("t.Unknown")), "-32601");
    return log->text().find("There is no method <t.Unknown>") != std::string::npos;
}

int open_and_close(const tavrix_service_options &options) {
    tavrix_service *service = nullptr;
    const int rc = tavrix_service_open(&options, &service);
    tavrix_service_close(service);
    return rc;
}

} // namespace

TEST(Session, RegistersWithItsAddressInTheRoutersFolderAndItsMethods) {
    const LogCapture log("info");
    Stage stage;
    stage.open(methods);
    ASSERT_TRUE(stage.wait_ready());
    const std::string address = "ipc://" + stage.router.folder + "/tester";
    EXPECT_EQ(stage.router.registration, R"({"name":"tester","channel":")" + std::string(TAVRIX_CHANNEL_DEFAULT) +
                                             R"(","publish":[")" + address +
                                             R"("],"methods":["t.Echo"],"direct":true,"callers":true})");
    EXPECT_NE(log.text().find("tester ready\n"), std::string::npos);
    struct stat file {};
    ASSERT_EQ(stat((stage.router.folder + "/tester").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0770U) << "the group may connect, others may not";
}

TEST(Session, LetsTheGroupOfTheRoutersFolderConnectWhateverItsOwn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give the folder to another group";
    }
    constexpr gid_t group = 65534;
    const LogCapture log("info");
    Stage stage;
    ASSERT_EQ(chown(stage.router.folder.c_str(), static_cast<uid_t>(-1), group), 0);
    stage.open(methods);
    ASSERT_TRUE(stage.wait_ready());
    struct stat file {};
    ASSERT_EQ(stat((stage.router.folder + "/tester").c_str(), &file), 0);
    EXPECT_EQ(file.st_gid, group);
    EXPECT_EQ(file.st_mode & 0777U, 0770U);
    ASSERT_EQ(chown(stage.router.folder.c_str(), static_cast<uid_t>(-1), getegid()), 0); // the next stage's, too
}

TEST(Session, PublishesOnALoopbackPortWhenTheRouterHasNoFolder) {
    Stage stage;
    stage.router.folder.clear();
    stage.open(methods);
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_NE(stage.router.registration.find(R"("publish":["tcp://127.0.0.1:)"), std::string::npos);
}

TEST(Session, AnswersARequestOnTheConnection) {
    Stage stage(methods);
    EXPECT_EQ(stage.ask("t.Echo", R"({"a":1})", 91),
              R"({"jsonrpc":"2.0","id":"t.Echo","result":{"a":1},"transaction_id":91})");
}

TEST(Session, TakesLinesThatComeInPiecesAndSeveralAtOnce) {
    Stage stage(methods);
    const std::string one = support::direct_request("t.Echo", R"({"n":1})", 1);
    const std::string two = support::direct_request("t.Echo", R"({"n":2})", 2);
    stage.router.say_bytes(one.substr(0, 20));
    stage.step();
    stage.router.say_bytes(one.substr(20) + "\n" + two + "\n");
    EXPECT_EQ(support::member(stage.next(), "result"), R"({"n":1})");
    EXPECT_EQ(support::member(stage.next(), "result"), R"({"n":2})");
}

TEST(Session, CarriesAMessageOfEightMegabytesBothWays) {
    Stage stage(methods);
    const std::string large(1 << 20, 'x');
    std::string params = R"({"t":[)";
    for (int i = 0; i < 8; ++i) {
        params += (i > 0 ? ",\"" : "\"") + large.substr(i == 0 ? 1024 : 0) + "\"";
    }
    params += "]}";
    const std::string line = support::direct_request("t.Echo", params, 3) + "\n";
    size_t sent = 0;
    ASSERT_TRUE(stage.wait([&] {
        const std::string piece = line.substr(sent, 50000);
        stage.router.say_bytes(piece);
        sent += piece.size();
        return sent == line.size();
    }));
    EXPECT_EQ(support::member(stage.next(), "result"), params);
}

TEST(Session, IsGivenUpWhenALineHasNoEnd) {
    const LogCapture log("info");
    Stage stage(methods);
    const std::string piece(50000, 'x');
    constexpr size_t longest = 9 << 20;
    size_t said = 0;
    ASSERT_TRUE(stage.wait([&] {
        if (!tavrix_service_is_ready(stage.service)) {
            return true;
        }
        stage.router.say_bytes(piece);
        said += piece.size();
        return said > 2 * longest;
    }));
    EXPECT_GT(said, longest);
    EXPECT_LT(said, longest + (1 << 20)) << "and what was on its way";
    EXPECT_NE(log.text().find("it sent a line without an end"), std::string::npos) << log.text();
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_EQ(support::member(stage.ask("t.Echo", "{}"), "result"), "{}");
}

TEST(Session, KeepsSixteenMegabytesForARouterThatDoesNotReadAndRefusesMore) {
    const LogCapture log("info");
    tavrix_service_options options = {};
    options.flags = TAVRIX_SERVICE_SILENT;
    Stage stage(methods, options);
    const std::string mebibyte(1 << 20, 'x');
    const auto publish = [&](const std::string &text) {
        return tavrix_service_publish(stage.service, "t.Told", json_pack("{s:s}", "text", text.c_str()));
    };
    constexpr size_t fit = 15; // with what stands around each of them
    for (size_t i = 0; i < fit; ++i) {
        EXPECT_EQ(publish(mebibyte), TAVRIX_OK) << i;
    }
    EXPECT_EQ(publish(mebibyte), TAVRIX_ERR_GENERAL);
    EXPECT_NE(log.text().find("it has not read for long"), std::string::npos) << log.text();
    EXPECT_EQ(publish("short"), TAVRIX_OK) << "there is room for it";
    EXPECT_TRUE(stage.wait([&] { return stage.router.lines.size() == fit + 1; }));
    EXPECT_EQ(publish(mebibyte), TAVRIX_OK) << "everything has been read";
}

TEST(Session, ConnectsAgainAndRegistersAgain) {
    const LogCapture log("info");
    Stage stage(methods);
    stage.router.die();
    ASSERT_TRUE(stage.wait([&] { return !tavrix_service_is_ready(stage.service); }));
    stage.router.registration.clear();
    stage.router.listen();
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_NE(stage.router.registration.find("tester"), std::string::npos);
    EXPECT_EQ(support::member(stage.ask("t.Echo", "{}"), "result"), "{}");
    EXPECT_NE(log.text().find("has gone"), std::string::npos);
}

TEST(Session, WaitsForARouterThatComesLaterAndTellsItOnce) {
    LogCapture log("info");
    Stage stage;
    stage.router.die();
    stage.router.settles = false;
    stage.open(methods);
    for (int i = 0; i < 3; ++i) {
        stage.step();
    }
    stage.router.listen();
    ASSERT_TRUE(stage.wait_ready());
    const std::string told = "Waiting for the router at session.sock: No such file or directory; is it running?";
    const size_t first = log.text().find(told);
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(log.text().find(told, first + 1), std::string::npos);
}

TEST(Session, EndsWithAFailureWhenTheRouterIsNeeded) {
    const LogCapture log("info");
    tavrix_service_options options = named("tester");
    options.session = "nobody.sock";
    options.flags |= TAVRIX_SERVICE_NEED_ROUTER;
    tavrix_service *service = nullptr;
    ASSERT_EQ(tavrix_service_open(&options, &service), TAVRIX_OK);
    EXPECT_EQ(tavrix_service_run(service), TAVRIX_ERR_GENERAL);
    tavrix_service_close(service);
}

TEST(Session, TellsARefusedRegistrationInWordsAndAsksAgain) {
    const LogCapture log("info");
    Stage stage;
    stage.router.settles = false;
    stage.router.register_error =
        R"({"code":-32007,"message":"Attempted to set unique parameter to a value that already exists.",)"
        R"("data":{"message":"There is a service tester."}})";
    stage.open(methods);
    ASSERT_TRUE(stage.wait([&] { return log.text().find("is another one running?") != std::string::npos; }));
    stage.router.register_error.clear();
    EXPECT_TRUE(stage.wait_ready());
}

TEST(Session, NotifiesTheServiceManager) {
    const int manager = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "./notify.sock";
    char folder[256];
    const std::string absolute = std::string(getcwd(folder, sizeof folder)) + "/notify.sock";
    absolute.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", absolute.c_str(), 1);
    {
        Stage stage(methods);
        char notice[64] = "";
        EXPECT_EQ(recv(manager, notice, sizeof notice - 1, MSG_DONTWAIT), 7);
        EXPECT_STREQ(notice, "READY=1");
    }
    unsetenv("NOTIFY_SOCKET");
    close(manager);
}

TEST(Session, SaysWhenTheServiceManagerCannotBeToldAndServesAllTheSame) {
    const LogCapture log("info");
    char folder[256];
    const std::string nobody = std::string(getcwd(folder, sizeof folder)) + "/nobody.sock";
    setenv("NOTIFY_SOCKET", nobody.c_str(), 1);
    {
        Stage stage(methods);
        EXPECT_EQ(support::member(stage.ask("t.Echo", R"({"a":1})"), "result"), R"({"a":1})");
    }
    unsetenv("NOTIFY_SOCKET");
    EXPECT_NE(log.text().find("Cannot tell the service manager at " + nobody +
                              " that the service is ready: No such file or directory"),
              std::string::npos)
        << log.text();
}

TEST(Session, SurvivesLinesThatAreNoObjects) {
    const LogCapture log("info");
    Stage stage(methods);
    stage.router.say("[]");
    stage.router.say("nonsense \x01");
    EXPECT_EQ(support::member(stage.ask("t.Echo", "{}"), "result"), "{}");
    EXPECT_EQ(log.text().find('\x01'), std::string::npos);
}

TEST(Session, ServesOnTheBusWhenAsked) {
    Stage stage;
    tavrix_service_options options = {};
    options.flags = TAVRIX_SERVICE_BUS;
    stage.open(methods, options);
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_NE(stage.router.registration.find(R"("direct":false)"), std::string::npos);
}

TEST(Session, IsServedByNobodyWhileAHandlerWaitsAndSaysSo) {
    const LogCapture log("info");
    const std::string told = "Waiting for other.Get: nothing else is served meanwhile";
    const auto ask_and_wait = [] {
        json_t *response = nullptr;
        EXPECT_EQ(tavrix_request_wait("nobody.sock", "other.Get", nullptr, 100, &response), TAVRIX_ERR_CONNECT_TIMEOUT);
    };
    ask_and_wait();
    EXPECT_EQ(log.text().find(told), std::string::npos) << "a simple program serves nothing anyway";
    Stage stage;
    Running running{&stage};
    running.ready = [&] {
        ask_and_wait();
        tavrix_service_stop(stage.service);
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    EXPECT_NE(log.text().find(told), std::string::npos) << log.text();
}

class SignalThatEnds : public testing::TestWithParam<int> {};

TEST_P(SignalThatEnds, LetsCallsInFlightBeAnsweredFirst) {
    const LogCapture log("info");
    Stage stage;
    Running running{&stage};
    running.ready = [&] {
        stage.router.say(support::direct_request("t.Defer", "{}", 17));
        EXPECT_NE(tavrix_service_request(stage.service, "other.Get", nullptr, 20000, count_cancelled, &running), 0U);
    };
    running.turn = [raised = false]() mutable {
        if (deferred != 0 && !std::exchange(raised, true)) {
            raise(GetParam());
        }
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    EXPECT_EQ(running.cancelled, 1) << "its own call to another service";
    stage.router.step(); // what has been written before the service is closed
    ASSERT_EQ(stage.router.lines.size(), 2U) << "its own request, and the answer";
    const std::string answer = stage.router.lines.back();
    EXPECT_EQ(support::code_of(answer), "-32014") << answer;
    EXPECT_EQ(support::member(answer, "transaction_id"), "17") << answer;
    EXPECT_NE(answer.find("The service ends."), std::string::npos) << answer;
}

TEST_P(SignalThatEnds, LetsAnAnswerThatIsBeingWrittenBeWrittenWhole) {
    const LogCapture log("info");
    Stage stage;
    Running running{&stage};
    running.ready = [&] {
        stage.router.say(
            support::direct_request("t.LongAndSignal", "{\"number\":" + std::to_string(GetParam()) + "}", 18));
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    // The service does nothing any more: what is heard now has been written.
    ASSERT_TRUE(support::wait_until([&] {
        stage.router.step();
        return !stage.router.lines.empty();
    })) << "the connection takes less than the answer at once";
    EXPECT_EQ(support::member(stage.router.lines.front(), "result").size(), long_answer + 2);
}

INSTANTIATE_TEST_SUITE_P(Session, SignalThatEnds, testing::Values(SIGTERM, SIGINT),
                         [](const auto &number) { return number.param == SIGTERM ? "Term" : "Int"; });

// --- Run and closed by its own handlers -----------------------------------------------------------------------------

TEST(RunningService, ThatIsRunOrClosedByAHandlerSaysSoAndEndsInOrder) {
    const LogCapture log("info");
    Stage stage;
    Running running{&stage};
    int second_run = TAVRIX_OK;
    running.ready = [&] {
        second_run = tavrix_service_run(stage.service);
        EXPECT_EQ(tavrix_service_request(stage.service, "ports.Get", nullptr, 20000, count_cancelled, &running) == 0,
                  false)
            << "it runs on";
        tavrix_service_close(stage.service);
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    EXPECT_EQ(second_run, TAVRIX_ERR_GENERAL);
    EXPECT_EQ(running.cancelled, 1) << "it has ended as when it is stopped";
    EXPECT_NE(log.text().find("tester runs already"), std::string::npos) << log.text();
    EXPECT_NE(log.text().find("tester is closed by a handler or a callback"), std::string::npos) << log.text();
}

TEST(Session, RereadsTheLogLevelOnSighup) {
    LogCapture log("info");
    Stage stage;
    write_level("info");
    tavrix_service_options options = named("tester");
    options.flags = 0;
    ASSERT_EQ(tavrix_service_open(&options, &stage.service), TAVRIX_OK);
    ASSERT_EQ(tavrix_service_start(stage.service), TAVRIX_OK);
    stage.router.settles = false;
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_FALSE(logs_debug_lines(&stage, &log));
    write_level("debug");
    EXPECT_FALSE(logs_debug_lines(&stage, &log)) << "nobody has told it yet";
    raise(SIGHUP);
    stage.step();
    EXPECT_TRUE(logs_debug_lines(&stage, &log));
    write_level("info");
    raise(SIGHUP);
    stage.step();
    EXPECT_FALSE(logs_debug_lines(&stage, &log));
    EXPECT_TRUE(tavrix_service_is_ready(stage.service)) << "it goes on";
}

TEST(Session, RereadsTheLogLevelOnTheLoggersMethod) {
    LogCapture log("info");
    write_level("info");
    Stage stage(methods);
    EXPECT_FALSE(logs_debug_lines(&stage, &log));
    write_level("debug");
    EXPECT_EQ(support::member(stage.ask("logger.ReloadConf"), "result"), "0");
    EXPECT_TRUE(logs_debug_lines(&stage, &log));
    write_level("info");
    EXPECT_EQ(support::member(stage.ask("logger.ReloadConf"), "result"), "0");
    EXPECT_FALSE(logs_debug_lines(&stage, &log));
}

TEST(Options, RefuseWhatCannotBe) {
    const LogCapture log("info");
    EXPECT_EQ(tavrix_service_open(nullptr, nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(open_and_close(named("")), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(open_and_close(named("with blank")), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(open_and_close(named(std::string(50, 'n').c_str())), TAVRIX_OK);
    EXPECT_EQ(open_and_close(named(std::string(51, 'n').c_str())), TAVRIX_ERR_PARAMETER);
    tavrix_service_options options = named("tester");
    const std::string long_path(108, 'p');
    options.session = long_path.c_str();
    EXPECT_EQ(open_and_close(options), TAVRIX_ERR_PARAMETER);
}

TEST(Options, TakeATableOf256MethodsAndNoLongerOne) {
    const LogCapture log("info");
    std::vector<std::string> names;
    for (int i = 0; i <= TAVRIX_SERVICE_MAX_METHODS; ++i) {
        names.push_back("t.Method" + std::to_string(i));
    }
    const auto open_with = [&](size_t count) {
        std::vector<tavrix_service_method> rows;
        for (size_t i = 0; i < count; ++i) {
            rows.push_back(TAVRIX_METHOD(names[i].c_str(), echo, "", nullptr, nullptr, 0));
        }
        rows.push_back(TAVRIX_METHOD_END);
        tavrix_service_options options = named("tester");
        options.methods = rows.data();
        return open_and_close(options);
    };
    EXPECT_EQ(open_with(TAVRIX_SERVICE_MAX_METHODS), TAVRIX_OK);
    EXPECT_EQ(open_with(TAVRIX_SERVICE_MAX_METHODS + 1), TAVRIX_ERR_PARAMETER);
    EXPECT_NE(log.text().find("Method t.Method256: too many rows"), std::string::npos) << log.text();
}

TEST(Options, RefuseATableOfTwoChannels) {
    const LogCapture log("info");
    const tavrix_service_method mixed[] = {
        TAVRIX_METHOD("ports.Get", echo, "", nullptr, nullptr, 0),
        TAVRIX_METHOD("events.Get", echo, "", nullptr, nullptr, 0),
        TAVRIX_METHOD_END,
    };
    tavrix_service_options options = named("tester");
    options.methods = mixed;
    EXPECT_EQ(open_and_close(options), TAVRIX_ERR_PARAMETER);
    EXPECT_NE(log.text().find("Methods ports.Get and events.Get belong to two channels"), std::string::npos);
}

TEST(Options, RefuseMethodsThatTheKitAnswersItself) {
    for (const char *own : {"logger.ReloadConf", "service.Hello", "service.Probe", "service.Welcome"}) {
        const LogCapture log("info");
        const tavrix_service_method table[] = {TAVRIX_METHOD(own, echo, "", nullptr, nullptr, 0), TAVRIX_METHOD_END};
        tavrix_service_options options = named("tester");
        options.methods = table;
        EXPECT_EQ(open_and_close(options), TAVRIX_ERR_PARAMETER);
        EXPECT_NE(log.text().find("Method " + std::string(own) + ": is one that every service answers by itself"),
                  std::string::npos)
            << log.text();
    }
}

TEST(Options, RefuseAnAddressThatIsTakenInWords) {
    const LogCapture log("info");
    const std::string address = support::free_bus_address();
    const char *publish[] = {address.c_str(), nullptr};
    tavrix_service_options options = named("tester");
    options.publish = publish;
    tavrix_service *first = nullptr;
    ASSERT_EQ(tavrix_service_open(&options, &first), TAVRIX_OK);
    EXPECT_EQ(open_and_close(options), TAVRIX_ERR_GENERAL);
    EXPECT_NE(log.text().find("Cannot publish on " + address + ": Address already in use; is another tester running?"),
              std::string::npos)
        << log.text();
    tavrix_service_close(first);
}
