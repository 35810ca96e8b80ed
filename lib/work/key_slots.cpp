#include "lib/work/key_slots.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/recovery_key.h"
#include "lib/database/unlock_box.h"

namespace fstore {
namespace {

// What an operation knows of the slots when it computes, while nothing is locked.
struct Seen {
    UnlockRecord record;
    SlotSet set;
    SecretText p;
    unsigned int openedBy = 0;
};

Seen look(Database& database) {
    const Hold hold = database.enter(Access::kRead, Need::kSecrets);
    const Protection& protection = database.protection();
    return {protection.record, protection.inForce, database.isOpen() ? database.p() : SecretText(),
            database.openedBy()};
}

void requireSlots(const Seen& seen, const Place& place) {
    if (seen.set.line) {
        throw Failure(kInvalid,
                      fmt::format("the database in {} has no slots yet; `fstore passwd` first "
                                  "gives it a key of its own",
                                  place.describe()),
                      place.folder);
    }
}

// Makes a set of what was seen, and writes it if nobody has changed the slots meanwhile;
// otherwise begins again.
template <class Make>
void edit(Database& database, Make make) {
    for (;;) {
        const Seen seen = look(database);
        requireSlots(seen, database.place());
        SlotSet changed = make(seen);
        const Hold hold = database.enter(Access::kChange, Need::kSecrets);
        if (database.protection().record == seen.record) {
            database.changeSlots(std::move(changed));
            return;
        }
    }
}

const UnlockSlot* slotOf(const std::vector<UnlockSlot>& slots, unsigned int n) {
    const auto found = std::ranges::find(slots, n, &UnlockSlot::n);
    return found != slots.end() ? &*found : nullptr;
}

[[noreturn]] void failOnMissing(std::string_view words) {
    throw Failure(kMissing,
                  fmt::format("there is no slot \"{}\"; `fstore key ls` lists them", words));
}

// All that a person knows of a slot; a carried one keeps it under another P.
bool isSame(const UnlockSlot& one, const UnlockSlot& other) {
    return one.n == other.n && one.kind == other.kind && one.made == other.made &&
           one.label == other.label && one.salt == other.salt;
}

// Between the words of a person and the change lie a password to type and other people's commands.
void requireStillThere(const std::vector<UnlockSlot>& slots, const UnlockSlot& named) {
    const UnlockSlot* const found = slotOf(slots, named.n);
    if (found == nullptr) {
        failOnMissing(std::to_string(named.n));
    }
    if (!isSame(*found, named)) {
        throw Failure(kInvalid,
                      fmt::format("another command has changed slot {} meanwhile; nothing was "
                                  "done: look at `fstore key ls`, and run the command again",
                                  named.n));
    }
}

void requireRemovable(const Seen& seen, const UnlockSlot& slot, bool force) {
    const unsigned int n = slot.n;
    requireStillThere(seen.set.slots, slot);
    const SlotSet left = withoutSlot(seen.set, n);
    const auto isUnknown = [](const UnlockSlot& each) { return each.kind == SlotKind::kUnknown; };
    if (std::ranges::all_of(left.slots, isUnknown)) {
        throw Failure(kInvalid, fmt::format("slot {} is the last one that this version opens: "
                                            "without it nothing opens the database; add another "
                                            "one first",
                                            n));
    }
    if (force) {
        return;
    }
    if (n == seen.openedBy) {
        throw Failure(kInvalid, fmt::format("slot {} is the one that this secret opens; --force "
                                            "removes it all the same",
                                            n));
    }
    if (std::ranges::all_of(left.slots, [&](const UnlockSlot& each) {
            return each.kind == SlotKind::kRecovery || isUnknown(each);
        })) {
        throw Failure(kInvalid, fmt::format("slot {} is the last one that is no recovery slot; "
                                            "--force removes it all the same",
                                            n));
    }
}

NewSlot passwordFor(const SecretText& password, std::string label, std::optional<unsigned int> ln) {
    return {.secret = {.kind = UnlockSecret::Kind::kPassword, .text = password, .bytes = {}},
            .label = std::move(label),
            .ln = ln};
}

// This slot, or a new one for none, with the password; `others` are those that stay.
UnlockSlot passwordSlotFor(const Seen& seen, const std::optional<UnlockSlot>& before,
                           const SecretText& password, std::optional<unsigned int> ln,
                           const std::vector<UnlockSlot>& others, const DatabaseId& db,
                           const SecretText& p) {
    return makeSlot(passwordFor(password, before ? before->label : "", ln),
                    before ? before->n : freeNumber(seen.set.slots), others, db, p);
}

void requireRoom(const SlotSet& set) {
    if (set.slots.size() >= SlotSet::kMostSlots) {
        throw Failure(kInvalid, fmt::format("the database has {} slots, which is all that it can "
                                            "have; remove one first",
                                            set.slots.size()));
    }
}

// A secret in two slots would stay when one of them is removed.
void requireNewSecret(const UnlockSecret& secret, const SlotSet& others, const DatabaseId& db) {
    if (others.slots.empty()) {
        return;
    }
    const auto opened = openSet(others, db, secret);
    if (opened) {
        throw Failure(kInvalid, fmt::format("this secret opens slot {} already; give another one",
                                            opened->slot));
    }
}

bool names(const std::vector<UnlockSlot>& slots, unsigned int n) {
    return slotOf(slots, n) != nullptr;
}

// Sorts the slots of a database into what a rotation does with each.
class Sorter {
public:
    Sorter(const Seen& seen, const Rotation& rotation, NewKey& key)
        : seen_(seen), rotation_(rotation), key_(key) {}

