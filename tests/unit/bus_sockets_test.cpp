#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "common/bus.h"

using testing::Contains;
using testing::Not;

namespace {

/** The scheduling policies of this process's threads, but for the one that asks. */
std::vector<int> policies_of_others() {
    std::vector<int> policies;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/self/task")) {
        const int id = std::stoi(thread.path().filename());
        if (id != gettid()) {
            policies.push_back(sched_getscheduler(id));
        }
    }
    return policies;
}

TEST(BusSocket, ItsThreadInterruptsNobody) {
    ASSERT_EQ(sched_getscheduler(0), SCHED_OTHER);
    ASSERT_THAT(policies_of_others(), Not(Contains(SCHED_BATCH)));
    tavrix::BusSocket opened;
    ASSERT_TRUE(tavrix::open_bus_socket(TAVRIX_SP_PUB, opened.place()));
    const std::vector<int> policies = policies_of_others();
    EXPECT_EQ(std::count(policies.begin(), policies.end(), SCHED_BATCH), 1);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER) << "the opener's own is as before";
}

TEST(BusSocket, LeavesAPolicyOfSomebodysChoice) {
    const sched_param none{};
    ASSERT_EQ(sched_setscheduler(0, SCHED_BATCH, &none), 0);
    tavrix::BusSocket opened;
    EXPECT_TRUE(tavrix::open_bus_socket(TAVRIX_SP_SUB, opened.place()));
    EXPECT_EQ(sched_getscheduler(0), SCHED_BATCH);
    ASSERT_EQ(sched_setscheduler(0, SCHED_OTHER, &none), 0);
}

TEST(BusSocket, IsNotOpenOfAKindThatNanomsgLacks) {
    int number = -1;
    EXPECT_FALSE(tavrix::open_bus_socket(99, &number));
    EXPECT_EQ(number, -1);
}

} // namespace
