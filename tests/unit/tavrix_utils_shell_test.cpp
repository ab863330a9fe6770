/*
 * Real commands, real files, and stand-in tools on a private PATH.
 */
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/process.h"
#include "support/signals.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"
#include "tavrix_utils.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_utils";

/** Puts a tool that prints `output` before all others on the PATH. */
class StandIn {
  public:
    StandIn(const std::string &name, const std::string &script) : name_(name), path_(getenv("PATH")) {
        mkdir("stand-ins", 0755);
        write_file("stand-ins/" + name, "#!/bin/sh\n" + script + "\n");
        chmod(("stand-ins/" + name).c_str(), 0755);

        setenv("PATH", (taken(get_current_dir_name()) + "/stand-ins:" + path_).c_str(), 1);
    }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;
    ~StandIn() {
        setenv("PATH", path_.c_str(), 1);
        unlink(("stand-ins/" + name_).c_str());
    }

  private:
    std::string name_;
    std::string path_;
};

int board_revision(const std::string &script) {
    const StandIn tool("fw_printenv", script);
    return tavrix_get_board_rev_number();
}

} // namespace

TEST(ExecCommandLine, TakesTheFirstLineWithItsNewline) {
    char out[80] = "old";
    EXPECT_EQ(mw_exec_command_line("printf 'one\\ntwo\\n'", out), 0);
    EXPECT_STREQ(out, "one\n");
    EXPECT_EQ(mw_exec_command_line("true", out), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(mw_exec_command_line("printf %0100d 0", out), 0);
    EXPECT_EQ(std::string(out), std::string(79, '0'));
    EXPECT_EQ(mw_exec_command_line("printf %078d 0; echo", out), 0);
    EXPECT_EQ(std::string(out), std::string(78, '0') + "\n");
}

TEST(ExecCommandLine, RunsNothingForANullArgument) {
    char out[80] = "old";
    const LogCapture log("info");
    EXPECT_EQ(mw_exec_command_line(nullptr, out), 1);
    EXPECT_EQ(mw_exec_command_line("echo > written", nullptr), 1);
    EXPECT_STREQ(out, "old");
    EXPECT_EQ(file_exists("written"), 0);
    EXPECT_TRUE(log.said({"ERROR|Popen error.", "ERROR|Popen error."}));
}

TEST(FileExists, TellsFilesAndFoldersFromNothing) {
    write_file("there", "");
    EXPECT_EQ(file_exists("there"), 1);
    EXPECT_EQ(file_exists("."), 1);
    EXPECT_EQ(file_exists("not-there"), 0);
    EXPECT_EQ(file_exists(""), 0);
    EXPECT_EQ(file_exists(nullptr), 0);
}

TEST(FileStats, GivesOneColumnOfTheListingFilteredTwice) {
    mkdir("folder", 0755);
    write_file("folder/zqn-1.img", "1");
    write_file("folder/zqn-2.txt", "22");
    write_file("folder/other.img", "333");
    write_file("listed", "12345");
    EXPECT_EQ(taken(tavrix_file_stats("listed", nullptr, nullptr, 5)), "5\n");
    EXPECT_EQ(taken(tavrix_file_stats("listed", "", "", 9)), "listed\n");
    EXPECT_EQ(taken(tavrix_file_stats("folder", "zqn", "img", 5)), "1\n");
    EXPECT_EQ(taken(tavrix_file_stats("folder", "", "txt", 9)), "zqn-2.txt\n");
}

TEST(FileStats, ShowsTheCommandAfterEachStage) {
    write_file("listed", "12345");
    const LogCapture log("verbose");
    taken(tavrix_file_stats("listed", "list", "ed", 5));
    EXPECT_TRUE(log.said({"VERB |[tavrix_file_stats]: cmd_str = ls -l listed",
                          "VERB |[tavrix_file_stats]: cmd_str = ls -l listed | grep list",
                          "VERB |[tavrix_file_stats]: cmd_str = ls -l listed | grep list | grep ed",
                          "VERB |[tavrix_file_stats]: cmd_str = ls -l listed | grep list | grep ed | awk '{print $5}'",
                          "VERB |[tavrix_file_stats]: cmd_ret = 5\n"}));
}

TEST(FileStats, TakesAtMost3200Characters) {
    const StandIn long_listing("awk", "head -c 4000 /dev/zero | tr '\\0' x");
    write_file("listed", "1");
    EXPECT_EQ(taken(tavrix_file_stats("listed", nullptr, nullptr, 5)), std::string(3200, 'x'));
}

TEST(FileStats, RunsACommandOf3200CharactersWithTheListingAndTheColumn) {
    write_file("listed", "12345");
    EXPECT_EQ(tavrix_file_stats((std::string(3170, ' ') + "listed").c_str(), nullptr, nullptr, 5), nullptr);
    EXPECT_EQ(taken(tavrix_file_stats((std::string(3169, ' ') + "listed").c_str(), nullptr, nullptr, 5)), "5\n");
}

TEST(FileStats, ReportsThatNothingIsThere) {
    const LogCapture log("info");
    EXPECT_EQ(tavrix_file_stats("listed", "no-such-word", nullptr, 5), nullptr);
    EXPECT_EQ(log.last(), "ERROR|Tavrix Firmware not found in root folder of USB.\n");
    EXPECT_EQ(tavrix_file_stats(nullptr, "a", "b", 1), nullptr);
}

TEST(FileStats, ShowsNoCommandThatWouldBeCut) {
    const std::string shown = "VERB |[tavrix_file_stats]: cmd_str = ";
    const std::string refused = "ERROR|System: Command failed. Aborting.";
    write_file("listed", "12345");
    const std::tuple<std::string, std::string, std::vector<std::string>> rows[] = {
        {std::string(3195, 'p'), "", {refused}},
        {std::string(3194, 'p'), "", {shown + "ls -l " + std::string(3194, 'p'), refused}},
        {"listed", std::string(3181, 'f'), {shown + "ls -l listed", refused}},
        {"listed",
         std::string(3180, 'f'),
         {shown + "ls -l listed", shown + "ls -l listed | grep " + std::string(3180, 'f'), refused}},
    };
    for (const auto &[path, filter, lines] : rows) {
        const LogCapture log("verbose");
        EXPECT_EQ(tavrix_file_stats(path.c_str(), filter.c_str(), nullptr, 5), nullptr);
        EXPECT_TRUE(log.said(lines));
    }
}

class CheckMd5 : public testing::Test {
  protected:
    CheckMd5() {
        write_file("data", "hello\n");
        write_file("data.md5", "b1946ac92492d2347c6235b4d2611184  elsewhere/data\n"); // the names may differ
    }
    int check(const std::string &data = "data", const char *stored = "data.md5") {
        return tavrix_check_md5(data.c_str(), stored, &match);
    }
    bool match = true;
};

TEST_F(CheckMd5, ComparesTheSumsAndLeavesErrnoAlone) {
    match = false;
    errno = EXDEV;
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(match);
    for (const char *stored : {"B1946AC92492D2347C6235B4D2611184  data\n", "b1946ac92492d2347c6235b4d2611185  data\n",
                               "b1946ac92492d2347c6235b4d2611184\n"}) {
        write_file("data.md5", stored);
        match = true;
        errno = EXDEV;
        EXPECT_EQ(check(), 0) << "a difference is no failure";
        EXPECT_FALSE(match) << stored;
        EXPECT_EQ(errno, EXDEV) << stored;
    }
}

TEST_F(CheckMd5, ReportsWhatItCannotRead) {
    write_file("empty.md5", "");
    LogCapture log("info");
    EXPECT_EQ(check("data", "empty.md5"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "ERROR|No result from md5sum\n");
    EXPECT_EQ(check("data", "missing.md5"), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.says("fopen: No such file or directory\n"));
    for (const size_t length : {248U, 300U}) {
        log.clear();
        EXPECT_EQ(check(std::string(length, 'x')), TAVRIX_ERR_GENERAL) << "the command would be cut";
        EXPECT_EQ(log.text(), "popen: File name too long\n");
    }
    const StandIn silent("md5sum", "exit 0");
    EXPECT_EQ(check(), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "ERROR|No result from md5sum\n");
    EXPECT_TRUE(match) << "untouched";
}

TEST_F(CheckMd5, ReadsAtMost254CharactersOfEachLine) {
    const StandIn long_sum("md5sum", "head -c 254 /dev/zero | tr '\\0' x; echo and more");
    for (const auto &[stored, same] :
         {std::pair(std::string(254, 'x') + "another end\n", true), {std::string(253, 'x') + "y\n", false}}) {
        write_file("data.md5", stored);
        match = !same;
        EXPECT_EQ(check(), 0);
        EXPECT_EQ(match, same);
    }
}

TEST_F(CheckMd5, RefusesNull) {
    match = false;
    EXPECT_EQ(with_each_null(tavrix_check_md5, "data", "data.md5", &match), Statuses(3, TAVRIX_ERR_GENERAL));
    EXPECT_FALSE(match);
}

TEST(BoardRevision, IsTheOneDigitBehindTheEqualsSignIn255Characters) {
    EXPECT_EQ(board_revision("echo brdrev=3"), 3);
    EXPECT_EQ(board_revision("echo brdrev=12"), 1);
    EXPECT_EQ(board_revision("echo brdrev=0"), 0);
    EXPECT_EQ(board_revision("echo brdrev=9"), 9);
    EXPECT_EQ(board_revision("printf '%0253d=4' 0"), 4);
    EXPECT_EQ(board_revision("printf '%0254d=4' 0"), 7) << "the digit is cut off";
}

TEST(BoardRevision, IsSevenWhenItCannotBeRead) {
    const struct {
        const char *script;
        Lines lines = {};
    } rows[] = {
        {"exit 0", {"ERROR|Couldn't get result from syscall"}},
        {"echo 'fw_printenv is not installed'"},
        {"echo 'brdrev=3: the environment is not installed'"},
        {"echo '## Error: brdrev not defined'", {"ERROR|Board rev# env var not set"}},
        {"echo '## Error' >&2", {"ERROR|Board rev# env var not set"}}, // standard error counts too
        {"echo nonsense"},
        {"echo brdrev=x"},
        {"echo brdrev="},
    };
    for (const auto &row : rows) {
        const LogCapture log("info");
        EXPECT_EQ(board_revision(row.script), 7) << row.script;
        EXPECT_TRUE(log.said(row.lines)) << row.script;
    }
}

TEST(Terminate, RaisesSigterm) {
    const Terminations terminations;
    const LogCapture log("info");
    EXPECT_EQ(tavrix_terminate_process(), 0);
    EXPECT_EQ(terminations.count(), 1);
    EXPECT_TRUE(log.has(error, unit, "CRITICAL ERROR, raise SIGTERM\n"));
}

TEST(TimeSentence, CountsDaysHoursMinutesSeconds) {
    const std::pair<int, const char *> rows[] = {
        {0, "0 days 00:00:00"},
        {59, "0 days 00:00:59"},
        {60, "0 days 00:01:00"},
        {3599, "0 days 00:59:59"},
        {3600, "0 days 01:00:00"},
        {86399, "0 days 23:59:59"},
        {86400, "1 days 00:00:00"},
        {90061, "1 days 01:01:01"},
        {INT32_MAX, "24855 days 03:14:07"},
        {-1, "0 days 00:00:-1"}, // each part of a negative span has its own sign
        {INT32_MIN, "-24855 days -3:-14:-8"},
    };
    for (const auto &[seconds, text] : rows) {
        char out[32];
        const LogCapture log("verbose");
        EXPECT_EQ(tavrix_utils_format_seconds_as_time_sentence(seconds, out), 0);
        EXPECT_STREQ(out, text);
        EXPECT_TRUE(log.has(verbose, unit,
                            "Finished formatting seconds <" + std::to_string(seconds) + "> into <" + text + ">\n"));
    }
    EXPECT_EQ(tavrix_utils_format_seconds_as_time_sentence(1, nullptr), TAVRIX_ERR_PARAMETER);
}

TEST(Dump, ShowsSixteenBytesALine) {
    unsigned char bytes[18];
    for (unsigned char i = 0; i < 18; ++i) {
        bytes[i] = static_cast<unsigned char>(0xf0 + i);
    }
    const LogCapture log("info");
    tavrix_debug_print_bytes(bytes, 18, "title");
    EXPECT_TRUE(log.said({"INFO |title\nF0 F1 F2 F3 F4 F5 F6 F7   F8 F9 FA FB FC FD FE FF \n00 01 "}));
}

TEST(Dump, TakesAnyLengthAndNullPointers) {
    const std::string many(100000, 'A');
    const LogCapture log("info");
    tavrix_debug_print_bytes(many.data(), static_cast<int>(many.size()), nullptr);
    tavrix_debug_print_bytes(many.data(), -1, "negative");
    tavrix_debug_print_bytes(nullptr, 5, "null");
    tavrix_debug_print_bytes(many.data(), 3, many.c_str());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].message.rfind("\n41 41 41 41 41 41 41 41   41 ", 0), 0U);
    EXPECT_EQ(lines[1].whole(), "INFO |negative\n");
    EXPECT_EQ(lines[2].whole(), "INFO |null\n");
}

