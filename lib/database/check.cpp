#include "lib/database/check.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/protection.h"

namespace fstore {
namespace {

Access accessFor(const CheckOptions& options) {
    return options.repair ? Access::kChange : Access::kRead;
}

bool waitsForPassword(const Finding& finding) {
    return finding.repair == Finding::Repair::kFinish;
}

// What the records of the password say, besides what stands in the folders.
std::vector<Finding> inspectAll() {
    std::vector<Finding> findings = inspect();
    if (!findings.empty() && findings.front().kind == Finding::Kind::kMovedAside) {
        return findings;  // there is nothing to read yet
    }
    try {
        if (readProtection().isUnfinished()) {
            findings.push_back(
                {Finding::Kind::kUnfinishedChange, descriptorPath({"", layout::kKdfRecord}),
                 "records an interrupted change of the password", Finding::Repair::kFinish});
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
        return readKeyDigest();
    } catch (const Failure&) {
        return std::nullopt;
    }
}

// Inspects, and repairs what was found; what waits for the password only when it is all
// that is left, since its records may be among what is put back. Whether it found
// something to repair.
bool repairOnce(CheckReport& report, Database& database) {
    std::vector<Finding> found;
    {
        const Hold hold = database.enter(Access::kChange, Need::kFiles);
        report.findings = inspectAll();
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
    if (!found.empty() && std::ranges::all_of(found, waitsForPassword)) {
        (void)database.enter(Access::kChange);
    }
    report.repaired.insert(report.repaired.end(), found.begin(), found.end());
    return !found.empty();
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

CheckReport checkDatabase(Database& database, const CheckOptions& options) {
    CheckReport report;
    if (options.repair) {
        // Until nothing more is found: what is deleted may have been the last to name a body.
        while (repairOnce(report, database)) {
        }
        report.lost = lostFolders();
    } else {
        const Hold hold = database.enter(Access::kRead, Need::kFiles);
        report.findings = inspectAll();
        report.lost = lostFolders();
    }
    if (options.deep) {
        const Hold hold = database.enter(accessFor(options), Need::kSecrets);
        report.deep = readEverything(database.observer(), "Checking", Bodies::kUnasked);
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
