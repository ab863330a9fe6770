/*
 * What an operator does wrong, and what he is told: each message has to say what is wrong, and what to do about it.
 */
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/fleet.h"
#include "support/fleet_database.h"
#include "support/stranger.h"
#include "support/tavrixctl.h"

using support::ctl;
using support::Finished;
using support::Fleet;
using support::run;
using support::write_file;

namespace {

/** What a message has to hold: the cause, and the remedy. */
struct Words {
    const char *cause;
    const char *remedy;
};

constexpr Words refused_by_policy = {"the policy does not allow this", "its --policy file says who else may what"};

::testing::AssertionResult tells(const Finished &finished, int status, const Words &words) {
    if (finished.status != status) {
        return ::testing::AssertionFailure() << "status " << finished.status << ": " << finished.diagnostics;
    }
    for (const char *part : {words.cause, words.remedy}) {
        if (finished.diagnostics.find(part) == std::string::npos) {
            return ::testing::AssertionFailure() << "'" << part << "' is not in: " << finished.diagnostics;
        }
    }
    return ::testing::AssertionSuccess();
}

/** Whether the line of the log that holds the text is one at error level, which no log level leaves out. */
::testing::AssertionResult is_an_error(const std::string &log, const std::string &text) {
    const size_t at = log.find(text);
    if (at == std::string::npos) {
        return ::testing::AssertionFailure() << "'" << text << "' is not in: " << log;
    }
    const size_t begin = log.rfind('\n', at) + 1; // of the first line, too: one behind npos is 0
    if (log.substr(begin, at - begin).find("[ERROR] [") == std::string::npos) {
        return ::testing::AssertionFailure() << "'" << text << "' is no error in: " << log;
    }
    return ::testing::AssertionSuccess();
}

/** The same as tells(), of a daemon, whose log tells the cause as an error. */
::testing::AssertionResult fails_to_start(const Finished &finished, const Words &words) {
    const ::testing::AssertionResult told = tells(finished, 1, words);
    return told ? is_an_error(finished.diagnostics, words.cause) : told;
}

/** Router and ports service, asked as an operator asks. */
class Mistakes : public ::testing::Test {
  protected:
    void start() {
        fleet.start_lone_router({"--reply-timeout", "60000"});
        fleet.start_ports();
    }
    static Finished call(std::vector<std::string> words) {
        words.insert(words.begin(), {"call", "--session", "session.sock"});
        return ctl(words);
    }
    /** A second router, on places of its own unless the words say otherwise. */
    static Finished start_another_router(const std::vector<std::string> &words) {
        std::vector<std::string> arguments = {
            TAVRIX_ROUTERD, "--socket", "other.sock", "--session", "", "--publish", support::free_bus_address()};
        arguments.insert(arguments.end(), words.begin(), words.end());
        return run(arguments);
    }
    Finished start_ports_with(const std::string &database) const {
        return run({TAVRIX_PORTSD, "--publish", fleet.ports_address, "--database", database, "--session", "none.sock"});
    }

    Fleet fleet;
};

} // namespace

// --- A call
// -----------------------------------------------------------------------------------------------------------

TEST_F(Mistakes, AValueOfTheWrongTypeIsNamedWithWhatIsAllowed) {
    start();
    EXPECT_TRUE(tells(call({"ports.SetVlanAccess", "port_id=d2", "vlan_id=20"}), 1,
                      {"vlan_id: \"20\" is not an integer", "in 1 to 4092"}));
}

TEST_F(Mistakes, AValueOutOfRangeIsNamedOnceWithTheRange) {
    start();
    const Finished finished = call({"ports.SetVlanAccess", "port_id=d2", "vlan_id:=5000"});
    EXPECT_TRUE(tells(finished, 1, {"vlan_id: 5000", "is not in 1 to 4092"}));
    EXPECT_EQ(finished.diagnostics.find("5000"), finished.diagnostics.rfind("5000")) << finished.diagnostics;
}

TEST_F(Mistakes, AWordThatIsNoneOfTheListIsNamedWithTheList) {
    start();
    EXPECT_TRUE(tells(call({"ports.SetEnabled", "port_id=d2", "status=on"}), 1,
                      {"status: \"on\" is not one of", "enable, disable"}));
}

TEST_F(Mistakes, AMisspeltMethodIsCorrected) {
    start();
    EXPECT_TRUE(
        tells(call({"ports.Gte", "port_id=d2"}), 1, {"no service offers ports.Gte", "did you mean ports.Get?"}));
}

