#include "lib/pki/object.h"

#include <limits>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/pki/der.h"
#include "lib/pki/ossl.h"
#include "lib/pki/pkcs8.h"
#include "lib/pki/text.h"

namespace fstore {
namespace {

using Octets = std::vector<unsigned char>;

Octets sha256Of(std::span<const unsigned char> bytes) {
    const Sha256Digest digest = sha256(bytes);
    return {digest.begin(), digest.end()};
}

// Collects attributes in the order of their ids, and leaves out what is empty, but for its id.
class Description {
public:
    explicit Description(PkiObject& object) : object_(object) {}

    void number(unsigned int id, std::uint32_t value) {
        object_.described.insert(id);
        add(id, value);
    }
    void text(unsigned int id, std::string value) {
        object_.described.insert(id);
        if (!value.empty()) {
            add(id, std::move(value));
        }
    }
    void bytes(unsigned int id, Octets value) {
        object_.described.insert(id);
        if (!value.empty()) {
            add(id, std::move(value));
        }
    }
    void string(unsigned int id, const ASN1_STRING* value) {
        object_.described.insert(id);
        if (value != nullptr) {
            const unsigned char* const data = ASN1_STRING_get0_data(value);
            bytes(id, Octets(data, data + ASN1_STRING_length(value)));
        }
    }
    void names(const GENERAL_NAMES* names) {
        object_.described.insert(attr::kAltName);
        if (names != nullptr) {
            for (std::string& name : altNameTexts(names)) {
                text(attr::kAltName, std::move(name));
            }
        }
    }
    void digestOfBody() {
        object_.sha256 = sha256Of(object_.der);
        bytes(attr::kSha256, object_.sha256);
    }
    void digestOfKey() { bytes(attr::kKeySha256, object_.keySha256); }
    void algorithmOf(X509_PUBKEY* key) {
        text(attr::kKeyAlgorithm, keyAlgorithmText(key));
        object_.keyAlgorithmId = keyAlgorithmIdentifier(key);
    }

private:
    template <class Value>
    void add(unsigned int id, Value value) {
        PkiAttribute& added = object_.attributes.emplace_back();
        added.id = id;
        added.value = std::move(value);
    }

    PkiObject& object_;
};

template <auto Encode, class T>
Octets digestOf(const T* object) {
    return sha256Of(ossl::encoded<Encode>(object));
}

std::string titleFrom(const X509_NAME* name, const GENERAL_NAMES* names) {
    std::string title = titleOf(name);
    for (int i = 0; title.empty() && names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* const candidate = sk_GENERAL_NAME_value(names, i);
        if (candidate->type == GEN_DNS) {
            const ASN1_STRING* const text = candidate->d.dNSName;
            title.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                         static_cast<std::size_t>(ASN1_STRING_length(text)));
        }
    }
    return title;
}

void describeCertificate(X509& certificate, PkiObject& object, Description& to) {
    const ossl::GeneralNames names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)));
    X509_PUBKEY* const key = X509_get_X509_PUBKEY(&certificate);
    object.title = titleFrom(X509_get_subject_name(&certificate), names.get());
    object.keySha256 = digestOf<i2d_X509_PUBKEY>(key);

    to.text(attr::kSubject, nameText(X509_get_subject_name(&certificate)));
    to.text(attr::kIssuer, nameText(X509_get_issuer_name(&certificate)));
    to.string(attr::kSerial, X509_get0_serialNumber(&certificate));
    to.text(attr::kNotBefore, timeText(X509_get0_notBefore(&certificate)));
    to.text(attr::kNotAfter, timeText(X509_get0_notAfter(&certificate)));
    to.bytes(attr::kSubjectSha256, digestOf<i2d_X509_NAME>(X509_get_subject_name(&certificate)));
    to.digestOfBody();
    to.algorithmOf(key);
    to.digestOfKey();
    to.string(attr::kSubjectKeyId, X509_get0_subject_key_id(&certificate));
    to.string(attr::kAuthorityKeyId, X509_get0_authority_key_id(&certificate));
    to.names(names.get());
    constexpr int kConstrainedCa = 1, kOldRoot = 3;  // answers of X509_check_ca
    const int ca = X509_check_ca(&certificate);
    const bool selfIssued = (X509_get_extension_flags(&certificate) & EXFLAG_SI) != 0;
    to.number(attr::kBits, (ca == kConstrainedCa || ca == kOldRoot ? attr::kIsCa : 0) |
                               (selfIssued ? attr::kIsSelfIssued : 0));
}

