// The attributes that the tool gives to records, by id, and their types.
//
// They are part of what is on disk and never change their meaning. Only binary
// attributes may be kept encrypted; what is secret among the others is stored as
// kTypeBinary under the same id. Texts lose leading blanks in the descriptor and cannot
// hold a line feed, so they are escaped as RFC 4514 does and left out when empty.
#ifndef LIB_RECORDS_ATTRIBUTES_H
#define LIB_RECORDS_ATTRIBUTES_H

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "format/dsc_text.h"

namespace fstore {

namespace attr {

// Whether the tool knows what is in the record, and what it is.
inline constexpr unsigned int kSchema = 0x100;  // kTypeNumber, 1
inline constexpr unsigned int kKind = 0x101;    // kTypeNumber, one of Kind
inline constexpr unsigned int kLabel = 0x102;   // kTypeText

// Of a certificate, CRL or request.
inline constexpr unsigned int kSubject = 0x103;         // kTypeText, RFC 4514
inline constexpr unsigned int kIssuer = 0x104;          // kTypeText, RFC 4514
inline constexpr unsigned int kSerial = 0x105;          // kTypeBinary, big-endian
inline constexpr unsigned int kNotBefore = 0x106;       // kTypeText, RFC 3339; thisUpdate of a CRL
inline constexpr unsigned int kNotAfter = 0x107;        // kTypeText, RFC 3339; nextUpdate of a CRL
inline constexpr unsigned int kSubjectSha256 = 0x108;   // kTypeBinary, of the subject's DER
inline constexpr unsigned int kSha256 = 0x109;          // kTypeBinary, of the body in plain form
inline constexpr unsigned int kKeyAlgorithm = 0x10A;    // kTypeText, "RSA-2048", "EC-P-256"
inline constexpr unsigned int kKeySha256 = 0x10B;       // kTypeBinary, of the public key info
inline constexpr unsigned int kSubjectKeyId = 0x10C;    // kTypeBinary
inline constexpr unsigned int kAuthorityKeyId = 0x10D;  // kTypeBinary
inline constexpr unsigned int kAltName = 0x10E;         // kTypeText, one attribute a name
inline constexpr unsigned int kBits = 0x10F;            // kTypeNumber, kIsCa | kIsSelfIssued
inline constexpr unsigned int kCrlNumber = 0x110;       // kTypeBinary
inline constexpr unsigned int kImported = 0x111;        // kTypeText, RFC 3339

inline constexpr unsigned int kIsCa = 1;
inline constexpr unsigned int kIsSelfIssued = 2;

// Whether it is a text by its meaning. One that is kept encrypted has type kTypeBinary.
constexpr bool isText(unsigned int id) {
    return id == kLabel || id == kSubject || id == kIssuer || id == kNotBefore || id == kNotAfter ||
           id == kKeyAlgorithm || id == kAltName || id == kImported;
}

// Ids from here on are the user's.
inline constexpr unsigned int kFirstOfUser = 0x8000;

}  // namespace attr

// What the bytes of an attribute stand for.
inline std::string_view asText(std::span<const unsigned char> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

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

}  // namespace fstore

#endif  // LIB_RECORDS_ATTRIBUTES_H
