// Where no output may go.
#ifndef LIB_DATABASE_OUTPUT_RULE_H
#define LIB_DATABASE_OUTPUT_RULE_H

#include <string>

namespace fstore {

// For setOutputRule(): throws kInvalid for a file that is, or would be, in a database, or has the
// name of its lock, its index, or what a change or a repair puts beside it. The store alone writes
// those: an output would take a record's place, or that of the lock that others wait for, or be
// removed. Any thread may call it.
void refuseInDatabase(const std::string& path, const std::string& name);

}  // namespace fstore

#endif  // LIB_DATABASE_OUTPUT_RULE_H
