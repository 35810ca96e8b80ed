#include "lib/database/protection.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/time.h"
#include "lib/database/slot_sets.h"
#include "lib/records/record.h"

namespace fstore {
namespace {

using layout::kKdfCopyRecord;
using layout::kKdfRecord;

const Address& keyAddress() {
    static const Address address{"", layout::kKeyRecord};
    return address;
}

[[noreturn]] void failOnKey(const std::string& what) {
    throw Failure(kNoDigest, what, keyAddress().print());
}

[[noreturn]] void failOnCopies(const SlotCopies& copies) {
    const std::string& fault =
        copies.kdf.state == SlotCopy::State::kDamaged ? copies.kdf.fault : copies.copy.fault;
    throw Failure(kMalformed,
                  fmt::format("neither copy of the slots can be read, ./kdf or ./kdf-copy ({}); "
                              "make new slots from the database's key with `fstore key reset`, or "
                              "restore the database from a backup",
                              fault),
                  Address{"", kKdfRecord}.print());
}

SlotSet setWithoutCopies(const std::optional<Digest>& key) {
    Slot line;
    line.form = key ? Slot::Form::kRaw : Slot::Form::kNone;
    line.digest = key.value_or(Digest());
    return {.line = line, .slots = {}};
}

const SlotSet* setInForce(const SlotCopy& copy, const std::optional<Digest>& key) {
    if (!copy.isSound()) {
        return nullptr;
    }
    const auto found = std::ranges::find(copy.record.sets, key, &SlotSet::key);
    return found != copy.record.sets.end() ? &*found : nullptr;
}

// The set of a copy that is in force; null if it has none.
using FindInForce = std::function<const SlotSet*(const SlotCopy& copy)>;

// Whether `kdf` counts, of which at least one copy is sound. Without `inForce` the newer one does.
bool doesKdfCount(const SlotCopies& copies, const FindInForce& inForce) {
    const auto rank = [&](const SlotCopy& copy) {
        return std::pair(inForce && inForce(copy) != nullptr, copy.record.seq);
    };
    if (!copies.kdf.isSound() || !copies.copy.isSound()) {
        return copies.kdf.isSound();
    }
    return rank(copies.kdf) >= rank(copies.copy);
}

void judgeOther(Protection& protection, const SlotCopies& copies) {
    const SlotCopy& counts = protection.kdfCounts ? copies.kdf : copies.copy;
    const SlotCopy& other = protection.kdfCounts ? copies.copy : copies.kdf;
    using Other = Protection::Other;
    switch (other.state) {
        case SlotCopy::State::kUsers:
            protection.other = Other::kUsers;
            return;
        case SlotCopy::State::kMissing:
            protection.other = Other::kBehind;
            protection.otherFault = "is missing";
            return;
        case SlotCopy::State::kDamaged:
            protection.other = Other::kBehind;
            protection.otherFault = fmt::format("is damaged: {}", other.fault);
            protection.otherIsDamaged = true;
            return;
        case SlotCopy::State::kSound:
            break;
    }
    if (agree(counts, other)) {
        return;
    }
    const bool sameNumber =
        counts.record.framed && other.record.framed && counts.record.seq == other.record.seq;
    protection.other = sameNumber ? Other::kConflicts : Other::kBehind;
    protection.otherFault = "is older than the other";
}

void useCopy(Protection& protection, const SlotCopy& counts, const SlotSet& inForce,
             const SlotCopies& copies) {
    protection.record = counts.record;
    protection.keepOld = counts.keepOld;
    protection.inForce = inForce;
    protection.highestSeq = std::max(copies.kdf.record.seq, copies.copy.record.seq);
}

// The last set of a copy is that of the newer password.
void addCandidates(Protection& protection, const SlotCopy& copy) {
    if (!copy.isSound()) {
        return;
    }
    for (auto set = copy.record.sets.rbegin(); set != copy.record.sets.rend(); ++set) {
        const bool isKnown = std::ranges::any_of(
            protection.candidates,
            [&](const Protection::Candidate& candidate) { return candidate.set == *set; });
        if (set->key() && !isKnown) {
            protection.candidates.push_back({*set, copy.record.db});
        }
    }
}

bool isPlainLine(const std::vector<SlotSet>& sets) {
    return sets.size() == 1 && sets.front().line.has_value();
}

// The step that makes a copy of this name say that.
using WriteStep = std::function<void(const char* name)>;

// One after the other, the worse one first.
void writeInTurn(const Protection& before, const WriteStep& write) {
    const std::array names{kKdfCopyRecord, kKdfRecord};
    write(names[before.kdfCounts ? 0 : 1]);
    const char* const second = names[before.kdfCounts ? 1 : 0];
    try {
        write(second);
    } catch (const Failure& failure) {
        const std::string path = Address{"", second}.print();
        throw Failure(kPartial,
                      fmt::format("the slots were changed, but {} could not be written: {}; the "
                                  "next command that changes the database writes it",
                                  path, failure.what()),
                      path);
    }
}

[[noreturn]] void failOnUsersRecord() {
    const std::string path = Address{"", kKdfCopyRecord}.print();
    throw Failure(kInvalid,
                  fmt::format("{} is a record of yours, and the database needs this name for the "
                              "copy of its slots; move it with `fstore mv`",
                              path),
                  path);
}

void requireWritable(const Protection& before) {
    if (before.other == Protection::Other::kUsers) {
        failOnUsersRecord();
    }
    if (before.highestSeq >= UnlockRecord::kMostSeq) {
        failOnKey(
            "the slots have been written as often as they can be; `fstore key raw` and then "
            "`fstore key reset` begin again");
    }
}

// Of slots whose number cannot be read: beyond it, unless they were written every minute since
// 1970, so that no old copy that comes back counts again.
std::uint32_t numberBeyondUnknown() {
    constexpr std::int64_t kMinute = 60;
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(now() / kMinute, 0, UnlockRecord::kMostSeq / 2));
}

// The id that the boxes of the database are bound to, or a new one.
DatabaseId idFor(const Protection& protection) {
    return protection.record.framed ? protection.record.db : makeDatabaseId();
}

}  // namespace