    RotationReport sort(const std::optional<UnlockSlot>& passwordSlot) {
        for (const UnlockSlot& slot : seen_.set.slots) {
            if (slot != passwordSlot) {
                sortOne(slot);
            }
        }
        if (!unnamed_.empty()) {
            throw Failure(kInvalid, fmt::format("nothing says what becomes of these slots: {}; "
                                                "give their secret, or --drop them",
                                                unnamed_));
        }
        return std::move(report_);
    }

private:
    void sortOne(const UnlockSlot& slot) {
        const bool isNamed = names(rotation_.dropped, slot.n);
        // NOLINTNEXTLINE(bugprone-branch-clone): a slot whose secret was given is carried first
        if (isNamed || slot.kind == SlotKind::kUnknown) {
            report_.dropped.push_back(slot);
        } else if (auto carried = carry(slot)) {
            report_.carried.push_back(slot);
            key_.set = withSlot(std::move(key_.set), std::move(*carried));
        } else if (slot.kind == SlotKind::kRecovery && rotation_.recovery && report_.anew.empty()) {
            report_.anew.push_back(slot);
            makeAnew(slot);
        } else if (rotation_.dropOthers) {
            report_.dropped.push_back(slot);
        } else {
            unnamed_ += fmt::format("{}{} ({}{}{})", unnamed_.empty() ? "" : ", ", slot.n,
                                    nameOfKind(slot), slot.label.empty() ? "" : " ", slot.label);
        }
    }

    std::optional<UnlockSlot> carry(const UnlockSlot& slot) const {
        for (const UnlockSecret& secret : rotation_.carried) {
            if (auto carried = carriedSlot(slot, seen_.record.db, secret, key_.p)) {
                return carried;
            }
        }
        return std::nullopt;
    }

    void makeAnew(const UnlockSlot& slot) {
        const NewSlot fresh{.secret = *rotation_.recovery, .label = slot.label, .ln = {}};
        key_.set = withSlot(std::move(key_.set), makeSlot(fresh, slot.n, {}, key_.db, key_.p));
    }

