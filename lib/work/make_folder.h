// Folders for records.
//
// For one thread, in a database that is entered for changes. Failures throw.
#ifndef LIB_WORK_MAKE_FOLDER_H
#define LIB_WORK_MAKE_FOLDER_H

#include <string>

namespace fstore {

// Makes the folder, for those who may use the one above it; with `parents` also those above it, and
// one that is there is no failure. Each is on disk before the next one is made.
//
//   kInvalid  the text names no folder below "db", or one that cannot be told from a file of the
//             store's; or there is one already
//   kMissing  there is no folder above it
void makeFolder(const std::string& text, bool parents);

}  // namespace fstore

#endif  // LIB_WORK_MAKE_FOLDER_H
