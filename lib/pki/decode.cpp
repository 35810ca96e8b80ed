#include "lib/pki/decode.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "lib/pki/der.h"
#include "lib/pki/openssh.h"
#include "lib/pki/ossl.h"
#include "lib/pki/password.h"
#include "lib/pki/pem.h"
#include "lib/pki/pkcs12.h"
#include "lib/pki/pkcs7.h"
#include "lib/pki/secret_key.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;
using Content = decltype(PkiPart::content);

constexpr std::string_view kCipherField = "DEK-Info:", kTrusted = "TRUSTED CERTIFICATE";

PkiPart only(Content content) {
    return {0, "", std::move(content)};
}

bool isEncrypted(const PemContent& content) {
    return content.header.find("ENCRYPTED") != std::string::npos ||
           content.header.find(kCipherField) != std::string::npos;
}

// A key in the older form, encrypted by a header of the block.
SecretBytes keyFromHeader(PemContent content, FilePassword& password) {
    EVP_CIPHER_INFO cipher{};
    const std::size_t field = std::min(content.header.find(kCipherField), content.header.size());
    std::string header = "Proc-Type: 4,ENCRYPTED\n" + content.header.substr(field);
    if (PEM_get_EVP_CIPHER_INFO(header.data(), &cipher) != 1) {
        throw Failure(kMalformed, "the encryption of the key is not supported");
    }
    constexpr std::uint64_t kRounds = 1;
    const SecretText& text = password.get(kRounds);
    long size = static_cast<long>(content.der.size());
    // Without a callback the last argument is the password.
    const bool decrypted = PEM_do_header(&cipher, content.der.data(), &size, nullptr,
                                         const_cast<char*>(text.c_str())) == 1;
    auto key = decrypted ? keyFromPlain(Bytes(content.der).first(static_cast<std::size_t>(size)))
                         : std::nullopt;
    if (!key) {
        throw Failure(kWrongPassword, "wrong password for this key");
    }
    return std::move(*key);
}

PkiObject keyObject(std::optional<SecretBytes> key) {
    if (!key) {
        throw Failure(kMalformed, "the key is damaged, or of an unknown algorithm");
    }
    return readPkiObject(Kind::kKey, std::move(*key));
}

// What a certificate is trusted for, and rejected for, stands behind it; no record has a place for
// that.
void tellOfSettings(X509* certificate, std::vector<PkiPart>& parts) {
    const int trusted = std::max(0, sk_ASN1_OBJECT_num(X509_get0_trust_objects(certificate)));
    const int rejected = std::max(0, sk_ASN1_OBJECT_num(X509_get0_reject_objects(certificate)));
    if (trusted + rejected != 0) {
        parts.push_back(
            only(Skipped{fmt::format("the trust settings of this certificate are left out: {} "
                                     "trusted uses, {} rejected uses",
                                     trusted, rejected)}));
    }
}

