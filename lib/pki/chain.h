// The way from a certificate to the root that it depends on.
#ifndef LIB_PKI_CHAIN_H
#define LIB_PKI_CHAIN_H

#include <cstddef>
#include <span>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/pki/verifier.h"

namespace fstore {

// Bounds on the work that hostile certificates make, this one and that of signatures: no honest
// chain comes near them.
inline constexpr std::size_t kMostIssuers = 100;  // of a chain

struct Chain {
    std::vector<std::size_t> issuers;  // by index in `known`; the certificate's own first
    bool complete = false;             // the last one, or the certificate itself, is self-issued
};

// The issuers of a certificate among the known ones. An issuer has the name and the key
// identifier that the certificate names, and its key made the signature; of several, the one
// that expires last. Expiry does not matter otherwise: an expired certificate is exported with
// its chain, too. Throws kMalformed when one of the bounds is exceeded.
Chain chainOf(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known);

}  // namespace fstore

#endif  // LIB_PKI_CHAIN_H
