// Key objects through the proxies and the loaded modules, with the openssl program
// as the other side.
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/modules/reference_gcm.h"
#include "tests/modules/services.h"
#include "tests/modules/vectors.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace std::string_literals;
using support::fromHex;
using support::openssl;
using support::toHex;
using support::Vector;

struct Kind {
    const char* name;
    TKey::key_type_t type;
    pki_alg_t alg;
    const char* generate;  // for `openssl genpkey`
    int bits;
    int outputSize;
};
constexpr Kind kKinds[] = {
    {"RSA", TKey::kRsa, PKI_ALG_RSA, "-algorithm RSA -pkeyopt rsa_keygen_bits:2048", 2048, 256},
    {"P-256", TKey::kEcP256, PKI_ALG_EC_P256, "-algorithm EC -pkeyopt ec_paramgen_curve:P-256", 256,
     72},
    {"P-384", TKey::kEcP384, PKI_ALG_EC_P384, "-algorithm EC -pkeyopt ec_paramgen_curve:P-384", 384,
     104},
    {"P-521", TKey::kEcP521, PKI_ALG_EC_P521, "-algorithm EC -pkeyopt ec_paramgen_curve:P-521", 521,
     139},
    {"Ed25519", TKey::kEd25519, PKI_ALG_ED25519, "-algorithm ED25519", 256, 64},
};

aKey keyOf(TKey::key_type_t type, const std::string& bytes) {
    return aKey(type, reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<unsigned int>(bytes.size()));
}

Status verify(const aKey& key, const std::string& data, const std::string& signature) {
    aBuf message = bufOf(data);
    aBuf proof = bufOf(signature);
    return key.verify(message, proof);
}

std::string sign(const aKey& key, const std::string& data) {
    aBuf message = bufOf(data);
    return textOf(key.sign(message));
}

std::string encrypt(const aKey& key, const std::string& plain) {
    aBuf in = bufOf(plain);
    return textOf(key.encrypt(in));
}

std::string decrypt(const aKey& key, const std::string& cipher) {
    aBuf in = bufOf(cipher);
    return textOf(key.decrypt(in));
}

Status setParam(aKey& key, TKey::aka_t which, const std::string& bytes) {
    aBuf value = bufOf(bytes);
    return key.setParam(which, value);
}

// A key pair that the openssl program made, in files of a folder of its own.
class Pair {
public:
    explicit Pair(const std::string& generate) {
        openssl("genpkey " + generate + " -out " + path("pem") + " 2>/dev/null");
        openssl("pkcs8 -topk8 -nocrypt -in " + path("pem") + " -outform DER -out " +
                path("private"));
        openssl("pkey -inform DER -in " + path("private") + " -pubout -outform DER -out " +
                path("public"));
    }

    std::string path(const std::string& name) const { return dir_ / name; }
    std::string pkcs8() const { return support::readFile(path("private")); }
    std::string spki() const { return support::readFile(path("public")); }

    // Writes a file for the program to read, and reads what it wrote.
    std::string put(const std::string& name, const std::string& bytes) const {
        support::writeFile(path(name), bytes);
        return path(name);
    }
    std::string get(const std::string& name) const { return support::readFile(path(name)); }

private:
    support::TempDir dir_;
};

aKey publicOf(TKey::key_type_t type, const std::string& spki) {
    aKey key(type);
    EXPECT_EQ(kOk, setParam(key, TKey::kPublicKeyInfo, spki));
    return key;
}

class KeyTest : public testing::Test {
protected:
    Services services;
};

TEST_F(KeyTest, Ed25519GivesThePublishedSignatures) {
    for (const Vector& vector : support::readVectors("ed25519.txt")) {
        SCOPED_TRACE(vector.text("message"));
        const aKey key = keyOf(TKey::kEd25519, vector.bytes("secret"));
        EXPECT_EQ(vector.text("public"), toHex(textOf(key.getParam(TKey::kPublicPoint))));
        EXPECT_EQ(vector.text("signature"), toHex(sign(key, vector.bytes("message"))));

        const aKey pub = publicOf(TKey::kEd25519, textOf(key.getParam(TKey::kPublicKeyInfo)));
        EXPECT_EQ(vector.text("public"), toHex(textOf(pub.getRaw())));
        EXPECT_EQ(kOk, verify(pub, vector.bytes("message"), vector.bytes("signature")));
        EXPECT_EQ(kIo, verify(pub, vector.bytes("message") + "x", vector.bytes("signature")));
    }
}

