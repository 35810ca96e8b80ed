// What a crash left over, repaired before anybody reads.
//
// The store's readers repair too: they put a descriptor back that a write has moved aside.
// So nobody reads under a shared lock before there is nothing left to repair.
#ifndef LIB_DATABASE_RECOVERY_H
#define LIB_DATABASE_RECOVERY_H

#include "lib/database/protection.h"
#include "lib/database/store_service.h"

namespace fstore {

// Whether reading the database would change it. Any lock is held.
bool needsRecovery();

// With the exclusive lock held: brings back what stood before a command that was broken
// off, or what stands after it; makes folders that are missing. Returns the protection that
// is then in force. May itself be broken off anywhere.
Protection recover(StoreService& store);

}  // namespace fstore

#endif  // LIB_DATABASE_RECOVERY_H
