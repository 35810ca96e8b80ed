// Records as they are handed out: readable, and compared with what they say about themselves.
//
// For one thread, in a database that is entered. Steps of withSecrets(): they ask for secrets only
// if the record has some. Failures throw:
//
//   kMissing    there is no such record, or its body is missing
//   kInvalid    several are meant
//   kMalformed  the body is not the one whose digest the record has
//   kIo         a secret does not decrypt
#ifndef LIB_WORK_GET_H
#define LIB_WORK_GET_H

#include <string>

#include "lib/database/database.h"
#include "lib/records/address.h"
#include "lib/records/record.h"

namespace fstore {

// The record, all of it readable.
Record readWhole(Database& database, const Address& address);

// The record that the user means, for its body alone: encrypted attributes stay so while body and
// digest are plain, and no secret is asked for. Throws kEnd when it has no body.
Record readBody(Database& database, const std::string& text);

}  // namespace fstore

#endif  // LIB_WORK_GET_H
