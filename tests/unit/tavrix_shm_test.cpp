#include "tavrix_shm.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/shm_slot.h"
#include "tavrix_error.h"

using namespace support;

namespace {

class Shm : public ShmSlot {
  protected:
    std::string get(size_t len) const {
        std::string buffer(len + 1, '~');
        EXPECT_EQ(tavrix_shm_get_string(name(), len, buffer.data()), 0);
        EXPECT_EQ(buffer.back(), '~') << "wrote past the buffer";
        buffer.pop_back();
        return buffer;
    }
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
    const std::pair<const char *, std::string> rows[] = {
        {"abcdefgh", std::string("abcdefg\0", 8)}, // exactly the slot's length
        {"abcdefghi", std::string("abcdefg\0", 8)}, {"abcdefg", std::string("abcdefg\0", 8)},
        {"ab", std::string("ab\0\0\0\0\0\0", 8)},   {"", std::string(8, '\0')},
    };
    for (const auto &[text, bytes] : rows) {
        EXPECT_EQ(tavrix_shm_set_string(name(), 8, text), 0);
        EXPECT_EQ(stored(), bytes) << text;
        EXPECT_EQ(get(8), bytes) << text;
    }
}

TEST_F(Shm, CutsAStoredTextToTheReadersLengthAndIsClearedUpToOne) {
    ASSERT_EQ(tavrix_shm_create(name(), 8), 0);
    ASSERT_EQ(tavrix_shm_set_string(name(), 8, "abcdefg"), 0);
    EXPECT_EQ(get(3), std::string("ab\0", 3));
    EXPECT_EQ(get(1), std::string("\0", 1));
    EXPECT_EQ(get(7), std::string("abcdef\0", 7));
    EXPECT_EQ(tavrix_shm_clear(name(), 3), 0);
    EXPECT_EQ(stored(), std::string("\0\0\0defg\0", 8));
}

TEST_F(Shm, KeepsAnIntegerInTheMachinesByteOrder) {
    ASSERT_EQ(tavrix_shm_create(name(), 8), 0);
    for (const int value : {0, 1, -1, 0x01020304, INT32_MIN, INT32_MAX}) {
        const int32_t words[2] = {value, 0};
        int read = -77;
        EXPECT_EQ(tavrix_shm_set_int(name(), &words[0]), 0);
        EXPECT_EQ(stored(), std::string(reinterpret_cast<const char *>(words), sizeof words));
        EXPECT_EQ(tavrix_shm_get_int(name(), &read), 0);
        EXPECT_EQ(read, value);
    }
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
    expect_every_access_to_fail(open_line());
    const LogCapture log("info");
    EXPECT_EQ(tavrix_shm_create("/a/b", 4), TAVRIX_ERR_GENERAL) << "a name that cannot be";
    EXPECT_TRUE(log.said({"ERROR|Shm_open error with /a/b."}));
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
    EXPECT_TRUE(log.said(Lines(3, map_line())));
    std::filesystem::resize_file(std::string("/dev/shm") + name(), 0);
    expect_every_access_to_fail(map_line());
}

TEST_F(Shm, KeepsWhatItHoldsWhenANewSizeCannotBeHad) {
    for (const std::string &held : {std::string(), std::string("still needed\0\0\0\0", 16)}) {
        if (!held.empty()) {
            ASSERT_EQ(tavrix_shm_create(name(), held.size()), 0);
            ASSERT_EQ(tavrix_shm_set_string(name(), held.size(), held.c_str()), 0);
        }
        const LogCapture log("info");
        EXPECT_EQ(tavrix_shm_create(name(), SIZE_MAX), TAVRIX_ERR_GENERAL);
        EXPECT_TRUE(log.said({map_line()}));
        EXPECT_EQ(stored(), held);
        EXPECT_EQ(state().st_blocks == 0, held.empty());
    }
    EXPECT_EQ(tavrix_shm_create(name(), 8), 0);
    EXPECT_EQ(stored(), std::string(8, '\0'));
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
    EXPECT_EQ(log.lines().front().file, "tavrix_shm");
}
