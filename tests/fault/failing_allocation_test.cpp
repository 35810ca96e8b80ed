// Whichever allocation fails, an operation says so by its status, and nothing is lost,
// leaked or left locked.
#include <climits>
#include <optional>

#include "tests/crash/harness_test.h"
#include "tests/fault/trial.h"
#include "tests/support/alloc_fault.h"

namespace crash {
namespace {

using Allocation = fault::FailingAllocation;

class FailingAllocationTest : public HarnessTest {
protected:
    // The nth allocation of the last step fails. False when there were not as many.
    bool expectKept(const Recording& recording, long nth, Allocation::Mode mode) {
        bool struck = false;
        expectNoLeak([&] {
            std::optional<Allocation> trouble;
            const auto start = [&] { trouble.emplace(nth, mode); };
            const auto hasStruck = [&] { return trouble->lift(); };
            const auto stop = [&] { trouble.reset(); };
            const bool once = mode == Allocation::Mode::kOnce;
            Trial trial(recording, once ? Undoing::kWorks : Undoing::kMayFail);
            struck = trial.run({start, hasStruck, stop}, recording.workload.steps.size() - 1);
            EXPECT_EQ("", trial.wrong());
        });
        return struck;
    }

    void failEachAllocation(const Workload& workload) {
        const Recording recording = record(workload, std::nullopt, Names::kAreNew);
        (void)expectKept(recording, LONG_MAX - 1, Allocation::Mode::kOnce);
        const bool isLong = workload.steps.back().act == Act::kRecrypt;
        const long step = isFull_ ? 1 : isLong ? 61 : 3;
        for (const Allocation::Mode mode :
             {Allocation::Mode::kOnce, Allocation::Mode::kFromThenOn}) {
            bool struck = true;
            for (long nth = 1 + static_cast<long>(random_() % static_cast<unsigned long>(step));
                 struck && !HasFailure(); nth += step) {
                SCOPED_TRACE(workload.name + ", allocation " + std::to_string(nth) +
                             (mode == Allocation::Mode::kOnce ? "" : " and all after it"));
                struck = expectKept(recording, nth, mode);
                count("allocations failed", struck ? 1 : 0);
            }
        }
    }
};

TEST_F(FailingAllocationTest, EachAllocationOfEachWorkload) {
    each(workloads(), 1, [&](const Workload& workload) { failEachAllocation(workload); });
}

TEST_F(FailingAllocationTest, RandomWorkloads) {
    some(3, [&](const Workload& workload) { failEachAllocation(workload); });
}

}  // namespace
}  // namespace crash
