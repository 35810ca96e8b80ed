// The contents of a record, apart from its database: a plain value that outlives the Hold in which
// they were read. Wiped when it goes.
#ifndef LIB_RECORDS_RECORD_COPY_H
#define LIB_RECORDS_RECORD_COPY_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/records/address.h"

namespace fstore {

class Record;
class RecordHead;

class RecordCopy {
public:
    // A record that is not on disk yet.
    explicit RecordCopy(Address address) : address_(std::move(address)) {}
    // What can be read of it now; of a head, nothing of the body but its size.
    explicit RecordCopy(const Record& record);
    explicit RecordCopy(const RecordHead& head);

    const Address& address() const noexcept { return address_; }

    // Attributes by index, as those of a Record. One that is not known has no bytes.
    unsigned int count() const { return static_cast<unsigned int>(attributes_.size()); }
    unsigned int type(unsigned int index) const { return attributes_[index].type; }
    unsigned int id(unsigned int index) const { return attributes_[index].id; }
    bool isEncrypted(unsigned int index) const { return attributes_[index].encrypted; }
    bool isKnown(unsigned int index) const { return attributes_[index].known; }
    std::span<const unsigned char> bytes(unsigned int index) const {
        return attributes_[index].bytes;
    }

    bool hasBody() const noexcept { return hasBody_; }
    bool isBodyEncrypted() const noexcept { return bodyEncrypted_; }
    std::uint64_t bodySize() const noexcept { return bodySize_; }  // as infoOf() has it
    // None while it is encrypted, or was not read.
    const std::optional<SecretBytes>& body() const noexcept { return body_; }

    // Whether nothing of it is still encrypted.
    bool isReadable() const;

    bool hasAttribute(unsigned int id) const;

    // As Record's of these names, in memory only. Out of memory, nothing has changed.
    void setAttribute(unsigned int type, unsigned int id, SecretBytes bytes, bool encrypted);
    unsigned int removeAll(unsigned int id);
    void setBody(SecretBytes bytes, bool encrypted);

private:
    struct Attribute {
        unsigned int type = 0;
        unsigned int id = 0;
        bool encrypted = false;
        bool known = true;
        SecretBytes bytes;
    };

    template <class AnyRecord>
    void copyAttributes(const AnyRecord& record);

    Address address_;
    std::vector<Attribute> attributes_;
    bool hasBody_ = false, bodyEncrypted_ = false;
    std::uint64_t bodySize_ = 0;
    std::optional<SecretBytes> body_;
};

}  // namespace fstore

#endif  // LIB_RECORDS_RECORD_COPY_H
