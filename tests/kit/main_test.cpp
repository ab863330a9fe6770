#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fleet.h"
#include "support/json.h"
#include "support/process.h"
#include "tavrix_service.h"

namespace {

/** The router and a service in C, as processes of their own. */
class Main : public testing::Test {
  protected:
    Main() { support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nhello=info\nrouterd=info\nunknown=info\n"); }

    /** The result of hello.Say, or the error's code. */
    static std::string say(const char *name) {
        json_t *response = nullptr;
        tavrix_request_wait("session.sock", "hello.Say", json_pack("{s:s}", "name", name), 20000, &response);
        const std::string text = support::taken(response);
        const std::string result = support::member(text, "result");
        return result != "(none)" ? result : support::code_of(text);
    }
};

} // namespace

TEST_F(Main, ServesThroughTheRouterUntilItIsToldToStop) {
    const auto router = support::started_router("ipc://bus/router");
    const auto service = support::started("hello", {HELLO_SERVICE, "--session", "session.sock"});
    EXPECT_EQ(say("you"), R"({"hello":"you"})");
    EXPECT_EQ(say(""), "-32602");
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
    EXPECT_TRUE(service->says("hello stopped"));
}

TEST_F(Main, EndsWithOneWhenTheRouterIsNeededAndNotThere) {
    const support::Finished finished = support::run({HELLO_SERVICE, "--session", "nobody.sock", "--need-router"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_TRUE(support::holds(finished.diagnostics, "Cannot reach the router at nobody.sock"));
}

TEST_F(Main, ShowsHelpAndVersionAndRefusesWhatItDoesNotKnow) {
    for (const char *help : {"--help", "-h"}) {
        EXPECT_EQ(support::run({HELLO_SERVICE, help}).output.rfind("usage: ", 0), 0U) << help;
    }
    for (const char *version : {"--version", "-V"}) {
        EXPECT_EQ(support::run({HELLO_SERVICE, version}).output, "hello 1.2\n") << version;
    }
    for (const char *unknown : {"--nonsense", "-x", "word"}) {
        const support::Finished finished = support::run({HELLO_SERVICE, unknown});
        EXPECT_EQ(finished.status, 2) << unknown;
        EXPECT_TRUE(support::holds(finished.diagnostics, " --help'."));
    }
}

TEST_F(Main, TakesSixteenAddressesOfAKindAndNoMore) {
    for (const char *option : {"--publish", "--connect"}) {
        std::vector<std::string> words = {HELLO_SERVICE};
        for (int i = 0; i < 16; ++i) {
            words.insert(words.end(), {option, "ipc://bus/one-of-many"});
        }
        std::vector<std::string> one_more = words;
        one_more.insert(one_more.end(), {option, "ipc://bus/too-many"});
        words.emplace_back("--version"); // read last: all before it was taken
        EXPECT_EQ(support::run(words).status, 0);
        const support::Finished finished = support::run(one_more);
        EXPECT_EQ(finished.status, 2);
        EXPECT_TRUE(support::holds(finished.diagnostics, "too many addresses: ipc://bus/too-many"));
    }
}
