#include "tavrix_socket.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/signals.h"
#include "support/stream.h"
#include "tavrix_error.h"

using namespace support;
using tavrix::Descriptor;

namespace {

mode_t mode_of(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

bool is_nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

unsigned port(const Descriptor &listener) { return static_cast<unsigned>(port_of(listener.get())); }

std::string perror_text(const char *prefix, int reason) { return std::string(prefix) + ": " + strerror(reason) + "\n"; }

} // namespace

TEST(UnixListener, IsOpenToEveryoneWhateverTheUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        Descriptor listener;
        const mode_t before = umask(mask);
        EXPECT_EQ(tavrix_unix_socket_init("open.sock", listener.place(), 0), 0);
        umask(before);
        EXPECT_EQ(mode_of("open.sock"), 0666U);
    }
}

TEST(UnixListener, MayBeDescriptor0) {
    const int standard_input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO); // as in a daemon that was started without one
    int listener = -1;
    EXPECT_EQ(tavrix_unix_socket_init("zero.sock", &listener, 0), 0);
    EXPECT_EQ(listener, 0);
    EXPECT_TRUE(StreamClient::unix_path("zero.sock").connected());
    close(listener);
    if (standard_input >= 0) {
        dup2(standard_input, STDIN_FILENO);
        close(standard_input);
    }
}

TEST(UnixListener, ReplacesAFileThatWasLeftBehind) {
    {
        Descriptor abandoned;
        ASSERT_EQ(tavrix_unix_socket_init("stale.sock", abandoned.place(), 0), 0);
    }
    ASSERT_NE(mode_of("stale.sock"), 0U) << "the file is still there";
    Descriptor listener;
    EXPECT_EQ(tavrix_unix_socket_init("stale.sock", listener.place(), 0), 0);
    EXPECT_TRUE(StreamClient::unix_path("stale.sock").connected());
}

TEST(UnixListener, WaitsOnlyWhenAskedTo) {
    Descriptor blocking;
    Descriptor nonblocking;
    ASSERT_EQ(tavrix_unix_socket_init("a.sock", blocking.place(), 0), 0);
    ASSERT_EQ(tavrix_unix_socket_init("b.sock", nonblocking.place(), 7), 0);
    EXPECT_FALSE(is_nonblocking(blocking.get()));
    EXPECT_TRUE(is_nonblocking(nonblocking.get()));
}

TEST(UnixListener, CutsALongPathTo107Bytes) {
    const std::string exact(107, 'p');
    for (const std::string &path : {exact, exact + "q", exact + std::string(100, 'q')}) {
        Descriptor listener;
        EXPECT_EQ(tavrix_unix_socket_init(path.c_str(), listener.place(), 0), 0);
        EXPECT_EQ(mode_of(exact), 0666U);
        EXPECT_EQ(access(path.c_str(), F_OK) == 0, path == exact);
        unlink(exact.c_str());
    }
}

TEST(TcpListener, NeverWaits) {
    for (const int nonblocking : {0, 1}) {
        Descriptor listener;
        ASSERT_EQ(tavrix_tcp_socket_init(0, listener.place(), nonblocking), 0);
        EXPECT_TRUE(is_nonblocking(listener.get()));
    }
}

