// New private keys.
//
// Any thread may call any of these. Failures throw.
#ifndef LIB_PKI_NEW_KEY_H
#define LIB_PKI_NEW_KEY_H

#include <functional>
#include <string>
#include <string_view>

#include "cmn/secret_bytes.h"

namespace fstore {

// The algorithm of a key and its size, as newKey() takes them.
struct KeyType {
    std::string algorithm;  // OpenSSL's name: "RSA", "EC", "ED25519", "ED448"
    unsigned int bits = 0;  // of RSA
    std::string group;      // of EC: "P-256"
};

// The types that keyTypeOf() reads, for people.
inline constexpr std::string_view kKeyTypes =
    "rsa:2048 to rsa:8192, ec:P-256, ec:P-384, ec:P-521, ec:brainpoolP256r1, ec:brainpoolP384r1, "
    "ec:brainpoolP512r1, ed25519 or ed448";

// The type that a user writes, in any case of letters; "rsa" is rsa:3072 and "ec" is ec:P-256.
// Throws kInvalid for any other, above all for what would be weak.
KeyType keyTypeOf(std::string_view text);

// A new key of this type, as PKCS#8, not encrypted. `isCancelled` is asked now and then while
// numbers are searched for, which takes some seconds for a long RSA key; throws kInterrupted when
// it says so.
SecretBytes newKey(const KeyType& type, const std::function<bool()>& isCancelled);

}  // namespace fstore

#endif  // LIB_PKI_NEW_KEY_H
