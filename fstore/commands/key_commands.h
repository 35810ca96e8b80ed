// The commands below `fstore key`, a file each.
#ifndef FSTORE_COMMANDS_KEY_COMMANDS_H
#define FSTORE_COMMANDS_KEY_COMMANDS_H

#include "fstore/commands/cli.h"

namespace fstore {

void addKeyLs(Command& key);
void addKeyAdd(Command& key);
void addKeyRm(Command& key);
void addKeyTest(Command& key);
void addKeyRaw(Command& key);
void addKeyReset(Command& key);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_KEY_COMMANDS_H
