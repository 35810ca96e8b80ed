// The repair of what a crash left behind, before anyone reads.
//
// The store's readers repair, too: they put back a descriptor that a write has moved aside. So
// nobody reads under a shared lock while there is something to repair.
#ifndef LIB_DATABASE_RECOVERY_H
#define LIB_DATABASE_RECOVERY_H

#include <string>

#include "lib/database/protection.h"
#include "lib/database/store_service.h"

namespace fstore {

// Whether reading the database would change it. The caller holds a lock of either kind.
bool needsRecovery();

// Puts a saved descriptor, "a.dsc.$o$", back to where it was, unless there is another one.
void putBack(const std::string& saved);

// Undoes an interrupted command, or finishes it; creates missing folders. Returns the
// protection that is then in force. The caller holds the exclusive lock. May itself be
// interrupted anywhere.
Protection recover(StoreService& store);

}  // namespace fstore

#endif  // LIB_DATABASE_RECOVERY_H