// The certificate at the front of one with trust settings, its name in these, and behind it a part
// for the others.
std::vector<PkiPart> trustedCertificate(const SecretBytes& der) {
    std::string label;
    const unsigned char* at = der.data();
    const ossl::Certificate certificate(d2i_X509_AUX(nullptr, &at, static_cast<long>(der.size())));
    if (certificate == nullptr) {
        throw Failure(kMalformed, "not a certificate, or a damaged one");
    }
    int length = 0;
    if (const unsigned char* const alias = X509_alias_get0(certificate.get(), &length)) {
        label.assign(reinterpret_cast<const char*>(alias), static_cast<std::size_t>(length));
    }
    at = der.data();
    const ossl::Certificate alone(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    std::vector<PkiPart> parts;
    parts.push_back(
        {0, std::move(label), readPkiObject(Kind::kCertificate, SecretBytes(der.data(), at))});
    tellOfSettings(certificate.get(), parts);
    return parts;
}

// None when it is nothing that can be imported.
std::optional<std::vector<PkiPart>> partsOfBinary(Bytes bytes, FilePassword& password) {
    const ossl::QuietErrors quiet;
    const auto single = [](PkiObject object) {
        std::vector<PkiPart> parts;
        parts.push_back(only(std::move(object)));
        return parts;
    };
    SecretBytes der(bytes.begin(), bytes.end());
    for (const Kind kind : {Kind::kCertificate, Kind::kCrl, Kind::kRequest}) {
        if (kind != Kind::kCrl && der.size() > kMostObject) {
            continue;
        }
        if (auto object = findPkiObject(kind, der)) {
            return single(std::move(*object));
        }
    }
    if (auto parts = partsOfPkcs12(bytes, password)) {
        return parts;
    }
    if (auto parts = partsOfPkcs7(bytes)) {
        return parts;
    }
    if (auto key = keyFromEncrypted(bytes, password)) {
        return single(keyObject(std::move(key)));
    }
    if (auto key = keyFromPlain(bytes)) {
        return single(keyObject(std::move(key)));
    }
    return std::nullopt;
}

bool isKeyType(std::string_view type) {
    return type == "PRIVATE KEY" || type.ends_with(" PRIVATE KEY");
}

// What a block of this type holds; none when the type tells nothing.
std::optional<PkiObject> objectOfType(const std::string& type, PemContent& content,
                                      std::string& label, FilePassword& password) {
    if (type == "CERTIFICATE" || type == "X509 CERTIFICATE") {
        return readPkiObject(Kind::kCertificate, std::move(content.der));
    }
    if (type == "X509 CRL") {
        return readPkiObject(Kind::kCrl, std::move(content.der));
    }
    if (type == "CERTIFICATE REQUEST" || type == "NEW CERTIFICATE REQUEST") {
        return readPkiObject(Kind::kRequest, std::move(content.der));
    }
    if (type == "ENCRYPTED PRIVATE KEY") {
        return keyObject(keyFromEncrypted(content.der, password));
    }
    if (type == "OPENSSH PRIVATE KEY") {
        return readPkiObject(Kind::kKey, keyFromOpenSsh(content.der, label));
    }
    if (isKeyType(type) && isEncrypted(content)) {
        return readPkiObject(Kind::kKey, keyFromHeader(std::move(content), password));
    }
    if (isKeyType(type)) {
        return keyObject(keyFromPlain(content.der));
    }
    return std::nullopt;
}

// What stands behind the first object of a block, taken off: other programs pass it over.
std::size_t takeExcess(const std::string& type, PemContent& content) {
    const auto end = endOfSequence(content.der);
    if (!end || *end >= content.der.size() || isEncrypted(content) || type == kTrusted) {
        return 0;
    }
    const std::size_t excess = content.der.size() - static_cast<std::size_t>(*end);
    content.der.resize(static_cast<std::size_t>(*end));
    return excess;
}

Failure excessive(std::size_t excess) {
    return {kMalformed, fmt::format("{} bytes that follow the object are left out", excess)};
}

Failure unknownType(const std::string& type) {
    return {kMalformed, type.empty()
                            ? "a PEM block without a type cannot be imported"
                            : fmt::format("a PEM block of type {} cannot be imported", type)};
}

std::vector<PkiPart> partsOfContent(const std::string& type, PemContent content,
                                    FilePassword& password) {
    const std::size_t excess = takeExcess(type, content);
    std::vector<PkiPart> parts;
    std::string label;
    if (type == kTrusted) {
        parts = trustedCertificate(content.der);
    } else if (auto object = objectOfType(type, content, label, password)) {
        parts.push_back({0, std::move(label), std::move(*object)});
    } else if (auto found = partsOfBinary(content.der, password)) {
        parts = std::move(*found);
    } else {
        throw Failure(unknownType(type));
    }
    if (excess != 0) {
        parts.push_back(only(excessive(excess)));
    }
    return parts;
}

// Why a block of this shape has nothing that can be decoded.
Failure shapeless(PemBlock::Shape shape) {
    switch (shape) {
        case PemBlock::Shape::kWhole:
            break;
        case PemBlock::Shape::kNoEnd:
            return {kMalformed, "the PEM block has no end"};
        case PemBlock::Shape::kNoBegin:
            return {kMalformed, "the PEM block has no beginning"};
    }
    return {kMalformed, "the PEM block is damaged"};
}

std::vector<PkiPart> partsOf(const PemBlock& block, FilePassword& password) {
    const ossl::QuietErrors quiet;
    auto content = contentOf(block);
    if (!content) {
        throw Failure(shapeless(block.shape));
    }
    try {
        return partsOfContent(block.type, std::move(*content), password);
    } catch (const Failure& failure) {
        if (block.shape == PemBlock::Shape::kWhole || failure.status() != kMalformed) {
            throw;
        }
        throw Failure(shapeless(block.shape));
    }
}

// Some programs write a key's parameters in front of the key, which has them too.
bool isParametersOf(const PemBlock& block, const PemBlock& next) {
    return block.type.ends_with(" PARAMETERS") && isKeyType(next.type);
}

std::vector<PkiPart> partsOfText(Bytes bytes, FilePassword& password) {
    const std::vector<PemBlock> blocks = findPemBlocks(asText(bytes), kMostParts);
    std::vector<PkiPart> parts;
    parts.reserve(blocks.size());
    const auto add = [&](const PemBlock& block, PkiPart part) {
        part.line = block.line;
        parts.push_back(std::move(part));
    };
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const PemBlock& block = blocks[i];
        if (i + 1 < blocks.size() && isParametersOf(block, blocks[i + 1])) {
            add(block, only(Skipped{"the key that follows has these parameters, too"}));
            continue;
        }
        try {
            for (PkiPart& part : partsOf(block, password)) {
                add(block, std::move(part));
            }
        } catch (const Failure& failure) {
            add(block, only(failure));
        }
    }
    return parts;
}

