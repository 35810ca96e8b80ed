#include "lib/pki/verifier.h"

#include <fmt/format.h>
#include <openssl/x509v3.h>

#include "lib/base/error.h"

namespace fstore {

bool Verifier::isIssuer(X509* issuer, X509* subject) {
    if (issuer == nullptr || X509_check_issued(issuer, subject) != X509_V_OK) {
        return false;
    }
    if (++signatures_ > kMostSignatures) {
        throw Failure(kMalformed,
                      fmt::format("too many certificates may have issued those of the chain: "
                                  "more than {} signatures would have to be verified",
                                  kMostSignatures));
    }
    return X509_verify(subject, X509_get0_pubkey(issuer)) == 1;
}

}  // namespace fstore
