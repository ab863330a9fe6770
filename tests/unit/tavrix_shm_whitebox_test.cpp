/*
 * Slots whose memory cannot be mapped or reserved.
 */
#include "tavrix_shm.h"

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_error.h"

using fault::Failing;
using fault::Fault;
using support::LogCapture;

namespace {

int last_protection = 0;
off_t grown_before_failing = 0; ///< what a reservation that fails has added by then
std::vector<off_t> reserved;

} // namespace

extern "C" {
void *__real_mmap64(void *address, size_t length, int protection, int flags, int fd, off_t offset);
int __real_posix_fallocate64(int fd, off_t offset, off_t length);

void *__wrap_mmap64(void *address, size_t length, int protection, int flags, int fd, off_t offset) {
    last_protection = protection;
    return Fault::fails("mmap64") ? MAP_FAILED : __real_mmap64(address, length, protection, flags, fd, offset);
}

int __wrap_posix_fallocate64(int fd, off_t offset, off_t length) {
    reserved.push_back(length);
    if (!Fault::fails("posix_fallocate64")) {
        return __real_posix_fallocate64(fd, offset, length);
    }
    const int reason = errno;
    if (grown_before_failing > 0) {
        EXPECT_EQ(ftruncate(fd, grown_before_failing), 0);
    }
    return reason;
}
}

class ShmMemory : public testing::Test {
  protected:
    ShmMemory() : name_("/tavrix-memory-" + std::to_string(getpid())) {
        shm_unlink(name());
        grown_before_failing = 0;
        reserved.clear();
    }
    ~ShmMemory() override { shm_unlink(name()); }

    const char *name() const { return name_.c_str(); }
    std::vector<std::string> map_lines(size_t count) const {
        return std::vector<std::string>(count, "ERROR|Mmap error with " + name_ + ".");
    }
    struct stat state() const {
        struct stat status {};
        EXPECT_EQ(stat(("/dev/shm" + name_).c_str(), &status), 0);
        return status;
    }
    /** The slot's bytes as they are, past the library. */
    std::string stored() const {
        std::ifstream slot("/dev/shm" + name_, std::ios::binary);
        return {std::istreambuf_iterator<char>(slot), std::istreambuf_iterator<char>()};
    }
    /** Creates a slot that is in use: 16 bytes with a text. */
    void hold_a_text() const {
        ASSERT_EQ(tavrix_shm_create(name(), 16), 0);
        ASSERT_EQ(tavrix_shm_set_string(name(), 16, "still needed"), 0);
    }
    void expect_the_text_held() const { EXPECT_EQ(stored(), std::string("still needed\0\0\0\0", 16)); }
    void expect_creation_to_fail(size_t size) const {
        const LogCapture log("info");
        EXPECT_EQ(tavrix_shm_create(name(), size), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.count(support::error, "tavrix_shm", "Mmap error with " + name_ + ".\n"), 1);
        EXPECT_EQ(log.lines().size(), 1U);
    }
    void expect_every_access_to_fail() const {
        int value = 1;
        char text[4] = "old";
        const LogCapture log("info");
        EXPECT_EQ(tavrix_shm_set_string(name(), 4, "x"), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_get_string(name(), 4, text), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_set_int(name(), &value), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_get_int(name(), &value), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_clear(name(), 1), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.sequence(), map_lines(5));
        EXPECT_STREQ(text, "old");
        EXPECT_EQ(value, 1);
    }

  private:
    std::string name_;
};

TEST_F(ShmMemory, IsReservedForTheWholeSlot) {
    EXPECT_EQ(tavrix_shm_create(name(), 100000), 0);
    EXPECT_EQ(reserved, std::vector<off_t>{100000});
    EXPECT_GE(state().st_blocks * 512, 100000);
}

TEST_F(ShmMemory, IsNotReservedForWhatCannotBeMapped) {
    const Failing ever("mmap64", 1, ENOMEM, Failing::always);
    const LogCapture log("info");
    EXPECT_EQ(tavrix_shm_create(name(), 100000), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.sequence(), map_lines(1));
    EXPECT_TRUE(reserved.empty());
    EXPECT_EQ(state().st_size, 0);
    EXPECT_EQ(state().st_blocks, 0);
}

