// What the types of asymmetric keys are called, and what belongs to each.
#ifndef MODULES_PKIXKEY_PKEY_TYPE_H
#define MODULES_PKIXKEY_PKEY_TYPE_H

#include <cstddef>

#include <openssl/obj_mac.h>

#include "api/pki_alg.h"
#include "api/t_key.h"
#include "modules/common/bytes.h"

namespace pkey_type {

// Object identifiers with their parameters, as an AlgorithmIdentifier contains them.
// These are the only encodings of each: RSA has a NULL, curves are named, and Ed25519
// has nothing.
inline constexpr unsigned char kRsa[] = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7,
                                         0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
inline constexpr unsigned char kP256[] = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D,
                                          0x02, 0x01, 0x06, 0x08, 0x2A, 0x86, 0x48,
                                          0xCE, 0x3D, 0x03, 0x01, 0x07};
inline constexpr unsigned char kP384[] = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02,
                                          0x01, 0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
inline constexpr unsigned char kP521[] = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02,
                                          0x01, 0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};
inline constexpr unsigned char kEd25519[] = {0x06, 0x03, 0x2B, 0x65, 0x70};

inline constexpr std::size_t kEcPublicKeySize = 9;  // the part that curves share

}  // namespace pkey_type

struct PkeyType {
    TKey::key_type_t type;
    pki_alg_t alg;
    const char* name;         // OpenSSL's, of the algorithm
    const char* digest;       // for signatures; null where the algorithm brings its own
    int curve;                // OpenSSL's number, 0 when there is none to choose
    const char* curveName;    // as in FIPS 186, null likewise
    std::size_t scalarBytes;  // of the private scalar or seed; 0 for RSA
    Bytes algorithm;          // what its AlgorithmIdentifier contains

    // The named curve as an element, which ends the algorithm.
    constexpr Bytes curveId() const noexcept {
        return algorithm.subspan(pkey_type::kEcPublicKeySize);
    }
};

inline constexpr PkeyType kPkeyTypes[] = {
    {TKey::kRsa, PKI_ALG_RSA, "RSA", "SHA256", 0, nullptr, 0, pkey_type::kRsa},
    {TKey::kEcP256, PKI_ALG_EC_P256, "EC", "SHA256", NID_X9_62_prime256v1, "P-256", 32,
     pkey_type::kP256},
    {TKey::kEcP384, PKI_ALG_EC_P384, "EC", "SHA384", NID_secp384r1, "P-384", 48, pkey_type::kP384},
    {TKey::kEcP521, PKI_ALG_EC_P521, "EC", "SHA512", NID_secp521r1, "P-521", 66, pkey_type::kP521},
    {TKey::kEd25519, PKI_ALG_ED25519, "ED25519", nullptr, 0, nullptr, 32, pkey_type::kEd25519},
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
