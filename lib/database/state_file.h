// When the database was last backed up and checked, in a file beside it: for alarms, and nothing
// depends on it. It can be deleted at any time, says nothing secret, and is in no backup.
//
// It is one line of a fixed length, written by one call: a crash leaves the line before or this
// one. Relative paths of the place begin at the current folder; no Hold lives. Throws nothing of
// its own: who cannot read it knows no times, and who cannot write it leaves the times before.
#ifndef LIB_DATABASE_STATE_FILE_H
#define LIB_DATABASE_STATE_FILE_H

#include <cstdint>
#include <optional>
#include <string>

#include "lib/database/place.h"

namespace fstore {

struct DatabaseState {
    std::optional<std::int64_t> backup, check;  // times; none for never, or not known
    bool isSound = false;                       // what the check found
};

DatabaseState readState(const Place& place);

// Whether something else has the name; inside the folder of a database. False when that cannot be
// known.
bool isOtherThanState();

// From now on nothing is known: the database is another one. False if that could not be noted.
bool forgetState(const Place& place);

// Whether it could be noted.
bool noteBackup(const Place& place, std::int64_t time);
bool noteCheck(const Place& place, std::int64_t time, bool isSound);

}  // namespace fstore

#endif  // LIB_DATABASE_STATE_FILE_H
