// Which records a user means by less than an address: a pattern, a label, the beginning of a name.
//
// For one thread, in a database that is entered for reading. Looks at all records. Failures throw.
#ifndef LIB_WORK_MEANT_H
#define LIB_WORK_MEANT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/database/database.h"
#include "lib/records/address.h"

namespace fstore {

// Whether the text has a "*", "?" or "[".
bool isPattern(std::string_view text);

// The records, by folder and name, whose address matches: "*" stands for any characters but "/",
// "?" for one of them, "[...]" for one of a set, "\" makes the next one plain. A pattern without
// "/" is compared with names, in whatever folder. None but the user's own records.
std::vector<Address> recordsMatching(std::string_view pattern);

// The one record that is meant by what is no address: that of a pattern, or, of a text without "/",
// that with this label or else that whose name begins so. None for a digest, for the place of a
// record that is not there, or when there is none.
//
//   kInvalid  there are several
std::optional<Address> meantRecord(Database& database, std::string_view text);

// For who makes a record of this address unless there is one. Throws kInvalid when it is a pattern
// that matches others: whoever wrote it meant these.
void refusePattern(const Address& place);

// Throws kInvalid, as the text may mean any of these.
[[noreturn]] void failAmbiguous(std::string_view text, const std::vector<Address>& found);

// The addresses with the records that match in place of each pattern. What is the address of a
// record is no pattern.
//
//   NoRecord  nothing matches one of the patterns
//   kInvalid  a pattern has no folder, and so would match in all of them
std::vector<std::string> withoutPatterns(const std::vector<std::string>& texts);

}  // namespace fstore

#endif  // LIB_WORK_MEANT_H
