// Names for files that have to stay: keys, and what is printed for a safe.
//
// Failures throw.
#ifndef LIB_BASE_NEW_FILE_H
#define LIB_BASE_NEW_FILE_H

#include <string>

namespace fstore {

// Before such a file is made: throws kInvalid for the name of anything that is there, and for a
// stream, which would have the bytes only now. Waits for nobody.
void requireNewFile(const std::string& name);

}  // namespace fstore

#endif  // LIB_BASE_NEW_FILE_H
