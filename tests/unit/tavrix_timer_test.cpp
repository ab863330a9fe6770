#include "tavrix_timer.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/signals.h"
#include "tavrix_error.h"

using namespace support;

namespace {

std::string bad_errno_line(int reason) {
    return "ERROR|Bad errno value (" + std::to_string(reason) + " = '" + strerror(reason) + "')!";
}

class Timer : public testing::Test {
  protected:
    void SetUp() override {
        const LogCapture log("off");
        ASSERT_EQ(tavrix_timer_init(&fd, 1), 0);
    }
    void TearDown() override { ::close(fd); }

    itimerspec armed() const {
        itimerspec setting{};
        timerfd_gettime(fd, &setting);
        return setting;
    }
    bool is_disarmed() const { return armed().it_value.tv_sec == 0 && armed().it_value.tv_nsec == 0; }
    /** Its first expiry is a thousand seconds away, or a little less on a slow machine. */
    void expect_a_thousand_seconds() const {
        EXPECT_GE(armed().it_value.tv_sec, 900);
        EXPECT_LE(armed().it_value.tv_sec, 1000);
    }
    bool expires() const {
        pollfd state{fd, POLLIN, 0};
        return poll(&state, 1, 20000) == 1;
    }
    int fd = -1;
};

} // namespace

TEST(TimerInit, WaitsUnlessExactlyOneIsGiven) {
    for (const int nonblock : {0, 1, 2, -1}) {
        int fd = -1;
        const LogCapture log("verbose");
        ASSERT_EQ(tavrix_timer_init(&fd, nonblock), 0);
        EXPECT_EQ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, nonblock == 1) << nonblock;
        EXPECT_TRUE(log.said({"VERB |Timer successfully created"}));
        ::close(fd);
    }
}

TEST(TimerInit, StoresAndPrintsItsFailure) {
    const LogCapture log("verbose");
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next_free = dup(STDERR_FILENO);
    ASSERT_GE(next_free, 0);
    ::close(next_free);
    rlimit none_left = before;
    none_left.rlim_cur = static_cast<rlim_t>(next_free);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none_left), 0);
    int fd = 5;
    const int rc = tavrix_timer_init(&fd, 0);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log.text(), std::string("tavrix_timer_init: ") + strerror(EMFILE) + "\n");
}

TEST_F(Timer, IsArmedInWholeSecondsAndInFractions) {
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_timer_set(fd, 1000, 5), 0);
    expect_a_thousand_seconds();
    EXPECT_EQ(armed().it_interval.tv_sec, 5);
    EXPECT_EQ(armed().it_interval.tv_nsec, 0);
    EXPECT_EQ(tavrix_timer_nsec_set(fd, 1000.5F, 1.25F), 0);
    expect_a_thousand_seconds();
    EXPECT_EQ(armed().it_interval.tv_sec, 1);
    EXPECT_EQ(armed().it_interval.tv_nsec, 250000000);
    EXPECT_TRUE(log.said({"VERB |Timer successfully set to 1000 period and 5 interval",
                          "VERB |Timer successfully set to 1000.500000 period and 1.250000 interval"}));
    EXPECT_EQ(tavrix_timer_nsec_set(fd, 1000, 0.1F), 0);
    // The nearest float to a tenth is a little more; its fraction is cut, not rounded.
    EXPECT_EQ(armed().it_interval.tv_nsec, 100000001);
}

TEST_F(Timer, IsArmedForOneFractionalShot) {
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(tavrix_timer_nsec_set(fd, 1.25F, 0), 0);
    EXPECT_EQ(armed().it_interval.tv_sec + armed().it_interval.tv_nsec, 0) << "one-shot";
    const timespec left = armed().it_value;
    EXPECT_LE(std::chrono::seconds(left.tv_sec) + std::chrono::nanoseconds(left.tv_nsec),
              std::chrono::milliseconds(1250));
    ASSERT_TRUE(expires());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1250));
}

