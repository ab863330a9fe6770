#include "tavrix_lsyslog.h"

#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/handles.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/repeating.h"
#include "tavrix_error.h"

using namespace support;

namespace {

constexpr char conf[] = "tavrix_lsyslog.conf";

void write_conf(const std::string &text) { std::ofstream(conf, std::ios::binary) << text; }

std::string logged(int level, const std::string &message) {
    const StderrCapture out;
    EXPECT_EQ(tavrix_lsyslog_log(level, "some_unit", 77, "%s", message.c_str()), 0);
    return out.text();
}

/** What a reload returns and prints. */
Answer reload_with(const std::string &text) {
    write_conf(text);
    const StderrCapture out;
    const int rc = tavrix_lsyslog_reload_conf();
    return {rc, out.text()};
}

Answer load(const std::string &word) { return reload_with("[logging_levels]\nunit-test=" + word + "\n"); }

/** The level is the highest that is let through. */
void expect_level(int level) {
    EXPECT_EQ(tavrix_lsyslog_check_severity(level), 1) << level;
    EXPECT_EQ(tavrix_lsyslog_check_severity(level + 1), 0) << level;
}

class Logger : public testing::Test {
  protected:
    void SetUp() override { set_log_level("verbose"); }
};

constexpr char stamp[] = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] )";

/** The clock that stamps the lines, in milliseconds since 1970. */
int64_t milliseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/** A line's stamp, likewise, as if it were in UTC. */
int64_t stamp_of(const std::string &line) {
    tm local{};
    const char *rest = strptime(line.c_str(), "[%Y-%m-%d %H:%M:%S.", &local);
    EXPECT_NE(rest, nullptr) << line;
    return rest == nullptr ? 0 : int64_t{timegm(&local)} * 1000 + std::atoi(rest);
}

/** Waits until a clock shows another time. */
template <class Clock>
void wait_for_the_next(Clock clock) {
    for (const auto now = clock(); clock() == now;) {
        std::this_thread::yield();
    }
}

} // namespace

TEST(LoggerBeforeInit, WorksAsUnknownAtDebugLevel) {
    // First in this program: nothing has named the daemon yet.
    const std::string line = logged(4, "early\n");
    EXPECT_NE(line.find("] [INFO ] [unknown] early\n"), std::string::npos) << line;
    EXPECT_EQ(tavrix_lsyslog_check_severity(5), 1);
    EXPECT_EQ(tavrix_lsyslog_check_severity(6), 0);
}

TEST_F(Logger, PrintsFileAndLineForErrorDebugVerboseAndStrangeLevelsOnly) {
    const std::tuple<int, const char *, const char *> rows[] = {
        {0, "UNKNW", ""},
        {1, "CONF ", ""},
        {2, "ERROR", ": some_unit:77"},
        {3, "WARN ", ""},
        {4, "INFO ", ""},
        {5, "DEBUG", ": some_unit:77"},
        {6, "VERB ", ": some_unit:77"},
        {-1, "UNKNW", ": some_unit:77"},
        {-7, "UNKNW", ": some_unit:77"},
    };
    for (const auto &[level, tag, source] : rows) {
        const std::regex shape(std::string(stamp) + R"(\[)" + tag + R"(\] \[unit-test)" + source + R"(\] hello)" +
                               "\n");
        EXPECT_TRUE(std::regex_match(logged(level, "hello\n"), shape)) << level;
    }
}

TEST_F(Logger, DropsWhatIsAboveTheLevelBySignedComparison) {
    set_log_level("info");
    EXPECT_NE(logged(4, "x\n"), "");
    EXPECT_EQ(logged(5, "x\n"), "");
    EXPECT_EQ(logged(6, "x\n"), "");
    EXPECT_EQ(logged(7, "x\n"), "");
    EXPECT_NE(logged(-1, "x\n"), "") << "a negative level always passes";
    set_log_level("verbose");
    EXPECT_NE(logged(6, "x\n"), "");
    EXPECT_EQ(logged(7, "x\n"), "") << "above the highest level";
}

TEST_F(Logger, AddsNoLineEndOfItsOwn) { EXPECT_EQ(logged(4, "no end").back(), 'd'); }

