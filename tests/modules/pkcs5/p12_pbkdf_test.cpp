// Key derivation of PKCS#12 through the proxies and the loaded modules.
#include <map>
#include <string>

#include "gtest/gtest.h"
#include "tests/modules/services.h"
#include "tests/modules/vectors.h"

namespace {

using support::toHex;

mmP12PBKDF kdfOf(const std::string& password, const std::string& salt, unsigned int iterations,
                 unsigned int length, pki_alg_t digest = PKI_ALG_SHA1) {
    mmP12PBKDF kdf;
    kdf << PBES::kPassword << bufOf(password) << PBES::kSalt << bufOf(salt) << PBES::kIterations
        << iterations << PBES::kKeyLength << length << PBES::kFirstAlg << digest;
    return kdf;
}

// A map that tells what it was asked.
class WatchedMap final : public HashMap {
public:
    WatchedMap() : HashMap(0) {}
    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    Status add(TBuf* key, TBuf* value) override {
        ++adds;
        values[textOf(aBuf(key))] = textOf(aBuf(value));
        return addStatus;
    }
    TBuf* find(TBuf* key) override {
        ++finds;
        const auto found = values.find(textOf(aBuf(key)));
        return found == values.end()
                   ? nullptr
                   : createTBuf(reinterpret_cast<const unsigned char*>(found->second.data()),
                                static_cast<unsigned int>(found->second.size()));
    }

