#include "lib/database/database.h"

#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/database/folders.h"
#include "lib/database/password_change.h"
#include "lib/database/recovery.h"
#include "lib/database/unlock.h"
#include "os/files.h"

namespace fstore {
namespace {

os::LockKind kindFor(Access access) {
    return access == Access::kRead ? os::LockKind::kShared : os::LockKind::kExclusive;
}

}  // namespace

Database::Database(Place place, Observer& observer)
    : place_(std::move(place)), observer_(observer), lock_(place_), store_(place_) {}

Hold Database::enter(Access access, Need need) {
    if (need == Need::kFolder || need == Need::kDatabase) {
        lock_.makeAndOpen();
    } else {
        lock_.open();
    }
    store_.start(lock_.folder());
    Hold hold(lock_, store_.context());  // also when what follows throws
    switch (need) {
        case Need::kFolder:
            lock_.take(os::LockKind::kExclusive);
            refuseOther();
            break;
        case Need::kFiles:
            lock_.take(kindFor(access));
            requireDatabase();
            break;
        case Need::kDatabase:
            lock_.take(os::LockKind::kExclusive);
            refuseOther();
            learn(recover(store_));
            break;
        case Need::kRecords:
            enterRecords(access);
            if (access == Access::kChange && protection_.isUnfinished()) {
                observer_.warn(
                    "the last change of the password was interrupted; finishing it first");
                enterSecrets(access);
            }
            break;
        case Need::kSecrets:
            enterSecrets(access);
            break;
    }
    return hold;
}

void Database::needSecrets() {
    if (!isOpen()) {
        throw SecretsNeeded();
    }
}

void Database::requireSecrecy() const {
    if (!protection_.hasPassword()) {
        throw Failure(kNotOpen,
                      fmt::format("the database in {} has no password and so cannot keep secrets; "
                                  "set one with `fstore init` or `fstore passwd`",
                                  place_.describe()),
                      place_.folder);
    }
}

void Database::changePassword(NewSlot fresh, bool keepOld) {
    if (!protection_.hasPassword() && !isOpen()) {
        store_.open(SecretText());
    }
    protection_ = fstore::changePassword(store_, observer_, protection_, std::move(fresh), keepOld);
    opened_ = protection_.inForce;
}

void Database::requireDatabase() const {
    refuseOther();
    if (!folderState().hasDatabase()) {
        throw Failure(kMissing,
                      fmt::format("there is no database in {}; create one with `fstore init`, or "
                                  "name another folder with --dir",
                                  place_.describe()),
                      place_.folder);
    }
}

void Database::refuseOther() const {
    const os::EntryType type = os::entryTypeOf(layout::kLive);
    if (type == os::EntryType::kFile || type == os::EntryType::kOther) {
        throw Failure(kInvalid,
                      fmt::format("{} in {} is not a folder, so it is not a database; move it "
                                  "elsewhere, or name another folder with --dir",
                                  layout::kLive, place_.describe()),
                      layout::kLive);
    }
    // What a link leads to is no part of this folder: its lock does not keep others out of it.
    if (type == os::EntryType::kLink) {
        throw Failure(kInvalid,
                      fmt::format("{} in {} is a link, which fstore does not follow; name the "
                                  "folder that contains the database itself with --dir",
                                  layout::kLive, place_.describe()),
                      layout::kLive);
    }
}

void Database::enterRecords(Access access) {
    if (access == Access::kRead) {
        enterShared();
    } else {
        enterExclusive();
    }
}

// A reader changes nothing, unless a crash left something that reading would change. That
// may happen again while the lock is handed over.
void Database::enterShared() {
    constexpr int kAttempts = 100;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        lock_.take(os::LockKind::kShared);
        requireDatabase();
        if (!needsRecovery()) {
            learn(readProtection());
            return;
        }
        enterExclusive();
    }
    throw Failure(
        kIo,
        fmt::format("what a crash left behind in {} cannot be repaired; run `fstore check`",
                    place_.describe()),
        place_.folder);
}

void Database::enterExclusive() {
    lock_.take(os::LockKind::kExclusive);
    requireDatabase();
    learn(recover(store_));
}

// Whoever opens the database can do what a change of the password left to do.
void Database::enterSecrets(Access access) {
    open(access);
    if (!protection_.isUnfinished()) {
        return;
    }
    open(Access::kChange);  // another process may have had its turn before the lock was ours
    if (protection_.isUnfinished()) {
        learn(finishPasswordChange(store_, observer_, protection_));
    }
}

// The password is asked for, and P derived from it, while nothing is locked; so the slot
// may be another one afterwards.
void Database::open(Access access) {
    enterRecords(store_.isOpen() ? access : Access::kRead);
    while (!store_.isOpen()) {
        const Slot slot = protection_.inForce;
        lock_.release();
        SecretText p = askForP(slot, place_, observer_);
        enterRecords(access);
        if (protection_.inForce == slot) {
            store_.open(std::move(p));
            opened_ = slot;
        }
    }
}

void Database::learn(Protection protection) {
    protection_ = std::move(protection);
    if (store_.isOpen() && protection_.inForce != opened_) {
        store_.close();
    }
}

}  // namespace fstore
