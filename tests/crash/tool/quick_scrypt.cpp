// A stand-in for the library's scrypt, which takes half a second for a password on purpose:
// what a crash leaves does not depend on how P comes from a password, only on that each slot
// has its own. Linked by --wrap, so that only the code of lib/ is served.
#include <array>
#include <cstring>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
int __real_EVP_KDF_derive(EVP_KDF_CTX* context, unsigned char* key, std::size_t size,
                          const OSSL_PARAM* parameters);

int __wrap_EVP_KDF_derive(EVP_KDF_CTX* context, unsigned char* key, std::size_t size,
                          const OSSL_PARAM* parameters) {
    // NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
    if (OSSL_PARAM_locate_const(parameters, "n") == nullptr || size != 32) {
        return __real_EVP_KDF_derive(context, key, size, parameters);
    }
    std::array<unsigned char, 512> input{};
    std::size_t used = 0;
    for (const char* const name : {"pass", "salt", "n"}) {
        const OSSL_PARAM* const one = OSSL_PARAM_locate_const(parameters, name);
        if (one == nullptr || used + one->data_size + 1 > input.size()) {
            return 0;
        }
        if (one->data_size != 0) {
            std::memcpy(input.data() + used, one->data, one->data_size);
        }
        used += one->data_size + 1;  // a zero between them
    }
    return EVP_Digest(input.data(), used, key, nullptr, EVP_sha256(), nullptr);
}
}
