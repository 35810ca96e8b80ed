#include "lib/pki/verify.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <utility>

#include <fmt/format.h>
#include <openssl/x509_vfy.h>

#include "lib/base/error.h"
#include "lib/pki/issuer_paths.h"
#include "lib/pki/made.h"
#include "lib/pki/ossl.h"
#include "lib/pki/revocation.h"
#include "lib/pki/text.h"
#include "lib/pki/verifier.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;
using Store = ossl::Owner<X509_STORE, X509_STORE_free>;
using Verifying = ossl::Owner<X509_STORE_CTX, X509_STORE_CTX_free>;

int purposeOf(VerifyRules::Purpose purpose) {
    switch (purpose) {
        case VerifyRules::Purpose::kServer:
            return X509_PURPOSE_SSL_SERVER;
        case VerifyRules::Purpose::kClient:
            return X509_PURPOSE_SSL_CLIENT;
        case VerifyRules::Purpose::kEmail:
            return X509_PURPOSE_SMIME_SIGN;
        case VerifyRules::Purpose::kTimestamp:
            return X509_PURPOSE_TIMESTAMP_SIGN;
        case VerifyRules::Purpose::kAny:
            break;
    }
    return X509_PURPOSE_ANY;
}

// Whether it says that a CRL is missing or no good, and not what one says.
bool isOfCrl(int error) {
    constexpr std::array kErrors = {X509_V_ERR_UNABLE_TO_GET_CRL,
                                    X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER,
                                    X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE,
                                    X509_V_ERR_CRL_SIGNATURE_FAILURE,
                                    X509_V_ERR_CRL_NOT_YET_VALID,
                                    X509_V_ERR_CRL_HAS_EXPIRED,
                                    X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD,
                                    X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD,
                                    X509_V_ERR_KEYUSAGE_NO_CRL_SIGN,
                                    X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION,
                                    X509_V_ERR_DIFFERENT_CRL_SCOPE,
                                    X509_V_ERR_CRL_PATH_VALIDATION_ERROR};
    return std::ranges::find(kErrors, error) != kErrors.end();
}

// Whoever trusts a root asks no list of its own whether it is trusted.
int passRootsWithoutCrl(int isGood, X509_STORE_CTX* verifying) {
    X509* const certificate = X509_STORE_CTX_get_current_cert(verifying);
    if (isGood == 0 && isOfCrl(X509_STORE_CTX_get_error(verifying)) && certificate != nullptr &&
        X509_self_signed(certificate, 0) == 1) {
        X509_STORE_CTX_set_error(verifying, X509_V_OK);
        return 1;
    }
    return isGood;
}

std::string subjectOf(const X509* certificate) {
    const std::string name = nameText(X509_get_subject_name(certificate));
    return name.empty() ? "without a subject" : name;
}

// The certificate itself, in the sentence about it.
constexpr std::string_view kOwn = "it";

std::string ownOrIssuer(bool isOwn, const X509* certificate) {
    return isOwn ? std::string(kOwn) : "its issuer " + subjectOf(certificate);
}

// The sentences about a certificate, of which `who` is the subject.
std::string flawOf(int error, const std::string& who, const X509* certificate) {
    const std::string issuer = nameText(X509_get_issuer_name(certificate));
    switch (error) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return fmt::format("{} expired on {}", who, timeText(X509_get0_notAfter(certificate)));
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return fmt::format("{} begins on {}", who, timeText(X509_get0_notBefore(certificate)));
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return who == kOwn
                       ? fmt::format("its issuer {} is not in the database", issuer)
                       : fmt::format("{}, which issued {}, is not in the database", issuer, who);
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return fmt::format("the signature of {} was not made with the key of {}", who, issuer);
        case X509_V_ERR_CERT_REVOKED:
            return fmt::format("{} is revoked by a CRL of {}", who, issuer);
        case X509_V_ERR_UNABLE_TO_GET_CRL:
            return fmt::format("there is no CRL of {} for {} in the database", issuer, who);
        case X509_V_ERR_CRL_SIGNATURE_FAILURE:
        case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
            return fmt::format("the CRL of {} for {} was not made with its key", issuer, who);
        case X509_V_ERR_CRL_HAS_EXPIRED:
            return fmt::format("the CRL of {} for {} is out of date: import a newer one", issuer,
                               who);
        case X509_V_ERR_CRL_NOT_YET_VALID:
            return fmt::format("the CRL of {} for {} is not in force yet", issuer, who);
        case X509_V_ERR_INVALID_CA:
        case X509_V_ERR_INVALID_NON_CA:
            return fmt::format("{} issued certificates and must not: it is not a CA", who);
        case X509_V_ERR_INVALID_PURPOSE:
            return fmt::format("{} is not for this purpose", who);
        default:
            return fmt::format("{}: OpenSSL says: {}", who, X509_verify_cert_error_string(error));
    }
}

