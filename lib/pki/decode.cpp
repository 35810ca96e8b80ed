#include "lib/pki/decode.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "lib/pki/ossl.h"
#include "lib/pki/password.h"
#include "lib/pki/pkcs12.h"
#include "lib/pki/secret_key.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;
using Content = std::variant<PkiObject, Failure>;

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kEnd = "-----END ";
constexpr std::string_view kDashes = "-----";

// Between two lines of dashes, both included.
struct Block {
    std::string type;  // "CERTIFICATE"
    unsigned int line;
    std::string_view text;
    bool complete;  // its end is there
};

// The type when the line is one of dashes with this head.
std::optional<std::string> typeOf(std::string_view line, std::string_view head) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.remove_suffix(1);
    }
    if (!line.starts_with(head) || !line.ends_with(kDashes) ||
        line.size() < head.size() + kDashes.size()) {
        return std::nullopt;
    }
    return std::string(line.substr(head.size(), line.size() - head.size() - kDashes.size()));
}

std::vector<Block> blocksOf(std::string_view text) {
    std::vector<Block> blocks;
    const char* begun = nullptr;  // of a block whose end has not come
    unsigned int number = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t feed = rest.find('\n');
        const std::string_view line = rest.substr(0, feed);
        rest.remove_prefix(feed == std::string_view::npos ? rest.size() : feed + 1);
        ++number;
        if (auto type = typeOf(line, kBegin)) {
            if (blocks.size() == kMostParts) {
                throw Failure(kInvalid,
                              fmt::format("the file has more than {} PEM blocks", kMostParts));
            }
            blocks.push_back({std::move(*type), number, {}, false});
            begun = line.data();
        } else if (begun != nullptr && typeOf(line, kEnd) == blocks.back().type) {
            blocks.back().text = {begun, static_cast<std::size_t>(rest.data() - begun)};
            blocks.back().complete = true;
            begun = nullptr;
        }
    }
    return blocks;
}

// A block's contents; wiped, since they may be a key.
struct PemContent {
    std::string header;
    SecretBytes der;
};

std::optional<PemContent> contentOf(const Block& block) {
    const ossl::Bio in(BIO_new_mem_buf(block.text.data(), static_cast<int>(block.text.size())));
    char* type = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long size = 0;
    if (in == nullptr || PEM_read_bio_ex(in.get(), &type, &header, &data, &size, 0) != 1) {
        return std::nullopt;
    }
    const ossl::Text typeOwner(type), headerOwner(header);
    PemContent content{header, SecretBytes(data, data + size)};
    OPENSSL_clear_free(data, static_cast<std::size_t>(size));
    return content;
}

// A key in the older form, encrypted by a header of the block.
SecretBytes keyFromHeader(PemContent content, FilePassword& password) {
    EVP_CIPHER_INFO cipher{};
    if (PEM_get_EVP_CIPHER_INFO(content.header.data(), &cipher) != 1) {
        throw Failure(kMalformed, "the key is encrypted in an unknown way");
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
        throw Failure(kWrongPassword, "the password does not open this key");
    }
    return std::move(*key);
}

PkiObject keyObject(std::optional<SecretBytes> key) {
    if (!key) {
        throw Failure(kMalformed, "the key is damaged, or of an unknown algorithm");
    }
    return readPkiObject(Kind::kKey, std::move(*key));
}

