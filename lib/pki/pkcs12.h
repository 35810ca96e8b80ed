// The keys, certificates and CRLs of a PKCS#12 file.
#ifndef LIB_PKI_PKCS12_H
#define LIB_PKI_PKCS12_H

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "lib/pki/part.h"
#include "lib/pki/password.h"

namespace fstore {

// The largest file that is decoded; real ones have some KiB.
inline constexpr std::size_t kMostPkcs12 = 16 << 20;

// The file's parts, at least one. None when it is not a PKCS#12 file, or too large. Throws
// kWrongPassword, kMalformed when the file as a whole is damaged, and what InputPassword throws.
std::optional<std::vector<PkiPart>> partsOfPkcs12(std::span<const unsigned char> der,
                                                  FilePassword& password);

}  // namespace fstore

#endif  // LIB_PKI_PKCS12_H
