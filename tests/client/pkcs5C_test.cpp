#include "client/pkcs5C.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/client/forwarding.h"
#include "tests/support/doubles/double_services.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Status kOther = 77;  // a status that is none of ours
constexpr unsigned int kServiceId = DoubleServices::kPkcs5Id;

std::string contents(const aBuf& buf) {
    return bytesOf(buf.target());
}

template <class Scheme>
void setParameters(Scheme& scheme, const char* password) {
    scheme << PBES::kPassword << aBuf(password) << PBES::kSalt << aBuf("") << PBES::kIterations
           << 1000U << PBES::kKeyLength << 16U << PBES::kFirstAlg << PKI_ALG_PBKDF2_HMAC_SHA256
           << PBES::kSecondAlg << PKI_ALG_AES_GCM;
}

class Pkcs5ClientTest : public testing::Test {
protected:
    DoubleServices services;
    FakeHost& host = services.host();
    CallWatch& watch = services.pkcs5().watch();
    const aBuf none{static_cast<TBuf*>(nullptr)};
};

using Pkcs5Test = Pkcs5ClientTest;
using PbesTest = Pkcs5ClientTest;
using P12PbkdfTest = Pkcs5ClientTest;
using HashMapTest = Pkcs5ClientTest;

TEST_F(Pkcs5Test, CreatesObjectsUnderTheServicesGuard) {
    CMN_GRefPtr<CMN_GuardedRef> made;
    const std::vector<ForwardedCall<PKCS5>> rows = {
        {"PBES of scheme 0",
         [&](PKCS5& srv) { made = srv.createObject(PKCS5_Interface::kPbes0); },
         "createObject",
         {"createObject: 0"}},
        {"map",
         [&](PKCS5& srv) { made = srv.createObject(PKCS5_Interface::kHashMap); },
         "createObject",
         {"createObject: 3"}},
    };
    expectForwarded(rows, pkcs5srv, services.pkcs5(), watch);
    EXPECT_NE(nullptr, made.get());
}

TEST_F(Pkcs5Test, WithoutServiceOrHostCreatesNothing) {
    host.withdraw(kServiceId);
    EXPECT_EQ(nullptr, pkcs5srv.createObject(PKCS5_Interface::kPbes0));
    const InstalledHost noHost(nullptr);
    EXPECT_EQ(nullptr, pkcs5srv.createObject(PKCS5_Interface::kPbes0));
}

TEST_F(Pkcs5Test, EachProxyCreatesItsKindOfObject) {
    watch.record();
    const mmPBES first(PBES::kPbkdf2);
    const mmPBES second(PBES::kPkcs12);
    const mmP12PBKDF derivation;
    const aHashMap map;
    const aHashMapFull full;
    EXPECT_THAT(watch.calls(), ElementsAre("createObject: 0", "createObject: 1", "createObject: 2",
                                           "createObject: 3", "createObject: 3"));
    EXPECT_NE(nullptr, dynamic_cast<PBES*>(first.target()));
    EXPECT_NE(nullptr, dynamic_cast<PBES*>(second.target()));
    EXPECT_NE(nullptr, dynamic_cast<P12PBKDF*>(derivation.target()));
    EXPECT_NE(nullptr, dynamic_cast<HashMap*>(map.target()));
    EXPECT_NE(nullptr, dynamic_cast<HashMap*>(full.target()));
    EXPECT_EQ(1, first.target()->references());
}

TEST_F(Pkcs5Test, FailedCreationLeavesProxiesWithoutObject) {
    watch.failAt("createObject", 1, kNoMemory, CallWatch::kLasting);
    EXPECT_EQ(kNoObject, mmPBES(PBES::kPbkdf2).error());
    EXPECT_EQ(kNoObject, mmPBES(PBES::kPkcs12).error());
    EXPECT_EQ(kNoObject, mmP12PBKDF().error());
    EXPECT_EQ(nullptr, aHashMap().target());
    EXPECT_EQ(kNoObject, aHashMapFull().add(aBuf("k"), aBuf("v")));
    EXPECT_EQ(0, host.uses(kServiceId));
}

