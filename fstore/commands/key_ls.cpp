// fstore key ls: the slots, without a password.
#include <optional>
#include <vector>

#include "fstore/commands/key_commands.h"
#include "fstore/commands/slot_text.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

// Which slot the given secret opens; 0 for none, and none when no secret was given. One that stands
// in the environment for another database does not keep the list from anybody.
std::optional<unsigned int> openedBy(Context& context) {
    if (!context.secret.isGiven()) {
        return std::nullopt;
    }
    try {
        const std::optional<UnlockSlot> opened = testSecret(context.database);
        return opened ? opened->n : 0;
    } catch (const Failure& failure) {
        if (failure.status() != kWrongPassword) {
            throw;
        }
        context.output.warn(failure.what());
        return 0;
    }
}

Status runKeyLs(Context& context) {
    Database& database = context.database;
    const std::optional<unsigned int> opened = openedBy(context);
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
    (void)key.subcommand("ls", "List the slots; marks the one that a given secret opens", runKeyLs);
}

}  // namespace fstore
