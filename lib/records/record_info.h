// The attributes of a record in the form in which they are shown and searched. A plain
// value: needs no database and no lock.
#ifndef LIB_RECORDS_RECORD_INFO_H
#define LIB_RECORDS_RECORD_INFO_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lib/records/address.h"
#include "lib/records/attributes.h"

namespace fstore {

class Record;
class RecordHead;
class RecordCopy;

struct RecordInfo {
    Address address;
    Kind kind = Kind::kUnknown;
    std::string label, subject, issuer, keyAlgorithm;
    std::vector<std::string> altNames;
    std::string serial, sha256, keySha256, authorityKeyId;  // hexadecimal digits
    std::optional<std::int64_t> notBefore, notAfter, imported;
    bool isCa = false;
    bool hasBody = false, bodyEncrypted = false;
    std::uint64_t bodySize = 0;  // as it is on disk
};

// What can be read of the record now: if it is not decrypted, what is plain.
RecordInfo infoOf(const Record& record);
RecordInfo infoOf(const RecordHead& head);
RecordInfo infoOf(const RecordCopy& copy);

// Whether something that would tell what is in the body is kept encrypted.
bool hidesItsDescription(const Record& record);
bool hidesItsDescription(const RecordHead& head);

// Whether its kind is kept encrypted.
bool hidesKind(const RecordHead& head);

}  // namespace fstore

#endif  // LIB_RECORDS_RECORD_INFO_H