TEST_F(Mistakes, AMisspeltParameterIsCorrected) {
    start();
    EXPECT_TRUE(
        tells(call({"ports.Get", "prot_id=d2"}), 1, {"there is no parameter prot_id", "did you mean port_id?"}));
}

TEST_F(Mistakes, AParameterThatNothingIsLikeIsNamedAllTheSame) {
    start();
    EXPECT_TRUE(tells(call({"ports.Get", "x=d2"}), 1, {"there is no parameter x", "port_id is missing: a port c1-1"}));
}

TEST_F(Mistakes, MalformedParametersAreShownWhereTheyBreak) {
    EXPECT_TRUE(tells(call({"ports.Get", R"({"port_id":)"}), 2,
                      {"PARAMS is no JSON: line 1, column 11", "members are given as key=text or key:=json"}));
}

TEST_F(Mistakes, AnUnknownVerbIsCorrected) {
    EXPECT_TRUE(tells(ctl({"calll", "ports.Get"}), 2, {"there is no verb 'calll'", "did you mean 'call'?"}));
}

TEST_F(Mistakes, AnUnknownOptionOfTheToolIsNamed) {
    EXPECT_TRUE(tells(call({"ports.Get", "--timout", "1"}), 2, {"--timout", "Run with --help"}));
}

TEST_F(Mistakes, ABusAddressWithoutItsSlashesIsNoMethod) {
    EXPECT_TRUE(tells(ctl({"monitor", "tcp:/127.0.0.1:7001"}), 2,
                      {"'tcp:/127.0.0.1:7001' is neither a method nor a bus address", "tcp://127.0.0.1:7001"}));
}

// --- Somebody is not there
// --------------------------------------------------------------------------------------------

TEST_F(Mistakes, AStoppedRouterIsMissed) {
    EXPECT_TRUE(tells(ctl({"call", "--session", "none.sock", "ports.Get"}), 4,
                      {"none.sock: No such file or directory", "is tavrix-routerd running?"}));
    const std::string nobody = "127.0.0.1:" + std::to_string(support::free_port());
    EXPECT_TRUE(
        tells(ctl({"call", "--tcp", nobody, "ports.Get"}), 4, {"Connection refused", "is tavrix-routerd running?"}));
}

TEST_F(Mistakes, AServiceWithoutARouterSaysThatItWaits) {
    const support::Process ports("portsd", {TAVRIX_PORTSD, "--session", "none.sock"});
    EXPECT_TRUE(ports.says("Waiting for the router at none.sock: No such file or directory; is it running?\n"));
    EXPECT_TRUE(is_an_error(ports.log(), "Waiting for the router at none.sock"));
}

TEST_F(Mistakes, AStoppedServiceIsNamed) {
    start();
    fleet.ports->signal(SIGTERM);
    ASSERT_EQ(fleet.ports->wait(), 0);
    ASSERT_TRUE(fleet.router->says("Service portsd has gone"));
    EXPECT_TRUE(tells(call({"ports.Get", "port_id=d2"}), 1,
                      {"portsd, which serves ports.Get, is not there", "tavrixctl status shows since when"}));
}

TEST_F(Mistakes, AServiceThatWasNeverStartedIsMissed) {
    fleet.start_lone_router();
    EXPECT_TRUE(tells(call({"ports.Get", "port_id=d2"}), 1,
                      {"no service is there for ports.Get", "tavrixctl list shows what can be called"}));
}

TEST_F(Mistakes, AServiceThatDoesNotAnswerIsToldByTheRouterAndByTheTool) {
    fleet.start_lone_router({"--reply-timeout", "100"});
    fleet.start_ports();
    fleet.ports->signal(SIGSTOP);
    siginfo_t state{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(fleet.ports->pid()), &state, WSTOPPED), 0);
    EXPECT_TRUE(tells(call({"ports.Get", "port_id=d2"}), 3,
                      {"Command timed out (-32005)", "is its service stopped, or busy? tavrixctl status"}));
    fleet.start_lone_router({"--reply-timeout", "60000"});
    fleet.start_ports();
    fleet.ports->signal(SIGSTOP);
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(fleet.ports->pid()), &state, WSTOPPED), 0);
    EXPECT_TRUE(tells(call({"ports.Get", "port_id=d2", "--timeout", "0.2"}), 3,
                      {"no answer in time", "--timeout waits longer"}));
}

TEST_F(Mistakes, ALockedSystemIsToldFromABusyOne) {
    start();
    ASSERT_EQ(call({"router.Lock"}).status, 0);
    EXPECT_TRUE(tells(call({"ports.Get", "port_id=d2"}), 1,
                      {"the system is locked", "tavrixctl call router.Unlock ends that"}));
}

