// The certificates and CRLs of a PKCS#7 file.
#ifndef LIB_PKI_PKCS7_H
#define LIB_PKI_PKCS7_H

#include <optional>
#include <span>
#include <vector>

#include "lib/pki/part.h"

namespace fstore {

// Its parts, at least one; signatures and what they sign are not looked at. None when it is not a
// PKCS#7 file, or larger than a PKCS#12 file may be. Throws kMalformed when it has no
// certificates and no CRLs, and kInvalid for too many.
std::optional<std::vector<PkiPart>> partsOfPkcs7(std::span<const unsigned char> der);

}  // namespace fstore

#endif  // LIB_PKI_PKCS7_H
