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

namespace {

constexpr int kUnencrypted = -1;

// What Java's keystores mark a certificate with that stands without a key: without the mark they
// pass it over. OpenSSL 3.0 has no name for it.
bool markAsTrusted(PKCS12_SAFEBAG* bag) {
    const ossl::Identifier anyUsage(OBJ_nid2obj(NID_anyExtendedKeyUsage));
    constexpr int kAnObject = -1;  // and no bytes
    return PKCS12_add1_attr_by_txt(bag, "2.16.840.1.113894.746875.1.1", V_ASN1_OBJECT,
                                   reinterpret_cast<const unsigned char*>(anyUsage.get()),
                                   kAnObject) == 1;
}

// A file of certificates alone; the label is that of the first.
ossl::Pkcs12 trustedCertificates(const std::vector<ossl::Certificate>& certificates,
                                 const char* label, const char* password) {
    ossl::Bags bags;
    bool isDone = !certificates.empty();
    for (const ossl::Certificate& certificate : certificates) {
        auto* all = bags.release();
        PKCS12_SAFEBAG* const bag = PKCS12_add_cert(&all, certificate.get());
        bags.reset(all);
        const bool isNamed = label != nullptr && certificate == certificates.front();
        isDone = isDone && bag != nullptr && markAsTrusted(bag) &&
                 (!isNamed || PKCS12_add_friendlyname_utf8(bag, label, -1) == 1);
    }
    STACK_OF(PKCS7)* all = nullptr;
    isDone = isDone &&
             PKCS12_add_safe(&all, bags.get(), password != nullptr ? NID_aes_256_cbc : kUnencrypted,
                             kWrittenIterations, password) == 1;
    const ossl::Safes safes(all);
    ossl::Pkcs12 file(isDone ? PKCS12_add_safes(safes.get(), 0) : nullptr);
    if (file != nullptr && password != nullptr &&
        PKCS12_set_mac(file.get(), password, -1, nullptr, 0, kWrittenIterations, nullptr) != 1) {
        file.reset();
    }
    return file;
}

ossl::Pkcs12 keyWithCertificates(EVP_PKEY* key, const std::vector<ossl::Certificate>& certificates,
                                 const char* label, const char* password) {
    const ossl::Certificates others(sk_X509_new_null());
    for (std::size_t i = 1; i < certificates.size(); ++i) {
        (void)sk_X509_push(others.get(), certificates[i].get());
    }
    const int cipher = password != nullptr ? NID_aes_256_cbc : kUnencrypted;
    constexpr int kNoMac = -1;
    return ossl::Pkcs12(PKCS12_create(
        password, label, key, certificates.empty() ? nullptr : certificates[0].get(), others.get(),
        cipher, cipher, kWrittenIterations, password != nullptr ? kWrittenIterations : kNoMac, 0));
}

}  // namespace

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
    for (const Bytes der : content.certificates) {
        certificates.push_back(certificateOf(der));
    }
    // OpenSSL takes UTF-8 up to its first NUL.
    const bool isPlain = isUtf8(content.label) && content.label.find('\0') == std::string::npos;
    const std::string label = isPlain ? content.label : printable(content.label);
    const char* const shown = label.empty() ? nullptr : label.c_str();
    const char* const secret = password != nullptr ? password->c_str() : nullptr;
    const ossl::Pkcs12 file = key != nullptr
                                  ? keyWithCertificates(key.get(), certificates, shown, secret)
                                  : trustedCertificates(certificates, shown, secret);
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
