// Which bytes are keys. What is none is refused when it is read, by every operation that
// reads; what is one is given in one form, in whichever it came.
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/modules/pkixkey/der_writer.h"
#include "tests/modules/services.h"
#include "tests/modules/vectors.h"

namespace {

using namespace std::string_literals;
using der::bits;
using der::element;
using der::number;
using der::octets;
using der::sequence;
using support::fromHex;
using support::toHex;

// ---- algorithms

const std::string kRsaId = fromHex("06092a864886f70d010101");
const std::string kNull = fromHex("0500");
const std::string kEcId = fromHex("06072a8648ce3d0201");
const std::string kEd25519Alg = sequence(fromHex("06032b6570"));
const std::string kRsaAlg = sequence(kRsaId + kNull);

struct Curve {
    const char* name;
    TKey::key_type_t type;
    std::string id;
    std::string order;
    std::string prime;

    std::string alg() const { return sequence(kEcId + id); }
    std::size_t size() const { return order.size(); }
};
const Curve kCurves[] = {
    {"P-256", TKey::kEcP256, fromHex("06082a8648ce3d030107"),
     fromHex("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551"),
     fromHex("ffffffff00000001000000000000000000000000ffffffffffffffffffffffff")},
    {"P-384", TKey::kEcP384, fromHex("06052b81040022"),
     fromHex("ffffffffffffffffffffffffffffffffffffffffffffffffc7634d81f4372ddf"
             "581a0db248b0a77aecec196accc52973"),
     fromHex("fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffe"
             "ffffffff0000000000000000ffffffff")},
    {"P-521", TKey::kEcP521, fromHex("06052b81040023"),
     fromHex("01fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffa"
             "51868783bf2f966b7fcc0148f709a5d03bb5c9b8899c47aebb6fb71e91386409"),
     fromHex("01ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
             "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff")},
};
const Curve& kP256 = kCurves[0];

// ---- structures

std::string pkcs8(const std::string& alg, const std::string& key, const std::string& rest = "") {
    return sequence(number("\0"s) + alg + octets(key) + rest);
}
std::string pkcs8v2(const std::string& alg, const std::string& key, const std::string& rest) {
    return sequence(number("\1") + alg + octets(key) + rest);
}
std::string publicBits(const std::string& bytes) {  // [1], of the second version
    return element(0x81, '\0' + bytes);
}
std::string spki(const std::string& alg, const std::string& key) {
    return sequence(alg + bits(key));
}
std::string ecKey(const std::string& scalar, const std::string& rest = "") {
    return sequence(number("\1") + octets(scalar) + rest);
}
std::string ecPoint(const std::string& point) {  // [1], of an ECPrivateKey
    return element(0xA1, bits(point));
}

// An RSA key of 1024 bits.
struct Rsa {
    std::string version = number("\0"s);
    std::string n =
        number(fromHex("c524c4fbf874b3aee271a54befaf1ae99d5c00c2c8f6d23c69311cefa10a298e"
                       "67ea7b73d787ce11f653f1330f472552ad2ca48a6724ed71585b15a3f2b5ed08"
                       "6758fd7d8e7f38c0df6a6a775dd0fa4822e0d4b0b4d2b13513aa17f68bdc1883"
                       "479b3e4fdb8cddd266fdd748c4805e0a6c9a96889267b5485594fb5429571a8d"));
    std::string e = number("\1\0\1"s);
    std::string d =
        number(fromHex("61abbee02b0efe7a957bc26e25b87637e99b4c5134a97c2d2bdc863e7e657f83"
                       "2b1eb3bd07ba23b1287e1c10b4f005a0b96555bbb0304e670a644e0b64d31734"
                       "646d31a4f739ffea021dc216a0fd67d58d07eca9bf7f26a8092475e660de5a9d"
                       "c3f795fa7776fe91070976cfb2d9893498b536f4885ca3540c3bfb4e2c256aed"));
    std::string p =
        number(fromHex("f22012fe33cb1fe20e841c68d7281696270e3e3f193e0943be9989c9faa85249"
                       "98bba261231aec2ccee23a5eefd048f7df4056d86fb8413ef8c44ffaa4b3a267"));
    std::string q =
        number(fromHex("d070d2f409868a2b75e0254273ccc3d9aed3c7d7a7a30530c7ad4a3622029252"
                       "32f97c7d2a4cfb3df6d3e3accccd30f56d7e345a293860805ba7e70aa57f0aeb"));
    std::string dp =
        number(fromHex("96acff24d27685d0d7d7bf163f4ee33f6dee9f2e053765ec92a059ef27ddb7d7"
                       "b5048f7883b02d697515b3dd80bfcda8f375c695ca708fa9f085ba7ff01f19e1"));
    std::string dq =
        number(fromHex("3226731af40fc2bea225c3d1313b5b03cce477789384cd82e707f28b03b3cab0"
                       "ac430a88b2dcc2b62de4dd2a7e3c00438c8c88dc087edff902146baa4c173cf1"));
    std::string qinv =
        number(fromHex("bc0a4f3417bb00b41e84d3f19feabe78f4f388207b8b430b53afda31b7e30f2f"
                       "85399086443255e1e44fc12f93b1210e36f256647bfbbdd004865160cca63578"));
    std::string rest;