TEST_F(Pkcs5Test, CreationThatThrowsGivesTheServiceBack) {
    watch.throwAt("createObject");
    EXPECT_THROW(mmPBES{PBES::kPbkdf2}, DoubleTrouble);
    EXPECT_EQ(0, pkcs5srv.uses());
    EXPECT_EQ(0, host.uses(kServiceId));
}

TEST_F(Pkcs5Test, ServiceStaysAcquiredUntilTheLastProxyGoes) {
    host.forgetCalls();
    {
        const mmPBES first(PBES::kPbkdf2);
        {
            const mmP12PBKDF second;
            const aHashMap third;
            EXPECT_EQ(3, pkcs5srv.uses());
        }
        EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107"));
    }
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));
    EXPECT_EQ(nullptr, pkcs5srv.service());
}

TEST_F(PbesTest, EveryCallReachesTheObjectUnderItsGuard) {
    mmPBES pbes(PBES::kPbkdf2);
    setParameters(pbes, "secret");
    const aKey key(TKey::kSymmetric, reinterpret_cast<const unsigned char*>("abc"), 3);
    const aBuf arg("xy");
    const std::vector<ForwardedCall<mmPBES>> rows = {
        {"selector", [](mmPBES& p) { p << PBES::kSalt; }, "select", {"select: 2"}},
        {"bytes", [&](mmPBES& p) { p << arg; }, "supply", {"supply: buffer xy"}},
        {"number", [](mmPBES& p) { p << 16U; }, "supply", {"supply: number 16"}},
        {"algorithm", [](mmPBES& p) { p << PKI_ALG_AES_GCM; }, "supply", {"supply: alg 9"}},
        {"getKey", [](mmPBES& p) { (void)p.getKey(); }, "getKey", {"getKey"}},
        {"setKey", [&](mmPBES& p) { (void)p.setKey(key); }, "setKey", {"setKey: key abc"}},
        {"encrypt", [&](mmPBES& p) { (void)p.encrypt(arg); }, "encrypt", {"encrypt: buffer xy"}},
        {"decrypt", [&](mmPBES& p) { (void)p.decrypt(arg); }, "decrypt", {"decrypt: buffer xy"}},
        {"error", [](mmPBES& p) { (void)p.error(); }, "error", {"error"}},
    };
    expectForwarded(rows, pbes, *pbes.target(), watch);
}

TEST_F(PbesTest, ParametersChainInOrder) {
    mmPBES pbes(PBES::kPbkdf2);
    watch.record();
    EXPECT_EQ(&pbes, &(pbes << PBES::kPassword));
    EXPECT_EQ(&pbes, &(pbes << aBuf("secret")));
    EXPECT_EQ(&pbes, &(pbes << PBES::kIterations << 1000U));
    EXPECT_EQ(&pbes, &(pbes << PBES::kSecondAlg << PKI_ALG_AES_GCM));
    EXPECT_THAT(watch.calls(), ElementsAre("select: 1", "supply: buffer secret", "select: 3",
                                           "supply: number 1000", "select: 6", "supply: alg 9"));
}

TEST_F(PbesTest, TypeThatIsNoneLeavesItWithoutObject) {
    watch.record();
    const mmPBES pbes(static_cast<PBES::pbes_type>(2));
    EXPECT_EQ(nullptr, pbes.target());
    EXPECT_THAT(watch.calls(), IsEmpty());
    EXPECT_EQ(1, pkcs5srv.uses());
}

TEST_F(PbesTest, WithoutObjectNothingIsCalledAndEveryCallSaysSo) {
    mmPBES pbes(static_cast<PBES*>(nullptr));
    watch.record();
    setParameters(pbes, "secret");
    EXPECT_EQ(kNoObject, pbes.setKey(aKey(nullptr)));
    EXPECT_EQ(nullptr, pbes.getKey().target());
    EXPECT_EQ(kNoObject, pbes.getKey().error());
    EXPECT_EQ(nullptr, pbes.encrypt(aBuf("xy")).target());
    EXPECT_EQ(kNoObject, pbes.encrypt(aBuf("xy")).error());
    EXPECT_EQ(nullptr, pbes.decrypt(aBuf("xy")).target());
    EXPECT_EQ(kNoObject, pbes.decrypt(aBuf("xy")).error());
    EXPECT_EQ(kNoObject, pbes.error());
    EXPECT_THAT(watch.calls(), IsEmpty());
}

