// What do holders, locks, calls and the registry cost while nobody is in the way,
// and do they stay as cheap when there is much of everything?
#include <algorithm>
#include <cstddef>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/attach_cost.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/cmn_stub.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(107);

namespace {

class Stub : public CMN_ObjectStub<BenchObject> {
public:
    explicit Stub(BenchObject* target) : CMN_ObjectStub(target, nullptr) {}
    int next() const { return forward(&BenchObject::next, -1); }
};

std::unique_ptr<BenchHolder> guardedObject() {
    auto* const object = new BenchObject;
    object->setGuard(new CMN_Guard);
    return std::make_unique<BenchHolder>(object);
}

// --- locks

void enterAndExit(benchmark::State& state) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("bench");
    for ([[maybe_unused]] auto _ : state) {
        mutex.enter();
        mutex.exit();
    }
}

void enterAndExitNested(benchmark::State& state) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("bench");
    mutex.enter();
    for ([[maybe_unused]] auto _ : state) {
        mutex.enter();
        mutex.exit();
    }
    mutex.exit();
}

// --- holders

void locksAndNode(benchmark::State& state) {
    LocksAndNode parts;
    for ([[maybe_unused]] auto _ : state) {
        parts.run();
    }
}

void attachDetach(benchmark::State& state) {
    const BenchHolder kept(new BenchObject);
    BenchHolder holder;
    for ([[maybe_unused]] auto _ : state) {
        attachAndDetach(*kept.get(), holder);
    }
}

void holderOfGuardedObject(benchmark::State& state) {
    const auto kept = guardedObject();
    for ([[maybe_unused]] auto _ : state) {
        const BenchHolder holder(*kept);
        benchmark::DoNotOptimize(holder.get());
    }
}

void attachDetachRatio(benchmark::State& state) {
    double ratio = 0;
    for ([[maybe_unused]] auto _ : state) {
        ratio = attachCostRatio(1001);
    }
    state.counters["ratio"] = ratio;
}

// Detaching looks for the holder from the newest on, and in a long list in an index.
void attachDetachAmongMany(benchmark::State& state) {
    const BenchHolder kept(new BenchObject);
    const std::vector<BenchHolder> others(static_cast<std::size_t>(state.range(0)) - 1, kept);
    BenchHolder holder;
    for ([[maybe_unused]] auto _ : state) {
        attachAndDetach(*kept.get(), holder);
    }
}

void detachOldestAndAttach(benchmark::State& state) {
    const BenchHolder kept(new BenchObject);
    std::vector<BenchHolder> holders(static_cast<std::size_t>(state.range(0)));
    for (BenchHolder& holder : holders) {
        holder = kept;
    }
    std::size_t oldest = 0;
    for ([[maybe_unused]] auto _ : state) {
        kept.get()->remReference(&holders[oldest]);
        kept.get()->addReference(&holders[oldest]);
        oldest = (oldest + 1) % holders.size();
    }
}

enum class Order { kOldestFirst, kNewestFirst, kRandom };

// So many holders leave one object. The price of one of them should be the same however
// many they are.
void leave(benchmark::State& state, Order order) {
    const BenchHolder kept(new BenchObject);
    std::vector<BenchHolder> holders(static_cast<std::size_t>(state.range(0)));
    std::vector<BenchHolder*> turns;
    for (BenchHolder& holder : holders) {
        turns.push_back(&holder);
    }
    if (order == Order::kNewestFirst) {
        std::reverse(turns.begin(), turns.end());
    } else if (order == Order::kRandom) {
        std::shuffle(turns.begin(), turns.end(), std::minstd_rand(1));
    }
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        for (BenchHolder& holder : holders) {
            holder = kept;
        }
        state.ResumeTiming();
        for (BenchHolder* const holder : turns) {
            *holder = nullptr;
        }
    }
    const auto left = static_cast<double>(state.iterations() * state.range(0));
    state.counters["each"] =
        benchmark::Counter(left, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// --- calls

void directCall(benchmark::State& state) {
    const BenchHolder kept(new BenchObject);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(kept.get()->next());
    }
}

void forwardedCall(benchmark::State& state) {
    const auto kept = guardedObject();
    const Stub stub(kept->get());
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(stub.next());
    }
}

// --- the registry

void registerAmongMany(benchmark::State& state) {
    std::vector<BenchHolder> live(static_cast<std::size_t>(state.range(0)));
    for (BenchHolder& holder : live) {
        holder = new BenchObject;
    }
    for ([[maybe_unused]] auto _ : state) {
        const BenchObject object;
        benchmark::DoNotOptimize(&object);
    }
}

BENCHMARK(enterAndExit);
BENCHMARK(enterAndExitNested);
BENCHMARK(locksAndNode);
BENCHMARK(attachDetach);
BENCHMARK(attachDetachRatio)->Unit(benchmark::kMillisecond);
BENCHMARK(holderOfGuardedObject);
BENCHMARK(attachDetachAmongMany)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(detachOldestAndAttach)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(leave, oldestFirst, Order::kOldestFirst)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK_CAPTURE(leave, newestFirst, Order::kNewestFirst)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK_CAPTURE(leave, random, Order::kRandom)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(directCall);
BENCHMARK(forwardedCall);
BENCHMARK(registerAmongMany)->Arg(0)->Arg(1000)->Arg(100000);

}  // namespace

int main(int argc, char** argv) {
    // A process that never had a second thread locks and allocates for less.
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
