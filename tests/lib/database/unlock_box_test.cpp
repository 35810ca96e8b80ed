#include "lib/database/unlock_box.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "tests/lib/database/unlock_example.h"

namespace fstore {
namespace {

using State = OpenedBox::State;
using Bytes = std::vector<unsigned char>;

std::span<const unsigned char> asBytes(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

const Bytes kRecovery = [] {
    const Sha256Digest digest = sha256(asBytes("rec"));
    return Bytes(digest.begin(), digest.begin() + 20);
}();

UnlockRecord exampleRecord() {
    return parseUnlock(example::kLines);
}

UnlockSlot slotOf(std::size_t index) {
    return exampleRecord().sets[0].slots[index];
}

Bytes secretOf(std::size_t index) {
    return index == 0   ? fromHex(example::kPasswordRaw).value()
           : index == 1 ? kRecovery
                        : fromHex(example::kKeyFile).value();
}

// A box whose line claims another P than is in it: made by hand, since withBox() makes none.
UnlockSlot craftedBox(UnlockSlot slot, const DatabaseId& db, const Bytes& raw, const Bytes& p) {
    const std::string info =
        "fstore-unlock-1 slot " + std::to_string(slot.n) + " " + nameOfKind(slot) + '\x01';
    const std::string bound = "fstore-unlock-1\n" + toHex(db) + "\n" + headOf(slot);
    const auto hmac = [](std::span<const unsigned char> key, std::span<const unsigned char> text) {
        Bytes digest(32);
        HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), text.data(), text.size(),
             digest.data(), nullptr);
        return digest;
    };
    const Bytes key = hmac(hmac(slot.salt, raw), asBytes(info));
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    int length = 0;
    EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, key.data(), slot.nonce.data());
    EVP_EncryptUpdate(context, nullptr, &length, asBytes(bound).data(),
                      static_cast<int>(bound.size()));
    EVP_EncryptUpdate(context, slot.box.data(), &length, p.data(), 32);
    EVP_EncryptFinal_ex(context, slot.box.data() + length, &length);
    EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, slot.box.data() + 32);
    EVP_CIPHER_CTX_free(context);
    return slot;
}

TEST(UnlockBoxTest, ThePasswordGivesTheRawSecret) {
    const UnlockSlot slot = slotOf(0);
    EXPECT_EQ(example::kPasswordRaw,
              toHex(scrypt(SecretText(example::kPassword), slot.salt, slot.cost)));
}

TEST(UnlockBoxTest, EachSecretOpensItsBoxAndNoOther) {
    const DatabaseId db = exampleRecord().db;
    for (std::size_t slot = 0; slot < 3; ++slot) {
        for (std::size_t secret = 0; secret < 3; ++secret) {
            const OpenedBox opened = openBox(slotOf(slot), db, secretOf(secret));
            EXPECT_EQ(slot == secret ? State::kOpen : State::kWrongSecret, opened.state);
            EXPECT_EQ(slot == secret ? example::kP : "", opened.p.view());
        }
    }
}

TEST(UnlockBoxTest, MakesTheBoxesOfTheExample) {
    const UnlockRecord record = exampleRecord();
    for (std::size_t i = 0; i < 3; ++i) {
        UnlockSlot slot = slotOf(i);
        const BoxNonce nonce = slot.nonce;
        slot.key = {};
        slot.nonce = {};
        slot.box = {};
        EXPECT_EQ(slotOf(i), withBox(slot, record.db, secretOf(i), SecretText(example::kP), nonce));
    }
}

TEST(UnlockBoxTest, OpensWithoutScrypt) {
    const std::uint64_t before = scryptRuns();
    (void)openBox(slotOf(2), exampleRecord().db, secretOf(2));
    EXPECT_EQ(before, scryptRuns());
    const UnlockSlot slot = slotOf(0);
    (void)scrypt(SecretText("a"), slot.salt, slot.cost);
    EXPECT_EQ(before + 1, scryptRuns());
}

// Whatever of its line or its database is altered, the box does not open.
TEST(UnlockBoxTest, ABoxIsBoundToItsLine) {
    const UnlockRecord record = exampleRecord();
    const UnlockSlot slot = slotOf(2);
    const auto opens = [&](const UnlockSlot& altered) {
        return openBox(altered, record.db, secretOf(2)).state == State::kOpen;
    };
    EXPECT_TRUE(opens(slot));
    UnlockSlot other = slot;
    other.n = 4;
    EXPECT_FALSE(opens(other));
    other = slot;
    other.label = "web-server";
    EXPECT_FALSE(opens(other));
    other = slot;
    ++other.made;
    EXPECT_FALSE(opens(other));
    for (unsigned char* const byte : {&other.salt[31], &other.key[15], &other.nonce[11],
                                      &other.box.front(), &other.box[31], &other.box.back()}) {
        other = slot;
        *byte ^= 1;
        EXPECT_FALSE(opens(other));
    }
    DatabaseId db = record.db;
    db[15] ^= 1;
    EXPECT_EQ(State::kWrongSecret, openBox(slot, db, secretOf(2)).state);
}

