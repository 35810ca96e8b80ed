#include "lib/database/protection.h"

#include <algorithm>
#include <string>
#include <utility>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/records/record.h"

namespace fstore {
namespace {

const Address& keyAddress() {
    static const Address address{"", layout::kKeyRecord};
    return address;
}

[[noreturn]] void failOnKey(const std::string& what) {
    throw Failure(kNoDigest, what + "; restore the database from a backup", keyAddress().print());
}

bool isInForce(const Slot& slot, const std::optional<Digest>& key) {
    return slot.form == Slot::Form::kNone ? !key : key && slot.digest == *key;
}

Slot slotWithoutKdf(const std::optional<Digest>& key) {
    Slot slot;
    slot.form = key ? Slot::Form::kRaw : Slot::Form::kNone;
    slot.digest = key.value_or(Digest());
    return slot;
}

}  // namespace

Protection protectionOf(KdfRecord kdf, const std::optional<Digest>& key) {
    if (kdf.slots.empty()) {
        return {std::move(kdf), slotWithoutKdf(key)};
    }
    const auto slot =
        std::ranges::find_if(kdf.slots, [&](const Slot& one) { return isInForce(one, key); });
    if (slot == kdf.slots.end()) {
        failOnKey(key ? "the records ./key and ./kdf do not match" : "the record ./key is missing");
    }
    const Slot inForce = *slot;
    return {std::move(kdf), inForce};
}

std::optional<Digest> readKeyDigest() {
    if (!Record::isThere(keyAddress())) {
        return std::nullopt;
    }
    const auto bytes = Record::read(keyAddress()).binary(layout::kDigestId);
    Digest digest;
    if (!bytes || bytes->size() != digest.size()) {
        failOnKey("the record ./key has no digest of the password");
    }
    std::ranges::copy(*bytes, digest.begin());
    return digest;
}

Protection readProtection() {
    return protectionOf(readKdf(), readKeyDigest());
}

}  // namespace fstore
