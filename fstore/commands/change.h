// Records that a command is about to change.
#ifndef FSTORE_COMMANDS_CHANGE_H
#define FSTORE_COMMANDS_CHANGE_H

#include <string>

#include "lib/database/database.h"
#include "lib/records/record.h"

namespace fstore {

// The record that the user means, readable, in a database that is entered for changes. A step
// of withSecrets(): asks for secrets if the record has some or will get one. Throws kInvalid
// for the records that the tool keeps for itself.
Record readForChange(Database& database, const std::string& text, bool getsSecret);

// Throws kInvalid for those.
void refuseInternal(const Address& address);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_CHANGE_H