// --- Not allowed
// ------------------------------------------------------------------------------------------------------

TEST_F(Mistakes, APolicysRefusalSaysWhoMayAllowIt) {
    const int port = support::free_port();
    fleet.start_lone_router({"--tcp", std::to_string(port)});
    EXPECT_TRUE(tells(ctl({"call", "--tcp", "127.0.0.1:" + std::to_string(port), "ports.Get"}), 1, refused_by_policy));
}

/** The client, as somebody who is neither root nor the router's user. */
class MistakesOfAStranger : public Mistakes {
  protected:
    void SetUp() override {
        if (!support::can_be_a_stranger()) {
            GTEST_SKIP() << "only root can be somebody else";
        }
        ASSERT_EQ(chmod(".", 0755), 0);
        if (run_tool("--version").status != 0) {
            GTEST_SKIP() << "nobody else may enter the folder of this build";
        }
    }
    static Finished run_tool(const std::string &words) {
        return support::script("export -f tavrixctl; setpriv --reuid 65534 --regid 65534 --clear-groups "
                               "bash -c 'tavrixctl " +
                               words + "'");
    }
};

TEST_F(MistakesOfAStranger, ASocketThatIsNotForThisUserSaysSo) {
    start();
    ASSERT_EQ(chmod("session.sock", 0600), 0);
    EXPECT_TRUE(tells(run_tool("call --session session.sock ports.Get"), 4,
                      {"session.sock: Permission denied", "may this user enter its folder"}));
}

TEST_F(MistakesOfAStranger, ALogLevelIsForWhoMayWriteTheFile) {
    start();
    write_file("levels.conf", "[logging_levels]\nportsd=info\n");
    EXPECT_TRUE(tells(run_tool("log-level --session session.sock --file levels.conf portsd debug"), 1,
                      {"levels.conf: Permission denied", "may this user write it"}));
}

TEST_F(MistakesOfAStranger, WatchingIsRefusedWithTheSameWords) {
    start();
    EXPECT_TRUE(tells(run_tool("monitor --session session.sock"), 1, refused_by_policy));
}

// --- A daemon that cannot start
// ---------------------------------------------------------------------------------------

TEST_F(Mistakes, ASecondRouterFindsTheFirstOnesPlacesTaken) {
    start();
    EXPECT_TRUE(fails_to_start(start_another_router({"--socket", "router.sock"}),
                               {"Cannot listen on router.sock", "another daemon serves there"}));
    EXPECT_TRUE(fails_to_start(run({TAVRIX_ROUTERD, "--socket", "other.sock", "--publish", fleet.router_address}),
                               {"Address already in use", "is another router running?"}));
}

TEST_F(Mistakes, ASecondServiceOfANameIsRefused) {
    start();
    const support::Process second(
        "second", {TAVRIX_PORTSD, "--session", "session.sock", "--publish", support::free_bus_address()});
    EXPECT_TRUE(second.says("refuses portsd: a service of this name is registered already"));
    EXPECT_TRUE(second.says("is another one running?"));
    EXPECT_TRUE(is_an_error(second.log(), "refuses portsd: a service of this name is registered already"));
}

TEST_F(Mistakes, ATakenTcpPortIsNamed) {
    const int port = support::free_port();
    fleet.start_lone_router({"--tcp", std::to_string(port)});
    const std::string cause = "Cannot listen on TCP port " + std::to_string(port);
    EXPECT_TRUE(fails_to_start(start_another_router({"--tcp", std::to_string(port)}),
                               {cause.c_str(), "somebody serves there"}));
}

TEST_F(Mistakes, AFolderThatIsMissingIsMissed) {
    EXPECT_TRUE(
        fails_to_start(start_another_router({"--socket", "no/folder/x.sock"}),
                       {"Cannot listen on no/folder/x.sock: No such file or directory", "does its folder exist"}));
}

TEST_F(Mistakes, AnAddressThatTheBusCannotTakeSaysWhichItCan) {
    const std::string too_long = "ipc://" + std::string(120, 'x');
    for (const std::string &address : {too_long, std::string("http://127.0.0.1:7001"), std::string("nonsense")}) {
        const std::string cause = "Cannot publish on " + address;
        const Words wanted = {cause.c_str(), "an address begins with tcp:// or ipc:// and has at most 113 bytes"};
        EXPECT_TRUE(fails_to_start(run({TAVRIX_ROUTERD, "--socket", "other.sock", "--publish", address}), wanted));
        EXPECT_TRUE(fails_to_start(run({TAVRIX_PORTSD, "--session", "none.sock", "--publish", address}), wanted));
    }
    EXPECT_TRUE(fails_to_start(run({TAVRIX_ROUTERD, "--socket", "other.sock", "--publish", "tcp://192.0.2.1:7001"}),
                               {"Cannot publish on tcp://192.0.2.1:7001", "is that address one of this machine?"}));
}

