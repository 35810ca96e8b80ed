// What do holders, locks, calls and the registry cost while nobody is in the way,
// and do they stay as cheap when there is much of everything?
#include <memory>
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

// Detaching looks for the holder from the newest on.
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
