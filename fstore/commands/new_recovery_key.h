// A new recovery key, which reaches its owner before a slot is written for it.
//
// For the main thread, while nothing is locked. Failures throw.
#ifndef FSTORE_COMMANDS_NEW_RECOVERY_KEY_H
#define FSTORE_COMMANDS_NEW_RECOVERY_KEY_H

#include <optional>
#include <string>

#include "fstore/commands/cli.h"
#include "fstore/terminal/recovery_sheet.h"
#include "lib/database/slot_sets.h"

namespace fstore {

// What the command line says about it.
struct RecoveryOptions {
    bool wanted = false;
    std::optional<std::string> sheet;  // the file to write it to; none for the terminal
};

// --recovery, which is returned, and --sheet.
Option& addRecovery(Command& command, const std::string& description, RecoveryOptions& target);

// The sheet for a slot of the database in this folder.
RecoverySheet sheetFor(const std::string& folder, const DatabaseId& db, unsigned int slot,
                       const std::string& label);

class NewRecoveryKey {
public:
    // Draws it. Obstacles show now: kInvalid when something has the name of the sheet's file,
    // kUsage when there is neither a file nor a terminal.
    NewRecoveryKey(std::optional<std::string> sheet, Context& context);

    NewRecoveryKey(const NewRecoveryKey&) = delete;
    NewRecoveryKey& operator=(const NewRecoveryKey&) = delete;
    // Warns of a key that its owner has, if nothing said that its slot was written.
    ~NewRecoveryKey();

    // Shows the sheet and asks for a group of it, or writes it to its file.
    void handOver(const RecoverySheet& sheet);
    void confirmSlot() noexcept { hasSlot_ = true; }

    UnlockSecret secret() const { return {UnlockSecret::Kind::kRecovery, {}, key_}; }

private:
    std::optional<std::string> file_;
    Context& context_;
    SecretKey key_;
    bool isWithOwner_ = false;
    bool hasSlot_ = false;
};

}  // namespace fstore

#endif  // FSTORE_COMMANDS_NEW_RECOVERY_KEY_H
