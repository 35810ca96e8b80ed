#include "provider/objects.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/x509.h>

namespace provider {
namespace {

using Certificate = ossl::Owner<X509, X509_free>;
using Crl = ossl::Owner<X509_CRL, X509_CRL_free>;
using Decoder = ossl::Owner<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>;
using Digest = ossl::Owner<EVP_MD, EVP_MD_free>;
using Integer = ossl::Owner<ASN1_INTEGER, ASN1_INTEGER_free>;
using Name = ossl::Owner<X509_NAME, X509_NAME_free>;
using PublicKey = ossl::Owner<EVP_PKEY, EVP_PKEY_free>;

template <class Owned, auto Decode>
Owned decode(std::span<const unsigned char> der) {
    const unsigned char* at = der.data();
    return Owned(Decode(nullptr, &at, static_cast<long>(der.size())));
}

template <auto Encode, class T>
Bytes encode(T* object) {
    unsigned char* bytes = nullptr;
    const int size = Encode(object, &bytes);
    if (size < 0) {
        throw std::bad_alloc();
    }
    Bytes der(bytes, bytes + size);
    OPENSSL_free(bytes);
    return der;
}

PublicKey privateKeyOf(std::span<const unsigned char> der, OSSL_LIB_CTX* context) {
    EVP_PKEY* key = nullptr;
    const Decoder decoder(OSSL_DECODER_CTX_new_for_pkey(&key, "DER", "PrivateKeyInfo", nullptr,
                                                        EVP_PKEY_KEYPAIR, context, nullptr));
    const unsigned char* at = der.data();
    std::size_t left = der.size();
    if (decoder == nullptr || OSSL_DECODER_from_data(decoder.get(), &at, &left) != 1) {
        throw Failure(Reason::kNotLoadable, "this OpenSSL does not know the algorithm of the key");
    }
    return PublicKey(key);
}

bool isName(const X509_NAME* name, const Bytes& wanted) {
    const Name other = decode<Name, d2i_X509_NAME>(wanted);
    return other != nullptr && X509_NAME_cmp(name, other.get()) == 0;
}

bool hasDigest(std::span<const unsigned char> bytes, const EVP_MD* kind, const Bytes& wanted) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    return EVP_Digest(bytes.data(), bytes.size(), digest, &size, kind, nullptr) == 1 &&
           std::ranges::equal(std::span(digest, size), wanted);
}

bool takeBytes(const OSSL_PARAM* parameters, const char* name, std::optional<Bytes>& target) {
    const OSSL_PARAM* const found = OSSL_PARAM_locate_const(parameters, name);
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (found == nullptr) {
        return true;
    }
    if (OSSL_PARAM_get_octet_string_ptr(found, &bytes, &size) != 1) {
        return false;
    }
    const auto* const first = static_cast<const unsigned char*>(bytes);
    target.emplace(first, first + size);
    return true;
}

// Empty when it is not there.
bool takeText(const OSSL_PARAM* parameters, const char* name, std::string& target) {
    const OSSL_PARAM* const found = OSSL_PARAM_locate_const(parameters, name);
    const char* text = nullptr;
    if (found == nullptr) {
        return true;
    }
    if (OSSL_PARAM_get_utf8_string_ptr(found, &text) != 1 || text == nullptr) {
        return false;
    }
    target = text;
    return true;
}

}  // namespace

Bytes publicKeyOf(const Object& object, OSSL_LIB_CTX* context) {
    if (object.kind() == FILESTORE_CERTIFICATE) {
        const auto certificate = decode<Certificate, d2i_X509>(object.der());
        if (certificate == nullptr) {
            throw Failure(Reason::kDamaged, "the certificate cannot be decoded");
        }
        return encode<i2d_X509_PUBKEY>(X509_get_X509_PUBKEY(certificate.get()));
    }
    return encode<i2d_PUBKEY>(privateKeyOf(object.der(), context).get());
}

bool Search::set(const OSSL_PARAM* parameters) {
    std::string alias;
    if (!takeBytes(parameters, OSSL_STORE_PARAM_SUBJECT, subject_) ||
        !takeBytes(parameters, OSSL_STORE_PARAM_ISSUER, issuer_) ||
        !takeBytes(parameters, OSSL_STORE_PARAM_FINGERPRINT, fingerprint_) ||
        !takeText(parameters, OSSL_STORE_PARAM_DIGEST, digest_) ||
        !takeText(parameters, OSSL_STORE_PARAM_ALIAS, alias)) {
        return false;
    }
    if (!alias.empty()) {
        alias_ = alias;
    }
    const OSSL_PARAM* const serial = OSSL_PARAM_locate_const(parameters, OSSL_STORE_PARAM_SERIAL);
    BIGNUM* number = nullptr;
    if (serial != nullptr) {
        if (OSSL_PARAM_get_BN(serial, &number) != 1) {
            return false;
        }
        serial_.reset(number);
    }
    return true;
}

bool Search::matchesAlias(const Entry& entry) const {
    return alias_ && (entry.name == *alias_ || entry.label == *alias_);
}

bool Search::matches(const Object& object) const {
    if (object.kind() == FILESTORE_CRL) {
        const auto crl = decode<Crl, d2i_X509_CRL>(object.der());
        return crl != nullptr && subject_ && isName(X509_CRL_get_issuer(crl.get()), *subject_);
    }
    const auto certificate = object.kind() == FILESTORE_CERTIFICATE
                                 ? decode<Certificate, d2i_X509>(object.der())
                                 : Certificate();
    if (certificate == nullptr) {
        return false;
    }
    X509* const x509 = certificate.get();
    if (subject_) {
        return isName(X509_get_subject_name(x509), *subject_);
    }
    if (issuer_) {
        const Integer wanted(serial_ != nullptr ? BN_to_ASN1_INTEGER(serial_.get(), nullptr)
                                                : nullptr);
        return isName(X509_get_issuer_name(x509), *issuer_) && wanted != nullptr &&
               ASN1_INTEGER_cmp(X509_get0_serialNumber(x509), wanted.get()) == 0;
    }
    const Digest kind(EVP_MD_fetch(nullptr, digest_.c_str(), nullptr));
    return fingerprint_ && kind != nullptr &&
           (hasDigest(object.der(), kind.get(), *fingerprint_) ||
            hasDigest(encode<i2d_X509_PUBKEY>(X509_get_X509_PUBKEY(x509)), kind.get(),
                      *fingerprint_));
}

}  // namespace provider