TEST_F(Mistakes, AServiceThatNobodyCouldReachSaysWhatItNeeds) {
    EXPECT_TRUE(fails_to_start(run({TAVRIX_PORTSD, "--session", "", "--publish", fleet.ports_address}),
                               {"Without a session", "the bus addresses to listen to have to be given"}));
}

TEST_F(Mistakes, AMissingDatabaseSaysHowOneIsMade) {
    EXPECT_TRUE(fails_to_start(start_ports_with("missing.db"), {"Cannot open the database missing.db",
                                                                "it is made with: tavrixctl db init missing.db"}));
    EXPECT_TRUE(tells(ctl({"db", "check", "missing.db"}), 1,
                      {"missing.db: unable to open database file", "tavrixctl db init makes one"}));
}

TEST_F(Mistakes, ADatabaseWithoutTheSchemaSaysWhichTableIsMissing) {
    support::Sql().run("DROP TABLE units");
    EXPECT_TRUE(fails_to_start(start_ports_with("zqn_h7.db"),
                               {"no such table: units", "one is made with: tavrixctl db init zqn_h7.db"}));
}

TEST_F(Mistakes, AnUnknownOptionOfADaemonIsNamed) {
    for (const char *program : {TAVRIX_ROUTERD, TAVRIX_PORTSD, TAVRIX_EVENTSD}) {
        EXPECT_TRUE(tells(run({program, "--nmae", "x"}), 2, {"there is no option --nmae", " --help'"}));
        EXPECT_TRUE(tells(run({program, "--name"}), 2, {"a value is missing after --name", " --help'"}));
        EXPECT_TRUE(tells(run({program, "--name", "x", "y"}), 2, {"unexpected word 'y'", " --help'"}));
    }
    EXPECT_TRUE(tells(run({TAVRIX_ROUTERD, "--tcp", "99999"}), 2, {"not '99999'", "a number from 0 to 65535"}));
}

TEST_F(Mistakes, AWrongLineOfAConfigurationFileIsNamedWithItsNumber) {
    write_file("routerd.conf", "[routerd]\n# a slip\nsokcet=x\n");
    EXPECT_TRUE(tells(run({TAVRIX_ROUTERD, "--config", "routerd.conf"}), 2,
                      {"routerd.conf:3: there is no option 'sokcet'", "Try 'tavrix-routerd --help'"}));
    EXPECT_TRUE(tells(run({TAVRIX_ROUTERD, "--config", "absent.conf"}), 2, {"absent.conf", "cannot be opened"}));
}

TEST_F(Mistakes, AWrongLineOfAPolicyIsNamedWithItsNumber) {
    write_file("policy.conf", "[unix]\nall=ports.Get, mzu.List\n");
    EXPECT_TRUE(fails_to_start(start_another_router({"--policy", "policy.conf"}),
                               {"policy.conf cannot be used: line 2", "' mzu.List' is no method pattern"}));
    write_file("policy.conf", "[unix]\ngroup.nobody-s=*\n");
    EXPECT_TRUE(
        fails_to_start(start_another_router({"--policy", "policy.conf"}), {"line 2", "there is no group 'nobody-s'"}));
}

TEST_F(Mistakes, AWrongScriptOfLinkChangesIsNamedWithItsLine) {
    write_file("links.txt", "c1-1 up\nc1-1 sideways\n");
    EXPECT_TRUE(tells(run({TAVRIX_EVENTSD, "--session", "none.sock", "--publish", fleet.events_address, "--slot", "",
                           "--script", "links.txt"}),
                      1, {"links.txt:2", "a port id and up or down are wanted"}));
}

// --- The log
// ----------------------------------------------------------------------------------------------------------

TEST_F(Mistakes, AWrongLogLevelIsNamedWithTheRightOnes) {
    EXPECT_TRUE(tells(ctl({"log-level", "portsd", "loud"}), 2, {"loud", "off,info,debug,verbose"}));
}

TEST_F(Mistakes, AnUnknownDaemonIsCorrected) {
    start();
    EXPECT_TRUE(tells(ctl({"log-level", "--session", "session.sock", "protsd", "info"}), 2,
                      {"there is no daemon 'protsd'", "did you mean 'portsd'?"}));
}
