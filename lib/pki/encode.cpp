#include "lib/pki/encode.h"

#include "lib/base/error.h"
#include "lib/base/printable.h"
#include "lib/pki/made.h"
#include "lib/pki/ossl.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr int kSaltSize = 16;

SecretBytes pemBlock(const char* type, Bytes der) {
    const ossl::Bio out(BIO_new(BIO_s_mem()));
    if (out == nullptr ||
        PEM_write_bio(out.get(), type, "", der.data(), static_cast<long>(der.size())) <= 0) {
        failWithStatus(kNoMemory, "cannot write a PEM block: out of memory");
    }
    unsigned char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return {text, text + size};
}

ossl::KeyInfo keyInfoOf(Bytes pkcs8) {
    auto info = ossl::decodeWhole<ossl::KeyInfo, d2i_PKCS8_PRIV_KEY_INFO>(pkcs8);
    if (info == nullptr) {
        throw Failure(kMalformed, "the stored key is damaged");
    }
    return info;
}

ossl::Certificate certificateOf(Bytes der) {
    auto certificate = ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
    if (certificate == nullptr) {
        throw Failure(kMalformed, "a stored certificate is damaged");
    }
    return certificate;
}

}  // namespace

SecretBytes pemOf(Kind kind, Bytes der) {
    switch (kind) {
        case Kind::kCertificate:
            return pemBlock("CERTIFICATE", der);
        case Kind::kCrl:
            return pemBlock("X509 CRL", der);
        case Kind::kRequest:
            return pemBlock("CERTIFICATE REQUEST", der);
        case Kind::kKey:
            return pemBlock("PRIVATE KEY", der);
        case Kind::kRaw:
        case Kind::kUnknown:
            break;
    }
    throw Failure(kInvalid, "this record cannot be written as PEM");
}

SecretBytes encryptedKey(Bytes pkcs8, const SecretText& password) {
    const ossl::QuietErrors quiet;
    constexpr int kByCipher = -1;  // the scheme follows from the cipher: PBES2
    const ossl::KeyInfo info = keyInfoOf(pkcs8);
    const ossl::EncryptedKey encrypted(PKCS8_encrypt(kByCipher, EVP_aes_256_cbc(), password.c_str(),
                                                     static_cast<int>(password.size()), nullptr,
                                                     kSaltSize, kWrittenIterations, info.get()));
    SecretBytes der = ossl::encoded<i2d_X509_SIG>(encrypted.get());
    if (der.empty()) {
        throw Failure(kIo, "cannot encrypt the key: OpenSSL failed");
    }
    return der;
}

SecretBytes pemOfEncrypted(Bytes encrypted) {
    return pemBlock("ENCRYPTED PRIVATE KEY", encrypted);
}

SecretBytes pkcs12Of(const Pkcs12Content& content, const SecretText* password) {
    const ossl::QuietErrors quiet;
    ossl::Pkey key;
    if (!content.key.empty()) {
        key.reset(EVP_PKCS82PKEY(keyInfoOf(content.key).get()));
        if (key == nullptr) {
            throw Failure(kMalformed, "the stored key is damaged");
        }
    }
    std::vector<ossl::Certificate> certificates;
    const ossl::Certificates others(sk_X509_new_null());
    for (const Bytes der : content.certificates) {
        certificates.push_back(certificateOf(der));
        if (certificates.size() > 1) {
            (void)sk_X509_push(others.get(), certificates.back().get());
        }
    }
    // OpenSSL takes UTF-8 up to its first NUL.
    const bool isPlain = isUtf8(content.label) && content.label.find('\0') == std::string::npos;
    const std::string label = isPlain ? content.label : printable(content.label);
    constexpr int kNot = -1;
    const int cipher = password != nullptr ? NID_aes_256_cbc : kNot;
    const ossl::Pkcs12 file(PKCS12_create(
        password != nullptr ? password->c_str() : nullptr, label.empty() ? nullptr : label.c_str(),
        key.get(), certificates.empty() ? nullptr : certificates[0].get(), others.get(), cipher,
        cipher, kWrittenIterations, password != nullptr ? kWrittenIterations : kNot, 0));
    SecretBytes der = ossl::encoded<i2d_PKCS12>(file.get());
    if (der.empty()) {
        throw Failure(kIo, "cannot create the PKCS#12 file: OpenSSL failed");
    }
    return der;
}

SecretBytes pkcs7Of(const std::vector<Bytes>& certificates, const std::vector<Bytes>& crls) {
    const ossl::QuietErrors quiet;
    const ossl::Pkcs7 file = made(ossl::Pkcs7(PKCS7_new()));
    bool isDone = PKCS7_set_type(file.get(), NID_pkcs7_signed) == 1 &&
                  PKCS7_content_new(file.get(), NID_pkcs7_data) == 1;
    // What it signs is absent, and not empty.
    isDone = isDone && PKCS7_set_detached(file.get(), 1) == 1;
    for (const Bytes der : certificates) {
        const ossl::Certificate certificate = certificateOf(der);
        isDone = isDone && PKCS7_add_certificate(file.get(), certificate.get()) == 1;
    }
    for (const Bytes der : crls) {
        const auto crl = ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(der);
        if (crl == nullptr) {
            throw Failure(kMalformed, "the stored CRL is damaged");
        }
        isDone = isDone && PKCS7_add_crl(file.get(), crl.get()) == 1;
    }
    SecretBytes der = isDone ? ossl::encoded<i2d_PKCS7>(file.get()) : SecretBytes();
    if (der.empty()) {
        throw Failure(kIo, "cannot create the PKCS#7 file: OpenSSL failed");
    }
    return der;
}

}  // namespace fstore