TEST(TcpListener, ListensOnEveryAddressOfItsPort) {
    const int port = free_port();
    Descriptor listener;
    ASSERT_EQ(tavrix_tcp_socket_init(static_cast<unsigned>(port) + 0x10000, listener.place(), 0), 0)
        << "the low 16 bits count";
    EXPECT_EQ(port_of(listener.get()), port);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    int reuse = -1;
    socklen_t size = sizeof reuse;
    ASSERT_EQ(getsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
    EXPECT_EQ(reuse, 0) << "no option is set";
}

TEST(Accept, TakesAWaitingClient) {
    Descriptor local;
    Descriptor tcp;
    ASSERT_EQ(tavrix_unix_socket_init("accept.sock", local.place(), 0), 0);
    ASSERT_EQ(tavrix_tcp_socket_init(0, tcp.place(), 0), 0);
    const struct {
        int (*accept)(const int *, int *);
        const Descriptor &listener;
        StreamClient client;
    } rows[] = {{tavrix_socket_accept, local, StreamClient::unix_path("accept.sock")},
                {tavrix_tcp_socket_accept, tcp, StreamClient::tcp_port(port_of(tcp.get()))}};
    for (const auto &row : rows) {
        Descriptor accepted;
        ASSERT_TRUE(wait_until([&] { return row.accept(row.listener.place(), accepted.place()) == 0; }));
        row.client.say("one");
        char text[8] = "";
        EXPECT_EQ(tavrix_socket_recv(accepted.place(), text, 7), 3);
        EXPECT_STREQ(text, "one");
    }
}

TEST(Accept, IsSilentWhenNobodyWaits) {
    Descriptor local;
    Descriptor tcp;
    ASSERT_EQ(tavrix_unix_socket_init("idle.sock", local.place(), 1), 0);
    ASSERT_EQ(tavrix_tcp_socket_init(0, tcp.place(), 0), 0);
    const LogCapture log("verbose");
    int client = -77;
    EXPECT_EQ(tavrix_socket_accept(local.place(), &client), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(std::exchange(client, -77), -1) << "written whatever the result";
    EXPECT_EQ(tavrix_tcp_socket_accept(tcp.place(), &client), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(client, -1);
    EXPECT_TRUE(log.silent());
}

TEST(Accept, ReportsABadListener) {
    const int bad = -5;
    int client = -77;
    const StderrCapture out;
    EXPECT_EQ(tavrix_socket_accept(&bad, &client), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(tavrix_tcp_socket_accept(&bad, &client), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(out.text(), perror_text("tavrix_socket_accept", EBADF) + perror_text("tavrix_tcp_socket_accept", EBADF));
    EXPECT_EQ(client, -1);
}

TEST(Connect, ReachesAListener) {
    Descriptor listener;
    ASSERT_EQ(tavrix_tcp_socket_init(0, listener.place(), 0), 0);
    Descriptor client;
    ASSERT_EQ(tavrix_tcp_socket_connect("127.0.0.1", port(listener), client.place()), 0);
    EXPECT_FALSE(is_nonblocking(client.get()));
    EXPECT_EQ(tavrix_socket_send(client.place(), "x"), 0);
}

TEST(Connect, IsSilentWhenItIsRefused) {
    const NothingOpens nothing;
    int fd = -77;
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", static_cast<unsigned>(free_port()), &fd), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.silent());
    EXPECT_EQ(fd, -77);
}

TEST(Connect, WantsADottedQuad) {
    const NothingOpens nothing;
    for (const char *text : {"localhost", "", "127.0.0", "::1", "127.0.0.1 "}) {
        int fd = -77;
        const StderrCapture out;
        EXPECT_EQ(tavrix_tcp_socket_connect(text, 1, &fd), TAVRIX_ERR_GENERAL) << text;
        EXPECT_EQ(out.text().rfind("inet_pton: ", 0), 0U) << out.text();
        EXPECT_EQ(fd, -77);
    }
}

TEST(Connect, LooksAtThePlaceForTheDescriptorLast) {
    {
        const StderrCapture out;
        EXPECT_EQ(tavrix_tcp_socket_connect("nowhere", 1, nullptr), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(out.text().find("inet_pton: "), 0U);
    }
    Descriptor listener;
    ASSERT_EQ(tavrix_tcp_socket_init(0, listener.place(), 0), 0);
    const NothingOpens nothing;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", port(listener), nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_tcp_socket_connect]: Null Pointer!"}));
}

TEST(Receive, GivesTheCountAndAddsNoTerminator) {
    SocketPair pair;
    pair.theirs.say("abcdef");
    char text[8];
    std::memset(text, '~', sizeof text);
    EXPECT_EQ(tavrix_socket_recv(pair.ours.place(), text, 4), 4);
    EXPECT_EQ(std::string(text, 8), "abcd~~~~");
    EXPECT_EQ(tavrix_socket_recv(pair.ours.place(), text, 8), 2);
}

TEST(Receive, SaysThatThePeerHasClosed) {
    SocketPair pair;
    pair.theirs.close();
    char text[4];
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_socket_recv(pair.ours.place(), text, 4), 0);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_socket_recv]: zero bytes received!"}));
}

TEST(Receive, ReportsABadDescriptor) {
    const int bad = -5;
    char text[4];
    const StderrCapture out;
    EXPECT_EQ(tavrix_socket_recv(&bad, text, 4), -1);
    EXPECT_EQ(out.text(), perror_text("tavrix_socket_recv", EBADF));
}

TEST(Receive, FailsOnASignal) {
    SocketPair pair;
    char text[4];
    const StderrCapture out;
    const Ticking interrupts;
    EXPECT_EQ(tavrix_socket_recv(pair.ours.place(), text, 4), -1);
    EXPECT_EQ(out.text(), perror_text("tavrix_socket_recv", EINTR));
}

TEST(Send, SurvivesAPeerThatHasClosedAndHasNothingToSendOfAnEmptyText) {
    SocketPair pair;
    EXPECT_EQ(tavrix_socket_send(pair.ours.place(), ""), 0);
    pair.theirs.close();
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_socket_send(pair.ours.place(), "x"), TAVRIX_ERR_GENERAL) << "and no SIGPIPE";
    EXPECT_TRUE(log.silent());
}

