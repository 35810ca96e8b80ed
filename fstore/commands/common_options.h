// Options and arguments that several commands have, each declared once.
#ifndef FSTORE_COMMANDS_COMMON_OPTIONS_H
#define FSTORE_COMMANDS_COMMON_OPTIONS_H

#include <string>
#include <vector>

#include "fstore/commands/command.h"
#include "fstore/commands/globals.h"
#include "lib/records/filter.h"

namespace fstore {

// ADDRESS: one record that is there, or some.
void addAddress(Command& command, std::string* target);
void addAddresses(Command& command, std::vector<std::string>* target);

// --cost, of a new slot.
void addCost(Command& command, unsigned int* target);

// The conditions of a listing.
void addFilters(Command& command, Filters& target);

// -f, --force, of what writes a file.
void addForce(Command& command, bool* target);

// -o, --output, a private file instead of the standard output.
void addOutput(Command& command, std::string* target);

// "<prefix>-file" and "<prefix>-fd", where `what` comes from: "the new password".
void addPassword(Command& command, const std::string& prefix, const std::string& what,
                 PasswordOptions& target);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_COMMON_OPTIONS_H