TEST_F(Timer, IsDisarmedByAZeroFirstExpiry) {
    ASSERT_EQ(tavrix_timer_set(fd, 100, 5), 0);
    EXPECT_EQ(tavrix_timer_set(fd, 0, 5), 0);
    EXPECT_TRUE(is_disarmed());
    ASSERT_EQ(tavrix_timer_set(fd, 100, 5), 0);
    EXPECT_EQ(tavrix_timer_nsec_set(fd, 0, 0.5F), 0);
    EXPECT_TRUE(is_disarmed());
}

TEST_F(Timer, RefusesImpossibleTimes) {
    const std::string line = std::string("tavrix_timer_set: ") + strerror(EINVAL) + "\n"; // the same prefix for both
    const StderrCapture out;
    EXPECT_EQ(tavrix_timer_set(fd, -1, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_timer_nsec_set(fd, -1.5F, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_timer_nsec_set(fd, std::nanf(""), 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_timer_nsec_set(fd, HUGE_VALF, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_timer_nsec_set(fd, 1, -HUGE_VALF), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(out.text(), line + line + line + line + line);
}

TEST_F(Timer, ExpiresOnceOrAgainAndAgainWithoutALine) {
    ASSERT_EQ(tavrix_timer_nsec_set(fd, 0.01F, 0), 0);
    ASSERT_TRUE(expires());
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_timer_read(fd), 0);
    EXPECT_EQ(tavrix_timer_read(fd), TAVRIX_ERR_NO_TIMER_EXPIRATION) << "consumed";
    ASSERT_EQ(tavrix_timer_nsec_set(fd, 0.01F, 0.01F), 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(expires());
        EXPECT_EQ(tavrix_timer_read(fd), 0);
    }
    EXPECT_TRUE(log.said({"VERB |Timer successfully set to 0.010000 period and 0.010000 interval"}));
}

TEST_F(Timer, MayWaitInItsRead) {
    int waiting = -1;
    ASSERT_EQ(tavrix_timer_init(&waiting, 0), 0);
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(tavrix_timer_nsec_set(waiting, 0.05F, 0), 0);
    EXPECT_EQ(tavrix_timer_read(waiting), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    ::close(waiting);
}

TEST(TimerRead, ReportsOtherErrorsThroughTheLogger) {
    const LogCapture log("info");
    EXPECT_EQ(tavrix_timer_read(-1), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({bad_errno_line(EBADF)}));
    EXPECT_EQ(log.lines().front().file, "tavrix_timer");
}

TEST(TimerRead, FailsOnASignal) {
    int waiting = -1;
    ASSERT_EQ(tavrix_timer_init(&waiting, 0), 0);
    const LogCapture log("info");
    const Ticking interrupts;
    EXPECT_EQ(tavrix_timer_read(waiting), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({bad_errno_line(EINTR)}));
    ::close(waiting);
}

TEST(TimerRead, RefusesAReadThatIsTooShort) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "abc", 3), 3);
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_timer_read(fds[0]), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.silent());
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(TimerFree, SetsTheVariableToZero) {
    int fd = -1;
    ASSERT_EQ(tavrix_timer_init(&fd, 0), 0);
    const int number = fd;
    EXPECT_EQ(tavrix_timer_free(&fd), 0);
    EXPECT_EQ(fd, 0);
    EXPECT_EQ(fcntl(number, F_GETFD), -1) << "closed";
    int none = -1;
    EXPECT_EQ(tavrix_timer_free(&none), 0);
}

TEST(Timers, RefuseNull) {
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_timer_init(nullptr, 1), TAVRIX_ERR_NULL_INPUT);
    EXPECT_EQ(tavrix_timer_free(nullptr), TAVRIX_ERR_NULL_INPUT);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_timer_init]: NULL pointer!", "DEBUG|[tavrix_timer_free]: NULL pointer!"}));
}

TEST(TimerFree, ClosesDescriptorZeroWhenRepeated) {
    const int aside = dup(STDIN_FILENO);
    ASSERT_GT(aside, STDIN_FILENO);
    int fd = -1;
    ASSERT_EQ(tavrix_timer_init(&fd, 0), 0);
    EXPECT_EQ(tavrix_timer_free(&fd), 0);
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1) << "not yet";
    EXPECT_EQ(tavrix_timer_free(&fd), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_EQ(fd, 0);
    EXPECT_EQ(dup2(aside, STDIN_FILENO), STDIN_FILENO);
    ::close(aside);
}
