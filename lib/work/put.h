// What is written into a record: any bytes as its body, and attributes of the user's.
//
// For one thread, in a database that is entered for changes. Failures throw.
#ifndef LIB_WORK_PUT_H
#define LIB_WORK_PUT_H

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "format/dsc_text.h"
#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/records/address.h"
#include "lib/records/record.h"

namespace fstore {

struct PutRules {
    std::string label;   // empty for the one that the record has
    bool plain = false;  // body and digest are not encrypted
    bool isNew = false;  // RecordExists when there is such a record
    // But not when it is still as this RecordExists::state() says.
    std::vector<unsigned char> replaced = {};
};

// There is a record where a new one was to be made.
class RecordExists : public Failure {
public:
    explicit RecordExists(const Address& address, std::vector<unsigned char> state = {});

    // What putBody() met: each change of the record gives it another.
    const std::vector<unsigned char>& state() const noexcept { return state_; }

private:
    std::vector<unsigned char> state_;
};

// What an editor gets of a record.
struct Editable {
    bool isThere = false;  // else it is to be made, with an encrypted body
    bool plain = false;    // as PutRules::plain
    SecretBytes body;
    std::vector<unsigned char> state;  // as RecordExists::state()
};

// A step of withSecrets(): asks for secrets if the record has some, or is to be made.
//
//   kInvalid    as putBody()
//   kMissing    there is neither such a record nor its folder
//   kNotOpen    a new one would be secret, and the database cannot keep secrets
//   kMalformed, kIo  as readWhole()
Editable readEditable(Database& database, const Address& address);

// Drawn by OpenSSL.
SecretBytes randomBytes(std::size_t size);

// Gives the record of this address these bytes as its body, with their digest and the time. What
// is not there is created as a record of kind kRaw; what is there keeps its other attributes.
//
// A step of withSecrets(), entered as needFor(!rules.plain) says: asks for secrets if the present
// record has some. Wipes `bytes` before it writes, which is one copy less in memory.
//
//   kInvalid    RecordExists; or the record is a certificate, a key or the like, or one that
//   refuseInternal()
//               refuses; or nothing would be stored in plain form, which no record can hold
//   kMissing    the database has no such folder
//   kNotOpen    the bytes are secret, and the database cannot keep secrets
//   kMalformed  the present body may be another record's, too
// After any of these, and after a failure to write, the present record is as it was.
void putBody(Database& database, const Address& address, SecretBytes& bytes, const PutRules& rules);

// Whether users may give records an attribute with this id: the others describe the record.
bool isEditable(unsigned int id);

// One attribute of the user's, instead of all that the record has with its id; or their removal.
// While the record keeps one of them encrypted, so is what takes its place.
struct AttributeChange {
    unsigned int id = 0;
    unsigned int type = kTypeText;
    SecretBytes value;  // of a number, its 4 bytes
    bool encrypted = false;
    bool isRemoval = false;

    // Throws kMalformed for a text, other than a label, that a descriptor cannot hold, and kEnd for
    // the removal of what is not there.
    void applyTo(Record& record) const;
};

struct RecordChange {
    enum class Presence {
        kEither,
        kNew,   // RecordExists when there is such a record
        kThere  // kMissing when there is none
    };

    std::optional<std::span<const unsigned char>> body;
    bool plain = false;  // as PutRules::plain
    std::vector<AttributeChange> attributes;
    Presence presence = Presence::kEither;
};

// Makes these changes to the record of this address, and returns it as it was written. What they do
// not mention stays as it is on disk.
//
// A step of withSecrets(). Failures as those of putBody() and of AttributeChange::applyTo().
Record changeRecord(Database& database, const Address& address, const RecordChange& change);

}  // namespace fstore

#endif  // LIB_WORK_PUT_H