std::string derNumber(std::string bytes) {
    bytes.erase(0, std::min(bytes.find_first_not_of('\0'), bytes.size() - 1));
    if ((bytes[0] & 0x80) != 0) {
        bytes.insert(0, 1, '\0');
    }
    return "\x02"s + static_cast<char>(bytes.size()) + bytes;
}

std::string derSignature(const std::string& r, const std::string& s) {
    const std::string both = derNumber(r) + derNumber(s);
    const std::string size(1, static_cast<char>(both.size()));
    return "\x30"s + (both.size() < 128 ? size : "\x81" + size) + both;
}

TEST_F(KeyTest, EcVerifiesThePublishedSignatures) {
    for (const Vector& vector : support::readVectors("ecdsa.txt")) {
        const std::string curve = vector.text("curve");
        SCOPED_TRACE(curve);
        const TKey::key_type_t type = curve == "P-256"   ? TKey::kEcP256
                                      : curve == "P-384" ? TKey::kEcP384
                                                         : TKey::kEcP521;
        const std::string point = "\4" + vector.bytes("x") + vector.bytes("y");
        const aKey key = keyOf(type, vector.bytes("secret"));
        EXPECT_EQ(toHex(point), toHex(textOf(key.getParam(TKey::kPublicPoint))));
        EXPECT_EQ(vector.text("secret"), toHex(textOf(key.getRaw())));
        EXPECT_EQ(curve, textOf(key.getParam(TKey::kCurveName)));
        EXPECT_EQ(1, key.getParam(TKey::kIsPrivate));

        const aKey pub = keyOf(type, point);
        EXPECT_EQ(0, pub.getParam(TKey::kIsPrivate));
        EXPECT_EQ(toHex(point), toHex(textOf(pub.getRaw())));
        const std::string signature = derSignature(vector.bytes("r"), vector.bytes("s"));
        EXPECT_EQ(kOk, verify(pub, vector.bytes("message"), signature));
        EXPECT_EQ(kIo, verify(pub, "another", signature));
        EXPECT_EQ(kOk, verify(pub, "message", sign(key, "message")));
    }
}

TEST_F(KeyTest, FormsAreThoseOfOpenssl) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        const Pair pair(kind.generate);
        const aKey key = keyOf(kind.type, pair.pkcs8());
        ASSERT_EQ(kOk, key.error());
        EXPECT_EQ(kind.type, key.getType());
        EXPECT_EQ(kind.alg, key.getAlg());
        EXPECT_EQ(kind.bits, key.getParam(TKey::kBits));
        EXPECT_EQ(kind.outputSize, key.getParam(TKey::kOutputSize));
        EXPECT_EQ(1, key.getParam(TKey::kIsPrivate));
        EXPECT_EQ(pair.pkcs8(), textOf(key.getKey()));
        EXPECT_EQ(pair.pkcs8(), textOf(key.getParam(TKey::kPrivateKeyInfo)));
        EXPECT_EQ(pair.spki(), textOf(key.getParam(TKey::kPublicKeyInfo)));

        const aKey pub = publicOf(kind.type, pair.spki());
        EXPECT_EQ(0, pub.getParam(TKey::kIsPrivate));
        EXPECT_EQ(pair.spki(), textOf(pub.getKey()));
        EXPECT_EQ("<none>", textOf(pub.getParam(TKey::kPrivateKeyInfo)));
        EXPECT_EQ(kEnd, pub.error());
        EXPECT_EQ(pair.spki(), textOf(keyOf(kind.type, pair.spki()).getKey()));

        // The raw form is the same key again.
        EXPECT_EQ(pair.pkcs8(), textOf(keyOf(kind.type, textOf(key.getRaw())).getKey()));
        if (kind.type != TKey::kEd25519) {  // whose raw public key reads as a seed
            EXPECT_EQ(pair.spki(), textOf(keyOf(kind.type, textOf(pub.getRaw())).getKey()));
        }
    }
}

