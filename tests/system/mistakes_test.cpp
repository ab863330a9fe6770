/*
 * What an operator does wrong, and what he is told: each message has to say what is wrong, and what to do about it.
 */
#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

#include "support/fleet_database.h"
#include "support/stranger.h"
#include "support/system_test.h"

using namespace support;
using namespace testing;

namespace {

/** It names the cause, and the remedy. */
Matcher<const Finished &> tells(int status, const std::string &cause, const std::string &remedy) {
    return fails(status, AllOf(HasSubstr(cause), HasSubstr(remedy)));
}

Matcher<const Finished &> tells_of_the_policy() {
    return tells(1, "the policy does not allow this", "its --policy file says who else may what");
}

/** The lines of a log at error level, which no log level leaves out. */
std::string errors_in(const std::string &log) {
    std::string errors;
    for (const std::string &line : lines_of(log)) {
        errors += line.find("[ERROR] [") != std::string::npos ? line + "\n" : "";
    }
    return errors;
}

/** The same as tells(), of a daemon, whose log tells the cause as an error. */
Matcher<const Finished &> fails_to_start(const std::string &cause, const std::string &remedy) {
    return fails(1, AllOf(ResultOf(errors_in, HasSubstr(cause)), HasSubstr(remedy)));
}

struct Row {
    std::vector<std::string> words;
    std::string cause;
    std::string remedy;
};

/** Router and ports service, asked as an operator asks. */
class Mistakes : public Test {
  protected:
    void start() {
        fleet.start_lone_router({"--reply-timeout", "60000"});
        fleet.start_ports();
    }
    static Finished call(const std::vector<std::string> &words) {
        return ctl({"call", "--session", "session.sock"}, words);
    }
    /** A second router, on places of its own unless the words say otherwise. */
    static Finished start_another_router(const std::vector<std::string> &words) {
        return run({TAVRIX_ROUTERD, "--socket", "other.sock", "--session", "", "--publish", free_bus_address()}, words);
    }

    Fleet fleet;
};

} // namespace

TEST_F(Mistakes, InACallAreNamedWithWhatIsAllowed) {
    start();
    const Row rows[] = {
        {{"ports.SetVlanAccess", "port_id=d2", "vlan_id=20"}, "vlan_id: \"20\" is not an integer", "in 1 to 4092"},
        {{"ports.SetEnabled", "port_id=d2", "status=on"}, "status: \"on\" is not one of", "enable, disable"},
        {{"ports.Get", "prot_id=d2"}, "there is no parameter prot_id", "did you mean port_id?"},
        {{"ports.Get", "x=d2"}, "there is no parameter x", "port_id is missing: a port c1-1"},
    };
    for (const Row &row : rows) {
        EXPECT_THAT(call(row.words), tells(1, row.cause, row.remedy));
    }
    const Finished out_of_range = call({"ports.SetVlanAccess", "port_id=d2", "vlan_id:=5000"});
    EXPECT_THAT(out_of_range, tells(1, "vlan_id: 5000", "is not in 1 to 4092"));
    EXPECT_EQ(count_of(out_of_range.diagnostics, "5000"), 1) << out_of_range.diagnostics;
}

TEST_F(Mistakes, OnTheCommandLineAreNamedWithTheRightWords) {
    const Row rows[] = {
        {{"call", "ports.Get", R"({"port_id":)"},
         "PARAMS is not JSON: line 1, column 11",
         "members are given as key=text or key:=json"},
        {{"call", "ports.Get", "--timout", "1"}, "--timout", "Run with --help"},
        {{"monitor", "tcp:/127.0.0.1:7001"},
         "'tcp:/127.0.0.1:7001' is neither a method nor a bus address",
         "tcp://127.0.0.1:7001"},
        {{"log-level", "portsd", "loud"}, "loud", "off,info,debug,verbose"},
    };
    for (const Row &row : rows) {
        EXPECT_THAT(ctl(row.words), tells(2, row.cause, row.remedy));
    }
}

