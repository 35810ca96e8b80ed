#include "lib/database/password_change.h"

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/beside.h"
#include "lib/database/deep_read.h"
#include "lib/database/folders.h"
#include "lib/database/recovery.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"

namespace fstore {
namespace {

// The store copies what it finds: a pipe or a dangling link would fail it, without a
// word which, and any other link would become the file that it leads to.
void requireCopyable() {
    visitAllEntries([](const std::string& folder, const FolderEntry& entry) {
        if (entry.type == FolderEntry::Type::kOther) {
            const std::string path = joined(folderPath(folder), entry.name);
            throw Failure(kInvalid,
                          fmt::format("{} is neither a file nor a folder, and cannot be copied "
                                      "with the database; move it elsewhere first",
                                      path),
                          path);
        }
        if (stateBeside(entry.name)) {
            const std::string path = joined(folderPath(folder), entry.name);
            throw Failure(kFound,
                          fmt::format("the password was not changed: {} is a conflict copy, "
                                      "which would stay behind with the old key; `fstore check` "
                                      "lists such copies, --settle keeps one of the two",
                                      path),
                          path);
        }
        // The store would take any name with this end for a saved descriptor's.
        if (hasMarker(entry.name, kOldMarker) && markerOf(entry.name).empty()) {
            const std::string path = joined(folderPath(folder), entry.name);
            throw Failure(kInvalid,
                          fmt::format("{} is an unknown file whose name ends as that of a saved "
                                      "descriptor; move it elsewhere first",
                                      path),
                          path);
        }
    });
}

// A database in "./old_db" is somebody's, and the store would delete it for the next one. Empty
// when there is none.
std::string keepWhatIsAside(Observer& observer) {
    std::string kept = keepPrevious(compactTime(now()));
    if (!kept.empty()) {
        observer.note(fmt::format(
            "kept the previous database as {}; whatever opened it before still does, dropped slots "
            "too; records that are not encrypted may be the same files in both: remove it with "
            "`rm -r`, and do not overwrite it",
            kept));
    }
    return kept;
}

[[noreturn]] void failUnchanged() {
    throw Failure(kInterrupted, "interrupted; the password was not changed, and the old one holds");
}

DeepReport readSound(Observer& observer, const char* what) {
    DeepReport report = readEverything(observer, what, Bodies::kAll, /*examiner=*/nullptr);
    if (!report.unread.empty()) {
        const Failure& first = report.unread.front();
        throw Failure(kFound,
                      fmt::format("the password was not changed, since not all of the database "
                                  "can be read: {}",
                                  first.what()),
                      first.path());
    }
    if (!report.damaged.empty()) {
        const DamagedRecord& first = report.damaged.front();
        if (first.failure.isDenied()) {
            throw Failure(kIo,
                          fmt::format("the password was not changed: {}", first.failure.what()),
                          first.address.print());
        }
        throw Failure(
            kFound,
            fmt::format("{} of {} records are damaged, so the password was not changed: {}; list "
                        "them with `fstore check --deep`, remove them with `fstore rm`",
                        report.damaged.size(), report.records, first.failure.what()),
            first.address.print());
    }
    return report;
}

// Before anything is changed.
DeepReport readBefore(Observer& observer) {
    try {
        return readSound(observer, "Checking");
    } catch (const Failure& failure) {
        if (failure.status() != kInterrupted) {
            throw;
        }
        failUnchanged();
    }
}

// The old folder's records that the new one lacks. Names are all that can be compared
// without the old password.
// NOLINTNEXTLINE(misc-no-recursion): as deep as folders are
void requireNamesOf(const std::string& old, const std::string& live) {
    std::vector<std::string> folders;
    visitEntries(old, [&](const FolderEntry& entry) {
        const std::string name = joined(live, entry.name);
        const bool isFolder = entry.type == FolderEntry::Type::kFolder;
        if ((isFolder || entry.name.ends_with(kDscSuffix)) && !exists(name)) {
            throw Failure(kMissing, fmt::format("{} is missing", name), name);
        }
        if (isFolder) {
            folders.push_back(entry.name);
        }
    });
    for (const std::string& each : folders) {
        requireNamesOf(joined(old, each), joined(live, each));
    }
}

void requireSame(const DeepReport& before, const DeepReport& after) {
    if (after.records != before.records || after.secrets != before.secrets ||
        after.fingerprint != before.fingerprint) {
        throw Failure(kIo,
                      fmt::format("{} records with {} secrets became {} with {}", before.records,
                                  before.secrets, after.records, after.secrets));
    }
}

// Step 2. When one copy was written and the other was not, the change has not begun: the next
// command drops the new set, as after a death.
void writeBothSets(const Protection& before, const NewKey& fresh, bool keepOld) {
    try {
        writeSlots(before, fresh.db, {before.inForce, fresh.set}, keepOld);
    } catch (const Failure& failure) {
        if (failure.status() != kPartial) {
            throw;
        }
        throw Failure(kIo, fmt::format("the password was not changed: {}", failure.what()),
                      failure.path());
    }
}

// Step 3. A failure may have come before or after the swap: the folders decide, and
// whether it happened is in the protection that is returned.
Protection recrypt(StoreService& store, Observer& observer, const SecretText& p,
                   std::uint64_t secrets) {
    Status status = kOk;
    {
        const Progress progress(observer, "Re-encrypting", 2 * secrets);
        status = store.recrypt(p, observer);
    }
    Protection protection = recover(store);
    if (protection.isUndone()) {
        protection = dropUndoneSet(protection);
    }
    if (!protection.isUnfinished()) {
        store.close();  // its ciphers may carry the new key
        if (status == kInterrupted) {
            failUnchanged();
        }
        check(status == kOk ? kIo : status, "the password was not changed");
    }
    return protection;
}

// Memory that could not be had does not lead here: it says nothing about the folder, and the
// next command goes on. So it does after an interruption.
[[noreturn]] void goBack(StoreService& store, const Protection& unfinished, const Failure& reason) {
    if (reason.status() == kInterrupted) {
        throw Failure(kInterrupted,
                      "interrupted; the new password holds, and the next command finishes the "
                      "change");
    }
    if (!folderState().previous || !isPreviousOf(unfinished.record.sets.front())) {
        throw Failure(kFound,
                      fmt::format("the change of the password cannot be finished: {}; what is "
                                  "damaged can be removed with `fstore rm` once the database is "
                                  "restored from a backup",
                                  reason.what()),
                      reason.path());
    }
    store.close();  // it is open, or could not be opened
    undoExchange();
    if (const Protection back = recover(store); back.isUndone()) {
        (void)dropUndoneSet(back);
    }
    throw Failure(reason.status() == kFound ? kIo : reason.status(),
                  fmt::format("the password was not changed and the old one is in force: the "
                              "re-encrypted database is not complete: {}",
                              reason.what()),
                  reason.path());
}

// Steps 6 and 7.
Protection settleOld(const Protection& unfinished, Observer& observer) {
    const bool isPrevious = isPreviousOf(unfinished.record.sets.front());
    if (!unfinished.keepOld && isPrevious) {
        dropPrevious();
    } else if (const std::string kept = keepWhatIsAside(observer); !kept.empty() && isPrevious) {
        settleBeside(kept.c_str());  // it can be used as a database, with the password from before
    }
    keepOnlyInForce(unfinished);
    return readProtection();
}

}  // namespace

Protection changePassword(StoreService& store, Observer& observer, const Protection& before,
                          NewKey fresh, bool keepOld) {
    requireCopyable();
    const DeepReport contents = readBefore(observer);
    (void)keepWhatIsAside(observer);
    writeBothSets(before, fresh, keepOld);
    const Protection changed = recrypt(store, observer, fresh.p, contents.secrets);
    syncFolder(".");
    try {
        store.open(std::move(fresh.p));
        requireSame(contents, readSound(observer, "Verifying"));
    } catch (const Failure& reason) {
        goBack(store, changed, reason);
    }
    return settleOld(changed, observer);
}

Protection finishPasswordChange(StoreService& store, Observer& observer,
                                const Protection& unfinished) {
    syncFolder(".");
    try {
        (void)readSound(observer, "Verifying");
        if (folderState().previous && isPreviousOf(unfinished.record.sets.front())) {
            requireNamesOf(layout::kPrevious, layout::kLive);
        }
    } catch (const Failure& reason) {
        goBack(store, unfinished, reason);
    }
    return settleOld(unfinished, observer);
}

}  // namespace fstore
