#include "lib/database/slot_sets.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/recovery_key.h"
#include "lib/base/time.h"
#include "lib/database/unlock_box.h"

namespace fstore {
namespace {

using SecretKind = UnlockSecret::Kind;

// The kind of slot that a secret opens; kUnknown for P.
SlotKind kindFor(SecretKind kind) {
    switch (kind) {
        case SecretKind::kPassword:
            return SlotKind::kPassword;
        case SecretKind::kRecovery:
            return SlotKind::kRecovery;
        case SecretKind::kFile:
            return SlotKind::kFile;
        case SecretKind::kP:
            break;
    }
    return SlotKind::kUnknown;
}

// What a secret is tried as, one after the other: as a recovery key first, which costs nothing.
std::vector<UnlockSecret> readingsOf(const UnlockSecret& secret) {
    std::vector<UnlockSecret> readings;
    if (secret.kind == SecretKind::kPassword) {
        if (auto key = parseRecoveryKey(secret.text.view())) {
            readings.push_back({SecretKind::kRecovery, {}, std::move(*key), secret.slot});
        }
    }
    readings.push_back(secret);
    return readings;
}

// The raw secrets that one secret gives for the slots of a set.
class RawSecrets {
public:
    explicit RawSecrets(const UnlockSecret& secret) : secret_(secret) {}

    // That for this slot, which is of the secret's kind. Valid until the next call.
    RawSecret of(const UnlockSlot& slot) {
        if (secret_.kind != SecretKind::kPassword) {
            return secret_.bytes;
        }
        const auto known = std::ranges::find_if(derived_, [&](const Derived& each) {
            return each.salt == slot.salt && each.cost == slot.cost;
        });
        if (known != derived_.end()) {
            return known->raw;
        }
        derived_.push_back({slot.salt, slot.cost, scrypt(secret_.text, slot.salt, slot.cost)});
        return derived_.back().raw;
    }

private:
    struct Derived {
        Salt salt;
        ScryptCost cost;
        SecretKey raw;
    };

