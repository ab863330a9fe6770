/*
 * The daemons' options: what the command line and the file leave in the daemon's variables.
 */
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/options.h"
#include "support/process.h"

using Words = std::vector<std::string>;

namespace {

/** A daemon with an option of each kind. */
struct Daemon {
    std::string text = "usual";
    Words list = {"usual"};
    int number = 5;
    int status = -1;

    /** True when the daemon goes on. */
    bool starts_with(Words words) {
        daemon_support::Options options("tavrix-triald", "triald", "Tries options.", "tavrix-triald");
        options.text("some-text", "TEXT", "a text", &text);
        options.list("some-list", "WORD", "a list", &list);
        options.number("some-number", "N", "a number", 0, 10, &number);
        words.insert(words.begin(), "tavrix-triald");
        std::vector<char *> arguments;
        for (std::string &word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        return options.parse(static_cast<int>(words.size()), arguments.data(), &status);
    }
};

} // namespace

TEST(DaemonOptions, KeepTheirDefaultsWhereNothingIsSaid) {
    Daemon daemon;
    EXPECT_TRUE(daemon.starts_with({}));
    EXPECT_EQ(daemon.text, "usual");
    EXPECT_EQ(daemon.list, Words{"usual"});
    EXPECT_EQ(daemon.number, 5);
}

TEST(DaemonOptions, TakeATextHoweverItIsGiven) {
    const std::pair<Words, const char *> rows[] = {
        {{"--some-text", "a"}, "a"},
        {{"--some-text=a"}, "a"},
        {{"--some-text=a=b"}, "a=b"},
        {{"--some-text", ""}, ""},
        {{"--some-text=", "--some-number=6"}, ""},
        {{"--some-text", "-x"}, "-x"},
        {{"--some-text", "--some-list"}, "--some-list"},
        {{"--some-text", "[a,b]"}, "[a,b]"},
        {{"--some-text", "a b"}, "a b"},
        {{"--some-text", "a", "--some-number", "1", "--some-text", "b"}, "b"},
    };
    for (const auto &[words, text] : rows) {
        Daemon daemon;
        EXPECT_TRUE(daemon.starts_with(words)) << words[0];
        EXPECT_EQ(daemon.text, text) << words[0];
    }
}

TEST(DaemonOptions, TakeAListInSeveralPartsInPlaceOfTheUsualOne) {
    const std::pair<Words, Words> rows[] = {
        {{"--some-list", "a"}, {"a"}},
        {{"--some-list", "a,b", "--some-list=c"}, {"a", "b", "c"}},
        {{"--some-list", "[a,b]"}, {"[a", "b]"}},
        {{"--some-list", ""}, {}},
    };
    for (const auto &[words, list] : rows) {
        Daemon daemon;
        EXPECT_TRUE(daemon.starts_with(words)) << words[1];
        EXPECT_EQ(daemon.list, list) << words[1];
    }
}

TEST(DaemonOptions, TakeNumbersWithinTheirBounds) {
    for (const char *good : {"0", "10"}) {
        Daemon daemon;
        EXPECT_TRUE(daemon.starts_with({"--some-number", good}));
        EXPECT_EQ(daemon.number, std::stoi(good));
    }
    for (const char *bad : {"-1", "11", "", "1x", "x", "99999999999999999999"}) {
        Daemon daemon;
        EXPECT_FALSE(daemon.starts_with({"--some-number", bad})) << bad;
        EXPECT_EQ(daemon.status, 2) << bad;
    }
}

TEST(DaemonOptions, RefuseWhatTheyDoNotKnow) {
    for (const Words &words : {Words{"--other"}, Words{"--other=1"}, Words{"-x"}, Words{"word"}, Words{"--", "word"},
                               Words{"--some-text"}, Words{"--some"}, Words{"--some-text", "a", "b"}}) {
        Daemon daemon;
        EXPECT_FALSE(daemon.starts_with(words)) << words[0];
        EXPECT_EQ(daemon.status, 2) << words[0];
    }
}

TEST(DaemonOptions, EndWithTheHelpOrTheVersion) {
    for (const char *word : {"-h", "--help", "-V", "--version"}) {
        Daemon daemon;
        EXPECT_FALSE(daemon.starts_with({word}));
        EXPECT_EQ(daemon.status, 0);
    }
}

TEST(DaemonOptions, TakeFromTheFileWhatTheCommandLineDoesNotSay) {
    support::write_file("trial.conf", "[triald]\nsome_text=of the file\nsome_list=x,y\nsome_number=7\n");
    Daemon daemon;
    EXPECT_TRUE(daemon.starts_with({"--some-list", "a", "--config", "trial.conf", "--some-text="}));
    EXPECT_EQ(daemon.text, "");
    EXPECT_EQ(daemon.list, Words{"a"});
    EXPECT_EQ(daemon.number, 7);
}