TEST_F(Logger, KeepsAMessageOf8000CharactersAndCutsALongerOne) {
    const std::string whole = std::string(7999, 'a') + "\n";
    EXPECT_EQ(parse_log(logged(2, whole)).at(0).message, whole);
    const std::string longer = std::string(8000, 'a') + "\n";
    EXPECT_EQ(parse_log(logged(2, longer)).at(0).message, std::string(8000, 'a'));
}

TEST_F(Logger, ReportsAMessageThatCannotBeFormatted) {
    std::setlocale(LC_ALL, "C");
    const StderrCapture out;
    const wchar_t unprintable[] = {static_cast<wchar_t>(0x12345), 0};
    EXPECT_EQ(tavrix_lsyslog_log(2, "some_unit", 1, "%ls", unprintable), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(out.text(), "");
}

TEST_F(Logger, RefusesANullFormatThatItWouldPrint) {
    const char *const none = nullptr;
    const StderrCapture out;
    EXPECT_EQ(tavrix_lsyslog_log(2, "some_unit", 77, none), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_lsyslog_log(7, "some_unit", 77, none), 0) << "filtered out before";
    EXPECT_EQ(out.text(), "");
}

TEST_F(Logger, StampsTheLinesOfSeveralThreadsEachWithItsOwnTime) {
    constexpr int thread_count = 4;
    setenv("TZ", "UTC0", 1);
    wait_for_the_next(wall_clock);
    const std::time_t second = wall_clock();
    const StderrCapture out;
    std::atomic<int> written{0};
    on_threads(thread_count, [&](int /*me*/) {
        while (wall_clock() <= second + 1) {
            const long long before = milliseconds_now();
            tavrix_lsyslog_log(4, "some_unit", 77, "not before %lld\n", before);
            ++written;
            wait_for_the_next(milliseconds_now);
        }
    });
    const int64_t end = milliseconds_now();
    unsetenv("TZ");
    const std::regex shape(std::string(stamp) + R"(\[INFO \] \[unit-test\] not before (\d+))");
    std::istringstream lines(out.text());
    int whole = 0;
    for (std::string line; std::getline(lines, line); ++whole) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        ASSERT_GE(stamp_of(line), std::stoll(match[1])) << line;
        ASSERT_LE(stamp_of(line), end) << line;
    }
    EXPECT_EQ(whole, written);
    EXPECT_GE(whole, thread_count);
}

TEST_F(Logger, WritesEachLineInOnePiece) {
    for (const size_t length : {1U, 100U, 4096U, 8000U}) {
        int ends[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0); // keeps the pieces apart
        const tavrix::Descriptor written(ends[0]);
        const tavrix::Descriptor before(dup(STDERR_FILENO));
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        const std::string message(length, 'm');
        tavrix_lsyslog_log(4, "some_unit", 77, "%s", message.c_str());
        tavrix_lsyslog_log(2, "some_unit", 77, "%s", message.c_str());
        dup2(before.get(), STDERR_FILENO);
        for (const std::string &piece :
             {"[INFO ] [unit-test] " + message, "[ERROR] [unit-test: some_unit:77] " + message}) {
            std::string next(65536, '\0');
            next.resize(static_cast<size_t>(recv(written.get(), next.data(), next.size(), 0)));
            EXPECT_EQ(next.erase(0, 26), piece);
        }
        char more = 0;
        EXPECT_EQ(recv(written.get(), &more, 1, 0), 0) << "nothing else";
    }
}

TEST_F(Logger, ChecksSeverityWithUnsignedNumbers) {
    for (int level = 0; level <= 6; ++level) {
        EXPECT_EQ(tavrix_lsyslog_check_severity(level), 1) << level;
    }
    EXPECT_EQ(tavrix_lsyslog_check_severity(-1), 0);
    expect_level(6);
    set_log_level("info");
    expect_level(4);
    set_log_level("off");
    expect_level(0);
}

TEST_F(Logger, LoadsEachOfTheFourWords) {
    for (const auto &[word, level] : {std::pair("info", 4), {"debug", 5}, {"verbose", 6}}) {
        const Answer reload = load(word);
        EXPECT_EQ(reload.rc, 0);
        const auto lines = parse_log(reload.text);
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].whole(), std::string("CONF |Logging level set to ") + word + ".\n");
        expect_level(level);
    }
}

