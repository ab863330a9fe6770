#include <csignal>
#include <cstdlib>

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

int echo(tavrix_call *call) { return tavrix_call_reply(call, json_incref(tavrix_call_params(call))); }

const tavrix_service_method methods[] = {
    TAVRIX_METHOD("t.Echo", echo, "Gives its parameters back.", nullptr, nullptr, TAVRIX_METHOD_READS),
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

TEST(Session, StopsAtASignalAndAnswersBefore) {
    Stage stage;
    stage.router.settles = false;
    tavrix_service_options options = named("tester");
    options.flags = 0;
    ASSERT_EQ(tavrix_service_open(&options, &stage.service), TAVRIX_OK);
    tavrix_service_timer(
        stage.service, 0, 1,
        [](tavrix_service *service, void *user) {
            static_cast<support::PlayedRouter *>(user)->step();
            if (tavrix_service_is_ready(service)) {
                raise(SIGTERM);
            }
        },
        &stage.router);
    EXPECT_EQ(tavrix_service_run(stage.service), TAVRIX_OK);
}

TEST(Session, RereadsTheLogLevelOnSighupAndOnTheLoggersMethod) {
    const LogCapture log("info");
    Stage stage(methods);
    EXPECT_EQ(support::member(stage.ask("logger.ReloadConf"), "result"), "0");
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