void failOnLostKey(const std::string& fault) {
    failOnKey(
        fmt::format("the record ./key {}; restore the database from a backup, or make new "
                    "slots from the database's key with `fstore key reset`",
                    fault));
}

Protection protectionWithoutKey(const SlotCopies& copies, std::string fault) {
    Protection protection;
    // The secret and the records tell which set is in force; until then the newer copy counts.
    protection.kdfCounts = doesKdfCount(copies, /*inForce=*/{});
    const SlotCopy& counts = protection.kdfCounts ? copies.kdf : copies.copy;
    addCandidates(protection, counts);
    addCandidates(protection, protection.kdfCounts ? copies.copy : copies.kdf);
    if (protection.candidates.empty()) {
        failOnLostKey(fault);
    }
    protection.keyFault = std::move(fault);
    // What is said of the other copy waits for the key: none is written from a copy that may be
    // the wrong one.
    useCopy(protection, counts, protection.candidates.front().set, copies);
    return protection;
}

Protection protectionOf(const SlotCopies& copies, const KeyRecord& key) {
    Protection protection;
    if (!copies.kdf.isSound() && !copies.copy.isSound()) {
        if (copies.kdf.state == SlotCopy::State::kDamaged ||
            copies.copy.state == SlotCopy::State::kDamaged) {
            failOnCopies(copies);
        }
        if (!key.fault.empty()) {
            failOnLostKey(key.fault);
        }
        protection.inForce = setWithoutCopies(key.digest);
        if (copies.copy.state == SlotCopy::State::kUsers) {
            protection.other = Protection::Other::kUsers;
        }
        return protection;
    }
    if (!key.fault.empty()) {
        return protectionWithoutKey(copies, key.fault);
    }
    const auto inForce = [&](const SlotCopy& copy) { return setInForce(copy, key.digest); };
    protection.kdfCounts = doesKdfCount(copies, inForce);
    const SlotCopy& counts = protection.kdfCounts ? copies.kdf : copies.copy;
    if (inForce(counts) == nullptr) {
        protection = protectionWithoutKey(
            copies, key.digest ? "does not fit the slots: it is damaged, or another program "
                                 "changed the password, or the files of two databases were mixed"
                               : "is missing");
        protection.keyIsForeign = key.digest.has_value();
        return protection;
    }
    useCopy(protection, counts, *inForce(counts), copies);
    judgeOther(protection, copies);
    return protection;
}

