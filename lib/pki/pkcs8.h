// Private keys out of PKCS#8, after a look at how long their numbers are.
//
// Any thread may call any of these.
#ifndef LIB_PKI_PKCS8_H
#define LIB_PKI_PKCS8_H

#include <cstddef>
#include <span>

#include "lib/pki/ossl.h"

namespace fstore {

// No key may have a longer number, in bits: OpenSSL takes no longer one for RSA, and the work on
// it grows with the third power of its length.
inline constexpr std::size_t kMostKeyBits = 16384;

// Throws kMalformed when a number in the DER is longer.
void requireShortNumbers(std::span<const unsigned char> der);

// The key in it; null when there is none, or it is damaged. Throws kMalformed for a number that
// is too long.
ossl::Pkey keyIn(const PKCS8_PRIV_KEY_INFO* info);

// Throws kMalformed when the public half of an RSA or EC key is not that of its private half: what
// it signs, nobody could verify. Of other kinds the public half is not stored, but computed.
void requirePair(EVP_PKEY& key);

}  // namespace fstore

#endif  // LIB_PKI_PKCS8_H
