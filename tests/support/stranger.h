/**
 * Another local user, played by the test: what is opened as long as it lives is opened by user and group 65534.
 *
 * The kernel notes who connects at the moment of the connection; what is said over it later still counts as the
 * stranger's.
 */
#ifndef TAVRIX_TESTS_SUPPORT_STRANGER_H
#define TAVRIX_TESTS_SUPPORT_STRANGER_H

#include <vector>

#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace support {

constexpr uid_t stranger_user = 65534;

/** Whether this test may become another user. */
inline bool can_be_a_stranger() { return geteuid() == 0; }

class Stranger {
  public:
    explicit Stranger(const std::vector<gid_t> &more_groups = {}) {
        EXPECT_TRUE(setgroups(more_groups.size(), more_groups.data()) == 0 && setegid(stranger_user) == 0 &&
                    seteuid(stranger_user) == 0);
    }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;
    ~Stranger() { EXPECT_TRUE(seteuid(0) == 0 && setegid(0) == 0 && setgroups(0, nullptr) == 0); }
};

} // namespace support

#endif