TEST_F(Logger, SwitchedOffPrintsOnlyLevelZeroNotEvenTheConfirmation) {
    const Answer reload = load("off");
    EXPECT_EQ(reload.rc, 0);
    EXPECT_EQ(reload.text, "");
    EXPECT_EQ(logged(1, "x\n"), "");
    EXPECT_NE(logged(0, "x\n").find("[UNKNW] [unit-test] x\n"), std::string::npos);
}

TEST_F(Logger, RefusesOtherWordsAndKeepsTheLevel) {
    for (const char *word : {"config", "error", "warning", "INFO", "Debug", "undef", "", " info", "info ", "6"}) {
        const Answer reload = load(word);
        EXPECT_EQ(reload.rc, TAVRIX_ERR_CONF_ENTRY) << word;
        EXPECT_EQ(reload.text, "") << word;
        expect_level(6);
    }
}

TEST_F(Logger, PassesTheParsersStatusOn) {
    std::remove(conf);
    EXPECT_EQ(tavrix_lsyslog_reload_conf(), TAVRIX_ERR_FILE_OPEN);
    EXPECT_EQ(reload_with("[other]\nunit-test=info\n").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(reload_with("[logging_levels]\nother=info\n").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(reload_with("[logging_levels]\nunit-test=info").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND)
        << "the last line has no newline";
    EXPECT_EQ(load(std::string(51, 'x')).rc, TAVRIX_ERR_BUFFER_SPACE);
    EXPECT_EQ(load(std::string(50, 'x')).rc, TAVRIX_ERR_CONF_ENTRY);
    expect_level(6); // the one in force stays
}

TEST_F(Logger, InitTakesTheNameAndSwallowsAFailedReload) {
    std::remove(conf);
    const StderrCapture out;
    EXPECT_EQ(tavrix_lsyslog_init("renamed"), 0);
    tavrix_lsyslog_log(4, "u", 1, "x\n");
    EXPECT_NE(out.text().find("[renamed] x\n"), std::string::npos);
    EXPECT_EQ(tavrix_lsyslog_check_severity(6), 1);
}

TEST_F(Logger, KeepsTheNameByItsPointer) {
    static char name[] = "first";
    tavrix_lsyslog_init(name);
    name[0] = 'F';
    EXPECT_NE(logged(4, "x\n").find("[First] x\n"), std::string::npos);
    tavrix_lsyslog_init(nullptr);
    EXPECT_NE(logged(4, "x\n").find("[First] x\n"), std::string::npos) << "a null name changes nothing";
}

TEST_F(Logger, RecognisesItsOwnMethod) {
    write_conf("[logging_levels]\nunit-test=info\n");
    for (const char *other : {"logger.reloadconf", "logger.ReloadConf ", "logger.Reload", "", "ports.Get"}) {
        EXPECT_EQ(tavrix_lsyslog_is_json_method_lsyslog(other), 0) << other;
        expect_level(6);
    }
}

TEST_F(Logger, ReloadsAsAMethodWhichNeverFails) {
    const std::function<int()> methods[] = {
        [] { return tavrix_lsyslog_reload_conf_api(nullptr, nullptr, nullptr) + 1; },
        [] { return tavrix_lsyslog_is_json_method_lsyslog("logger.ReloadConf"); }};
    for (const auto &method : methods) {
        set_log_level("verbose");
        std::remove(conf);
        const StderrCapture out;
        EXPECT_EQ(method(), 1);
        write_conf("[logging_levels]\nunit-test=error\n");
        EXPECT_EQ(method(), 1);
        EXPECT_EQ(out.text(), "");
        expect_level(6); // the one in force stays
        write_conf("[logging_levels]\nunit-test=info\n");
        EXPECT_EQ(method(), 1);
        expect_level(4);
    }
}

TEST_F(Logger, TakesAtLeastHalfASecondToStoreASocket) {
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(tavrix_lsyslog_set_socket(2), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(500));
}

TEST_F(Logger, ShutdownChangesNothing) {
    EXPECT_EQ(tavrix_lsyslog_shutdown(), 0);
    EXPECT_NE(logged(6, "x\n"), "");
}
