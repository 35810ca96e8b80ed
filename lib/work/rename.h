// Another place for a record, or a second one.
//
// For one thread, in a database that is entered for changes. Failures throw.
#ifndef LIB_WORK_RENAME_H
#define LIB_WORK_RENAME_H

#include <optional>
#include <string>
#include <vector>

#include "lib/database/database.h"
#include "lib/records/address.h"

namespace fstore {

// The places that renameRecord() looks at, to enter by; none when only a look at all records tells.
std::vector<AddressText> namesForRenaming(const std::string& text, const Address& to);

struct Renaming {
    Address from;
    std::optional<std::string> bodyKept;  // why a body file stays: BodyOwners::doubtAbout()
};

// Gives the record that the user means another folder, another name, or both. Its attributes and
// body stay what they are, encrypted or not; nothing that is at the new place is replaced.
//
// A step of withSecrets(): asks for secrets if the record has some, since they are encrypted
// again. The record is written whole to its new place before it is removed from its old one, so
// that it is never without a place: after a death in between it has both, with the same contents,
// and whoever removes the old one finishes the move.
//
//   kMissing    there is no such record, or no folder for the new one
//   kInvalid    several are meant; or the new place is taken; or one of the two is a place that
//               refuseInternal() refuses
//   kMalformed  the body is not the one whose digest the record has: a damaged record stays
//               where it is, for `fstore check`
Renaming renameRecord(Database& database, const std::string& text, const Address& to);

// Makes a record of the same attributes and body at the new place, as renameRecord(), and leaves
// the old one. The address of that.
Address copyRecord(Database& database, const std::string& text, const Address& to);

}  // namespace fstore

#endif  // LIB_WORK_RENAME_H