TEST_F(KeyTest, RsaPartsAreThoseOfOpenssl) {
    const Pair pair(kKinds[0].generate);
    const aKey key = keyOf(TKey::kRsa, pair.pkcs8());
    openssl("rsa -inform DER -in " + pair.path("private") + " -traditional -outform DER -out " +
            pair.path("raw") + " 2>/dev/null");
    openssl("rsa -inform DER -in " + pair.path("private") +
            " -RSAPublicKey_out -outform DER -out " + pair.path("rawpub") + " 2>/dev/null");
    EXPECT_EQ(pair.get("raw"), textOf(key.getRaw()));
    EXPECT_EQ(pair.get("rawpub"), textOf(publicOf(TKey::kRsa, pair.spki()).getRaw()));
    std::string modulus =
        openssl("rsa -inform DER -in " + pair.path("private") + " -noout -modulus");
    modulus = modulus.substr(modulus.find('=') + 1, 512);
    EXPECT_EQ(fromHex(modulus), textOf(key.getParam(TKey::kModulus)));
    EXPECT_EQ("\1\0\1"s, textOf(key.getParam(TKey::kPublicExponent)));
    for (const TKey::aka_t which : {TKey::kPublicPoint, TKey::kCurveName}) {
        EXPECT_EQ("<none>", textOf(key.getParam(which)));
        EXPECT_EQ(kEnd, key.error());
    }
}

TEST_F(KeyTest, SignaturesGoBothWays) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        const Pair pair(kind.generate);
        const aKey key = keyOf(kind.type, pair.pkcs8());
        const aKey pub = publicOf(kind.type, pair.spki());
        const std::string message = "a message of some length";
        const std::string data = pair.put("data", message);
        // Ed25519 signs the message itself, the others its digest.
        const std::string digest = kind.type == TKey::kEcP384   ? "-sha384"
                                   : kind.type == TKey::kEcP521 ? "-sha512"
                                                                : "-sha256";
        const bool raw = kind.type == TKey::kEd25519;

        const std::string ours = pair.put("ours", sign(key, message));
        EXPECT_NE(std::string::npos,
                  openssl(raw ? "pkeyutl -verify -rawin -pubin -keyform DER -inkey " +
                                    pair.path("public") + " -in " + data + " -sigfile " + ours
                              : "dgst " + digest + " -keyform DER -verify " + pair.path("public") +
                                    " -signature " + ours + " " + data)
                      .find(raw ? "Verified Successfully" : "Verified OK"));
        openssl(raw ? "pkeyutl -sign -rawin -keyform DER -inkey " + pair.path("private") + " -in " +
                          data + " -out " + pair.path("theirs")
                    : "dgst " + digest + " -keyform DER -sign " + pair.path("private") + " -out " +
                          pair.path("theirs") + " " + data);
        std::string theirs = pair.get("theirs");
        EXPECT_EQ(kOk, verify(pub, message, theirs));
        EXPECT_EQ(kOk, verify(key, message, theirs));
        EXPECT_EQ(kIo, verify(pub, message + "!", theirs));
        theirs.back() = static_cast<char>(theirs.back() ^ 1);
        EXPECT_EQ(kIo, verify(pub, message, theirs));
        EXPECT_EQ(kIo, verify(pub, message, ""));
        EXPECT_EQ(kOk, verify(pub, "", sign(key, "")));

        EXPECT_EQ("<none>", sign(pub, message));
        EXPECT_EQ(kInvalid, pub.error());
    }
}

TEST_F(KeyTest, RsaEncryptsForOpensslAndBack) {
    const Pair pair(kKinds[0].generate);
    const aKey key = keyOf(TKey::kRsa, pair.pkcs8());
    const aKey pub = publicOf(TKey::kRsa, pair.spki());
    const std::string oaep = " -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256 ";
    for (const std::string& plain : {"a"s, std::string(190, 'p')}) {
        pair.put("cipher", encrypt(pub, plain));
        openssl("pkeyutl -decrypt -keyform DER -inkey " + pair.path("private") + oaep + "-in " +
                pair.path("cipher") + " -out " + pair.path("plain"));
        EXPECT_EQ(plain, pair.get("plain"));
        openssl("pkeyutl -encrypt -pubin -keyform DER -inkey " + pair.path("public") + oaep +
                "-in " + pair.path("plain") + " -out " + pair.path("theirs"));
        EXPECT_EQ(plain, decrypt(key, pair.get("theirs")));
    }
    EXPECT_EQ("", decrypt(key, encrypt(pub, "")));
    EXPECT_EQ("<none>", encrypt(pub, std::string(191, 'p')));
    EXPECT_EQ(kInvalid, pub.error());
    std::string damaged = pair.get("theirs");
    damaged[100] = static_cast<char>(damaged[100] ^ 1);
    EXPECT_EQ("<none>", decrypt(key, damaged));
    EXPECT_EQ(kIo, key.error());
    EXPECT_EQ("<none>", decrypt(pub, pair.get("theirs")));
    EXPECT_EQ(kInvalid, pub.error());
}

