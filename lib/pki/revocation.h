// Whether a CRL revokes a certificate.
#ifndef LIB_PKI_REVOCATION_H
#define LIB_PKI_REVOCATION_H

#include <span>

namespace fstore {

// Whether the CRL is of the certificate's issuer, by its name and, where both name one, by its key,
// and lists the certificate. Neither the CRL's signature nor its times matter: what stands in it
// was put here by the owner, and a revocation does not lapse. Throws kMalformed when one of the two
// cannot be decoded. Any thread may call it.
bool revokes(std::span<const unsigned char> crl, std::span<const unsigned char> certificate);

}  // namespace fstore

#endif  // LIB_PKI_REVOCATION_H
