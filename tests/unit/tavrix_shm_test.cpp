#include "tavrix_shm.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_error.h"

using support::LogCapture;

namespace {

constexpr char unit[] = "tavrix_shm";

/** A slot's name of this process's own; the object is removed with the scope. */
class Shm : public testing::Test {
  protected:
    Shm() : name_("/tavrix-test-" + std::to_string(getpid())) { shm_unlink(name()); }
    ~Shm() override { shm_unlink(name()); }

    const char *name() const { return name_.c_str(); }
    struct stat state() const {
        struct stat status {};
        EXPECT_EQ(stat(("/dev/shm" + name_).c_str(), &status), 0);
        return status;
    }
    std::string get(size_t len) const {
        std::string buffer(len + 1, '~');
        EXPECT_EQ(tavrix_shm_get_string(name(), len, buffer.data()), 0);
        EXPECT_EQ(buffer.back(), '~') << "wrote past the buffer";
        buffer.pop_back();
        return buffer;
    }
    /** The slot's bytes as they are, past the library. */
    std::string stored() const {
        std::ifstream slot("/dev/shm" + name_, std::ios::binary);
        return {std::istreambuf_iterator<char>(slot), std::istreambuf_iterator<char>()};
    }
    std::string open_line() const { return "Shm_open error with " + name_ + ".\n"; }
    std::string map_line() const { return "Mmap error with " + name_ + ".\n"; }

  private:
    std::string name_;
};

} // namespace

TEST_F(Shm, IsCreatedFilledWithZeros) {
    EXPECT_EQ(tavrix_shm_create(name(), 16), 0);
    EXPECT_EQ(state().st_size, 16);
    EXPECT_EQ(stored(), std::string(16, '\0'));
    EXPECT_EQ(get(16), std::string(16, '\0'));
}

TEST_F(Shm, HasItsExactModeUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        shm_unlink(name());
        const mode_t before = umask(mask);
        EXPECT_EQ(tavrix_shm_create(name(), 4), 0);
        umask(before);
        EXPECT_EQ(state().st_mode & 07777U, 03146U & ~mask) << std::oct << mask;
    }
}

TEST_F(Shm, IsResizedAndClearedWhenCreatedAgain) {
    ASSERT_EQ(tavrix_shm_create(name(), 16), 0);
    for (const size_t size : {10000U, 16U, 3U, 3U}) {
        ASSERT_EQ(tavrix_shm_set_string(name(), stored().size(), "hello, a text that fills the slot"), 0);
        EXPECT_EQ(tavrix_shm_create(name(), size), 0);
        EXPECT_EQ(stored(), std::string(size, '\0'));
    }
}

TEST_F(Shm, KeepsATextWithItsPadding) {
    ASSERT_EQ(tavrix_shm_create(name(), 8), 0);
    const struct {
        const char *text;
        std::string stored;
    } rows[] = {
        {"abcdefgh", std::string("abcdefg\0", 8)}, // exactly the slot's length
        {"abcdefghi", std::string("abcdefg\0", 8)}, {"abcdefg", std::string("abcdefg\0", 8)},
        {"ab", std::string("ab\0\0\0\0\0\0", 8)},   {"", std::string(8, '\0')},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(tavrix_shm_set_string(name(), 8, row.text), 0);
        EXPECT_EQ(stored(), row.stored) << row.text;
        EXPECT_EQ(get(8), row.stored) << row.text;
    }
}

TEST_F(Shm, CutsAStoredTextToTheReadersLength) {
    ASSERT_EQ(tavrix_shm_create(name(), 8), 0);
    ASSERT_EQ(tavrix_shm_set_string(name(), 8, "abcdefg"), 0);
    EXPECT_EQ(get(3), std::string("ab\0", 3));
    EXPECT_EQ(get(1), std::string("\0", 1));
    EXPECT_EQ(get(7), std::string("abcdef\0", 7));
}

TEST_F(Shm, KeepsAnInteger) {
    ASSERT_EQ(tavrix_shm_create(name(), 4), 0);
    for (const int value : {0, 1, -1, INT32_MIN, INT32_MAX}) {
        int read = -77;
        EXPECT_EQ(tavrix_shm_set_int(name(), &value), 0);
        EXPECT_EQ(tavrix_shm_get_int(name(), &read), 0);
        EXPECT_EQ(read, value);
    }
}

TEST_F(Shm, StoresAnIntegerInTheMachinesByteOrder) {
    ASSERT_EQ(tavrix_shm_create(name(), 8), 0);
    const int value = 0x01020304;
    ASSERT_EQ(tavrix_shm_set_int(name(), &value), 0);
    const int fd = shm_open(name(), O_RDONLY, 0);
    int32_t words[2] = {};
    EXPECT_EQ(read(fd, words, sizeof words), 8);
    close(fd);
    EXPECT_EQ(words[0], value);
    EXPECT_EQ(words[1], 0);
}

TEST_F(Shm, IsClearedUpToALength) {
    ASSERT_EQ(tavrix_shm_create(name(), 8), 0);
    ASSERT_EQ(tavrix_shm_set_string(name(), 8, "abcdefg"), 0);
    EXPECT_EQ(tavrix_shm_clear(name(), 3), 0);
    EXPECT_EQ(stored(), std::string("\0\0\0defg\0", 8));
}

