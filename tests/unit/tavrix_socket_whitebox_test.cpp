/*
 * System calls that fail on demand.
 */
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_socket.h"

namespace {

std::string failing; ///< the call that fails next
int reason = EACCES;

bool fails(const char *name) {
    if (failing != name) {
        return false;
    }
    errno = reason;
    return true;
}

} // namespace

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __real_listen(int fd, int backlog);
int __real_chmod(const char *path, mode_t mode);
int __real_connect(int fd, const sockaddr *address, socklen_t length);

int __wrap_socket(int domain, int type, int protocol) {
    return fails("socket") ? -1 : __real_socket(domain, type, protocol);
}
int __wrap_listen(int fd, int backlog) {
    EXPECT_EQ(backlog, 10);
    return fails("listen") ? -1 : __real_listen(fd, backlog);
}
int __wrap_chmod(const char *path, mode_t mode) { return fails("chmod") ? -1 : __real_chmod(path, mode); }
int __wrap_connect(int fd, const sockaddr *address, socklen_t length) {
    return fails("connect") ? -1 : __real_connect(fd, address, length);
}
}

struct FailingCall {
    const char *name;
    const char *call;
    bool unix_listener;
    const char *prefix;
};

class ListenerSetUp : public testing::TestWithParam<FailingCall> {};

TEST_P(ListenerSetUp, ReportsTheFailingCallAndLeavesNothingOpen) {
    const int open_before = support::open_descriptors();
    int fd = -77;
    std::string printed;
    {
        const support::StderrCapture out;
        failing = GetParam().call;
        const int rc =
            GetParam().unix_listener ? tavrix_unix_socket_init("x.sock", &fd, 1) : tavrix_tcp_socket_init(0, &fd, 1);
        failing.clear();
        EXPECT_EQ(rc, -1);
        printed = out.text();
    }
    EXPECT_EQ(printed, std::string(GetParam().prefix) + ": " + strerror(reason) + "\n");
    EXPECT_EQ(fd, -77);
    EXPECT_EQ(support::open_descriptors(), open_before);
}

INSTANTIATE_TEST_SUITE_P(Calls, ListenerSetUp,
                         testing::Values(FailingCall{"UnixSocket", "socket", true, "tavrix_unix_socket_init"},
                                         FailingCall{"UnixListen", "listen", true, "listen"},
                                         FailingCall{"UnixChmod", "chmod", true, "chmod"},
                                         FailingCall{"TcpSocket", "socket", false, "tavrix_tcp_socket_init"},
                                         FailingCall{"TcpListen", "listen", false, "listen"}),
                         [](const auto &row) { return row.param.name; });

TEST(Connect, TellsATimeOutFromOtherFailures) {
    int fd = -77;
    const int open_before = support::open_descriptors();
    failing = "connect";
    reason = ETIMEDOUT;
    EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", 1, &fd), -51);
    reason = ENETUNREACH;
    EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", 1, &fd), -1);
    reason = EACCES;
    failing.clear();
    EXPECT_EQ(fd, -77);
    EXPECT_EQ(support::open_descriptors(), open_before);
}

TEST(Connect, ReportsThatNoSocketIsLeft) {
    int fd = -77;
    const support::StderrCapture out;
    failing = "socket";
    EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", 1, &fd), -1);
    failing.clear();
    EXPECT_EQ(out.text(), std::string("tavrix_tcp_socket_connect: ") + strerror(EACCES) + "\n");
}