TEST_F(PbesTest, EncryptsWithTheDerivedKey) {
    mmPBES pbes(PBES::kPbkdf2);
    mmPBES wrong(PBES::kPbkdf2);
    setParameters(pbes, "secret");
    setParameters(wrong, "Secret");
    EXPECT_EQ(16U, pbes.getKey().getRaw().len());
    const aBuf sealed = pbes.encrypt(aBuf("plain"));
    EXPECT_EQ(kOk, sealed.error());
    EXPECT_EQ("plain", contents(pbes.decrypt(sealed)));
    EXPECT_EQ(nullptr, wrong.decrypt(sealed).target());
    EXPECT_EQ(kIo, wrong.error());
    EXPECT_EQ(kOk, wrong.setKey(pbes.getKey()));
    EXPECT_EQ("plain", contents(wrong.decrypt(sealed)));
}

TEST_F(PbesTest, WrapsAGivenObject) {
    mmPBES pbes(PBES::kPbkdf2);
    setParameters(pbes, "secret");
    const mmPBES same(pbes.target());
    const mmPBES copy(pbes);
    EXPECT_EQ(3, pbes.target()->references());
    EXPECT_EQ(3, pkcs5srv.uses());
    EXPECT_EQ("plain", contents(same.decrypt(copy.encrypt(aBuf("plain")))));
}

TEST_F(PbesTest, FailuresOfTheServicePassThrough) {
    mmPBES pbes(PBES::kPbkdf2);
    setParameters(pbes, "secret");
    watch.failAt("setKey", 1, kOther);
    EXPECT_EQ(kOther, pbes.setKey(aKey(nullptr)));
    watch.failAt("getKey", 1, kOther);
    EXPECT_EQ(nullptr, pbes.getKey().target());
    EXPECT_EQ(kOther, pbes.error());
    watch.failAt("encrypt", 1, kOther);
    EXPECT_EQ(nullptr, pbes.encrypt(aBuf("xy")).target());
    EXPECT_EQ(kOther, pbes.error());
    (void)(pbes << PBES::kSalt << none);
    EXPECT_EQ(kInvalid, pbes.error());
}

TEST_F(P12PbkdfTest, EveryCallReachesTheObjectUnderItsGuard) {
    mmP12PBKDF kdf;
    setParameters(kdf, "secret");
    const aHashMap map;
    const aBuf arg("xy");
    const std::vector<ForwardedCall<mmP12PBKDF>> rows = {
        {"selector", [](mmP12PBKDF& k) { k << PBES::kSalt; }, "select", {"select: 2"}},
        {"bytes", [&](mmP12PBKDF& k) { k << arg; }, "supply", {"supply: buffer xy"}},
        {"number", [](mmP12PBKDF& k) { k << 16U; }, "supply", {"supply: number 16"}},
        {"algorithm", [](mmP12PBKDF& k) { k << PKI_ALG_SHA1; }, "supply", {"supply: alg 65536"}},
        {"getKey",
         [](mmP12PBKDF& k) { (void)k.getKey(P12PBKDF::kMacKey); },
         "getKey",
         {"getKey: 3"}},
        {"setHashMap",
         [&](mmP12PBKDF& k) { (void)k.setHashMap(map); },
         "setHashMap",
         {"setHashMap: map"}},
        {"error", [](mmP12PBKDF& k) { (void)k.error(); }, "error", {"error"}},
    };
    expectForwarded(rows, kdf, *kdf.target(), watch);
}

TEST_F(P12PbkdfTest, WithoutObjectNothingIsCalledAndEveryCallSaysSo) {
    mmP12PBKDF kdf(nullptr);
    const aHashMap map;
    watch.record();
    setParameters(kdf, "secret");
    EXPECT_EQ(nullptr, kdf.getKey(P12PBKDF::kMacKey).target());
    EXPECT_EQ(kNoObject, kdf.getKey(P12PBKDF::kMacKey).error());
    EXPECT_EQ(kNoObject, kdf.setHashMap(map));
    EXPECT_EQ(kNoObject, kdf.error());
    EXPECT_THAT(watch.calls(), IsEmpty());
}

