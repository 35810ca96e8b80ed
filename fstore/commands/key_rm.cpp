// fstore key rm: a secret opens the database no more.
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/key_commands.h"
#include "fstore/commands/slot_text.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

struct KeyRmOptions {
    std::string slot;
    bool force = false;
};

Status runKeyRm(const KeyRmOptions& options, Context& context) {
    Database& database = context.database;
    const std::vector<UnlockSlot> slots = listSlots(database);
    const UnlockSlot& removed = findSlot(slots, options.slot);
    removeSlot(database, removed, options.force);
    context.output.note(fmt::format("removed {}", describe(removed)));
    noteOldCopies(context.output);
    context.output.document({{"removedSlot", toJson(removed)}});
    return kOk;
}

}  // namespace

void addKeyRm(Command& key) {
    const auto options = std::make_shared<KeyRmOptions>();
    Command& command = key.subcommand(
        "rm", "Remove a slot", [options](Context& context) { return runKeyRm(*options, context); });
    command.argument("SLOT", &options->slot, "Its number or label");
    command.flag(
        "-f,--force", &options->force,
        "Also the slot that opened the database, and the last one that is no recovery key");
}

}  // namespace fstore