    const Seen& seen_;
    const Rotation& rotation_;
    NewKey& key_;
    RotationReport report_;
    std::string unnamed_;
};

// A key that was written down for no slot would open nothing.
void requireAnew(const RotationReport& report, const Rotation& rotation) {
    if (!rotation.recovery || !report.anew.empty()) {
        return;
    }
    const auto dropped =
        std::ranges::find(rotation.dropped, SlotKind::kRecovery, &UnlockSlot::kind);
    if (dropped != rotation.dropped.end()) {
        throw Failure(kInvalid,
                      fmt::format("slot {} is to be dropped, and so its recovery key cannot "
                                  "be made anew; leave out --drop {} or --recovery",
                                  dropped->n, dropped->n));
    }
    throw Failure(
        kInvalid,
        "no slot has a recovery key that could be made anew; add one with `fstore key add "
        "--recovery`");
}

NewKey rotatedKey(const Seen& seen, const Rotation& rotation, RotationReport& report) {
    if (seen.set.line) {
        requireAnew(report, rotation);
        return makeKey(rotation.password, rotation.ln, makeDatabaseId());
    }
    NewKey key{.set = {}, .db = seen.record.db, .p = randomP()};
    for (const UnlockSlot& dropped : rotation.dropped) {
        requireStillThere(seen.set.slots, dropped);
    }
    const auto slot = passwordSlot(seen.set.slots, seen.openedBy, rotation.slot);
    if (slot && names(rotation.dropped, slot->n)) {
        throw Failure(kInvalid, fmt::format("slot {} gets the new password, and so cannot be "
                                            "dropped; name another one with --slot",
                                            slot->n));
    }
    report = Sorter(seen, rotation, key).sort(slot);
    requireAnew(report, rotation);
    requireNewSecret(passwordFor(rotation.password, "", rotation.ln).secret, key.set, key.db);
    UnlockSlot own =
        passwordSlotFor(seen, slot, rotation.password, rotation.ln, key.set.slots, key.db, key.p);
    key.slot = own.n;
    key.set = withSlot(key.set, std::move(own));
    return key;
}

bool isDecimal(std::string_view words) {
    return std::ranges::all_of(words, [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::vector<UnlockSlot> listSlots(Database& database) {
    const Hold hold = database.enter(Access::kRead);
    return database.protection().inForce.slots;
}

const UnlockSlot& findSlot(const std::vector<UnlockSlot>& slots, std::string_view words) {
    // A label may look like a number of another base.
    const auto number = isDecimal(words) ? parseNumber(words) : std::nullopt;
    for (const UnlockSlot& slot : slots) {
        if (number ? slot.n == *number : !words.empty() && sameLabel(slot.label, words)) {
            return slot;
        }
    }
    failOnMissing(words);
}

SlotPlan planSlot(Database& database, const std::string& label) {
    const Seen seen = look(database);
    requireSlots(seen, database.place());
    requireRoom(seen.set);
    const unsigned int n = freeNumber(seen.set.slots);
    // A slot that nobody can open shows whether there may be one.
    const UnlockSecret nobodys{.kind = UnlockSecret::Kind::kRecovery,
                               .text = {},
                               .bytes = SecretKey(rawSizeOf(SlotKind::kRecovery))};
    (void)makeSlot({.secret = nobodys, .label = label, .ln = {}}, n, seen.set.slots, seen.record.db,
                   randomP());
    return {n, seen.record.db};
}

UnlockSlot addSlot(Database& database, const NewSlot& fresh) {
    UnlockSlot added;
    edit(database, [&](const Seen& seen) {
        requireRoom(seen.set);
        requireNewSecret(fresh.secret, seen.set, seen.record.db);
        added = makeSlot(fresh, freeNumber(seen.set.slots), seen.set.slots, seen.record.db, seen.p);
        return withSlot(seen.set, added);
    });
    return added;
}

void removeSlot(Database& database, const UnlockSlot& slot, bool force) {
    edit(database, [&](const Seen& seen) {
        requireRemovable(seen, slot, force);
        return withoutSlot(seen.set, slot.n);
    });
}

std::optional<UnlockSlot> testSecret(Database& database) {
    const Unlocked unlocked = database.tryKey();
    const Protection& protection = database.protection();
    const UnlockSlot* opened = slotOf(protection.inForce.slots, unlocked.slot);
    // While the record "key" is lost, it may be one of another set.
    for (const Protection::Candidate& candidate : protection.candidates) {
        if (candidate.set.key() == digestOf(unlocked.p)) {
            opened = slotOf(candidate.set.slots, unlocked.slot);
        }
    }
    return opened != nullptr ? std::optional(*opened) : std::nullopt;
}

SecretText rawP(Database& database) {
    return look(database).p;
}

std::optional<UnlockSlot> passwordSlot(const std::vector<UnlockSlot>& slots, unsigned int openedBy,
                                       const std::optional<UnlockSlot>& wanted) {
    if (wanted) {
        requireStillThere(slots, *wanted);
    }
    const UnlockSlot* const slot = slotOf(slots, wanted ? wanted->n : openedBy);
    if (slot != nullptr && slot->kind == SlotKind::kPassword) {
        return *slot;
    }
    if (wanted) {
        throw Failure(kInvalid, fmt::format("slot {} is no password's", wanted->n));
    }
    const auto isPassword = [](const UnlockSlot& each) { return each.kind == SlotKind::kPassword; };
    const auto only = std::ranges::find_if(slots, isPassword);
    if (std::ranges::count_if(slots, isPassword) > 1) {
        throw Failure(kInvalid, "there are several passwords; say with --slot which one to change");
    }
    return only != slots.end() ? std::optional(*only) : std::nullopt;
}

UnlockSlot rewrapSlot(Database& database, const std::optional<UnlockSlot>& slot,
                      const SecretText& password, std::optional<unsigned int> ln) {
    UnlockSlot fresh;
    edit(database, [&](const Seen& seen) {
        const auto before = passwordSlot(seen.set.slots, seen.openedBy, slot);
        const SlotSet others = before ? withoutSlot(seen.set, before->n) : seen.set;
        requireNewSecret(passwordFor(password, "", ln).secret, others, seen.record.db);
        fresh = passwordSlotFor(seen, before, password, ln, others.slots, seen.record.db, seen.p);
        return withSlot(others, fresh);
    });
    return fresh;
}

RotationReport rehearseRotation(Database& database, Rotation rotation) {
    const Seen seen = look(database);
    if (rotation.recovery) {
        rotation.recovery->bytes.assign(rawSizeOf(SlotKind::kRecovery), 0);
    }
    RotationReport report;
    (void)rotatedKey(seen, rotation, report);
    return report;
}

RotationReport rotateKey(Database& database, const Rotation& rotation) {
    for (;;) {
        const Seen seen = look(database);
        RotationReport report;
        NewKey fresh = rotatedKey(seen, rotation, report);
        const Hold hold = database.enter(Access::kChange, Need::kSecrets);
        // The boxes of slots are bound to what was seen; a line from before has none.
        const bool isSame = database.protection().record == seen.record;
        if (isSame || (seen.set.line && database.protection().inForce == seen.set)) {
            database.changePassword(std::move(fresh), rotation.keepOld);
            return report;
        }
    }
}

void resetSlots(Database& database, const SecretText& p, const SecretText& password,
                std::optional<unsigned int> ln) {
    NewKey fresh{.set = {}, .db = {}, .p = p};
    if (isWrappable(p)) {
        fresh.db = makeDatabaseId();
        fresh.set.slots.push_back(makeSlot(passwordFor(password, "", ln), 1, {}, fresh.db, p));
    }
    const Hold hold = database.enter(Access::kChange, Need::kFiles);
    database.resetSlots(std::move(fresh));
}

}  // namespace fstore
