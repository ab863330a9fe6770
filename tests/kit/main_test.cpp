#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/matchers.h"
#include "support/process.h"

namespace {

using support::ends;
using testing::_;
using testing::HasSubstr;

/** A service in C as a process of its own; beside a router it is in lives_test.cpp. */
class Main : public testing::Test {
  protected:
    Main() { support::write_file("tavrix_lsyslog.conf", "[logging_levels]\npeer=info\nunknown=info\n"); }
};

} // namespace

TEST_F(Main, EndsWithOneWhenTheRouterIsNeededAndNotThere) {
    EXPECT_THAT(support::run({PEER_SERVICE, "--session", "nobody.sock", "--need-router"}),
                ends(1, _, HasSubstr("Cannot reach the router at nobody.sock")));
}

TEST_F(Main, ShowsHelpAndVersionAndRefusesWhatItDoesNotKnow) {
    for (const char *help : {"--help", "-h"}) {
        EXPECT_EQ(support::run({PEER_SERVICE, help}).output.rfind("usage: ", 0), 0U) << help;
    }
    for (const char *version : {"--version", "-V"}) {
        EXPECT_EQ(support::run({PEER_SERVICE, version}).output, "peer 1.2\n") << version;
    }
    for (const char *unknown : {"--nonsense", "-x", "word"}) {
        EXPECT_THAT(support::run({PEER_SERVICE, unknown}), ends(2, _, HasSubstr(" --help'.")));
    }
}

TEST_F(Main, TakesEightAddressesToPublishOnSixteenToListenToAndNoMore) {
    for (const auto &[option, most] : {std::pair("--publish", 8), std::pair("--connect", 16)}) {
        std::vector<std::string> words = {PEER_SERVICE};
        for (int i = 0; i < most; ++i) {
            words.insert(words.end(), {option, "ipc://bus/one-of-many"});
        }
        std::vector<std::string> one_more = words;
        one_more.insert(one_more.end(), {option, "ipc://bus/too-many"});
        words.emplace_back("--version"); // read last: all before it was taken
        EXPECT_EQ(support::run(words).status, 0);
        EXPECT_THAT(support::run(one_more), ends(2, _, HasSubstr("too many addresses: ipc://bus/too-many")));
    }
}
