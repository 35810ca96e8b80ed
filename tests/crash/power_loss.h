// Loses the power at every moment of a recorded run, in every way that a model allows,
// and has the store recover.
#ifndef TESTS_CRASH_POWER_LOSS_H
#define TESTS_CRASH_POWER_LOSS_H

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/crash/disk_model.h"
#include "tests/crash/named.h"
#include "tests/crash/recording.h"

namespace crash {

class PowerLoss {
public:
    // The power goes once `from` calls were made, at the earliest.
    PowerLoss(const Recording& recording, const Limits& limits, std::mt19937& random,
              std::size_t from = 0)
        : recording_(recording), limits_(limits), random_(random), from_(from) {}

    // The first state of this model that breaks the promise, told at length; empty when
    // there is none. The current folder is used, and its contents go.
    std::string findViolation(Model model);

    // For kWeakest, of which nothing is promised: counts instead of telling.
    void measure(Model model);

private:
    // What follows from a tree: the observation after its recovery, and those after a
    // recovery that lost the power as well.
    struct Outcome {
        std::vector<Observation> seen;
        std::string goesOn;  // what is wrong when the database is used again
    };

    template <class Visit>
    void forEachState(Model model, Visit visit);
    Observation recoverTree(const Tree& tree, const Question& question);
    std::string findLossWithin(const NamedChange& change, const Tree& tree,
                               const std::vector<fault::Event>& calls, Model model);
    const Outcome& outcomeOf(const Tree& tree, Model model);
    std::string changeByName(const Tree& tree, const Observation& recovered, std::uint64_t choice,
                             Model model);
    void addRecoveries(const Tree& tree, const std::vector<fault::Event>& calls, Model model,
                       Outcome& outcome);
    std::string report(Model model, std::size_t made, const Disk& disk, const Tree& tree,
                       const std::string& wrong) const;

    const Recording& recording_;
    const Limits& limits_;
    std::mt19937& random_;
    const std::size_t from_;
    std::optional<Tree> standing_;  // in the current folder, where that is known
    std::unordered_map<std::uint64_t, Outcome> outcomes_;  // by hash of the tree
};

}  // namespace crash

#endif  // TESTS_CRASH_POWER_LOSS_H
