// One run of a workload with something going wrong in it, and all that must hold after.
#ifndef TESTS_FAULT_TRIAL_H
#define TESTS_FAULT_TRIAL_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/crash/recording.h"

namespace crash {

// Whether a process that goes on sees what it was told. Where the undoing may have
// failed as well, a failed step may have left the new state.
enum class Undoing { kWorks, kMayFail };

// Trouble that begins before a step. `hasStruck` is asked behind each step, and ends what
// has; `stop` ends it in any case.
struct TroubleMaker {
    std::function<void()> start;
    std::function<bool()> hasStruck;
    std::function<void()> stop;
};

class Trial {
public:
    // The folder is put back to where the recording began.
    Trial(const Recording& recording, Undoing undoing);

    // Runs all steps of the workload, the trouble being there from step `from` on, and
    // afterwards what failed once more, with the same objects and without trouble. False
    // when the trouble had nothing to strike.
    bool run(const TroubleMaker& trouble, std::size_t from);

    const std::vector<Status>& statuses() const { return statuses_; }  // of the first attempts

    // What was wrong; empty when nothing was.
    const std::string& wrong() const { return wrong_; }

private:
    void session(const TroubleMaker& trouble, std::size_t from);
    std::optional<Status> perform(Action& action, const Step& step);
    void checkSuccess(Action& action, const Step& step, const Allowed& allowed);
    void again(Action& action, const Step& step, std::string& password);
    void checkReaders(const Allowed& allowed);
    void fault(const std::string& what);

    const Recording& recording_;
    const Undoing undoing_;
    Oracle oracle_;
    bool struck_ = false;
    std::vector<Status> statuses_;
    std::string wrong_;
};

// Runs a trial twice where memory is kept after the first: what a table has grown by is
// there once, what leaks comes again each time.
void expectNoLeak(const std::function<void()>& trial);

}  // namespace crash

#endif  // TESTS_FAULT_TRIAL_H
