#include "lib/database/database.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "lib/database/password_change.h"
#include "lib/database/recovery.h"
#include "lib/database/unlock.h"
#include "lib/database/unlock_box.h"
#include "lib/index/index_place.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "os/files.h"

namespace fstore {
namespace {

os::LockKind kindFor(Access access) {
    return isChange(access) ? os::LockKind::kExclusive : os::LockKind::kShared;
}

// What is known of the password is all that it is for.
Access readingInsteadOf(Access access) {
    switch (access) {
        case Access::kChange:
            return Access::kRead;
        case Access::kChangeNamed:
            return Access::kReadNamed;
        default:
            return access;
    }
}

}  // namespace

Database::Database(Place place, Observer& observer, KeySource* keys)
    : place_(std::move(place)),
      observer_(observer),
      keys_(keys),
      lock_(place_, &observer),
      store_(place_) {}

Hold Database::enter(Access access, Need need, std::span<const AddressText> named) {
    named_.assign(named.begin(), named.end());
    if (need == Need::kFolder || need == Need::kDatabase) {
        lock_.makeAndOpen();
    } else {
        lock_.open();
    }
    store_.start(lock_.folder(), lock_);
    Hold hold(lock_, store_.context());  // also when what follows throws
    switch (need) {
        case Need::kFolder:
            lock_.take(os::LockKind::kExclusive);
            refuseOther();
            refuseFiles();
            break;
        case Need::kFiles:
            lock_.take(kindFor(access));
            requireDatabase();
            if (isChange(access)) {
                refuseFiles();
            }
            break;
        case Need::kDatabase:
            lock_.take(os::LockKind::kExclusive);
            refuseOther();
            refuseFiles();
            learn(recover(store_));
            break;
        case Need::kRecords:
            enterRecords(access);
            warnOfLostKey();
            if (isChange(access) && protection_.isKeyLost()) {
                enterSecrets(access);
            } else if (isChange(access) && protection_.isUnfinished()) {
                observer_.warn(
                    "the last change of the password was interrupted; finishing or undoing it "
                    "first");
                enterSecrets(access);
            }
            break;
        case Need::kSecrets:
            enterSecrets(access);
            break;
    }
    if (need == Need::kRecords || need == Need::kSecrets) {
        hold.know(indexSetup(isChange(access)));
    }
    return hold;
}

// Once: a command enters more than once.
void Database::noteNoIndex(const std::string& file) {
    if (!std::exchange(notedNoIndex_, true)) {
        observer_.note(
            fmt::format("looking at every record, as {} is not an index of records, "
                        "which needs this name; move it elsewhere",
                        file));
    }
}

IndexSetup Database::indexSetup(bool exclusive) {
    return {[this] { return indexFile(place_.cache); }, exclusive, place_.worthIndex,
            [this](const std::string& file) { return makeFoldersFor(file, place_.cache); },
            [this](const std::string& file) { noteNoIndex(file); }};
}

std::optional<IndexDoubt> Database::doubtOfIndex() {
    auto doubt = RecordIndex(indexSetup(/*exclusive=*/false)).compareAll(observer_);
    if (doubt && doubt->count == 0) {
        doubt.reset();
    }
    return doubt;
}

void Database::needSecrets() {
    if (!isOpen()) {
        throw SecretsNeeded();
    }
}

// A link in the place of a folder of "./db" cannot come there without a trace in the stamp. Deeper
// folders would need stamps of their own.
Address Database::resolveToRead(std::string_view text) {
    AddressText wanted = parseAddress(text);
    const std::string& folder = wanted.place.folder;
    const bool canBeKnown = learned_ && wanted.form == AddressText::Form::kPlace &&
                            !folder.empty() && folder.find('/') == std::string::npos;
    if (!canBeKnown || folder != knownFolder_) {
        Address found = fstore::resolveToRead(text);
        if (canBeKnown) {
            knownFolder_ = folder;
        }
        return found;
    }
    return std::move(wanted.place);
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

DatabaseId Database::idForSlots() const {
    return protection_.hasSlots() ? protection_.record.db : makeDatabaseId();
}

void Database::changePassword(NewKey fresh, bool keepOld) {
    // The boxes of the old set are bound to it, and the new ones to what they were made for.
    if (protection_.hasSlots() && fresh.db != protection_.record.db) {
        throw Failure(kInvalid, "the slots were made for another database");
    }
    if (!protection_.hasPassword() && !isOpen()) {
        openWith({});
    }
    learned_.reset();
    const unsigned int slot = fresh.slot;
    protection_ = fstore::changePassword(store_, observer_, protection_, std::move(fresh), keepOld);
    opened_ = protection_.inForce.key();
    rememberOpener(slot);
}

void Database::changeSlots(SlotSet slots) {
    learned_.reset();
    writeSlots(protection_, protection_.record.db, {std::move(slots)}, /*keepOld=*/false);
    protection_ = readProtection();
    rememberOpener(openedBy_);
}

void Database::settleConflict() {
    if (protection_.other == Protection::Other::kConflicts) {
        learned_.reset();
        writeSlots(protection_, protection_.record.db, protection_.record.sets,
                   protection_.keepOld);
        protection_ = readProtection();
    }
}

void Database::resetSlots(NewKey fresh) {
    recoverFiles(store_);
    learned_.reset();
    proveKey(store_, fresh.p, place_);
    if (fresh.set.slots.empty()) {
        removeSlots();
    } else {
        replaceSlots(fresh.db, std::move(fresh.set));
    }
    learn(readProtection());
    openWith({std::move(fresh.p), 0});
}

void Database::requireDatabase() const {
    refuseOther();
    if (!folderState().hasDatabase()) {
        throw Failure(kMissing, fmt::format("there is no database in {}", place_.describe()),
                      Advice{"create one with `fstore init`, or name another folder with --dir"},
                      place_.folder);
    }
}

void Database::refuseOther() const {
    const os::EntryType type = typeOf(layout::kLive);
    if (type == os::EntryType::kFile || type == os::EntryType::kOther) {
        throw Failure(kInvalid,
                      fmt::format("{} in {} is not a folder, so it is not a database",
                                  layout::kLive, place_.describe()),
                      Advice{"move it elsewhere, or name another folder with --dir"},
                      layout::kLive);
    }
    // What a link leads to is no part of this folder: its lock does not keep others out of it.
    if (type == os::EntryType::kLink) {
        throw Failure(kInvalid,
                      fmt::format("{} in {} is a link, which fstore does not follow", layout::kLive,
                                  place_.describe()),
                      Advice{"name the folder that contains the database itself with --dir"},
                      layout::kLive);
    }
}

// What recovery removes, or puts back as the database, is a folder with nothing else in it. A file
// of that name is the user's: a printed sheet, say; and so are a link, and a folder with other
// things.
void Database::refuseFiles() const {
    if (const auto name = noFolder()) {
        throw Failure(kInvalid,
                      fmt::format("{} in {} is not a folder, and the database needs this name",
                                  *name, place_.describe()),
                      Advice{"move it elsewhere"}, *name);
    }
    if (const auto found = notOfDatabase()) {
        throw Failure(kInvalid,
                      fmt::format("{} in {} is not part of a database, and the database needs the "
                                  "name of the folder that it is in",
                                  *found, place_.describe()),
                      Advice{"move that folder elsewhere"}, *found);
    }
}

void Database::enterRecords(Access access) {
    switch (access) {
        case Access::kRead:
            enterShared();
            break;
        case Access::kReadNamed:
            enterNamed();
            break;
        case Access::kChange:
            enterExclusive();
            break;
        case Access::kChangeNamed:
            enterExclusiveNamed();
            break;
    }
}

// A reader changes nothing, unless a crash left something that reading would change. That
// may happen again while the lock is handed over.
void Database::enterShared() {
    constexpr int kAttempts = 100;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        lock_.take(os::LockKind::kShared);
        requireDatabase();
        if (!needsRecovery(indexSetup(/*exclusive=*/false))) {
            learn(settledProtection(store_));
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

// What is known of the password holds for as long as "./db" shows that nothing in it was created,
// renamed or removed: the records of the password are there, and none is ever written in place.
void Database::enterNamed() {
    lock_.take(os::LockKind::kShared);
    const std::optional<Stamp> now = Stamp::take();
    if (now && now == learned_) {
        return;
    }
    requireDatabase();
    if (!folderState().live || needsRecoveryOfPassword()) {
        enterShared();
        return;
    }
    learn(settledProtection(store_));
    learned_ = now;
    knownFolder_.clear();
}

void Database::enterExclusive() {
    lock_.take(os::LockKind::kExclusive);
    requireDatabase();
    refuseFiles();
    learn(recover(store_, indexSetup(/*exclusive=*/true)));
}

void Database::enterExclusiveNamed() {
    lock_.take(os::LockKind::kExclusive);
    requireDatabase();
    refuseFiles();
    learn(recoverNamed(store_, named_, indexSetup(/*exclusive=*/true)));
}

// Whoever opens the database can do what a change of the password left to do.
void Database::enterSecrets(Access access) {
    open(access);
    // A reader has nothing to do with a change that did not happen.
    if (!protection_.isUnfinished() || (protection_.isUndone() && !isChange(access))) {
        return;
    }
    open(Access::kChange);  // another process may have had its turn before the lock was ours
    if (protection_.isUndone()) {
        undoChange();
    }
    if (protection_.isUnfinished()) {
        learn(finishPasswordChange(store_, observer_, protection_));
    }
}

// That the change did not happen is what the record "key" says, which may be one from before it:
// then no record opens with this P, and the other set must stay.
void Database::undoChange() {
    const SecretText& p = store_.p();
    if (examine(store_, {&p, 1}, /*byAll=*/false).fit != Evidence::Fit::kNone) {
        learn(dropUndoneSet(protection_));
        observer_.note(
            "the change of the password that was interrupted is undone: the secrets from before it "
            "are in force");
        return;
    }
    const std::string file = descriptorPath({"", layout::kKeyRecord});
    throw Failure(kNoDigest,
                  fmt::format("a change of the password was interrupted, and no record opens with "
                              "the password that {} stands for: that file is older than the "
                              "change, or the records are damaged. Nothing was changed; move {} "
                              "elsewhere and give the new password",
                              file, file),
                  file);
}

// The secret is asked for, and P derived from it, while nothing is locked; so another set may be
// in force afterwards. Who opens the database without its record "key" writes that record.
void Database::open(Access access) {
    const bool asksFirst = !store_.isOpen() && (keys_ == nullptr || keys_->asks());
    enterRecords(asksFirst ? readingInsteadOf(access) : access);
    while (!store_.isOpen()) {
        const Access needed = protection_.isKeyLost() ? Access::kChange : access;
        const std::optional<Digest> asked = protection_.inForce.key();
        auto unlocked = keys_ != nullptr ? keys_->known(protection_) : std::nullopt;
        const bool wasKnown = unlocked.has_value();
        if (!wasKnown) {
            lock_.release();
            unlocked = obtainP();
        }
        if (!wasKnown || needed != access) {
            enterRecords(needed);
        }
        if (protection_.inForce.key() == asked && (isChange(needed) || !protection_.isKeyLost())) {
            openWith(std::move(*unlocked));
        }
    }
    if (isChange(access)) {
        if (protection_.isKeyLost()) {  // it was lost since the database was opened
            openWith({store_.p(), openedBy_});
        }
        copyProvenLine();
    }
}

Unlocked Database::obtainP() {
    return keys_ != nullptr ? keys_->obtain(protection_) : askForP(protection_, place_, observer_);
}

void Database::openWith(Unlocked unlocked) {
    if (protection_.isKeyLost()) {
        unlocked = restoreKey(store_, protection_, std::move(unlocked));
        observer_.note("the record ./key was lost, and has been written again");
        learn(recover(store_));
    } else if (!protection_.hasPassword()) {
        requireNoPassword(store_);
    }
    store_.open(std::move(unlocked.p));
    opened_ = protection_.inForce.key();
    rememberOpener(unlocked.slot);
}

Unlocked Database::tryKey() {
    { const Hold hold = enter(Access::kRead); }
    return obtainP();
}

void Database::rememberOpener(unsigned int slot) {
    openedBy_ = slot;
    const std::vector<UnlockSlot>& slots = protection_.inForce.slots;
    const auto found = std::ranges::find(slots, slot, &UnlockSlot::n);
    opener_ = found != slots.end() ? std::optional(*found) : std::nullopt;
}

// Whose slot was removed does nothing more with what it opened.
bool Database::isOpenerThere() const {
    const std::vector<UnlockSlot>& slots = protection_.inForce.slots;
    return openedBy_ == 0 || (opener_ && std::ranges::find(slots, *opener_) != slots.end());
}

void Database::warnOfLostKey() {
    if (protection_.isKeyLost() && !warnedOfKey_) {
        warnedOfKey_ = true;
        observer_.warn(fmt::format(
            "the record ./key {}; `fstore check --repair`, with the password, writes it again when "
            "the records show that the password is theirs",
            protection_.keyFault));
    }
}

// A line from before there were slots is copied only now that it has opened the database.
void Database::copyProvenLine() {
    if (repairCopy(protection_, /*opened=*/true)) {
        learn(readProtection());
    }
}

void Database::learn(Protection protection) {
    learned_.reset();
    protection_ = std::move(protection);
    if (store_.isOpen() && (protection_.inForce.key() != opened_ || !isOpenerThere())) {
        store_.close();
    }
}

std::vector<AddressText> namesIn(std::span<const std::string> texts) {
    std::vector<AddressText> named;
    for (const std::string& text : texts) {
        named.push_back(parseAddress(text));
        if (named.back().form == AddressText::Form::kDigest) {
            return {};
        }
    }
    return named;
}

}  // namespace fstore
