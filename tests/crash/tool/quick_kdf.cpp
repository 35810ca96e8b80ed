// A stand-in for what takes long on purpose: scrypt in the library, PBKDF2 in the PKCS#5 module;
// and for HKDF, which the same call runs.
// What a crash leaves does not depend on how a key comes from a password, only on that each
// password, salt and cost has its own. Linked by --wrap, so that only our own calls are served.
#include <algorithm>
#include <array>
#include <cstring>

#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
int __wrap_EVP_KDF_derive(EVP_KDF_CTX* context, unsigned char* key, std::size_t size,
                          const OSSL_PARAM* parameters);

int __wrap_EVP_KDF_derive(EVP_KDF_CTX* /*context*/, unsigned char* key, std::size_t size,
                          const OSSL_PARAM* parameters) {
    // NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
    std::array<unsigned char, 512> input{};
    std::size_t used = 1;  // behind the number of the block
    for (const char* const name : {"pass", "key", "salt", "info", "n", "iter"}) {
        const OSSL_PARAM* const one = OSSL_PARAM_locate_const(parameters, name);
        if (one == nullptr) {
            continue;  // each function has its own
        }
        if (used + one->data_size + 1 > input.size()) {
            return 0;
        }
        if (one->data_size != 0) {
            std::memcpy(input.data() + used, one->data, one->data_size);
        }
        used += one->data_size + 1;  // a zero between them
    }
    std::array<unsigned char, 32> block{};
    for (std::size_t done = 0; done < size; done += block.size(), ++input[0]) {
        if (EVP_Digest(input.data(), used, block.data(), nullptr, EVP_sha256(), nullptr) != 1) {
            return 0;
        }
        std::memcpy(key + done, block.data(), std::min(block.size(), size - done));
    }
    return 1;
}
}