void describeCrl(X509_CRL& crl, PkiObject& object, Description& to) {
    const X509_NAME* const issuer = X509_CRL_get_issuer(&crl);
    const ossl::AuthorityKeyId authority(static_cast<AUTHORITY_KEYID*>(
        X509_CRL_get_ext_d2i(&crl, NID_authority_key_identifier, nullptr, nullptr)));
    const ossl::Integer number(
        static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(&crl, NID_crl_number, nullptr, nullptr)));
    object.title = titleOf(issuer);

    to.text(attr::kIssuer, nameText(issuer));
    to.text(attr::kNotBefore, timeText(X509_CRL_get0_lastUpdate(&crl)));
    to.text(attr::kNotAfter, timeText(X509_CRL_get0_nextUpdate(&crl)));
    to.digestOfBody();
    to.string(attr::kAuthorityKeyId, authority != nullptr ? authority->keyid : nullptr);
    to.string(attr::kCrlNumber, number.get());
}

void describeRequest(X509_REQ& request, PkiObject& object, Description& to) {
    const X509_NAME* const subject = X509_REQ_get_subject_name(&request);
    const ossl::Extensions extensions(X509_REQ_get_extensions(&request));
    const auto extension = [&](int kind) {
        return X509V3_get_d2i(extensions.get(), kind, nullptr, nullptr);
    };
    const ossl::GeneralNames names(static_cast<GENERAL_NAMES*>(extension(NID_subject_alt_name)));
    const ossl::OctetString keyId(
        static_cast<ASN1_OCTET_STRING*>(extension(NID_subject_key_identifier)));
    X509_PUBKEY* const key = X509_REQ_get_X509_PUBKEY(&request);
    object.title = titleFrom(subject, names.get());
    object.keySha256 = digestOf<i2d_X509_PUBKEY>(key);

    to.text(attr::kSubject, nameText(subject));
    to.bytes(attr::kSubjectSha256, digestOf<i2d_X509_NAME>(subject));
    to.digestOfBody();
    to.algorithmOf(key);
    to.digestOfKey();
    to.string(attr::kSubjectKeyId, keyId.get());
    to.names(names.get());
}

void describeKey(const EVP_PKEY& key, PkiObject& object, Description& to) {
    object.keySha256 = digestOf<i2d_PUBKEY>(&key);
    to.digestOfBody();
    to.text(attr::kKeyAlgorithm, keyAlgorithmText(&key));
    to.digestOfKey();
}

// False when the bytes are not an object of this kind.
bool describe(PkiObject& object, Description& to) {
    switch (object.kind) {
        case Kind::kCertificate: {
            const auto certificate = ossl::decodeWhole<ossl::Certificate, d2i_X509>(object.der);
            if (certificate != nullptr) {
                describeCertificate(*certificate, object, to);
            }
            return certificate != nullptr;
        }
        case Kind::kCrl: {
            const auto crl = ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(object.der);
            if (crl != nullptr) {
                describeCrl(*crl, object, to);
            }
            return crl != nullptr;
        }
        case Kind::kRequest: {
            const auto request = ossl::decodeWhole<ossl::Request, d2i_X509_REQ>(object.der);
            if (request != nullptr) {
                describeRequest(*request, object, to);
            }
            return request != nullptr;
        }
        case Kind::kKey: {
            const auto info = ossl::decodeWhole<ossl::KeyInfo, d2i_PKCS8_PRIV_KEY_INFO>(object.der);
            const ossl::Pkey key = keyIn(info.get());
            if (key != nullptr) {
                requirePair(*key);
                describeKey(*key, object, to);
            }
            return key != nullptr;
        }
        case Kind::kRaw:
        case Kind::kUnknown:
            break;
    }
    return false;
}

