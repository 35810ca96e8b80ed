#include "lib/pki/pkcs12.h"

#include <cstddef>
#include <deque>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/old_ciphers.h"
#include "lib/pki/ossl.h"
#include "lib/pki/pkcs8.h"
#include "lib/pki/secret_key.h"

namespace fstore {
namespace {

void appendUtf8(std::string& text, char32_t character) {
    const auto add = [&text](char32_t byte) { text += static_cast<char>(byte); };
    const auto addRest = [&](int shift) { add(0x80 | ((character >> shift) & 0x3F)); };
    if (character < 0x80) {
        add(character);
    } else if (character < 0x800) {
        add(0xC0 | (character >> 6));
        addRest(0);
    } else if (character < 0x10000) {
        add(0xE0 | (character >> 12));
        addRest(6);
        addRest(0);
    } else {
        add(0xF0 | (character >> 18));
        addRest(12);
        addRest(6);
        addRest(0);
    }
}

// The name of an entry, which is in UTF-16; OpenSSL 3.0 loses one that ends beyond U+0800.
std::string labelOf(const PKCS12_SAFEBAG* bag) {
    constexpr char32_t kHigh = 0xD800, kLow = 0xDC00, kBeyond = 0xE000, kUnknown = 0xFFFD;
    const ASN1_TYPE* const name = PKCS12_SAFEBAG_get0_attr(bag, NID_friendlyName);
    if (name == nullptr || name->type != V_ASN1_BMPSTRING) {
        return {};
    }
    const unsigned char* const bytes = ASN1_STRING_get0_data(name->value.bmpstring);
    const int count = ASN1_STRING_length(name->value.bmpstring) / 2;
    const auto unitAt = [&](int i) -> char32_t {
        const unsigned char* const unit = bytes + 2 * static_cast<std::size_t>(i);
        return i < count ? static_cast<char32_t>(unit[0] << 8 | unit[1]) : 0;
    };
    std::string text;
    for (int i = 0; i < count; ++i) {
        char32_t character = unitAt(i);
        const char32_t next = unitAt(i + 1);
        if (character >= kHigh && character < kLow && next >= kLow && next < kBeyond) {
            character = 0x10000 + ((character - kHigh) << 10) + (next - kLow);
            ++i;
        } else if (character >= kHigh && character < kBeyond) {
            character = kUnknown;
        }
        if (character != 0 || i + 1 < count) {  // some programs end it with a NUL
            appendUtf8(text, character);
        }
    }
    return text;
}

SecretBytes keyOf(const PKCS8_PRIV_KEY_INFO* info) {
    const ossl::Pkey key = keyIn(info);
    if (key == nullptr) {
        throw Failure(kMalformed, "the key is damaged, or of an unknown algorithm");
    }
    return pkcs8Of(*key);
}

SecretBytes shroudedKeyOf(const PKCS12_SAFEBAG* bag, FilePassword& password) {
    const X509_SIG* const encrypted = PKCS12_SAFEBAG_get0_pkcs8(bag);
    const X509_ALGOR* algorithm = nullptr;
    X509_SIG_get0(encrypted, &algorithm, nullptr);
    const auto info = password.find(roundsOf(*algorithm), [&](const char* text, int length) {
        return ossl::KeyInfo(PKCS8_decrypt(encrypted, text, length));
    });
    if (info == nullptr) {
        throw Failure(kMalformed, "the key cannot be decrypted");
    }
    return keyOf(info.get());
}

PkiObject objectOf(const PKCS12_SAFEBAG* bag, FilePassword& password) {
    switch (PKCS12_SAFEBAG_get_nid(bag)) {
        case NID_keyBag:
            return readPkiObject(Kind::kKey, keyOf(PKCS12_SAFEBAG_get0_p8inf(bag)));
        case NID_pkcs8ShroudedKeyBag:
            return readPkiObject(Kind::kKey, shroudedKeyOf(bag, password));
        case NID_certBag: {
            const ossl::Certificate certificate(PKCS12_SAFEBAG_get1_cert(bag));
            return readPkiObject(Kind::kCertificate, ossl::encoded<i2d_X509>(certificate.get()));
        }
        case NID_crlBag: {
            const ossl::Crl crl(PKCS12_SAFEBAG_get1_crl(bag));
            return readPkiObject(Kind::kCrl, ossl::encoded<i2d_X509_CRL>(crl.get()));
        }
        case NID_secretBag:
            throw Failure(kMalformed, "a secret that is no private key cannot be imported");
        default:
            throw Failure(kMalformed, "unknown kind of PKCS#12 entry");
    }
}

PkiPart partOf(PKCS12_SAFEBAG* bag, FilePassword& password) {
    try {
        return {0, labelOf(bag), objectOf(bag, password)};
    } catch (const Failure& failure) {
        return {0, labelOf(bag), failure};
    }
}

void addParts(const STACK_OF(PKCS12_SAFEBAG) * bags, FilePassword& password,
              std::vector<PkiPart>& parts) {
    std::deque<const STACK_OF(PKCS12_SAFEBAG)*> left{bags};
    while (!left.empty()) {
        const auto* const some = left.front();
        left.pop_front();
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(some); ++i) {
            PKCS12_SAFEBAG* const bag = sk_PKCS12_SAFEBAG_value(some, i);
            if (PKCS12_SAFEBAG_get_nid(bag) == NID_safeContentsBag) {
                left.push_back(PKCS12_SAFEBAG_get0_safes(bag));
            } else if (parts.size() == kMostParts) {
                throw Failure(kInvalid,
                              fmt::format("the PKCS#12 file has more than {} entries", kMostParts));
            } else {
                parts.push_back(partOf(bag, password));
            }
        }
    }
}

ossl::Bags bagsOf(PKCS7* safe, FilePassword& password) {
    if (PKCS7_type_is_data(safe)) {
        return ossl::Bags(PKCS12_unpack_p7data(safe));
    }
    if (!PKCS7_type_is_encrypted(safe)) {
        return nullptr;
    }
    const std::uint64_t rounds = roundsOf(*safe->d.encrypted->enc_data->algorithm);
    return password.find(rounds, [&](const char* text, int length) {
        return ossl::Bags(PKCS12_unpack_p7encdata(safe, text, length));
    });
}

void checkMac(PKCS12& file, FilePassword& password) {
    if (PKCS12_mac_present(&file) != 1) {
        return;
    }
    const ASN1_INTEGER* iterations = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, &file);
    std::uint64_t rounds = 1;
    if (iterations != nullptr && ASN1_INTEGER_get_uint64(&rounds, iterations) != 1) {
        throw Failure(kMalformed, "the PKCS#12 file is damaged");
    }
    const bool right = password.find(rounds, [&](const char* text, int length) {
        return PKCS12_verify_mac(&file, text, length) == 1;
    });
    if (!right) {
        throw Failure(kWrongPassword, "wrong password for this PKCS#12 file");
    }
}

}  // namespace

