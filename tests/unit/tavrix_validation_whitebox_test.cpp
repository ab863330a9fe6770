/*
 * The four checking primitives: verdicts, lines, and what they ask of the pattern library.
 */
#include "internal/tavrix_validation_seam.h"

#include <cerrno>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <pcre.h>

#include "support/faults.h"
#include "support/fields.h"
#include "support/log_capture.h"
#include "tavrix_validation.h"

using namespace fault;
using namespace support;

namespace {

// --- The pattern library's allocations -----------------------------------------------------------------------------

/** Lets a number of the pattern library's allocations succeed; all of them unless one is named. */
class PatternMemory : public Failing {
  public:
    explicit PatternMemory(int successes = -1) : Failing("PCRE", successes + 1, ENOMEM, always), free_(pcre_free) {
        static void (*const release)(void *) = pcre_free;
        null_releases = 0;
        pcre_free = [](void *block) {
            null_releases += block == nullptr ? 1 : 0;
            release(block);
        };
    }
    ~PatternMemory() { pcre_free = free_; }
    PatternMemory(const PatternMemory &) = delete;
    PatternMemory &operator=(const PatternMemory &) = delete;

    /** Blocks taken since then that are still in use. */
    int live_blocks() const { return blocks() - before_; }

    static int null_releases;

  private:
    void (*free_)(void *);
    int before_ = blocks();
};
int PatternMemory::null_releases = 0;

// --- The pattern library's matching --------------------------------------------------------------------------------

int matches = 0;

bool uses_jit(const pcre_extra *extra) { return extra != nullptr && (extra->flags & PCRE_EXTRA_EXECUTABLE_JIT) != 0; }

} // namespace

extern "C" {
int __real_pcre_exec(const pcre *code, const pcre_extra *extra, const char *subject, int length, int start, int options,
                     int *vector, int vector_size);
int __wrap_pcre_exec(const pcre *code, const pcre_extra *extra, const char *subject, int length, int start, int options,
                     int *vector, int vector_size) {
    ++matches;
    if (uses_jit(extra) && Fault::fails("pcre_exec")) {
        return errno;
    }
    return __real_pcre_exec(code, extra, subject, length, start, options, vector, vector_size);
}
}

// --- Regular expression --------------------------------------------------------------------------------------------

