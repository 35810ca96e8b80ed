#include "lib/pki/text.h"

#include <array>
#include <ctime>

#include <arpa/inet.h>
#include <fmt/format.h>

#include "lib/base/bytes.h"
#include "lib/base/digits.h"
#include "lib/base/printable.h"
#include "lib/pki/ossl.h"

namespace fstore {
namespace {

std::span<const unsigned char> bytesOf(const ASN1_STRING* string) {
    return {ASN1_STRING_get0_data(string), static_cast<std::size_t>(ASN1_STRING_length(string))};
}

// Empty when the string does not hold what its type promises.
std::string utf8Of(const ASN1_STRING* string) {
    unsigned char* converted = nullptr;
    const int length = ASN1_STRING_to_UTF8(&converted, string);
    if (length < 0) {
        return {};
    }
    const ossl::Text owner(reinterpret_cast<char*>(converted));
    return {owner.get(), static_cast<std::size_t>(length)};
}

std::string printName(const X509_NAME* name, unsigned long flags) {
    const ossl::Bio out(BIO_new(BIO_s_mem()));
    if (out == nullptr || X509_NAME_print_ex(out.get(), name, 0, flags) < 0) {
        return {};
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

std::string addressText(std::span<const unsigned char> address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const bool known = address.size() == 4 || address.size() == 16;
    const int family = address.size() == 4 ? AF_INET : AF_INET6;
    if (!known || inet_ntop(family, address.data(), text.data(), text.size()) == nullptr) {
        return "#" + toHex(address);
    }
    return text.data();
}

std::string otherNameText(const OTHERNAME& name) {
    std::string text = identifierText(name.type_id);
    if (name.value->type == V_ASN1_UTF8STRING) {
        text += ";" + attributeText(asText(bytesOf(name.value->value.utf8string)));
    }
    return text;
}

// Empty for the kinds that nobody uses.
std::string altNameText(const GENERAL_NAME& name) {
    const auto textOf = [](const ASN1_STRING* string) {
        return attributeText(asText(bytesOf(string)));
    };
    switch (name.type) {
        case GEN_DNS:
            return "DNS:" + textOf(name.d.dNSName);
        case GEN_EMAIL:
            return "email:" + textOf(name.d.rfc822Name);
        case GEN_URI:
            return "URI:" + textOf(name.d.uniformResourceIdentifier);
        case GEN_IPADD:
            return "IP:" + addressText(bytesOf(name.d.iPAddress));
        case GEN_DIRNAME:
            return "dirName:" + nameText(name.d.directoryName);
        case GEN_RID:
            return "RID:" + identifierText(name.d.registeredID);
        case GEN_OTHERNAME:
            return "otherName:" + otherNameText(*name.d.otherName);
        default:
            return {};
    }
}

std::string curveText(const EVP_PKEY* key) {
    std::array<char, 80> group{};
    std::size_t length = 0;
    if (EVP_PKEY_get_group_name(key, group.data(), group.size(), &length) != 1) {
        return "explicit";  // a curve of its own, given by its parameters
    }
    const char* const nist = EC_curve_nid2nist(OBJ_sn2nid(group.data()));
    return nist != nullptr ? nist : group.data();
}

}  // namespace

std::string identifierText(const ASN1_OBJECT* identifier) {
    std::array<char, 128> text{};
    const int length = OBJ_obj2txt(text.data(), static_cast<int>(text.size()), identifier, 1);
    return length > 0 ? std::string(text.data()) : std::string();
}

std::string attributeText(std::string_view text) {
    const bool utf8 = isUtf8(text);
    std::string kept;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !utf8)) {
            kept += fmt::format("\\{:02X}", byte);
        } else if (c == '\\' || (c == ' ' && kept.empty())) {
            kept += {'\\', c};
        } else {
            kept += c;
        }
    }
    return kept;
}

std::string nameText(const X509_NAME* name) {
    // Letters of all scripts stay as they are.
    constexpr unsigned long kFlags =
        XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    std::string text = printName(name, kFlags);
    if (!text.empty() && isUtf8(text)) {
        return text;
    }
    // Some value is not what its type promises: all values as hexadecimal digits.
    return printName(name, kFlags | ASN1_STRFLGS_DUMP_ALL | ASN1_STRFLGS_DUMP_DER);
}

std::string titleOf(const X509_NAME* name) {
    for (const int part : {NID_commonName, NID_organizationalUnitName, NID_organizationName}) {
        const int index = X509_NAME_get_index_by_NID(name, part, -1);
        if (index >= 0) {
            return utf8Of(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
        }
    }
    return {};
}

std::string timeText(const ASN1_TIME* time) {
    std::tm parts{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) {
        return {};
    }
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900,
                       parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::string keyAlgorithmText(const EVP_PKEY* key) {
    for (const char* const sized : {"RSA", "RSA-PSS", "DSA", "DH", "DHX"}) {
        if (EVP_PKEY_is_a(key, sized)) {
            return fmt::format("{}-{}", sized, EVP_PKEY_get_bits(key));
        }
    }
    for (const char* const single : {"Ed25519", "Ed448", "X25519", "X448", "SM2"}) {
        if (EVP_PKEY_is_a(key, single)) {
            return single;
        }
    }
    if (EVP_PKEY_is_a(key, "EC")) {
        return "EC-" + curveText(key);
    }
    const char* const other = EVP_PKEY_get0_type_name(key);
    return attributeText(other != nullptr ? other : "");
}

std::string keyAlgorithmText(X509_PUBKEY* key) {
    const ossl::QuietErrors quiet;
    if (const EVP_PKEY* const known = X509_PUBKEY_get0(key)) {
        return keyAlgorithmText(known);
    }
    return keyAlgorithmIdentifier(key);
}

std::string keyAlgorithmIdentifier(X509_PUBKEY* key) {
    ASN1_OBJECT* identifier = nullptr;
    const bool told = X509_PUBKEY_get0_param(&identifier, nullptr, nullptr, nullptr, key) == 1;
    return told ? identifierText(identifier) : std::string();
}

std::vector<std::string> altNameTexts(const GENERAL_NAMES* names) {
    std::vector<std::string> texts;
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        std::string text = altNameText(*sk_GENERAL_NAME_value(names, i));
        if (!text.empty()) {
            texts.push_back(std::move(text));
        }
    }
    return texts;
}

}  // namespace fstore
