#include "lib/pki/pkcs8.h"

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/der.h"

namespace fstore {

void requireShortNumbers(std::span<const unsigned char> der) {
    // One byte more: in front of a number whose highest bit is set stands a zero.
    if (const std::size_t bytes = censusOf(der).longestInteger; bytes > kMostKeyBits / 8 + 1) {
        throw Failure(kMalformed, fmt::format("a number of it has {} bits, and {} is the limit",
                                              8 * bytes, kMostKeyBits));
    }
}

// Encoded anew for the look at its numbers: what was read may have been BER, which hides them.
ossl::Pkey keyIn(const PKCS8_PRIV_KEY_INFO* info) {
    if (info == nullptr) {
        return nullptr;
    }
    requireShortNumbers(ossl::encoded<i2d_PKCS8_PRIV_KEY_INFO>(info));
    return ossl::Pkey(EVP_PKCS82PKEY(info));
}

}  // namespace fstore
