// The sheet with a recovery key: what is written down, printed, and put into a safe.
//
// For the main thread.
#ifndef FSTORE_TERMINAL_RECOVERY_SHEET_H
#define FSTORE_TERMINAL_RECOVERY_SHEET_H

#include <cstddef>
#include <string>

#include "lib/base/secret.h"

namespace fstore {

// What the key opens.
struct RecoverySheet {
    std::string folder;     // absolute; holds "db"
    std::string database;   // the first digits of its id
    unsigned int slot = 0;  // its number
    std::string label;      // of the slot; may be empty
    std::string made;       // date and time
};

// The sheet as text; no line is wider than `columns`, which are 40 or more. `key` is what
// printRecoveryKey() printed.
SecretText printSheet(const RecoverySheet& sheet, const SecretText& key, std::size_t columns);

// Throws kUsage when there is no terminal to show a recovery key on.
void requireTerminal(bool noInput);

// Shows the sheet on the terminal and asks for this group of the key, so that nobody goes on who
// has not written it down. kUsage when there is no terminal or nothing is typed, kInvalid when the
// group was wrong three times.
void showSheet(const RecoverySheet& sheet, const SecretText& key, unsigned int group, bool noInput);

// Writes the sheet into a new file, for its owner only, which is on the disk when this returns.
// kInvalid when something has the name.
void writeSheet(const RecoverySheet& sheet, const SecretText& key, const std::string& file);

}  // namespace fstore

#endif  // FSTORE_TERMINAL_RECOVERY_SHEET_H
