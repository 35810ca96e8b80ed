#include "lib/pki/renewal.h"

#include <algorithm>
#include <array>

#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/pki/ossl.h"

namespace fstore {
namespace {

std::optional<CrlTraits::Octets> octetsOf(const ASN1_STRING* string) {
    if (string == nullptr) {
        return std::nullopt;
    }
    const unsigned char* const data = ASN1_STRING_get0_data(string);
    return CrlTraits::Octets(data, data + ASN1_STRING_length(string));
}

bool isKnownToLists(X509_EXTENSION* extension) {
    constexpr std::array kKnown = {NID_authority_key_identifier, NID_crl_number, NID_delta_crl,
                                   NID_issuing_distribution_point};
    const int id = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
    return std::ranges::find(kKnown, id) != kKnown.end();
}

bool isKnownToEntries(X509_EXTENSION* extension) {
    constexpr std::array kKnown = {NID_certificate_issuer, NID_crl_reason, NID_invalidity_date};
    const int id = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
    return std::ranges::find(kKnown, id) != kKnown.end();
}

bool hasUnknownEntry(X509_CRL* crl) {
    STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        const X509_REVOKED* const entry = sk_X509_REVOKED_value(entries, i);
        for (int j = X509_REVOKED_get_ext_by_critical(entry, 1, -1); j >= 0;
             j = X509_REVOKED_get_ext_by_critical(entry, 1, j)) {
            if (!isKnownToEntries(X509_REVOKED_get_ext(entry, j))) {
                return true;
            }
        }
    }
    return false;
}

bool hasUnknownExtension(X509_CRL* crl) {
    for (int i = X509_CRL_get_ext_by_critical(crl, 1, -1); i >= 0;
         i = X509_CRL_get_ext_by_critical(crl, 1, i)) {
        if (!isKnownToLists(X509_CRL_get_ext(crl, i))) {
            return true;
        }
    }
    return hasUnknownEntry(crl);
}

CrlTraits::Octets signerOf(X509_CRL* crl, const std::vector<SecretBytes>& known) {
    for (const SecretBytes& der : known) {
        const auto issuer = ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
        if (issuer == nullptr ||
            X509_NAME_cmp(X509_get_subject_name(issuer.get()), X509_CRL_get_issuer(crl)) != 0) {
            continue;
        }
        EVP_PKEY* const key = X509_get0_pubkey(issuer.get());
        if (key != nullptr && X509_CRL_verify(crl, key) == 1) {
            const Sha256Digest digest =
                sha256(ossl::encoded<i2d_X509_PUBKEY>(X509_get_X509_PUBKEY(issuer.get())));
            return {digest.begin(), digest.end()};
        }
    }
    return {};
}

// Numbers without leading zeros.
bool isLower(const CrlTraits::Octets& a, const CrlTraits::Octets& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

}  // namespace

CrlTraits crlTraitsOf(std::span<const unsigned char> crl, const std::vector<SecretBytes>& known) {
    const ossl::QuietErrors quiet;
    const auto decoded = ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(crl);
    X509_CRL* const list = decoded.get();
    if (list == nullptr) {
        throw Failure(kMalformed, "not a CRL, or a damaged one");
    }
    CrlTraits traits;
    const auto issuer = ossl::encoded<i2d_X509_NAME>(X509_CRL_get_issuer(list));
    traits.issuer.assign(issuer.begin(), issuer.end());
    traits.signer = signerOf(list, known);
    const ossl::Integer number(
        static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(list, NID_crl_number, nullptr, nullptr)));
    traits.number = octetsOf(number.get());
    const int scope = X509_CRL_get_ext_by_NID(list, NID_issuing_distribution_point, -1);
    if (scope >= 0) {
        traits.scope = octetsOf(X509_EXTENSION_get_data(X509_CRL_get_ext(list, scope)));
    }
    traits.isDelta = X509_CRL_get_ext_by_NID(list, NID_delta_crl, -1) >= 0;
    traits.hasUnknown = hasUnknownExtension(list);
    return traits;
}

bool replaces(const CrlTraits& newer, const CrlTraits& older) {
    const bool isOfOneKey = !newer.signer.empty() && newer.signer == older.signer;
    const bool isWhole = !newer.isDelta && !older.isDelta && !newer.hasUnknown;
    const bool isNumberLower =
        newer.number && older.number && isLower(*newer.number, *older.number);
    return isOfOneKey && isWhole && !isNumberLower && newer.issuer == older.issuer &&
           newer.scope == older.scope;
}

}  // namespace fstore
