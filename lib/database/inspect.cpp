#include "lib/database/inspect.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folder_check.h"
#include "lib/database/folders.h"
#include "lib/database/lost.h"
#include "lib/database/recovery.h"
#include "lib/records/catalogue.h"
#include "os/fs.h"

namespace fstore {
namespace {

using FindingKind = Finding::Kind;
using Repair = Finding::Repair;

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// "keys/a.dsc" of "./db/keys/a.dsc".
std::string belowLive(const std::string& path) {
    return path.substr(std::string_view(layout::kLive).size() + 1);
}

std::optional<std::string> moveAway(const std::vector<Finding>& findings, std::int64_t time,
                                    const std::optional<Digest>& key) {
    LostPlan plan{.time = time, .key = key, .files = {}};
    for (const Finding& finding : findings) {
        if (finding.repair == Repair::kMoveAway) {
            plan.files.push_back({belowLive(finding.path), nameOf(finding.kind), finding.message});
        }
    }
    return plan.files.empty() ? std::nullopt : std::optional(moveToLost(plan));
}

// Bodies before the descriptors that show that they may go: broken off in between, they still
// do. Each is durable before the next, or a loss of power could take the descriptors first.
void removeFiles(const std::vector<Finding>& findings, bool bodies) {
    std::set<std::string> changed;
    for (const Finding& finding : findings) {
        if (finding.repair != Repair::kDelete ||
            (finding.kind == FindingKind::kUnnamedBody) != bodies) {
            continue;
        }
        requireLock();
        if (os::remove(finding.path.c_str()) != 0) {
            failWithErrno("remove", finding.path);
        }
        changed.insert(folderOf(finding.path));
    }
    for (const std::string& folder : changed) {
        syncFolder(folder);
    }
}

void makeMissingFolder(const std::string& path) {
    if (os::mkdir(path.c_str(), S_IRWXU) != 0) {
        failWithErrno("create the folder", path);
    }
    syncFolder(folderOf(path));
}

void repairOne(const Finding& finding) {
    switch (finding.repair) {
        case Repair::kPutBack:
            putBack(finding.path);  // the next inspection sees another one
            break;
        case Repair::kDropCopy:
            dropCopy();
            break;
        case Repair::kMakeFolder:
            makeMissingFolder(finding.path);
            break;
        case Repair::kMoveBack:
            putPreviousBack();
            break;
        case Repair::kNone:
        case Repair::kFinish:
        case Repair::kUndo:
        case Repair::kWriteCopy:
        case Repair::kSettleCopies:
        case Repair::kWriteKey:
        case Repair::kMoveAway:
        case Repair::kDelete:
            break;
    }
}

// What a user has put where the database needs the name.
std::vector<Finding> inTheWay() {
    if (const auto name = noFolder()) {
        return {{FindingKind::kUnknownFile, *name,
                 "is not a folder, and the database needs this name; move it elsewhere"}};
    }
    const auto found = notOfDatabase();
    if (!found) {
        return {};
    }
    return {{FindingKind::kUnknownFile, *found,
             "is not part of a database, and the database needs the name of the folder that it is "
             "in; move that folder elsewhere"}};
}

}  // namespace

std::vector<Finding> inspect(Observer& observer) {
    const FolderState folders = folderState();
    std::vector<Finding> users = inTheWay();
    if (!folders.live && !users.empty()) {
        return users;
    }
    if (!folders.live) {
        return {{FindingKind::kMovedAside, layout::kPrevious,
                 "is the database, moved aside by an interrupted change of the password",
                 Repair::kMoveBack}};
    }
    std::vector<Finding> findings;
    for (const layout::Folder& folder : layout::kFolders) {
        if (!exists(folder.path)) {
            findings.push_back(
                {FindingKind::kMissingFolder, folder.path, "is missing", Repair::kMakeFolder});
        }
    }
    findings.insert(findings.end(), users.begin(), users.end());
    if (folders.copy && users.empty()) {
        findings.push_back({FindingKind::kUnfinishedCopy, layout::kCopy,
                            "is a leftover of a change of the password", Repair::kDropCopy});
    }
    if (folders.previous && users.empty()) {
        findings.push_back({FindingKind::kPrevious, layout::kPrevious,
                            "is the database before the last change of the password or the last "
                            "restore; delete it when you no longer need it"});
    }
    Unread unread;
    const std::vector<std::string> all = allFolders(&unread);
    Unread elsewhere;
    Progress progress(observer, "Checking", countRecords(&elsewhere));
    for (const std::string& folder : all) {
        checkFolder(folder, findings, [&] { progress.step(); });
    }
    for (const Failure& failure : unread) {
        findings.push_back({FindingKind::kDamaged, failure.path(),
                            fmt::format("cannot be looked at: {}", failure.what())});
    }
    return findings;
}

std::optional<std::string> repair(const std::vector<Finding>& findings, std::int64_t time,
                                  const std::optional<Digest>& key) {
    std::optional<std::string> lost = moveAway(findings, time, key);
    std::ranges::for_each(findings, repairOne);
    removeFiles(findings, /*bodies=*/true);
    removeFiles(findings, /*bodies=*/false);
    return lost;
}

}  // namespace fstore
