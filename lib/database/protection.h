// How the database is protected now: which slot is in force, and whether a change of the
// password is unfinished.
#ifndef LIB_DATABASE_PROTECTION_H
#define LIB_DATABASE_PROTECTION_H

#include <optional>

#include "lib/database/slots.h"

namespace fstore {

struct Protection {
    KdfRecord kdf;  // its slots: two of them during a change
    Slot inForce;   // also without a record "kdf"

    // Without one, the empty password opens the database, and it cannot keep secrets.
    bool hasPassword() const { return inForce.form != Slot::Form::kNone; }
    // A change of the password was interrupted.
    bool isUnfinished() const { return kdf.slots.size() == 2; }
    // It was interrupted before it took effect: the old password is in force.
    bool isUndone() const { return isUnfinished() && inForce == kdf.slots[0]; }
};

// What the record "kdf" and the digest of the record "key" mean together; none if there is no
// such record. Without slots the digest decides. Throws kNoDigest when the two do not match:
// nobody may then take the empty password for the one in force.
Protection protectionOf(KdfRecord kdf, const std::optional<Digest>& key);

// The digest in the record "key"; none without that record. Throws kNoDigest when it has no
// digest.
std::optional<Digest> readKeyDigest();

// The protection of the database that the thread is in. Throws kNoDigest and kMalformed.
Protection readProtection();

}  // namespace fstore

#endif  // LIB_DATABASE_PROTECTION_H