std::string whyNot(X509_STORE_CTX* verifying) {
    const int error = X509_STORE_CTX_get_error(verifying);
    const X509* const certificate = X509_STORE_CTX_get_current_cert(verifying);
    if (certificate == nullptr) {
        return fmt::format("OpenSSL says: {}", X509_verify_cert_error_string(error));
    }
    const bool isOwn = X509_STORE_CTX_get_error_depth(verifying) == 0;
    return flawOf(error, ownOrIssuer(isOwn, certificate), certificate);
}

// The issuers of a certificate, one of the other, by index.
using Path = std::vector<std::size_t>;

}  // namespace

struct ChainVerifier::State {
    VerifyRules rules;
    const std::vector<SecretBytes>& ders;
    const std::vector<SecretBytes>& crlDers;
    IssuerGraph graph;
    std::vector<ossl::Crl> crls = {};

    // The roots among them, and all CRLs; what is no root goes to the others.
    Store storeOf(const Path& issuers, STACK_OF(X509) * others) const {
        Store store = made(Store(X509_STORE_new()));
        for (const std::size_t issuer : issuers) {
            X509* const certificate = graph.at(issuer);
            if (graph.isRoot(issuer)) {
                (void)X509_STORE_add_cert(store.get(), certificate);
            } else {
                (void)sk_X509_push(others, certificate);
            }
        }
        for (const ossl::Crl& crl : crls) {
            if (crl != nullptr) {
                (void)X509_STORE_add_crl(store.get(), crl.get());
            }
        }
        return store;
    }

    // Asks only the lists of its issuer, which Revocation decodes again.
    bool isRevoked(Bytes certificate, const X509* decoded, std::size_t issuer) const {
        Revocation revocation(certificate, {ders[issuer]});
        for (std::size_t i = 0; i < crls.size(); ++i) {
            if (crls[i] != nullptr && X509_NAME_cmp(X509_CRL_get_issuer(crls[i].get()),
                                                    X509_get_issuer_name(decoded)) == 0) {
                (void)revocation.add(crlDers[i]);
            }
        }
        return revocation.isRevoked();
    }

    std::string revokedIn(Bytes certificate, const X509* decoded,
                          const std::vector<std::size_t>& chain) const {
        for (std::size_t i = 0; i < chain.size(); ++i) {
            const bool isOwn = i == 0;
            const X509* const subject = isOwn ? decoded : graph.at(chain[i - 1]);
            if (isRevoked(isOwn ? certificate : Bytes(ders[chain[i - 1]]), subject, chain[i])) {
                return flawOf(X509_V_ERR_CERT_REVOKED, ownOrIssuer(isOwn, subject), subject);
            }
        }
        return {};
    }

    Verdict verdictOn(Bytes der, X509* certificate, const Path& path) const;
    Verdict verdictOn(Bytes der, X509* certificate) const;

