// fstore key: what opens the database.
#include "fstore/commands/commands.h"
#include "fstore/commands/key_commands.h"

namespace fstore {

void addKey(Cli& cli) {
    Command& key = cli.add("key", "List, add, remove and test what opens the database", {});
    addKeyLs(key);
    addKeyAdd(key);
    addKeyRm(key);
    addKeyTest(key);
    addKeyRaw(key);
    addKeyReset(key);
}

}  // namespace fstore