TEST(Send, TakesAShortSendForASuccess) {
    SocketPair pair;
    fcntl(pair.ours.get(), F_SETFL, O_NONBLOCK);
    const std::string large(50U << 20, 'x');
    EXPECT_EQ(tavrix_socket_send(pair.ours.place(), large.c_str()), 0);
    EXPECT_EQ(tavrix_socket_send(pair.ours.place(), large.c_str()), TAVRIX_ERR_GENERAL) << "now the buffer is full";
}

TEST(Close, WorksOnceAndKeepsTheDescriptorWhenItFails) {
    SocketPair pair;
    EXPECT_EQ(tavrix_socket_close(pair.ours.place()), 0);
    EXPECT_EQ(pair.ours.get(), -1);
    for (int bad : {-1, 987654}) {
        const int number = bad;
        const StderrCapture out;
        EXPECT_EQ(tavrix_socket_close(&bad), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(out.text(), perror_text("tavrix_socket_close", EBADF));
        EXPECT_EQ(bad, number);
    }
}

TEST(StreamSockets, RefuseNullAndSayWho) {
    SocketPair pair;
    int fd = -77;
    char text[4];
    const auto expect_refused = [&](const std::string &function, auto call, auto... arguments) {
        expect_nulls_refused(TAVRIX_ERR_GENERAL, "DEBUG|[tavrix_" + function + "]: Null Pointer!", call, arguments...);
    };
    expect_refused("unix_socket_init", tavrix_unix_socket_init, "x.sock", &fd, 0);
    expect_refused("tcp_socket_init", tavrix_tcp_socket_init, 0U, &fd, 0);
    expect_refused("socket_accept", tavrix_socket_accept, pair.ours.place(), &fd);
    expect_refused("tcp_socket_accept", tavrix_tcp_socket_accept, pair.ours.place(), &fd);
    expect_refused(
        "tcp_socket_connect", [&](auto host) { return tavrix_tcp_socket_connect(host, 1, &fd); }, "127.0.0.1");
    expect_refused("socket_send", tavrix_socket_send, pair.ours.place(), "x");
    expect_refused("socket_close", tavrix_socket_close, pair.ours.place());
    expect_nulls_refused(0, "DEBUG|[tavrix_socket_recv]: Null Pointer!", tavrix_socket_recv, pair.ours.place(), text,
                         sizeof text); // it looks empty
    EXPECT_EQ(fd, -77);
}

TEST(Shutdown, ForgetsTheDescriptorInAnyCaseAndSaysNothing) {
    SocketPair pair;
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_socket_shutdown(pair.ours.place()), 0);
    EXPECT_EQ(pair.ours.get(), -1);
    int bad = 987654;
    EXPECT_EQ(tavrix_socket_shutdown(&bad), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(bad, -1);
    EXPECT_EQ(tavrix_socket_shutdown(nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.silent());
}
