// A record of the database, read and written whole, with failures that say which
// record they are about.
//
// Needs a Database that was entered (lib/database/database.h). For one thread.
#ifndef LIB_RECORDS_RECORD_H
#define LIB_RECORDS_RECORD_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/file_store_exp.h"
#include "lib/base/error.h"
#include "lib/records/address.h"
#include "lib/records/attributes.h"
#include "lib/records/body_owners.h"

namespace fstore {

class Record {
public:
    // More than encryption adds to a body or an attribute.
    static constexpr std::uint64_t kMostOverhead = 64;
    // The most bytes that a body can have, encrypted or not.
    static constexpr std::uint64_t kMostBody = 0xFFFFFFFF - kMostOverhead;
    static constexpr std::uint64_t kMostBodyFile = 0xFFFFFFFF;

    // A new record of this address, with nothing in it and not on disk.
    explicit Record(Address address);
    // There is one handle of the store's record: what is seen through it would not show what
    // another one changes.
    Record(Record&&) = default;
    Record& operator=(Record&&) = default;
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    ~Record() = default;

    // The record as it is on disk. Throws kMissing when there is none, also when a crash has left
    // it moved aside, TooLarge for a descriptor beyond kMostDescriptor, and what the store says
    // when it cannot be read. For many records see RecordHead, which takes no memory for bodies.
    static Record read(const Address& address);

    // Whether there is a record of this address.
    static bool isThere(const Address& address);

    const Address& address() const noexcept { return address_; }

    // What the store holds of it, to look at.
    const aFileStore& store() const noexcept { return store_; }

    // Whether something of it is kept encrypted, and whether that can be read now.
    bool hasSecrets() const;
    bool isReadable() const noexcept { return readable_; }
    // Makes it readable; the database is open. Throws kIo for the wrong key and for
    // damage, which cannot be told apart.
    void decrypt();

    // Attributes by index. While the record is not readable, the bytes of one that is
    // kept encrypted are not those it stands for.
    unsigned int count() const { return static_cast<unsigned int>(contents().attributes.size()); }
    unsigned int type(unsigned int index) const { return contents().attributes[index].type; }
    unsigned int id(unsigned int index) const { return contents().attributes[index].id; }
    bool isEncrypted(unsigned int index) const { return contents().attributes[index].encrypted; }
    bool isKnown(unsigned int index) const { return readable_ || !isEncrypted(index); }
    // These live until the record changes, and so does the body.
    std::span<const unsigned char> bytes(unsigned int index) const {
        return contents().attributes[index].bytes;
    }

    // The first attribute of this type and id whose contents can be read now.
    std::optional<unsigned int> find(unsigned int type, unsigned int id) const;
    std::optional<std::uint32_t> number(unsigned int id) const;
    // Also of type kTypeBinary: so a text is kept encrypted.
    std::optional<std::string> text(unsigned int id) const;
    std::vector<std::string> texts(unsigned int id) const;
    std::optional<std::vector<unsigned char>> binary(unsigned int id) const;

    // Sets the attribute of this type and id, or adds it. A text that is empty is
    // removed instead. Throws kMalformed for a text that a descriptor cannot hold: with
    // a line feed or a NUL in it, or a blank in front.
    void setNumber(unsigned int id, std::uint32_t value);
    void setText(unsigned int id, std::string_view text);
    void setString(unsigned int id, std::string_view text);  // as setText(), but kTypeString
    // Sets the label to any bytes, in plain form: as a text, or as kTypeBinary where a descriptor
    // cannot hold the text.
    void setLabel(std::string_view label);
    void setBinary(unsigned int id, std::span<const unsigned char> bytes, bool encrypted = false);
    // One more with this id.
    void addText(unsigned int id, std::string_view text);
    void addBinary(unsigned int id, std::span<const unsigned char> bytes, bool encrypted);
    // One more of any type, in plain form.
    void add(unsigned int type, unsigned int id, std::span<const unsigned char> bytes);
    // Removes every attribute with this id, of whatever type; how many there were.
    unsigned int removeAll(unsigned int id);

    bool hasBody() const { return contents().hasBody; }
    bool isBodyEncrypted() const { return contents().bodyEncrypted; }
    std::span<const unsigned char> body() const { return contents().body; }
    void setBody(std::span<const unsigned char> bytes, bool encrypted);

    // A new record of another address with the same contents, not on disk yet. This one
    // is readable.
    Record copyTo(Address address) const;

    // Stores it. What is encrypted is read back and compared before this returns, so
    // that a secret is never lost to a cipher that cannot undo what it did.
    //
    // Throws kInvalid when the descriptor would be larger than kMostDescriptor.
    //
    // `owners` is the command's: throws kMalformed when the store would delete a body file that
    // may be another record's. A record that is not on disk yet asks nothing.
    void write(BodyOwners& owners);
    void write();  // a new one

    // Removes it. Its body file stays when it may be another record's: returns why, as
    // BodyOwners::doubtAbout() does.
    std::optional<std::string> remove(BodyOwners& owners);

private:
    // What the store's record holds. Each call of the store raises a guard, which takes as long as
    // all else that it does: so the record is looked at once, until it changes.
    struct Contents {
        struct Attribute {
            unsigned int type = 0, id = 0;
            bool encrypted = false;
            std::span<const unsigned char> bytes;
        };
        std::vector<Attribute> attributes;
        bool hasBody = false, bodyEncrypted = false;
        std::span<const unsigned char> body;
    };
    // A proxy that makes many calls with the guard raised once.
    class Proxy : public aFileStore {
    public:
        Contents contents() const;
    };

    const Contents& contents() const;
    // For whatever changes it, one call; its status is for check().
    aFileStore& changing() noexcept;
    void set(unsigned int type, unsigned int id, std::span<const unsigned char> bytes);
    void setOrRemove(unsigned int type, unsigned int id, std::string_view text);
    std::uint64_t descriptorSize() const;
    void requireReadable() const;
    void verifyWritten() const;
    void removeDescriptors() const;

    Address address_;
    Proxy store_;
    mutable std::optional<Contents> seen_;
    bool readable_ = true;
};

// Throws what is wrong with a record unless `status`, that of reading it, is kOk.
void checkRead(Status status, const Address& address);

// What is thrown where the modules give no object.
Failure noService();

// There is no record of this address, which path() is, in the user's words.
class NoRecord : public Failure {
public:
    explicit NoRecord(std::string_view address);
};

}  // namespace fstore

#endif  // LIB_RECORDS_RECORD_H
