// fstore key test: which slot a secret opens.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/key_commands.h"
#include "fstore/commands/slot_text.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

void requireOpened(const UnlockSlot& opened, const UnlockSlot& wanted) {
    if (wanted.n != opened.n) {
        throw Failure(kWrongPassword,
                      fmt::format("this opens {}, and not {}", describe(opened), describe(wanted)));
    }
}

Status runKeyTest(const std::optional<std::string>& wanted, Context& context) {
    Database& database = context.database;
    const std::optional<UnlockSlot> opened = testSecret(database);
    if (!opened) {
        context.output.line("opens the database, which has no slots");
        context.output.document({{"opens", Json()}});
        return kOk;
    }
    if (wanted) {
        const std::vector<UnlockSlot> slots = listSlots(database);
        requireOpened(*opened, findSlot(slots, *wanted));
    }
    context.output.line(fmt::format("opens {}", describe(*opened)));
    context.output.document({{"opens", toJson(*opened)}});
    return kOk;
}

}  // namespace

void addKeyTest(Command& key) {
    const auto slot = std::make_shared<std::optional<std::string>>();
    Command& command =
        key.subcommand("test", "Say which slot the given secret opens",
                       [slot](Context& context) { return runKeyTest(*slot, context); });
    command.argument("SLOT", slot.get(), "That it has to be: a number or label").required = false;
}

}  // namespace fstore