TEST_F(P12PbkdfTest, DerivesAKeyPerPurpose) {
    mmP12PBKDF kdf;
    setParameters(kdf, "secret");
    const aKey encryption = kdf.getKey(P12PBKDF::kEncryptionKey);
    const aKey mac = kdf.getKey(P12PBKDF::kMacKey);
    EXPECT_EQ(16U, encryption.getRaw().len());
    EXPECT_TRUE(encryption.getRaw() != mac.getRaw());
    EXPECT_FALSE(mac.getRaw() != mmP12PBKDF(kdf.target()).getKey(P12PBKDF::kMacKey).getRaw());
    EXPECT_EQ(nullptr, mmP12PBKDF().getKey(P12PBKDF::kMacKey).target());
}

TEST_F(P12PbkdfTest, TakesAndLeavesKeysInTheMap) {
    mmP12PBKDF kdf;
    setParameters(kdf, "secret");
    const aHashMap map;
    EXPECT_EQ(kOk, kdf.setHashMap(map));
    const aBuf first = kdf.getKey(P12PBKDF::kMacKey).getRaw();
    watch.record();
    EXPECT_FALSE(first != kdf.getKey(P12PBKDF::kMacKey).getRaw());
    EXPECT_THAT(watch.calls(), ElementsAre("getKey: 3", testing::StartsWith("find")));
    EXPECT_EQ(kOk, kdf.setHashMap(aHashMap(nullptr)));
    EXPECT_EQ(1, map.target()->references());
}

TEST_F(HashMapTest, EveryCallReachesTheMapUnderItsGuard) {
    aHashMapFull map;
    const aBuf key("k");
    const aBuf value("v");
    const std::vector<ForwardedCall<aHashMapFull>> rows = {
        {"add",
         [&](aHashMapFull& m) { (void)m.add(key, value); },
         "add",
         {"add: buffer k, buffer v"}},
        {"find", [&](aHashMapFull& m) { (void)m.find(key); }, "find", {"find: buffer k"}},
    };
    expectForwarded(rows, map, *map.target(), watch);
}

TEST_F(HashMapTest, FindsWhatWasAdded) {
    aHashMapFull map;
    EXPECT_EQ(kOk, map.add(aBuf("k"), aBuf("old")));
    EXPECT_EQ(kOk, map.add(aBuf("k"), aBuf("new")));
    EXPECT_EQ("new", contents(map.find(aBuf("k"))));
    const aBuf absent = map.find(aBuf("K"));
    EXPECT_EQ(nullptr, absent.target());
    EXPECT_EQ(kNoObject, absent.error());
}

TEST_F(HashMapTest, WithoutMapNothingIsCalledAndEveryCallSaysSo) {
    aHashMapFull map(static_cast<HashMap*>(nullptr));
    watch.record();
    EXPECT_EQ(kNoObject, map.add(aBuf("k"), aBuf("v")));
    EXPECT_EQ(nullptr, map.find(aBuf("k")).target());
    EXPECT_EQ(kNoObject, map.find(aBuf("k")).error());
    EXPECT_THAT(watch.calls(), IsEmpty());
}

TEST_F(HashMapTest, FullHandlesShareTheMap) {
    const aHashMap map;
    aHashMapFull full(map);
    const aHashMapFull wrapped(map.target());
    EXPECT_EQ(3, map.target()->references());
    EXPECT_EQ(3, pkcs5srv.uses());
    EXPECT_EQ(kOk, full.add(aBuf("k"), aBuf("v")));
    EXPECT_EQ("v", contents(wrapped.find(aBuf("k"))));
}

TEST_F(HashMapTest, StatusAndMissingBuffersPassThrough) {
    aHashMapFull map;
    EXPECT_EQ(kInvalid, map.add(none, aBuf("v")));
    EXPECT_EQ(kInvalid, map.add(aBuf("k"), none));
    EXPECT_EQ(nullptr, map.find(none).target());
    watch.failAt("add", 1, kOther);
    EXPECT_EQ(kOther, map.add(aBuf("k"), aBuf("v")));
}

}  // namespace