TEST(SystemLog, WritesPastTheLevelInUtc) {
    set_log_level("off");
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    const time_t before = wall_clock();
    const StderrCapture out;
    tavrix_utils_system_log("TAG", "some_file", 12, "value %d", 7);
    const std::string text = out.text();
    unsetenv("TZ");
    const std::regex shape(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\] \[TAG\] \[some_file:12\] value 7)");
    EXPECT_TRUE(std::regex_match(text, shape)) << text;
    tm utc{};
    ASSERT_NE(strptime(text.c_str(), "[%Y-%m-%d %H:%M:%S", &utc), nullptr);
    EXPECT_GE(timegm(&utc), before);
    EXPECT_LE(timegm(&utc), wall_clock());
}

TEST(SystemLog, KeepsAMessageOf8000Characters) {
    const StderrCapture out;
    tavrix_utils_system_log("T", "f", 1, "%s", std::string(9000, 'x').c_str());
    EXPECT_EQ(out.text().substr(out.text().find("x")), std::string(8000, 'x'));
}

TEST(ReceiveDescriptor, ComesFromTheBusSocket) {
    const BusSocket sub(TAVRIX_SP_SUB);
    int fd = -1;
    int expected = -2;
    EXPECT_EQ(tavrix_get_nn_rcvfd(sub.number, &fd), 0);
    tavrix_mq_socket_recvfd(sub.number, &expected);
    EXPECT_EQ(fd, expected);
    EXPECT_EQ(tavrix_get_nn_rcvfd(9999, &fd), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_get_nn_rcvfd(sub.number, nullptr), TAVRIX_ERR_GENERAL);
}