    std::string open() const { return sequence(n + e + rest); }
    std::string whole() const {
        return sequence(version + n + e + d + p + q + dp + dq + qinv + rest);
    }
    // A variation of the key.
    static Rsa with(std::string Rsa::*part, const std::string& value) {
        Rsa key;
        key.*part = value;
        return key;
    }
};

// A number of so many bits with all of them set but some in the middle.
std::string ofBits(int count) {
    std::string bytes(static_cast<std::size_t>((count + 7) / 8), '\xff');
    if (count % 8 != 0) {
        bytes[0] = static_cast<char>((1 << count % 8) - 1);
    }
    bytes[bytes.size() / 2] = 0x55;
    return number(bytes);
}

const std::string kEdSeed =
    fromHex("d4ee72dbf913584ad5b6d8f1f769f8ad3afe7c28cbf1d4fbe097a88f44755842");
const std::string kEdPublic =
    fromHex("19bf44096984cdfe8541bac167dc3b96c85086aa30b6b6cb0c5c38ad703166e1");

std::string withByte(std::string bytes, std::size_t at, int value) {
    bytes.at(at) = static_cast<char>(value);
    return bytes;
}

// ---- reading

struct Row {
    std::string name;
    TKey::key_type_t type;
    std::string bytes;
};

TKey* make(TKey::key_type_t type, const std::string& bytes) {
    return pkixKeyClnt.createTKey(type, reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<unsigned int>(bytes.size()));
}

class KeyFormsTest : public testing::Test {
protected:
    // None of the operations that read takes it, and the key is what it was.
    static void expectRefused(const Row& row) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(nullptr, aKey(make(row.type, row.bytes)).target());
        for (const TKey::key_type_t type : {row.type, TKey::kNone}) {
            aKey key(type);
            aBuf value = bufOf(row.bytes);
            EXPECT_EQ(kMalformed, key.setKey(value));
            EXPECT_EQ(kMalformed, key.setParam(TKey::kPrivateKeyInfo, value));
            EXPECT_EQ(kMalformed, key.setParam(TKey::kPublicKeyInfo, value));
            EXPECT_EQ(type, key.getType());
            EXPECT_EQ("<none>", textOf(key.getKey()));
        }
    }

    static void expectRawRefused(const Row& row) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(nullptr, aKey(make(row.type, row.bytes)).target());
        aKey key(row.type);
        aBuf value = bufOf(row.bytes);
        EXPECT_EQ(kMalformed, key.setRaw(value));
        EXPECT_EQ("<none>", textOf(key.getKey()));
    }

    // Read for the type and without one, it is the key that `form` is, too.
    static void expectSame(const Row& row, const std::string& form) {
        SCOPED_TRACE(row.name);
        const aKey wanted(make(row.type, form));
        ASSERT_NE(nullptr, wanted.target());
        EXPECT_EQ(toHex(form), toHex(textOf(wanted.getKey())));
        for (const TKey::key_type_t type : {row.type, TKey::kNone}) {
            aKey key(type);
            aBuf value = bufOf(row.bytes);
            EXPECT_EQ(kOk, key.setKey(value));
            EXPECT_EQ(row.type, key.getType());
            EXPECT_EQ(toHex(form), toHex(textOf(key.getKey())));
            EXPECT_EQ(0, key.target()->compare(wanted.target()));
            EXPECT_EQ(0, wanted.target()->compare(key.target()));
            EXPECT_EQ(kOk, key.target()->getError());
        }
    }

    static std::string pointOf(const Curve& curve, const std::string& scalar) {
        return textOf(aKey(make(curve.type, scalar)).getParam(TKey::kPublicPoint));
    }

    Services services;
};

std::string compressed(const std::string& point) {
    return std::string(1, (point.back() & 1) != 0 ? '\3' : '\2') +
           point.substr(1, point.size() / 2);
}

// ---- EC

TEST_F(KeyFormsTest, ScalarsOutOfRangeAreNoKeys) {
    for (const Curve& curve : kCurves) {
        SCOPED_TRACE(curve.name);
        const std::string zero(curve.size(), '\0');
        const std::string one = withByte(zero, curve.size() - 1, 1);
        const std::string above = withByte(curve.order, curve.size() - 1, curve.order.back() + 1);
        const std::string all(curve.size(), '\xff');
        const std::string point = ecPoint(pointOf(curve, one));
        for (const auto& [name, scalar] :
             {std::pair{"0", zero}, std::pair{"the order", curve.order},
              std::pair{"one above the order", above}, std::pair{"all ones", all}}) {
            expectRawRefused({name, curve.type, scalar});
            expectRefused({name, curve.type, pkcs8(curve.alg(), ecKey(scalar))});
            expectRefused(
                {name + " with a point"s, curve.type, pkcs8(curve.alg(), ecKey(scalar, point))});
        }
        expectRefused({"no scalar", curve.type, pkcs8(curve.alg(), ecKey(""))});
        expectRefused({"too long", curve.type, pkcs8(curve.alg(), ecKey("\0"s + one))});
        expectRefused({"too long by far", curve.type,
                       pkcs8(curve.alg(), ecKey(std::string(5000, '\0') + one))});
        expectRawRefused({"too long, raw", curve.type, "\0"s + one});

        const std::string last = withByte(curve.order, curve.size() - 1, curve.order.back() - 1);
        EXPECT_EQ(toHex(last), toHex(textOf(aKey(make(curve.type, last)).getRaw())));
        EXPECT_EQ(toHex(one), toHex(textOf(aKey(make(curve.type, one)).getRaw())));
    }
}

