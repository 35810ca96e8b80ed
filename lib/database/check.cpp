#include "lib/database/check.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/protection.h"
#include "lib/database/state_file.h"
#include "lib/index/index_place.h"
#include "lib/records/catalogue.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

Access accessFor(const CheckOptions& options) {
    return options.repair ? Access::kChange : Access::kRead;
}

bool waitsForPassword(const Finding& finding) {
    return finding.repair == Finding::Repair::kFinish || finding.repair == Finding::Repair::kUndo ||
           finding.repair == Finding::Repair::kSettleCopies ||
           finding.repair == Finding::Repair::kWriteKey;
}

// What the copies of the slots say about each other. A database from before there were slots gets
// its copy from the next command that opens it.
void inspectCopies(const Protection& protection, std::vector<Finding>& findings) {
    const char* const worse = protection.kdfCounts ? layout::kKdfCopyRecord : layout::kKdfRecord;
    using Other = Protection::Other;
    if (protection.other == Other::kConflicts) {
        findings.push_back({Finding::Kind::kUnlockConflict, descriptorPath({"", worse}),
                            "contradicts the other copy of the slots, and neither is newer",
                            Finding::Repair::kSettleCopies});
    } else if (protection.other == Other::kBehind && protection.record.framed) {
        findings.push_back({Finding::Kind::kUnlockCopy, descriptorPath({"", worse}),
                            fmt::format("is a copy of the slots and {}", protection.otherFault),
                            Finding::Repair::kWriteCopy, protection.otherIsDamaged});
    }
}

// What cannot be read is told elsewhere.
bool hasEncrypted() {
    Unread unread;
    bool isOne = false;
    const auto look = [&](const Address& address) {
        try {
            isOne = RecordHead::read(address).hasSecrets();
        } catch (const MemoryFailure&) {
            throw;
        } catch (const Failure&) {
            isOne = false;
        }
        return !isOne;
    };
    visitRecords(look, &unread);
    return isOne;
}

// A database that no tool of ours made has no slots, either.
void inspectWithoutSlots(const Protection& protection, Database& database) {
    if (!protection.record.sets.empty()) {
        return;
    }
    if (!protection.hasPassword()) {
        if (hasEncrypted()) {
            database.observer().warn(
                "the database has no password, and records are encrypted: if it had one, the "
                "record "
                "./key and the slots are lost, and a backup has them");
        }
        return;
    }
    database.observer().warn(
        "the database has no slots, so its own key alone opens it; if it had some, they are lost: "
        "a "
        "backup has them, and `fstore key reset` makes new ones from the key");
}

// What has the name of a file that would be made beside the records.
void inspectBeside(const std::string& cache, std::vector<Finding>& findings) {
    if (isOtherThanState()) {
        findings.push_back({Finding::Kind::kUnknownFile, layout::kState,
                            "is not the note of the last backup and check, which needs this name; "
                            "move it elsewhere"});
    }
    for (const std::string& path : othersInPlaceOfIndex(cache)) {
        findings.push_back({Finding::Kind::kUnknownFile, path,
                            "is not part of an index of records, which needs this name; move it "
                            "elsewhere"});
    }
}

// What the records of the password say, besides what stands in the folders.
std::vector<Finding> inspectAll(Database& database) {
    std::vector<Finding> findings = inspect(database.observer());
    if (!findings.empty() && findings.front().kind == Finding::Kind::kMovedAside) {
        return findings;  // there is nothing to read yet
    }
    inspectBeside(database.place().cache, findings);
    try {
        const Protection protection = database.examineProtection();
        if (protection.isKeyLost()) {
            findings.push_back({Finding::Kind::kKeyRecord, descriptorPath({"", layout::kKeyRecord}),
                                protection.keyFault, Finding::Repair::kWriteKey});
            return findings;
        }
        inspectCopies(protection, findings);
        inspectWithoutSlots(protection, database);
        if (protection.isUnfinished()) {
            const bool undone = protection.isUndone();
            findings.push_back(
                {Finding::Kind::kUnfinishedChange, descriptorPath({"", layout::kKdfRecord}),
                 undone ? "records a change of the password that was interrupted before it took "
                          "effect"
                        : "records an interrupted change of the password, which took effect",
                 undone ? Finding::Repair::kUndo : Finding::Repair::kFinish});
        }
    } catch (const Failure& failure) {
        const auto kind = failure.isDenied() ? Finding::Kind::kUnreadable : Finding::Kind::kDamaged;
        findings.push_back({kind, failure.path(), failure.what()});
    }
    return findings;
}

