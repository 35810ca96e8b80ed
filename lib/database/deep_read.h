// Everything in the database, read, decrypted and compared with its attributes.
#ifndef LIB_DATABASE_DEEP_READ_H
#define LIB_DATABASE_DEEP_READ_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/base/observer.h"
#include "lib/database/finding.h"
#include "lib/records/address.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {

struct DamagedRecord {
    Address address;
    Failure failure;  // or why it could not be examined: Failure::isDenied()
};

struct DeepReport {
    std::uint64_t records = 0;
    std::uint64_t secrets = 0;  // encrypted bodies and attributes
    std::vector<DamagedRecord> damaged;
    std::vector<Failure> unread;        // folders and records that were not looked at
    std::vector<Finding> contradicted;  // what the examiner found
    // A digest of all contents in plain form: the same before and after a change of the
    // password.
    std::vector<unsigned char> fingerprint;
};

enum class Bodies {
    kAll,
    kUnasked  // a record whose body has more than kMostUnasked bytes is not read
};

// Compares records with the objects in their bodies, whose formats this room does not know.
struct Examiner {
    // Whether there is something to compare, as far as the descriptor says: other plain bodies
    // take no memory.
    std::function<bool(const RecordHead&)> concerns;
    // What is wrong with a readable record: a sentence without its name for each attribute.
    std::function<std::vector<std::string>(const Record&)> contradictions;
};

// Reads every record but the internal ones; each is a step of the work that `what` names.
// The database is open. `examiner` may be null. Throws kInterrupted.
DeepReport readEverything(Observer& observer, const std::string& what, Bodies bodies,
                          const Examiner* examiner);

// Throws kMalformed when the body of a readable record does not match its attributes.
void checkBody(const Record& record);

}  // namespace fstore

#endif  // LIB_DATABASE_DEEP_READ_H
