#include "lib/pki/revocation.h"

#include <algorithm>
#include <utility>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"
#include "lib/pki/verifier.h"

namespace fstore {
namespace {

ossl::Certificate decode(std::span<const unsigned char> der) {
    return ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
}

// An issuer that renews its key signs CRLs for each of its keys.
bool isOfKey(X509_CRL* crl, X509* certificate) {
    const ossl::AuthorityKeyId authority(static_cast<AUTHORITY_KEYID*>(
        X509_CRL_get_ext_d2i(crl, NID_authority_key_identifier, nullptr, nullptr)));
    const ASN1_OCTET_STRING* const wanted = X509_get0_authority_key_id(certificate);
    if (authority == nullptr || authority->keyid == nullptr || wanted == nullptr) {
        return true;
    }
    return ASN1_OCTET_STRING_cmp(authority->keyid, wanted) == 0;
}

enum class Entry { kNone, kRevoked, kOnHold, kTakenOff };

Entry entryIn(X509_CRL* crl, X509* certificate) {
    constexpr int kNone = 0, kTakenOff = 2;
    X509_REVOKED* entry = nullptr;
    const int found = X509_CRL_get0_by_cert(crl, &entry, certificate);
    if (found == kNone || found == kTakenOff) {
        return found == kNone ? Entry::kNone : Entry::kTakenOff;
    }
    const ossl::Enumerated reason(static_cast<ASN1_ENUMERATED*>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    const bool hold =
        reason != nullptr && ASN1_ENUMERATED_get(reason.get()) == CRL_REASON_CERTIFICATE_HOLD;
    return hold ? Entry::kOnHold : Entry::kRevoked;
}

// The extension of the CRL; null without it.
const ASN1_OCTET_STRING* extensionOf(X509_CRL* crl, int nid) {
    return X509_EXTENSION_get_data(X509_CRL_get_ext(crl, X509_CRL_get_ext_by_NID(crl, nid, -1)));
}

bool areSame(const ASN1_OCTET_STRING* a, const ASN1_OCTET_STRING* b) {
    return a == nullptr || b == nullptr ? a == b : ASN1_OCTET_STRING_cmp(a, b) == 0;
}

// What a CRL says of the certificate. It keeps little of the CRL, which may be large.
struct Statement {
    Entry entry = Entry::kNone;
    bool isDelta = false;       // has only what changed since another one
    ossl::OctetString scope{};  // has only some of the issuer's certificates
    ossl::Integer number{};
    ossl::Time thisUpdate{};
};

Statement statementOf(X509_CRL* crl, X509* certificate) {
    Statement statement;
    statement.entry = entryIn(crl, certificate);
    statement.isDelta = X509_CRL_get_ext_by_NID(crl, NID_delta_crl, -1) >= 0;
    if (X509_CRL_get_ext_by_NID(crl, NID_issuing_distribution_point, -1) >= 0) {
        statement.scope.reset(
            ASN1_OCTET_STRING_dup(extensionOf(crl, NID_issuing_distribution_point)));
    }
    statement.number.reset(
        static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr)));
    statement.thisUpdate.reset(ASN1_STRING_dup(X509_CRL_get0_lastUpdate(crl)));
    return statement;
}

bool isNewer(const Statement& a, const Statement& b) {
    if (a.number != nullptr && b.number != nullptr) {
        const int order = ASN1_INTEGER_cmp(a.number.get(), b.number.get());
        if (order != 0) {
            return order > 0;
        }
    }
    return ASN1_TIME_compare(a.thisUpdate.get(), b.thisUpdate.get()) > 0;  // it fails below 0
}

// Whether `later` ends what `hold` says. What a part of a list leaves out says nothing.
bool ends(const Statement& later, const Statement& hold) {
    const bool leavesOut = later.entry == Entry::kNone && !later.isDelta &&
                           areSame(later.scope.get(), hold.scope.get());
    return (later.entry == Entry::kTakenOff || leavesOut) && isNewer(later, hold);
}

}  // namespace

struct Revocation::State {
    ossl::Certificate certificate;
    ossl::Certificate issuer;  // null if none is known
    std::vector<Statement> statements;
};

Revocation::Revocation(std::span<const unsigned char> certificate,
                       const std::vector<SecretBytes>& known)
    : state_(std::make_unique<State>()) {
    const ossl::QuietErrors quiet;
    state_->certificate = decode(certificate);
    if (state_->certificate == nullptr) {
        throw Failure(kMalformed, "not a certificate, or a damaged one");
    }
    Verifier verifier;
    for (const SecretBytes& der : known) {
        ossl::Certificate issuer = decode(der);
        if (verifier.isIssuer(issuer.get(), state_->certificate.get())) {
            state_->issuer = std::move(issuer);  // any other one has the same key
            return;
        }
    }
}

Revocation::~Revocation() = default;

Revocation::Use Revocation::add(std::span<const unsigned char> crl) {
    const ossl::QuietErrors quiet;
    const auto list = ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(crl);
    if (list == nullptr) {
        throw Failure(kMalformed, "not a CRL, or a damaged one");
    }
    X509* const certificate = state_->certificate.get();
    if (X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_issuer_name(certificate)) != 0 ||
        !isOfKey(list.get(), certificate)) {
        return Use::kElsewhere;
    }
    X509* const issuer = state_->issuer.get();
    if (issuer != nullptr && X509_CRL_verify(list.get(), X509_get0_pubkey(issuer)) != 1) {
        return Use::kUnverified;
    }
    state_->statements.push_back(statementOf(list.get(), certificate));
    return Use::kCounts;
}

bool Revocation::isRevoked() const {
    const auto& all = state_->statements;
    return std::ranges::any_of(all, [&](const Statement& statement) {
        if (statement.entry != Entry::kOnHold) {
            return statement.entry == Entry::kRevoked;
        }
        return std::ranges::none_of(all,
                                    [&](const Statement& later) { return ends(later, statement); });
    });
}

}  // namespace fstore
