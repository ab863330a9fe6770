/**
 * A shared-memory slot of the test's own, looked at past the library.
 */
#ifndef TAVRIX_TESTS_SUPPORT_SHM_SLOT_H
#define TAVRIX_TESTS_SUPPORT_SHM_SLOT_H

#include <string>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_shm.h"

namespace support {

/** Its name is this process's alone; the object is removed before and after each case, in which nothing stays open. */
class ShmSlot : public testing::Test {
  protected:
    ShmSlot() { shm_unlink(name()); }
    ~ShmSlot() override { shm_unlink(name()); }

    const char *name() const { return name_.c_str(); }
    struct stat state() const {
        struct stat status {};
        EXPECT_EQ(stat(("/dev/shm" + name_).c_str(), &status), 0);
        return status;
    }
    /** Its bytes as they are. */
    std::string stored() const { return read_file("/dev/shm" + name_); }
    /** What is said when it cannot be opened, or not be mapped. */
    std::string open_line() const { return "ERROR|Shm_open error with " + name_ + "."; }
    std::string map_line() const { return "ERROR|Mmap error with " + name_ + "."; }
    /** Whatever is done with what it holds fails with this line, and writes nothing. */
    void expect_every_access_to_fail(const std::string &line) const {
        int value = 1;
        char text[4] = "old";
        const LogCapture log("info");
        EXPECT_EQ(tavrix_shm_set_string(name(), 4, "x"), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_get_string(name(), 4, text), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_set_int(name(), &value), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_get_int(name(), &value), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(tavrix_shm_clear(name(), 1), TAVRIX_ERR_GENERAL);
        EXPECT_TRUE(log.said(Lines(5, line)));
        EXPECT_STREQ(text, "old");
        EXPECT_EQ(value, 1);
    }

  private:
    const NothingOpens nothing_{};
    const std::string name_ = "/tavrix-test-" + std::to_string(getpid());
};

} // namespace support

#endif
