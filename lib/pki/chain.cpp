#include "lib/pki/chain.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"
#include "lib/pki/verifier.h"

namespace fstore {
namespace {

ossl::Certificate decode(std::span<const unsigned char> der) {
    return ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
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
    Verifier verifier;
    const ossl::Certificate first = decode(certificate);
    X509* subject = first.get();
    // Each goes in once: two that issued each other would lead in circles.
    while (subject != nullptr && !isSelfIssued(subject)) {
        std::optional<std::size_t> best;
        for (std::size_t i = 0; i < candidates.size(); ++i) {
            const bool used = std::ranges::find(chain.issuers, i) != chain.issuers.end();
            if (!used && verifier.isIssuer(candidates[i].get(), subject) &&
                (!best || endsLater(candidates[i].get(), candidates[*best].get()))) {
                best = i;
            }
        }
        if (!best) {
            return chain;
        }
        if (chain.issuers.size() == kMostIssuers) {
            throw Failure(kMalformed,
                          fmt::format("the chain has more than {} issuers", kMostIssuers));
        }
        chain.issuers.push_back(*best);
        subject = candidates[*best].get();
    }
    chain.complete = subject != nullptr;
    return chain;
}

}  // namespace fstore
