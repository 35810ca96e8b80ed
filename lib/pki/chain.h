// The way from a certificate to the root that it depends on.
#ifndef LIB_PKI_CHAIN_H
#define LIB_PKI_CHAIN_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/time.h"
#include "lib/pki/issuer_paths.h"

namespace fstore {

// Bounds on the work that hostile certificates make, this one and that of signatures: no honest
// chain comes near them.
inline constexpr std::size_t kMostIssuers = 100;  // of a chain

// When, and for whom, a chain should be good.
struct ChainRules {
    std::int64_t time = now();
    PathSearch::IsRevoked isRevoked = {};
};

struct Chain {
    std::vector<std::size_t> issuers = {};  // by index in `known`; the certificate's own first
    IssuerPath::End end = IssuerPath::End::kNoIssuer;
    // Of the issuers those that are no good, where no way was better.
    std::vector<std::size_t> notInForce = {}, revoked = {};
};

// The issuers of a certificate among the known ones (lib/pki/verifier.h), none of them twice: the
// shortest way to one that has signed itself, as verify() takes it. Who is not in force or revoked
// goes in only where every other way ends with as many of them, or there is none: an expired
// certificate is exported with its chain, too. Of issuers with one key it is the one that began
// last, ends last, has the smaller digest. Throws kMalformed when one of the bounds is exceeded,
// and what isRevoked() throws.
Chain chainOf(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known,
              const ChainRules& rules = {});

}  // namespace fstore

#endif  // LIB_PKI_CHAIN_H
