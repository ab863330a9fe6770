#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/process.h"

using namespace support;

namespace {

constexpr size_t long_answer = 1 << 20; // more than a connection holds

int answer_long_and_signal(tavrix_call *call) {
    raise(static_cast<int>(json_integer_value(json_object_get(tavrix_call_params(call), "number"))));
    return tavrix_call_reply(call, json_string(std::string(long_answer, 'x').c_str()));
}

const Methods methods = {{"t.Echo", echo}};
const Methods ending_methods = {{"t.Defer", defer}, {"t.LongAndSignal", answer_long_and_signal}};

tavrix_service_options named(const char *name, const tavrix_service_method *table = methods) {
    tavrix_service_options options = {};
    options.name = name;
    options.methods = table;
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
        stage->router.settles = false;
        tavrix_service_options options = named("tester", ending_methods);
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

class Session : public testing::Test {
  protected:
    void serve(unsigned flags = 0) { stage.serve(methods, with_flags(flags)); }
    void expect_service() { EXPECT_EQ(stage.result_of("t.Echo", R"({"a":1})"), R"({"a":1})"); }

    LogCapture log{"info"};
    Stage stage;
    Running running{&stage};
};

int open_and_close(const tavrix_service_options &options) {
    tavrix_service *service = nullptr;
    const int rc = tavrix_service_open(&options, &service);
    tavrix_service_close(service);
    return rc;
}

} // namespace

TEST_F(Session, RegistersWithItsAddressInTheRoutersFolderAndItsMethods) {
    stage.open(methods);
    ASSERT_TRUE(stage.wait_ready());
    const std::string path = stage.router.folder + "/tester";
    EXPECT_EQ(stage.router.registration, R"({"name":"tester","channel":")" + std::string(TAVRIX_CHANNEL_DEFAULT) +
                                             R"(","publish":["ipc://)" + path +
                                             R"("],"methods":["t.Echo"],"direct":true,"callers":true})");
    EXPECT_TRUE(log.says("tester ready\n"));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0770})
        << "the group may connect, others may not";
}

TEST_F(Session, LetsTheGroupOfTheRoutersFolderConnectWhateverItsOwn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give the folder to another group";
    }
    constexpr gid_t group = 65534;
    ASSERT_EQ(chown(stage.router.folder.c_str(), static_cast<uid_t>(-1), group), 0);
    stage.open(methods);
    ASSERT_TRUE(stage.wait_ready());
    struct stat file {};
    ASSERT_EQ(stat((stage.router.folder + "/tester").c_str(), &file), 0);
    EXPECT_EQ(file.st_gid, group);
    EXPECT_EQ(file.st_mode & 0777U, 0770U);
    ASSERT_EQ(chown(stage.router.folder.c_str(), static_cast<uid_t>(-1), getegid()), 0); // the next stage's, too
}