TEST_F(Shm, IsSharedBetweenProcesses) {
    ASSERT_EQ(tavrix_shm_create(name(), 32), 0);
    const pid_t child = fork();
    if (child == 0) {
        _exit(tavrix_shm_set_string(name(), 32, "from the child") == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_STREQ(get(32).c_str(), "from the child");
}

TEST_F(Shm, CannotBeUsedBeforeItIsCreated) {
    int value = -77;
    char text[4] = "old";
    const LogCapture log("info");
    EXPECT_EQ(tavrix_shm_get_int(name(), &value), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_int(name(), &value), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_string(name(), 4, text), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_string(name(), 4, "x"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_clear(name(), 4), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(support::error, unit, open_line()), 5);
    EXPECT_EQ(value, -77);
    EXPECT_STREQ(text, "old");
}

TEST_F(Shm, RefusesANameThatCannotBe) {
    const LogCapture log("info");
    EXPECT_EQ(tavrix_shm_create("/a/b", 4), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(support::error, unit, "Shm_open error with /a/b.\n"));
}

TEST_F(Shm, FailsLikeAMappingWhereAnAccessWouldEndTheProcess) {
    ASSERT_EQ(tavrix_shm_create(name(), 16), 0);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    EXPECT_EQ(tavrix_shm_set_string(name(), page, "within the page"), 0) << "the slot's last page is there";
    std::string buffer(2 * page, '~');
    const LogCapture log("info");
    EXPECT_EQ(tavrix_shm_set_string(name(), page + 1, "x"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_string(name(), page + 1, buffer.data()), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_clear(name(), 2 * page), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(support::error, unit, map_line()), 3);
    const int fd = shm_open(name(), O_RDWR, 0);
    ASSERT_EQ(ftruncate(fd, 0), 0);
    close(fd);
    int value = -77;
    EXPECT_EQ(tavrix_shm_get_int(name(), &value), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_int(name(), &value), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(support::error, unit, map_line()), 5);
}

TEST_F(Shm, RefusesASizeThatCannotBeHad) {
    const int open_before = support::open_descriptors();
    {
        const LogCapture log("info");
        EXPECT_EQ(tavrix_shm_create(name(), SIZE_MAX), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.count(support::error, unit, map_line()), 1);
    }
    EXPECT_EQ(support::open_descriptors(), open_before);
    EXPECT_EQ(state().st_size, 0);
    EXPECT_EQ(state().st_blocks, 0);
}

TEST_F(Shm, KeepsWhatItHoldsWhenANewSizeCannotBeHad) {
    ASSERT_EQ(tavrix_shm_create(name(), 16), 0);
    ASSERT_EQ(tavrix_shm_set_string(name(), 16, "still needed"), 0);
    const std::string held = stored();
    {
        const LogCapture log("info");
        EXPECT_EQ(tavrix_shm_create(name(), SIZE_MAX), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.count(support::error, unit, map_line()), 1);
        EXPECT_EQ(log.lines().size(), 1U);
    }
    EXPECT_EQ(stored(), held);
    EXPECT_EQ(tavrix_shm_create(name(), 8), 0);
    EXPECT_EQ(stored(), std::string(8, '\0'));
}

TEST_F(Shm, LeavesNothingOpen) {
    const int open_before = support::open_descriptors();
    const int value = 1;
    int read = 0;
    char text[4];
    tavrix_shm_create(name(), 4);
    tavrix_shm_set_int(name(), &value);
    tavrix_shm_get_int(name(), &read);
    tavrix_shm_set_string(name(), 4, "x");
    tavrix_shm_get_string(name(), 4, text);
    tavrix_shm_clear(name(), 4);
    EXPECT_EQ(support::open_descriptors(), open_before);
}

TEST_F(Shm, RefusesNullAndZeroInItsOwnWords) {
    int value = 0;
    char text[4];
    const LogCapture log("info");
    EXPECT_EQ(tavrix_shm_create(nullptr, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_create(name(), 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_string(nullptr, 0, "x"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_string(name(), 4, nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_string(name(), 0, "x"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_string(nullptr, 0, text), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_string(name(), 4, nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_string(name(), 0, text), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_int(nullptr, &value), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_set_int(name(), nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_int(nullptr, &value), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_get_int(name(), nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_clear(nullptr, 0), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_shm_clear(name(), 0), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"ERROR|NULL Pointer!", "ERROR|Zero size!", "ERROR|NULL POINTER!", "ERROR|NULL POINTER!",
                          "ERROR|Zero size!", "ERROR|NULL POINTER!", "ERROR|NULL POINTER!", "ERROR|ERROR: Zero size!",
                          "ERROR|NULL POINTER!", "ERROR|NULL POINTER!", "ERROR|NULL POINTER!", "ERROR|NULL POINTER!",
                          "ERROR|NULL POINTER!", "ERROR|Zero size!"}));
    EXPECT_EQ(log.lines().front().file, unit);
}
