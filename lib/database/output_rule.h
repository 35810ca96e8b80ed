// Where no output may go.
#ifndef LIB_DATABASE_OUTPUT_RULE_H
#define LIB_DATABASE_OUTPUT_RULE_H

#include <string>

namespace fstore {

// For setOutputRule(): throws kInvalid for a file that is, or would be, in a database, or the file
// that is its lock or its index. The store alone writes those: an output would take a record's
// place, or that of the lock that others wait for. Any thread may call it.
void refuseInDatabase(const std::string& path, const std::string& name);

}  // namespace fstore

#endif  // LIB_DATABASE_OUTPUT_RULE_H
