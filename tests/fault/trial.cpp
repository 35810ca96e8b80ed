#include "tests/fault/trial.h"

#include <algorithm>
#include <new>
#include <sstream>

#include "gtest/gtest.h"
#include "tests/crash/tree.h"
#include "tests/support/alloc_fault.h"

namespace crash {
namespace {

// The statuses with which a step may fail, as documented.
const std::vector<Status>& failuresOf(Act act) {
    static const std::vector<Status> kWrite{kIo};
    static const std::vector<Status> kRemove{kNoMemory, kIo};
    static const std::vector<Status> kRead{kNoMemory, kIo, kMissing, kMalformed};
    static const std::vector<Status> kScanOrPrepare{kNoMemory, kIo};
    static const std::vector<Status> kOpen{kNoMemory, kIo, kNotOpen};
    static const std::vector<Status> kRecrypt{kNoMemory, kIo, kNotOpen, kMissing, kMalformed};
    switch (act) {
        case Act::kWrite:
            return kWrite;
        case Act::kRemove:
            return kRemove;
        case Act::kRead:
            return kRead;
        case Act::kScan:
        case Act::kPrepare:
            return kScanOrPrepare;
        case Act::kOpen:
            return kOpen;
        case Act::kRecrypt:
            return kRecrypt;
    }
    return kWrite;
}

bool isIn(const std::vector<Found>& states, const Found& found) {
    return std::find(states.begin(), states.end(), found) != states.end();
}

}  // namespace

Trial::Trial(const Recording& recording, Undoing undoing)
    : recording_(recording), undoing_(undoing), oracle_(recording.baseline) {
    clearCurrentFolder();
    writeCurrentFolder(recording.start);
}

void Trial::fault(const std::string& what) {
    wrong_ += "  " + what + '\n';
}

bool Trial::run(const TroubleMaker& trouble, std::size_t from) {
    session(trouble, from);
    trouble.stop();
    for (const std::string& path : fault::openHandles()) {
        fault("left open: " + path);
    }
    wrong_ += judge(recover(recording_.question), oracle_.allowed());
    return struck_;
}

void Trial::session(const TroubleMaker& trouble, std::size_t from) {
    const Session session;
    std::string password = recording_.baseline.passwords.front();
    if (recording_.workload.open && CMN_FILESTORE_S.open(password.c_str()) != kOk) {
        return fault("the start does not open");
    }
    const auto noLinks = linksOf(recording_.workload);
    const std::vector<Step>& steps = recording_.workload.steps;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const Step& step = steps[i];
        Action action(step, password);
        const Allowed before = oracle_.allowed();
        oracle_.begin(step);
        if (i >= from) {
            trouble.start();
        }
        const std::optional<Status> status = perform(action, step);
        struck_ |= i >= from && trouble.hasStruck();
        if (!status) {
            return;
        }
        oracle_.end(step, *status);
        statuses_.push_back(*status);
        if (*status == kOk) {
            checkSuccess(action, step, before);
            continue;
        }
        if (!struck_) {
            continue;  // it fails in this way without trouble too
        }
        if (step.act != Act::kRecrypt) {  // which may leave keys and folders out of step
            checkReaders(undoing_ == Undoing::kWorks ? before : oracle_.allowed());
        }
        again(action, step, password);
    }
}

// No success is told of what was not read or not listed whole.
void Trial::checkSuccess(Action& action, const Step& step, const Allowed& allowed) {
    if (step.act == Act::kRead && !isIn(allowed.records.at(step.id), action.found())) {
        fault("read with success, and not what is there");
    }
    if (step.act != Act::kScan) {
        return;
    }
    const std::vector<std::string> listed = action.listed();
    for (const auto& [id, states] : allowed.records) {
        const bool isListed = std::find(listed.begin(), listed.end(), id) != listed.end();
        if (folderOf(id) == "./db/" + step.id && !isListed && !isIn(states, kAbsent)) {
            fault("listed with success, and without " + id);
        }
    }
}

// Nothing when an exception came.
std::optional<Status> Trial::perform(Action& action, const Step& step) {
    try {
        const Status status = action.run();
        const std::vector<Status>& failures = failuresOf(step.act);
        if (status != kOk &&
            std::find(failures.begin(), failures.end(), status) == failures.end()) {
            fault(describe(step) + ": status " + std::to_string(status));
        }
        return status;
    } catch (const std::bad_alloc&) {
        if (step.act != Act::kScan) {  // whose contract it is
            fault(describe(step) + ": memory that ran out is an exception");
        }
        return kNoMemory;
    } catch (...) {
        fault(describe(step) + ": an exception");
        return std::nullopt;
    }
}

// What failed succeeds when the trouble is over; after a change of password in a database
// that was opened anew.
void Trial::again(Action& action, const Step& step, std::string& password) {
    if (step.act == Act::kRecrypt) {
        (void)CMN_FILESTORE_S.close();
        if (CMN_FILESTORE_S.prepareDBFolders() != kOk) {
            fault("no folders after a change of password that failed");
        }
        if (CMN_FILESTORE_S.open(password.c_str()) != kOk) {
            password = step.password;
            if (CMN_FILESTORE_S.open(password.c_str()) != kOk) {
                return fault("no password opens after a change of password that failed");
            }
        }
        checkReaders(oracle_.allowed());
    }
    const bool wasRemoved = step.act == Act::kRemove && look(step.id) == kAbsent;
    oracle_.begin(step);
    const Status status = action.run();
    oracle_.end(step, status);
    const bool isMissing =
        step.act == Act::kRead && isIn(oracle_.allowed().records.at(step.id), kAbsent);
    if (status != kOk && !wasRemoved && !isMissing) {
        fault(describe(step) + " again: status " + std::to_string(status));
    }
}

void Trial::checkReaders(const Allowed& allowed) {
    for (const std::string& id : recording_.question.ids) {
        const auto known = allowed.records.find(id);
        const Found found = CMN_FILESTORE_S.isOpen() != 0 ? look(id) : kAbsent;
        if (CMN_FILESTORE_S.isOpen() != 0 && known != allowed.records.end() &&
            !isIn(known->second, found)) {
            std::ostringstream text;
            text << id << " is found as " << found;
            fault(text.str());
        }
    }
}

void expectNoLeak(const std::function<void()>& trial) {
    for (int attempt = 1;; ++attempt) {
        const long before = fault::liveAllocations();
        trial();
        const long kept = fault::liveAllocations() - before;
        if (kept == 0 || testing::Test::HasFailure()) {
            return;  // a failure is told in memory that is kept
        }
        if (attempt == 2) {
            ADD_FAILURE() << kept << " blocks of memory have leaked";
            return;
        }
    }
}

}  // namespace crash
