#include "lib/pki/request.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>
#include <openssl/rand.h>

#include "lib/base/error.h"
#include "lib/base/printable.h"
#include "lib/pki/distinguished_name.h"
#include "lib/pki/made.h"
#include "lib/pki/pkcs8.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr int kCritical = 1, kNotCritical = 0;

// OpenSSL fails here for want of memory only.
void requireMade(bool isDone) {
    if (!isDone) {
        failWithStatus(kNoMemory, "cannot make the request: out of memory");
    }
}

void addExtension(STACK_OF(X509_EXTENSION) * to, int kind, int critical, void* value) {
    ossl::Extension extension = made(ossl::Extension(X509V3_EXT_i2d(kind, critical, value)));
    requireMade(sk_X509_EXTENSION_push(to, extension.get()) > 0);
    (void)extension.release();
}

struct AltNameKind {
    std::string_view prefix;
    int type;
};
constexpr std::array<AltNameKind, 4> kAltNameKinds = {
    {{"DNS:", GEN_DNS}, {"IP:", GEN_IPADD}, {"email:", GEN_EMAIL}, {"URI:", GEN_URI}}};

[[noreturn]] void refuseAltName(const std::string& text, const char* why) {
    constexpr std::size_t kShown = 60;
    throw Failure(kInvalid, fmt::format("\"{}\" is not an alternative name: {}",
                                        printable(clipped(text, kShown)), why));
}

ossl::GeneralName altName(const std::string& text) {
    const auto* const kind = std::ranges::find_if(
        kAltNameKinds, [&](const AltNameKind& each) { return text.starts_with(each.prefix); });
    if (kind == kAltNameKinds.end()) {
        refuseAltName(text, "it begins with DNS:, IP:, email: or URI:");
    }
    const std::string value = text.substr(kind->prefix.size());
    const auto isPlain = [](char c) { return c > ' ' && c < 0x7F; };
    if (value.empty() || !std::ranges::all_of(value, isPlain)) {
        refuseAltName(text, "behind the colon are letters, digits and signs of ASCII, no blank");
    }
    ossl::GeneralName name = made(ossl::GeneralName(GENERAL_NAME_new()));
    if (kind->type == GEN_IPADD) {
        ossl::OctetString address(a2i_IPADDRESS(value.c_str()));
        if (address == nullptr) {
            refuseAltName(text, "it has no IP address");
        }
        GENERAL_NAME_set0_value(name.get(), GEN_IPADD, address.release());
        return name;
    }
    ossl::Ia5String string = made(ossl::Ia5String(ASN1_IA5STRING_new()));
    requireMade(ASN1_STRING_set(string.get(), value.data(), static_cast<int>(value.size())) == 1);
    GENERAL_NAME_set0_value(name.get(), kind->type, string.release());
    return name;
}

void addAltNames(STACK_OF(X509_EXTENSION) * to, const std::vector<std::string>& texts,
                 bool isOnlyName) {
    if (texts.empty()) {
        return;
    }
    const ossl::GeneralNames names = made(ossl::GeneralNames(GENERAL_NAMES_new()));
    for (auto text = texts.begin(); text != texts.end(); ++text) {
        if (std::find(texts.begin(), text, *text) != text) {
            continue;  // once is enough
        }
        ossl::GeneralName name = altName(*text);
        requireMade(sk_GENERAL_NAME_push(names.get(), name.get()) > 0);
        (void)name.release();
    }
    addExtension(to, NID_subject_alt_name, isOnlyName ? kCritical : kNotCritical, names.get());
}

// In the order of their bits.
constexpr std::array<std::string_view, 7> kKeyUsages = {
    "digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment",
    "keyAgreement",     "keyCertSign",    "cRLSign"};
constexpr std::array<std::string_view, 6> kPurposes = {
    "serverAuth", "clientAuth", "codeSigning", "emailProtection", "timeStamping", "OCSPSigning"};

[[noreturn]] void refuseUsage(std::string_view word) {
    throw Failure(kInvalid,
                  fmt::format("\"{}\" is not a usage: it is {} or {}", printable(std::string(word)),
                              fmt::join(kKeyUsages, ", "), fmt::join(kPurposes, ", ")));
}

