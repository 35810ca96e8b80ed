// One run of a command of the tool with all that it did to the disk, and the states in which a
// death or a loss of power may leave it: each recovered by the next commands, and judged.
#ifndef TESTS_CRASH_TOOL_TOOL_CRASH_H
#define TESTS_CRASH_TOOL_TOOL_CRASH_H

#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/crash/disk_model.h"
#include "tests/crash/tool/tool_state.h"
#include "tests/crash/tool/tool_workloads.h"
#include "tests/support/fs_fault.h"

namespace crash {

struct ToolRecording {
    const ToolWorkload& workload;
    Tree start;
    Promise promise;
    std::vector<fault::Event> calls;      // of fault::kLastingCalls, in the current folder
    std::vector<fault::Event> everyCall;  // of every kind, wherever
    Ran ran;
};

// Runs the command in the current folder, whose contents go.
ToolRecording record(const ToolWorkload& workload);

// The calls that the disk model knows about, of those that were recorded.
std::vector<fault::Event> inThisFolder(const std::vector<fault::Event>& events);

// What is wrong with the current folder, where a command was broken off or has failed: what is
// found, and what `check --repair` and a second `check` make of it. Empty when nothing is.
std::string recoverAndJudge(const ToolRecording& recording, Acknowledged acknowledged,
                            Repaired repaired = Repaired::kNo);

class ToolPowerLoss {
public:
    // How much of what takes long is tried.
    struct Effort {
        // Of the trees that the recovery changes, every so manyeth has its recovery broken off.
        std::size_t recoveries;
        // Of the trees that are gone on with by name, every so manyeth is by each round.
        std::size_t rounds;
        // Of the trees before the command was acknowledged, every so manyeth has each file of the
        // password damaged; the others all have.
        std::size_t damages;
    };

    ToolPowerLoss(const ToolRecording& recording, const Limits& limits, const Effort& effort,
                  std::mt19937& random)
        : recording_(recording), limits_(limits), effort_(effort), random_(random) {}

    // The first violation, with the calls and the files; empty when there is none.
    std::string findViolation(Model model);

private:
    std::string outcomeOf(const Tree& tree, Model model, Acknowledged acknowledged);
    std::string breakRecovery(const Tree& tree, const std::vector<fault::Event>& calls, Model model,
                              Acknowledged acknowledged);
    std::string goOnByName(const Tree& tree, Acknowledged acknowledged);
    std::string damageOneFile(const Tree& tree, Acknowledged acknowledged);
    std::string judgeDamaged(Acknowledged acknowledged);

    const ToolRecording& recording_;
    const Limits limits_;
    const Effort effort_;
    std::mt19937& random_;
    std::unordered_map<std::uint64_t, std::string> outcomes_;  // by tree and phase
};

// Runs of the command in which calls fail.
class ToolFaults {
public:
    struct Fault {
        fault::Call call;
        int nth;  // of its kind
        int error;
        fault::Mode mode = fault::Mode::kOnce;
    };

    explicit ToolFaults(const ToolRecording& recording) : recording_(recording) {}

    // What is wrong with what it said, or with what it left; empty when nothing is.
    std::string findViolation(const Fault& fault);

private:
    const ToolRecording& recording_;
    std::unordered_map<std::uint64_t, std::string> outcomes_;  // by what was left, and code
};

}  // namespace crash

#endif  // TESTS_CRASH_TOOL_TOOL_CRASH_H
