// Whenever a process dies, and whenever the one that comes after it dies as well, a
// reader afterwards finds what it was promised.
#include <algorithm>

#include "tests/crash/harness_test.h"
#include "tests/crash/named.h"
#include "tests/crash/recording.h"

namespace crash {
namespace {

bool changesNames(const fault::Event& call) {
    return call.error == 0 &&
           (call.call == fault::Call::kRename || call.call == fault::Call::kRemove ||
            call.call == fault::Call::kMkdir || call.call == fault::Call::kLink);
}

void restore(const Tree& tree) {
    clearCurrentFolder();
    writeCurrentFolder(tree);
}

class DeathTest : public HarnessTest {
protected:
    // Dies before each call that changes the disk; of a long run every day before some.
    void expectKept(const Workload& workload) { expectKeptFrom(0, record(workload)); }

    // Dies in the last step: all that happens before is a shorter sequence.
    void expectKeptAtEnd(const Workload& workload) {
        const Recording recording = record(workload);
        expectKeptFrom(recording.lastStep, recording);
    }

private:
    void expectKeptFrom(std::size_t from, const Recording& recording) {
        const std::size_t calls = recording.calls.size();
        const std::size_t step = isFull_ || calls < 60 ? 1 : 7;
        for (std::size_t nth = from + 1 + random_() % step; nth <= calls && !HasFailure();
             nth += step) {
            SCOPED_TRACE(recording.workload.name + ", death before call " + std::to_string(nth) +
                         ": " + fault::describe(recording.calls[nth - 1]));
            restore(recording.start);
            ASSERT_EQ(fault::kDeath, runAndDie(recording, nth));
            expectRecovery(recording, recording.allowedAfter(nth - 1));
            count("deaths");
        }
    }

    static int runAndDie(const Recording& recording, std::size_t nth) {
        return fault::inChild([&] {
            const Session session;
            std::string password = recording.baseline.passwords.front();
            if (recording.workload.open && CMN_FILESTORE_S.open(password.c_str()) != kOk) {
                return 1;
            }
            const auto noLinks = linksOf(recording.workload);
            const fault::DyingCall death(static_cast<int>(nth), fault::kLastingCalls);
            for (const Step& step : recording.workload.steps) {
                Action action(step, password);
                (void)action.run();
            }
            return 0;
        });
    }

    // Where recovery changes anything, it dies at each of its own calls first; every day
    // at those before which the disk is another one.
    void expectRecovery(const Recording& recording, const Allowed& allowed) {
        const Tree left = readCurrentFolder();
        const fault::Recorder recorder(fault::kLastingCalls);
        const Observation recovered = recover(recording.question);
        EXPECT_EQ("", judge(recovered, allowed));
        const std::vector<fault::Event> calls = recorder.events();
        if (recovered.passwords.size() == 1) {
            expectChangeByName(recording.question, left, recovered);
        }
        if (std::none_of(calls.begin(), calls.end(), changesNames)) {
            return;
        }
        for (std::size_t nth = 1; nth <= calls.size() && !HasFailure(); ++nth) {
            if (!isFull_ && (nth == 1 || !changesNames(calls[nth - 2]))) {
                continue;
            }
            SCOPED_TRACE("death of the recovery before call " + std::to_string(nth) + ": " +
                         fault::describe(calls[nth - 1]));
            restore(left);
            const int code = fault::inChild([&] {
                const fault::DyingCall death(static_cast<int>(nth), fault::kLastingCalls);
                (void)recover(recording.question);
                return 0;
            });
            ASSERT_EQ(fault::kDeath, code);
            EXPECT_EQ("", judge(recover(recording.question), allowed));
            count("deaths within recovery");
        }
    }

    // One record is changed by its name where nothing else is repaired; and another process dies at
    // that: every day at one of its calls.
    void expectChangeByName(const Question& question, const Tree& left,
                            const Observation& recovered) {
        const auto change = NamedChange::choose(question, recovered, random_());
        if (!change) {
            return;
        }
        restore(left);
        const fault::Recorder recorder(fault::kLastingCalls);
        EXPECT_EQ("", change->carryOut());
        const std::size_t calls = recorder.events().size();
        EXPECT_EQ("", judge(recover(question), change->done()));
        count("records changed by name");
        const std::size_t step = isFull_ ? 1 : std::max<std::size_t>(calls, 1);
        for (std::size_t nth = 1 + random_() % step; nth <= calls && !HasFailure(); nth += step) {
            SCOPED_TRACE("death of the change by name before call " + std::to_string(nth));
            restore(left);
            const int code = fault::inChild([&] {
                const fault::DyingCall death(static_cast<int>(nth), fault::kLastingCalls);
                (void)change->carryOut();
                return 0;
            });
            ASSERT_EQ(fault::kDeath, code);
            EXPECT_EQ("", judge(recover(question), change->whileItLasts()));
            count("deaths within a change by name");
        }
    }
};

TEST_F(DeathTest, EachWorkloadByItself) {
    each(workloads(), 1, [&](const Workload& workload) { expectKept(workload); });
}

TEST_F(DeathTest, SequencesOfUpToThree) {
    each(sequences(1), 1, [&](const Workload& workload) { expectKeptAtEnd(workload); });
    each(sequences(2), 13, [&](const Workload& workload) { expectKeptAtEnd(workload); });
    each(sequences(3), 149, [&](const Workload& workload) { expectKeptAtEnd(workload); });
}

TEST_F(DeathTest, RandomWorkloads) {
    some(5, [&](const Workload& workload) { expectKept(workload); });
}

}  // namespace
}  // namespace crash
