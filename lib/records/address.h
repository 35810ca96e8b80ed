// Where a record is, in the user's words: "certificates/local/server", the name alone if
// it is unique, or "sha256:" and the first digits of the digest of its body.
#ifndef LIB_RECORDS_ADDRESS_H
#define LIB_RECORDS_ADDRESS_H

#include <compare>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "format/layout.h"

namespace fstore {

// A record's place: a folder below "db" and the record's name in it.
struct Address {
    std::string folder;  // "certificates/local"; empty for "db" itself
    std::string name;

    // NOLINTNEXTLINE(modernize-use-nullptr): the check takes what the compiler makes for a 0
    auto operator<=>(const Address&) const = default;

    // The records that the tool and the store keep for themselves.
    bool isInternal() const {
        return folder.empty() && (name == layout::kKeyRecord || name == layout::kKdfRecord ||
                                  name == layout::kKdfCopyRecord);
    }

    // "certificates/local/server"; "./key" for a record of "db" itself.
    std::string print() const;
};

// What the user wrote. The text alone shows which of the three forms it is.
struct AddressText {
    enum class Form {
        kPlace,  // `place`
        kBare,   // `place.name`, in whatever folder
        kDigest  // `digest`, lower-case digits
    };
    Form form = Form::kPlace;
    Address place;
    std::string digest;

    static AddressText of(Address place) { return {Form::kPlace, std::move(place), {}}; }
};

// Throws kInvalid for what cannot be the address of a record.
AddressText parseAddress(std::string_view text);

// The place of a new record. Throws kInvalid for a name alone or a digest, and for a name
// that is too long or has control characters.
Address parseNewAddress(std::string_view text);

// "a/b" of "a//b/", "./a/b" or "db/a/b"; empty for "." and "db". Throws kInvalid for
// a path that leads elsewhere.
std::string parseFolder(std::string_view text);

// The paths below the current folder.
std::string folderPath(const std::string& folder);   // "./db/certificates"
std::string descriptorPath(const Address& address);  // "./db/certificates/server.dsc"

}  // namespace fstore

#endif  // LIB_RECORDS_ADDRESS_H
