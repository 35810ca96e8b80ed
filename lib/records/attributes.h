// The attributes that the tool gives to records: ids, names, types and what they mean.
//
// They are part of the format on disk and never change their meaning. Only binary
// attributes can be encrypted; a secret text or number is stored as kTypeBinary under the
// same id. Texts lose leading blanks in the descriptor and cannot contain a line feed, so
// they are escaped as in RFC 4514, and left out when empty.
#ifndef LIB_RECORDS_ATTRIBUTES_H
#define LIB_RECORDS_ATTRIBUTES_H

#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>

#include "format/dsc_text.h"
#include "lib/base/bytes.h"

namespace fstore {

// What the store answers for an attribute that a record does not have.
inline constexpr unsigned int kNoAttribute = 0xFFFFFFFF;

namespace attr {

inline constexpr unsigned int kSchema = 0x100;
inline constexpr unsigned int kKind = 0x101;
inline constexpr unsigned int kLabel = 0x102;
inline constexpr unsigned int kSubject = 0x103;
inline constexpr unsigned int kIssuer = 0x104;
inline constexpr unsigned int kSerial = 0x105;
inline constexpr unsigned int kNotBefore = 0x106;
inline constexpr unsigned int kNotAfter = 0x107;
inline constexpr unsigned int kSubjectSha256 = 0x108;
inline constexpr unsigned int kSha256 = 0x109;
inline constexpr unsigned int kKeyAlgorithm = 0x10A;
inline constexpr unsigned int kKeySha256 = 0x10B;
inline constexpr unsigned int kSubjectKeyId = 0x10C;
inline constexpr unsigned int kAuthorityKeyId = 0x10D;
inline constexpr unsigned int kAltName = 0x10E;
inline constexpr unsigned int kBits = 0x10F;
inline constexpr unsigned int kCrlNumber = 0x110;
inline constexpr unsigned int kImported = 0x111;
inline constexpr unsigned int kTypes = 0x112;

// Of the value of kBits.
inline constexpr unsigned int kIsCa = 1;
inline constexpr unsigned int kIsSelfIssued = 2;

// Ids from here on are the user's.
inline constexpr unsigned int kFirstOfUser = 0x8000;

struct Known {
    unsigned int id;
    std::string_view name;  // in commands and in what they print
    unsigned int type;      // of its meaning; one that is kept encrypted has kTypeBinary
    bool isOfBody;          // follows from the body, and is as secret as that
    std::string_view meaning;
};

// By id, without a gap. filestore(5) has the same table.
inline constexpr Known kKnown[] = {
    {kSchema, "schema", kTypeNumber, false, "1, the version of this table"},
    {kKind, "kind", kTypeNumber, false,
     "kind: 1 certificate, 2 CRL, 3 key, 4 request, 5 other bytes"},
    {kLabel, "label", kTypeText, false, "label"},
    {kSubject, "subject", kTypeText, true, "subject, as RFC 4514 writes it"},
    {kIssuer, "issuer", kTypeText, true, "issuer"},
    {kSerial, "serial", kTypeBinary, true, "serial number: its magnitude, the highest byte first"},
    {kNotBefore, "not-before", kTypeText, true, "notBefore or thisUpdate, RFC 3339 in UTC"},
    {kNotAfter, "not-after", kTypeText, true, "notAfter or nextUpdate"},
    {kSubjectSha256, "subject-sha256", kTypeBinary, true, "SHA-256 of the subject's DER"},
    {kSha256, "sha256", kTypeBinary, true, "SHA-256 of the body in plain form"},
    {kKeyAlgorithm, "key-algorithm", kTypeText, true,
     "key algorithm: \"RSA-2048\", \"EC-P-256\", \"Ed25519\""},
    {kKeySha256, "key-sha256", kTypeBinary, true,
     "SHA-256 of the public key's DER, SubjectPublicKeyInfo"},
    {kSubjectKeyId, "subject-key-id", kTypeBinary, true, "subject key identifier"},
    {kAuthorityKeyId, "authority-key-id", kTypeBinary, true, "authority key identifier"},
    {kAltName, "alt-name", kTypeText, true,
     "a subject alternative name, \"DNS:example.com\"; one attribute each"},
    {kBits, "bits", kTypeNumber, true, "bits: 1 a CA, 2 self-issued"},
    {kCrlNumber, "crl-number", kTypeBinary, true, "CRL number"},
    {kImported, "imported", kTypeText, false, "time of import"},
    {kTypes, "types", kTypeText, false,
     "types of the user's own that are kept encrypted: \"0x8001:text 0x8002:number\""},
};

// Null for an id that is not in the table.
constexpr const Known* find(unsigned int id) {
    return id >= kSchema && id - kSchema < std::size(kKnown) ? &kKnown[id - kSchema] : nullptr;
}

static_assert([] {
    for (const Known& known : kKnown) {
        if (find(known.id) != &known) {
            return false;
        }
    }
    return true;
}());

// Whether it is a text by its meaning.
constexpr bool isText(unsigned int id) {
    const Known* const known = find(id);
    return known != nullptr && known->type == kTypeText;
}

}  // namespace attr

// "label", "subject", ...; empty for an id that has no name.
constexpr std::string_view attributeName(unsigned int id) {
    const attr::Known* const known = attr::find(id);
    return known != nullptr ? known->name : std::string_view();
}

// An attribute's id as users write it: "0x8001", decimal, or the name of one that the
// tool gives ("label"). None for anything else.
std::optional<unsigned int> parseAttributeId(std::string_view text);

// What the bytes of an attribute stand for.
inline std::optional<std::uint32_t> asNumber(unsigned int type,
                                             std::span<const unsigned char> bytes) {
    std::uint32_t value = 0;
    if (type != kTypeNumber || bytes.size() != sizeof value) {
        return std::nullopt;
    }
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// Values of attr::kKind.
enum class Kind : unsigned int {
    kUnknown = 0,  // no such attribute
    kCertificate = 1,
    kCrl = 2,
    kKey = 3,
    kRequest = 4,
    kRaw = 5
};

// "certificate", "crl", "key", "request", "raw"; "record" for one of an unknown kind.
const char* nameOf(Kind kind);

}  // namespace fstore

#endif  // LIB_RECORDS_ATTRIBUTES_H
