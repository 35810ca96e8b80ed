#include "lib/database/lost_key.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/database/slot_copies.h"
#include "lib/database/unlock_box.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;

// The least that is encrypted of a record: any part tells.
Bytes leastSecret(const Record& record) {
    Bytes least;
    const auto consider = [&](Bytes bytes) {
        if (!bytes.empty() && (least.empty() || bytes.size() < least.size())) {
            least = bytes;
        }
    };
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.isEncrypted(i)) {
            consider(record.bytes(i));
        }
    }
    if (record.isBodyEncrypted()) {
        consider(record.body());
    }
    return least;
}

// Which of the keys decrypts the record: as many as there are, if none; nothing, if the record is
// not encrypted. One that cannot be read says no more than one that is damaged.
std::optional<std::size_t> keyOf(StoreService& store, const Address& address,
                                 std::span<const SecretText> keys) {
    try {
        if (!RecordHead::read(address).hasSecrets()) {
            return std::nullopt;
        }
        const Record record = Record::read(address);
        const Bytes secret = leastSecret(record);
        const auto fits = [&](const SecretText& key) { return store.decrypts(key, secret); };
        return std::ranges::distance(keys.begin(), std::ranges::find_if(keys, fits));
    } catch (const MemoryFailure&) {
        throw;
    } catch (const Failure&) {
        return keys.size();
    }
}

// What the slots, as far as they can be read, say about P.
enum class Word { kNothing, kYes, kNo };

Word wordOfSlots(const SecretText& p) {
    const SlotCopies copies = readCopies();
    Word word = Word::kNothing;
    for (const SlotCopy& copy : {copies.kdf, copies.copy}) {
        for (const SlotSet& set : copy.record.sets) {
            const std::optional<Digest> key = set.key();
            if (key && fits(p, *key)) {
                return Word::kYes;
            }
            word = Word::kNo;
        }
    }
    return word;
}

[[noreturn]] void failOnUnproven(const std::string& fault) {
    failOnLostKey(fault + ", and no record shows that this secret is the database's");
}

}  // namespace

Evidence examine(StoreService& store, std::span<const SecretText> keys, bool byAll) {
    Evidence evidence{.fit = Evidence::Fit::kNothingEncrypted};
    visitRecords([&](const Address& address) {
        const std::optional<std::size_t> key = keyOf(store, address, keys);
        if (!key) {
            return true;
        }
        if (*key == keys.size()) {
            evidence.fit = Evidence::Fit::kNone;
            return !byAll;
        }
        const bool contradicts = evidence.fit == Evidence::Fit::kOne && evidence.index != *key;
        evidence = {.fit = contradicts ? Evidence::Fit::kNone : Evidence::Fit::kOne, .index = *key};
        return byAll && !contradicts;
    });
    return evidence;
}

void requireNoPassword(StoreService& store) {
    const SecretText empty;
    if (examine(store, {&empty, 1}, /*byAll=*/false).fit == Evidence::Fit::kNone) {
        failOnLostKey("is missing");
    }
}

Protection settledProtection(StoreService& store) {
    Protection protection = readProtection();
    const SecretText empty;
    if (protection.isUndone() && !protection.hasPassword() &&
        examine(store, {&empty, 1}, /*byAll=*/false).fit == Evidence::Fit::kNone) {
        return protectionWithoutKey(readCopies(), "is missing");
    }
    return protection;
}

Unlocked restoreKey(StoreService& store, const Protection& protection, Unlocked opened) {
    std::vector<OpenedKey> all = std::exchange(opened.rivals, {});
    all.insert(all.begin(), {std::move(opened.p), opened.slot});
    std::vector<SecretText> keys;
    std::ranges::transform(all, std::back_inserter(keys), &OpenedKey::p);
    const Evidence evidence = examine(store, keys, protection.keyIsForeign);
    const bool isNewest = protection.inForce.key() == digestOf(keys.front());
    if (evidence.fit == Evidence::Fit::kNothingEncrypted) {
        if (!isNewest) {
            throw Failure(kWrongPassword, "the new password is in force; give it, or another slot");
        }
    } else if (evidence.fit != Evidence::Fit::kOne) {
        // That of a set which this secret does not open may be the one.
        if (all.size() < protection.candidates.size()) {
            throw Failure(kWrongPassword,
                          "this secret is that of a change of the password that is not in force; "
                          "give the other password, or another slot");
        }
        failOnUnproven(protection.keyFault);
    }
    writeKey(digestOf(keys[evidence.index]));
    return {std::move(all[evidence.index].p), all[evidence.index].slot};
}

void proveKey(StoreService& store, const SecretText& p, const Place& place) {
    const KeyRecord key = readKey();
    const bool fitsKey = key.digest && fits(p, *key.digest);
    const Word word = wordOfSlots(p);
    if (fitsKey && word != Word::kNo) {
        return;
    }
    const Evidence evidence = examine(store, {&p, 1}, /*byAll=*/key.digest && !fitsKey);
    const bool isSaid = fitsKey || word == Word::kYes || (!key.digest && word == Word::kNothing);
    if (evidence.fit == Evidence::Fit::kNone ||
        (evidence.fit == Evidence::Fit::kNothingEncrypted && !isSaid)) {
        throw Failure(kWrongPassword,
                      fmt::format("this is not the key of the database in {}", place.describe()),
                      place.folder);
    }
    if (!fitsKey) {
        writeKey(digestOf(p));
    }
}

}  // namespace fstore