TEST_F(KeyFormsTest, PointsThatAreNoneAreNoKeys) {
    for (const Curve& curve : kCurves) {
        SCOPED_TRACE(curve.name);
        const std::string scalar(curve.size(), '\1');
        const std::string point = pointOf(curve, scalar);
        const std::string x = point.substr(1, curve.size());
        const std::string y = point.substr(1 + curve.size());
        const std::string zeros(curve.size(), '\0');
        std::string noRoot = compressed(point);  // until x is that of no point
        const auto reads = [&](const std::string& bytes) {
            return aKey(make(curve.type, spki(curve.alg(), bytes))).target() != nullptr;
        };
        while (reads(noRoot)) {
            ++noRoot.back();
        }
        ASSERT_GT(20, noRoot.back() - x.back()) << "every second x is that of no point";
        const std::pair<const char*, std::string> rows[] = {
            {"infinity", "\0"s},
            {"infinity, padded", std::string(point.size(), '\0')},
            {"nothing", ""},
            {"0, 0", "\4" + zeros + zeros},
            {"off the curve", withByte(point, point.size() - 1, point.back() ^ 1)},
            {"of another curve's size", point + "\0\0"s},
            {"cut", point.substr(0, point.size() - 1)},
            {"compressed with a byte too many", compressed(point) + "\0"s},
            {"hybrid", std::string(1, (y.back() & 1) != 0 ? '\7' : '\6') + x + y},
            {"hybrid of the other sign", std::string(1, (y.back() & 1) != 0 ? '\6' : '\7') + x + y},
            {"x alone", x},
            {"form 5", "\5" + x + y},
            {"compressed, x is that of no point", noRoot},
            {"compressed, x is the prime", "\2" + curve.prime},
            {"x is the prime", "\4" + curve.prime + y},
            {"y is the prime", "\4" + x + curve.prime},
            {"all ones", "\4" + std::string(2 * curve.size(), '\xff')},
        };
        for (const auto& [name, bytes] : rows) {
            expectRefused({name, curve.type, spki(curve.alg(), bytes)});
            expectRefused({name + " beside a scalar"s, curve.type,
                           pkcs8(curve.alg(), ecKey(scalar, ecPoint(bytes)))});
            expectRefused({name + " in the second version"s, curve.type,
                           pkcs8v2(curve.alg(), ecKey(scalar), publicBits(bytes))});
            if (bytes.size() != curve.size()) {  // those are scalars
                expectRawRefused({name, curve.type, bytes});
            }
        }
    }
}

TEST_F(KeyFormsTest, EcKeyIsOneKeyInEveryForm) {
    for (const Curve& curve : kCurves) {
        SCOPED_TRACE(curve.name);
        const std::string zeros(curve.size() - 20, '\0');
        const std::string scalar = zeros + std::string(20, '\7');
        const std::string point = pointOf(curve, scalar);
        const std::string form = pkcs8(curve.alg(), ecKey(scalar, ecPoint(point)));
        const std::string curveToo = element(0xA0, curve.id);
        const std::pair<const char*, std::string> rows[] = {
            {"without its public part", pkcs8(curve.alg(), ecKey(scalar))},
            {"with its curve", pkcs8(curve.alg(), ecKey(scalar, curveToo))},
            {"with all", pkcs8(curve.alg(), ecKey(scalar, curveToo + ecPoint(point)))},
            {"compressed", pkcs8(curve.alg(), ecKey(scalar, ecPoint(compressed(point))))},
            {"without leading zeros", pkcs8(curve.alg(), ecKey(scalar.substr(zeros.size())))},
            {"with one zero left", pkcs8(curve.alg(), ecKey(scalar.substr(zeros.size() - 1)))},
            {"second version", pkcs8v2(curve.alg(), ecKey(scalar), publicBits(point))},
            {"second version, compressed",
             pkcs8v2(curve.alg(), ecKey(scalar), publicBits(compressed(point)))},
            {"second version with all",
             pkcs8v2(curve.alg(), ecKey(scalar, curveToo + ecPoint(point)), publicBits(point))},
        };
        for (const auto& [name, bytes] : rows) {
            expectSame({name, curve.type, bytes}, form);
        }
        expectSame({"public, compressed", curve.type, spki(curve.alg(), compressed(point))},
                   spki(curve.alg(), point));
        EXPECT_EQ(toHex(form), toHex(textOf(aKey(make(curve.type, scalar)).getKey())));
    }
}

