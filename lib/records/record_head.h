// A record without its body, as its descriptor says: for whoever looks at many records and
// asks none of them for its contents. The size of the body makes no difference.
//
// Needs a Database that was entered (lib/database/database.h). Any thread may read heads.
#ifndef LIB_RECORDS_RECORD_HEAD_H
#define LIB_RECORDS_RECORD_HEAD_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lib/records/address.h"
#include "lib/records/descriptor.h"
#include "lib/records/record.h"

namespace fstore {

class RecordHead {
public:
    // Throws what Record::read() throws, and TooLarge. The body file must be there, but is not
    // opened.
    static RecordHead read(const Address& address);

    // The same, also where the body file is missing or cannot be one: what the descriptor says.
    static RecordHead readWithoutBody(const Address& address);

    const Address& address() const noexcept { return address_; }

    // Whether something of it is kept encrypted.
    bool hasSecrets() const;

    // Attributes by index, as those of a Record that is not decrypted.
    unsigned int count() const { return static_cast<unsigned int>(attributes_.size()); }
    unsigned int type(unsigned int index) const;
    unsigned int id(unsigned int index) const { return attributes_[index].id; }
    bool isEncrypted(unsigned int index) const;
    bool isKnown(unsigned int index) const { return !isEncrypted(index); }
    std::span<const unsigned char> bytes(unsigned int index) const;

    // The SHA-256 that the descriptor says the plain body has, if that can be read.
    std::optional<std::span<const unsigned char>> findSha256() const;

    bool hasBody() const noexcept { return !bodyPath_.empty(); }
    bool isBodyEncrypted() const noexcept { return bodyEncrypted_; }
    std::uint64_t bodySize() const noexcept { return bodySize_; }  // as it is on disk
    const std::string& bodyPath() const noexcept { return bodyPath_; }

private:
    explicit RecordHead(Address address) : address_(std::move(address)) {}
    void nameBody(const DescriptorLine& reference);
    void findBody();

    Address address_;
    std::vector<DescriptorLine> attributes_;
    std::string bodyPath_;
    bool bodyEncrypted_ = false;
    std::uint64_t bodySize_ = 0;
};

// The largest body that is read for its record's sake alone, by who asked for no contents. Reading
// an encrypted one takes three times as much memory.
inline constexpr std::uint64_t kMostUnasked = std::uint64_t{1} << 30;

// The whole record. Throws TooLarge for a body beyond kMostUnasked.
Record readUnasked(const RecordHead& head);

}  // namespace fstore

#endif  // LIB_RECORDS_RECORD_HEAD_H