TEST_F(KeyTest, SymmetricKeyFramesMessages) {
    for (const Vector& vector : support::readVectors("aes_gcm.txt")) {
        SCOPED_TRACE(vector.text("tag"));
        const std::string bytes = vector.bytes("key");
        const std::string plain = vector.bytes("plain");
        const aKey key = keyOf(TKey::kSymmetric, bytes);
        EXPECT_EQ(PKI_ALG_AES_GCM, key.getAlg());
        EXPECT_EQ(bytes, textOf(key.getKey()));
        EXPECT_EQ(bytes, textOf(key.getRaw()));
        EXPECT_EQ(static_cast<int>(bytes.size() * 8), key.getParam(TKey::kBits));
        EXPECT_EQ(1, key.getParam(TKey::kIsPrivate));
        EXPECT_EQ(-1, key.getParam(TKey::kOutputSize));
        EXPECT_EQ(kEnd, key.error());
        EXPECT_EQ(plain, decrypt(key, support::gcmFrame(bytes, vector.bytes("nonce"), plain)));
        const std::string ours = encrypt(key, plain);
        EXPECT_EQ(support::gcmFrame(bytes, ours.substr(1, 12), plain), ours);
    }
    const aKey key = keyOf(TKey::kSymmetric, std::string(16, 'k'));
    EXPECT_EQ("<none>", decrypt(key, "short"));
    EXPECT_EQ(kMalformed, key.error());
    EXPECT_EQ("<none>", decrypt(key, std::string(40, '\1')));
    EXPECT_EQ(kIo, key.error());
}

TEST_F(KeyTest, KeysCannotDoWhatTheirKindCannot) {
    const aKey symmetric = keyOf(TKey::kSymmetric, "of seventeen byte");
    const aKey ec = keyOf(TKey::kEcP256, std::string(32, '\1'));
    const aKey empty(TKey::kRsa);
    const struct {
        const char* name;
        std::function<std::string()> call;
        const aKey& key;
        Status status;
    } rows[] = {
        {"symmetric signs", [&] { return sign(symmetric, "x"); }, symmetric, kInvalid},
        {"no AES key encrypts", [&] { return encrypt(symmetric, "x"); }, symmetric, kInvalid},
        {"no AES key decrypts", [&] { return decrypt(symmetric, "x"); }, symmetric, kInvalid},
        {"symmetric has no modulus", [&] { return textOf(symmetric.getParam(TKey::kModulus)); },
         symmetric, kEnd},
        {"symmetric has no identifier", [&] { return textOf(symmetric.getKeyId()); }, symmetric,
         kEnd},
        {"EC encrypts", [&] { return encrypt(ec, "x"); }, ec, kInvalid},
        {"EC decrypts", [&] { return decrypt(ec, "x"); }, ec, kInvalid},
        {"EC has no modulus", [&] { return textOf(ec.getParam(TKey::kModulus)); }, ec, kEnd},
        {"unknown parameter", [&] { return textOf(ec.getParam(static_cast<TKey::aka_t>(99))); }, ec,
         kInvalid},
        {"no value to sign with", [&] { return sign(empty, "x"); }, empty, kEnd},
        {"no value to encrypt with", [&] { return encrypt(empty, "x"); }, empty, kEnd},
        {"no value to give", [&] { return textOf(empty.getKey()); }, empty, kEnd},
        {"no raw value to give", [&] { return textOf(empty.getRaw()); }, empty, kEnd},
        {"no value to name", [&] { return textOf(empty.getKeyId()); }, empty, kEnd},
        {"no value with parts", [&] { return textOf(empty.getParam(TKey::kModulus)); }, empty,
         kEnd},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ("<none>", row.call());
        EXPECT_EQ(row.status, row.key.error());
    }
    EXPECT_EQ(kInvalid, verify(symmetric, "x", "y"));
    EXPECT_EQ(kEnd, verify(empty, "x", "y"));
    EXPECT_EQ(-1, empty.getParam(TKey::kBits));
    EXPECT_EQ(kEnd, empty.error());
    EXPECT_EQ(-1, ec.getParam(static_cast<TKey::bka_t>(99)));
}

