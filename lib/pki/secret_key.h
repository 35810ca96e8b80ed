// Private keys as they come in files, converted to the form in which they are stored: PKCS#8,
// not encrypted.
//
// Failures throw: kWrongPassword, kMalformed, and what InputPassword throws.
#ifndef LIB_PKI_SECRET_KEY_H
#define LIB_PKI_SECRET_KEY_H

#include <optional>
#include <span>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "cmn/secret_bytes.h"
#include "lib/pki/password.h"

namespace fstore {

// The same key always gives the same bytes, whatever form it came in.
SecretBytes pkcs8Of(const EVP_PKEY& key);

// A key in plain DER: PKCS#8, or the older form of its algorithm. None when it is
// something else.
std::optional<SecretBytes> keyFromPlain(std::span<const unsigned char> der);

// An encrypted PKCS#8 key. None when it is something else.
std::optional<SecretBytes> keyFromEncrypted(std::span<const unsigned char> der,
                                            FilePassword& password);

}  // namespace fstore

#endif  // LIB_PKI_SECRET_KEY_H