    const UnlockSecret& secret_;
    std::vector<Derived> derived_;
};

std::optional<Unlocked> openLine(const Slot& line, const UnlockSecret& secret) {
    if (line.form == Slot::Form::kNone) {
        return Unlocked();
    }
    if (secret.slot != 0 ||
        (secret.kind != SecretKind::kPassword && secret.kind != SecretKind::kP)) {
        return std::nullopt;
    }
    SecretText p = secret.kind == SecretKind::kP ? secret.text : deriveP(line, secret.text);
    return fits(p, line.digest) ? std::optional(Unlocked{std::move(p), 0}) : std::nullopt;
}

// By the slots of the secret's kind. `damaged` becomes the number of one whose box opens to what is
// not P.
std::optional<Unlocked> openSlots(const SlotSet& set, const DatabaseId& db,
                                  const UnlockSecret& secret, unsigned int& damaged) {
    RawSecrets raw(secret);
    for (const UnlockSlot& slot : set.slots) {
        if (slot.kind != kindFor(secret.kind) || (secret.slot != 0 && secret.slot != slot.n)) {
            continue;
        }
        OpenedBox opened = openBox(slot, db, raw.of(slot));
        if (opened.state == OpenedBox::State::kOpen) {
            return Unlocked{std::move(opened.p), slot.n};
        }
        damaged = opened.state == OpenedBox::State::kDamaged ? slot.n : damaged;
    }
    return std::nullopt;
}

// The slot with another P, if this secret is of its kind and opens it.
std::optional<UnlockSlot> carriedBy(const UnlockSecret& secret, const UnlockSlot& slot,
                                    const DatabaseId& db, const SecretText& p) {
    if (slot.kind != kindFor(secret.kind) || secret.kind == SecretKind::kP) {
        return std::nullopt;
    }
    RawSecrets raw(secret);
    if (openBox(slot, db, raw.of(slot)).state != OpenedBox::State::kOpen) {
        return std::nullopt;
    }
    UnlockSlot carried = withBox(slot, db, raw.of(slot), p);
    if (openBox(carried, db, raw.of(slot)).p.view() != p.view()) {
        throw Failure(
            kIo, fmt::format("slot {} does not open with its secret; nothing has changed", slot.n));
    }
    return carried;
}

// The password slot whose salt and cost a new one takes.
const UnlockSlot* dearest(const std::vector<UnlockSlot>& slots) {
    const UnlockSlot* found = nullptr;
    for (const UnlockSlot& slot : slots) {
        if (slot.kind == SlotKind::kPassword &&
            (found == nullptr || slot.cost.work() > found->cost.work())) {
            found = &slot;
        }
    }
    return found;
}

void chooseSaltAndCost(UnlockSlot& slot, std::optional<unsigned int> ln,
                       const std::vector<UnlockSlot>& staying) {
    fillRandomly(slot.salt);
    if (slot.kind != SlotKind::kPassword) {
        return;
    }
    const UnlockSlot* const model = dearest(staying);
    const bool shares = model != nullptr &&
                        (ln ? *ln == model->cost.ln : model->cost.work() >= ScryptCost().work());
    if (shares) {
        slot.salt = model->salt;
        slot.cost = model->cost;
    } else {
        slot.cost.ln = ln.value_or(ScryptCost::kDefaultLn);
    }
}

void requireFreeLabel(const std::string& label, const std::vector<UnlockSlot>& staying) {
    if (const auto fault = faultOfLabel(label)) {
        throw Failure(kInvalid, fmt::format("the label {}", *fault));
    }
    for (const UnlockSlot& slot : staying) {
        if (!label.empty() && sameLabel(label, slot.label)) {
            throw Failure(kInvalid, fmt::format("slot {} already has the label \"{}\"; choose "
                                                "another",
                                                slot.n, slot.label));
        }
    }
}

}  // namespace

std::optional<Unlocked> openSet(const SlotSet& set, const DatabaseId& db,
                                const UnlockSecret& secret) {
    if (set.line) {
        return openLine(*set.line, secret);
    }
    if (secret.kind == SecretKind::kP) {
        return fits(secret.text, set.slots.front().key) ? std::optional(Unlocked{secret.text, 0})
                                                        : std::nullopt;
    }
    unsigned int damaged = 0;
    for (const UnlockSecret& reading : readingsOf(secret)) {
        if (auto opened = openSlots(set, db, reading, damaged)) {
            return opened;
        }
    }
    if (damaged != 0) {
        throw Failure(kMalformed,
                      fmt::format("slot {} is damaged: its key is not that of the database; use "
                                  "another slot, or restore the database from a backup",
                                  damaged));
    }
    return std::nullopt;
}

UnlockSlot makeSlot(const NewSlot& fresh, unsigned int n, const std::vector<UnlockSlot>& staying,
                    const DatabaseId& db, const SecretText& p) {
    requireFreeLabel(fresh.label, staying);
    UnlockSlot slot;
    slot.n = n;
    slot.kind = kindFor(fresh.secret.kind);
    slot.made = now();
    slot.label = fresh.label;
    chooseSaltAndCost(slot, fresh.ln, staying);
    RawSecrets raw(fresh.secret);
    slot = withBox(slot, db, raw.of(slot), p);
    UnlockSecret alone = fresh.secret;
    alone.slot = n;
    const auto opened = openSet({.line = {}, .slots = {slot}}, db, alone);
    if (!opened || opened->p.view() != p.view()) {
        throw Failure(kIo, "the new slot does not open with its secret; nothing has changed");
    }
    return slot;
}

std::optional<UnlockSlot> carriedSlot(const UnlockSlot& slot, const DatabaseId& db,
                                      const UnlockSecret& secret, const SecretText& p) {
    for (const UnlockSecret& reading : readingsOf(secret)) {
        if (auto carried = carriedBy(reading, slot, db, p)) {
            return carried;
        }
    }
    return std::nullopt;
}

unsigned int freeNumber(const std::vector<UnlockSlot>& slots) {
    for (unsigned int n = 1; n <= UnlockSlot::kMostNumber; ++n) {
        if (std::ranges::find(slots, n, &UnlockSlot::n) == slots.end()) {
            return n;
        }
    }
    throw Failure(kInvalid, "there is no number left for another slot");
}

SlotSet withSlot(SlotSet set, UnlockSlot slot) {
    set = withoutSlot(std::move(set), slot.n);
    set.slots.insert(std::ranges::upper_bound(set.slots, slot.n, {}, &UnlockSlot::n),
                     std::move(slot));
    return set;
}

SlotSet withoutSlot(SlotSet set, unsigned int n) {
    std::erase_if(set.slots, [n](const UnlockSlot& slot) { return slot.n == n; });
    return set;
}

DatabaseId makeDatabaseId() {
    DatabaseId db;
    fillRandomly(db);
    return db;
}

NewKey makeKey(const SecretText& password, std::optional<unsigned int> ln, const DatabaseId& db) {
    NewKey key;
    key.db = db;
    key.p = randomP();
    key.slot = 1;
    const NewSlot fresh{.secret = {.kind = SecretKind::kPassword, .text = password, .bytes = {}},
                        .label = {},
                        .ln = ln};
    key.set.slots.push_back(makeSlot(fresh, key.slot, {}, key.db, key.p));
    return key;
}

}  // namespace fstore
