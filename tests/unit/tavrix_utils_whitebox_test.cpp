/*
 * What the utilities do when there is no memory or no pipe, and which commands they hand to the shell.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/signals.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"

using namespace fault;
using namespace support;

namespace {

std::string commands; ///< what was handed to the shell, one to a line

constexpr char termination[] = "ERROR|CRITICAL ERROR, raise SIGTERM";

/** The commands that a call hands to the shell. */
template <class Call>
std::string commands_of(Call call) {
    commands.clear();
    call();
    return commands;
}

} // namespace

extern "C" {
FILE *__real_popen(const char *command, const char *type);
FILE *__wrap_popen(const char *command, const char *type) {
    commands += std::string(command) + "\n";
    return Fault::fails("popen") ? nullptr : __real_popen(command, type);
}
}

// --- No memory ---

TEST(MacVectorWithoutMemory, IsNotMadeAndRaisesSigterm) {
    const Terminations caught;
    char other[1][20] = {"kept"};
    tavrix_mac_array array = {other, 1};
    tavrix_mac_vector vector = {nullptr, 3};
    const LogCapture log("info");
    const Failing once("calloc");
    EXPECT_EQ(tavrix_mac_vector_init(&vector, &array), TAVRIX_ERR_NO_MEMORY);
    EXPECT_EQ(caught.count(), 1);
    EXPECT_TRUE(log.said({termination}));
    EXPECT_EQ(array.entries, other);
    EXPECT_EQ(array.count, 1);
    EXPECT_EQ(vector.array, nullptr);
    EXPECT_EQ(vector.capacity, 3);
}

TEST(MacVectorWithoutMemory, KeepsItsCapacityAndGrowsLater) {
    const Terminations caught;
    tavrix_mac_array array{};
    tavrix_mac_vector vector{};
    ASSERT_EQ(tavrix_mac_vector_init(&vector, &array), 0);
    for (unsigned char i = 0; i < 8; ++i) {
        const unsigned char bytes[6] = {0xaa, 0, 0, 0, 0, i};
        ASSERT_EQ(tavrix_mac_vector_insert(&vector, bytes, 0), 0);
    }
    {
        const LogCapture log("info");
        const Failing once("realloc");
        EXPECT_EQ(tavrix_mac_vector_insert(&vector, "AA:BB:CC:DD:EE:FF", 1), TAVRIX_ERR_GENERAL);
        EXPECT_TRUE(log.said({termination}));
    }
    EXPECT_EQ(vector.capacity, 8);
    EXPECT_EQ(array.count, 8);
    EXPECT_EQ(tavrix_mac_vector_insert(&vector, "AA:BB:CC:DD:EE:FF", 1), 0);
    EXPECT_EQ(vector.capacity, 16);
    EXPECT_EQ(array.count, 9);
    EXPECT_STREQ(array.entries[7], "AA:00:00:00:00:07");
    EXPECT_STREQ(array.entries[8], "AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(caught.count(), 1);
    std::free(array.entries);
}

// --- No pipe ---

TEST(ShellHelpers, SayThatThereIsNoPipe) {
    char out[80] = "old";
    bool match = false;
    const Failing ever("popen", 1, EMFILE, Failing::always);
    const LogCapture log("info");
    EXPECT_EQ(mw_exec_command_line("echo new", out), 1);
    EXPECT_STREQ(out, "old");
    EXPECT_EQ(tavrix_file_stats("listed", nullptr, nullptr, 5), nullptr);
    EXPECT_EQ(tavrix_get_board_rev_number(), 7);
    EXPECT_TRUE(
        log.said({"ERROR|Popen error.", "ERROR|System: Command failed. Aborting.", "ERROR|Could not open pipe"}));
    for (const auto &line : log.lines()) {
        EXPECT_EQ(line.file, "tavrix_utils");
    }
    write_file("data", "hello\n");
    write_file("data.md5", "b1946ac92492d2347c6235b4d2611184  data\n");
    const LogCapture out_of_md5("info");
    EXPECT_EQ(tavrix_check_md5("data", "data.md5", &match), TAVRIX_ERR_GENERAL);
    EXPECT_FALSE(match);
    EXPECT_EQ(out_of_md5.text(), "popen: Too many open files\n");
}

// --- Commands ---

TEST(ShellHelpers, RunOneCommandEach) {
    set_log_level("off");
    write_file("data", "hello\n");
    char out[80];
    bool match = false;
    EXPECT_EQ(commands_of([&] { mw_exec_command_line("true", out); }), "true\n");
    EXPECT_EQ(commands_of([&] { tavrix_check_md5("data", "data", &match); }), "md5sum data\n");
    EXPECT_EQ(commands_of([] { tavrix_get_board_rev_number(); }), "fw_printenv brdrev 2>&1\n");
    EXPECT_EQ(commands_of([] { std::free(tavrix_file_stats("data", "", nullptr, 5)); }),
              "ls -l data | awk '{print $5}'\n");
    EXPECT_EQ(commands_of([] { std::free(tavrix_file_stats("data", "d", "a", 9)); }),
              "ls -l data | grep d | grep a | awk '{print $9}'\n");
}
