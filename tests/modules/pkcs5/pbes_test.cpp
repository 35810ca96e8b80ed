// Password-based encryption through the proxies and the loaded modules.
#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/modules/reference_gcm.h"
#include "tests/modules/services.h"
#include "tests/modules/vectors.h"

namespace {

using namespace std::string_literals;
using support::fromHex;
using support::toHex;

constexpr unsigned int kOverhead = 29;

struct Scheme {
    PBES::pbes_type type;
    pki_alg_t firstAlg;
};
constexpr Scheme kSchemes[] = {
    {PBES::kPbkdf2, PKI_ALG_PBKDF2_HMAC_SHA256},
    {PBES::kPkcs12, PKI_ALG_SHA1},
    {PBES::kPkcs12, PKI_ALG_SHA256},
};

mmPBES pbesOf(const Scheme& scheme, const std::string& password, const std::string& salt = "",
              unsigned int iterations = 1000, unsigned int keyLength = 16) {
    mmPBES pbes(scheme.type);
    pbes << PBES::kPassword << bufOf(password) << PBES::kSalt << bufOf(salt) << PBES::kIterations
         << iterations << PBES::kKeyLength << keyLength << PBES::kFirstAlg << scheme.firstAlg
         << PBES::kSecondAlg << PKI_ALG_AES_GCM;
    return pbes;
}

// One that encrypts with this very key.
mmPBES pbesWithKey(const std::string& key) {
    mmPBES pbes(PBES::kPbkdf2);
    EXPECT_EQ(kOk,
              pbes.setKey(aKey(TKey::kSymmetric, reinterpret_cast<const unsigned char*>(key.data()),
                               static_cast<unsigned int>(key.size()))));
    return pbes;
}

class PbesTest : public testing::Test {
protected:
    Services services;
};

TEST_F(PbesTest, Pbkdf2GivesThePublishedKeys) {
    for (const support::Vector& vector : support::readVectors("pbkdf2_hmac_sha256.txt")) {
        for (const unsigned int length : {16U, 24U, 32U}) {  // each key begins the longer one
            SCOPED_TRACE(vector.text("password") + ", " + std::to_string(length) + " bytes");
            const mmPBES pbes = pbesOf(kSchemes[0], vector.bytes("password"), vector.bytes("salt"),
                                       vector.number("iterations"), length);
            EXPECT_EQ(vector.text("key").substr(0, 2 * length),
                      toHex(textOf(pbes.getKey().getRaw())));
        }
    }
}

// The parameters that the record cipher gives, and others; the program derives the same.
TEST_F(PbesTest, OpensslDerivesTheSameKeys) {
    const struct {
        const char* name;
        std::string password, salt;
        unsigned int iterations, keyLength;
    } rows[] = {
        {"as a record cipher", "secret", "", 1000, 16},
        {"empty password", "", "", 1000, 16},
        {"empty password, salted", "", "salt", 2, 32},
        {"one iteration", "secret", "salt", 1, 24},
        {"long", std::string(300, 'p'), std::string(300, 's'), 3, 32},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string bmp;  // of a password of plain letters
        for (const char letter : row.password) {
            bmp += '\0';
            bmp += letter;
        }
        bmp += "\0\0"s;
        for (const Scheme& scheme : kSchemes) {
            SCOPED_TRACE(scheme.firstAlg);
            const bool pbkdf2 = scheme.type == PBES::kPbkdf2;
            std::string answer = support::openssl(
                "kdf -keylen " + std::to_string(row.keyLength) +
                " -kdfopt digest:" + (scheme.firstAlg == PKI_ALG_SHA1 ? "SHA1" : "SHA256") +
                " -kdfopt hexpass:" + toHex(pbkdf2 ? row.password : bmp) + " -kdfopt hexsalt:" +
                toHex(row.salt) + " -kdfopt iter:" + std::to_string(row.iterations) +
                (pbkdf2 ? " PBKDF2" : " -kdfopt id:1 PKCS12KDF"));
            std::erase_if(answer, [](char c) { return c == ':' || c == '\n'; });
            const mmPBES pbes =
                pbesOf(scheme, row.password, row.salt, row.iterations, row.keyLength);
            EXPECT_EQ(fromHex(answer), textOf(pbes.getKey().getRaw()));
        }
    }
}

TEST_F(PbesTest, KeyIsSymmetricAndForAesGcm) {
    const aKey key = pbesOf(kSchemes[0], "secret").getKey();
    EXPECT_EQ(TKey::kSymmetric, key.getType());
    EXPECT_EQ(PKI_ALG_AES_GCM, key.getAlg());
    EXPECT_EQ(16U, key.getRaw().len());
}

TEST_F(PbesTest, MakesTheFrameThatIsDefined) {
    for (const support::Vector& vector : support::readVectors("aes_gcm.txt")) {
        SCOPED_TRACE(vector.text("tag"));
        const std::string key = vector.bytes("key");
        const std::string plain = vector.bytes("plain");
        const mmPBES pbes = pbesWithKey(key);

        // What the reference has framed comes out ...
        const std::string framed = support::gcmFrame(key, vector.bytes("nonce"), plain);
        EXPECT_EQ(plain, textOf(pbes.decrypt(bufOf(framed))));

        // ... and ours is the reference's, given the nonce that was chosen.
        const std::string ours = textOf(pbes.encrypt(bufOf(plain)));
        ASSERT_EQ(plain.size() + kOverhead, ours.size());
        EXPECT_EQ(toHex(support::gcmFrame(key, ours.substr(1, 12), plain)), toHex(ours));
    }
}

TEST_F(PbesTest, DecryptsWhatItEncrypted) {
    for (const Scheme& scheme : kSchemes) {
        for (const unsigned int keyLength : {16U, 24U, 32U}) {
            const mmPBES one = pbesOf(scheme, "secret", "salt", 10, keyLength);
            const mmPBES other = pbesOf(scheme, "secret", "salt", 10, keyLength);
            for (const std::size_t size :
                 {0U, 1U, 15U, 16U, 17U, 50U, 2048U, (1U << 20) + 1, 3U << 20}) {
                SCOPED_TRACE(size);
                const std::string plain(size, 'p');
                const aBuf cipher = one.encrypt(bufOf(plain));
                EXPECT_EQ(kOk, one.error());
                EXPECT_EQ(size + kOverhead, cipher.len());
                EXPECT_EQ(plain, textOf(other.decrypt(cipher)));
                EXPECT_EQ(kOk, other.error());
            }
        }
    }
}

TEST_F(PbesTest, NoNonceComesTwice) {
    const mmPBES pbes = pbesWithKey(std::string(16, 'k'));
    std::set<std::string> nonces;
    for (int i = 0; i != 1000; ++i) {
        nonces.insert(textOf(pbes.encrypt(bufOf("p"))).substr(1, 12));
    }
    EXPECT_EQ(1000U, nonces.size());
}

TEST_F(PbesTest, DamageIsNoMessage) {
    const mmPBES pbes = pbesOf(kSchemes[0], "secret");
    const std::string good = textOf(pbes.encrypt(bufOf("message")));
    const struct {
        const char* name;
        std::string frame;
        Status status;
    } rows[] = {
        {"empty", "", kMalformed},
        {"too short by one", good.substr(0, kOverhead - 1), kMalformed},
        {"version 0", "\0"s + good.substr(1), kMalformed},
        {"version 2", "\2"s + good.substr(1), kMalformed},
        {"cut at the end", good.substr(0, good.size() - 1), kIo},
        {"cut to an empty message", good.substr(0, kOverhead), kIo},
        {"a byte more", good + "x", kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ("<none>", textOf(pbes.decrypt(bufOf(row.frame))));
        EXPECT_EQ(row.status, pbes.error());
    }
    for (std::size_t at = 0; at != good.size(); ++at) {
        for (const int bit : {1, 128}) {
            SCOPED_TRACE(at);
            std::string damaged = good;
            damaged[at] = static_cast<char>(damaged[at] ^ bit);
            EXPECT_EQ("<none>", textOf(pbes.decrypt(bufOf(damaged))));
            EXPECT_EQ(at == 0 ? kMalformed : kIo, pbes.error());
        }
    }
    EXPECT_EQ("message", textOf(pbes.decrypt(bufOf(good))));  // it still works after that
}

TEST_F(PbesTest, EveryParameterMattersToTheKey) {
    const std::string frame =
        textOf(pbesOf(kSchemes[0], "secret", "salt", 10, 16).encrypt(bufOf("message")));
    const mmPBES others[] = {
        pbesOf(kSchemes[0], "secreT", "salt", 10, 16),
        pbesOf(kSchemes[0], "secret", "sald", 10, 16),
        pbesOf(kSchemes[0], "secret", "salt", 11, 16),
        pbesOf(kSchemes[0], "secret", "salt", 10, 24),
        pbesOf(kSchemes[1], "secret", "salt", 10, 16),
        pbesOf(kSchemes[0], "secre", "tsalt", 10, 16),
    };
    for (const mmPBES& other : others) {
        EXPECT_EQ("<none>", textOf(other.decrypt(bufOf(frame))));
        EXPECT_EQ(kIo, other.error());
    }
}

TEST_F(PbesTest, RefusesWhatDoesNotFitTheSelector) {
    const struct {
        const char* name;
        PBES::param selector;
        unsigned int number;
        Status status;
    } numbers[] = {
        {"no iteration", PBES::kIterations, 0, kInvalid},
        {"least iterations", PBES::kIterations, 1, kOk},
        {"most iterations", PBES::kIterations, 10'000'000, kOk},
        {"one more", PBES::kIterations, 10'000'001, kInvalid},
        {"all bits", PBES::kIterations, 0xFFFFFFFF, kInvalid},
        {"key of 0", PBES::kKeyLength, 0, kInvalid},
        {"key of 8", PBES::kKeyLength, 8, kInvalid},
        {"key of 16", PBES::kKeyLength, 16, kOk},
        {"key of 17", PBES::kKeyLength, 17, kInvalid},
        {"key of 24", PBES::kKeyLength, 24, kOk},
        {"key of 32", PBES::kKeyLength, 32, kOk},
        {"key of 40", PBES::kKeyLength, 40, kInvalid},
        {"number for a password", PBES::kPassword, 1, kInvalid},
        {"number for an algorithm", PBES::kFirstAlg, PKI_ALG_PBKDF2_HMAC_SHA256, kInvalid},
    };
    for (const auto& row : numbers) {
        SCOPED_TRACE(row.name);
        mmPBES pbes(PBES::kPbkdf2);
        pbes << row.selector << row.number;
        EXPECT_EQ(row.status, pbes.error());
    }
    const struct {
        const char* name;
        PBES::pbes_type type;
        PBES::param selector;
        pki_alg_t alg;
        Status status;
    } algs[] = {
        {"derivation", PBES::kPbkdf2, PBES::kFirstAlg, PKI_ALG_PBKDF2_HMAC_SHA256, kOk},
        {"digest for derivation", PBES::kPbkdf2, PBES::kFirstAlg, PKI_ALG_SHA256, kInvalid},
        {"unknown", PBES::kPbkdf2, PBES::kFirstAlg, static_cast<pki_alg_t>(77), kInvalid},
        {"cipher", PBES::kPbkdf2, PBES::kSecondAlg, PKI_ALG_AES_GCM, kOk},
        {"no cipher", PBES::kPbkdf2, PBES::kSecondAlg, PKI_ALG_NONE, kInvalid},
        {"SHA-1", PBES::kPkcs12, PBES::kFirstAlg, PKI_ALG_SHA1, kOk},
        {"SHA-256", PBES::kPkcs12, PBES::kFirstAlg, PKI_ALG_SHA256, kOk},
        {"other derivation", PBES::kPkcs12, PBES::kFirstAlg, PKI_ALG_PBKDF2_HMAC_SHA256, kInvalid},
        {"algorithm for a number", PBES::kPkcs12, PBES::kKeyLength, PKI_ALG_SHA1, kInvalid},
    };
    for (const auto& row : algs) {
        SCOPED_TRACE(row.name);
        mmPBES pbes(row.type);
        pbes << row.selector << row.alg;
        EXPECT_EQ(row.status, pbes.error());
    }
    mmPBES pbes(PBES::kPbkdf2);
    pbes << 1U;
    EXPECT_EQ(kInvalid, pbes.error()) << "a value without selector";
    for (const unsigned int selector : {0U, 7U, 0xFFFFFFFFU}) {
        pbes << static_cast<PBES::param>(selector);
        EXPECT_EQ(kInvalid, pbes.error());
    }
    pbes << PBES::kIterations << bufOf("1");
    EXPECT_EQ(kInvalid, pbes.error()) << "bytes for a number";
    pbes << PBES::kPassword << aBuf(static_cast<TBuf*>(nullptr));
    EXPECT_EQ(kInvalid, pbes.error()) << "no bytes at all";
    pbes << PBES::kPassword << bufOf(std::string((1U << 20) + 1, 'p'));
    EXPECT_EQ(kInvalid, pbes.error()) << "too long a password";
    pbes << PBES::kPassword << bufOf(std::string(1U << 20, 'p'));
    EXPECT_EQ(kOk, pbes.error()) << "the longest password";
}

// Whoever does not look at each status must not get a key that he did not ask for.
TEST_F(PbesTest, RefusedParameterMakesNoKeyUntilItIsTaken) {
    mmPBES pbes = pbesOf(kSchemes[0], "secret");
    const std::string key = textOf(pbes.getKey().getRaw());
    const std::string frame = textOf(pbes.encrypt(bufOf("message")));
    const auto makesNoKey = [&](const char* what) {
        EXPECT_EQ(nullptr, pbes.getKey().target()) << what;
        EXPECT_EQ(kInvalid, pbes.error()) << what;
        EXPECT_EQ("<none>", textOf(pbes.encrypt(bufOf("message")))) << what;
        EXPECT_EQ("<none>", textOf(pbes.decrypt(bufOf(frame)))) << what;
    };
    pbes << PBES::kIterations << 0U;
    makesNoKey("a number out of range");
    pbes << PBES::kSalt << bufOf("other");
    makesNoKey("a number out of range, and another parameter");
    pbes << PBES::kIterations << 1000U << PBES::kSalt << bufOf("");
    EXPECT_EQ(key, textOf(pbes.getKey().getRaw()));
    pbes << PBES::kPassword << aBuf(static_cast<TBuf*>(nullptr));
    makesNoKey("no buffer");
    pbes << PBES::kPassword << bufOf("secret");
    EXPECT_EQ(key, textOf(pbes.getKey().getRaw()));
    pbes << static_cast<PBES::param>(7) << bufOf("for nobody");
    makesNoKey("an unknown selector");
    pbes << PBES::kPassword << bufOf("secret");
    makesNoKey("an unknown selector, whatever follows");
}

TEST_F(PbesTest, UnknownNumbersAreInvalid) {
    for (const PBES::pbes_type scheme : {PBES::kPbkdf2, PBES::kPkcs12}) {
        const mmPBES pbes(scheme);
        for (const unsigned int selector : {0U, 7U, 0xFFFFFFFFU}) {
            EXPECT_EQ(kInvalid, pbes.target()->select(static_cast<PBES::param>(selector)));
            EXPECT_EQ(kInvalid, pbes.error());
        }
        for (const PBES::param selector : {PBES::kFirstAlg, PBES::kSecondAlg}) {
            EXPECT_EQ(kOk, pbes.target()->select(selector));
            EXPECT_EQ(kInvalid, pbes.target()->supply(static_cast<pki_alg_t>(77)));
            EXPECT_EQ(kInvalid, pbes.error());
        }
        for (const unsigned int name : {4U, 0xFFFFFFFFU}) {
            const auto unknown = static_cast<PKCS5_Interface::objectName_t>(name);
            EXPECT_EQ(nullptr, pkcs5srv.createObject(unknown));
            EXPECT_EQ(kInvalid, pbes.error());
        }
    }
}

TEST_F(PbesTest, ValueAfterAnUnknownSelectorIsNotForTheOneBefore) {
    mmPBES pbes(PBES::kPbkdf2);
    pbes << PBES::kIterations << static_cast<PBES::param>(0) << 5U;
    EXPECT_EQ(kInvalid, pbes.error());
}

TEST_F(PbesTest, MissingParameterMakesNoKey) {
    for (const PBES::param missing : {PBES::kPassword, PBES::kSalt, PBES::kIterations,
                                      PBES::kKeyLength, PBES::kFirstAlg, PBES::kSecondAlg}) {
        SCOPED_TRACE(missing);
        mmPBES pbes(PBES::kPbkdf2);
        const auto wanted = [&](PBES::param selector) {
            pbes << selector;
            return selector != missing;
        };
        if (wanted(PBES::kPassword)) {
            pbes << bufOf("");
        }
        if (wanted(PBES::kSalt)) {
            pbes << bufOf("");
        }
        if (wanted(PBES::kIterations)) {
            pbes << 1U;
        }
        if (wanted(PBES::kKeyLength)) {
            pbes << 16U;
        }
        if (wanted(PBES::kFirstAlg)) {
            pbes << PKI_ALG_PBKDF2_HMAC_SHA256;
        }
        if (wanted(PBES::kSecondAlg)) {
            pbes << PKI_ALG_AES_GCM;
        }
        EXPECT_EQ(nullptr, pbes.getKey().target());
        EXPECT_EQ(kInvalid, pbes.error());
        EXPECT_EQ("<none>", textOf(pbes.encrypt(bufOf("message"))));
        EXPECT_EQ(kInvalid, pbes.error());
        EXPECT_EQ("<none>", textOf(pbes.decrypt(bufOf(std::string(50, '\1')))));
        EXPECT_EQ(kInvalid, pbes.error());
    }
}

TEST_F(PbesTest, NewParameterDropsTheKey) {
    mmPBES pbes = pbesOf(kSchemes[0], "secret");
    const std::string first = textOf(pbes.getKey().getRaw());
    pbes << PBES::kPassword << bufOf("another");
    EXPECT_NE(first, textOf(pbes.getKey().getRaw()));
    pbes << PBES::kPassword << bufOf("secret");
    EXPECT_EQ(first, textOf(pbes.getKey().getRaw()));
}

TEST_F(PbesTest, EncryptsWithoutBeingAskedForTheKeyFirst) {
    const aBuf cipher = pbesOf(kSchemes[0], "secret").encrypt(bufOf("message"));
    EXPECT_EQ("message", textOf(pbesOf(kSchemes[0], "secret").decrypt(cipher)));
}

TEST_F(PbesTest, UsesTheKeyThatIsSet) {
    mmPBES pbes(PBES::kPbkdf2);
    const struct {
        const char* name;
        aKey key;
        Status status;
    } rows[] = {
        {"no key", aKey(static_cast<TKey*>(nullptr)), kInvalid},
        {"key of no type", aKey(TKey::kNone), kInvalid},
        {"key of another type", aKey(TKey::kEd25519), kInvalid},
        {"key without value", aKey(TKey::kSymmetric), kEnd},
        {"key of a wrong size",
         aKey(TKey::kSymmetric, reinterpret_cast<const unsigned char*>("12345"), 5), kInvalid},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.status, pbes.setKey(row.key));
        EXPECT_EQ("<none>", textOf(pbes.encrypt(bufOf("message"))));
    }
    const std::string bytes(32, 'k');
    const mmPBES keyed = pbesWithKey(bytes);
    EXPECT_EQ(bytes, textOf(keyed.getKey().getRaw()));
    EXPECT_EQ("message", textOf(pbesWithKey(bytes).decrypt(keyed.encrypt(bufOf("message")))));
}

TEST_F(PbesTest, NullBuffersAreInvalid) {
    const mmPBES pbes = pbesOf(kSchemes[0], "secret");
    EXPECT_EQ("<none>", textOf(pbes.encrypt(aBuf(static_cast<TBuf*>(nullptr)))));
    EXPECT_EQ(kInvalid, pbes.error());
    EXPECT_EQ("<none>", textOf(pbes.decrypt(aBuf(static_cast<TBuf*>(nullptr)))));
    EXPECT_EQ(kInvalid, pbes.error());
}

TEST_F(PbesTest, EachThreadHasItsOwnError) {
    const mmPBES pbes = pbesOf(kSchemes[0], "secret");
    EXPECT_EQ("<none>", textOf(pbes.decrypt(bufOf("damaged"))));
    std::thread([&] {
        EXPECT_EQ("message", textOf(pbes.decrypt(pbes.encrypt(bufOf("message")))));
        EXPECT_EQ(kOk, pbes.error());
    }).join();
    EXPECT_EQ(kMalformed, pbes.error());
}

// One object, whose key nobody has asked for yet.
TEST_F(PbesTest, ManyThreadsUseOneObject) {
    const mmPBES pbes = pbesOf(kSchemes[0], "secret");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i != 8; ++i) {
        threads.emplace_back([&, i] {
            for (std::size_t round = 0; round != 200; ++round) {
                const std::string plain(round * 7 % 3000, static_cast<char>('a' + i));
                aBuf cipher = pbes.encrypt(bufOf(plain));
                if (textOf(pbes.decrypt(cipher)) != plain || pbes.error() != kOk) {
                    ++wrong;
                }
                cipher.datap()[cipher.len() - 1] ^= 1;
                if (pbes.decrypt(cipher).target() != nullptr || pbes.error() != kIo) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong.load());
}

TEST(PbesFailureTest, MissingServicesAreToldApart) {
    Services services;
    mmPBES pbes = pbesOf(kSchemes[0], "secret");
    // The PKCS#5 service has not asked for keys yet; buffers it has, or not.
    services.host.withdraw(0x3f0008);
    EXPECT_EQ(nullptr, pbes.getKey().target());
    EXPECT_EQ(kNoObject, pbes.error());
}

}  // namespace
