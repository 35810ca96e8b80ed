// One folder of the database: what each file in it is, and what is to become of it.
//
// What a crash of the store can leave goes: it is deleted where a sound descriptor shows that it
// belongs to a removal or to a replacement that was acknowledged, and moved away otherwise. While
// a descriptor that stays cannot be relied on, no file that might be its body goes anywhere.
#ifndef LIB_DATABASE_FOLDER_CHECK_H
#define LIB_DATABASE_FOLDER_CHECK_H

#include <functional>
#include <string>
#include <vector>

#include "lib/database/finding.h"

namespace fstore {

// Appends what is found in the folder, a name as allFolders() gives it. Reads every record,
// decrypts nothing and changes nothing.
//
// Calls done() after each descriptor, if there is one; what it throws ends the work.
using FileDone = std::function<void()>;
void checkFolder(const std::string& folder, std::vector<Finding>& findings,
                 const FileDone& done = {});

}  // namespace fstore

#endif  // LIB_DATABASE_FOLDER_CHECK_H
