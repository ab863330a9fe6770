/*
 * The four checking primitives, and kept patterns against patterns that are compiled for every call.
 */
#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tavrix_validation.h"
#include "tavrix_validation_internal.h"

using support::LogCapture;

namespace {

constexpr char unit[] = "tavrix_validation";

constexpr const char *pattern_labels[] = {
    "Port ID",
    "C Port ID",
    "D Port ID",
    "Vlan Name ID",
    "MZU ID",
    "MZU SW Upgrade Filename",
    "Unit SW Upgrade filename",
    "Date",
    "Time",
    "UUID",
    "IP Address",
    "MAC Address",
    "Description",
    "Password",
    "Username",
};

/** The verdict and the log of a kept pattern and of the same text compiled for the call. */
void expect_same(const char *label, const std::string &value, const LogCapture &log) {
    const char *kept = tavrix_validation_pattern_of(label);
    ASSERT_NE(kept, nullptr) << label;
    const std::string copy = kept; // another address: compiled for the call
    const_cast<LogCapture &>(log).clear();
    const int plain_rc = validate_against_regex(copy.c_str(), value.c_str(), label);
    const std::vector<std::string> plain_lines = log.sequence();
    const_cast<LogCapture &>(log).clear();
    const int kept_rc = validate_against_regex(kept, value.c_str(), label);
    EXPECT_EQ(kept_rc, plain_rc) << label << ": " << value.substr(0, 80) << " (" << value.size() << ")";
    EXPECT_EQ(log.sequence(), plain_lines) << label << ": " << value.substr(0, 80);
}

const std::vector<std::string> &valid_values() {
    static const std::vector<std::string> values = {
        "c1-1",
        "C128-99",
        "d1",
        "D4",
        "v1",
        "v4092",
        "c128",
        "zqn-h7-1.2.3-004.img",
        "2026-05-01",
        "23:59",
        "01234567-89ab-cdef-ABCD-EF0123456789",
        "192.168.1.1",
        "aa:bb:cc:dd:ee:ff",
        "AA-BB-CC-DD-EE-FF",
        "a text",
        "pass!?_@-",
        "operator7",
        "",
    };
    return values;
}

/** A value near a valid one: a character changed, taken out, put in, or the whole doubled. */
std::string near(const std::string &value, std::mt19937 &random) {
    static const std::string alphabet = "0123456789abcdefcdvzqnCDV:-./\" \n\t\x01\x80\xff";
    std::string changed = value;
    const size_t at = changed.empty() ? 0 : random() % (changed.size() + 1);
    const char c = alphabet[random() % alphabet.size()];
    switch (random() % 4) {
    case 0:
        changed.insert(at, 1, c);
        break;
    case 1:
        changed.erase(at, 1);
        break;
    case 2:
        changed += changed;
        break;
    default:
        if (at < changed.size()) {
            changed[at] = c;
        }
    }
    return changed;
}

} // namespace

TEST(Regex, AcceptsRejectsAndSaysSo) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_against_regex("^a+$", "aaa", "Label"), 0);
    EXPECT_EQ(validate_against_regex("^a+$", "b", "Label"), -2);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                  "VERB |Testing [Label] value <aaa> against regex: ^a+$",
                                  "DEBUG|Regex test passed.",
                                  "VERB |Testing [Label] value <b> against regex: ^a+$",
                                  "DEBUG|Validation failed: [Label] value <b> did not return a regex match.",
                              }));
    EXPECT_EQ(log.lines().front().file, unit);
}

TEST(Regex, ReportsAPatternThatDoesNotCompile) {
    const LogCapture log("info");
    EXPECT_EQ(validate_against_regex("(", "x", "Label"), -1);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"ERROR|ERROR: Could not compile '(': missing )"});
}

TEST(Regex, ReportsAnEngineFailure) {
    // Every way to split the letters is tried before the end does not fit.
    const LogCapture log("info");
    EXPECT_EQ(validate_against_regex("^(a+)+$", (std::string(40, 'a') + "b").c_str(), "Label"), -1);
    EXPECT_EQ(log.sequence(), std::vector<std::string>{"ERROR|Error code received from pcre_exec: -8"});
}

TEST(Regex, CountsAMatchWithMoreGroupsThanItsVectorHolds) {
    EXPECT_EQ(validate_against_regex("^(a)(b)(c)(d)(e)(f)(g)(h)$", "abcdefgh", "Label"), 0);
}

TEST(Regex, MatchesCaseSensitivelyAndAnchorsAtTheWholeValue) {
    EXPECT_EQ(validate_against_regex("^a$", "A", "Label"), -2);
    EXPECT_EQ(validate_against_regex("^a$", "b\na", "Label"), -2);
    EXPECT_EQ(validate_against_regex("^a$", "a\n", "Label"), 0) << "before a final newline";
}

TEST(LengthAndRegex, ChecksItsBoundsBeforeThePattern) {
    const struct {
        const char *value;
        int rc;
        const char *line;
    } rows[] = {
        {"ab", -5, "DEBUG|Validation failed: [Label] value <ab> is too short (<3)"},
        {"abcdef", -4, "DEBUG|Validation failed: [Label] value <abcdef> is too long (>5)"},
        {"abc", 0, "DEBUG|Regex test passed."},
        {"abcde", 0, "DEBUG|Regex test passed."},
    };
    for (const auto &row : rows) {
        const LogCapture log("debug");
        EXPECT_EQ(validate_length_and_regex(row.value, 3, 5, "^[a-z]*$", "Label"), row.rc);
        EXPECT_EQ(log.sequence(), std::vector<std::string>{row.line});
    }
    EXPECT_EQ(validate_length_and_regex("ab", 3, 5, "(", "Label"), -5) << "the pattern is not compiled";
    EXPECT_EQ(validate_length_and_regex("abc", 3, 5, "(", "Label"), -1);
}

