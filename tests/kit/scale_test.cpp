/*
 * Many of everything: what a thousand calls in flight cost, both ways, and what stays when services of the kit have
 * come and gone on the bus.
 */
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>

#include "kit/support/played_router.h"
#include "support/fleet.h"
#include "support/log_capture.h"
#include "support/process.h"

using namespace support;

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak)); // there in a sanitized build only

namespace {

/** Bytes that this process has taken from the heap and not given back, with what the allocator adds to them. */
size_t heap_in_use() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return __sanitizer_get_current_allocated_bytes();
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

constexpr size_t thousand = 1000;
size_t deferred_calls = 0;
size_t outcomes = 0;

int defer_counted(tavrix_call *call) {
    deferred_calls += tavrix_call_defer(call, nullptr, nullptr) != 0 ? 1 : 0;
    return TAVRIX_OK;
}
const Rows defer_params = {TAVRIX_PARAM("port", TAVRIX_KIND_PORT_ID, "", TAVRIX_ANY_PORT),
                           TAVRIX_PARAM("vlan", TAVRIX_KIND_VLAN_ID, "", 0)};
const Methods methods = {{"t.Defer", defer_counted, defer_params}};

void on_answer(tavrix_service * /*service*/, const tavrix_answer * /*answer*/, void * /*user*/) { ++outcomes; }

/** Each of a thousand takes so many bytes at most; the figure is printed, for who changes what a call is made of. */
void expect_small_records(const char *what, size_t bound, const std::function<void()> &make_a_thousand) {
    const size_t before = heap_in_use();
    make_a_thousand();
    const size_t after = heap_in_use();
    ASSERT_GT(after, before);
    const size_t each = (after - before) / thousand;
    std::printf("%s: %zu bytes each\n", what, each);
    EXPECT_LE(each, bound);
}

/** Makes a thousand requests, which the router has read when this returns. */
void request_a_thousand(Stage *stage) {
    for (size_t i = 0; i < thousand; ++i) {
        ASSERT_NE(tavrix_service_request(stage->service, "other.Get", json_pack("{s:i}", "n", static_cast<int>(i)),
                                         60000, on_answer, nullptr),
                  0U);
    }
    size_t heard = 0;
    ASSERT_TRUE(stage->wait([&] {
        heard += stage->router.lines.size();
        stage->router.lines.clear();
        return heard == thousand;
    }));
}

class Scale : public testing::Test {
  protected:
    Scale() {
        deferred_calls = 0;
        outcomes = 0;
    }
    LogCapture log{"info"};
};

TEST_F(Scale, AThousandCallsToOthersInFlightAreAThousandSmallRecords) {
    Stage stage(methods);
    request_a_thousand(&stage); // what is taken once is taken now: the loop's heap, the buffers
    stage.restart_router();
    ASSERT_TRUE(stage.wait([] { return outcomes == thousand; }));
    expect_small_records("a call to another service in flight", 512, [&] { request_a_thousand(&stage); });
    ASSERT_EQ(outcomes, thousand) << "all of the second thousand are in flight";
}

TEST_F(Scale, AThousandCallsThatWaitForTheirAnswersAreAThousandSmallRecords) {
    Stage stage(methods);
    const auto defer_a_thousand = [&](size_t so_far) {
        for (size_t i = 0; i < thousand; ++i) {
            stage.router.say(direct_request("t.Defer", R"({"port":"c1-1","vlan":7})", static_cast<int>(i)));
            if (i % 100 == 99) { // as many as the connection holds
                ASSERT_TRUE(stage.wait([&] { return deferred_calls == so_far + i + 1; }));
            }
        }
    };
    defer_a_thousand(0);
    stage.restart_router();
    // The request itself, as JSON, is the larger part.
    expect_small_records("a call that waits for its answer", 4096, [&] { defer_a_thousand(thousand); });
}

/** The router, and services of the kit in this process, which come and go beside it. */
class Churn : public testing::Test {
  protected:
    Churn() {
        set_log_level("off"); // of this process
        write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\n");
        router = started_router("ipc://bus/router");
    }

    /** Opens a service, has it registered with an ipc address of its own, and closes it. */
    void come_and_go(const std::string &name) {
        static const Methods visited = {{"visitor.Defer", defer_counted, defer_params}};
        Service service = started_service(name.c_str(), visited);
        const std::string address = "bus/" + name;
        EXPECT_TRUE(std::filesystem::exists(address)) << "it publishes on an ipc address";
        service.reset();
        EXPECT_FALSE(std::filesystem::exists(address)) << "it takes its socket's file along";
    }
    static long entries(const std::string &folder) {
        return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator{});
    }
    long router_descriptors() const { return entries("/proc/" + std::to_string(router->pid()) + "/fd"); }

    std::unique_ptr<Process> router;
};

/** How many services come and go: TAVRIX_CHURN of them, by default as many as an everyday run has time for. */
size_t visits() {
    const char *wanted = std::getenv("TAVRIX_CHURN");
    constexpr size_t everyday = 300;
    return wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : everyday;
}

TEST_F(Churn, OfServicesOnIpcAddressesLeavesNoDescriptorNoMemoryAndNoFile) {
    constexpr size_t warm_up = 20;
    const size_t count = visits();
    std::vector<std::string> names; // the logger keeps a name for as long as the process lives
    names.reserve(warm_up + count);
    for (size_t i = 0; i < warm_up + count; ++i) {
        names.push_back("visitor" + std::to_string(i));
    }
    for (size_t i = 0; i < warm_up; ++i) {
        come_and_go(names[i]);
    }
    const int descriptors = open_descriptors();
    const size_t heap = heap_in_use();
    const long files = entries("bus");
    ASSERT_TRUE(wait_until([&] { return router->times_said(" has gone") == static_cast<int>(warm_up); }))
        << router->log();
    const long router_before = router_descriptors(); // at least those that stay: the last visitor's close in their time
    for (size_t i = 0; i < count && !HasFailure(); ++i) {
        come_and_go(names[warm_up + i]);
    }
    const size_t heap_after = heap_in_use();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(entries("bus"), files);
    EXPECT_TRUE(wait_until([&] { return router_descriptors() <= router_before; }))
        << router_descriptors() << " descriptors of the router's instead of " << router_before;
    const long gained = static_cast<long>(heap_after) - static_cast<long>(heap);
    std::printf("%zu services came and went: %ld bytes of the heap gained\n", count, gained);
    EXPECT_LT(gained, static_cast<long>(count) * 64) << "less than the smallest record for each";
}

} // namespace
