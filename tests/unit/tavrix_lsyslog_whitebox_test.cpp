/*
 * What a line looks like to the byte, by a clock of the test's own, and how often the zone is looked up.
 */
#include "tavrix_lsyslog.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/time.h>

#include "support/log_capture.h"

using namespace support;

namespace {

timeval clock_now{};
int zone_looks = 0; ///< how often the zone was looked up

} // namespace

extern "C" {
void __real_tzset(void);
void __wrap_tzset(void) {
    ++zone_looks;
    __real_tzset();
}
int __wrap_gettimeofday(timeval *now, void * /*zone*/) {
    *now = clock_now;
    return 0;
}
// Its name with 64-bit time on a 32-bit machine.
int __wrap___gettimeofday64(timeval *now, void * /*zone*/) {
    *now = clock_now;
    return 0;
}
}

class LoggerClock : public testing::Test {
  protected:
    LoggerClock() {
        setenv("TZ", "UTC0", 1);
        set_log_level("verbose");
        set_clock(1714571112, 42000);
    }
    ~LoggerClock() override { unsetenv("TZ"); }

    static void set_clock(int64_t seconds, int microseconds) {
        clock_now.tv_sec = static_cast<time_t>(seconds);
        clock_now.tv_usec = microseconds;
    }
    static std::string info(const char *message) {
        const StderrCapture out;
        EXPECT_EQ(tavrix_lsyslog_log(TAVRIX_LOG_INFO, "u", 1, "%s", message), 0);
        return out.text();
    }
    static std::string error(const char *file, int line, const char *message) {
        const StderrCapture out;
        EXPECT_EQ(tavrix_lsyslog_log(TAVRIX_LOG_ERROR, file, line, "%s", message), 0);
        return out.text();
    }
    /** How often the zone is looked up while a line is written. */
    static int looks_of_a_line() {
        zone_looks = 0;
        static_cast<void>(info("x\n"));
        return zone_looks;
    }
};

TEST_F(LoggerClock, StampsTheSecondAndTheMillisecondThatAreNow) {
    const std::tuple<int64_t, int, const char *> rows[] = {
        {1714571112, 0, "2024-05-01 13:45:12.000"},
        {1714571112, 999, "2024-05-01 13:45:12.000"}, // cut, not rounded
        {1714571112, 1000, "2024-05-01 13:45:12.001"},
        {1714571112, 42999, "2024-05-01 13:45:12.042"},
        {1714571112, 999999, "2024-05-01 13:45:12.999"},
        {1714571113, 0, "2024-05-01 13:45:13.000"},
        {1714571112, 500000, "2024-05-01 13:45:12.500"}, // the clock was set back
        {1714571159, 999999, "2024-05-01 13:45:59.999"},
        {1714571160, 0, "2024-05-01 13:46:00.000"},
        {1709164799, 999000, "2024-02-28 23:59:59.999"},
        {1709164800, 0, "2024-02-29 00:00:00.000"}, // a leap year
        {0, 0, "1970-01-01 00:00:00.000"},          // where the clock has never been set
        {-1, 900000, "1969-12-31 23:59:59.900"},
        {2147483647, 999999, "2038-01-19 03:14:07.999"},
        {2147483648, 0, "2038-01-19 03:14:08.000"}, // more than 31 bits
    };
    for (const auto &[seconds, microseconds, stamp] : rows) {
        set_clock(seconds, microseconds);
        EXPECT_EQ(info("x\n"), std::string("[") + stamp + "] [INFO ] [unit-test] x\n");
    }
}

TEST_F(LoggerClock, LooksTheZoneUpOnceASecond) {
    set_clock(1800000000, 0);
    EXPECT_EQ(looks_of_a_line(), 1);
    for (int microseconds = 0; microseconds < 1000000; microseconds += 99999) {
        set_clock(1800000000, microseconds);
        EXPECT_EQ(looks_of_a_line(), 0) << microseconds;
    }
    set_clock(1800000001, 0);
    EXPECT_EQ(looks_of_a_line(), 1);
    set_clock(1800000000, 999999);
    EXPECT_EQ(looks_of_a_line(), 1) << "the clock was set back";
}

TEST_F(LoggerClock, ShowsAChangedZoneInTheNextSecond) {
    EXPECT_EQ(info("x\n"), "[2024-05-01 13:45:12.042] [INFO ] [unit-test] x\n");
    setenv("TZ", "XYZ-5:30", 1);
    set_clock(1714571113, 0);
    EXPECT_EQ(info("x\n"), "[2024-05-01 19:15:13.000] [INFO ] [unit-test] x\n");
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1); // summer, by the zone's own rule
    set_clock(1714571114, 0);
    EXPECT_EQ(info("x\n"), "[2024-05-01 09:45:14.000] [INFO ] [unit-test] x\n");
}

TEST_F(LoggerClock, KeepsASecondForEachThread) {
    EXPECT_EQ(info("x\n"), "[2024-05-01 13:45:12.042] [INFO ] [unit-test] x\n");
    int looks = -1;
    std::string line;
    std::thread other([&] {
        looks = looks_of_a_line();
        set_clock(1714571113, 1000);
        line = info("x\n");
    });
    other.join();
    EXPECT_EQ(looks, 1) << "the other thread's may be half written";
    EXPECT_EQ(line, "[2024-05-01 13:45:13.001] [INFO ] [unit-test] x\n");
    set_clock(1714571112, 2000);
    EXPECT_EQ(looks_of_a_line(), 0);
    EXPECT_EQ(info("x\n"), "[2024-05-01 13:45:12.002] [INFO ] [unit-test] x\n");
}

TEST_F(LoggerClock, PrintsAnyLineNumberAndAMissingFileAsPrintfDoes) {
    EXPECT_EQ(error(nullptr, 7, "x\n"), "[2024-05-01 13:45:12.042] [ERROR] [unit-test: (null):7] x\n");
    EXPECT_EQ(error("", 7, "x\n"), "[2024-05-01 13:45:12.042] [ERROR] [unit-test: :7] x\n");
    for (const int number : {0, 1, -1, 99, 100, INT_MAX, INT_MIN}) {
        EXPECT_EQ(error("u", number, "x\n"),
                  "[2024-05-01 13:45:12.042] [ERROR] [unit-test: u:" + std::to_string(number) + "] x\n");
    }
}

TEST_F(LoggerClock, EndsAMessageAtAZeroByte) {
    const StderrCapture out;
    EXPECT_EQ(tavrix_lsyslog_log(TAVRIX_LOG_INFO, "u", 1, "before%cbehind\n", 0), 0);
    EXPECT_EQ(out.text(), "[2024-05-01 13:45:12.042] [INFO ] [unit-test] before");
}

TEST_F(LoggerClock, PrintsNamesAndFilesOfAnyLength) {
    const std::string message = std::string(7999, 'm') + "\n";
    for (const size_t length : {100U, 130U, 300U, 8191U, 8192U, 8193U, 30000U}) {
        const std::string name(length, 'n');
        const std::string file(length, 'f');
        {
            const StderrCapture confirmation;
            tavrix_lsyslog_init(name.c_str());
        }
        const std::string head = "[2024-05-01 13:45:12.042] ";
        EXPECT_EQ(info("x\n"), head + "[INFO ] [" + name + "] x\n");
        EXPECT_EQ(error(file.c_str(), 7, "x\n"), head + "[ERROR] [" + name + ": " + file + ":7] x\n");
        EXPECT_EQ(error(file.c_str(), 7, message.c_str()), head + "[ERROR] [" + name + ": " + file + ":7] " + message);
    }
    set_log_level("verbose");
}
