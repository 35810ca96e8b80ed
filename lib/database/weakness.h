// What makes a sound database easier to attack or to lose than it need be.
#ifndef LIB_DATABASE_WEAKNESS_H
#define LIB_DATABASE_WEAKNESS_H

#include <cstdint>
#include <string>
#include <vector>

#include "lib/database/database.h"

namespace fstore {

struct Weakness {
    const char* kind;     // the same word in every version: "writable-folder", "weak-cost", ...
    std::string path;     // of the file or folder, or empty
    std::string message;  // one sentence without the path
};

// Folders of the database that all users may write, and slots whose password is cheaper to guess
// than by the default cost. Enters the database, and needs no secret.
std::vector<Weakness> weaknessesOf(Database& database);

// Unless a backup of it is known that is no older than so many seconds.
std::vector<Weakness> backupWeakness(const Place& place, std::int64_t seconds);

}  // namespace fstore

#endif  // LIB_DATABASE_WEAKNESS_H
