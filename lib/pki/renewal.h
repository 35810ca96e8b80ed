// Whether one CRL takes the place of another one.
//
// Any thread may call any of these.
#ifndef LIB_PKI_RENEWAL_H
#define LIB_PKI_RENEWAL_H

#include <optional>
#include <span>
#include <vector>

#include "cmn/secret_bytes.h"

namespace fstore {

// What of a CRL decides that. It keeps little of the CRL, which may be large.
struct CrlTraits {
    using Octets = std::vector<unsigned char>;

    Octets issuer;  // its name, as it is encoded
    // SHA-256 of the key that signed it, of those who have the issuer's name; empty: none of them.
    Octets signer;
    std::optional<Octets> number;  // most significant octet first
    std::optional<Octets> scope;   // has only some of the issuer's certificates
    bool isDelta = false;          // has only what changed since another one
    bool hasUnknown = false;       // a critical extension that nobody here understands
};

// `known` may have issued it; what is damaged has not.
//
//   kMalformed  no CRL, or a damaged one
CrlTraits crlTraitsOf(std::span<const unsigned char> crl, const std::vector<SecretBytes>& known);

// Whether the newer one says all that the older one does: both are of one issuer, signed with one
// key that is known, and for the same certificates; neither is a delta; the number of the newer one
// is not lower, and all of it is understood. The times are the caller's.
bool replaces(const CrlTraits& newer, const CrlTraits& older);

}  // namespace fstore

#endif  // LIB_PKI_RENEWAL_H
