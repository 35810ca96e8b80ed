// Whichever file-system call fails, and however, the promises of the store hold.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include "tests/crash/harness_test.h"
#include "tests/fault/trial.h"
#include "tests/support/alloc_fault.h"

namespace crash {
namespace {

using fault::Call;
using fault::Mode;

class FailingCallTest : public HarnessTest {
protected:
    // Runs the workload with a trouble of class T, made of `args`. False when it had
    // nothing to strike. `unchanged`: the steps must not even notice.
    template <class T, class... Args>
    bool expectKept(const Recording& recording, Undoing undoing, bool unchanged,
                    const Args&... args) {
        bool struck = false;
        expectNoLeak([&] {
            std::optional<T> trouble;
            const auto start = [&] {
                if (!trouble) {
                    trouble.emplace(args...);
                }
            };
            // What has not struck goes on into the next step.
            const auto hasStruck = [&] { return trouble->hit() && trouble->lift(); };
            const auto stop = [&] { trouble.reset(); };
            Trial trial(recording, undoing);
            struck = trial.run({start, hasStruck, stop}, 0);
            EXPECT_EQ("", trial.wrong());
            EXPECT_TRUE(!unchanged || trial.statuses() == recording.statuses);
        });
        return struck;
    }

    void expectKeptWithout(const Recording& recording) {
        Trial trial(recording, Undoing::kWorks);
        (void)trial.run({[] {}, [] { return false; }, [] {}}, 0);
        ASSERT_EQ("", trial.wrong());
    }

    void failEachCall(const Workload& workload) {
        const Recording recording = record(workload, std::nullopt, Names::kAreNew);
        expectKeptWithout(recording);
        const std::size_t calls = recording.everyCall.size();
        const std::size_t step = stride(calls);
        for (std::size_t nth = 1 + random_() % step; nth <= calls && !HasFailure(); nth += step) {
            const Call call = recording.everyCall[nth - 1].call;
            for (const int error : errnosOf(call)) {
                SCOPED_TRACE(workload.name + ", call " + std::to_string(nth) + ": " +
                             fault::describe(recording.everyCall[nth - 1]) + ", fails with " +
                             ::strerrorname_np(error));
                // An interrupted call is continued, but for those of names, which no
                // signal interrupts.
                const bool unchanged = error == EINTR;
                EXPECT_TRUE(expectKept<fault::FailingCall>(recording, Undoing::kWorks, unchanged,
                                                           static_cast<int>(nth), error,
                                                           Mode::kOnce, fault::Calls::all()));
                // From then on, each call that can fail in this way.
                const fault::Calls alike = callsThatHave(error);
                EXPECT_TRUE(expectKept<fault::FailingCall>(recording, Undoing::kMayFail, unchanged,
                                                           countUpTo(recording, nth, alike), error,
                                                           Mode::kFromThenOn, alike));
                count("calls failed", 2);
            }
        }
    }

    // A write or read that moves less than it was asked to goes on; one that stores
    // nothing, or finds an early end, is a failure.
    void shortenEachCall(const Workload& workload) {
        const Recording recording = record(workload, std::nullopt, Names::kAreNew);
        const std::size_t step = stride(recording.everyCall.size());
        for (const std::size_t atMost : {SIZE_MAX, std::size_t{1}, std::size_t{0}}) {
            bool struck = true;
            for (std::size_t nth = 1; struck && !HasFailure(); nth += step) {
                SCOPED_TRACE(workload.name + ", short call " + std::to_string(nth) + ", at most " +
                             std::to_string(atMost));
                const auto at = static_cast<int>(nth);
                struck = expectKept<fault::ShortCall>(recording, Undoing::kWorks, atMost != 0, at,
                                                      Mode::kOnce, atMost);
                (void)expectKept<fault::ShortCall>(recording, Undoing::kMayFail, atMost != 0, at,
                                                   Mode::kFromThenOn, atMost);
                count("calls that fell short", struck ? 2 : 0);
            }
        }
    }

private:
    static fault::Calls callsThatHave(int error) {
        fault::Calls calls{};
        for (int kind = 0; kind < fault::kCallKinds; ++kind) {
            const std::vector<int>& all = fault::errnosOf(static_cast<Call>(kind));
            if (std::find(all.begin(), all.end(), error) != all.end()) {
                calls.add(static_cast<Call>(kind));
            }
        }
        return calls;
    }

    // How many of the first `nth` calls are of these kinds.
    static int countUpTo(const Recording& recording, std::size_t nth, fault::Calls calls) {
        return static_cast<int>(
            std::count_if(recording.everyCall.begin(),
                          recording.everyCall.begin() + static_cast<std::ptrdiff_t>(nth),
                          [&](const fault::Event& event) { return calls.has(event.call); }));
    }

    // Every day, in a long run, some of the call sites, and of the errnos two.
    std::size_t stride(std::size_t calls) const { return isFull_ || calls < 150 ? 1 : 23; }

    std::vector<int> errnosOf(Call call) {
        const std::vector<int>& all = fault::errnosOf(call);
        return isFull_ ? all : std::vector<int>{EIO, all[random_() % all.size()]};
    }
};

TEST_F(FailingCallTest, EachCallOfEachWorkloadFails) {
    each(workloads(), 1, [&](const Workload& workload) { failEachCall(workload); });
}

TEST_F(FailingCallTest, EachCallOfSequencesFails) {
    each(sequences(2), 35, [&](const Workload& workload) { failEachCall(workload); });
}

TEST_F(FailingCallTest, EachReadAndWriteFallsShort) {
    each(workloads(), 1, [&](const Workload& workload) { shortenEachCall(workload); });
}

TEST_F(FailingCallTest, ListingsThatTellNoTypesChangeNothing) {
    each(workloads(), 1, [&](const Workload& workload) {
        SCOPED_TRACE(workload.name);
        const Recording recording = record(workload, std::nullopt, Names::kAreNew);
        const fault::UntypedEntries untyped;
        expectKeptWithout(recording);
    });
}

TEST_F(FailingCallTest, RandomWorkloads) {
    some(3, [&](const Workload& workload) { failEachCall(workload); });
}

}  // namespace
}  // namespace crash
