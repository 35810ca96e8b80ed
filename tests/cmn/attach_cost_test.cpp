// The price of a holder, in a process as threads leave it and in one that never had
// a second thread, where locks and allocations are cheaper.
#include "bench/attach_cost.h"

#include <thread>

#include <gtest/gtest.h>

namespace {

TEST(AttachCostTest, IsAtMostHalfAboveItsLocksAndItsNode) {
    EXPECT_LE(attachCostRatio(1001), 1.5) << "one thread";
    std::thread([] {}).join();
    EXPECT_LE(attachCostRatio(1001), 1.5) << "after a second thread";
}

}  // namespace