TEST_F(Session, PublishesOnALoopbackPortWhenTheRouterHasNoFolder) {
    stage.router.folder.clear();
    stage.open(methods);
    ASSERT_TRUE(stage.wait_ready());
    EXPECT_TRUE(holds(stage.router.registration, R"("publish":["tcp://127.0.0.1:)"));
}

TEST_F(Session, TakesLinesThatComeInPiecesAndSeveralAtOnce) {
    serve();
    const std::string one = direct_request("t.Echo", R"({"n":1})", 1);
    const std::string two = direct_request("t.Echo", R"({"n":2})", 2);
    stage.router.say_bytes(one.substr(0, 20));
    stage.step();
    stage.router.say_bytes(one.substr(20) + "\n" + two + "\n");
    EXPECT_EQ(member(stage.next(), "result"), R"({"n":1})");
    EXPECT_EQ(member(stage.next(), "result"), R"({"n":2})");
}

TEST_F(Session, CarriesAMessageOfEightMegabytesBothWays) {
    serve();
    const std::string params = R"({"t":)" + array_of(8, "\"" + std::string((1 << 20) - 128, 'x') + "\"") + "}";
    const std::string line = direct_request("t.Echo", params, 3) + "\n";
    size_t sent = 0;
    ASSERT_TRUE(stage.wait([&] {
        const std::string piece = line.substr(sent, 50000);
        stage.router.say_bytes(piece);
        sent += piece.size();
        return sent == line.size();
    }));
    EXPECT_EQ(member(stage.next(), "result"), params);
}

TEST_F(Session, IsGivenUpWhenALineHasNoEnd) {
    serve();
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
    EXPECT_TRUE(log.says("it sent a line without an end"));
    ASSERT_TRUE(stage.wait_ready());
    expect_service();
}

TEST_F(Session, KeepsSixteenMegabytesForARouterThatDoesNotReadAndRefusesMore) {
    serve(TAVRIX_SERVICE_SILENT);
    const std::string mebibyte(1 << 20, 'x');
    const auto publish = [&](const std::string &text) {
        return tavrix_service_publish(stage.service, "t.Told", json_pack("{s:s}", "text", text.c_str()));
    };
    constexpr size_t fit = 15; // with what stands around each of them
    for (size_t i = 0; i < fit; ++i) {
        EXPECT_EQ(publish(mebibyte), TAVRIX_OK) << i;
    }
    EXPECT_EQ(publish(mebibyte), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.says("it has not read for long"));
    EXPECT_EQ(publish("short"), TAVRIX_OK) << "there is room for it";
    EXPECT_TRUE(stage.wait([&] { return stage.router.lines.size() == fit + 1; }));
    EXPECT_EQ(publish(mebibyte), TAVRIX_OK) << "everything has been read";
}

TEST_F(Session, TellsARefusedRegistrationInWordsAndAsksAgain) {
    stage.router.settles = false;
    stage.router.register_error =
        R"({"code":-32007,"message":"Attempted to set unique parameter to a value that already exists.",)"
        R"("data":{"message":"There is a service tester."}})";
    stage.open(methods);
    ASSERT_TRUE(stage.wait([&] { return static_cast<bool>(log.says("is another one running?")); }));
    stage.router.register_error.clear();
    EXPECT_TRUE(stage.wait_ready());
}

TEST_F(Session, NotifiesTheServiceManagerOrSaysWhenItCannotAndServesAllTheSame) {
    const std::string path = std::filesystem::current_path().string() + "/notify.sock";
    const tavrix::Descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unix_address(path);
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    serve();
    char notice[64] = "";
    EXPECT_EQ(recv(manager.get(), notice, sizeof notice - 1, MSG_DONTWAIT), 7);
    EXPECT_STREQ(notice, "READY=1");
    stage.close();
    unlink(path.c_str());
    serve();
    unsetenv("NOTIFY_SOCKET");
    EXPECT_TRUE(log.says("Cannot tell the service manager at " + path +
                         " that the service is ready: No such file or directory"));
    expect_service();
}

TEST_F(Session, SurvivesLinesThatAreNoObjects) {
    serve();
    stage.router.say("[]");
    stage.router.say("nonsense \x01");
    expect_service();
    EXPECT_FALSE(log.says("\x01"));
}

TEST_F(Session, IsServedByNobodyWhileAHandlerWaitsAndSaysSo) {
    const std::string told = "Waiting for other.Get: nothing else is served meanwhile";
    const auto ask_and_wait = [] {
        json_t *response = nullptr;
        EXPECT_EQ(tavrix_request_wait("nobody.sock", "other.Get", nullptr, 100, &response), TAVRIX_ERR_CONNECT_TIMEOUT);
    };
    ask_and_wait();
    EXPECT_FALSE(log.says(told)) << "a simple program serves nothing anyway";
    running.ready = [&] {
        ask_and_wait();
        tavrix_service_stop(stage.service);
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    EXPECT_TRUE(log.says(told));
}

TEST_F(Session, RereadsTheLogLevelOnSighupAndOnTheLoggersMethod) {
    const auto write_level = [](const std::string &word) {
        write_file("tavrix_lsyslog.conf", "[logging_levels]\ntester=" + word + "\n");
    };
    const auto logs_debug_lines = [this] {
        log.clear();
        EXPECT_EQ(stage.code_of("t.Unknown"), "-32601");
        return static_cast<bool>(log.says("There is no method <t.Unknown>"));
    };
    const auto hang_up = [this] {
        raise(SIGHUP);
        stage.step();
    };
    const auto call = [this] { EXPECT_EQ(stage.result_of("logger.ReloadConf"), "0"); };
    write_level("info");
    tavrix_service_options options = named("tester");
    options.flags = 0;
    ASSERT_EQ(tavrix_service_open(&options, &stage.service), TAVRIX_OK);
    ASSERT_EQ(tavrix_service_start(stage.service), TAVRIX_OK);
    stage.router.settles = false;
    ASSERT_TRUE(stage.wait_ready());
    for (const std::function<void()> &reread : {std::function<void()>(hang_up), std::function<void()>(call)}) {
        EXPECT_FALSE(logs_debug_lines());
        write_level("debug");
        EXPECT_FALSE(logs_debug_lines()) << "nobody has told it yet";
        reread();
        EXPECT_TRUE(logs_debug_lines());
        write_level("info");
        reread();
        EXPECT_FALSE(logs_debug_lines());
    }
    EXPECT_TRUE(tavrix_service_is_ready(stage.service)) << "it goes on";
}

class SignalThatEnds : public Session, public testing::WithParamInterface<int> {};

TEST_P(SignalThatEnds, LetsCallsInFlightBeAnsweredFirst) {
    running.ready = [&] {
        stage.router.say(direct_request("t.Defer", "{}", 17));
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
    EXPECT_EQ(code_of(answer), "-32014") << answer;
    EXPECT_EQ(member(answer, "transaction_id"), "17") << answer;
    EXPECT_EQ(message_of(answer), "\"The service ends.\"") << answer;
}

TEST_P(SignalThatEnds, LetsAnAnswerThatIsBeingWrittenBeWrittenWhole) {
    running.ready = [&] {
        stage.router.say(direct_request("t.LongAndSignal", "{\"number\":" + std::to_string(GetParam()) + "}", 18));
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    // The service does nothing any more: what is heard now has been written.
    ASSERT_TRUE(wait_until([&] {
        stage.router.step();
        return !stage.router.lines.empty();
    })) << "the connection takes less than the answer at once";
    EXPECT_EQ(member(stage.router.lines.front(), "result").size(), long_answer + 2);
}

INSTANTIATE_TEST_SUITE_P(Session, SignalThatEnds, testing::Values(SIGTERM, SIGINT),
                         [](const auto &number) { return number.param == SIGTERM ? "Term" : "Int"; });

TEST_F(Session, OfAServiceThatIsRunOrClosedByAHandlerSaysSoAndEndsInOrder) {
    int second_run = TAVRIX_OK;
    running.ready = [&] {
        second_run = tavrix_service_run(stage.service);
        EXPECT_NE(tavrix_service_request(stage.service, "ports.Get", nullptr, 20000, count_cancelled, &running), 0U)
            << "it runs on";
        tavrix_service_close(stage.service);
    };
    EXPECT_EQ(running.run(), TAVRIX_OK);
    EXPECT_EQ(second_run, TAVRIX_ERR_GENERAL);
    EXPECT_EQ(running.cancelled, 1) << "it has ended as when it is stopped";
    EXPECT_TRUE(log.says("tester runs already"));
    EXPECT_TRUE(log.says("tester is closed by a callback"));
}

TEST(Options, RefuseWhatCannotBe) {
    const LogCapture log("info");
    EXPECT_EQ(tavrix_service_open(nullptr, nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(open_and_close(named("")), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(open_and_close(named(".hidden")), TAVRIX_ERR_PARAMETER);
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
        return open_and_close(named("tester", rows.data()));
    };
    EXPECT_EQ(open_with(TAVRIX_SERVICE_MAX_METHODS), TAVRIX_OK);
    EXPECT_EQ(open_with(TAVRIX_SERVICE_MAX_METHODS + 1), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(log.says("Method t.Method256: too many rows"));
}

TEST(Options, RefuseMethodsThatTheKitAnswersItself) {
    for (const std::string own : {"logger.ReloadConf", "service.Hello", "service.Probe", "service.Welcome"}) {
        const LogCapture log("info");
        const Methods one = {{own.c_str(), echo}};
        EXPECT_EQ(open_and_close(named("tester", one)), TAVRIX_ERR_PARAMETER);
        EXPECT_TRUE(log.says("Method " + own + ": is one that every service answers by itself"));
    }
}

TEST(Options, RefuseAnAddressThatIsTakenInWords) {
    const LogCapture log("info");
    const std::string address = free_bus_address();
    const char *publish[] = {address.c_str(), nullptr};
    tavrix_service_options options = named("tester");
    options.publish = publish;
    tavrix_service *first = nullptr;
    ASSERT_EQ(tavrix_service_open(&options, &first), TAVRIX_OK);
    EXPECT_EQ(open_and_close(options), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.says("Cannot publish on " + address + ": Address already in use; is another tester running?"));
    tavrix_service_close(first);
}

TEST(Options, TakeEightAddressesToPublishOnAndNoMore) {
    const LogCapture log("info");
    std::vector<std::string> addresses;
    std::vector<const char *> publish;
    for (int i = 0; i <= TAVRIX_SERVICE_MAX_ADDRESSES; ++i) {
        addresses.push_back("ipc://published-" + std::to_string(i));
    }
    for (const std::string &address : addresses) {
        publish.push_back(address.c_str());
    }
    publish.push_back(nullptr);
    tavrix_service_options options = named("tester");
    options.publish = publish.data() + 1;
    EXPECT_EQ(open_and_close(options), TAVRIX_OK);
    options.publish = publish.data();
    EXPECT_EQ(open_and_close(options), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.says("Cannot publish on ipc://published-8: a service has at most 8 addresses"));
}

TEST(Options, TakeMethodsWithNamesOf255BytesAndNoLongerOnes) {
    const auto open_with = [](const std::string &name) {
        const Methods one = {{name.c_str(), echo}};
        return open_and_close(named("tester", one));
    };
    const std::string longest(TAVRIX_SERVICE_MAX_METHOD, 't');
    EXPECT_EQ(open_with(longest), TAVRIX_OK);
    for (const std::string &name : {longest + "t", std::string(), std::string("t.a\nb"), std::string("t.a|b")}) {
        EXPECT_EQ(open_with(name), TAVRIX_ERR_PARAMETER) << name;
    }
}
