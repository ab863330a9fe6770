/*
 * Sockets, timers, shared memory, files and commands with each allocation and each system call failing once.
 */
#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/signals.h"
#include "tavrix_conf_parser.h"
#include "tavrix_error.h"
#include "tavrix_lsyslog.h"
#include "tavrix_mq.h"
#include "tavrix_shm.h"
#include "tavrix_socket.h"
#include "tavrix_timer.h"
#include "tavrix_utils.h"

using fault::each_failure;
using fault::Fault;
using support::LogCapture;
using support::StderrCapture;

/** A call that opens a descriptor, or has left none behind. */
static void expect_opened(Fault &fault, const std::function<int(int *fd)> &open) {
    int fd = -77;
    fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return open(&fd); });
    if (!fault.happened()) {
        close(fd);
    }
}

TEST(SocketFaults, LeaveNoListenerBehind) {
    const StderrCapture quiet;
    each_failure([](Fault &fault) {
        expect_opened(fault, [](int *sock) { return tavrix_unix_socket_init("fault.sock", sock, 1); });
    });
    const unsigned port = static_cast<unsigned>(support::free_port());
    each_failure(
        [&](Fault &fault) { expect_opened(fault, [&](int *sock) { return tavrix_tcp_socket_init(port, sock, 1); }); });
}

TEST(SocketFaults, AreStatusesOfAConnection) {
    const StderrCapture quiet;
    const unsigned port = static_cast<unsigned>(support::free_port());
    int listener = -1;
    ASSERT_EQ(tavrix_tcp_socket_init(port, &listener, 0), 0);
    const auto connect = [&](int *sock) { return tavrix_tcp_socket_connect("127.0.0.1", port, sock); };
    each_failure([&](Fault &fault) { expect_opened(fault, connect); });
    int client = -1;
    ASSERT_EQ(connect(&client), 0);
    each_failure([&](Fault &fault) {
        expect_opened(fault, [&](int *accepted) { return tavrix_tcp_socket_accept(&listener, accepted); });
        if (!fault.happened()) {
            close(client);
            ASSERT_EQ(connect(&client), 0);
        }
    });
    each_failure([&](Fault &fault) {
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_socket_send(&client, "text"); });
    });
    close(client);
    close(listener);
}

TEST(BusFaults, LeaveAMessageReceivedOrAStatus) {
    support::BusPair bus;
    each_failure([&](Fault &fault) {
        bus.publish("frame");
        char *text = nullptr;
        int length = 0;
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_mq_socket_recv(bus.sub.number, &text, &length, 0); });
        EXPECT_EQ(text == nullptr, fault.happened());
        free(text);
    });
    each_failure([&](Fault &fault) {
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_mq_socket_subscribe(bus.sub.number, "t"); });
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(bus.sub.number, "t"), 0) << "nothing changes when it is not there";
    });
}

TEST(TimerFaults, LeaveNoDescriptorBehind) {
    const StderrCapture quiet;
    each_failure([](Fault &fault) { expect_opened(fault, [](int *timer) { return tavrix_timer_init(timer, 1); }); });
}