std::vector<std::string_view> wordsOf(const std::vector<std::string>& texts) {
    std::vector<std::string_view> words;
    for (std::string_view rest : texts) {
        while (true) {
            const std::size_t comma = rest.find(',');
            words.push_back(rest.substr(0, comma));
            if (comma == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(comma + 1);
        }
    }
    return words;
}

void addUsages(STACK_OF(X509_EXTENSION) * to, std::vector<std::string_view> words, bool isCa) {
    if (isCa && words.empty()) {
        words = {"keyCertSign", "cRLSign"};
    }
    const ossl::BitString bits = made(ossl::BitString(ASN1_BIT_STRING_new()));
    const ossl::Purposes purposes = made(ossl::Purposes(EXTENDED_KEY_USAGE_new()));
    for (const std::string_view word : words) {
        const auto* const usage = std::ranges::find(kKeyUsages, word);
        if (usage != kKeyUsages.end()) {
            const auto bit = static_cast<int>(usage - kKeyUsages.begin());
            requireMade(ASN1_BIT_STRING_set_bit(bits.get(), bit, 1) == 1);
            continue;
        }
        if (std::ranges::find(kPurposes, word) == kPurposes.end()) {
            refuseUsage(word);
        }
        requireMade(sk_ASN1_OBJECT_push(purposes.get(), OBJ_txt2obj(std::string(word).c_str(), 0)) >
                    0);
    }
    if (ASN1_STRING_length(bits.get()) > 0) {
        addExtension(to, NID_key_usage, kCritical, bits.get());
    }
    if (sk_ASN1_OBJECT_num(purposes.get()) > 0) {
        addExtension(to, NID_ext_key_usage, kNotCritical, purposes.get());
    }
}

void addCa(STACK_OF(X509_EXTENSION) * to) {
    constexpr int kTrue = 0xFF;
    const ossl::Constraints constraints = made(ossl::Constraints(BASIC_CONSTRAINTS_new()));
    constraints->ca = kTrue;
    addExtension(to, NID_basic_constraints, kCritical, constraints.get());
}

ossl::Pkey signingKey(Bytes pkcs8) {
    const auto info = ossl::decodeWhole<ossl::KeyInfo, d2i_PKCS8_PRIV_KEY_INFO>(pkcs8);
    ossl::Pkey key = keyIn(info.get());
    if (key == nullptr) {
        throw Failure(kMalformed, "the stored key is damaged");
    }
    requirePair(*key);
    if (EVP_PKEY_can_sign(key.get()) != 1) {
        throw Failure(kInvalid, "a key of this algorithm cannot sign, so it cannot sign a request");
    }
    return key;
}

// As strong as the key; null for algorithms that have one of their own.
const EVP_MD* digestFor(EVP_PKEY* key) {
    constexpr int kLong = 384, kLongest = 512;
    int usual = NID_undef;
    if (EVP_PKEY_get_default_digest_nid(key, &usual) <= 0 || usual == NID_undef) {
        return nullptr;
    }
    if (EVP_PKEY_is_a(key, "EC") == 1 && EVP_PKEY_get_bits(key) >= kLong) {
        return EVP_PKEY_get_bits(key) >= kLongest ? EVP_sha512() : EVP_sha384();
    }
    return EVP_sha256();
}

void requireSigned(int size) {
    if (size <= 0) {
        throw Failure(kForeign, "OpenSSL could not sign with this key");
    }
}

ossl::Integer randomSerial() {
    std::array<unsigned char, 16> bytes{};
    requireMade(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1);
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x40);  // positive, and 16 bytes
    const ossl::Number number =
        made(ossl::Number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr)));
    return made(ossl::Integer(BN_to_ASN1_INTEGER(number.get(), nullptr)));
}

// By which issuers are found, when several have one name.
void addKeyId(X509* certificate) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    requireMade(X509_pubkey_digest(certificate, EVP_sha1(), digest.data(), &size) == 1);
    const ossl::OctetString id = made(ossl::OctetString(ASN1_OCTET_STRING_new()));
    requireMade(ASN1_OCTET_STRING_set(id.get(), digest.data(), static_cast<int>(size)) == 1);
    requireMade(X509_add1_ext_i2d(certificate, NID_subject_key_identifier, id.get(), kNotCritical,
                                  X509V3_ADD_DEFAULT) == 1);
}

// What a new request has of an old one.
constexpr std::array<int, 8> kKept = {
    NID_subject_alt_name, NID_basic_constraints,  NID_name_constraints, NID_policy_constraints,
    NID_key_usage,        NID_inhibit_any_policy, NID_ext_key_usage,    NID_tlsfeature};

ossl::Extensions keptOf(const STACK_OF(X509_EXTENSION) * all) {
    ossl::Extensions kept = made(ossl::Extensions(sk_X509_EXTENSION_new_null()));
    for (int i = 0; i < sk_X509_EXTENSION_num(all); ++i) {
        X509_EXTENSION* const each = sk_X509_EXTENSION_value(all, i);
        const int kind = OBJ_obj2nid(X509_EXTENSION_get_object(each));
        if (std::ranges::find(kKept, kind) != kKept.end()) {
            ossl::Extension copy = made(ossl::Extension(X509_EXTENSION_dup(each)));
            requireMade(sk_X509_EXTENSION_push(kept.get(), copy.get()) > 0);
            (void)copy.release();
        }
    }
    return kept;
}

}  // namespace

