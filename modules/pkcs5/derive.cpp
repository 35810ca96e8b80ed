#include "modules/pkcs5/derive.h"

#include <span>
#include <utility>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>
#include <openssl/pkcs12.h>

#include "modules/common/ossl.h"

namespace {

// A password as BMPString, in memory of OpenSSL's.
class BmpPassword {
public:
    explicit BmpPassword(std::span<const unsigned char> utf8) noexcept {
        // The library wants an address also for no bytes.
        const auto* const text = utf8.empty() ? "" : reinterpret_cast<const char*>(utf8.data());
        if (OPENSSL_utf82uni(text, static_cast<int>(utf8.size()), &bytes_, &size_) == nullptr) {
            bytes_ = nullptr;
            size_ = 0;
        }
    }
    BmpPassword(const BmpPassword&) = delete;
    BmpPassword& operator=(const BmpPassword&) = delete;
    ~BmpPassword() { OPENSSL_clear_free(bytes_, static_cast<std::size_t>(size_)); }

    explicit operator bool() const noexcept { return bytes_ != nullptr; }
    std::span<const unsigned char> view() const noexcept {
        return {bytes_, static_cast<std::size_t>(size_)};
    }

private:
    unsigned char* bytes_ = nullptr;
    int size_ = 0;
};

OSSL_PARAM octets(const char* name, std::span<const unsigned char> bytes) {
    // Input parameters are only read, whatever the interface's type says.
    return OSSL_PARAM_construct_octet_string(name, const_cast<unsigned char*>(bytes.data()),
                                             bytes.size());
}

// Derives `size` bytes with what all derivations have in common, and `own`.
Status derive(const char* name, const char* digest, std::span<const unsigned char> password,
              const KdfParameters& parameters, OSSL_PARAM own, WipedBytes& key) {
    const ossl::Kdf kdf(EVP_KDF_fetch(nullptr, name, nullptr));
    const ossl::KdfCtx ctx(EVP_KDF_CTX_new(kdf.get()));
    if (ctx == nullptr) {
        return kIo;
    }
    WipedBytes derived;
    if (!derived.reset(parameters.keyLength())) {
        return kNoMemory;
    }
    unsigned int iterations = parameters.iterations();
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>(digest), 0),
        octets(OSSL_KDF_PARAM_PASSWORD, password),
        octets(OSSL_KDF_PARAM_SALT, parameters.salt()),
        OSSL_PARAM_construct_uint(OSSL_KDF_PARAM_ITER, &iterations),
        own,
        OSSL_PARAM_construct_end(),
    };
    if (EVP_KDF_derive(ctx.get(), derived.data(), derived.size(), params) != 1) {
        return kIo;
    }
    key = std::move(derived);
    return kOk;
}

}  // namespace

Status derivePbkdf2(const KdfParameters& parameters, WipedBytes& key) {
    if (!parameters.complete()) {
        return kInvalid;
    }
    const ossl::QuietErrors quiet;
    int unchecked = 1;  // salts and iterations below the minimum of SP 800-132 are allowed
    return derive(OSSL_KDF_NAME_PBKDF2, "SHA256", parameters.password(), parameters,
                  OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &unchecked), key);
}

Status derivePkcs12(const KdfParameters& parameters, P12PBKDF::target purpose, WipedBytes& key) {
    if (!parameters.complete() || purpose < P12PBKDF::kEncryptionKey ||
        purpose > P12PBKDF::kMacKey) {
        return kInvalid;
    }
    const ossl::QuietErrors quiet;
    const BmpPassword password(parameters.password());
    if (!password) {
        return kNoMemory;
    }
    int id = static_cast<int>(purpose);
    return derive("PKCS12KDF", parameters.firstAlg() == PKI_ALG_SHA1 ? "SHA1" : "SHA256",
                  password.view(), parameters,
                  OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS12_ID, &id), key);
}
