// Unlock slots as commands name, list and describe them.
#ifndef FSTORE_COMMANDS_SLOT_TEXT_H
#define FSTORE_COMMANDS_SLOT_TEXT_H

#include <optional>
#include <string>
#include <vector>

#include "fstore/terminal/json.h"
#include "fstore/terminal/output.h"
#include "fstore/terminal/table.h"
#include "lib/database/unlock_text.h"

namespace fstore {

// "slot 2 (recovery key \"safe\")"
std::string describe(const UnlockSlot& slot);

// Several, with commas.
std::string describe(const std::vector<UnlockSlot>& slots);

// That a secret which opens no slot any more still opens copies from before.
void noteOldCopies(Output& output);

// The slot of this number, which is one of them.
const UnlockSlot& slotOf(const std::vector<UnlockSlot>& slots, unsigned int n);

// Number, kind, label, date and cost, a line each; `opened` is marked.
Table tableOf(const std::vector<UnlockSlot>& slots, std::optional<unsigned int> opened);
Json toJson(const UnlockSlot& slot);
Json toJson(const std::vector<UnlockSlot>& slots, std::optional<unsigned int> opened);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_SLOT_TEXT_H
