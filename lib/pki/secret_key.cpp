#include "lib/pki/secret_key.h"

#include <string>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/der.h"
#include "lib/pki/old_ciphers.h"
#include "lib/pki/ossl.h"
#include "lib/pki/pkcs8.h"

namespace fstore {

SecretBytes pkcs8Of(const EVP_PKEY& key) {
    const ossl::KeyInfo info(EVP_PKEY2PKCS8(&key));
    SecretBytes der = ossl::encoded<i2d_PKCS8_PRIV_KEY_INFO>(info.get());
    if (der.empty()) {
        throw Failure(kMalformed, "a key of this algorithm cannot be written as PKCS#8");
    }
    return der;
}

std::optional<SecretBytes> keyFromPlain(std::span<const unsigned char> der) {
    const ossl::QuietErrors quiet;
    if (der.size() > kMostObject) {  // hostile bytes would cost a second a megabyte
        return std::nullopt;
    }
    if (const auto info = ossl::decodeWhole<ossl::KeyInfo, d2i_PKCS8_PRIV_KEY_INFO>(der)) {
        const ossl::Pkey key = keyIn(info.get());
        return key != nullptr ? std::optional(pkcs8Of(*key)) : std::nullopt;
    }
    constexpr unsigned char kEndIsMarked = 0x80;  // in BER, which could hide a number
    if (endOfSequence(der) != der.size() || der[1] == kEndIsMarked) {
        return std::nullopt;
    }
    requireShortNumbers(der);
    const unsigned char* at = der.data();
    const ossl::Pkey key(d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(der.size())));
    if (key == nullptr || at != der.data() + der.size()) {
        return std::nullopt;
    }
    return pkcs8Of(*key);
}

std::optional<SecretBytes> keyFromEncrypted(std::span<const unsigned char> der,
                                            FilePassword& password) {
    const ossl::QuietErrors quiet;
    const auto encrypted = ossl::decodeWhole<ossl::EncryptedKey, d2i_X509_SIG>(der);
    if (encrypted == nullptr) {
        return std::nullopt;
    }
    const X509_ALGOR* algorithm = nullptr;
    X509_SIG_get0(encrypted.get(), &algorithm, nullptr);
    const OldCiphers oldCiphers;
    if (const std::string cipher = missingCipherOf(*algorithm); !cipher.empty()) {
        throw Failure(kMalformed,
                      fmt::format("the key is encrypted with {}, which this OpenSSL does not have: "
                                  "its legacy provider is not installed",
                                  cipher));
    }
    const auto info = password.findForKey(roundsOf(*algorithm), [&](const char* text, int length) {
        return ossl::KeyInfo(PKCS8_decrypt(encrypted.get(), text, length));
    });
    if (info == nullptr) {
        throw Failure(kWrongPassword, "wrong password for this key");
    }
    const ossl::Pkey key = keyIn(info.get());
    if (key == nullptr) {
        throw Failure(kMalformed, "the key is damaged, or of an unknown algorithm");
    }
    return pkcs8Of(*key);
}

}  // namespace fstore
