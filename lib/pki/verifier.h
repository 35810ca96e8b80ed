// Which certificate issued another one, by its signature.
#ifndef LIB_PKI_VERIFIER_H
#define LIB_PKI_VERIFIER_H

#include <cstddef>
#include <utility>
#include <vector>

#include "lib/pki/ossl.h"

namespace fstore {

// Hostile certificates make no more work than this.
inline constexpr std::size_t kMostSignatures = 1000;

// Verifies signatures, which take a millisecond each, and no more of them than are allowed: of
// issuers of one subject that have the same key, asked one after the other, one. For one thread.
class Verifier {
public:
    // An issuer has the name and the key identifier that the subject names, and its key made the
    // signature. Null issues nothing. Throws kMalformed beyond the bound.
    bool isIssuer(X509* issuer, X509* subject);

private:
    bool hasSigned(X509* issuer, X509* subject);

    std::size_t signatures_ = 0;
    ossl::Certificate subject_;                              // the last one
    std::vector<std::pair<ossl::Certificate, bool>> asked_;  // issuers of it, and the answers
};

}  // namespace fstore

#endif  // LIB_PKI_VERIFIER_H
