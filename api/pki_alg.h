// SPDX-License-Identifier: Apache-2.0
// Numbers of algorithms and vendors, the same in all modules of the application.
#ifndef API_PKI_ALG_H
#define API_PKI_ALG_H

enum pki_alg_t : unsigned int {
    PKI_ALG_NONE = 0,
    PKI_ALG_RSA = 1,
    PKI_ALG_EC_P256 = 2,
    PKI_ALG_EC_P384 = 3,
    PKI_ALG_EC_P521 = 4,
    PKI_ALG_ED25519 = 5,
    PKI_ALG_AES_GCM = 9,  // key of 16, 24 or 32 bytes
    PKI_ALG_SHA1 = 0x10000,
    PKI_ALG_SHA256 = 0x10001,
    PKI_ALG_PBKDF2_HMAC_SHA256 = 0x20000
};

// Who made a key: this system's own services are vendor 0.
using pki_vendor = unsigned int;

#endif  // API_PKI_ALG_H