RequestContent::RequestContent(const RequestText& text)
    : subject_(distinguishedName(text.subject)),
      extensions_(made(ossl::Extensions(sk_X509_EXTENSION_new_null()))) {
    const ossl::QuietErrors quiet;
    if (text.subject.empty() && text.altNames.empty()) {
        throw Failure(kInvalid,
                      "a request without any name: it needs a subject, or an "
                      "alternative name");
    }
    if (text.altNames.size() > kMostNames) {
        throw Failure(kInvalid, fmt::format("{} alternative names are too many: {} is the limit",
                                            text.altNames.size(), kMostNames));
    }
    if (text.isCa) {
        addCa(extensions_.get());
    }
    addUsages(extensions_.get(), wordsOf(text.usages), text.isCa);
    addAltNames(extensions_.get(), text.altNames, text.subject.empty());
}

RequestContent::RequestContent(Kind kind, Bytes der) {
    const ossl::QuietErrors quiet;
    if (kind == Kind::kCertificate) {
        const auto old = ossl::decodeWhole<ossl::Certificate, d2i_X509>(der);
        if (old != nullptr) {
            subject_ = made(ossl::Name(X509_NAME_dup(X509_get_subject_name(old.get()))));
            extensions_ = keptOf(X509_get0_extensions(old.get()));
        }
    } else if (kind == Kind::kRequest) {
        const auto old = ossl::decodeWhole<ossl::Request, d2i_X509_REQ>(der);
        if (old != nullptr) {
            const ossl::Extensions all(X509_REQ_get_extensions(old.get()));
            subject_ = made(ossl::Name(X509_NAME_dup(X509_REQ_get_subject_name(old.get()))));
            extensions_ = keptOf(all.get());
        }
    } else {
        throw Failure(kInvalid, "a request is made like a certificate or another request");
    }
    if (subject_ == nullptr) {
        throw Failure(kMalformed, fmt::format("the stored {} is damaged", nameOf(kind)));
    }
}

bool RequestContent::hasAltNames() const noexcept {
    return X509v3_get_ext_by_NID(extensions_.get(), NID_subject_alt_name, -1) >= 0;
}

SecretBytes RequestContent::request(Bytes pkcs8) const {
    const ossl::QuietErrors quiet;
    const ossl::Pkey key = signingKey(pkcs8);
    const ossl::Request request = made(ossl::Request(X509_REQ_new()));
    requireMade(X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) == 1 &&
                X509_REQ_set_subject_name(request.get(), subject_.get()) == 1 &&
                X509_REQ_set_pubkey(request.get(), key.get()) == 1);
    if (sk_X509_EXTENSION_num(extensions_.get()) > 0) {
        requireMade(X509_REQ_add_extensions(request.get(), extensions_.get()) == 1);
    }
    requireSigned(X509_REQ_sign(request.get(), key.get(), digestFor(key.get())));
    return ossl::encoded<i2d_X509_REQ>(request.get());
}

SecretBytes RequestContent::selfSigned(Bytes pkcs8, unsigned int days) const {
    const ossl::QuietErrors quiet;
    const ossl::Pkey key = signingKey(pkcs8);
    const ossl::Certificate certificate = made(ossl::Certificate(X509_new()));
    X509* const to = certificate.get();
    const ossl::Integer serial = randomSerial();
    requireMade(
        X509_set_version(to, X509_VERSION_3) == 1 && X509_set_serialNumber(to, serial.get()) == 1 &&
        X509_set_subject_name(to, subject_.get()) == 1 &&
        X509_set_issuer_name(to, subject_.get()) == 1 && X509_set_pubkey(to, key.get()) == 1);
    requireMade(X509_gmtime_adj(X509_getm_notBefore(to), 0) != nullptr &&
                X509_time_adj_ex(X509_getm_notAfter(to), static_cast<int>(days), 0, nullptr) !=
                    nullptr);
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions_.get()); ++i) {
        requireMade(X509_add_ext(to, sk_X509_EXTENSION_value(extensions_.get(), i), -1) == 1);
    }
    addKeyId(to);
    requireSigned(X509_sign(to, key.get(), digestFor(key.get())));
    return ossl::encoded<i2d_X509>(to);
}

}  // namespace fstore