// What a folder of lost files notes: none also when the record cannot be read.
std::optional<Digest> keyOf() {
    try {
        return readKey().digest;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

// Entering does what is left: it writes the worse copy, and finishes a change of the password; with
// the password it also writes the record "key" again.
void finishRepair(const std::vector<Finding>& found, Database& database) {
    const bool conflicts = std::ranges::any_of(found, [](const Finding& finding) {
        return finding.repair == Finding::Repair::kSettleCopies;
    });
    const Hold hold = database.enter(Access::kChange, needFor(/*secrets=*/conflicts));
    if (conflicts) {
        database.settleConflict();
    }
}

// A repair removes the index before anything is compared.
void compareIndex(Database& database, CheckReport& report) {
    if (const auto doubt = database.doubtOfIndex()) {
        report.findings.push_back(
            {Finding::Kind::kIndex, doubt->file,
             fmt::format("is the index of the records, and contradicts {} of them or of their "
                         "folders, first {}",
                         doubt->count, doubt->first),
             Finding::Repair::kDelete});
    }
}

// Inspects, and repairs what was found; what waits for the password only when it is all
// that is left, since its records may be among what is put back. Whether it found
// something to repair.
bool repairOnce(CheckReport& report, Database& database) {
    std::vector<Finding> found;
    {
        const Hold hold = database.enter(Access::kChange, Need::kFiles);
        removeIndex(database.place().cache);  // it is made again when it is worth it
        report.findings = inspectAll(database);
        std::ranges::copy_if(report.findings, std::back_inserter(found), &Finding::isRepairable);
        for (const Finding& finding : found) {
            database.observer().note(fmt::format("{} {}, and {}", finding.path, finding.message,
                                                 planOf(finding.repair)));
        }
        if (const auto lost = repair(found, now(), keyOf())) {
            database.observer().note(
                fmt::format("what was moved is in {}; `fstore check --undo {}` puts it back",
                            joined(layout::kLost, *lost), *lost));
        }
    }
    const auto isCopy = [](const Finding& finding) {
        return finding.repair == Finding::Repair::kWriteCopy;
    };
    if (!found.empty() && std::ranges::all_of(found, [&](const Finding& finding) {
            return waitsForPassword(finding) || isCopy(finding);
        })) {
        finishRepair(found, database);
    }
    report.repaired.insert(report.repaired.end(), found.begin(), found.end());
    return !found.empty();
}

std::vector<std::string> wordsOf(const std::vector<Finding>& findings) {
    std::vector<std::string> words;
    words.reserve(findings.size());
    for (const Finding& finding : findings) {
        words.push_back(
            fmt::format("{} {} {}", nameOf(finding.kind), finding.path, nameOf(finding.repair)));
    }
    return words;
}

}  // namespace

bool CheckReport::hasDamage() const {
    const auto isDamaged = [](const DamagedRecord& record) { return !record.failure.isDenied(); };
    return std::ranges::any_of(findings, &Finding::isDamage) ||
           (deep && std::ranges::any_of(deep->damaged, isDamaged));
}

bool CheckReport::isSound() const {
    return !hasDamage() && std::ranges::none_of(findings, &Finding::isUnread) &&
           (!deep || deep->damaged.empty());
}

Status CheckReport::status() const {
    if (hasDamage()) {
        return kFound;
    }
    return isSound() && !(deep && !deep->unread.empty()) ? kOk : kPartial;
}

CheckReport checkDatabase(Database& database, const CheckOptions& options) {
    CheckReport report;
    if (options.repair) {
        // Until nothing more is found: what is deleted may have been the last to name a body. What
        // is found again as it was has not been repaired, and will not be.
        std::vector<std::string> before;
        while (repairOnce(report, database)) {
            std::vector<std::string> now = wordsOf(report.findings);
            if (now == before) {
                break;
            }
            before = std::move(now);
        }
        report.lost = lostFolders();
    } else {
        const Hold hold = database.enter(Access::kRead, Need::kFiles);
        report.findings = inspectAll(database);
        report.lost = lostFolders();
    }
    if (options.deep) {
        const Hold hold = database.enter(accessFor(options), Need::kSecrets);
        report.deep =
            readEverything(database.observer(), "Checking", Bodies::kUnasked, options.examiner);
        std::ranges::copy(report.deep->contradicted, std::back_inserter(report.findings));
        compareIndex(database, report);
    }
    return report;
}

UndoReport undoRepair(Database& database, const std::string& name) {
    const Hold hold = database.enter(Access::kChange, Need::kFiles);
    return undoLost(name, keyOf());
}

void purgeRepair(Database& database, const std::string& name) {
    const Hold hold = database.enter(Access::kChange, Need::kFiles);
    purgeLost(name);
}

}  // namespace fstore