    Verifying contextFor(X509* certificate, X509_STORE* store, STACK_OF(X509) * others) const {
        Verifying context = made(Verifying(X509_STORE_CTX_new()));
        if (X509_STORE_CTX_init(context.get(), store, certificate, others) != 1) {
            failWithStatus(kNoMemory, "cannot verify a certificate: out of memory");
        }
        X509_VERIFY_PARAM* const param = X509_STORE_CTX_get0_param(context.get());
        X509_VERIFY_PARAM_set_time(param, rules.time);
        (void)X509_VERIFY_PARAM_set_purpose(param, purposeOf(rules.purpose));
        if (rules.needsCrls) {
            (void)X509_VERIFY_PARAM_set_flags(param,
                                              X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
            X509_STORE_CTX_set_verify_cb(context.get(), passRootsWithoutCrl);
        }
        return context;
    }
};

ChainVerifier::ChainVerifier(const std::vector<SecretBytes>& certificates,
                             const std::vector<SecretBytes>& crls, const VerifyRules& rules)
    : state_(new State{rules, certificates, crls,
                       IssuerGraph(certificates, rules.time, IssuerGraph::Match::kNameToo)}) {
    const ossl::QuietErrors quiet;
    for (const SecretBytes& der : crls) {
        state_->crls.push_back(ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(der));
    }
}

ChainVerifier::~ChainVerifier() = default;

Verdict ChainVerifier::State::verdictOn(Bytes der, X509* certificate, const Path& path) const {
    const auto others = made(ossl::Certificates(sk_X509_new_null()));
    const Store store = storeOf(path, others.get());
    const Verifying context = contextFor(certificate, store.get(), others.get());
    Verdict verdict;
    if (X509_verify_cert(context.get()) != 1) {
        verdict.why = whyNot(context.get());
    }
    verdict.until = parseTime(timeText(X509_get0_notAfter(certificate)));
    const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 1; i < sk_X509_num(chain); ++i) {
        const X509* const issuer = sk_X509_value(chain, i);
        verdict.chain.push_back(graph.indexOf(issuer));
        verdict.until = std::min(verdict.until, parseTime(timeText(X509_get0_notAfter(issuer))));
    }
    // What is revoked stays so, whatever is wrong with a list.
    if (verdict.why.empty() || isOfCrl(X509_STORE_CTX_get_error(context.get()))) {
        std::string revoked = revokedIn(der, certificate, verdict.chain);
        if (!revoked.empty()) {
            verdict.why = std::move(revoked);
        }
    }
    return verdict;
}

// The first path on which it holds; where there is none, what is wrong with the best.
Verdict ChainVerifier::State::verdictOn(Bytes der, X509* certificate) const {
    constexpr int kMostPaths = 50;
    Verifier verifier;
    std::optional<Verdict> first;
    PathSearch inForce(graph, verifier, certificate, PathSearch::Visit::kEveryPath);
    int tried = 0;
    for (auto path = inForce.next(); path && tried < kMostPaths; path = inForce.next()) {
        if (path->end != IssuerPath::End::kRoot) {
            continue;
        }
        ++tried;
        Verdict verdict = verdictOn(der, certificate, path->issuers);
        if (verdict.why.empty()) {
            return verdict;
        }
        if (!first) {
            first = std::move(verdict);
        }
    }
    if (first) {
        return std::move(*first);
    }
    const IssuerPath best = bestPath(graph, verifier, certificate);
    if (best.end == IssuerPath::End::kCircle) {
        return {.why = "no root is in the database: its issuers have only issued each other",
                .chain = {},
                .until = {}};
    }
    return verdictOn(der, certificate, best.issuers);
}

Verdict ChainVerifier::verify(Bytes certificate) const {
    const ossl::QuietErrors quiet;
    const auto decoded = ossl::decodeWhole<ossl::Certificate, d2i_X509>(certificate);
    if (decoded == nullptr) {
        throw Failure(kMalformed, "not a certificate, or a damaged one");
    }
    try {
        return state_->verdictOn(certificate, decoded.get());
    } catch (const Failure& failure) {
        // Hostile ones are no reason to leave out all others.
        return {.why = failure.what(), .chain = {}, .until = {}};
    }
}

}  // namespace fstore
