// fstore key ls: the slots, without a password.
#include <optional>
#include <vector>

#include "fstore/commands/key_commands.h"
#include "fstore/commands/slot_text.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

Status run(Context& context) {
    Database& database = context.database;
    std::optional<unsigned int> opened;
    if (context.secret.isGiven()) {
        opened = testSecret(database);
    }
    const std::vector<UnlockSlot> slots = listSlots(database);
    if (slots.empty()) {
        context.output.note(
            "the database has a password and no slots; `fstore passwd` gives it a key of its own");
    } else {
        context.output.table(tableOf(slots, opened));
    }
    context.output.document({{"slots", toJson(slots, opened)}});
    return kOk;
}

}  // namespace

void addKeyLs(Command& key) {
    (void)key.subcommand("ls", "List the slots; marks the one that a given secret opens", run);
}

}  // namespace fstore
