#include "lib/pki/issuer_paths.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <utility>

#include <openssl/sha.h>

namespace fstore {
namespace {

constexpr std::size_t kNoStep = SIZE_MAX, kMostSteps = 5000;

using CertificateDigest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

CertificateDigest sha256Of(const X509* certificate) {
    CertificateDigest digest{};
    (void)X509_digest(certificate, EVP_sha256(), digest.data(), nullptr);
    return digest;
}

unsigned long digestOfName(const X509_NAME* name) {
    return X509_NAME_hash_ex(name, nullptr, nullptr, nullptr);
}

}  // namespace

bool isSelfSigned(X509* certificate) {
    return X509_self_signed(certificate, 1) == 1;
}

IssuerGraph::IssuerGraph(const std::vector<SecretBytes>& ders, std::int64_t time, Match match)
    : time_(time), match_(match) {
    const ossl::QuietErrors quiet;
    std::set<CertificateDigest> seen;
    certificates_.reserve(ders.size());
    for (const SecretBytes& der : ders) {
        ossl::Certificate certificate = ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
        if (certificate == nullptr || !seen.insert(sha256Of(certificate.get())).second) {
            certificates_.emplace_back();
            continue;
        }
        bySubject_.emplace(digestOfName(X509_get_subject_name(certificate.get())),
                           certificates_.size());
        certificates_.push_back(std::move(certificate));
    }
}

std::size_t IssuerGraph::indexOf(const X509* certificate) const {
    const auto found = std::ranges::find(certificates_, certificate, &ossl::Certificate::get);
    return static_cast<std::size_t>(found - certificates_.begin());
}

bool IssuerGraph::isRoot(std::size_t index) const {
    const auto known = roots_.find(index);
    return known != roots_.end() ? known->second
                                 : roots_.emplace(index, isSelfSigned(at(index))).first->second;
}

bool IssuerGraph::isInForce(std::size_t index) const {
    std::time_t time = time_;
    return X509_cmp_time(X509_get0_notBefore(at(index)), &time) < 0 &&
           X509_cmp_time(X509_get0_notAfter(at(index)), &time) > 0;
}

bool IssuerGraph::isSameHolder(std::size_t a, std::size_t b) const {
    return X509_NAME_cmp(X509_get_subject_name(at(a)), X509_get_subject_name(at(b))) == 0 &&
           X509_PUBKEY_eq(X509_get_X509_PUBKEY(at(a)), X509_get_X509_PUBKEY(at(b))) == 1;
}

std::vector<std::size_t> IssuerGraph::issuersOf(X509* subject, Verifier& verifier) const {
    std::vector<std::size_t> issuers = unsortedIssuersOf(subject, verifier);
    std::ranges::sort(issuers, [this](std::size_t a, std::size_t b) { return isBetter(a, b); });
    return issuers;
}

const std::vector<std::size_t>& IssuerGraph::issuersOf(std::size_t subject,
                                                       Verifier& verifier) const {
    const auto known = issuersOf_.find(subject);
    return known != issuersOf_.end()
               ? known->second
               : issuersOf_.emplace(subject, issuersOf(at(subject), verifier)).first->second;
}

// OpenSSL would take any of the name.
std::vector<std::size_t> IssuerGraph::unsortedIssuersOf(X509* subject, Verifier& verifier) const {
    std::vector<std::size_t> named, signing;
    const auto [first, last] = bySubject_.equal_range(digestOfName(X509_get_issuer_name(subject)));
    for (auto each = first; each != last; ++each) {
        if (X509_cmp(at(each->second), subject) == 0 && isRoot(each->second)) {
            return {each->second};  // of many roots of one name each is its own
        }
        named.push_back(each->second);
    }
    std::ranges::copy_if(named, std::back_inserter(signing), [&](std::size_t issuer) {
        return verifier.isIssuer(at(issuer), subject);
    });
    return signing.empty() && match_ == Match::kNameToo ? named : signing;
}

bool IssuerGraph::isBetter(std::size_t a, std::size_t b) const {
    if (isInForce(a) != isInForce(b)) {
        return isInForce(a);
    }
    for (const auto& timeOf : {X509_get0_notBefore, X509_get0_notAfter}) {
        const int order = ASN1_TIME_compare(timeOf(at(a)), timeOf(at(b)));
        if (order != 0) {
            return order > 0;
        }
    }
    return sha256Of(at(a)) < sha256Of(at(b));
}

PathSearch::PathSearch(const IssuerGraph& graph, Verifier& verifier, X509* certificate, Visit visit,
                       IsRevoked isRevoked)
    : graph_(graph),
      verifier_(verifier),
      certificate_(certificate),
      visit_(visit),
      isRevoked_(std::move(isRevoked)),
      last_(kNoStep) {}

std::optional<IssuerPath> PathSearch::next() {
    if (!std::exchange(isBegun_, true)) {
        const auto issuers = graph_.issuersOf(certificate_, verifier_);
        if (issuers.empty()) {
            return IssuerPath{};
        }
        add(issuers, kNoStep);
    }
    while (!waiting_.empty() && (visit_ == Visit::kOnce || steps_.size() < kMostSteps)) {
        const std::size_t step = std::get<2>(waiting_.top());
        waiting_.pop();
        if (isFoundRevoked(step)) {
            continue;
        }
        last_ = step;
        const std::size_t issuer = steps_[step].issuer;
        if (graph_.isRoot(issuer)) {
            return pathTo(step, IssuerPath::End::kRoot);
        }
        const auto& issuers = graph_.issuersOf(issuer, verifier_);
        if (issuers.empty()) {
            return pathTo(step, IssuerPath::End::kNoIssuer);
        }
        add(issuers, step);
    }
    return std::nullopt;
}

IssuerPath PathSearch::circle() const {
    return pathTo(last_, IssuerPath::End::kCircle);
}

void PathSearch::add(const std::vector<std::size_t>& issuers, std::size_t below) {
    const bool isFirst = below == kNoStep;
    for (const std::size_t issuer : issuers) {
        const bool isGood = graph_.isInForce(issuer);
        const bool isSeen = visit_ == Visit::kOnce ? seen_.contains(issuer) : !isGood;
        if (isSeen || isOnPath(issuer, below)) {
            continue;
        }
        seen_.insert(issuer);
        const std::size_t flaws = (isFirst ? 0 : steps_[below].flaws) + (isGood ? 0 : 1);
        const std::size_t length = isFirst ? 1 : steps_[below].length + 1;
        waiting_.emplace(flaws, length, steps_.size());
        steps_.push_back({issuer, below, flaws, length, !isGood});
    }
}

// What issued itself without having signed itself may be its own issuer by name, at its beginning.
bool PathSearch::isOnPath(std::size_t issuer, std::size_t step) const {
    if (step != kNoStep && X509_cmp(graph_.at(issuer), certificate_) == 0) {
        return true;
    }
    for (; step != kNoStep; step = steps_[step].below) {
        if (graph_.isSameHolder(steps_[step].issuer, issuer)) {
            return true;
        }
    }
    return false;
}

// Lists are read only for those whose turn it is; one that is revoked then waits for another turn.
bool PathSearch::isFoundRevoked(std::size_t step) {
    Step& here = steps_[step];
    if (std::exchange(here.isAsked, true) || !isRevoked_ || !isRevoked_(here.issuer)) {
        return false;
    }
    ++here.flaws;
    waiting_.emplace(here.flaws, here.length, step);
    return true;
}

IssuerPath PathSearch::pathTo(std::size_t step, IssuerPath::End end) const {
    IssuerPath path{{}, end, step == kNoStep ? 0 : steps_[step].flaws};
    for (; step != kNoStep; step = steps_[step].below) {
        path.issuers.push_back(steps_[step].issuer);
    }
    std::ranges::reverse(path.issuers);
    return path;
}

IssuerPath bestPath(const IssuerGraph& graph, Verifier& verifier, X509* certificate,
                    const PathSearch::IsRevoked& isRevoked) {
    PathSearch search(graph, verifier, certificate, PathSearch::Visit::kOnce, isRevoked);
    std::optional<IssuerPath> best;
    while (auto path = search.next()) {
        const bool isRoot = path->end == IssuerPath::End::kRoot;
        if (best && path->flaws > best->flaws) {
            break;
        }
        if (!best || isRoot) {
            best = std::move(path);
        }
        if (isRoot) {
            break;
        }
    }
    return best ? std::move(*best) : search.circle();
}

}  // namespace fstore
