#include "cmn/cmn_rmutex.h"

#include <atomic>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/mutex_probe.h"

namespace {

TEST(RecursiveMutexTest, IsFreeWhenBuilt) {
    CMN_RecursiveMutex mutex("test");
    EXPECT_TRUE(isFree(mutex));
}

TEST(RecursiveMutexTest, TwoEntersTakeTwoExits) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    mutex.enter();
    mutex.enter();
    EXPECT_EQ(1, mutex.exit());
    EXPECT_FALSE(isFree(mutex));
    EXPECT_EQ(0, mutex.exit());
    EXPECT_TRUE(isFree(mutex));
}

TEST(RecursiveMutexTest, ExitTellsTheLevelsThatAreLeft) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    constexpr int kLevels = 1000;
    for (int level = 0; level < kLevels; ++level) {
        if (level % 2 == 0) {
            mutex.enter();
        } else {
            ASSERT_TRUE(mutex.tryenter());
        }
    }
    for (int left = kLevels - 1; left >= 0; --left) {
        ASSERT_EQ(left, mutex.exit());
        ASSERT_EQ(left == 0, isFree(mutex));
    }
}

TEST(RecursiveMutexTest, TryenterOfAnotherThreadChangesNothing) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    ASSERT_TRUE(mutex.tryenter());
    EXPECT_FALSE(isFree(mutex));
    EXPECT_TRUE(mutex.tryenter());  // still the owner: this re-enters
    EXPECT_EQ(1, mutex.exit());
    EXPECT_EQ(0, mutex.exit());
}

TEST(RecursiveMutexTest, EnterWaitsForTheOwner) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    std::atomic<bool> asking{false};
    int value = 0;  // under `mutex`
    mutex.enter();
    std::thread other([&]() CMN_NO_TSA {
        asking = true;
        mutex.enter();
        EXPECT_EQ(2, value);
        value = 3;
        EXPECT_EQ(0, mutex.exit());
    });
    while (!asking) {
    }
    value = 1;
    mutex.enter();
    value = 2;
    mutex.exit();
    mutex.exit();
    other.join();
    EXPECT_EQ(3, value);
    EXPECT_TRUE(isFree(mutex));
}

// A thread that gave the mutex up is like any other to the next owner.
TEST(RecursiveMutexTest, FormerOwnerDoesNotReenter) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    std::atomic<int> step{0};
    mutex.enter();
    mutex.exit();
    std::thread other([&]() CMN_NO_TSA {
        mutex.enter();
        step = 1;
        while (step != 2) {
        }
        mutex.exit();
    });
    while (step != 1) {
    }
    EXPECT_FALSE(mutex.tryenter());
    step = 2;
    other.join();
}

TEST(RecursiveMutexTest, EnteredHoldsItForAScope) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    {
        const CMN_Entered outer(mutex);
        {
            const CMN_Entered inner(mutex);
            EXPECT_FALSE(isFree(mutex));
        }
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(MutexTest, ExcludesOtherThreads) {
    CMN_Mutex mutex;
    int value = 0;  // under `mutex`
    const auto work = [&] {
        for (int i = 0; i < 10000; ++i) {
            const std::lock_guard locked(mutex);
            ++value;
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(20000, value);
}

TEST(ThrEqualTest, ComparesIdentifiers) {
    EXPECT_TRUE(thr_equal(7, 7));
    EXPECT_FALSE(thr_equal(7, 8));
    EXPECT_TRUE(thr_equal(pthread_self(), pthread_self()));
}

}  // namespace
