#include "lib/pki/verifier.h"

#include <fmt/format.h>
#include <openssl/x509v3.h>

#include "lib/base/error.h"

namespace fstore {

namespace {

ossl::Certificate shared(X509* certificate) {
    (void)X509_up_ref(certificate);
    return ossl::Certificate(certificate);
}

}  // namespace

bool Verifier::isIssuer(X509* issuer, X509* subject) {
    if (issuer == nullptr || X509_check_issued(issuer, subject) != X509_V_OK) {
        return false;
    }
    if (subject_.get() != subject) {
        asked_.clear();
        subject_ = shared(subject);
    }
    const X509_PUBKEY* const key = X509_get_X509_PUBKEY(issuer);
    for (const auto& [other, answer] : asked_) {
        if (X509_PUBKEY_eq(X509_get_X509_PUBKEY(other.get()), key) == 1) {
            return answer;
        }
    }
    const bool answer = hasSigned(issuer, subject);
    asked_.emplace_back(shared(issuer), answer);
    return answer;
}

bool Verifier::hasSigned(X509* issuer, X509* subject) {
    if (++signatures_ > kMostSignatures) {
        throw Failure(kMalformed,
                      fmt::format("too many certificates may have issued those of the chain: "
                                  "more than {} signatures would have to be verified",
                                  kMostSignatures));
    }
    return X509_verify(subject, X509_get0_pubkey(issuer)) == 1;
}

}  // namespace fstore