TEST_F(ShmMemory, FailsTheCreationWhenThereIsNone) {
    const int open_before = support::open_descriptors();
    {
        const LogCapture log("info");
        const Failing reservations("posix_fallocate64", 1, ENOSPC);
        EXPECT_EQ(tavrix_shm_create(name(), 100000), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.sequence(), map_lines(1));
    }
    EXPECT_EQ(support::open_descriptors(), open_before);
    EXPECT_EQ(reserved.size(), 1U) << "only an interruption is tried again";
    EXPECT_EQ(state().st_size, 0);
    expect_every_access_to_fail();
}

TEST_F(ShmMemory, KeepsWhatItHoldsWhenItCannotBeMapped) {
    hold_a_text();
    const Failing ever("mmap64", 1, ENOMEM, Failing::always);
    for (const size_t size : {100000U, 16U, 8U}) {
        expect_creation_to_fail(size);
        expect_the_text_held();
    }
}

TEST_F(ShmMemory, KeepsWhatItHoldsWhenThereIsNoMemory) {
    hold_a_text();
    for (const size_t size : {100000U, 16U, 8U}) {
        const Failing reservations("posix_fallocate64", 1, ENOSPC);
        expect_creation_to_fail(size);
        expect_the_text_held();
    }
}

TEST_F(ShmMemory, KeepsItsSizeWhenMemoryRunsOutHalfWay) {
    hold_a_text();
    grown_before_failing = 50000;
    const Failing reservations("posix_fallocate64", 1, ENOSPC);
    expect_creation_to_fail(100000);
    expect_the_text_held();
    EXPECT_EQ(tavrix_shm_create(name(), 100000), 0) << "the slot can be created again";
    EXPECT_EQ(stored(), std::string(100000, '\0'));
}

TEST_F(ShmMemory, KeepsWhatItHoldsWhenSignalsNeverEnd) {
    hold_a_text();
    const Failing reservations("posix_fallocate64", 1, EINTR, 100);
    expect_creation_to_fail(100000);
    expect_the_text_held();
}

TEST_F(ShmMemory, IsMappedForWritingOnlyWhereItIsWritten) {
    ASSERT_EQ(tavrix_shm_create(name(), 16), 0);
    int value = 0;
    char text[16] = {};
    EXPECT_EQ(tavrix_shm_get_int(name(), &value), 0);
    EXPECT_EQ(last_protection, PROT_READ);
    EXPECT_EQ(tavrix_shm_set_int(name(), &value), 0);
    EXPECT_EQ(last_protection, PROT_READ | PROT_WRITE);
    EXPECT_EQ(tavrix_shm_get_string(name(), sizeof text, text), 0);
    EXPECT_EQ(last_protection, PROT_READ);
    EXPECT_EQ(tavrix_shm_set_string(name(), sizeof text, "x"), 0);
    EXPECT_EQ(last_protection, PROT_READ | PROT_WRITE);
}

TEST_F(ShmMemory, IsMappedNoLongerThanTheCallLasts) {
    int value = 1;
    char text[16] = {};
    ASSERT_EQ(tavrix_shm_create(name(), sizeof text), 0);
    EXPECT_EQ(tavrix_shm_set_int(name(), &value), 0);
    EXPECT_EQ(tavrix_shm_get_int(name(), &value), 0);
    EXPECT_EQ(tavrix_shm_set_string(name(), sizeof text, "x"), 0);
    EXPECT_EQ(tavrix_shm_get_string(name(), sizeof text, text), 0);
    EXPECT_EQ(tavrix_shm_clear(name(), sizeof text), 0);
    std::stringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    EXPECT_NE(maps.str(), "");
    EXPECT_EQ(maps.str().find(name()), std::string::npos) << maps.str();
}

TEST_F(ShmMemory, IsReservedInSpiteOfSignals) {
    const LogCapture log("info");
    const Failing reservations("posix_fallocate64", 1, EINTR, 3);
    EXPECT_EQ(tavrix_shm_create(name(), 16), 0);
    EXPECT_EQ(reserved, std::vector<off_t>(4, 16));
    EXPECT_TRUE(log.silent());
}

TEST_F(ShmMemory, IsGivenUpWhenSignalsNeverEnd) {
    const LogCapture log("info");
    {
        const Failing reservations("posix_fallocate64", 1, EINTR, 99);
        EXPECT_EQ(tavrix_shm_create(name(), 16), 0) << "by the hundredth attempt";
    }
    reserved.clear();
    const Failing reservations("posix_fallocate64", 1, EINTR, 100);
    EXPECT_EQ(tavrix_shm_create(name(), 16), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(reserved.size(), 100U);
    EXPECT_EQ(log.sequence(), map_lines(1));
    EXPECT_EQ(state().st_size, 16);
}
