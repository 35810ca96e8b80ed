#include "lib/pki/chain.h"

#include <functional>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"
#include "lib/pki/verifier.h"

namespace fstore {
namespace {

// What is revoked, as far as anybody asked: each question reads lists.
class AskedOnce {
public:
    explicit AskedOnce(const PathSearch::IsRevoked& isRevoked) : isRevoked_(isRevoked) {}

    bool operator()(std::size_t issuer) {
        const auto known = answers_.find(issuer);
        return known != answers_.end()
                   ? known->second
                   : answers_.emplace(issuer, isRevoked_ && isRevoked_(issuer)).first->second;
    }

private:
    const PathSearch::IsRevoked& isRevoked_;
    std::map<std::size_t, bool> answers_;
};

}  // namespace

Chain chainOf(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known,
              const ChainRules& rules) {
    const ossl::QuietErrors quiet;
    const auto first = ossl::decodeWhole<ossl::Certificate, d2i_X509>(certificate);
    if (first == nullptr || isSelfSigned(first.get())) {
        return {.end = first == nullptr ? IssuerPath::End::kNoIssuer : IssuerPath::End::kRoot};
    }
    const IssuerGraph graph(known, rules.time, IssuerGraph::Match::kSignature);
    Verifier verifier;
    AskedOnce isRevoked(rules.isRevoked);
    IssuerPath path = bestPath(graph, verifier, first.get(), std::ref(isRevoked));
    if (path.issuers.size() > kMostIssuers) {
        throw Failure(kMalformed, fmt::format("the chain has more than {} issuers", kMostIssuers));
    }
    Chain chain{.end = path.end};
    for (const std::size_t issuer : path.issuers) {
        if (!graph.isInForce(issuer)) {
            chain.notInForce.push_back(issuer);
        } else if (isRevoked(issuer)) {
            chain.revoked.push_back(issuer);
        }
    }
    chain.issuers = std::move(path.issuers);
    return chain;
}

}  // namespace fstore
