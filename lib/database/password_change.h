// The change of the database's password. Wherever it is interrupted, one of the two passwords
// opens all of the database.
//
//     1  read and decrypt everything: what does not decrypt would silently stay behind
//     2  write the slots, both copies: the old and the new set
//     3  let the store re-encrypt a copy and swap it in
//     4  make that durable
//     5  open with the new P, decrypt everything, compare; when that fails, the old folder goes
//        back in place
//     6  drop "./old_db", renamed first, so that it is never there in part; or keep it as
//        "./db-<time>", if it is to be kept
//     7  write the slots, both copies: the new set only
//
// Until step 7 there are two sets, and the record "key" says which is in force. If it is the old
// one, the next command that locks exclusively removes the other set and "./new_db" (recovery.h).
// If it is the new one, the next command that opens the database, by any of its slots, does steps
// 4 to 7. The old folder goes before the old set: with one set, nobody could know whether a folder
// that is still there was to be kept.
//
// The caller holds the exclusive lock. Both return the protection that is then in force.
#ifndef LIB_DATABASE_PASSWORD_CHANGE_H
#define LIB_DATABASE_PASSWORD_CHANGE_H

#include "lib/base/observer.h"
#include "lib/database/protection.h"
#include "lib/database/slot_sets.h"
#include "lib/database/store_service.h"

namespace fstore {

// Steps 1 to 7. The store is open with the P of `before`; afterwards it is open with the new one.
// Throws kFound when step 1 finds damage, kInterrupted up to step 3.
Protection changePassword(StoreService& store, Observer& observer, const Protection& before,
                          NewKey fresh, bool keepOld);

// Steps 4 to 7, of a store that is open with the new P.
Protection finishPasswordChange(StoreService& store, Observer& observer,
                                const Protection& unfinished);

}  // namespace fstore

#endif  // LIB_DATABASE_PASSWORD_CHANGE_H