TEST_F(KeyTest, MalformedBytesAreNoKey) {
    const Pair rsa(kKinds[0].generate);
    const Pair ec(kKinds[1].generate);
    const Pair weak("-algorithm RSA -pkeyopt rsa_keygen_bits:512");
    const Pair koblitz("-algorithm EC -pkeyopt ec_paramgen_curve:secp256k1");
    const Pair spelt(
        "-algorithm EC -pkeyopt ec_paramgen_curve:P-256 -pkeyopt ec_param_enc:explicit");
    openssl("pkcs8 -topk8 -inform DER -in " + ec.path("private") + " -outform DER -out " +
            ec.path("locked") + " -passout pass:secret");
    const std::string order =
        fromHex("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551");
    const std::string onCurve =
        textOf(keyOf(TKey::kEcP256, std::string(32, '\1')).getParam(TKey::kPublicPoint));
    std::string offCurve = onCurve;
    offCurve.back() = static_cast<char>(offCurve.back() ^ 1);
    const struct {
        const char* name;
        TKey::key_type_t type;
        std::string bytes;
    } rows[] = {
        {"nothing, RSA", TKey::kRsa, ""},
        {"nothing, EC", TKey::kEcP256, ""},
        {"nothing, Ed25519", TKey::kEd25519, ""},
        {"nothing, symmetric", TKey::kSymmetric, ""},
        {"too much, symmetric", TKey::kSymmetric, std::string(1025, 'k')},
        {"letters", TKey::kRsa, "no key at all"},
        {"zeros", TKey::kRsa, std::string(300, '\0')},
        {"cut", TKey::kRsa, rsa.pkcs8().substr(0, 500)},
        {"cut by one", TKey::kEcP256, ec.pkcs8().substr(0, ec.pkcs8().size() - 1)},
        {"a byte more", TKey::kRsa, rsa.pkcs8() + "x"},
        {"a byte more, public", TKey::kEcP256, ec.spki() + "x"},
        {"another curve", TKey::kEcP384, ec.pkcs8()},
        {"another curve, public", TKey::kEcP384, ec.spki()},
        {"another algorithm", TKey::kEd25519, ec.pkcs8()},
        {"another algorithm still", TKey::kEcP256, rsa.spki()},
        {"weak RSA", TKey::kRsa, weak.pkcs8()},
        {"weak RSA, public", TKey::kRsa, weak.spki()},
        {"unknown curve", TKey::kEcP256, koblitz.pkcs8()},
        {"curve spelt out", TKey::kEcP256, spelt.pkcs8()},
        {"encrypted", TKey::kEcP256, ec.get("locked")},
        {"PEM", TKey::kEcP256, ec.get("pem")},
        {"scalar 0", TKey::kEcP256, std::string(32, '\0')},
        {"scalar of the order", TKey::kEcP256, order},
        {"scalar too short", TKey::kEcP256, std::string(31, '\1')},
        {"point off the curve", TKey::kEcP256, offCurve},
        {"point of the wrong form", TKey::kEcP256, "\6" + onCurve.substr(1)},
        {"point cut", TKey::kEcP256, onCurve.substr(0, 64)},
        {"seed too short", TKey::kEd25519, std::string(31, 's')},
        {"seed too long", TKey::kEd25519, std::string(33, 's')},
        {"of no type", TKey::kNone, "bytes"},
    };
    const auto lastError = [] { return aKey(pkixKeyClnt.createTKey()).target()->getError(); };
    EXPECT_EQ(kOk, lastError());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(nullptr, keyOf(row.type, row.bytes).target());

        aKey key(row.type);
        aBuf value = bufOf(row.bytes);
        EXPECT_NE(kOk, key.setKey(value));
        EXPECT_NE(kOk, key.setRaw(value));
        EXPECT_EQ("<none>", textOf(key.getKey()));
    }
    for (const unsigned int type : {7U, 99U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nullptr, aKey(static_cast<TKey::key_type_t>(type)).target());
        EXPECT_EQ(nullptr, keyOf(static_cast<TKey::key_type_t>(type), "bytes").target());
    }
    EXPECT_EQ(nullptr, aKey(TKey::kSymmetric, nullptr, 3).target());
}

