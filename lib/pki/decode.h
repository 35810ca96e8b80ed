// The certificates, CRLs, private keys and requests in a file: PEM with any number of
// them, some in DER, PKCS#7 or PKCS#12, OpenSSH keys, told apart by content.
//
// Each part of a file succeeds or fails by itself. Nothing is passed over without a
// word but what stands outside of PEM blocks. Hostile input costs memory in proportion
// to its size, and never more time than a password with kMostIterations does.
#ifndef LIB_PKI_DECODE_H
#define LIB_PKI_DECODE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "lib/pki/part.h"

namespace fstore {

// The largest file that is decoded.
inline constexpr std::uint64_t kMostInput = 64 << 20;

// Whether a file is a keystore of one of Java's own kinds, which only Java reads, and which: "JKS"
// or "JCEKS"; null if not.
const char* javaKeystoreType(std::span<const unsigned char> bytes);

// The parts in the order of the file, at least one.
std::vector<PkiPart> decodePki(std::span<const unsigned char> bytes, const InputPassword& password);

}  // namespace fstore

#endif  // LIB_PKI_DECODE_H
