// The paths from a certificate to the roots that it depends on, for whoever exports one of them and
// for whoever verifies them.
//
// For one thread. Failures throw.
#ifndef LIB_PKI_ISSUER_PATHS_H
#define LIB_PKI_ISSUER_PATHS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <queue>
#include <set>
#include <tuple>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/pki/ossl.h"
#include "lib/pki/verifier.h"

namespace fstore {

// The certificates that are known, each by its index, and which of them issued which.
class IssuerGraph {
public:
    enum class Match {
        kSignature,  // an issuer's key has made the signature
        kNameToo,    // where nobody's has, those count that have the issuer's name: to say that
    };

    // What is damaged issues nothing, nor does a copy of an earlier one.
    IssuerGraph(const std::vector<SecretBytes>& ders, std::int64_t time, Match match);

    // Null for what issues nothing.
    X509* at(std::size_t index) const { return certificates_[index].get(); }
    std::size_t indexOf(const X509* certificate) const;

    // Whether it has signed itself.
    bool isRoot(std::size_t index) const;
    bool isInForce(std::size_t index) const;

    // Whether two are of one holder with one key: a path through both has a shorter one in it.
    bool isSameHolder(std::size_t a, std::size_t b) const;

    // Its issuers, those first that are in force; then the one that began last, ends last, has the
    // smaller digest. Of a root that is known, itself. Throws what Verifier throws.
    std::vector<std::size_t> issuersOf(X509* subject, Verifier& verifier) const;

    // The same of one of the certificates, looked for once.
    const std::vector<std::size_t>& issuersOf(std::size_t subject, Verifier& verifier) const;

private:
    std::vector<std::size_t> unsortedIssuersOf(X509* subject, Verifier& verifier) const;
    bool isBetter(std::size_t a, std::size_t b) const;

    const std::int64_t time_;
    const Match match_;
    std::vector<ossl::Certificate> certificates_;
    std::multimap<unsigned long, std::size_t> bySubject_;  // by the digest of the name
    mutable std::map<std::size_t, bool> roots_;            // as far as it was asked
    mutable std::map<std::size_t, std::vector<std::size_t>> issuersOf_;  // as well
};

// Whether the certificate has signed itself.
bool isSelfSigned(X509* certificate);

// A way from a certificate over its issuers.
struct IssuerPath {
    enum class End {
        kRoot,      // at one that has signed itself
        kNoIssuer,  // at one whose issuer is not known
        kCircle,    // nowhere: those that are known have only issued each other
    };

    std::vector<std::size_t> issuers;  // the certificate's own first
    End end = End::kNoIssuer;
    std::size_t flaws = 0;  // how many of them are not in force, or revoked
};

// Finds the paths from a certificate, those with the fewest flaws first, and of these the shortest.
class PathSearch {
public:
    enum class Visit {
        // Each certificate once, so that the first path to each is found.
        kOnce,
        // Each path of which all are in force, until there are more than anybody can look at: many
        // authorities may have issued each other.
        kEveryPath,
    };

    // Whether the certificate of this index is revoked; asked of few. Empty: none is.
    using IsRevoked = std::function<bool(std::size_t)>;

    // All but the last live longer than this. The verifier is for one certificate.
    PathSearch(const IssuerGraph& graph, Verifier& verifier, X509* certificate, Visit visit,
               IsRevoked isRevoked = {});

    // The next one that ends at a root or for want of an issuer; none when there is no other.
    std::optional<IssuerPath> next();

    // The longest that was looked at, for when all that were found have only issued each other.
    IssuerPath circle() const;

private:
    struct Step {
        std::size_t issuer, below;  // the step before it, or kNone
        std::size_t flaws, length;
        bool isAsked;  // whether it is revoked
    };
    // The flaws, the length, and the step itself.
    using Turn = std::tuple<std::size_t, std::size_t, std::size_t>;

    void add(const std::vector<std::size_t>& issuers, std::size_t below);
    bool isOnPath(std::size_t issuer, std::size_t step) const;
    bool isFoundRevoked(std::size_t step);
    IssuerPath pathTo(std::size_t step, IssuerPath::End end) const;

    const IssuerGraph& graph_;
    Verifier& verifier_;
    X509* const certificate_;
    const Visit visit_;
    const IsRevoked isRevoked_;
    bool isBegun_ = false;
    std::vector<Step> steps_;
    std::priority_queue<Turn, std::vector<Turn>, std::greater<>> waiting_;
    std::set<std::size_t> seen_;
    std::size_t last_;
};

// The one that a server wants: the first of those with the fewest flaws that leads to a root, and
// where none of these does, one that ends early. Throws what Verifier throws.
IssuerPath bestPath(const IssuerGraph& graph, Verifier& verifier, X509* certificate,
                    const PathSearch::IsRevoked& isRevoked = {});

}  // namespace fstore

#endif  // LIB_PKI_ISSUER_PATHS_H