// Before anything is spent on it.
void refuseExcess(Kind kind, std::span<const unsigned char> der) {
    if ((kind != Kind::kCrl && der.size() > kMostObject) ||
        der.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw Failure(kMalformed,
                      fmt::format("the {} is too large: {} bytes", nameOf(kind), der.size()));
    }
    if (const std::size_t elements = censusOf(der).elements; elements > kMostElements) {
        throw Failure(kMalformed, fmt::format("it has {} elements of ASN.1, and {} is the limit",
                                              elements, kMostElements));
    }
}

bool isForNames(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

// Neither hidden nor taken for an option: begins with a letter, a digit or "_".
std::string reduced(std::string_view text) {
    constexpr std::size_t kMost = 64;
    std::string name;
    for (const char c : text) {
        const char kept = isForNames(c) ? c : '-';
        const bool dull = kept == '-' && (name.empty() || name.back() == '-');
        if (!dull && !(kept == '.' && name.empty()) && name.size() < kMost) {
            name += kept;
        }
    }
    while (name.ends_with('-')) {
        name.pop_back();
    }
    return name;
}

}  // namespace

bool isKeyOfUnknownAlgorithm(std::span<const unsigned char> der) {
    const ossl::QuietErrors quiet;
    const auto info = ossl::decodeWhole<ossl::KeyInfo, d2i_PKCS8_PRIV_KEY_INFO>(der);
    const ASN1_OBJECT* algorithm = nullptr;
    if (info == nullptr ||
        PKCS8_pkey_get0(&algorithm, nullptr, nullptr, nullptr, info.get()) != 1) {
        return false;
    }
    const ossl::KeyManagement known(
        EVP_KEYMGMT_fetch(nullptr, identifierText(algorithm).c_str(), nullptr));
    return known == nullptr;
}

std::optional<PkiObject> findPkiObject(Kind kind, SecretBytes& der) {
    const ossl::QuietErrors quiet;
    refuseExcess(kind, der);
    PkiObject object;
    object.kind = kind;
    object.der.swap(der);
    Description to(object);
    to.number(attr::kSchema, 1);
    to.number(attr::kKind, static_cast<std::uint32_t>(kind));
    if (!describe(object, to)) {
        object.der.swap(der);
        return std::nullopt;
    }
    return object;
}

PkiObject readPkiObject(Kind kind, SecretBytes der) {
    auto object = findPkiObject(kind, der);
    if (!object) {
        throw Failure(kMalformed, fmt::format("not a {}, or a damaged one", nameOf(kind)));
    }
    return std::move(*object);
}

std::string recordNameFor(const PkiObject& object, std::string_view label) {
    std::string name = reduced(label);
    if (name.empty()) {
        name = reduced(object.title);
    }
    if (name.empty()) {
        name = nameOf(object.kind);
    }
    return fmt::format("{}-{}", name, toHex(object.sha256).substr(0, 8));
}

std::string_view folderFor(Kind kind, bool hasKey) {
    switch (kind) {
        case Kind::kCertificate:
            return (hasKey ? layout::kLocalCertificates : layout::kRemoteCertificates).name();
        case Kind::kCrl:
            return layout::kCrls.name();
        case Kind::kKey:
            return layout::kKeys.name();
        case Kind::kRequest:
            return layout::kCrm.name();
        case Kind::kRaw:
        case Kind::kUnknown:
            break;
    }
    return layout::kSettings.name();
}

}  // namespace fstore
