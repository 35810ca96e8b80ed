// One run of a workload, with all that it did to the disk and all that may be found of
// it at each moment.
#ifndef TESTS_CRASH_RECORDING_H
#define TESTS_CRASH_RECORDING_H

#include <optional>
#include <string>
#include <vector>

#include "tests/crash/oracle.h"
#include "tests/crash/recovery.h"
#include "tests/crash/tree.h"
#include "tests/crash/workloads.h"
#include "tests/support/fs_fault.h"

namespace crash {

struct Recording {
    Workload workload;
    Question question;                // what to ask for after a crash
    Tree start;                       // the disk before the first step
    Observation baseline;             // what was found there
    std::vector<fault::Event> calls;  // of fault::kLastingCalls, by the steps
    std::vector<fault::Event> everyCall;
    std::vector<Allowed> phases;
    std::vector<std::size_t> phaseAfter;  // by number of calls made: an index of `phases`
    std::vector<Status> statuses;         // of the steps
    std::size_t lastStep = 0;             // the number of calls made before it
    std::vector<std::string> faults;      // what readers among the steps found wrong

    // All steps have, but for removals of records that there are not.
    bool succeeded() const;

    const Allowed& allowedAfter(std::size_t made) const { return phases[phaseAfter[made]]; }
};

// The records and passwords that a workload knows.
Question questionOf(const Workload& workload);

// A call that fails once, counted from the first step.
struct Fault {
    int nth;
    int error;
    fault::Calls calls = fault::Calls::all();
};

// Whether names that the store chooses for bodies may be taken by what an earlier process
// left. Where they are new, each further run makes the same calls.
enum class Names { kMayBeTaken, kAreNew };

// Runs the workload in the current folder, whose contents go. Where the folders, the
// opening or a change of password failed, the process does nothing more.
Recording record(const Workload& workload, const std::optional<Fault>& fault = std::nullopt,
                 Names names = Names::kMayBeTaken);

}  // namespace crash

#endif  // TESTS_CRASH_RECORDING_H
