// Private keys in OpenSSH's own form.
#ifndef LIB_PKI_OPENSSH_H
#define LIB_PKI_OPENSSH_H

#include <span>
#include <string>

#include "cmn/secret_bytes.h"

namespace fstore {

// The key in the contents of a block of type "OPENSSH PRIVATE KEY", as PKCS#8; its comment goes to
// `label`. Any thread may call it. Throws kMalformed for a damaged key, for one with a password,
// which only OpenSSH can take off, and for one of an algorithm that is not RSA, ECDSA or Ed25519.
SecretBytes keyFromOpenSsh(std::span<const unsigned char> contents, std::string& label);

}  // namespace fstore

#endif  // LIB_PKI_OPENSSH_H