KeyRecord readKey() {
    if (!Record::isThere(keyAddress())) {
        return {};
    }
    try {
        const auto bytes = Record::read(keyAddress()).binary(layout::kDigestId);
        Digest digest;
        if (!bytes || bytes->size() != digest.size()) {
            return {.digest = {}, .fault = "has no digest of the password"};
        }
        std::ranges::copy(*bytes, digest.begin());
        return {.digest = digest, .fault = {}};
    } catch (const Failure& failure) {
        if (failure.isDenied()) {
            throw;
        }
        return {.digest = {}, .fault = fmt::format("is damaged: {}", failure.what())};
    }
}

void writeKey(const Digest& digest) {
    Record key(keyAddress());
    key.setBinary(layout::kDigestId, digest);
    BodyOwners owners;  // a damaged one may name another record's body
    key.write(owners);
}

Protection readProtection() {
    return protectionOf(readCopies(), readKey());
}

void writeSlots(const Protection& before, const DatabaseId& db, std::vector<SlotSet> sets,
                bool keepOld) {
    requireWritable(before);
    const UnlockRecord next{
        .framed = true, .db = db, .seq = before.highestSeq + 1, .sets = std::move(sets)};
    writeInTurn(before, [&](const char* name) {
        writeCopy(name, name == std::string_view(kKdfRecord) ? asKdf(next) : next, keepOld);
    });
    const SlotCopies written = readCopies();
    if (!written.kdf.isSound() || !written.copy.isSound() || !agree(written.kdf, written.copy) ||
        written.copy.record != next) {
        throw Failure(kIo, "the slots read back differently from what was written",
                      Address{"", kKdfRecord}.print());
    }
}

void replaceSlots(const DatabaseId& db, SlotSet set) {
    const SlotCopies copies = readCopies();
    Protection before;
    if (copies.kdf.isSound() || copies.copy.isSound()) {
        before.kdfCounts =
            doesKdfCount(copies, [&](const SlotCopy& copy) { return setInForce(copy, set.key()); });
        before.highestSeq = std::max(copies.kdf.record.seq, copies.copy.record.seq);
    } else {
        before.highestSeq = numberBeyondUnknown();
    }
    if (before.highestSeq >= UnlockRecord::kMostSeq) {
        before.highestSeq = 0;  // the copy that has the last number counts until it is replaced
    }
    if (copies.copy.state == SlotCopy::State::kUsers) {
        before.other = Protection::Other::kUsers;
    }
    writeSlots(before, db, {std::move(set)}, /*keepOld=*/false);
    removeSavedCopy(kKdfCopyRecord);
    removeSavedCopy(kKdfRecord);
}

void removeSlots() {
    if (readCopies().copy.state == SlotCopy::State::kUsers) {
        failOnUsersRecord();
    }
    removeCopy(kKdfCopyRecord);
    removeCopy(kKdfRecord);
}

void keepOnlyInForce(const Protection& unfinished) {
    std::vector<SlotSet> sets{unfinished.inForce};
    if (unfinished.isUndone() && isPlainLine(sets) &&
        sets.front().line->form != Slot::Form::kScrypt) {
        writeInTurn(unfinished, removeCopy);
    } else if (!unfinished.record.framed &&
               (unfinished.isUndone() || unfinished.other == Protection::Other::kUsers)) {
        // An older program's change. Its line is not proven, so "kdf" alone has it.
        writeCopy(kKdfRecord, {.framed = false, .db = {}, .seq = 0, .sets = sets}, false);
    } else {
        writeSlots(unfinished, idFor(unfinished), std::move(sets), false);
    }
}

bool repairCopy(const Protection& protection, bool opened) {
    if (protection.other != Protection::Other::kBehind || protection.record.sets.empty()) {
        return false;
    }
    if (protection.record.framed) {
        const char* const name = protection.kdfCounts ? kKdfCopyRecord : kKdfRecord;
        writeCopy(name, protection.kdfCounts ? protection.record : asKdf(protection.record),
                  protection.keepOld);
        return true;
    }
    if (!opened || protection.isUnfinished()) {
        return false;
    }
    UnlockRecord copy = protection.record;
    copy.framed = true;
    copy.seq = protection.highestSeq + 1;
    copy.db = makeDatabaseId();
    writeCopy(kKdfCopyRecord, copy, false);
    return true;
}

}  // namespace fstore