TEST_F(KeyTest, FailedChangeLeavesTheKey) {
    aKey key = keyOf(TKey::kEcP256, std::string(32, '\1'));
    const std::string before = textOf(key.getKey());
    aBuf wrong = bufOf("wrong");
    EXPECT_EQ(kMalformed, key.setKey(wrong));
    EXPECT_EQ(kMalformed, key.setRaw(wrong));
    EXPECT_EQ(kInvalid, key.setRaw(nullptr, 3));
    EXPECT_EQ(kMalformed, setParam(key, TKey::kPublicKeyInfo, "wrong"));
    EXPECT_EQ(kMalformed, setParam(key, TKey::kPrivateKeyInfo, "wrong"));
    EXPECT_EQ(kInvalid, setParam(key, TKey::kModulus, "wrong"));
    EXPECT_EQ(kInvalid, key.setAlg(PKI_ALG_RSA));
    EXPECT_EQ(kInvalid, key.setAlg(static_cast<pki_alg_t>(77)));
    EXPECT_EQ(kInvalid, key.setParam(TKey::kBits, 3));
    EXPECT_EQ(before, textOf(key.getKey()));
    EXPECT_EQ(PKI_ALG_EC_P256, key.getAlg());
    EXPECT_EQ(256, key.getParam(TKey::kBits));
}

TEST_F(KeyTest, KeyWithoutTypeTakesTheValues) {
    const Pair pair(kKinds[2].generate);
    aKey key(TKey::kNone);
    EXPECT_EQ(TKey::kNone, key.getType());
    EXPECT_EQ(PKI_ALG_NONE, key.getAlg());
    ASSERT_EQ(kOk, setParam(key, TKey::kPrivateKeyInfo, pair.pkcs8()));
    EXPECT_EQ(TKey::kEcP384, key.getType());
    EXPECT_EQ(PKI_ALG_EC_P384, key.getAlg());
    ASSERT_EQ(kOk, setParam(key, TKey::kPublicKeyInfo, pair.spki()));
    EXPECT_EQ(0, key.getParam(TKey::kIsPrivate));
    aBuf raw = bufOf("raw");
    EXPECT_EQ(kInvalid, aKey(TKey::kNone).setRaw(raw));
}

TEST_F(KeyTest, CompressedPointsAreGivenUncompressed) {
    const Pair pair(kKinds[1].generate);
    openssl("pkey -pubin -inform DER -in " + pair.path("public") +
            " -ec_conv_form compressed -outform DER -pubout -out " + pair.path("short"));
    ASSERT_LT(pair.get("short").size(), pair.spki().size());
    const aKey key = publicOf(TKey::kEcP256, pair.get("short"));
    EXPECT_EQ(pair.spki(), textOf(key.getKey()));
    EXPECT_EQ(65U, key.getRaw().len());
}

TEST_F(KeyTest, IdentifierIsTheDigestOfThePublicKeyOrTheOneSet) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        const Pair pair(kind.generate);
        aKey key = keyOf(kind.type, pair.pkcs8());
        pair.put("bits", textOf(publicOf(kind.type, pair.spki()).getRaw()));
        const std::string digest = openssl("dgst -sha1 -r " + pair.path("bits")).substr(0, 40);
        EXPECT_EQ(digest, toHex(textOf(key.getKeyId())));

        aBuf id = bufOf("mine");
        ASSERT_EQ(kOk, key.setKeyId(id));
        EXPECT_EQ("mine", textOf(key.getKeyId()));
        aBuf none = bufOf("");
        ASSERT_EQ(kOk, key.setKeyId(none));
        EXPECT_EQ(digest, toHex(textOf(key.getKeyId())));
    }
}

