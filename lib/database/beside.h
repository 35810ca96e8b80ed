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

// Leaves in this folder, which is to be a database by itself, only the set that is in force there.
// What a change of the password leaves aside has two, and so has a backup that was made within one:
// as "./db" it would be taken for the change itself, and "./old_db" beside it for what that change
// may delete.
void settleBeside(const char* folder);

}  // namespace fstore

#endif  // LIB_DATABASE_BESIDE_H