TEST(Regex, AcceptsRejectsAndSaysSo) {
    const LogCapture log("verbose");
    EXPECT_EQ(validate_against_regex("^a+$", "aaa", "Label"), 0);
    EXPECT_EQ(validate_against_regex("^a+$", "b", "Label"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_TRUE(log.said({"VERB |Testing [Label] value <aaa> against regex: ^a+$", "DEBUG|Regex test passed.",
                          "VERB |Testing [Label] value <b> against regex: ^a+$",
                          "DEBUG|Validation failed: [Label] value <b> did not return a regex match."}));
    EXPECT_EQ(log.lines().front().file, "tavrix_validation");
}

TEST(Regex, ReportsAPatternThatDoesNotCompile) {
    const LogCapture log("info");
    EXPECT_EQ(validate_against_regex("(", "x", "Label"), TAVRIX_INVALID_ENGINE);
    EXPECT_TRUE(log.said({"ERROR|ERROR: Could not compile '(': missing )"}));
}

TEST(Regex, ReportsAnEngineFailure) {
    // Every way to split the letters is tried before the end does not fit.
    const LogCapture log("info");
    EXPECT_EQ(validate_against_regex("^(a+)+$", (std::string(40, 'a') + "b").c_str(), "Label"), TAVRIX_INVALID_ENGINE);
    EXPECT_TRUE(log.said({"ERROR|Error code received from pcre_exec: -8"}));
}

TEST(Regex, CountsAMatchWithMoreGroupsThanItsVectorHolds) {
    EXPECT_EQ(validate_against_regex("^(a)(b)(c)(d)(e)(f)(g)(h)$", "abcdefgh", "Label"), 0);
}

TEST(Regex, MatchesCaseSensitivelyAndAnchorsAtTheWholeValue) {
    EXPECT_EQ(validate_against_regex("^a$", "A", "Label"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(validate_against_regex("^a$", "b\na", "Label"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_EQ(validate_against_regex("^a$", "a\n", "Label"), 0) << "before a final newline";
}

TEST(LengthAndRegex, ChecksItsBoundsBeforeThePattern) {
    const std::tuple<const char *, int, const char *> rows[] = {
        {"ab", TAVRIX_INVALID_TOO_SHORT, "DEBUG|Validation failed: [Label] value <ab> is too short (<3)"},
        {"abcdef", TAVRIX_INVALID_TOO_LONG, "DEBUG|Validation failed: [Label] value <abcdef> is too long (>5)"},
        {"abc", 0, "DEBUG|Regex test passed."},
        {"abcde", 0, "DEBUG|Regex test passed."},
    };
    for (const auto &[value, rc, line] : rows) {
        const LogCapture log("debug");
        EXPECT_EQ(validate_length_and_regex(value, 3, 5, "^[a-z]*$", "Label"), rc);
        EXPECT_TRUE(log.said({line}));
    }
    EXPECT_EQ(validate_length_and_regex("ab", 3, 5, "(", "Label"), TAVRIX_INVALID_TOO_SHORT)
        << "the pattern is not compiled";
    EXPECT_EQ(validate_length_and_regex("abcdef", 3, 5, "(", "Label"), TAVRIX_INVALID_TOO_LONG) << "nor here";
    EXPECT_EQ(validate_length_and_regex("abc", 3, 5, "(", "Label"), TAVRIX_INVALID_ENGINE);
}

TEST(Options, AreComparedInOrderAndExactly) {
    const char *const options[] = {"enable", "disable", "disable"};
    const LogCapture log("verbose");
    EXPECT_EQ(validate_against_options("disable", options, 3, "Label"), 0);
    EXPECT_EQ(validate_against_options("Enable", options, 2, "Label"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(validate_against_options("x", options, 0, "Label"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_TRUE(log.said({"VERB |[Label] value <disable> did not match option <enable>",
                          "VERB |[Label] value <disable> matches option <disable>",
                          "VERB |[Label] value <Enable> did not match option <enable>",
                          "VERB |[Label] value <Enable> did not match option <disable>",
                          "DEBUG|Validation failed: Given [Label] value <Enable> is not one of the available options",
                          "DEBUG|Validation failed: Given [Label] value <x> is not one of the available options"}));
}

TEST(Blacklist, IsTheMirrorImage) {
    const char *const names[] = {"root", "daemon"};
    const LogCapture log("verbose");
    EXPECT_EQ(validate_against_blacklist("daemon", names, 2, "Label"), TAVRIX_INVALID_NOT_ALLOWED);
    EXPECT_EQ(validate_against_blacklist("Root", names, 1, "Label"), 0);
    EXPECT_EQ(validate_against_blacklist("x", names, 0, "Label"), 0);
    EXPECT_TRUE(log.said({"VERB |[Label] value <daemon> did not match blacklist option <root>",
                          "DEBUG|Validation failed: [Label] value <daemon> matches blacklist option <daemon>",
                          "VERB |[Label] value <Root> did not match blacklist option <root>",
                          "DEBUG|Given [Label] value <Root> is not one of the blacklisted options",
                          "DEBUG|Given [Label] value <x> is not one of the blacklisted options"}));
}

// --- What a call asks of the pattern library -----------------------------------------------------------------------

// A value has to begin with one of two letters: something to study.
constexpr char studied_pattern[] = "^(a|b)c";

TEST(PatternCompiledForTheCall, ReleasesEverythingWithAndWithoutStudyData) {
    const char *const unstudied_pattern = "^.*$"; // any text will do: nothing to study
    const char *error = nullptr;
    int offset = 0;
    pcre *code = pcre_compile(unstudied_pattern, 0, &error, &offset, nullptr);
    ASSERT_NE(code, nullptr);
    ASSERT_EQ(pcre_study(code, 0, &error), nullptr);
    ASSERT_EQ(error, nullptr);
    pcre_free(code);
    for (const std::string pattern : {studied_pattern, unstudied_pattern}) {
        for (const char *value : {"ac", "x", ""}) {
            const PatternMemory memory;
            const bool matches_not = pattern == studied_pattern && value != std::string("ac");
            EXPECT_EQ(validate_against_regex(pattern.c_str(), value, "Label"),
                      matches_not ? TAVRIX_INVALID_NO_MATCH : TAVRIX_VALID);
            EXPECT_EQ(memory.live_blocks(), 0) << value;
            EXPECT_EQ(PatternMemory::null_releases, 0) << value;
        }
    }
}

TEST(PatternCompiledForTheCall, HandsTheNullOfAFailedCompilationToTheHook) {
    const PatternMemory memory;
    EXPECT_EQ(validate_against_regex("(", "x", "Label"), TAVRIX_INVALID_ENGINE);
    EXPECT_EQ(memory.live_blocks(), 0);
    EXPECT_EQ(PatternMemory::null_releases, 1);
}

TEST(PatternCompiledForTheCall, ReportsThatItCannotBeCompiledOrStudied) {
    for (const auto &[successes, step] : {std::pair(0, "compile"), {1, "study"}}) {
        const LogCapture log("info");
        const PatternMemory memory(successes);
        EXPECT_EQ(validate_against_regex(studied_pattern, "ac", "Label"), TAVRIX_INVALID_ENGINE);
        EXPECT_TRUE(log.said({std::string("ERROR|ERROR: Could not ") + step + " '^(a|b)c': failed to get memory"}));
        EXPECT_EQ(memory.live_blocks(), 0);
    }
}

// --- Kept patterns without memory ----------------------------------------------------------------------------------

// Each of these fields is used in its own test only: its pattern is not kept yet.

TEST(KeptPattern, ThatCannotBeMadeIsReportedAndMadeLater) {
    constexpr char line[] = "ERROR|ERROR: Could not compile '^([0-1]\\d|2[0-3]):[0-5]\\d$': failed to get memory";
    {
        const LogCapture log("info");
        const PatternMemory memory(0);
        EXPECT_EQ(validate_time("23:59"), TAVRIX_INVALID_ENGINE);
        EXPECT_EQ(validate_time("23:59"), TAVRIX_INVALID_ENGINE);
        EXPECT_TRUE(log.said({line, line})) << "one line for each call, nothing is retained";
        EXPECT_EQ(memory.live_blocks(), 0);
    }
    EXPECT_EQ(validate_time("23:59"), 0);
    EXPECT_EQ(validate_time("24:00"), TAVRIX_INVALID_NO_MATCH);
}

TEST(KeptPattern, ThatCannotBeStudiedIsReportedAndMadeLater) {
    {
        const LogCapture log("info");
        const PatternMemory memory(1);
        // The allocation that is left goes to the attempt to keep it; the one for the call then has none.
        EXPECT_EQ(validate_vlan_name_id("v1"), TAVRIX_INVALID_ENGINE);
        ASSERT_EQ(log.sequence().size(), 1U);
        EXPECT_EQ(log.sequence().front().rfind("ERROR|ERROR: Could not ", 0), 0U);
        EXPECT_EQ(memory.live_blocks(), 0);
    }
    EXPECT_EQ(validate_vlan_name_id("v1"), 0);
}

TEST(KeptPattern, WithoutMemoryOfItsOwnIsCompiledForTheCall) {
    const LogCapture log("debug");
    const Failing ever("calloc", 1, ENOMEM, Failing::always);
    EXPECT_EQ(validate_uuid("01234567-89ab-cdef-ABCD-EF0123456789"), 0);
    EXPECT_EQ(validate_uuid("0"), TAVRIX_INVALID_NO_MATCH);
    EXPECT_TRUE(log.said(
        {"DEBUG|Regex test passed.", "DEBUG|Validation failed: [UUID] value <0> did not return a regex match."}));
}

TEST(KeptPattern, WithoutMemoryForTheFastWayIsKeptAllTheSame) {
    {
        const PatternMemory memory(2); // compiling and studying
        EXPECT_EQ(validate_date("2026-05-01"), 0);
        EXPECT_EQ(memory.live_blocks(), 2);
    }
    const PatternMemory none(0);
    EXPECT_EQ(validate_date("2026-05-01"), 0);
    EXPECT_EQ(validate_date("2026-05-32"), TAVRIX_INVALID_NO_MATCH);
}

TEST(KeptPattern, IsMadeOnce) {
    EXPECT_EQ(validate_mzu_id("c1"), 0);
    const PatternMemory memory;
    for (const char *value : {"c1", "c129", "", "c128\n"}) {
        validate_mzu_id(value);
    }
    EXPECT_EQ(memory.live_blocks(), 0);
    const PatternMemory none(0);
    EXPECT_EQ(validate_mzu_id("c1"), 0) << "needs no memory any more";
}

// --- The JIT -------------------------------------------------------------------------------------------------------

/** How often a value is matched of which the JIT gives up: where there is none, at once by the interpreter. */
static int tries() {
    int has_jit = 0;
    EXPECT_EQ(pcre_config(PCRE_CONFIG_JIT, &has_jit), 0);
    return has_jit != 0 ? 2 : 1;
}

TEST(KeptPattern, LeavesToTheInterpreterWhatTheJitGivesUpOn) {
    EXPECT_EQ(validate_d_port_id("d1"), 0);
    const LogCapture log("debug");
    for (const int failure : {PCRE_ERROR_JIT_STACKLIMIT, PCRE_ERROR_MATCHLIMIT, PCRE_ERROR_JIT_BADOPTION}) {
        const Failing ever("pcre_exec", 1, failure, Failing::always);
        matches = 0;
        EXPECT_EQ(validate_d_port_id("d1"), 0) << failure;
        EXPECT_EQ(validate_d_port_id("d5"), TAVRIX_INVALID_NO_MATCH) << failure;
        EXPECT_EQ(matches, 2 * tries()) << "each value by the JIT, then by the interpreter";
    }
    EXPECT_EQ(log.text().find("pcre_exec"), std::string::npos);
    EXPECT_EQ(log.sequence().size(), 6U) << "one verdict for each value";
}

TEST(KeptPattern, UsesTheJitUpTo1024BytesOnly) {
    const std::string longest(1024, 'x');
    const Failing ever("pcre_exec", 1, PCRE_ERROR_JIT_STACKLIMIT, Failing::always);
    matches = 0;
    EXPECT_EQ(validate_mzu_sw_upgrade_filename(longest.c_str()), 0);
    EXPECT_EQ(std::exchange(matches, 0), tries());
    EXPECT_EQ(validate_mzu_sw_upgrade_filename((longest + "x").c_str()), 0);
    EXPECT_EQ(matches, 1) << "the interpreter at once";
}

TEST(PatternOf, KnowsPatternFieldsWhichShowIt) {
    for (const Field &field : pattern_fields()) {
        const char *pattern = tavrix_validation_pattern_of(field.label);
        ASSERT_NE(pattern, nullptr) << field.label;
        const LogCapture log("verbose");
        EXPECT_EQ(field.judge(field.valid.front()), TAVRIX_VALID);
        EXPECT_NE(log.text().find(std::string("> against regex: ") + pattern + "\n"), std::string::npos) << log.text();
        EXPECT_EQ(validate_against_regex(pattern, field.valid.front().c_str(), field.label), TAVRIX_VALID);
        EXPECT_TRUE(field.verdict != TAVRIX_INVALID_NO_MATCH ||
                    validate_against_regex(pattern, field.invalid.c_str(), field.label) == TAVRIX_INVALID_NO_MATCH)
            << field.label;
    }
    EXPECT_EQ(tavrix_validation_pattern_of("Status"), nullptr);
    EXPECT_EQ(tavrix_validation_pattern_of("d port id"), nullptr);
}