TEST_F(KeyTest, KeepsWhatItsOwnerAttaches) {
    aKey key(TKey::kSymmetric);
    EXPECT_EQ("<none>", textOf(key.getParam(static_cast<unsigned char>(7))));
    EXPECT_EQ(kEnd, key.error());
    aBuf value = bufOf("value");
    ASSERT_EQ(kOk, key.setParam(static_cast<unsigned char>(7), value));
    EXPECT_EQ("value", textOf(key.getParam(static_cast<unsigned char>(7))));
    EXPECT_EQ(kOk, key.error());
    EXPECT_EQ("<none>", textOf(key.getParam(static_cast<unsigned char>(8))));

    unsigned int slot = 1;
    unsigned int object = 2;
    EXPECT_EQ(kEnd, key.getTokenId(slot, object));
    EXPECT_EQ(1U, slot);
    ASSERT_EQ(kOk, key.setTokenId(0, 0xFFFFFFFF));
    ASSERT_EQ(kOk, key.getTokenId(slot, object));
    EXPECT_EQ(0U, slot);
    EXPECT_EQ(0xFFFFFFFF, object);

    EXPECT_EQ(0U, key.getVendor());
    ASSERT_EQ(kOk, key.setVendor(42));
    EXPECT_EQ(42U, key.getVendor());
    ASSERT_EQ(kOk, key.setParam(TKey::kUsage, -1));
    EXPECT_EQ(-1, key.getParam(TKey::kUsage));
    EXPECT_EQ(kOk, key.error());
    ASSERT_EQ(kOk, key.setAlg(PKI_ALG_NONE));
    EXPECT_EQ(PKI_ALG_NONE, key.getAlg());
}

TEST_F(KeyTest, NullBuffersAreInvalid) {
    aBuf none(static_cast<TBuf*>(nullptr));
    aKey key = keyOf(TKey::kEcP256, std::string(32, '\1'));
    TKey& target = *key.target();
    const struct {
        const char* name;
        std::function<Status()> call;
    } rows[] = {
        {"setKey", [&] { return target.setKey(nullptr); }},
        {"setRaw", [&] { return target.setRaw(nullptr); }},
        {"setParam by tag",
         [&] { return target.setParam(static_cast<unsigned char>(1), nullptr); }},
        {"setParam", [&] { return target.setParam(TKey::kPublicKeyInfo, nullptr); }},
        {"setKeyId", [&] { return target.setKeyId(nullptr); }},
        {"verify", [&] { return target.verify(nullptr, nullptr); }},
        {"verify without signature",
         [&] {
             const aBuf data = bufOf("x");
             return target.verify(data.target(), nullptr);
         }},
        {"sign", [&] { return target.sign(nullptr) == nullptr ? target.getError() : kOk; }},
        {"encrypt", [&] { return target.encrypt(nullptr) == nullptr ? target.getError() : kOk; }},
        {"decrypt", [&] { return target.decrypt(nullptr) == nullptr ? target.getError() : kOk; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(kInvalid, row.call());
        EXPECT_EQ(kInvalid, target.getError());
    }
}

TEST_F(KeyTest, CopiesAreEqualAndIndependent) {
    for (const auto& [type, bytes] : {std::pair{TKey::kSymmetric, std::string(16, 'k')},
                                      std::pair{TKey::kEcP256, std::string(32, '\1')},
                                      std::pair{TKey::kEd25519, std::string(32, 's')}}) {
        SCOPED_TRACE(type);
        aKey key = keyOf(type, bytes);
        aBuf note = bufOf("note");
        ASSERT_EQ(kOk, key.setParam(static_cast<unsigned char>(3), note));
        ASSERT_EQ(kOk, key.setKeyId(note));
        ASSERT_EQ(kOk, key.setTokenId(1, 2));
        aKey copy(key.target()->duplicate());
        ASSERT_NE(nullptr, copy.target());
        EXPECT_NE(key.target(), copy.target());
        EXPECT_EQ(0, key.target()->compare(copy.target()));
        EXPECT_EQ(0, key.target()->compare(key.target()));
        EXPECT_NE(0, key.target()->compare(nullptr));
        EXPECT_EQ("note", textOf(copy.getParam(static_cast<unsigned char>(3))));
        EXPECT_EQ("note", textOf(copy.getKeyId()));
        unsigned int slot = 0;
        unsigned int object = 0;
        EXPECT_EQ(kOk, copy.getTokenId(slot, object));

        ASSERT_EQ(kOk, key.target()->clear());
        EXPECT_EQ(type, key.getType());
        EXPECT_EQ("<none>", textOf(key.getRaw()));
        EXPECT_EQ(kEnd, key.error());
        EXPECT_EQ(bytes, textOf(copy.getRaw()));
        EXPECT_NE(0, key.target()->compare(copy.target()));
        EXPECT_EQ(0, key.target()->compare(aKey(type).target()));
        EXPECT_NE(0, copy.target()->compare(keyOf(type, std::string(32, 'o')).target()));
        EXPECT_NE(0, copy.target()->compare(aKey(TKey::kRsa).target()));
    }
}

TEST_F(KeyTest, ConsistencyIsSeenAndProved) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        const Pair pair(kind.generate);
        const Pair stranger(kind.generate);
        const aKey key = keyOf(kind.type, pair.pkcs8());
        aKey pub = publicOf(kind.type, pair.spki());
        aKey other = publicOf(kind.type, stranger.spki());
        aKey unlike(TKey::kSymmetric);
        for (const int deep : {0, 1}) {
            EXPECT_EQ(kOk, key.isConsistent(pub, deep));
            EXPECT_EQ(kIo, key.isConsistent(other, deep));
            EXPECT_EQ(kIo, key.isConsistent(unlike, deep));
            EXPECT_EQ(kOk, key.target()->isConsistent(nullptr, deep));
            EXPECT_EQ(kOk, pub.target()->isConsistent(nullptr, deep));
            EXPECT_EQ(kEnd, aKey(kind.type).target()->isConsistent(nullptr, deep));
        }
    }
    const aKey symmetric = keyOf(TKey::kSymmetric, "bytes");
    aKey same = keyOf(TKey::kSymmetric, "bytes");
    aKey another = keyOf(TKey::kSymmetric, "other");
    EXPECT_EQ(kOk, symmetric.isConsistent(same, 1));
    EXPECT_EQ(kIo, symmetric.isConsistent(another, 1));
}

