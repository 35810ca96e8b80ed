// What to do when the record "key" is lost, which tells the set of slots that is in force: the
// secret opens one or more of the sets, the records that are encrypted tell which of them is the
// database's, and "key" is written again.
//
// The caller keeps other processes out, unless it says otherwise. For one thread. Failures throw.
#ifndef LIB_DATABASE_LOST_KEY_H
#define LIB_DATABASE_LOST_KEY_H

#include <cstddef>
#include <span>

#include "lib/database/protection.h"
#include "lib/database/slot_sets.h"
#include "lib/database/store_service.h"

namespace fstore {

// What the encrypted records say about several P.
struct Evidence {
    enum class Fit {
        kOne,               // `index` is of the one that they were encrypted with
        kNothingEncrypted,  // any would do
        kNone,
    };
    Fit fit = Fit::kNone;
    std::size_t index = 0;
};

// Tries them on one encrypted record after the other, since some may be damaged. One record that
// fits is enough, unless `byAll`: then none may be left that does not fit. Others may read
// meanwhile.
Evidence examine(StoreService& store, std::span<const SecretText> keys, bool byAll);

// Throws kNoDigest when records are encrypted, and none of them with the empty password: the
// record "key" is lost, and the database only looks as if it had no password. Others may read
// meanwhile.
void requireNoPassword(StoreService& store);

// readProtection(), and where "none" would be in force beside the set of a change that was broken
// off, the records were asked. Others may read meanwhile.
Protection settledProtection(StoreService& store);

// Writes the record "key" again for the P among `opened` that the records prove, and returns it.
//
// Nothing has changed after a failure.
//
//   kNoDigest       they prove none of them
//   kWrongPassword  they prove none of them, and there is a set that the secret does not open; or
//                   nothing is encrypted, and the secret is not that of the newest set
Unlocked restoreKey(StoreService& store, const Protection& protection, Unlocked opened);

// Makes sure that the record "key" is there and is that of P: if it is not, or the slots are of
// another P, the records decide, and it is written again. Where nothing is encrypted, P is what the
// record or the slots say.
//
//   kWrongPassword  they say that it is another P
void proveKey(StoreService& store, const SecretText& p, const Place& place);

}  // namespace fstore

#endif  // LIB_DATABASE_LOST_KEY_H
