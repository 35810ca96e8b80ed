// How certificates are signed.
#ifndef LIB_PKI_SIGNATURE_H
#define LIB_PKI_SIGNATURE_H

#include <span>
#include <string>

namespace fstore {

// The name of the digest in the certificate's signature when that is broken, "SHA1" or "MD5"; else
// empty, also for what cannot be decoded. Any thread may call it.
std::string brokenDigestOf(std::span<const unsigned char> certificate);

}  // namespace fstore

#endif  // LIB_PKI_SIGNATURE_H