TEST(Options, AreComparedInOrderAndExactly) {
    const char *const options[] = {"enable", "disable", "disable"};
    const LogCapture log("verbose");
    EXPECT_EQ(validate_against_options("disable", options, 3, "Label"), 0);
    EXPECT_EQ(validate_against_options("Enable", options, 2, "Label"), -3);
    EXPECT_EQ(validate_against_options("x", options, 0, "Label"), -3);
    EXPECT_EQ(log.sequence(),
              (std::vector<std::string>{
                  "VERB |[Label] value <disable> did not match option <enable>",
                  "VERB |[Label] value <disable> matches option <disable>",
                  "VERB |[Label] value <Enable> did not match option <enable>",
                  "VERB |[Label] value <Enable> did not match option <disable>",
                  "DEBUG|Validation failed: Given [Label] value <Enable> is not one of the available options",
                  "DEBUG|Validation failed: Given [Label] value <x> is not one of the available options",
              }));
}

TEST(Blacklist, IsTheMirrorImage) {
    const char *const names[] = {"root", "daemon"};
    const LogCapture log("verbose");
    EXPECT_EQ(validate_against_blacklist("daemon", names, 2, "Label"), -3);
    EXPECT_EQ(validate_against_blacklist("Root", names, 1, "Label"), 0);
    EXPECT_EQ(validate_against_blacklist("x", names, 0, "Label"), 0);
    EXPECT_EQ(log.sequence(), (std::vector<std::string>{
                                  "VERB |[Label] value <daemon> did not match blacklist option <root>",
                                  "DEBUG|Validation failed: [Label] value <daemon> matches blacklist option <daemon>",
                                  "VERB |[Label] value <Root> did not match blacklist option <root>",
                                  "DEBUG|Given [Label] value <Root> is not one of the blacklisted options",
                                  "DEBUG|Given [Label] value <x> is not one of the blacklisted options",
                              }));
}

class KeptPatterns : public testing::TestWithParam<const char *> {};

INSTANTIATE_TEST_SUITE_P(Fields, KeptPatterns, testing::ValuesIn(pattern_labels), [](const auto &row) {
    std::string name = row.param;
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    return name;
});

TEST_P(KeptPatterns, DecideLikeThoseCompiledPerCallOnNearAndRandomValues) {
    std::mt19937 random(20261121);
    for (const char *level : {"off", "info", "debug", "verbose"}) {
        const LogCapture log(level);
        for (int i = 0; i < 150; ++i) {
            const std::string &valid = valid_values()[random() % valid_values().size()];
            expect_same(GetParam(),
                        i < static_cast<int>(valid_values().size()) ? valid_values()[static_cast<size_t>(i)]
                                                                    : near(near(valid, random), random),
                        log);
            std::string bytes(random() % 40, '\0');
            for (char &c : bytes) {
                c = static_cast<char>(1 + random() % 255);
            }
            expect_same(GetParam(), bytes, log);
        }
    }
}

TEST_P(KeptPatterns, DecideLikeThoseCompiledPerCallOnLongValues) {
    const LogCapture log("info");
    for (const size_t length : {size_t{1023}, size_t{1024}, size_t{1025}, size_t{5000}, size_t{300000}}) {
        for (const char *piece : {"a", "zqn", "1", ":", "\"", "zqn1.2.3-", "c1-"}) {
            std::string value;
            while (value.size() + std::string(piece).size() <= length) {
                value += piece;
            }
            const bool quadratic = std::string(piece).find("zqn") == 0 && length > 10000;
            if (!quadratic) {
                expect_same(GetParam(), value, log);
                expect_same(GetParam(), value + "\nx", log);
            }
        }
    }
}

TEST(KeptPatternLimits, AreTheInterpretersOwn) {
    // So many beginnings that the interpreter gives up: the kept pattern has to give up too.
    std::string value;
    while (value.size() < 12000) {
        value += "zqn";
    }
    const LogCapture log("info");
    expect_same("Unit SW Upgrade filename", value, log);
    EXPECT_EQ(validate_unit_sw_upgrade_filename(value.c_str()), -1);
}

TEST(KeptPatternThreads, ShareThemFromTheFirstUseOn) {
    support::set_log_level("off");
    std::vector<std::thread> threads;
    std::array<int, 8> wrong{};
    for (size_t t = 0; t < wrong.size(); ++t) {
        threads.emplace_back([&wrong, t] {
            for (int i = 0; i < 300; ++i) {
                wrong[t] += validate_uuid("01234567-89ab-cdef-0123-456789abcdef") == 0 ? 0 : 1;
                wrong[t] += validate_uuid("01234567-89ab-cdef-0123-456789abcdeg") == -2 ? 0 : 1;
                wrong[t] += validate_port_id("c12-5") == 0 ? 0 : 1;
                wrong[t] += validate_ip_address("10.0.0.256") == -2 ? 0 : 1;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const int count : wrong) {
        EXPECT_EQ(count, 0);
    }
}
