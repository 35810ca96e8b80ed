// The record of tests/data/unlock_slots.txt, with a slot of each kind, and the secrets that open
// it.
#ifndef TESTS_LIB_DATABASE_UNLOCK_EXAMPLE_H
#define TESTS_LIB_DATABASE_UNLOCK_EXAMPLE_H

#include <string>
#include <vector>

namespace fstore::example {

// What stands behind "<name> = ".
std::string valueOf(const std::string& name);
std::vector<std::string> linesOfRecord();

inline const std::vector<std::string> kLines = linesOfRecord();
inline const std::string kP = valueOf("P");
inline const std::string kPassword = valueOf("password");
inline const std::string kPasswordRaw = valueOf("password-raw");  // of scrypt, in digits
// The key's digits in the file "fstore-key-1:<64 digits>:<8 digits>".
inline const std::string kKeyFile = valueOf("file").substr(13, 64);

}  // namespace fstore::example

#endif  // TESTS_LIB_DATABASE_UNLOCK_EXAMPLE_H
