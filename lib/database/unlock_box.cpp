#include "lib/database/unlock_box.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include "lib/base/bytes.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "ossl/owner.h"

namespace fstore {
namespace {

constexpr std::string_view kLabel = "fstore-unlock-1";
constexpr std::size_t kKeySize = 32;
constexpr std::size_t kPSize = 32;
constexpr std::size_t kTagSize = 16;
constexpr std::string_view kLowerDigits = "0123456789abcdef";

using CipherContext = ossl::Owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

void require(bool done) {
    if (!done) {
        throw Failure(kIo, "cannot work on a slot: OpenSSL does not offer HKDF and AES-256-GCM");
    }
}

SecretKey slotKeyOf(const UnlockSlot& slot, RawSecret raw) {
    const ossl::Owner<EVP_KDF, EVP_KDF_free> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    const ossl::Owner<EVP_KDF_CTX, EVP_KDF_CTX_free> context(
        kdf != nullptr ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
    std::string info = fmt::format("{} slot {} {}", kLabel, slot.n, nameOfKind(slot));
    char digest[] = "SHA256";
    // The library takes plain pointers and does not write through them.
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string("digest", digest, 0),
        OSSL_PARAM_construct_octet_string("key", const_cast<unsigned char*>(raw.data()),
                                          raw.size()),
        OSSL_PARAM_construct_octet_string("salt", const_cast<unsigned char*>(slot.salt.data()),
                                          slot.salt.size()),
        OSSL_PARAM_construct_octet_string("info", info.data(), info.size()),
        OSSL_PARAM_construct_end()};
    SecretKey key(kKeySize);
    require(context != nullptr &&
            EVP_KDF_derive(context.get(), key.data(), key.size(), parameters) == 1);
    return key;
}

// What the box is bound to.
std::string boundTo(const UnlockSlot& slot, const DatabaseId& db) {
    return fmt::format("{}\n{}\n{}", kLabel, toHex(db), headOf(slot));
}

SecretText digitsOf(std::span<const unsigned char> bytes) {
    SecretKey digits;
    digits.reserve(2 * bytes.size());
    appendHex(digits, bytes);
    return SecretText({reinterpret_cast<const char*>(digits.data()), digits.size()});
}

SecretKey bytesOfP(const SecretText& p) {
    if (!isWrappable(p)) {
        throw Failure(kInvalid, "the key of the database is not 64 hexadecimal digits");
    }
    SecretKey bytes(kPSize);
    for (std::size_t i = 0; i < kPSize; ++i) {
        bytes[i] = static_cast<unsigned char>(kLowerDigits.find(p.view()[2 * i]) << 4 |
                                              kLowerDigits.find(p.view()[2 * i + 1]));
    }
    return bytes;
}

// The bytes in the box; empty if it does not open.
SecretKey decrypted(const UnlockSlot& slot, const DatabaseId& db, RawSecret raw) {
    const SecretKey key = slotKeyOf(slot, raw);
    const std::string bound = boundTo(slot, db);
    const CipherContext context(EVP_CIPHER_CTX_new());
    SecretKey bytes(kPSize);
    Box box = slot.box;  // the library wants a tag that it could write to
    int length = 0;
    require(context != nullptr &&
            EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(),
                               slot.nonce.data()) == 1 &&
            EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(bound).data(),
                              static_cast<int>(bound.size())) == 1 &&
            EVP_DecryptUpdate(context.get(), bytes.data(), &length, box.data(), kPSize) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize,
                                box.data() + kPSize) == 1);
    if (EVP_DecryptFinal_ex(context.get(), bytes.data() + length, &length) != 1) {
        bytes.clear();
    }
    return bytes;
}

Box encrypted(const UnlockSlot& slot, const DatabaseId& db, RawSecret raw, const SecretKey& p) {
    const SecretKey key = slotKeyOf(slot, raw);
    const std::string bound = boundTo(slot, db);
    const CipherContext context(EVP_CIPHER_CTX_new());
    Box box;
    int length = 0;
    require(context != nullptr &&
            EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(),
                               slot.nonce.data()) == 1 &&
            EVP_EncryptUpdate(context.get(), nullptr, &length, bytesOf(bound).data(),
                              static_cast<int>(bound.size())) == 1 &&
            EVP_EncryptUpdate(context.get(), box.data(), &length, p.data(), kPSize) == 1 &&
            EVP_EncryptFinal_ex(context.get(), box.data() + length, &length) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize,
                                box.data() + kPSize) == 1);
    return box;
}

}  // namespace

std::size_t rawSizeOf(SlotKind kind) {
    switch (kind) {
        case SlotKind::kPassword:
        case SlotKind::kFile:
            return 32;
        case SlotKind::kRecovery:
            return 20;
        case SlotKind::kUnknown:
            break;
    }
    return 0;
}

OpenedBox openBox(const UnlockSlot& slot, const DatabaseId& db, RawSecret raw) {
    using State = OpenedBox::State;
    const ossl::QuietErrors quiet;
    if (raw.empty() || raw.size() != rawSizeOf(slot.kind)) {
        return {State::kWrongSecret, {}};
    }
    const SecretKey bytes = decrypted(slot, db, raw);
    if (bytes.empty()) {
        return {State::kWrongSecret, {}};
    }
    SecretText p = digitsOf(bytes);
    if (!fits(p, slot.key)) {
        return {State::kDamaged, {}};
    }
    return {State::kOpen, std::move(p)};
}

UnlockSlot withBox(UnlockSlot slot, const DatabaseId& db, RawSecret raw, const SecretText& p,
                   const BoxNonce& nonce) {
    const ossl::QuietErrors quiet;
    if (raw.empty() || raw.size() != rawSizeOf(slot.kind)) {
        throw Failure(kInvalid, "a secret of this size cannot open a slot of this kind");
    }
    slot.key = digestOf(p);
    slot.nonce = nonce;
    slot.box = encrypted(slot, db, raw, bytesOfP(p));
    return slot;
}

UnlockSlot withBox(UnlockSlot slot, const DatabaseId& db, RawSecret raw, const SecretText& p) {
    BoxNonce nonce;
    fillRandomly(nonce);
    return withBox(std::move(slot), db, raw, p, nonce);
}

void fillRandomly(std::span<unsigned char> bytes) {
    if (RAND_priv_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw Failure(kIo, "cannot create a key: OpenSSL has no random numbers");
    }
}

SecretText randomP() {
    SecretKey bytes(kPSize);
    fillRandomly(bytes);
    return digitsOf(bytes);
}

bool isWrappable(const SecretText& p) {
    return p.size() == 2 * kPSize &&
           p.view().find_first_not_of(kLowerDigits) == std::string_view::npos;
}

bool fits(const SecretText& p, const Digest& key) {
    const Digest own = digestOf(p);
    return CRYPTO_memcmp(own.data(), key.data(), own.size()) == 0;
}

}  // namespace fstore