TEST_F(Mistakes, AStoppedRouterIsMissed) {
    EXPECT_THAT(ctl({"call", "--session", "none.sock", "ports.Get"}),
                tells(4, "none.sock: No such file or directory", "is tavrix-routerd running?"));
    EXPECT_THAT(ctl({"call", "--tcp", "127.0.0.1:" + std::to_string(free_port()), "ports.Get"}),
                tells(4, "Connection refused", "is tavrix-routerd running?"));
    Process ports("portsd", {TAVRIX_PORTSD, "--session", "none.sock"});
    const std::string waiting = "Waiting for the router at none.sock: No such file or directory; is it running?\n";
    EXPECT_TRUE(ports.says(waiting));
    EXPECT_THAT(errors_in(ports.log()), HasSubstr(waiting));
    EXPECT_EQ(ports.end_by(SIGINT), 0) << "it stops while it waits";
}

TEST_F(Mistakes, AServiceThatIsNotThereIsNamed) {
    start();
    ASSERT_EQ(fleet.ports->end_by(SIGTERM), 0);
    ASSERT_TRUE(fleet.router->says("Service portsd has gone"));
    EXPECT_THAT(call({"ports.Get", "port_id=d2"}),
                tells(1, "portsd, which serves ports.Get, is not there", "tavrixctl status shows since when"));
    fleet.start_lone_router();
    EXPECT_THAT(call({"ports.Get", "port_id=d2"}),
                tells(1, "no service is there for ports.Get", "tavrixctl list shows what can be called"));
}

TEST_F(Mistakes, AServiceThatDoesNotAnswerIsToldByTheToolInItsOwnTime) {
    start();
    fleet.ports->stand_still();
    EXPECT_THAT(call({"ports.Get", "port_id=d2", "--timeout", "0.2"}),
                tells(3, "no answer in time", "--timeout waits longer"));
}

TEST_F(Mistakes, ALockedSystemIsToldFromABusyOne) {
    start();
    ASSERT_EQ(call({"router.Lock"}).status, 0);
    EXPECT_THAT(call({"ports.Get", "port_id=d2"}),
                tells(1, "the system is locked", "tavrixctl call router.Unlock ends that"));
}

TEST_F(Mistakes, APolicysRefusalSaysWhoMayAllowIt) {
    const std::string port = std::to_string(free_port());
    fleet.start_lone_router({"--tcp", port});
    EXPECT_THAT(ctl({"call", "--tcp", "127.0.0.1:" + port, "ports.Get"}), tells_of_the_policy());
    EXPECT_THAT(start_another_router({"--tcp", port}),
                fails_to_start("Cannot listen on TCP port " + port, "somebody serves there"));
}

/** The client, as somebody who is neither root nor the router's user. */
class MistakesOfAStranger : public Mistakes {
  protected:
    void SetUp() override {
        if (!can_be_a_stranger()) {
            GTEST_SKIP() << "only root can be somebody else";
        }
        ASSERT_EQ(chmod(".", 0755), 0);
        if (run_tool("--version").status != 0) {
            GTEST_SKIP() << "nobody else may enter the folder of this build";
        }
        start();
    }
    static Finished run_tool(const std::string &words) {
        return script("export -f tavrixctl; setpriv --reuid 65534 --regid 65534 --clear-groups bash -c 'tavrixctl " +
                      words + "'");
    }
};

TEST_F(MistakesOfAStranger, ASocketThatIsNotForThisUserSaysSo) {
    ASSERT_EQ(chmod("session.sock", 0600), 0);
    EXPECT_THAT(run_tool("call --session session.sock ports.Get"),
                tells(4, "session.sock: Permission denied", "may this user enter its folder"));
}

TEST_F(MistakesOfAStranger, ALogLevelIsForWhoMayWriteTheFile) {
    write_file("levels.conf", "[logging_levels]\nportsd=info\n");
    EXPECT_THAT(run_tool("log-level --session session.sock --file levels.conf portsd debug"),
                tells(1, "levels.conf: Permission denied", "may this user write it"));
}

TEST_F(MistakesOfAStranger, WatchingIsRefusedWithTheSameWords) {
    EXPECT_THAT(run_tool("monitor --session session.sock"), tells_of_the_policy());
}

TEST_F(Mistakes, SecondDaemonsFindTheFirstOnesPlacesTaken) {
    start();
    EXPECT_THAT(start_another_router({"--socket", "router.sock"}),
                fails_to_start("Cannot listen on router.sock", "another daemon serves there"));
    EXPECT_THAT(run({TAVRIX_ROUTERD, "--socket", "other.sock", "--publish", fleet.router_address}),
                fails_to_start("Address already in use", "is another router running?"));
    const Process second("second", {TAVRIX_PORTSD, "--session", "session.sock", "--publish", free_bus_address()});
    const std::string refusal = "refuses portsd: a service of this name is registered already";
    EXPECT_TRUE(second.says(refusal));
    EXPECT_TRUE(second.says("is another one running?"));
    EXPECT_THAT(errors_in(second.log()), HasSubstr(refusal));
}

