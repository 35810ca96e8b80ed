// The URI of records, for programs that know keys and certificates by URI only:
//
//     fstore:///certificates/local/server        one record, by any of its addresses
//     fstore:///certificates/                    the records of a folder and of those in it
//     fstore:///?for=www.example.com&type=key    what serves a host now, whatever it is called
//
// Any thread may call any of these.
#ifndef LIB_WORK_URI_H
#define LIB_WORK_URI_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace fstore {

// What is asked for by the name of a host, "?for=NAME&type=TYPE&alg=PATTERN".
struct Selector {
    enum class Type {
        kPair,         // the key, its certificate and the issuers: where there is no type
        kKey,          // "key"
        kCertificate,  // "cert"
        kChain         // "chain": the certificate and its issuers
    };

    std::string name;  // as hostNameOf() returns it
    Type type = Type::kPair;
    std::string algorithm;  // a pattern for the key's: "RSA", "EC*"; empty for any
};

struct RecordUri {
    // An address, or a folder, which may end in "/" and then is no address; empty for the whole
    // database. Not looked at when there is a selector.
    std::string path;
    std::optional<Selector> selector;

    bool isFolderOnly() const noexcept { return path.empty() || path.ends_with('/'); }
};

// No URI may be longer.
inline constexpr std::size_t kMostUri = 4096;

// Whether the text begins as such a URI does, in small letters or capitals.
bool isUri(std::string_view text);

// Throws kInvalid for anything but such a URI, and says why.
RecordUri parseUri(std::string_view text);

// Its one usual form, which parseUri() reads.
std::string printUri(const RecordUri& uri);

// A host's name in small letters, or an IP address in its usual form. A name may begin with "*.",
// and then means the wildcard itself; a final dot says nothing and is left out. Throws kInvalid for
// what cannot be either.
std::string hostNameOf(std::string_view text);

// Whether what hostNameOf() returned is an address.
bool isIpAddress(const std::string& host);

}  // namespace fstore

#endif  // LIB_WORK_URI_H
