// The price of a holder, in a process as threads leave it and in one that never had
// a second thread, where locks and allocations are cheaper.
#include "bench/attach_cost.h"

#include <algorithm>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr double kMost = 1.5;

// What else the machine does makes single runs dearer; a price that is too high is so in all.
double leastRatio() {
    double least = attachCostRatio(1001);
    for (int i = 0; i < 9 && least > kMost; ++i) {
        least = std::min(least, attachCostRatio(1001));
    }
    return least;
}

TEST(AttachCostTest, IsAtMostHalfAboveItsLocksAndItsNode) {
    EXPECT_LE(leastRatio(), kMost) << "one thread";
    std::thread([] {}).join();
    EXPECT_LE(leastRatio(), kMost) << "after a second thread";
}

}  // namespace
