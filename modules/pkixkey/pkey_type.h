// What the types of asymmetric keys are called, and what belongs to each.
#ifndef MODULES_PKIXKEY_PKEY_TYPE_H
#define MODULES_PKIXKEY_PKEY_TYPE_H

#include <cstddef>

#include <openssl/obj_mac.h>

#include "api/pki_alg.h"
#include "api/t_key.h"

struct PkeyType {
    TKey::key_type_t type;
    pki_alg_t alg;
    const char* name;         // OpenSSL's, of the algorithm
    const char* digest;       // for signatures; null where the algorithm brings its own
    int curve;                // OpenSSL's number, 0 when there is none to choose
    const char* curveName;    // as in FIPS 186, null likewise
    std::size_t scalarBytes;  // of the private scalar or seed; 0 for RSA
};

inline constexpr PkeyType kPkeyTypes[] = {
    {TKey::kRsa, PKI_ALG_RSA, "RSA", "SHA256", 0, nullptr, 0},
    {TKey::kEcP256, PKI_ALG_EC_P256, "EC", "SHA256", NID_X9_62_prime256v1, "P-256", 32},
    {TKey::kEcP384, PKI_ALG_EC_P384, "EC", "SHA384", NID_secp384r1, "P-384", 48},
    {TKey::kEcP521, PKI_ALG_EC_P521, "EC", "SHA512", NID_secp521r1, "P-521", 66},
    {TKey::kEd25519, PKI_ALG_ED25519, "ED25519", nullptr, 0, nullptr, 32},
};

// Null for a type that is not asymmetric.
constexpr const PkeyType* findPkeyType(TKey::key_type_t type) noexcept {
    for (const PkeyType& known : kPkeyTypes) {
        if (known.type == type) {
            return &known;
        }
    }
    return nullptr;
}

#endif  // MODULES_PKIXKEY_PKEY_TYPE_H
