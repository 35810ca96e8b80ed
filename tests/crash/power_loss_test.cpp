// Wherever the power goes, a reader afterwards finds what it was promised.
#include "tests/crash/power_loss.h"

#include <cerrno>
#include <optional>

#include "tests/crash/harness_test.h"

namespace crash {
namespace {

// The states of a change of password, of which nobody sees most, are sampled.
constexpr Limits kEveryday{256, 16, 1, 1};
constexpr Limits kTorture{1024, 32, 4, 2};

class PowerLossTest : public HarnessTest {
protected:
    // The power goes at any moment of the workload.
    void expectKept(const Workload& workload, const std::optional<Fault>& fault = std::nullopt) {
        const Recording recording = record(workload, fault);
        EXPECT_TRUE(fault || recording.succeeded()) << workload.name;
        PowerLoss loss(recording, isFull_ ? kTorture : kEveryday, random_);
        expectKept(recording, loss);
    }

    // The power goes in the last step, or after it: all that happens before is a shorter
    // sequence.
    void expectKeptAtEnd(const Workload& workload) {
        const Recording recording = record(workload);
        EXPECT_TRUE(recording.succeeded()) << workload.name;
        const bool isManyTimesLong =
            workload.steps.size() == 3 && workload.steps.back().act == Act::kRecrypt;
        PowerLoss loss(recording, isFull_ && !isManyTimesLong ? kTorture : kEveryday, random_,
                       recording.lastStep);
        expectKept(recording, loss);
    }

private:
    // In all three models of which something is promised; the fourth is measured.
    static void expectKept(const Recording& recording, PowerLoss& loss) {
        EXPECT_EQ(std::vector<std::string>{}, recording.faults) << recording.workload.name;
        // A tree's recovery is broken off in the model that comes to it first: the one that
        // leaves most open.
        for (const Model model : {Model::kReordered, Model::kOrdered, Model::kKill}) {
            const std::string violation = loss.findViolation(model);
            EXPECT_TRUE(violation.empty()) << violation;
        }
        loss.measure(Model::kWeakest);
    }
};

TEST_F(PowerLossTest, EachWorkloadByItself) {
    each(workloads(), 1, [&](const Workload& workload) { expectKept(workload); });
}

TEST_F(PowerLossTest, SequencesOfOne) {
    each(sequences(1), 1, [&](const Workload& workload) { expectKeptAtEnd(workload); });
}

TEST_F(PowerLossTest, SequencesOfTwo) {
    each(sequences(2), 5, [&](const Workload& workload) { expectKeptAtEnd(workload); });
}

TEST_F(PowerLossTest, SequencesOfThree) {
    each(sequences(3), 101, [&](const Workload& workload) { expectKeptAtEnd(workload); });
}

// A call fails, it is undone or not, the process goes on, and then the power goes.
TEST_F(PowerLossTest, AfterAFailedSyncRenameOrRemoval) {
    constexpr fault::Calls kCalls{fault::Call::kFsync, fault::Call::kSyncfs, fault::Call::kRename,
                                  fault::Call::kRemove};
    each(workloads(), 2, [&](const Workload& workload) {
        const bool isLong = workload.steps.back().act == Act::kRecrypt;
        const std::size_t step = isFull_ ? 1 : isLong ? 10 : 4;
        for (std::size_t nth = 1 + random_() % step; nth <= 10 && !HasFailure(); nth += step) {
            expectKept(workload, Fault{static_cast<int>(nth), EIO, kCalls});
        }
    });
}

TEST_F(PowerLossTest, RandomWorkloads) {
    some(4, [&](const Workload& workload) {
        const Fault fault{static_cast<int>(random_() % 60 + 1), random_() % 2 == 0 ? EIO : ENOSPC};
        expectKept(workload, random_() % 2 == 0 ? std::optional(fault) : std::nullopt);
    });
}

}  // namespace
}  // namespace crash
