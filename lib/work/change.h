// Records that an operation is about to change.
//
// For one thread, in a database that is entered for changes. Failures throw.
#ifndef LIB_WORK_CHANGE_H
#define LIB_WORK_CHANGE_H

#include <string>

#include "lib/database/database.h"
#include "lib/records/record.h"

namespace fstore {

// The record that the user means, readable. A step of withSecrets(): asks for secrets if the
// record has some or will get one.
//
//   kMissing  there is no such record
//   kInvalid  several are meant, or one that refuseInternal() refuses
//   kNotOpen  it will get a secret, and the database cannot keep any
Record readForChange(Database& database, const std::string& text, bool getsSecret);

// The same of the record there, whichever it is.
Record readForChange(Database& database, const Address& address, bool getsSecret);

// Throws kInvalid for the records of the database's password, which only a change of it may
// touch. Needs no database.
void refuseInternal(const Address& address);

}  // namespace fstore

#endif  // LIB_WORK_CHANGE_H
