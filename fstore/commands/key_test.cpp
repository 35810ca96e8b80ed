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

Status run(const std::optional<std::string>& wanted, Context& context) {
    Database& database = context.database;
    const unsigned int opened = testSecret(database);
    const std::vector<UnlockSlot> slots = listSlots(database);
    if (slots.empty()) {
        context.output.line("opens the database, which has no slots");
        context.output.document({{"opens", Json()}});
        return kOk;
    }
    const UnlockSlot& slot = slotOf(slots, opened);
    if (const unsigned int n = wanted ? findSlot(slots, *wanted) : opened; n != opened) {
        throw Failure(
            kWrongPassword,
            fmt::format("this opens {}, and not {}", describe(slot), describe(slotOf(slots, n))),
            *wanted);
    }
    context.output.line(fmt::format("opens {}", describe(slot)));
    context.output.document({{"opens", toJson(slot)}});
    return kOk;
}

}  // namespace

void addKeyTest(Command& key) {
    const auto slot = std::make_shared<std::optional<std::string>>();
    Command& command = key.subcommand("test", "Say which slot the given secret opens",
                                      [slot](Context& context) { return run(*slot, context); });
    command.argument("SLOT", slot.get(), "That it has to be: a number or label").required = false;
}

}  // namespace fstore
