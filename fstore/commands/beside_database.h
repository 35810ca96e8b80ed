// Files that a command writes, and the database: a secret does not belong beside what it opens.
#ifndef FSTORE_COMMANDS_BESIDE_DATABASE_H
#define FSTORE_COMMANDS_BESIDE_DATABASE_H

#include <string>

#include "fstore/commands/cli.h"

namespace fstore {

// Warns when the file, which is there, lies in the folder of the database or in the database
// itself. `what` is "key file" or the like.
void warnIfBeside(const std::string& what, const std::string& file, Context& context);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_BESIDE_DATABASE_H
