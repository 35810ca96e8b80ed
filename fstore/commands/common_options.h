// Options and arguments that several commands have, each declared once.
#ifndef FSTORE_COMMANDS_COMMON_OPTIONS_H
#define FSTORE_COMMANDS_COMMON_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "fstore/commands/command.h"
#include "fstore/commands/globals.h"
#include "lib/database/database.h"
#include "lib/records/address.h"
#include "lib/records/filter.h"
#include "lib/work/uri.h"

namespace fstore {

// ADDRESS: one record that is there, or some.
void addAddress(Command& command, std::string* target);
// The same for a command that only reads it: Command::readsMeant().
void addAddressToRead(Command& command, std::string* target);
void addAddresses(Command& command, std::vector<std::string>* target);

// A record by its address, or by the name of the host that it serves.
struct RecordChoice {
    std::optional<std::string> address, host;
    Selector::Type type = Selector::Type::kCertificate;
    std::string algorithm;
};
void addRecordChoice(Command& command, RecordChoice* target);

// Throws kUsage unless it is given in exactly one way, and kInvalid for what is no host.
void refuseChoice(const RecordChoice& choice);

// The record that is meant; warns about records that could not be read and might have been. A step
// of withSecrets(), as select().
Address chosen(Database& database, const RecordChoice& choice);

// --cost, of a new slot; none for the usual, or what it shares with other passwords.
void addCost(Command& command, unsigned int* target);
void addCost(Command& command, std::optional<int>* target);

// The path of this very program.
std::string thisProgram();

// For what is written down for later, and may come before the database.
void warnWithoutDatabase(const Globals& globals, Output& output);

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