// The certificate at the front of one with trust settings, and its name in these.
PkiObject trustedCertificate(const SecretBytes& der, std::string& label) {
    const unsigned char* at = der.data();
    const ossl::Certificate certificate(d2i_X509_AUX(nullptr, &at, static_cast<long>(der.size())));
    if (certificate == nullptr) {
        throw Failure(kMalformed, "this is no certificate, or a damaged one");
    }
    int length = 0;
    if (const unsigned char* const alias = X509_alias_get0(certificate.get(), &length)) {
        label.assign(reinterpret_cast<const char*>(alias), static_cast<std::size_t>(length));
    }
    at = der.data();
    const ossl::Certificate alone(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    return readPkiObject(Kind::kCertificate, SecretBytes(der.data(), at));
}

PkiObject objectOf(const Block& block, std::string& label, FilePassword& password) {
    const ossl::QuietErrors quiet;
    std::optional<PemContent> content = block.complete ? contentOf(block) : std::nullopt;
    if (!content) {
        throw Failure(kMalformed,
                      block.complete ? "the PEM block is damaged" : "the PEM block has no end");
    }
    const std::string& type = block.type;
    const bool sealedByHeader = content->header.find("ENCRYPTED") != std::string::npos;
    if (type == "CERTIFICATE" || type == "X509 CERTIFICATE") {
        return readPkiObject(Kind::kCertificate, std::move(content->der));
    }
    if (type == "TRUSTED CERTIFICATE") {
        return trustedCertificate(content->der, label);
    }
    if (type == "X509 CRL") {
        return readPkiObject(Kind::kCrl, std::move(content->der));
    }
    if (type == "CERTIFICATE REQUEST" || type == "NEW CERTIFICATE REQUEST") {
        return readPkiObject(Kind::kRequest, std::move(content->der));
    }
    if (type == "ENCRYPTED PRIVATE KEY") {
        return keyObject(keyFromSealed(content->der, password));
    }
    if (type == "PRIVATE KEY" || (type.ends_with(" PRIVATE KEY") && !sealedByHeader)) {
        return keyObject(keyFromPlain(content->der));
    }
    if (type.ends_with(" PRIVATE KEY")) {
        return readPkiObject(Kind::kKey, keyFromHeader(std::move(*content), password));
    }
    throw Failure(kMalformed, fmt::format("a PEM block of type {} cannot be imported", type));
}

PkiPart partOf(const Block& block, FilePassword& password) {
    std::string label;
    try {
        PkiObject object = objectOf(block, label, password);
        return {block.line, std::move(label), std::move(object)};
    } catch (const Failure& failure) {
        return {block.line, std::move(label), failure};
    }
}

// Some programs write a key's parameters in front of the key, which has them too.
bool isParameters(const Block& block) {
    return block.type.ends_with(" PARAMETERS");
}

// Where the outermost element of the bytes ends; none when they are no DER.
std::optional<std::uint64_t> outermostEnd(Bytes bytes) {
    constexpr unsigned char kSequence = 0x30;
    if (bytes.size() < 2 || bytes[0] != kSequence) {
        return std::nullopt;
    }
    const std::size_t lengthBytes = bytes[1] & 0x7Fu;
    if (bytes[1] < 0x80) {
        return 2 + std::uint64_t{bytes[1]};
    }
    if (lengthBytes == 0) {
        return bytes.size();  // a length that is told by the end; some PKCS#12 files have it
    }
    if (lengthBytes > 4 || bytes.size() < 2 + lengthBytes) {
        return std::nullopt;
    }
    std::uint64_t length = 0;
    for (const unsigned char byte : bytes.subspan(2, lengthBytes)) {
        length = length << 8 | byte;
    }
    return 2 + lengthBytes + length;
}

std::string_view asText(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

PkiPart only(Content content) {
    return {0, "", std::move(content)};
}

SecretBytes copyOf(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

std::vector<PkiPart> partsOfBinary(Bytes bytes, FilePassword& password) {
    const ossl::QuietErrors quiet;
    const auto single = [](PkiObject object) {
        std::vector<PkiPart> parts;
        parts.push_back(only(std::move(object)));
        return parts;
    };
    if (ossl::decodeWhole<ossl::Certificate, d2i_X509>(bytes) != nullptr) {
        return single(readPkiObject(Kind::kCertificate, copyOf(bytes)));
    }
    if (ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(bytes) != nullptr) {
        return single(readPkiObject(Kind::kCrl, copyOf(bytes)));
    }
    if (ossl::decodeWhole<ossl::Request, d2i_X509_REQ>(bytes) != nullptr) {
        return single(readPkiObject(Kind::kRequest, copyOf(bytes)));
    }
    if (auto parts = partsOfPkcs12(bytes, password)) {
        return std::move(*parts);
    }
    if (auto key = keyFromSealed(bytes, password)) {
        return single(keyObject(std::move(key)));
    }
    if (auto key = keyFromPlain(bytes)) {
        return single(keyObject(std::move(key)));
    }
    throw Failure(kMalformed,
                  "this is DER, but no certificate, CRL, key, request or PKCS#12 file, "
                  "or a damaged one");
}

std::vector<PkiPart> partsOfText(Bytes bytes, FilePassword& password) {
    std::vector<Block> blocks = blocksOf(asText(bytes));
    std::erase_if(blocks, isParameters);
    std::vector<PkiPart> parts;
    parts.reserve(blocks.size());
    for (const Block& block : blocks) {
        parts.push_back(partOf(block, password));
    }
    return parts;
}

// Why bytes without a PEM block cannot be decoded.
Failure strangeness(Bytes bytes) {
    if (bytes.empty()) {
        return {kMalformed, "the file is empty"};
    }
    const auto end = outermostEnd(bytes);
    if (end && *end > bytes.size()) {
        return {kMalformed, fmt::format("the file is cut off: it has {} bytes of {}, or is not DER",
                                        bytes.size(), *end)};
    }
    if (end && *end < bytes.size()) {
        return {kMalformed,
                fmt::format("{} bytes follow the DER, or it is none", bytes.size() - *end)};
    }
    return {kMalformed, "the file is neither PEM nor DER"};
}

}  // namespace

std::vector<PkiPart> decodePki(Bytes bytes, const InputPassword& password) {
    FilePassword tried(password);
    std::vector<PkiPart> parts;
    try {
        if (bytes.size() > kMostInput) {
            throw Failure(kInvalid, fmt::format("the file is larger than {} bytes", kMostInput));
        }
        parts = outermostEnd(bytes) == bytes.size() ? partsOfBinary(bytes, tried)
                                                    : partsOfText(bytes, tried);
        if (parts.empty()) {
            throw Failure(strangeness(bytes));
        }
    } catch (const Failure& failure) {
        parts.push_back(only(failure));
    }
    return parts;
}

}  // namespace fstore