    std::map<std::string, std::string> values;
    int adds = 0;
    int finds = 0;
    Status addStatus = kOk;
};

class P12PbkdfTest : public testing::Test {
protected:
    Services services;
};

TEST_F(P12PbkdfTest, GivesThePublishedKeys) {
    for (const support::Vector& vector : support::readVectors("pkcs12_kdf_sha1.txt")) {
        SCOPED_TRACE(vector.text("key"));
        const auto length = static_cast<unsigned int>(vector.bytes("key").size());
        const mmP12PBKDF kdf = kdfOf(vector.text("password"), vector.bytes("salt"),
                                     vector.number("iterations"), length);
        const aKey key = kdf.getKey(static_cast<P12PBKDF::target>(vector.number("purpose")));
        EXPECT_EQ(kOk, kdf.error());
        EXPECT_EQ(vector.text("key"), toHex(textOf(key.getRaw())));
    }
}

// Umlauts are two bytes each, a code point beyond the BMP two units.
TEST_F(P12PbkdfTest, PasswordIsTakenAsBmpString) {
    const struct {
        const char* name;
        std::string password, bmp;
    } rows[] = {
        {"empty", "", "0000"},
        {"ASCII", "ab", "006100620000"},
        {"umlaut", "\xc3\xa4", "00e40000"},
        {"beyond the BMP", "\xf0\x9f\x94\x91", "d83ddd110000"},
        {"no UTF-8", "\xe4", "00e40000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string answer =
            support::openssl("kdf -keylen 32 -kdfopt digest:SHA256 -kdfopt hexpass:" + row.bmp +
                             " -kdfopt hexsalt:0102 -kdfopt iter:5 -kdfopt id:3 PKCS12KDF");
        std::erase_if(answer, [](char c) { return c == ':' || c == '\n'; });
        const mmP12PBKDF kdf = kdfOf(row.password, "\1\2", 5, 32, PKI_ALG_SHA256);
        EXPECT_EQ(support::fromHex(answer), textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    }
}

TEST_F(P12PbkdfTest, RefusesWhatItCannotTake) {
    mmP12PBKDF kdf = kdfOf("secret", "salt", 2, 16);
    for (const unsigned int purpose : {0U, 4U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nullptr, kdf.getKey(static_cast<P12PBKDF::target>(purpose)).target());
        EXPECT_EQ(kInvalid, kdf.error());
    }
    for (const unsigned int length : {0U, 65U}) {
        kdf << PBES::kKeyLength << length;
        EXPECT_EQ(kInvalid, kdf.error());
    }
    kdf << PBES::kFirstAlg << PKI_ALG_PBKDF2_HMAC_SHA256;
    EXPECT_EQ(kInvalid, kdf.error());
    kdf << PBES::kSalt << aBuf(static_cast<TBuf*>(nullptr));
    EXPECT_EQ(kInvalid, kdf.error());
    EXPECT_EQ(nullptr, kdf.getKey(P12PBKDF::kEncryptionKey).target());
    EXPECT_EQ(kInvalid, kdf.error()) << "nor a key without what it refused";
    kdf << PBES::kKeyLength << 16U << PBES::kFirstAlg << PKI_ALG_SHA1 << PBES::kSalt
        << bufOf("salt");
    EXPECT_EQ(16U, kdf.getKey(P12PBKDF::kEncryptionKey).getRaw().len());
    kdf << PBES::kSecondAlg << PKI_ALG_AES_GCM;
    EXPECT_EQ(kInvalid, kdf.error()) << "it encrypts nothing";
    EXPECT_EQ(nullptr, kdf.getKey(P12PBKDF::kEncryptionKey).target());

    EXPECT_EQ(nullptr, mmP12PBKDF().getKey(P12PBKDF::kEncryptionKey).target());
    EXPECT_EQ(kInvalid, kdf.error()) << "no parameters";
}

TEST_F(P12PbkdfTest, UnknownNumbersAreInvalid) {
    mmP12PBKDF kdf = kdfOf("secret", "salt", 2, 16);
    ASSERT_EQ(kOk, kdf.setHashMap(aHashMap()));
    for (const unsigned int purpose : {0U, 4U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nullptr, kdf.getKey(static_cast<P12PBKDF::target>(purpose)).target());
        EXPECT_EQ(kInvalid, kdf.error());
    }
    EXPECT_EQ(kInvalid, kdf.target()->supply(static_cast<pki_alg_t>(77)));
    for (const unsigned int selector : {0U, 6U, 7U, 0xFFFFFFFFU}) {
        const mmP12PBKDF fresh;
        EXPECT_EQ(kInvalid, fresh.target()->select(static_cast<PBES::param>(selector)));
        EXPECT_EQ(kInvalid, fresh.error());
    }
}

TEST_F(P12PbkdfTest, MapSavesDerivations) {
    const CMN_GRefPtr<WatchedMap> map(new WatchedMap);
    mmP12PBKDF kdf = kdfOf("secret", "salt", 2, 16);
    const std::string plain = textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw());
    ASSERT_EQ(kOk, kdf.setHashMap(aHashMap(map.get())));

    EXPECT_EQ(plain, textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    EXPECT_EQ(1, map.get()->adds);
    EXPECT_EQ(plain, textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    EXPECT_EQ(1, map.get()->adds);
    EXPECT_EQ(2, map.get()->finds);

    // What stands in the map is what is given.
    map.get()->values.begin()->second = std::string(16, 'm');
    EXPECT_EQ(std::string(16, 'm'), textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    // A value that cannot be a key of that length is not.
    map.get()->values.begin()->second = "short";
    EXPECT_EQ(plain, textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    EXPECT_EQ(2, map.get()->adds);

    for (const auto& [name, value] : map.get()->values) {
        EXPECT_EQ(std::string::npos, name.find("secret"));
    }
    EXPECT_EQ(kOk, kdf.setHashMap(aHashMap(static_cast<HashMap*>(nullptr))));
    EXPECT_EQ(plain, textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    EXPECT_EQ(2, map.get()->adds);
}

TEST_F(P12PbkdfTest, MapKeepsDerivationsApart) {
    const CMN_GRefPtr<WatchedMap> map(new WatchedMap);
    const auto derive = [&](mmP12PBKDF kdf, P12PBKDF::target purpose = P12PBKDF::kMacKey) {
        EXPECT_EQ(kOk, kdf.setHashMap(aHashMap(map.get())));
        EXPECT_NE(nullptr, kdf.getKey(purpose).target());
    };
    derive(kdfOf("secret", "salt", 2, 16));
    derive(kdfOf("secrets", "alt", 2, 16));
    derive(kdfOf("secret", "sald", 2, 16));
    derive(kdfOf("secret", "salt", 3, 16));
    derive(kdfOf("secret", "salt", 2, 17));
    derive(kdfOf("secret", "salt", 2, 16, PKI_ALG_SHA256));
    derive(kdfOf("secret", "salt", 2, 16), P12PBKDF::kInitialVector);
    EXPECT_EQ(7U, map.get()->values.size());
}

TEST_F(P12PbkdfTest, MapThatFailsCostsNoKey) {
    const CMN_GRefPtr<WatchedMap> map(new WatchedMap);
    map.get()->addStatus = kNoMemory;
    mmP12PBKDF kdf = kdfOf("secret", "salt", 2, 16);
    const std::string plain = textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw());
    ASSERT_EQ(kOk, kdf.setHashMap(aHashMap(map.get())));
    EXPECT_EQ(plain, textOf(kdf.getKey(P12PBKDF::kMacKey).getRaw()));
    EXPECT_EQ(kOk, kdf.error());
}

TEST_F(P12PbkdfTest, WorksWithTheServicesOwnMap) {
    const aHashMap map;
    for (int round = 0; round != 2; ++round) {
        mmP12PBKDF kdf = kdfOf("smeg", support::fromHex("0a58cf64530d823f"), 1, 8);
        ASSERT_EQ(kOk, kdf.setHashMap(map));
        EXPECT_EQ("79993dfe048d3b76", toHex(textOf(kdf.getKey(P12PBKDF::kInitialVector).getRaw())));
    }
}

}  // namespace