TEST(SlotFaults, LeaveASlotThatCanBeMadeAgain) {
    const std::string name = "/tavrix-fault-" + std::to_string(getpid());
    const LogCapture log("off");
    const int value = 7;
    bool held = false;
    each_failure([&](Fault &fault) {
        const int rc = fault.in([&] { return tavrix_shm_create(name.c_str(), 16); });
        // The size's own result is not looked at: a slot that has it already is as good.
        if (!fault.was("ftruncate64")) {
            EXPECT_EQ(rc, fault.happened() ? TAVRIX_ERR_GENERAL : 0) << fault.function();
        }
        if (rc != 0) {
            int read = 0;
            EXPECT_EQ(tavrix_shm_get_int(name.c_str(), &read), held ? 0 : TAVRIX_ERR_GENERAL) << fault.function();
            EXPECT_EQ(read, held ? value : 0) << "an old slot keeps what it holds";
        }
        EXPECT_EQ(tavrix_shm_create(name.c_str(), 16), 0);
        EXPECT_EQ(tavrix_shm_set_int(name.c_str(), &value), 0);
        held = true;
    });
    EXPECT_EQ(tavrix_shm_create(name.c_str(), 16), 0);
    each_failure([&](Fault &fault) {
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_shm_set_int(name.c_str(), &value); });
        int read = -77;
        EXPECT_EQ(tavrix_shm_get_int(name.c_str(), &read), 0);
        EXPECT_EQ(read, fault.happened() ? 0 : 7);
    });
    each_failure([&](Fault &fault) {
        int read = -77;
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_shm_get_int(name.c_str(), &read); });
        EXPECT_EQ(read, fault.happened() ? -77 : 7);
    });
    each_failure(
        [&](Fault &fault) { fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_shm_clear(name.c_str(), 4); }); });
    shm_unlink(name.c_str());
}

TEST(FileFaults, AreStatuses) {
    const LogCapture log("off");
    support::write_file("some.conf", "[a]\nkey=value\n");
    each_failure([](Fault &fault) {
        char out[16] = "";
        const int rc = fault.in([&] { return tavrix_conf_parser_parse("some.conf", "a", "key", out, sizeof out); });
        EXPECT_EQ(rc == 0, !fault.happened());
        EXPECT_STREQ(out, fault.happened() ? "" : "value");
    });
    each_failure([](Fault &fault) {
        const int rc = fault.in([] { return tavrix_lsyslog_reload_conf(); });
        EXPECT_EQ(rc == 0, !fault.happened());
    });
}

TEST(CommandFaults, AreStatuses) {
    const LogCapture log("off");
    each_failure([](Fault &fault) {
        char out[80] = "";
        fault.expect(1, 0, [&] { return mw_exec_command_line("echo word", out); });
        EXPECT_STREQ(out, fault.happened() ? "" : "word\n");
    });
    support::write_file("some.file", "content");
    ASSERT_EQ(std::system("md5sum some.file > some.md5"), 0);
    each_failure([](Fault &fault) {
        bool match = false;
        fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_check_md5("some.file", "some.md5", &match); });
        EXPECT_EQ(match, !fault.happened());
    });
    each_failure([](Fault &fault) {
        char *stats = fault.in([] { return tavrix_file_stats("some.file", nullptr, nullptr, 5); });
        EXPECT_EQ(stats == nullptr, fault.happened());
        free(stats);
    });
    each_failure([](Fault &fault) { EXPECT_EQ(fault.in([] { return tavrix_get_board_rev_number(); }), 7); });
}

TEST(MacVectorFaults, KeepTheEntriesAndEndTheProcess) {
    const LogCapture log("off");
    each_failure([](Fault &fault) {
        tavrix_mac_array array = {};
        tavrix_mac_vector vector = {};
        const support::Terminations terminations;
        const int stopped_at = fault.in([&] {
            if (tavrix_mac_vector_init(&vector, &array) != 0) {
                return 0;
            }
            for (int i = 1; i <= 20; ++i) {
                if (tavrix_mac_vector_insert(&vector, "00:11:22:33:44:55", 1) != 0) {
                    return i;
                }
            }
            return 21;
        });
        EXPECT_EQ(terminations.count(), fault.happened() ? 1 : 0);
        EXPECT_EQ(array.count, stopped_at == 0 ? 0 : stopped_at - 1);
        for (int i = 0; i < array.count; ++i) {
            EXPECT_STREQ(array.entries[i], "00:11:22:33:44:55");
        }
        free(array.entries);
    });
}

TEST(DumpFaults, LeaveOutTheDump) {
    const LogCapture log("info");
    each_failure([&](Fault &fault) {
        LogCapture dump("info");
        fault.in([] {
            tavrix_debug_print_bytes("abc", 3, "title");
            return 0;
        });
        EXPECT_EQ(dump.silent(), fault.happened());
    });
}
