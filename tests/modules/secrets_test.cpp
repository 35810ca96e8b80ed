// What passwords, keys and messages leave in memory that is given back: nothing, as
// far as the modules go, and in what the record cipher needs not even in the memory
// of the library below them. Its derivation of PKCS#12 and its encoders and decoders
// of private keys do leave copies of their own, which is out of the modules' reach.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>

#include <openssl/crypto.h>

#include "gtest/gtest.h"
#include "tests/modules/secret_heap.h"
#include "tests/modules/services.h"

namespace {

using support::freedWithMarker;
using support::kMarker;

// The library's memory comes from the heap that is watched. Each block begins with
// its size, which growing it needs.
constexpr std::size_t kPrefix = 16;
bool libraryIsWatched = true;

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    auto* const block = static_cast<unsigned char*>(::operator new(kPrefix + size, std::nothrow));
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(block, &size, sizeof size);
    return block + kPrefix;
}

void release(void* memory, const char* /*file*/, int /*line*/) {
    if (memory == nullptr) {
        return;
    }
    void* const block = static_cast<unsigned char*>(memory) - kPrefix;
    if (libraryIsWatched) {
        ::operator delete(block);
    } else {
        std::free(block);  // what operator delete does, but unseen
    }
}

void* reallocate(void* memory, std::size_t size, const char* file, int line) {
    void* const grown = allocate(size, file, line);
    if (grown != nullptr && memory != nullptr) {
        std::size_t before = 0;
        std::memcpy(&before, static_cast<unsigned char*>(memory) - kPrefix, sizeof before);
        std::memcpy(grown, memory, before < size ? before : size);
        release(memory, file, line);
    }
    return grown;
}

// Possible before the library's first allocation only.
const bool kWatched = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;

// The marker and two bytes: the size of a key. No string of the test's own holds it,
// for strings are not wiped.
constexpr char kSecret[] = "<<-A-SECRET->>..";
constexpr unsigned int kSize = sizeof kSecret - 1;
const unsigned char* secret() {
    return reinterpret_cast<const unsigned char*>(kSecret);
}

void givePassword(mmPBES& pbes) {
    pbes << PBES::kPassword << aBuf(kSecret) << PBES::kSalt << aBuf("salt") << PBES::kIterations
         << 2U << PBES::kKeyLength << 16U << PBES::kSecondAlg << PKI_ALG_AES_GCM;
}

TEST(SecretsTest, NothingIsLeftInMemoryGivenBack) {
    static_assert(kSize == 16);
    ASSERT_TRUE(kWatched);
    ASSERT_NE(nullptr, std::strstr(kSecret, kMarker));
    const struct {
        const char* name;
        bool library;  // it leaves nothing either
        std::function<void()> use;
    } rows[] = {
        {"password", true,
         [] {
             mmPBES pbes(PBES::kPbkdf2);
             givePassword(pbes);
             pbes << PBES::kFirstAlg << PKI_ALG_PBKDF2_HMAC_SHA256;
             EXPECT_NE(nullptr, pbes.getKey().target());
             pbes << PBES::kPassword << aBuf("another, longer than the first one was");
         }},
        {"password of PKCS#12", false,
         [] {
             mmPBES pbes(PBES::kPkcs12);
             givePassword(pbes);
             pbes << PBES::kFirstAlg << PKI_ALG_SHA1;
             EXPECT_NE(nullptr, pbes.getKey().target());
         }},
        {"key and message", true,
         [] {
             const aKey key(TKey::kSymmetric, secret(), kSize);
             const aKey copy(key.target()->duplicate());
             aBuf plain(kSecret);
             aBuf cipher = key.encrypt(plain);
             EXPECT_EQ(kSize, key.decrypt(cipher).len());
             EXPECT_EQ(kSize, copy.getRaw().len());
             mmPBES pbes(PBES::kPbkdf2);
             EXPECT_EQ(kOk, pbes.setKey(key));
             EXPECT_EQ(kSize, pbes.decrypt(pbes.encrypt(plain)).len());
             EXPECT_EQ(kSize, pbes.getKey().getRaw().len());
             // A message that is not proved to be one must not stay either.
             cipher.datap()[cipher.len() - 1] ^= 1;
             EXPECT_EQ(nullptr, pbes.decrypt(cipher).target());
         }},
        {"seed", false,
         [] {
             unsigned char seed[32] = {};
             std::memcpy(seed + 8, kSecret, kSize);
             const aKey key(TKey::kEd25519, seed, sizeof seed);
             EXPECT_EQ(32U, key.getRaw().len());
             EXPECT_LT(32U, key.getKey().len());
             const aBuf encoded = key.getKey();
             const aKey same(TKey::kEd25519, encoded.datap(), encoded.len());
             EXPECT_EQ(32U, same.getRaw().len());
             aBuf message("message");
             EXPECT_EQ(64U, same.sign(message).len());
         }},
        {"scalar", false,
         [] {
             unsigned char scalar[32] = {};
             std::memcpy(scalar + 8, kSecret, kSize);
             const aKey key(TKey::kEcP256, scalar, sizeof scalar);
             EXPECT_EQ(32U, key.getRaw().len());
             const aBuf encoded = key.getKey();
             const aKey same(TKey::kEcP256, encoded.datap(), encoded.len());
             EXPECT_EQ(32U, same.getRaw().len());
             aBuf message("message");
             EXPECT_LT(64U, same.sign(message).len());
         }},
        {"map", true,
         [] {
             aHashMapFull map;
             EXPECT_EQ(kOk, map.add(aBuf(kSecret), aBuf(kSecret)));
             EXPECT_EQ(kSize, map.find(aBuf(kSecret)).len());
             EXPECT_EQ(kOk, map.add(aBuf(kSecret), aBuf("replaced")));
         }},
    };
    const Services services;
    for (const auto& row : rows) {
        const long before = freedWithMarker();
        libraryIsWatched = row.library;
        row.use();
        libraryIsWatched = true;
        EXPECT_EQ(before, freedWithMarker()) << row.name;
    }
}

}  // namespace