std::optional<std::vector<PkiPart>> partsOfPkcs12(std::span<const unsigned char> der,
                                                  FilePassword& password) {
    const ossl::QuietErrors quiet;
    if (der.size() > kMostPkcs12) {
        return std::nullopt;
    }
    const auto file = ossl::decodeWhole<ossl::Pkcs12, d2i_PKCS12>(der);
    if (file == nullptr) {
        return std::nullopt;
    }
    const OldCiphers oldCiphers;
    checkMac(*file, password);
    const ossl::Safes safes(PKCS12_unpack_authsafes(file.get()));
    if (safes == nullptr) {
        throw Failure(kMalformed, "the PKCS#12 file is damaged, or signed instead of encrypted");
    }
    std::vector<PkiPart> parts;
    for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
        const ossl::Bags bags = bagsOf(sk_PKCS7_value(safes.get(), i), password);
        if (bags == nullptr) {
            parts.push_back({0, "",
                             Failure(kMalformed,
                                     "a part of the PKCS#12 file cannot be "
                                     "decrypted, or is damaged")});
            continue;
        }
        addParts(bags.get(), password, parts);
    }
    if (parts.empty()) {
        throw Failure(kMalformed, "the PKCS#12 file is empty");
    }
    return parts;
}

}  // namespace fstore
