// Whether one CRL or certificate takes the place of another one.
//
// Any thread may call any of these.
#ifndef LIB_PKI_RENEWAL_H
#define LIB_PKI_RENEWAL_H

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
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

// The serial numbers that a CRL lists, whatever it says of them. Throws what crlTraitsOf() throws.
std::set<std::vector<unsigned char>> serialsIn(std::span<const unsigned char> crl);

struct CertificateTraits {
    using Octets = std::vector<unsigned char>;

    Octets serial;
    Octets key;  // SHA-256 of the public key
    bool isCa = false;
    // Sorted, and without capitals where these make no difference: in host names.
    std::vector<std::string> altNames;
    std::uint32_t usages = 0;                       // all of them where nothing is said
    std::optional<std::set<std::string>> purposes;  // of the extended key usage; none for any
    bool isReadable = false;                        // all of these could be read
};

// Throws kMalformed for what is no certificate.
CertificateTraits certificateTraitsOf(std::span<const unsigned char> certificate);

// Whether the newer one serves for all that the older one does: it has its alternative names and
// may be used as it may. One of a CA has the same key, with which others were signed. Subjects are
// the caller's, and times.
bool replaces(const CertificateTraits& newer, const CertificateTraits& older);

}  // namespace fstore

#endif  // LIB_PKI_RENEWAL_H
