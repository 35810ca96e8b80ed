#include "lib/pki/chain.h"

#include <algorithm>
#include <optional>

#include "lib/pki/ossl.h"

namespace fstore {
namespace {

ossl::Certificate decode(std::span<const unsigned char> der) {
    return ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
}

bool isIssuer(X509* issuer, X509* subject) {
    return issuer != nullptr && X509_check_issued(issuer, subject) == X509_V_OK &&
           X509_verify(subject, X509_get0_pubkey(issuer)) == 1;
}

bool endsLater(const X509* a, const X509* b) {
    return ASN1_TIME_compare(X509_get0_notAfter(a), X509_get0_notAfter(b)) > 0;
}

bool isSelfIssued(X509* certificate) {
    return (X509_get_extension_flags(certificate) & EXFLAG_SI) != 0;
}

}  // namespace

Chain chainOf(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known) {
    const ossl::QuietErrors quiet;
    std::vector<ossl::Certificate> candidates;
    candidates.reserve(known.size());
    for (const SecretBytes& der : known) {
        candidates.push_back(decode(der));  // null for a damaged one, which issues nothing
    }
    Chain chain;
    const ossl::Certificate first = decode(certificate);
    X509* subject = first.get();
    // Each goes in once: two that issued each other would lead in circles.
    while (subject != nullptr && !isSelfIssued(subject)) {
        std::optional<std::size_t> best;
        for (std::size_t i = 0; i < candidates.size(); ++i) {
            const bool used = std::ranges::find(chain.issuers, i) != chain.issuers.end();
            if (!used && isIssuer(candidates[i].get(), subject) &&
                (!best || endsLater(candidates[i].get(), candidates[*best].get()))) {
                best = i;
            }
        }
        if (!best) {
            return chain;
        }
        chain.issuers.push_back(*best);
        subject = candidates[*best].get();
    }
    chain.complete = subject != nullptr;
    return chain;
}

}  // namespace fstore
