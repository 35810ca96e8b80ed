// The password records of the databases that stand beside "./db".
//
// Needs a StoreService that has started. For one thread, which keeps other processes out.
// Failures throw.
#ifndef LIB_DATABASE_BESIDE_H
#define LIB_DATABASE_BESIDE_H

#include "lib/database/unlock_text.h"

namespace fstore {

// Whether "./old_db" is the database that this set was in force in. False when that cannot be
// told: such a folder is somebody's database, and not what a change of the password left.
bool isPreviousOf(const SlotSet& set);

// Leaves in "./new_db", the contents of a backup, only the set that is in force there. A backup
// that was made within a change of the password has two; as "./db" it would be taken for the
// change itself, and "./old_db" beside it for what that change may delete.
void settleCopy();

}  // namespace fstore

#endif  // LIB_DATABASE_BESIDE_H
