/*
 * Slots whose memory cannot be mapped or reserved.
 */
#include "tavrix_shm.h"

#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/shm_slot.h"
#include "tavrix_error.h"

using namespace fault;
using namespace support;

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

class ShmMemory : public ShmSlot {
  protected:
    ShmMemory() {
        grown_before_failing = 0;
        reserved.clear();
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
        EXPECT_TRUE(log.said({map_line()}));
    }
};

TEST_F(ShmMemory, IsReservedForTheWholeSlot) {
    EXPECT_EQ(tavrix_shm_create(name(), 100000), 0);
    EXPECT_EQ(reserved, std::vector<off_t>{100000});
    EXPECT_GE(state().st_blocks * 512, 100000);
}

TEST_F(ShmMemory, IsNotReservedForWhatCannotBeMapped) {
    const Failing ever("mmap64", 1, ENOMEM, Failing::always);
    expect_creation_to_fail(100000);
    EXPECT_TRUE(reserved.empty());
    EXPECT_EQ(state().st_size, 0);
    EXPECT_EQ(state().st_blocks, 0);
}

TEST_F(ShmMemory, FailsTheCreationWhenThereIsNone) {
    const Failing reservations("posix_fallocate64", 1, ENOSPC);
    expect_creation_to_fail(100000);
    EXPECT_EQ(reserved.size(), 1U) << "only an interruption is tried again";
    EXPECT_EQ(state().st_size, 0);
    expect_every_access_to_fail(map_line());
}

TEST_F(ShmMemory, KeepsWhatItHoldsWhenItCannotBeMappedOrReserved) {
    hold_a_text();
    for (const char *function : {"mmap64", "posix_fallocate64"}) {
        const Failing ever(function, 1, ENOMEM, Failing::always);
        for (const size_t size : {100000U, 16U, 8U}) {
            expect_creation_to_fail(size);
            expect_the_text_held();
        }
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

TEST_F(ShmMemory, IsMappedForWritingOnlyWhereItIsWrittenAndNoLongerThanTheCallLasts) {
    int value = 1;
    char text[16] = {};
    ASSERT_EQ(tavrix_shm_create(name(), sizeof text), 0);
    EXPECT_EQ(tavrix_shm_get_int(name(), &value), 0);
    EXPECT_EQ(last_protection, PROT_READ);
    EXPECT_EQ(tavrix_shm_set_int(name(), &value), 0);
    EXPECT_EQ(last_protection, PROT_READ | PROT_WRITE);
    EXPECT_EQ(tavrix_shm_get_string(name(), sizeof text, text), 0);
    EXPECT_EQ(last_protection, PROT_READ);
    EXPECT_EQ(tavrix_shm_set_string(name(), sizeof text, "x"), 0);
    EXPECT_EQ(last_protection, PROT_READ | PROT_WRITE);
    EXPECT_EQ(tavrix_shm_clear(name(), sizeof text), 0);
    const std::string maps = read_file("/proc/self/maps");
    EXPECT_NE(maps, "");
    EXPECT_EQ(maps.find(name()), std::string::npos) << maps;
}

TEST_F(ShmMemory, IsReservedInSpiteOfSignals) {
    const LogCapture log("info");
    const Failing reservations("posix_fallocate64", 1, EINTR, 3);
    EXPECT_EQ(tavrix_shm_create(name(), 16), 0);
    EXPECT_EQ(reserved, std::vector<off_t>(4, 16));
    EXPECT_TRUE(log.silent());
}

TEST_F(ShmMemory, IsGivenUpWhenSignalsNeverEndAndKeepsWhatItHolds) {
    hold_a_text();
    {
        const Failing reservations("posix_fallocate64", 1, EINTR, 100);
        expect_creation_to_fail(100000);
    }
    EXPECT_EQ(reserved.size(), 1U + 100U) << "that of the text is one of them";
    expect_the_text_held();
    const Failing reservations("posix_fallocate64", 1, EINTR, 99);
    EXPECT_EQ(tavrix_shm_create(name(), 16), 0) << "by the hundredth attempt";
}
