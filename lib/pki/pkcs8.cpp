#include "lib/pki/pkcs8.h"

#include <array>
#include <cstddef>
#include <vector>

#include <fmt/format.h>
#include <openssl/evp.h>

#include "lib/base/error.h"
#include "lib/pki/der.h"

namespace fstore {
namespace {

using KeyContext = ossl::Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

// By a signature, which is much cheaper than a proof that the numbers are primes. A key that cannot
// make one is left to whoever uses it.
bool verifiesItself(EVP_PKEY& key) {
    const std::array<unsigned char, 32> text{};
    const KeyContext signing(EVP_PKEY_CTX_new_from_pkey(nullptr, &key, nullptr));
    std::vector<unsigned char> signature(static_cast<std::size_t>(EVP_PKEY_get_size(&key)));
    std::size_t size = signature.size();
    if (signing == nullptr || EVP_PKEY_sign_init(signing.get()) != 1 ||
        EVP_PKEY_sign(signing.get(), signature.data(), &size, text.data(), text.size()) != 1) {
        return true;
    }
    const KeyContext verifying(EVP_PKEY_CTX_new_from_pkey(nullptr, &key, nullptr));
    return verifying == nullptr || EVP_PKEY_verify_init(verifying.get()) != 1 ||
           EVP_PKEY_verify(verifying.get(), signature.data(), size, text.data(), text.size()) == 1;
}

bool hasPoint(EVP_PKEY& key) {
    constexpr int kNotKnown = -2;
    const KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, &key, nullptr));
    const int answer = context == nullptr ? kNotKnown : EVP_PKEY_pairwise_check(context.get());
    return answer == 1 || answer == kNotKnown;
}

}  // namespace

void requirePair(EVP_PKEY& key) {
    const ossl::QuietErrors quiet;
    const bool isPair = EVP_PKEY_is_a(&key, "RSA") == 1  ? verifiesItself(key)
                        : EVP_PKEY_is_a(&key, "EC") == 1 ? hasPoint(key)
                                                         : true;
    if (!isPair) {
        throw Failure(kMalformed, "the public half of the key is not that of its private half");
    }
}

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
