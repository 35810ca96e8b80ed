// Which of two states of a file to keep, when a file synchroniser or a merge has left both.
#ifndef LIB_DATABASE_SETTLE_H
#define LIB_DATABASE_SETTLE_H

#include <string>

#include "lib/database/database.h"

namespace fstore {

enum class Keep {
    kOurs,   // the file as it is; of a merge, the state above
    kTheirs  // what the conflict copy has; of a merge, the state below
};

struct Settled {
    std::string kept;  // the path of the file, "./db/keys/a.dsc"
    std::string lost;  // the name of the folder in "./db.lost" that got the other state
};

// Settles the conflict that checkDatabase() has found at this path, "./db/keys/a.orig" or
// "keys/a.orig". The other state goes to "./db.lost", from where undoRepair() puts it back; so does
// its body when no other descriptor names it. Killed anywhere, the record is in one of the two
// states.
//
//   kMissing  no such file
//   kInvalid  it is no conflict; or it is one of the records of the password, whose copies a backup
//             or `fstore key reset` has to settle
//   kFound    the state to keep is damaged, or its body is not there; nothing has changed
Settled settle(Database& database, const std::string& path, Keep keep);

}  // namespace fstore

#endif  // LIB_DATABASE_SETTLE_H
