#include "lib/pki/renewal.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/pki/ossl.h"
#include "lib/pki/text.h"

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

std::vector<unsigned char> keyDigestOf(X509* certificate) {
    const Sha256Digest digest =
        sha256(ossl::encoded<i2d_X509_PUBKEY>(X509_get_X509_PUBKEY(certificate)));
    return {digest.begin(), digest.end()};
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
            return keyDigestOf(issuer.get());
        }
    }
    return {};
}

// Numbers without leading zeros.
bool isLower(const CrlTraits::Octets& a, const CrlTraits::Octets& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

ossl::Crl crlIn(std::span<const unsigned char> der) {
    auto crl = ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(der);
    if (crl == nullptr) {
        throw Failure(kMalformed, "not a CRL, or a damaged one");
    }
    return crl;
}

std::string withoutCapitals(std::string text, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < std::min(to, text.size()); ++i) {
        text[i] =
            text[i] >= 'A' && text[i] <= 'Z' ? static_cast<char>(text[i] - 'A' + 'a') : text[i];
    }
    return text;
}

// A name of altNameTexts(): host names know no capitals, and all else in it may.
std::string comparable(const std::string& name) {
    constexpr std::string_view kHostBegin = "://";
    if (name.starts_with("DNS:")) {
        return withoutCapitals(name, name.find(':') + 1, name.size());
    }
    if (name.starts_with("email:")) {
        return withoutCapitals(name, std::min(name.rfind('@'), name.size()), name.size());
    }
    const std::size_t host = name.find(kHostBegin);
    if (!name.starts_with("URI:") || host == std::string::npos) {
        return name;
    }
    const std::size_t begin = host + kHostBegin.size();
    const std::size_t end = std::min(name.find_first_of("/?#", begin), name.size());
    const std::size_t user = name.substr(0, end).rfind('@');
    return withoutCapitals(name, user != std::string::npos && user > begin ? user : begin, end);
}

// The extension decoded, null without it. `isReadable` becomes false where it is there and is no
// good, or there twice.
template <class Owned>
Owned extensionIn(X509* certificate, int id, bool& isReadable) {
    constexpr int kNone = -1;
    int state = kNone;
    Owned decoded(
        static_cast<typename Owned::pointer>(X509_get_ext_d2i(certificate, id, &state, nullptr)));
    isReadable = isReadable && (decoded != nullptr || state == kNone);
    return decoded;
}

}  // namespace

CrlTraits crlTraitsOf(std::span<const unsigned char> crl, const std::vector<SecretBytes>& known) {
    const ossl::QuietErrors quiet;
    const ossl::Crl decoded = crlIn(crl);
    X509_CRL* const list = decoded.get();
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

std::set<std::vector<unsigned char>> serialsIn(std::span<const unsigned char> crl) {
    const ossl::QuietErrors quiet;
    const ossl::Crl list = crlIn(crl);
    STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(list.get());
    std::set<std::vector<unsigned char>> serials;
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        const X509_REVOKED* const entry = sk_X509_REVOKED_value(entries, i);
        serials.insert(
            octetsOf(X509_REVOKED_get0_serialNumber(entry)).value_or(CrlTraits::Octets()));
    }
    return serials;
}

CertificateTraits certificateTraitsOf(std::span<const unsigned char> certificate) {
    const ossl::QuietErrors quiet;
    const auto decoded = ossl::decodeWhole<ossl::Certificate, d2i_X509>(certificate);
    X509* const subject = decoded.get();
    if (subject == nullptr) {
        throw Failure(kMalformed, "not a certificate, or a damaged one");
    }
    CertificateTraits traits;
    traits.serial = octetsOf(X509_get0_serialNumber(subject)).value_or(CertificateTraits::Octets());
    traits.key = keyDigestOf(subject);
    const std::uint32_t flags = X509_get_extension_flags(subject);
    traits.isReadable = (flags & EXFLAG_INVALID) == 0;
    traits.isCa = (flags & EXFLAG_CA) != 0;
    traits.usages = X509_get_key_usage(subject);
    const auto names =
        extensionIn<ossl::GeneralNames>(subject, NID_subject_alt_name, traits.isReadable);
    if (names != nullptr) {
        std::ranges::transform(altNameTexts(names.get()), std::back_inserter(traits.altNames),
                               comparable);
        std::ranges::sort(traits.altNames);
    }
    const auto purposes =
        extensionIn<ossl::Purposes>(subject, NID_ext_key_usage, traits.isReadable);
    if (purposes != nullptr) {
        traits.purposes.emplace();
        for (int i = 0; i < sk_ASN1_OBJECT_num(purposes.get()); ++i) {
            traits.purposes->insert(identifierText(sk_ASN1_OBJECT_value(purposes.get(), i)));
        }
    }
    return traits;
}

bool replaces(const CertificateTraits& newer, const CertificateTraits& older) {
    const bool isAsUseful =
        (newer.usages & older.usages) == older.usages &&
        (!newer.purposes ||
         (older.purposes && std::ranges::includes(*newer.purposes, *older.purposes)));
    return newer.isReadable && older.isReadable && isAsUseful && newer.isCa == older.isCa &&
           (!older.isCa || newer.key == older.key) &&
           std::ranges::includes(newer.altNames, older.altNames);
}

}  // namespace fstore
