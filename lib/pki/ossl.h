// Owners of the OpenSSL objects for files of keys and certificates, and their conversion from
// and to DER.
#ifndef LIB_PKI_OSSL_H
#define LIB_PKI_OSSL_H

#include <span>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "cmn/secret_bytes.h"
#include "ossl/owner.h"

namespace fstore::ossl {

using ::ossl::Owner;
using ::ossl::QuietErrors;

// The stacks' own functions are macros.
inline void freeCertificates(STACK_OF(X509) * stack) {
    sk_X509_free(stack);
}
inline void freeExtensions(STACK_OF(X509_EXTENSION) * stack) {
    sk_X509_EXTENSION_pop_free(stack, X509_EXTENSION_free);
}
inline void freeBags(STACK_OF(PKCS12_SAFEBAG) * stack) {
    sk_PKCS12_SAFEBAG_pop_free(stack, PKCS12_SAFEBAG_free);
}
inline void freeSafes(STACK_OF(PKCS7) * stack) {
    sk_PKCS7_pop_free(stack, PKCS7_free);
}
inline void freeText(void* text) {
    OPENSSL_free(text);
}

using AuthorityKeyId = Owner<AUTHORITY_KEYID, AUTHORITY_KEYID_free>;
using BitString = Owner<ASN1_BIT_STRING, ASN1_BIT_STRING_free>;
using Bags = Owner<STACK_OF(PKCS12_SAFEBAG), freeBags>;
using Bio = Owner<BIO, BIO_free_all>;
using Certificate = Owner<X509, X509_free>;
using Certificates = Owner<STACK_OF(X509), freeCertificates>;  // does not own what is in it
using Constraints = Owner<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free>;
using Crl = Owner<X509_CRL, X509_CRL_free>;
using Enumerated = Owner<ASN1_ENUMERATED, ASN1_ENUMERATED_free>;
using Extension = Owner<X509_EXTENSION, X509_EXTENSION_free>;
using Extensions = Owner<STACK_OF(X509_EXTENSION), freeExtensions>;
using GeneralName = Owner<GENERAL_NAME, GENERAL_NAME_free>;
using GeneralNames = Owner<GENERAL_NAMES, GENERAL_NAMES_free>;
using Ia5String = Owner<ASN1_IA5STRING, ASN1_IA5STRING_free>;
using Identifier = Owner<ASN1_OBJECT, ASN1_OBJECT_free>;
using Integer = Owner<ASN1_INTEGER, ASN1_INTEGER_free>;
using KeyContext = Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using KeyInfo = Owner<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using KeyManagement = Owner<EVP_KEYMGMT, EVP_KEYMGMT_free>;
using Name = Owner<X509_NAME, X509_NAME_free>;
using Number = Owner<BIGNUM, BN_free>;
using OctetString = Owner<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;
using Pbes1 = Owner<PBEPARAM, PBEPARAM_free>;
using Pbes2 = Owner<PBE2PARAM, PBE2PARAM_free>;
using Pbkdf2 = Owner<PBKDF2PARAM, PBKDF2PARAM_free>;
using Pkcs7 = Owner<PKCS7, PKCS7_free>;
using Pkcs12 = Owner<PKCS12, PKCS12_free>;
using Pkey = Owner<EVP_PKEY, EVP_PKEY_free>;
using Purposes = Owner<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;
using Request = Owner<X509_REQ, X509_REQ_free>;
using Safes = Owner<STACK_OF(PKCS7), freeSafes>;
using Scrypt = Owner<SCRYPT_PARAMS, SCRYPT_PARAMS_free>;
using EncryptedKey = Owner<X509_SIG, X509_SIG_free>;
using Time = Owner<ASN1_TIME, ASN1_STRING_free>;
using String = Owner<ASN1_STRING, ASN1_STRING_free>;
using Text = Owner<char, freeText>;

// Decodes all of the bytes, or returns null; `Decode` is a function like d2i_X509.
template <class Owned, auto Decode>
Owned decodeWhole(std::span<const unsigned char> der) {
    const unsigned char* at = der.data();
    Owned object(Decode(nullptr, &at, static_cast<long>(der.size())));
    if (object != nullptr && at != der.data() + der.size()) {
        object.reset();
    }
    return object;
}

// The object encoded by `Encode`, a function like i2d_X509; empty when the object is null or
// cannot be encoded.
template <auto Encode, class T>
SecretBytes encoded(const T* object) {
    const int size = object != nullptr ? Encode(object, nullptr) : -1;
    SecretBytes der(size > 0 ? static_cast<std::size_t>(size) : 0);
    unsigned char* at = der.data();
    if (!der.empty() && Encode(object, &at) != size) {
        der.clear();
    }
    return der;
}

}  // namespace fstore::ossl

#endif  // LIB_PKI_OSSL_H