TEST_F(KeyFormsTest, StructuresOfEcThatAreNoneAreNoKeys) {
    const std::string scalar(32, '\1');
    const std::string point = pointOf(kP256, scalar);
    const std::string other = pointOf(kP256, std::string(32, '\2'));
    const std::string curve = element(0xA0, kP256.id);
    const std::string explicitCurve = element(0xA0, sequence(number("\1")));
    const auto key = [&](const std::string& contents) {
        return pkcs8(kP256.alg(), sequence(contents));
    };
    const Row rows[] = {
        {"version 0", TKey::kEcP256, key(number("\0"s) + octets(scalar))},
        {"version 2", TKey::kEcP256, key(number("\2") + octets(scalar))},
        {"no version", TKey::kEcP256, key(octets(scalar))},
        {"scalar as a number", TKey::kEcP256, key(number("\1") + number(scalar))},
        {"another curve inside", TKey::kEcP256,
         key(number("\1") + octets(scalar) + element(0xA0, kCurves[1].id))},
        {"a curve spelt out inside", TKey::kEcP256,
         key(number("\1") + octets(scalar) + explicitCurve)},
        {"no curve inside its tag", TKey::kEcP256,
         key(number("\1") + octets(scalar) + element(0xA0, ""))},
        {"parts in the wrong order", TKey::kEcP256,
         key(number("\1") + octets(scalar) + ecPoint(point) + curve)},
        {"two points", TKey::kEcP256,
         key(number("\1") + octets(scalar) + ecPoint(point) + ecPoint(point))},
        {"a byte behind the point", TKey::kEcP256,
         key(number("\1") + octets(scalar) + element(0xA1, bits(point) + "\0"s))},
        {"unused bits", TKey::kEcP256,
         key(number("\1") + octets(scalar) + element(0xA1, element(0x03, "\1" + point)))},
        {"something behind", TKey::kEcP256, key(number("\1") + octets(scalar) + kNull)},
        {"a byte behind the key", TKey::kEcP256, pkcs8(kP256.alg(), ecKey(scalar) + "\0"s)},
        {"no curve", TKey::kEcP256, pkcs8(sequence(kEcId), ecKey(scalar))},
        {"no curve but inside", TKey::kEcP256, pkcs8(sequence(kEcId), ecKey(scalar, curve))},
        {"NULL for a curve", TKey::kEcP256, pkcs8(sequence(kEcId + kNull), ecKey(scalar))},
        {"the curve twice", TKey::kEcP256,
         pkcs8(sequence(kEcId + kP256.id + kP256.id), ecKey(scalar))},
        {"for key agreement only", TKey::kEcP256,
         pkcs8(sequence(fromHex("06052b8104010c") + kP256.id), ecKey(scalar))},
        {"another's public key beside", TKey::kEcP256,
         pkcs8v2(kP256.alg(), ecKey(scalar), publicBits(other))},
        {"public, NULL for a curve", TKey::kEcP256, spki(sequence(kEcId + kNull), point)},
        {"public, unused bits", TKey::kEcP256, sequence(kP256.alg() + element(0x03, "\1" + point))},
        {"public, as octets", TKey::kEcP256, sequence(kP256.alg() + octets(point))},
        {"public, something behind", TKey::kEcP256, sequence(kP256.alg() + bits(point) + kNull)},
    };
    for (const Row& row : rows) {
        expectRefused(row);
    }
    const aKey another(make(TKey::kEcP256, std::string(32, '\2')));
    EXPECT_NE(0, another.target()->compare(aKey(make(TKey::kEcP256, scalar)).target()));
}

// ---- RSA

