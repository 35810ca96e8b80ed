// Stored objects in the formats that other programs read.
//
// Any thread may call any of these. Failures throw.
#ifndef LIB_PKI_ENCODE_H
#define LIB_PKI_ENCODE_H

#include <span>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/secret.h"
#include "lib/records/attributes.h"

namespace fstore {

// The rounds that turn a password into a key in what we write: today's advice against
// guessing, some tenths of a second.
inline constexpr int kWrittenIterations = 600'000;

// The PEM block of an object in DER; of a key that is not encrypted.
SecretBytes pemOf(Kind kind, std::span<const unsigned char> der);

// A key, given as PKCS#8, as encrypted PKCS#8: AES-256-CBC under PBKDF2 with HMAC-SHA-256.
SecretBytes encryptedKey(std::span<const unsigned char> pkcs8, const SecretText& password);
SecretBytes pemOfEncrypted(std::span<const unsigned char> encrypted);

struct Pkcs12Content {
    std::span<const unsigned char> key;  // PKCS#8; may be empty
    // The key's own comes first, if there is a key.
    std::vector<std::span<const unsigned char>> certificates;
    std::string label;  // of the key and its certificate; may be empty
};

// A PKCS#12 file, encrypted as keys are. Null for one that is neither encrypted nor
// authenticated.
SecretBytes pkcs12Of(const Pkcs12Content& content, const SecretText* password);

// A PKCS#7 file of certificates and CRLs, which nothing signs.
SecretBytes pkcs7Of(const std::vector<std::span<const unsigned char>>& certificates,
                    const std::vector<std::span<const unsigned char>>& crls);

}  // namespace fstore

#endif  // LIB_PKI_ENCODE_H
