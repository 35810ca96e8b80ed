// The repair of what a crash left behind, before anyone reads.
//
// The store's readers repair, too: they put back a descriptor that a write has moved aside. So
// nobody reads under a shared lock while there is something to repair.
#ifndef LIB_DATABASE_RECOVERY_H
#define LIB_DATABASE_RECOVERY_H

#include <span>
#include <string>

#include "lib/database/protection.h"
#include "lib/database/store_service.h"
#include "lib/index/record_index.h"
#include "lib/records/address.h"

namespace fstore {

// Whether reading the database would change it. The caller holds a lock of either kind. No folder
// is listed where an index shows that none has changed since its files were read; a default one
// shows nothing.
bool needsRecovery(const IndexSetup& index = {});

// The same of the records of the password alone, without looking at others. There is a "./db".
bool needsRecoveryOfPassword();

// Puts a saved descriptor, "a.dsc.$o$", back to where it was, unless there is another one.
void putBack(const std::string& saved);

// Creates missing folders, removes an unfinished copy, and puts back what a write moved aside: all
// that is done without looking at the slots. The caller holds the exclusive lock.
void recoverFiles(StoreService& store, const IndexSetup& index = {});

// Undoes an interrupted command, or finishes it; creates missing folders; writes the copy of the
// slots that is lost or older. Returns the protection that is then in force. The caller holds the
// exclusive lock. May itself be interrupted anywhere.
//
// Both sets of a change of the password stay, unless there was no password before: the record
// "key", which tells them apart, may be an old one, and the other set the only one that opens
// the records. See dropUndoneSet().
Protection recover(StoreService& store, const IndexSetup& index = {});

// The same for who looks at no records but these, so that the size of the database makes no
// difference: what a crash has left of others stays for whoever looks at them. Where the password
// is not as it should be, the same without exception.
Protection recoverNamed(StoreService& store, std::span<const AddressText> named,
                        const IndexSetup& index = {});

// Drops the set of a change that has not happened, and will not. The caller knows that the records
// are encrypted with the P of the other one.
Protection dropUndoneSet(const Protection& undone);

}  // namespace fstore

#endif  // LIB_DATABASE_RECOVERY_H
