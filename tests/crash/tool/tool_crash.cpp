#include "tests/crash/tool/tool_crash.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <unordered_set>

#include "cmn/status.h"
#include "tests/crash/figures.h"
#include "tests/crash/tool/tool_state.h"

namespace crash {
namespace {

void stand(const Tree& tree) {
    clearCurrentFolder();
    writeCurrentFolder(tree);
}

bool changesNames(const fault::Event& event) {
    using fault::Call;
    return event.error == 0 && (event.call == Call::kRename || event.call == Call::kRemove ||
                                event.call == Call::kRmdir || event.call == Call::kMkdir);
}

// The check that a user would run; what is wrong with its answer.
std::string checkAgain(const ToolRecording& recording, const std::string& password,
                       const std::vector<std::string>& options) {
    Command check{{"-D", recording.workload.folder, "check"}, password};
    check.args.insert(check.args.end(), options.begin(), options.end());
    const Ran ran = run(check);
    return ran.code == 0 ? "" : "  " + describe(check) + ": " + ran.said + '\n';
}

std::string headOf(const ToolWorkload& workload) {
    return workload.folder == "." ? "" : workload.folder + "/";
}

// Whether this is the one copy of what fits the key: a database from before there were slots has no
// second one until a command has opened it, and an older program's change leaves it stale. Without
// slots the key alone tells, and a backup or P brings it back.
bool isOnlyCopy(const Tree& tree, const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    if (path.ends_with("/key.dsc")) {
        return !tree.contains(folder + "kdf.dsc") && !tree.contains(folder + "kdf-copy.dsc");
    }
    const auto key = tree.find(folder + "key.dsc");
    if (key == tree.end()) {
        return false;
    }
    const std::string& text = key->second.bytes;
    const std::string digest = text.substr(text.rfind(' ') + 1, 32);
    const auto other =
        tree.find(folder + (path.ends_with("/kdf.dsc") ? "kdf-copy.dsc" : "kdf.dsc"));
    return other == tree.end() || other->second.bytes.find(digest) == std::string::npos;
}

// What may become of a file; none: it is gone.
std::vector<std::pair<std::string, std::optional<std::string>>> damagesOf(
    const std::string& bytes) {
    std::string altered = bytes;
    const std::size_t at = bytes.find_last_of("0123456789abcdef");
    if (at != std::string::npos) {
        altered[at] = altered[at] == '0' ? '1' : '0';
    }
    return {{"lost", std::nullopt},
            {"cut", bytes.substr(0, bytes.size() / 2)},
            {"zeroed", std::string(bytes.size(), '\0')},
            {"altered", altered}};
}

}  // namespace

// A power loss may leave any or no lock file, which nothing that is recovered depends on.
std::vector<fault::Event> inThisFolder(const std::vector<fault::Event>& events) {
    std::vector<fault::Event> inside;
    std::copy_if(events.begin(), events.end(), std::back_inserter(inside), [](const auto& event) {
        return fault::kLastingCalls.has(event.call) && event.path != "?" &&
               !event.path.starts_with('/') && !isLockFile(event.path);
    });
    return inside;
}

ToolRecording record(const ToolWorkload& workload) {
    ToolRecording recording{workload, {}, {}, {}, {}, {}};
    clearCurrentFolder();
    workload.start();
    recording.start = readCurrentFolder();
    Promise& promise = recording.promise;
    promise.isWhole = workload.isWhole;
    promise.makes = workload.makes;
    promise.replaces = workload.isWhole && !workload.makes;
    promise.bytes = workload.bytes;
    promise.purges = workload.purges;
    promise.before = look(workload.folder);
    stand(recording.start);
    {
        const fault::PathsFrom here(std::filesystem::current_path().string());
        const fault::Recorder recorder;
        recording.ran = run(workload.command);
        recording.everyCall = recorder.events();
    }
    recording.calls = inThisFolder(recording.everyCall);
    promise.after = look(workload.folder);
    return recording;
}

std::string recoverAndJudge(const ToolRecording& recording, Acknowledged acknowledged,
                            Repaired repaired) {
    const ToolState seen = look(recording.workload.folder);
    std::string wrong = judge(seen, recording.promise, acknowledged, repaired);
    wrong += missingBytes(recording.promise, readCurrentFolder());
    if (!seen.database || !wrong.empty()) {
        return wrong;
    }
    const std::string password = passwordOf(*seen.database);
    wrong += checkAgain(recording, password, {"--repair"});
    wrong += checkAgain(recording, password, {});
    const ToolState again = look(recording.workload.folder);
    if (again.database != seen.database || again.aside != seen.aside || again.kept != seen.kept ||
        again.files != seen.files || !again.faults.empty()) {
        wrong += "  the repair has changed what was found\n";
    }
    return wrong + missingBytes(recording.promise, readCurrentFolder());
}

std::string ToolPowerLoss::findViolation(Model model) {
    Disk disk(recording_.start);
    std::unordered_set<std::uint64_t> trees;
    std::string first;
    bool all = true;
    for (std::size_t made = 0; made <= recording_.calls.size(); ++made) {
        if (made > 0) {
            disk.apply(recording_.calls[made - 1]);
        }
        const auto acknowledged =
            made == recording_.calls.size() ? Acknowledged::kYes : Acknowledged::kNo;
        all &= disk.forEachTree(model, limits_, random_, [&](const Tree& tree) {
            trees.insert(hashOf(tree));
            const std::string wrong =
                first.empty() ? outcomeOf(tree, model, acknowledged) : std::string();
            if (!wrong.empty()) {
                std::ostringstream text;
                text << recording_.workload.name << ": the power went after call " << made
                     << ", model " << nameOf(model) << "\n"
                     << wrong << "  calls:\n";
                for (std::size_t i = 0; i < made; ++i) {
                    text << "    " << fault::describe(recording_.calls[i]) << '\n';
                }
                text << "  not certain to be on the disk:\n"
                     << disk.describePending() << "  found on the disk:\n"
                     << crash::describe(tree);
                first = text.str();
            }
        });
    }
    const std::string figure = std::string("tool: crash states, ") + nameOf(model);
    count(figure, static_cast<long>(trees.size()));
    count(figure + ", runs " + (all ? "enumerated in full" : "with states chosen at random"));
    return first;
}

std::string ToolPowerLoss::outcomeOf(const Tree& tree, Model model, Acknowledged acknowledged) {
    const std::uint64_t hash = hashOf(tree) * 2 + (acknowledged == Acknowledged::kYes ? 1 : 0);
    const auto [known, isNew] = outcomes_.try_emplace(hash);
    if (!isNew) {
        return known->second;
    }
    stand(tree);
    std::vector<fault::Event> calls;
    std::string wrong;
    {
        const fault::PathsFrom here(std::filesystem::current_path().string());
        const fault::Recorder recorder(fault::kLastingCalls);
        wrong = recoverAndJudge(recording_, acknowledged);
        calls = inThisFolder(recorder.events());
    }
    if (wrong.empty() && std::any_of(calls.begin(), calls.end(), changesNames) &&
        random_() % effort_.recoveries == 0) {
        wrong = breakRecovery(tree, calls, model, acknowledged);
    }
    if (wrong.empty() && recording_.workload.goesOnByName) {
        wrong = goOnByName(tree, acknowledged);
    }
    if (wrong.empty() && (acknowledged == Acknowledged::kYes || random_() % effort_.damages == 0)) {
        wrong = damageOneFile(tree, acknowledged);
    }
    return known->second = wrong;
}

// The power goes again, in the recovery.
std::string ToolPowerLoss::breakRecovery(const Tree& tree, const std::vector<fault::Event>& calls,
                                         Model model, Acknowledged acknowledged) {
    Disk disk(tree);
    std::unordered_set<std::uint64_t> seen{hashOf(tree)};
    std::string first;
    for (std::size_t made = 0; made < calls.size() && first.empty(); ++made) {
        disk.apply(calls[made]);
        (void)disk.forEachTree(model, {4, 2, 2, 1}, random_, [&](const Tree& left) {
            if (first.empty() && seen.insert(hashOf(left)).second) {
                stand(left);
                std::string wrong = recoverAndJudge(recording_, acknowledged, Repaired::kPerhaps);
                if (!wrong.empty()) {
                    first = "  in the recovery, after its call " + fault::describe(calls[made]) +
                            ":\n" + wrong + "  which found:\n" + crash::describe(left);
                }
            }
        });
    }
    count("tool: crash states within recovery", static_cast<long>(seen.size()) - 1);
    return first;
}

// What comes next looks at the records that it names alone, and so does its recovery.
std::string ToolPowerLoss::goOnByName(const Tree& tree, Acknowledged acknowledged) {
    std::vector<std::vector<Command>> rounds = namedRounds();
    rounds.push_back({recording_.workload.command});  // again: it may find its work done
    const bool all = random_() % effort_.rounds == 0;
    const std::size_t one = random_() % rounds.size();
    for (std::size_t i = 0; i < rounds.size(); ++i) {
        if (!all && i != one) {
            continue;
        }
        stand(tree);
        std::string wrong;
        for (const Command& command : rounds[i]) {
            const Ran ran = run(command);
            if (ran.code != 0 && ran.code != kMissing && i + 1 < rounds.size()) {
                wrong += "  " + describe(command) + ": " + ran.said + '\n';
            }
        }
        count("tool: crash states gone on with by name");
        wrong += recoverAndJudge(recording_, acknowledged);
        if (!wrong.empty()) {
            return "  after " + describe(rounds[i].front()) + ":\n" + wrong;
        }
    }
    return {};
}

// One of the files that the password needs is lost, and with it nothing.
std::string ToolPowerLoss::damageOneFile(const Tree& tree, Acknowledged acknowledged) {
    for (const char* const name : {"kdf", "kdf-copy", "key"}) {
        const std::string path = headOf(recording_.workload) + "db/" + name + ".dsc";
        const auto found = tree.find(path);
        if (found == tree.end() || isOnlyCopy(tree, path)) {
            continue;
        }
        for (const auto& [what, bytes] : damagesOf(found->second.bytes)) {
            Tree damaged = tree;
            if (bytes) {
                damaged[path].bytes = *bytes;
            } else {
                damaged.erase(path);
            }
            stand(damaged);
            std::string wrong = judgeDamaged(acknowledged);
            count("tool: crash states with a file of the password damaged");
            if (!wrong.empty()) {
                return "  with " + path + ' ' + what + ":\n" + wrong;
            }
        }
    }
    return {};
}

std::string ToolPowerLoss::judgeDamaged(Acknowledged acknowledged) {
    const std::string& folder = recording_.workload.folder;
    const ToolState seen = look(folder);
    std::string wrong = judgeRecords(seen, recording_.promise, acknowledged);
    if (!wrong.empty() || !seen.database) {
        return wrong;
    }
    const Ran repaired = run({{"-D", folder, "check", "--repair"}, passwordOf(*seen.database)});
    const ToolState again = look(folder);
    if (again.database != seen.database || !again.faults.empty()) {
        wrong += "  the repair has changed what was found: " + repaired.said;
    }
    return wrong;
}

std::string ToolFaults::findViolation(const Fault& fault) {
    stand(recording_.start);
    Ran ran;
    {
        const fault::FailingCall failing(fault.nth, fault.error, fault.mode, {fault.call});
        ran = run(recording_.workload.command);
    }
    count("tool: calls failed");
    std::string wrong;
    if (ran.code != 0 && ran.said.empty()) {
        wrong = "  it says nothing\n";
    }
    const Tree left = readCurrentFolder();
    const auto [known, isNew] = outcomes_.try_emplace(hashOf(left) * 2 + (ran.code == 0 ? 1 : 0));
    if (isNew) {
        const auto acknowledged = ran.code == 0 ? Acknowledged::kYes : Acknowledged::kNo;
        known->second = recoverAndJudge(recording_, acknowledged, Repaired::kPerhaps);
    }
    wrong += known->second;
    return wrong.empty()
               ? wrong
               : wrong + "  " + fault::nameOf(fault.call) + " number " + std::to_string(fault.nth) +
                     " failed with " + ::strerrorname_np(fault.error) + "; it ended with " +
                     std::to_string(ran.code) + ": " + ran.said + crash::describe(left);
}

}  // namespace crash
