#include "lib/pki/chain.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include <fmt/format.h>
#include <openssl/sha.h>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"
#include "lib/pki/verifier.h"

namespace fstore {
namespace {

ossl::Certificate decode(std::span<const unsigned char> der) {
    return ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
}

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

Digest digestOf(const X509* certificate) {
    Digest digest{};
    (void)X509_digest(certificate, EVP_sha256(), digest.data(), nullptr);
    return digest;
}

bool isInForce(const X509* certificate, std::int64_t time) {
    std::time_t then = time;
    return X509_cmp_time(X509_get0_notBefore(certificate), &then) < 0 &&
           X509_cmp_time(X509_get0_notAfter(certificate), &then) > 0;
}

// Whether `a` comes before `b` in the order that the header says, but for revocation.
bool isBetter(const X509* a, const X509* b, std::int64_t time) {
    if (isInForce(a, time) != isInForce(b, time)) {
        return isInForce(a, time);
    }
    for (const auto& timeOf : {X509_get0_notBefore, X509_get0_notAfter}) {
        const int order = ASN1_TIME_compare(timeOf(a), timeOf(b));
        if (order != 0) {
            return order > 0;
        }
    }
    return digestOf(a) < digestOf(b);
}

bool isSelfIssued(X509* certificate) {
    return (X509_get_extension_flags(certificate) & EXFLAG_SI) != 0;
}

// Follows issuers, and says which of them are no good.
class Climb {
public:
    Climb(const std::vector<ossl::Certificate>& known, const ChainRules& rules)
        : known_(known), rules_(rules) {}

    Chain from(X509* subject) {
        // Each goes in once: two that issued each other would lead in circles.
        while (subject != nullptr && !isSelfIssued(subject)) {
            const std::vector<std::size_t> issuers = issuersOf(subject);
            if (issuers.empty()) {
                return std::move(chain_);
            }
            if (chain_.issuers.size() == kMostIssuers) {
                throw Failure(kMalformed,
                              fmt::format("the chain has more than {} issuers", kMostIssuers));
            }
            subject = known_[take(issuers)].get();
        }
        chain_.complete = subject != nullptr;
        return std::move(chain_);
    }

private:
    // The best first, but for revocation.
    std::vector<std::size_t> issuersOf(X509* subject) {
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < known_.size(); ++i) {
            const bool used = std::ranges::find(chain_.issuers, i) != chain_.issuers.end();
            if (!used && verifier_.isIssuer(known_[i].get(), subject)) {
                found.push_back(i);
            }
        }
        std::ranges::stable_sort(found, [&](std::size_t a, std::size_t b) {
            return isBetter(known_[a].get(), known_[b].get(), rules_.time);
        });
        return found;
    }

    std::size_t take(const std::vector<std::size_t>& issuers) {
        const std::size_t first = issuers.front();
        if (!isInForce(known_[first].get(), rules_.time)) {
            chain_.notInForce.push_back(first);
            chain_.issuers.push_back(first);
            return first;
        }
        const auto good = std::ranges::find_if(issuers, [&](std::size_t issuer) {
            return isInForce(known_[issuer].get(), rules_.time) &&
                   !(rules_.isRevoked && rules_.isRevoked(issuer));
        });
        if (good == issuers.end()) {
            chain_.revoked.push_back(first);
        }
        chain_.issuers.push_back(good != issuers.end() ? *good : first);
        return chain_.issuers.back();
    }

    const std::vector<ossl::Certificate>& known_;
    const ChainRules& rules_;
    Verifier verifier_;
    Chain chain_;
};

}  // namespace

Chain chainOf(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known,
              const ChainRules& rules) {
    const ossl::QuietErrors quiet;
    std::vector<ossl::Certificate> candidates;
    candidates.reserve(known.size());
    for (const SecretBytes& der : known) {
        candidates.push_back(decode(der));  // null for a damaged one, which issues nothing
    }
    const ossl::Certificate first = decode(certificate);
    return Climb(candidates, rules).from(first.get());
}

}  // namespace fstore