// Why bytes without a PEM block cannot be decoded.
Failure strangeness(Bytes bytes) {
    if (bytes.empty()) {
        return {kMalformed, "the file is empty"};
    }
    if (asText(bytes).starts_with("\xFF\xFE") || asText(bytes).starts_with("\xFE\xFF")) {
        return {kMalformed, "the file is text in UTF-16; convert it to UTF-8 first"};
    }
    if (javaKeystoreType(bytes) != nullptr) {
        return {kMalformed,
                "a Java keystore; `keytool -importkeystore -srckeystore FILE -destkeystore "
                "FILE.p12 -deststoretype PKCS12` makes a PKCS#12 file of it"};
    }
    const auto end = endOfSequence(bytes);
    if (end == bytes.size() && bytes.size() > kMostPkcs12) {
        return {kMalformed,
                "DER, but not a CRL, or a damaged one; it is too large for anything else"};
    }
    if (end == bytes.size()) {
        return {
            kMalformed,
            "DER, but not a certificate, CRL, key, request, PKCS#7 or PKCS#12 file, or a damaged "
            "one"};
    }
    if (end && *end > bytes.size()) {
        return {kMalformed, fmt::format("the file is truncated to {} of {} bytes, or is not DER",
                                        bytes.size(), *end)};
    }
    if (end) {
        return {kMalformed, fmt::format("{} bytes follow the DER, or the file is not DER",
                                        bytes.size() - *end)};
    }
    return {kMalformed, "the file is neither PEM nor DER"};
}

// The objects in DER at the front, one behind the other, taken off the bytes.
std::vector<PkiPart> takeBinary(Bytes& rest, FilePassword& password) {
    std::vector<PkiPart> parts;
    while (parts.size() < kMostParts) {
        const auto end = endOfSequence(rest);
        if (!end || *end > rest.size()) {
            break;
        }
        const Bytes object = rest.first(static_cast<std::size_t>(*end));
        try {
            auto found = partsOfBinary(object, password);
            if (!found) {
                break;
            }
            std::ranges::move(*found, std::back_inserter(parts));
        } catch (const Failure& failure) {
            parts.push_back(only(failure));
        }
        rest = rest.subspan(object.size());
    }
    return parts;
}

// DER, PEM, or both as programs that append to a file make it.
std::vector<PkiPart> partsOfFile(Bytes bytes, FilePassword& password) {
    Bytes rest = bytes;
    std::vector<PkiPart> parts = takeBinary(rest, password);
    if (rest.empty() && !parts.empty()) {
        return parts;
    }
    std::vector<PkiPart> blocks = partsOfText(bytes, password);
    if (blocks.empty()) {
        blocks.push_back(only(parts.empty() ? strangeness(bytes) : excessive(rest.size())));
    }
    std::ranges::move(blocks, std::back_inserter(parts));
    return parts;
}

}  // namespace

const char* javaKeystoreType(Bytes bytes) {
    if (asText(bytes).starts_with("\xFE\xED\xFE\xED")) {
        return "JKS";
    }
    return asText(bytes).starts_with("\xCE\xCE\xCE\xCE") ? "JCEKS" : nullptr;
}

std::vector<PkiPart> decodePki(Bytes bytes, const InputPassword& password) {
    FilePassword tried(password);
    std::vector<PkiPart> parts;
    try {
        if (bytes.size() > kMostInput) {
            throw Failure(kInvalid, fmt::format("the file is larger than {} bytes", kMostInput));
        }
        parts = partsOfFile(bytes, tried);
    } catch (const Failure& failure) {
        parts.push_back(only(failure));
    }
    return parts;
}

}  // namespace fstore