TEST_F(KeyFormsTest, NumbersThatMakeNoRsaAreNoKeys) {
    const Rsa good;
    const std::string even = withByte(good.n, good.n.size() - 1, good.n.back() - 1);
    const struct {
        const char* name;
        std::string Rsa::*part;
        std::string value;
    } open[] = {
        {"exponent 0", &Rsa::e, number("\0"s)},
        {"exponent 1", &Rsa::e, number("\1")},
        {"exponent 2", &Rsa::e, number("\2")},
        {"exponent 65536", &Rsa::e, number("\1\0\0"s)},
        {"exponent -3", &Rsa::e, element(0x02, "\xfd")},
        {"exponent -65537", &Rsa::e, element(0x02, "\xfe\xff\xff")},
        {"exponent of 65 bits", &Rsa::e, ofBits(65)},
        {"exponent as large as the modulus", &Rsa::e, good.n},
        {"exponent with a leading zero", &Rsa::e, element(0x02, "\0\1\0\1"s)},
        {"exponent without bytes", &Rsa::e, element(0x02, "")},
        {"exponent as octets", &Rsa::e, octets("\1\0\1"s)},
        {"modulus 0", &Rsa::n, number("\0"s)},
        {"modulus even", &Rsa::n, even},
        {"modulus negative", &Rsa::n, element(0x02, good.n.substr(good.n.size() - 128))},
        {"modulus with two leading zeros", &Rsa::n,
         element(0x02, "\0\0"s + good.n.substr(good.n.size() - 128))},
        {"modulus of 15 bits", &Rsa::n, ofBits(15)},
        {"modulus of 1023 bits", &Rsa::n, ofBits(1023)},
        {"modulus of 16385 bits", &Rsa::n, ofBits(16385)},
        {"modulus of 800,000 bits", &Rsa::n, ofBits(800'000)},
    };
    for (const auto& row : open) {
        const Rsa key = Rsa::with(row.part, row.value);
        expectRefused({row.name + ", public"s, TKey::kRsa, spki(kRsaAlg, key.open())});
        expectRefused({row.name, TKey::kRsa, pkcs8(kRsaAlg, key.whole())});
        expectRawRefused({row.name + ", raw public"s, TKey::kRsa, key.open()});
        expectRawRefused({row.name + ", raw"s, TKey::kRsa, key.whole()});
    }
    const struct {
        const char* name;
        std::string Rsa::*part;
        std::string value;
    } secret[] = {
        {"version 1, of many primes", &Rsa::version, number("\1")},
        {"version 2", &Rsa::version, number("\2")},
        {"private exponent 0", &Rsa::d, number("\0"s)},
        {"private exponent negative", &Rsa::d, element(0x02, "\xfd")},
        {"private exponent as large as the modulus", &Rsa::d, good.n},
        {"prime 0", &Rsa::p, number("\0"s)},
        {"prime even", &Rsa::p, number("\2")},
        {"prime negative", &Rsa::q, element(0x02, "\xfd")},
        {"prime as large as the modulus", &Rsa::q, good.n},
        {"exponent 0 of a prime", &Rsa::dp, number("\0"s)},
        {"exponent of a prime negative", &Rsa::dq, element(0x02, "\xfd")},
        {"coefficient 0", &Rsa::qinv, number("\0"s)},
        {"coefficient lacking", &Rsa::qinv, ""},
        {"more primes", &Rsa::rest, sequence(sequence(good.p + good.dp + good.qinv))},
        {"a number more", &Rsa::rest, number("\1")},
    };
    for (const auto& row : secret) {
        const Rsa key = Rsa::with(row.part, row.value);
        expectRefused({row.name, TKey::kRsa, pkcs8(kRsaAlg, key.whole())});
        expectRawRefused({row.name + ", raw"s, TKey::kRsa, key.whole()});
    }
    expectRawRefused(
        {"public with a number more", TKey::kRsa, Rsa::with(&Rsa::rest, number("\1")).open()});
    expectRawRefused({"a byte behind", TKey::kRsa, good.open() + "\0"s});
    expectRawRefused({"a byte behind the private one", TKey::kRsa, good.whole() + "\0"s});
}

TEST_F(KeyFormsTest, RsaIsReadUpToItsBorders) {
    const Rsa good;
    const struct {
        const char* name;
        std::string Rsa::*part;
        std::string value;
        int size;
    } rows[] = {
        {"as it is", &Rsa::e, good.e, 1024},
        {"exponent 3", &Rsa::e, number("\3"), 1024},
        {"exponent of 64 bits", &Rsa::e, ofBits(64), 1024},
        {"modulus of 1025 bits", &Rsa::n, ofBits(1025), 1025},
        {"modulus of 16384 bits", &Rsa::n, ofBits(16384), 16384},
    };
    for (const auto& row : rows) {
        const std::string form = spki(kRsaAlg, Rsa::with(row.part, row.value).open());
        expectSame({row.name, TKey::kRsa, form}, form);
        EXPECT_EQ(row.size, aKey(make(TKey::kRsa, form)).getParam(TKey::kBits)) << row.name;
    }
    const std::string form = pkcs8(kRsaAlg, good.whole());
    expectSame({"private", TKey::kRsa, form}, form);
    expectSame(
        {"second version", TKey::kRsa, pkcs8v2(kRsaAlg, good.whole(), publicBits(good.open()))},
        form);
    const aKey key(make(TKey::kRsa, form));
    EXPECT_EQ(kOk, key.target()->isConsistent(nullptr, 1));
    EXPECT_EQ(toHex(good.whole()), toHex(textOf(key.getRaw())));
    EXPECT_EQ(toHex(spki(kRsaAlg, good.open())), toHex(textOf(key.getParam(TKey::kPublicKeyInfo))));
}

TEST_F(KeyFormsTest, AlgorithmsOfRsaThatAreNoneAreNoKeys) {
    const Rsa good;
    const Rsa other = Rsa::with(&Rsa::e, number("\3"));
    const Row rows[] = {
        {"without parameters", TKey::kRsa, spki(sequence(kRsaId), good.open())},
        {"with others", TKey::kRsa, spki(sequence(kRsaId + sequence("")), good.open())},
        {"with a NULL of a byte", TKey::kRsa,
         spki(sequence(kRsaId + element(0x05, "\0"s)), good.open())},
        {"with two NULLs", TKey::kRsa, spki(sequence(kRsaId + kNull + kNull), good.open())},
        {"PSS only", TKey::kRsa, spki(sequence(fromHex("06092a864886f70d01010a")), good.open())},
        {"a signature's", TKey::kRsa,
         spki(sequence(fromHex("06092a864886f70d01010b") + kNull), good.open())},
        {"private, without parameters", TKey::kRsa, pkcs8(sequence(kRsaId), good.whole())},
        {"private for public", TKey::kRsa, spki(kRsaAlg, good.whole())},
        {"public for private", TKey::kRsa, pkcs8(kRsaAlg, good.open())},
        {"another's public key beside", TKey::kRsa,
         pkcs8v2(kRsaAlg, good.whole(), publicBits(other.open()))},
        {"a public key that is none beside", TKey::kRsa,
         pkcs8v2(kRsaAlg, good.whole(), publicBits("key"))},
    };
    for (const Row& row : rows) {
        expectRefused(row);
    }
}

// ---- Ed25519

TEST_F(KeyFormsTest, PointsOfEd25519ThatAreNoneAreNoKeys) {
    const std::pair<const char*, const char*> rows[] = {
        {"order 1", "0100000000000000000000000000000000000000000000000000000000000000"},
        {"order 2", "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
        {"order 4", "0000000000000000000000000000000000000000000000000000000000000000"},
        {"order 4, other sign", "0000000000000000000000000000000000000000000000000000000000000080"},
        {"order 8", "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05"},
        {"order 8, other sign", "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc85"},
        {"order 8, other y", "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a"},
        {"order 8, other both", "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac03fa"},
        {"order 1 with a sign", "0100000000000000000000000000000000000000000000000000000000000080"},
        {"order 2 with a sign", "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"},
        {"order 4, y is p", "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
        {"order 1, y is p + 1", "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
        {"y is p + 18", "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
        {"all ones", "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"},
        {"y of no point", "0200000000000000000000000000000000000000000000000000000000000000"},
    };
    for (const auto& [name, hex] : rows) {
        expectRefused({name, TKey::kEd25519, spki(kEd25519Alg, fromHex(hex))});
        expectRefused({name + " beside a seed"s, TKey::kEd25519,
                       pkcs8v2(kEd25519Alg, octets(kEdSeed), publicBits(fromHex(hex)))});
    }
    for (const std::string& bytes : {""s, kEdPublic.substr(1), kEdPublic + "\0"s}) {
        expectRefused(
            {std::to_string(bytes.size()) + " bytes", TKey::kEd25519, spki(kEd25519Alg, bytes)});
    }
    const std::string form = spki(kEd25519Alg, kEdPublic);
    expectSame({"a point", TKey::kEd25519, form}, form);
}

// Half of all strings are points; honest keys are, whatever the seed.
TEST_F(KeyFormsTest, PublicKeysOfSeedsArePoints) {
    for (int i = 0; i != 200; ++i) {
        const std::string seed = withByte(kEdSeed, 0, i);
        const aKey key(make(TKey::kEd25519, seed));
        const std::string form = textOf(key.getParam(TKey::kPublicKeyInfo));
        EXPECT_NE(nullptr, aKey(make(TKey::kEd25519, form)).target()) << i;
    }
}

// The example of RFC 8410, 10.3: attributes, and the public key.
TEST_F(KeyFormsTest, SecondVersionOfEd25519IsRead) {
    const std::string example = fromHex(
        "3072020101300506032b657004220420d4ee72dbf913584ad5b6d8f1f769f8ad"
        "3afe7c28cbf1d4fbe097a88f44755842a01f301d060a2a864886f70d01090914"
        "310f0c0d437572646c6520436861697273812100"
        "19bf44096984cdfe8541bac167dc3b96c85086aa30b6b6cb0c5c38ad703166e1");
    const std::string form = pkcs8(kEd25519Alg, octets(kEdSeed));
    expectSame({"with attributes", TKey::kEd25519, example}, form);
    expectSame(
        {"without", TKey::kEd25519, pkcs8v2(kEd25519Alg, octets(kEdSeed), publicBits(kEdPublic))},
        form);
    const aKey key(make(TKey::kEd25519, example));
    EXPECT_EQ(toHex(kEdSeed), toHex(textOf(key.getRaw())));
    EXPECT_EQ(toHex(kEdPublic), toHex(textOf(key.getParam(TKey::kPublicPoint))));
    EXPECT_EQ(kOk, key.target()->isConsistent(nullptr, 1));
}

TEST_F(KeyFormsTest, StructuresOfEd25519ThatAreNoneAreNoKeys) {
    const std::string seed = octets(kEdSeed);
    const std::string otherPublic =
        textOf(aKey(make(TKey::kEd25519, std::string(32, 's'))).getParam(TKey::kPublicPoint));
    const Row rows[] = {
        {"with parameters", TKey::kEd25519, pkcs8(sequence(fromHex("06032b6570") + kNull), seed)},
        {"public with parameters", TKey::kEd25519,
         spki(sequence(fromHex("06032b6570") + kNull), kEdPublic)},
        {"X25519", TKey::kEd25519, pkcs8(sequence(fromHex("06032b656e")), seed)},
        {"Ed448", TKey::kEd25519, pkcs8(sequence(fromHex("06032b6571")), seed)},
        {"seed bare", TKey::kEd25519, pkcs8(kEd25519Alg, kEdSeed)},
        {"seed too short", TKey::kEd25519, pkcs8(kEd25519Alg, octets(kEdSeed.substr(1)))},
        {"seed too long", TKey::kEd25519, pkcs8(kEd25519Alg, octets(kEdSeed + "\0"s))},
        {"a byte behind the seed", TKey::kEd25519, pkcs8(kEd25519Alg, seed + "\0"s)},
        {"another's public key", TKey::kEd25519,
         pkcs8v2(kEd25519Alg, seed, publicBits(otherPublic))},
        {"public key cut", TKey::kEd25519,
         pkcs8v2(kEd25519Alg, seed, publicBits(kEdPublic.substr(1)))},
        {"public key with unused bits", TKey::kEd25519,
         pkcs8v2(kEd25519Alg, seed, element(0x81, "\1" + kEdPublic))},
        {"public key in pieces", TKey::kEd25519,
         pkcs8v2(kEd25519Alg, seed, element(0xA1, bits(kEdPublic)))},
        {"second version without public key", TKey::kEd25519, pkcs8v2(kEd25519Alg, seed, "")},
        {"first version with one", TKey::kEd25519, pkcs8(kEd25519Alg, seed, publicBits(kEdPublic))},
        {"something behind the public key", TKey::kEd25519,
         pkcs8v2(kEd25519Alg, seed, publicBits(kEdPublic) + kNull)},
        {"third version", TKey::kEd25519,
         sequence(number("\2") + kEd25519Alg + octets(seed) + publicBits(kEdPublic))},
        {"version of two bytes", TKey::kEd25519,
         sequence(number("\1\0"s) + kEd25519Alg + octets(seed) + publicBits(kEdPublic))},
        {"version negative", TKey::kEd25519,
         sequence(element(0x02, "\xff") + kEd25519Alg + octets(seed))},
    };
    for (const Row& row : rows) {
        expectRefused(row);
    }
    for (const std::string& bytes : {kEdSeed.substr(1), kEdSeed + "\0"s, ""s}) {
        expectRawRefused({std::to_string(bytes.size()) + " bytes", TKey::kEd25519, bytes});
    }
}

// ---- PKCS#8 and DER

std::string attribute(const std::string& value) {
    return sequence(fromHex("06092a864886f70d010914") + element(0x31, value));
}

TEST_F(KeyFormsTest, AttributesAreReadAndNotKept) {
    const std::string seed = octets(kEdSeed);
    const std::string form = pkcs8(kEd25519Alg, seed);
    const std::string text = attribute(element(0x0C, "a"));
    const std::string longer = attribute(sequence(element(0x0C, "aa") + number("\1")));
    const std::pair<const char*, std::string> rows[] = {
        {"none", ""}, {"one", text}, {"two", text + longer}, {"the same twice", text + text}};
    for (const auto& [name, attributes] : rows) {
        expectSame({name, TKey::kEd25519, pkcs8(kEd25519Alg, seed, element(0xA0, attributes))},
                   form);
    }
    std::string deep;
    for (int level = 0; level != 1000; ++level) {
        deep = sequence(deep);
    }
    const std::pair<const char*, std::string> refused[] = {
        {"out of order", longer + text},
        {"no sequence", element(0x0C, "a")},
        {"without values", sequence(fromHex("06092a864886f70d010914"))},
        {"values in no set", sequence(fromHex("06092a864886f70d010914") + sequence(text))},
        {"something behind the values",
         sequence(fromHex("06092a864886f70d010914") + element(0x31, text) + kNull)},
        {"cut", text.substr(0, text.size() - 1)},
        {"a string in pieces", attribute(element(0x2C, element(0x0C, "a")))},
        {"a primitive sequence", attribute(element(0x10, ""))},
        {"a length of no end", attribute("\x30\x80\0\0"s)},
        {"a number with a leading zero", attribute(element(0x02, "\0\1"s))},
        {"a tag of more bytes", attribute("\x9f\x81\x01\x00"s)},
        {"very deep", attribute(deep)},
    };
    for (const auto& [name, attributes] : refused) {
        expectRefused({name, TKey::kEd25519, pkcs8(kEd25519Alg, seed, element(0xA0, attributes))});
    }
    expectRefused({"twice", TKey::kEd25519,
                   pkcs8(kEd25519Alg, seed, element(0xA0, text) + element(0xA0, text))});
    expectRefused({"behind the public key", TKey::kEd25519,
                   pkcs8v2(kEd25519Alg, seed, publicBits(kEdPublic) + element(0xA0, text))});
    expectRefused({"primitive", TKey::kEd25519, pkcs8(kEd25519Alg, seed, element(0x80, text))});
}

// What BER allows beyond DER.
TEST_F(KeyFormsTest, OnlyDerIsRead) {
    const std::string good = pkcs8(kEd25519Alg, octets(kEdSeed));
    const std::string inner = good.substr(2);
    const std::string size(1, good[1]);
    const std::string seed = octets(octets(kEdSeed));
    const std::string version = number("\0"s);
    const Row rows[] = {
        {"a length of no end", TKey::kEd25519, "\x30\x80"s + inner + "\0\0"s},
        {"a length of a byte too many", TKey::kEd25519, "\x30\x81"s + size + inner},
        {"of two", TKey::kEd25519, "\x30\x82\0"s + size + inner},
        {"of seven", TKey::kEd25519, "\x30\x87\0\0\0\0\0\0"s + size + inner},
        {"of 127", TKey::kEd25519, "\x30\xff"s + std::string(126, '\0') + size + inner},
        {"a length beyond the end", TKey::kEd25519, "\x30\x84\xff\xff\xff\xff"s + inner},
        {"a length that is cut", TKey::kEd25519, "\x30\x82\x01"s},
        {"a tag alone", TKey::kEd25519, "\x30"},
        {"a byte behind", TKey::kEd25519, good + "\0"s},
        {"twice", TKey::kEd25519, good + good},
        {"something behind", TKey::kEd25519, sequence(inner + kNull)},
        {"a set", TKey::kEd25519, element(0x31, inner)},
        {"of another class", TKey::kEd25519, element(0x70, inner)},
        {"version with a leading zero", TKey::kEd25519,
         sequence(element(0x02, "\0\0"s) + kEd25519Alg + seed)},
        {"version without bytes", TKey::kEd25519, sequence(element(0x02, "") + kEd25519Alg + seed)},
        {"no version", TKey::kEd25519, sequence(kEd25519Alg + seed)},
        {"octets in pieces", TKey::kEd25519,
         sequence(version + kEd25519Alg + element(0x24, octets(octets(kEdSeed))))},
        {"inner octets in pieces", TKey::kEd25519,
         pkcs8(kEd25519Alg, element(0x24, octets(kEdSeed)))},
        {"an inner length of a byte too many", TKey::kEd25519,
         pkcs8(kEd25519Alg, "\x04\x81\x20" + kEdSeed)},
        {"algorithm with a long length", TKey::kEd25519,
         sequence(version + "\x30\x81\x05" + kEd25519Alg.substr(2) + seed)},
        {"an identifier with a leading zero", TKey::kEd25519,
         pkcs8(sequence(fromHex("0604802b6570")), octets(kEdSeed))},
        {"bits in pieces", TKey::kEd25519, sequence(kEd25519Alg + element(0x23, bits(kEdPublic)))},
        {"unused bits", TKey::kEd25519, sequence(kEd25519Alg + element(0x03, "\1" + kEdPublic))},
        {"no bits", TKey::kEd25519, sequence(kEd25519Alg + element(0x03, ""))},
    };
    for (const Row& row : rows) {
        expectRefused(row);
    }
}

// Whatever one byte becomes, what is read is written the same, or was refused.
TEST_F(KeyFormsTest, ChangedByteIsRefusedOrMakesAnotherKey) {
    const std::string scalar(32, '\1');
    const Row rows[] = {
        {"EC", TKey::kEcP256, pkcs8(kP256.alg(), ecKey(scalar, ecPoint(pointOf(kP256, scalar))))},
        {"EC, public", TKey::kEcP256, spki(kP256.alg(), pointOf(kP256, scalar))},
        {"Ed25519", TKey::kEd25519, pkcs8(kEd25519Alg, octets(kEdSeed))},
        {"Ed25519, public", TKey::kEd25519, spki(kEd25519Alg, kEdPublic)},
        {"RSA, public", TKey::kRsa, spki(kRsaAlg, Rsa().open())},
    };
    for (const Row& row : rows) {
        int refused = 0;
        for (std::size_t at = 0; at != row.bytes.size(); ++at) {
            for (const int change : {1, 0x80, 0xFF}) {
                const std::string bytes = withByte(row.bytes, at, row.bytes[at] ^ change);
                const aKey key(make(row.type, bytes));
                if (key.target() == nullptr) {
                    ++refused;
                } else {
                    EXPECT_EQ(toHex(bytes), toHex(textOf(key.getKey()))) << row.name << ' ' << at;
                }
            }
        }
        EXPECT_LT(30, refused) << row.name;
    }
}

TEST_F(KeyFormsTest, CutBytesAreNoKey) {
    const std::string scalar(32, '\1');
    const std::string point = pointOf(kP256, scalar);
    const Row rows[] = {
        {"RSA", TKey::kRsa, pkcs8(kRsaAlg, Rsa().whole())},
        {"EC", TKey::kEcP256, pkcs8(kP256.alg(), ecKey(scalar, ecPoint(point)))},
        {"EC, public", TKey::kEcP256, spki(kP256.alg(), point)},
        {"Ed25519", TKey::kEd25519,
         pkcs8v2(kEd25519Alg, octets(kEdSeed),
                 element(0xA0, attribute(element(0x0C, "a"))) + publicBits(kEdPublic))},
    };
    for (const Row& row : rows) {
        for (std::size_t size = 0; size != row.bytes.size(); ++size) {
            // 32 bytes are a scalar or a seed.
            if (size != 32) {
                EXPECT_EQ(nullptr, aKey(make(row.type, row.bytes.substr(0, size))).target())
                    << row.name << ' ' << size;
            }
        }
        EXPECT_NE(nullptr, aKey(make(row.type, row.bytes)).target()) << row.name;
    }
}

// ---- numbers of parameters

TEST_F(KeyFormsTest, UnknownParametersAreInvalidWhateverTheKey) {
    aKey none(TKey::kNone);
    aKey empty(TKey::kEcP256);
    aKey symmetric(make(TKey::kSymmetric, "bytes"));
    aKey ec(make(TKey::kEcP256, std::string(32, '\1')));
    aBuf value = bufOf("value");
    for (aKey* const key : {&none, &empty, &symmetric, &ec}) {
        SCOPED_TRACE(key->getType());
        for (const unsigned int number : {0U, 7U, 99U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(number);
            EXPECT_EQ("<none>", textOf(key->getParam(static_cast<TKey::aka_t>(number))));
            EXPECT_EQ(kInvalid, key->error());
            EXPECT_EQ(kInvalid, key->setParam(static_cast<TKey::aka_t>(number), value));
        }
        for (const unsigned int number : {0U, 5U, 99U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(number);
            EXPECT_EQ(-1, key->getParam(static_cast<TKey::bka_t>(number)));
            EXPECT_EQ(kInvalid, key->error());
            EXPECT_EQ(kInvalid, key->setParam(static_cast<TKey::bka_t>(number), 1));
        }
        EXPECT_EQ(kInvalid, key->setAlg(static_cast<pki_alg_t>(77)));
    }
    for (const unsigned int type : {7U, 99U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nullptr, aKey(static_cast<TKey::key_type_t>(type)).target());
        EXPECT_EQ(kInvalid, none.target()->getError());
        EXPECT_EQ(nullptr, make(static_cast<TKey::key_type_t>(type), "bytes"));
        EXPECT_EQ(kInvalid, none.target()->getError());
    }
}

}  // namespace
