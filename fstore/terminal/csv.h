// Lines of comma-separated values (RFC 4180).
#ifndef FSTORE_TERMINAL_CSV_H
#define FSTORE_TERMINAL_CSV_H

#include <string>
#include <vector>

namespace fstore {

// The fields as one line with its end. What a terminal must not show is escaped as in a table.
// A spreadsheet takes a text that begins with "=", "+", "-" or "@" for a formula, and who makes a
// certificate chooses its names: such a text gets an apostrophe in front.
std::string csvLine(const std::vector<std::string>& fields);

}  // namespace fstore

#endif  // FSTORE_TERMINAL_CSV_H
