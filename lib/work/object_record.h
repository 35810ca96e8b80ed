// Certificates, CRLs, keys and requests in records: the attributes that follow from the object, as
// they are stored, and whether those of a record are still the ones of its object.
//
// Needs a Database that was entered. For one thread.
#ifndef LIB_WORK_OBJECT_RECORD_H
#define LIB_WORK_OBJECT_RECORD_H

#include <string>
#include <vector>

#include "lib/database/database.h"
#include "lib/database/deep_read.h"
#include "lib/pki/object.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {

// Adds what follows from the object to a record without it; with `encrypt`, what would tell
// something about the body is kept encrypted, or left out where it cannot be.
void describe(Record& record, const PkiObject& object, bool encrypt);

// Whether a record claims to describe an object, as far as its descriptor says.
bool describesObject(const RecordHead& head);

// The attributes of a readable record that say something else than the object in its body, a
// sentence without its name for each: what is stored, what the object says, and what to do. An
// attribute that a record does not have contradicts nothing, nor does one that users set; a record
// that is not of an object has no contradictions.
std::vector<std::string> contradictionsIn(const Record& record);

// Throws the first of them as kMalformed.
void checkObject(const Record& record);

// The record, all of it readable and compared with its object. A step of withSecrets(), which asks
// for secrets if the record has some; throws what readWhole() and checkObject() throw.
Record readObject(Database& database, const Address& address);

// For readEverything() and CheckOptions.
const Examiner& objectExaminer();

}  // namespace fstore

#endif  // LIB_WORK_OBJECT_RECORD_H
