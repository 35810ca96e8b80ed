// What a holder pays for taking and leaving an object, against what that is made of:
// four uncontended locks and the list's node. For one thread at a time.
#ifndef BENCH_ATTACH_COST_H
#define BENCH_ATTACH_COST_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/status.h"

// An object to hold and to call.
class BenchObject : public CMN_GuardedRef {
public:
    BenchObject() : CMN_GuardedRef(1) {}
    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    virtual int next() { return ++number_; }

private:
    int number_ = 0;
};

using BenchHolder = CMN_GRefPtr<BenchObject>;

inline void attachAndDetach(BenchObject& object, BenchHolder& holder) {
    object.addReference(&holder);
    object.remReference(&holder);
}

// The same locks and the same allocation, with nothing around them.
class LocksAndNode {
public:
    void run() {
        locked([] {});
        sitem<CMN_GRPHolder>* node = nullptr;
        locked([&] {
            node = new sitem<CMN_GRPHolder>{};
            asm volatile("" : : "r"(node) : "memory");  // someone might look at it
        });
        locked([&] { delete node; });
        locked([] {});
    }

private:
    template <class Work>
    void locked(Work work) {
        mutex_.lock();
        work();
        mutex_.unlock();
    }

    CMN_Mutex mutex_;
};

// How many times as long attaching and detaching takes. The two are measured by
// turns, in stretches so short that most are undisturbed, and the median counts.
inline double attachCostRatio(std::size_t turns) {
    const auto nanoseconds = [](auto work) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 1000; ++i) {
            work();
        }
        const auto taken = std::chrono::steady_clock::now() - start;
        return std::chrono::duration<double, std::nano>(taken).count();
    };
    const BenchHolder kept(new BenchObject);
    BenchHolder holder;
    LocksAndNode parts;
    std::vector<double> ratios;
    while (ratios.size() < turns) {
        const double needed = nanoseconds([&] { parts.run(); });
        ratios.push_back(nanoseconds([&] { attachAndDetach(*kept.get(), holder); }) / needed);
    }
    const auto middle = ratios.begin() + static_cast<std::ptrdiff_t>(turns / 2);
    std::nth_element(ratios.begin(), middle, ratios.end());
    return *middle;
}

#endif  // BENCH_ATTACH_COST_H