TEST_F(Mistakes, AnAddressThatTheBusCannotTakeSaysWhichItCan) {
    for (const std::string &address : {"ipc://" + std::string(120, 'x'), std::string("http://127.0.0.1:7001")}) {
        const auto told = fails_to_start("Cannot publish on " + address,
                                         "an address begins with tcp:// or ipc:// and has at most 113 bytes");
        EXPECT_THAT(start_another_router({"--publish", address}), told);
        EXPECT_THAT(run({TAVRIX_PORTSD, "--session", "none.sock", "--publish", address}), told);
    }
    EXPECT_THAT(run({TAVRIX_ROUTERD, "--socket", "other.sock", "--publish", "tcp://192.0.2.1:7001"}),
                fails_to_start("Cannot publish on tcp://192.0.2.1:7001", "is that address one of this machine?"));
}

TEST_F(Mistakes, ADaemonSaysWhatItMissesAndHowItGetsIt) {
    EXPECT_THAT(
        start_another_router({"--socket", "no/folder/x.sock"}),
        fails_to_start("Cannot listen on no/folder/x.sock: No such file or directory", "does its folder exist"));
    EXPECT_THAT(run({TAVRIX_PORTSD, "--session", "", "--publish", fleet.ports_address}),
                fails_to_start("Without a session", "the bus addresses to listen to have to be given"));
    const auto start_ports_with = [this](const std::string &database) {
        return run({TAVRIX_PORTSD, "--publish", fleet.ports_address, "--database", database, "--session", "none.sock"});
    };
    EXPECT_THAT(start_ports_with("missing.db"),
                fails_to_start("Cannot open the database missing.db", "it is made with: tavrixctl db init missing.db"));
    EXPECT_THAT(ctl({"db", "check", "missing.db"}),
                tells(1, "missing.db: unable to open database file", "tavrixctl db init makes one"));
    Sql().run("DROP TABLE units");
    EXPECT_THAT(start_ports_with("zqn_h7.db"),
                fails_to_start("no such table: units", "one is made with: tavrixctl db init zqn_h7.db"));
}

TEST_F(Mistakes, AnUnknownOptionOfADaemonIsNamed) {
    for (const char *program : {TAVRIX_ROUTERD, TAVRIX_PORTSD, TAVRIX_EVENTSD}) {
        EXPECT_THAT(run({program, "--nmae", "x"}), tells(2, "there is no option --nmae", " --help'"));
        EXPECT_THAT(run({program, "--session", "x", "-xy"}), tells(2, "there is no option -x", " --help'"));
        EXPECT_THAT(run({program, "--session"}), tells(2, "a value is missing after --session", " --help'"));
        EXPECT_THAT(run({program, "--session", "x", "y"}), tells(2, "unexpected word 'y'", " --help'"));
    }
    EXPECT_THAT(run({TAVRIX_ROUTERD, "--tcp", "99999"}), tells(2, "not '99999'", "a number from 0 to 65535"));
}

TEST_F(Mistakes, AWrongLineOfAFileIsNamedWithItsNumber) {
    write_file("routerd.conf", "[routerd]\n# a slip\nsokcet=x\n");
    EXPECT_THAT(run({TAVRIX_ROUTERD, "--config", "routerd.conf"}),
                tells(2, "routerd.conf:3: there is no option 'sokcet'", "Try 'tavrix-routerd --help'"));
    EXPECT_THAT(run({TAVRIX_ROUTERD, "--config", "absent.conf"}), tells(2, "absent.conf", "cannot be opened"));
    write_file("policy.conf", "[unix]\nall=ports.Get, mzu.List\n");
    EXPECT_THAT(start_another_router({"--policy", "policy.conf"}),
                fails_to_start("policy.conf cannot be used: line 2", "' mzu.List' is not a method pattern"));
    write_file("links.txt", "c1-1 up\nc1-1 sideways\n");
    EXPECT_THAT(run({TAVRIX_EVENTSD, "--session", "none.sock", "--publish", fleet.events_address, "--slot", "",
                     "--script", "links.txt"}),
                tells(1, "links.txt:2", "a port id and up or down are wanted"));
}