TEST(UnlockBoxTest, TheCostOfAPasswordIsBoundToo) {
    UnlockSlot slot = slotOf(0);
    slot.cost.ln = 15;
    EXPECT_EQ(State::kWrongSecret, openBox(slot, exampleRecord().db, secretOf(0)).state);
    // A key file of 32 bytes is not a password's raw secret.
    slot = slotOf(0);
    slot.kind = SlotKind::kFile;
    EXPECT_EQ(State::kWrongSecret, openBox(slot, exampleRecord().db, secretOf(0)).state);
}

TEST(UnlockBoxTest, ABoxWithAnotherPIsDamaged) {
    const UnlockRecord record = exampleRecord();
    UnlockSlot slot = withBox(slotOf(2), record.db, secretOf(2), SecretText(std::string(64, 'a')));
    EXPECT_EQ(State::kOpen, openBox(slot, record.db, secretOf(2)).state);
    EXPECT_FALSE(fits(SecretText(example::kP), slot.key));
    EXPECT_TRUE(fits(SecretText(std::string(64, 'a')), slot.key));
    // What is crafted by hand is right but for the P.
    EXPECT_EQ(slotOf(2),
              craftedBox(slotOf(2), record.db, secretOf(2), fromHex(example::kP).value()));
    slot = craftedBox(slotOf(2), record.db, secretOf(2), Bytes(32, 0xaa));
    const OpenedBox opened = openBox(slot, record.db, secretOf(2));
    EXPECT_EQ(State::kDamaged, opened.state);
    EXPECT_TRUE(opened.p.empty());
}

TEST(UnlockBoxTest, ASecretOfAnotherSizeIsRefused) {
    const UnlockRecord record = exampleRecord();
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{19}, std::size_t{21}, std::size_t{32}}) {
        EXPECT_EQ(State::kWrongSecret, openBox(slotOf(1), record.db, Bytes(size)).state);
        try {
            (void)withBox(slotOf(1), record.db, Bytes(size), SecretText(example::kP));
            ADD_FAILURE() << size;
        } catch (const Failure& failure) {
            EXPECT_EQ(kInvalid, failure.status());
        }
    }
    UnlockSlot slot = slotOf(1);
    slot.kind = SlotKind::kUnknown;
    slot.kindName = "recovery2";
    EXPECT_EQ(State::kWrongSecret, openBox(slot, record.db, kRecovery).state);
    EXPECT_EQ(State::kWrongSecret, openBox(slot, record.db, Bytes()).state);
}

TEST(UnlockBoxTest, OnlyAPOf64SmallDigitsIsWrapped) {
    EXPECT_TRUE(isWrappable(SecretText(example::kP)));
    EXPECT_FALSE(isWrappable(SecretText(example::kP.substr(1))));
    EXPECT_FALSE(isWrappable(SecretText(example::kP + "0")));
    EXPECT_FALSE(isWrappable(SecretText("A" + example::kP.substr(1))));
    EXPECT_FALSE(isWrappable(SecretText("")));
    try {
        (void)withBox(slotOf(2), exampleRecord().db, secretOf(2), SecretText("a password"));
        ADD_FAILURE() << "not refused";
    } catch (const Failure& failure) {
        EXPECT_EQ(kInvalid, failure.status());
        EXPECT_EQ(std::string::npos, std::string(failure.what()).find("a password"));
    }
}

TEST(UnlockBoxTest, WhatIsRandomDiffers) {
    EXPECT_TRUE(isWrappable(randomP()));
    EXPECT_NE(randomP().view(), randomP().view());
    const DatabaseId db = exampleRecord().db;
    const UnlockSlot one = withBox(slotOf(2), db, secretOf(2), SecretText(example::kP));
    const UnlockSlot other = withBox(slotOf(2), db, secretOf(2), SecretText(example::kP));
    EXPECT_NE(one.nonce, other.nonce);
    EXPECT_NE(one.box, other.box);
    EXPECT_EQ(example::kP, openBox(one, db, secretOf(2)).p.view());
}

}  // namespace
}  // namespace fstore
