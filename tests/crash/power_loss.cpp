#include "tests/crash/power_loss.h"

#include <algorithm>
#include <sstream>
#include <unordered_set>

#include "tests/crash/figures.h"

namespace crash {
namespace {

bool changesNames(const fault::Event& call) {
    return call.call == fault::Call::kRename || call.call == fault::Call::kRemove ||
           call.call == fault::Call::kMkdir || call.call == fault::Call::kLink;
}

}  // namespace

// Judges a tree once for each phase in which it occurs, and recovers it once.
template <class Visit>
void PowerLoss::forEachState(Model model, Visit visit) {
    Disk disk(recording_.start);
    std::unordered_set<std::uint64_t> trees;
    std::unordered_set<std::uint64_t> judged;
    bool all = true;
    for (std::size_t made = 0; made <= recording_.calls.size(); ++made) {
        if (made > 0) {
            disk.apply(recording_.calls[made - 1]);
        }
        if (made < from_) {
            continue;
        }
        all &= disk.forEachTree(model, limits_, random_, [&](const Tree& tree) {
            const std::uint64_t hash = hashOf(tree);
            trees.insert(hash);
            if (judged.insert(hash * 31 + recording_.phaseAfter[made]).second) {
                visit(made, disk, tree);
            }
        });
    }
    const std::string figure = std::string("crash states, ") + nameOf(model);
    count(figure, static_cast<long>(trees.size()));
    count(figure + ", runs " + (all ? "enumerated in full" : "with states chosen at random"));
}

std::string PowerLoss::findViolation(Model model) {
    std::string first;
    forEachState(model, [&](std::size_t made, const Disk& disk, const Tree& tree) {
        if (!first.empty()) {
            return;
        }
        const Outcome& outcome = outcomeOf(tree, model);
        std::string wrong = outcome.goesOn;
        for (const Observation& seen : outcome.seen) {
            wrong += judge(seen, recording_.allowedAfter(made));
        }
        if (!wrong.empty()) {
            first = report(model, made, disk, tree, wrong);
        }
    });
    return first;
}

void PowerLoss::measure(Model model) {
    std::unordered_set<std::uint64_t> broken;
    forEachState(model, [&](std::size_t made, const Disk& /*disk*/, const Tree& tree) {
        const Outcome& outcome = outcomeOf(tree, model);
        const auto isBroken = [&](const Observation& seen) {
            return !judge(seen, recording_.allowedAfter(made)).empty();
        };
        if (std::any_of(outcome.seen.begin(), outcome.seen.end(), isBroken)) {
            broken.insert(hashOf(tree));
        }
    });
    count(std::string("crash states, ") + nameOf(model) + ", not kept (measured only)",
          static_cast<long>(broken.size()));
}

Observation PowerLoss::recoverTree(const Tree& tree, const Question& question) {
    if (standing_) {
        changeCurrentFolder(*standing_, tree);
    } else {
        clearCurrentFolder();
        writeCurrentFolder(tree);
    }
    return recover(question, &standing_.emplace());
}

const PowerLoss::Outcome& PowerLoss::outcomeOf(const Tree& tree, Model model) {
    const auto [known, isNew] = outcomes_.try_emplace(hashOf(tree));
    Outcome& outcome = known->second;
    if (!isNew) {
        return outcome;
    }
    Question question = recording_.question;
    question.scanFirst = (known->first & 1) != 0;
    std::vector<fault::Event> calls;
    {
        const fault::Recorder recorder(fault::kLastingCalls);
        outcome.seen.push_back(recoverTree(tree, question));
        calls = recorder.events();
    }
    const Observation seen = outcome.seen.front();
    const bool isSound = seen.faults.empty() && seen.passwords.size() == 1;
    if (isSound && (known->first & 6) == 0) {
        standing_.reset();
        for (const std::string& wrong : goOn(seen, question)) {
            outcome.goesOn += "  used again: " + wrong + '\n';
        }
    }
    if (isSound && model != Model::kWeakest && (known->first & 24) == 0) {
        outcome.goesOn += changeByName(tree, seen, known->first >> 5, model);
    }
    if (model != Model::kWeakest && std::any_of(calls.begin(), calls.end(), changesNames)) {
        addRecoveries(tree, calls, model, outcome);
    }
    return outcome;
}

// In what the crash has left, of which nothing else is repaired.
std::string PowerLoss::changeByName(const Tree& tree, const Observation& recovered,
                                    std::uint64_t choice, Model model) {
    const auto change = NamedChange::choose(recording_.question, recovered, choice);
    if (!change) {
        return "";
    }
    standing_.reset();
    clearCurrentFolder();
    writeCurrentFolder(tree);
    std::string wrong;
    std::vector<fault::Event> calls;
    {
        const fault::Recorder recorder(fault::kLastingCalls);
        wrong = change->carryOut();
        calls = recorder.events();
    }
    wrong += judge(recover(recording_.question), change->done());
    count("records changed by name");
    constexpr std::uint64_t kLosses = 64;  // in one of so many, as each has many states
    if (wrong.empty() && (choice >> 32) % kLosses == 0) {
        wrong = findLossWithin(*change, tree, calls, model);
    }
    return wrong.empty() ? "" : "  changed by name: " + wrong + '\n';
}

// The first state in which the power went while the record was changed that breaks the promise.
std::string PowerLoss::findLossWithin(const NamedChange& change, const Tree& tree,
                                      const std::vector<fault::Event>& calls, Model model) {
    std::string first;
    std::unordered_set<std::uint64_t> seen{hashOf(tree)};
    Disk disk(tree);
    for (const fault::Event& call : calls) {
        disk.apply(call);
        (void)disk.forEachTree(model, limits_, random_, [&](const Tree& left) {
            if (first.empty() && seen.insert(hashOf(left)).second) {
                first = judge(recoverTree(left, recording_.question), change.whileItLasts());
            }
        });
    }
    count("crash states within a change by name", static_cast<long>(seen.size()) - 1);
    return first;
}

// A recovery changes names only; what it leaves of the model's states is little.
void PowerLoss::addRecoveries(const Tree& tree, const std::vector<fault::Event>& calls, Model model,
                              Outcome& outcome) {
    Disk disk(tree);
    std::unordered_set<std::uint64_t> seen{hashOf(tree)};
    for (const fault::Event& call : calls) {
        disk.apply(call);
        (void)disk.forEachTree(model, limits_, random_, [&](const Tree& left) {
            if (seen.insert(hashOf(left)).second) {
                const Observation found = recoverTree(left, recording_.question);
                if (std::find(outcome.seen.begin(), outcome.seen.end(), found) ==
                    outcome.seen.end()) {
                    outcome.seen.push_back(found);
                }
            }
        });
    }
    count("crash states within recovery", static_cast<long>(seen.size()) - 1);
}

std::string PowerLoss::report(Model model, std::size_t made, const Disk& disk, const Tree& tree,
                              const std::string& wrong) const {
    std::ostringstream text;
    text << recording_.workload.name << ": the power went after call " << made << ", model "
         << nameOf(model) << "\n"
         << wrong << "  steps:";
    for (const Step& step : recording_.workload.steps) {
        text << "  " << describe(step);
    }
    text << "\n  calls:\n";
    for (std::size_t i = 0; i < made; ++i) {
        text << "    " << fault::describe(recording_.calls[i]) << '\n';
    }
    text << "  not certain to be on the disk:\n"
         << disk.describePending() << "  found on the disk:\n"
         << crash::describe(tree);
    return text.str();
}

}  // namespace crash
