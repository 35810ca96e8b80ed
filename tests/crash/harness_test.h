// What the tests of the harness share: a folder in memory, random choices that can be
// repeated, and loops that end at the first failure.
#ifndef TESTS_CRASH_HARNESS_TEST_H
#define TESTS_CRASH_HARNESS_TEST_H

#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "tests/crash/figures.h"
#include "tests/crash/tree.h"
#include "tests/crash/workloads.h"

namespace crash {

// Instrumented, a run takes ten times as long and meets no other states.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kFewer = 8;
#else
constexpr std::size_t kFewer = 1;
#endif

class HarnessTest : public ::testing::Test {
protected:
    // Every `nth` of the workloads; in a full run all of them, or all of a part.
    template <class Check>
    void each(const std::vector<Workload>& all, std::size_t nth, Check check) {
        const std::size_t first = isFull_ ? part().index : 0;
        const std::size_t step = isFull_ ? part().count : nth * kFewer;
        for (std::size_t i = first; i < all.size() && !HasFailure(); i += step) {
            check(all[i]);
        }
    }

    // As many random ones every day; in overtime they go on.
    template <class Check>
    void some(int everyDay, Check check) {
        const Overtime overtime;
        for (int done = 0; !HasFailure() && (done < everyDay || overtime.isLeft()); ++done) {
            check(randomWorkload(random_));
        }
    }

    const bool isFull_ = isFull();
    std::mt19937 random_{seed()};

private:
    Scratch scratch_;
};

}  // namespace crash

#endif  // TESTS_CRASH_HARNESS_TEST_H
