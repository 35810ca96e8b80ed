// The way from a certificate to the root that it depends on.
#ifndef LIB_PKI_CHAIN_H
#define LIB_PKI_CHAIN_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/time.h"
#include "lib/pki/verifier.h"

namespace fstore {

// Bounds on the work that hostile certificates make, this one and that of signatures: no honest
// chain comes near them.
inline constexpr std::size_t kMostIssuers = 100;  // of a chain

// When, and for whom, a chain should be good.
struct ChainRules {
    std::int64_t time = now();
    // Whether the known certificate of this index is revoked; asked of few. Empty: none is.
    std::function<bool(std::size_t)> isRevoked = {};
};

struct Chain {
    std::vector<std::size_t> issuers;  // by index in `known`; the certificate's own first
    bool complete = false;             // the last one, or the certificate itself, is self-issued
    // Of the issuers those that are no good, and of which there was no better one.
    std::vector<std::size_t> notInForce = {}, revoked = {};
};

// The issuers of a certificate among the known ones (lib/pki/verifier.h). Of several, which then
// have one key, it is one that is in force and not revoked; then the one that began last, ends
// last, has the smaller digest. A bad one is better than none: an expired certificate is exported
// with its chain, too. Throws kMalformed when one of the bounds is exceeded, and what isRevoked()
// throws.
Chain chainOf(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known,
              const ChainRules& rules = {});

}  // namespace fstore

#endif  // LIB_PKI_CHAIN_H
