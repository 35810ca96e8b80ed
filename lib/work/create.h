// A database where there is none.
//
// For one thread; no Hold of the database lives. Failures throw.
#ifndef LIB_WORK_CREATE_H
#define LIB_WORK_CREATE_H

#include <functional>

#include "lib/base/secret.h"
#include "lib/database/database.h"

namespace fstore {

// Asked while nothing is locked, and only if a password is needed.
using NewPassword = std::function<const SecretText&()>;

// Creates the database with a random key and one slot, for this password, of which a guess costs
// `ln` (lib/database/scrypt.h); also one that is there without records and without a password, as a
// death in here leaves it. Returns false when there is one with a password already, or another
// process has created one while this one was asked for: nothing has changed then, and the password
// need not be that of the database.
//
// Nothing is created before there is a password: what is left after a failure would be a database
// without one.
//
//   kInvalid  the database has records and no password, or one that is cheap to guess: such
//             databases get theirs by a change of the password
bool createDatabase(Database& database, unsigned int ln, const NewPassword& password);

}  // namespace fstore

#endif  // LIB_WORK_CREATE_H
