#include "lib/database/scrypt.h"

#include <atomic>

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include "lib/base/error.h"
#include "ossl/owner.h"

namespace fstore {
namespace {

std::atomic<std::uint64_t> runs{0};

}  // namespace

SecretKey scrypt(const SecretText& password, const Salt& salt, const ScryptCost& cost) {
    const ossl::QuietErrors quiet;
    const ossl::Owner<EVP_KDF, EVP_KDF_free> kdf(EVP_KDF_fetch(nullptr, "SCRYPT", nullptr));
    const ossl::Owner<EVP_KDF_CTX, EVP_KDF_CTX_free> context(
        kdf != nullptr ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
    std::uint64_t n = std::uint64_t{1} << cost.ln;
    std::uint32_t r = cost.r, p = cost.p;
    // The library's own limit is 32 MiB; ours are the bounds of what is read.
    std::uint64_t memory = cost.memory() + 128ull * r * p + (1u << 20);
    // The library takes plain pointers and does not write through them.
    void* const secret = const_cast<char*>(password.c_str());
    void* const salted = const_cast<unsigned char*>(salt.data());
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_octet_string("pass", secret, password.size()),
        OSSL_PARAM_construct_octet_string("salt", salted, salt.size()),
        OSSL_PARAM_construct_uint64("n", &n),
        OSSL_PARAM_construct_uint32("r", &r),
        OSSL_PARAM_construct_uint32("p", &p),
        OSSL_PARAM_construct_uint64("maxmem_bytes", &memory),
        OSSL_PARAM_construct_end()};
    SecretKey key(32);
    ++runs;
    if (context == nullptr ||
        EVP_KDF_derive(context.get(), key.data(), key.size(), parameters) != 1) {
        failWithStatus(kNoMemory,
                       fmt::format("cannot derive the key from the password: that takes {} MiB of "
                                   "memory, which were not to be had, and OpenSSL with scrypt",
                                   memory >> 20));
    }
    return key;
}

std::uint64_t scryptRuns() {
    return runs;
}

}  // namespace fstore