// The private scalar of one key with the public point of another.
TEST_F(KeyTest, ArithmeticFindsPartsThatDoNotFit) {
    const std::string scalar(32, '\1');
    std::string pkcs8 = textOf(keyOf(TKey::kEcP256, scalar).getKey());
    const std::size_t at = pkcs8.find(scalar);
    ASSERT_NE(std::string::npos, at);
    pkcs8.replace(at, 32, std::string(32, '\2'));
    const aKey mixed = keyOf(TKey::kEcP256, pkcs8);
    ASSERT_NE(nullptr, mixed.target());
    EXPECT_EQ(kOk, mixed.target()->isConsistent(nullptr, 0));
    EXPECT_EQ(kIo, mixed.target()->isConsistent(nullptr, 1));

    const Pair pair(kKinds[0].generate);
    std::string rsa = textOf(keyOf(TKey::kRsa, pair.pkcs8()).getRaw());
    rsa[400] = static_cast<char>(rsa[400] ^ 1);  // within the private exponent
    const aKey damaged = keyOf(TKey::kRsa, rsa);
    ASSERT_NE(nullptr, damaged.target());
    EXPECT_EQ(kIo, damaged.target()->isConsistent(nullptr, 1));
}

TEST_F(KeyTest, ManyThreadsUseOneKey) {
    const Pair pair(kKinds[0].generate);
    const aKey rsa = keyOf(TKey::kRsa, pair.pkcs8());
    const aKey ec = keyOf(TKey::kEcP256, std::string(32, '\1'));
    const aKey aes = keyOf(TKey::kSymmetric, std::string(16, 'k'));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i != 8; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round != 10; ++round) {
                const std::string text = std::to_string(i) + "." + std::to_string(round);
                wrong += verify(rsa, text, sign(rsa, text)) != kOk ? 1 : 0;
                wrong += verify(ec, text, sign(ec, text)) != kOk ? 1 : 0;
                wrong += verify(ec, text, sign(ec, "other")) != kIo ? 1 : 0;
                wrong += decrypt(aes, encrypt(aes, text)) != text ? 1 : 0;
                wrong += decrypt(rsa, encrypt(rsa, text)) != text ? 1 : 0;
                wrong += ec.getKeyId().len() != 20 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong.load());
}

}  // namespace
