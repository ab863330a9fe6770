/*
 * System calls that fail on demand, and the addresses that they are given.
 */
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_socket.h"

using namespace fault;
using namespace support;

namespace {

std::string bound;        ///< the address of the last bind, as many bytes as its length said
std::string connected_to; ///< the same of the last connect

template <typename T>
std::string bytes_of(const T &object) {
    return {reinterpret_cast<const char *>(&object), sizeof object};
}

std::string given(const sockaddr *address, socklen_t length) {
    return {reinterpret_cast<const char *>(address), length};
}

sockaddr_in ipv4(uint32_t host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host);
    return address;
}

int init_unix(int *fd) { return tavrix_unix_socket_init("x.sock", fd, 1); }
int init_tcp(int *fd) { return tavrix_tcp_socket_init(0, fd, 1); }
int connect_tcp(int *fd) { return tavrix_tcp_socket_connect("127.0.0.1", 1, fd); }

/** So that what the next call does not clear in its own frame is not zero by luck. */
__attribute__((noinline)) void soil_the_stack() {
    char used[2048];
    std::memset(used, 0x5a, sizeof used);
    __asm__ volatile("" : : "r"(used) : "memory"); // keeps the bytes
}

} // namespace

extern "C" {
int __real_bind(int fd, const sockaddr *address, socklen_t length);
int __real_listen(int fd, int backlog);
int __real_connect(int fd, const sockaddr *address, socklen_t length);

int __wrap_bind(int fd, const sockaddr *address, socklen_t length) {
    bound = given(address, length);
    return Fault::fails("bind") ? -1 : __real_bind(fd, address, length);
}
int __wrap_listen(int fd, int backlog) {
    EXPECT_EQ(backlog, 10);
    return Fault::fails("listen") ? -1 : __real_listen(fd, backlog);
}
int __wrap_connect(int fd, const sockaddr *address, socklen_t length) {
    connected_to = given(address, length);
    return Fault::fails("connect") ? -1 : __real_connect(fd, address, length);
}
}

TEST(SetUp, ReportsTheFailingCallAndLeavesNothingOpen) {
    const struct {
        const char *call;
        int (*open)(int *fd);
        const char *prefix;
    } rows[] = {{"socket", init_unix, "tavrix_unix_socket_init"},
                {"bind", init_unix, "bind"},
                {"listen", init_unix, "listen"},
                {"chmod", init_unix, "chmod"},
                {"socket", init_tcp, "tavrix_tcp_socket_init"},
                {"bind", init_tcp, "bind"},
                {"listen", init_tcp, "listen"},
                {"socket", connect_tcp, "tavrix_tcp_socket_connect"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        const NothingOpens nothing;
        int fd = -77;
        const StderrCapture out;
        const Failing once(row.call, 1, EACCES);
        EXPECT_EQ(row.open(&fd), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(out.text(), std::string(row.prefix) + ": " + strerror(EACCES) + "\n");
        EXPECT_EQ(fd, -77);
    }
}

TEST(ListenerAddress, OfAPathIsTheWholeStructureWithItsRestZero) {
    sockaddr_un expected{};
    expected.sun_family = AF_UNIX;
    std::strcpy(expected.sun_path, "address.sock");
    int fd = -1;
    soil_the_stack();
    ASSERT_EQ(tavrix_unix_socket_init("address.sock", &fd, 0), 0);
    ::close(fd);
    EXPECT_EQ(bound.size(), 110U);
    EXPECT_EQ(bound, bytes_of(expected));
}

TEST(ListenerAddress, OfAPortHasTheLengthOfAPathsAndARestOfZero) {
    int fd = -1;
    soil_the_stack();
    ASSERT_EQ(tavrix_tcp_socket_init(0, &fd, 0), 0);
    ::close(fd);
    ASSERT_EQ(bound.size(), 110U);
    EXPECT_EQ(bound.substr(0, 16), bytes_of(ipv4(INADDR_ANY, 0)));
    EXPECT_EQ(bound.substr(16), std::string(94, '\0'));
}

TEST(Connect, GivesAnIpv4AddressAndItsLength) {
    int fd = -77;
    const Failing once("connect", 1, EACCES);
    EXPECT_EQ(tavrix_tcp_socket_connect("192.0.2.7", 4660, &fd), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(connected_to.size(), 16U);
    EXPECT_EQ(connected_to, bytes_of(ipv4(0xC0000207, 4660)));
}

TEST(Connect, TellsATimeOutFromOtherFailures) {
    int fd = -77;
    const NothingOpens nothing;
    for (const auto &[reason, status] :
         {std::pair(ETIMEDOUT, TAVRIX_ERR_CONNECT_TIMEOUT), {ENETUNREACH, TAVRIX_ERR_GENERAL}}) {
        const Failing once("connect", 1, reason);
        EXPECT_EQ(connect_tcp(&fd), status);
    }
    EXPECT_EQ(fd, -77);
}
