// Certificates, CRLs, private keys and certificate requests as they are stored: DER, and
// attributes that describe it, so that nobody has to decode it again.
//
// Any thread may call any of these.
#ifndef LIB_PKI_OBJECT_H
#define LIB_PKI_OBJECT_H

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/records/attributes.h"

namespace fstore {

// An attribute of a record; its type follows from the value.
struct PkiAttribute {
    unsigned int id = 0;
    std::variant<std::uint32_t, std::string, std::vector<unsigned char>> value;

    bool operator==(const PkiAttribute&) const = default;
};

struct PkiObject {
    Kind kind = Kind::kUnknown;
    SecretBytes der;    // of a key: PKCS#8, not encrypted
    std::string title;  // what people call it, for its record's name; may be empty

    std::vector<unsigned char> sha256;     // of `der`
    std::vector<unsigned char> keySha256;  // of the public key; empty for a CRL

    // In the order of their ids; empty texts are left out. The importer adds the time of
    // import and a label.
    std::vector<PkiAttribute> attributes;

    // The ids of all attributes that such an object could have: those that are not among
    // `attributes` it lacks.
    std::set<unsigned int> described;
    // The identifier of the key's algorithm, "1.2.840.10045.2.1": stands for its name where OpenSSL
    // does not know that yet. Empty for a CRL and a private key.
    std::string keyAlgorithmId;
};

// No object but a CRL may be larger: a certificate with a thousand names has some 30 KiB, and
// the work on names grows faster than their number.
inline constexpr std::size_t kMostObject = 1 << 20;

// No object may have more elements of ASN.1: a CRL with half a million revocations has less.
inline constexpr std::size_t kMostElements = 4'000'000;

// Reads the DER of an object of this kind, all of it. Throws kMalformed when it is something
// else, is damaged, has bytes after the object, or exceeds one of these bounds.
PkiObject readPkiObject(Kind kind, SecretBytes der);

// The same, but none when it is not an object of this kind; `der` then stays as it is.
std::optional<PkiObject> findPkiObject(Kind kind, SecretBytes& der);

// Whether the DER has the frame of a private key whose algorithm this OpenSSL does not know:
// whether it is a key, another one has to say.
bool isKeyOfUnknownAlgorithm(std::span<const unsigned char> der);

// The object's record name if the user gives none: `label`, or else its title, reduced to
// [A-Za-z0-9._-] and 64 characters, "-", and 8 digits of the object's SHA-256.
std::string recordNameFor(const PkiObject& object, std::string_view label);

// The folder for an object of this kind: "keys", "crls", "crm", "certificates/local" for a
// certificate whose key we have, else "certificates/remote".
std::string_view folderFor(Kind kind, bool hasKey);

}  // namespace fstore

#endif  // LIB_PKI_OBJECT_H
