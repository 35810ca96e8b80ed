#include "client/pkixakey.h"

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
constexpr unsigned int kServiceId = DoubleServices::kPkixKeyId;

const unsigned char kBytes[] = {'a', 'b', 'c'};

std::string contents(const aBuf& buf) {
    return bytesOf(buf.target());
}

class KeyTest : public testing::Test {
protected:
    // All operations of the handle. Those that ask the key how it went are marked
    // by the second call.
    std::vector<ForwardedCall<aKey>> operations() {
        return {
            {"getType", [](aKey& k) { (void)k.getType(); }, "getType", {"getType", "getError"}},
            {"setAlg", [](aKey& k) { (void)k.setAlg(PKI_ALG_RSA); }, "setAlg", {"setAlg: 1"}},
            {"getAlg", [](aKey& k) { (void)k.getAlg(); }, "getAlg", {"getAlg", "getError"}},
            {"getKey", [](aKey& k) { (void)k.getKey(); }, "getKey", {"getKey", "getError"}},
            {"setKey", [&](aKey& k) { (void)k.setKey(arg); }, "setKey", {"setKey: buffer xy"}},
            {"setParam of a tag",
             [&](aKey& k) { (void)k.setParam(tag, arg); },
             "setParam tag",
             {"setParam tag: 200, buffer xy"}},
            {"setParam of bytes",
             [&](aKey& k) { (void)k.setParam(TKey::kModulus, arg); },
             "setParam aka",
             {"setParam aka: 3, buffer xy"}},
            {"setParam of a number",
             [](aKey& k) { (void)k.setParam(TKey::kUsage, -5); },
             "setParam bka",
             {"setParam bka: 4, -5"}},
            {"getParam of a tag",
             [&](aKey& k) { (void)k.getParam(tag); },
             "getParam tag",
             {"getParam tag: 200", "getError"}},
            {"getParam of bytes",
             [](aKey& k) { (void)k.getParam(TKey::kModulus); },
             "getParam aka",
             {"getParam aka: 3", "getError"}},
            {"getParam of a number",
             [](aKey& k) { (void)k.getParam(TKey::kUsage); },
             "getParam bka",
             {"getParam bka: 4", "getError"}},
            {"getRaw", [](aKey& k) { (void)k.getRaw(); }, "getRaw", {"getRaw", "getError"}},
            {"setRaw of bytes",
             [](aKey& k) { (void)k.setRaw(kBytes, 3); },
             "setRaw",
             {"setRaw: bytes abc"}},
            {"setRaw of a buffer",
             [&](aKey& k) { (void)k.setRaw(arg); },
             "setRaw",
             {"setRaw: buffer xy"}},
            {"setTokenId",
             [](aKey& k) { (void)k.setTokenId(3, 4); },
             "setTokenId",
             {"setTokenId: 3, 4"}},
            {"getTokenId",
             [&](aKey& k) { (void)k.getTokenId(slot, object); },
             "getTokenId",
             {"getTokenId", "getError"}},
            {"setKeyId",
             [&](aKey& k) { (void)k.setKeyId(arg); },
             "setKeyId",
             {"setKeyId: buffer xy"}},
            {"getKeyId", [](aKey& k) { (void)k.getKeyId(); }, "getKeyId", {"getKeyId", "getError"}},
            {"setVendor", [](aKey& k) { (void)k.setVendor(5); }, "setVendor", {"setVendor: 5"}},
            {"getVendor",
             [](aKey& k) { (void)k.getVendor(); },
             "getVendor",
             {"getVendor", "getError"}},
            {"sign", [&](aKey& k) { (void)k.sign(arg); }, "sign", {"sign: buffer xy", "getError"}},
            {"verify",
             [&](aKey& k) { (void)k.verify(arg, second); },
             "verify",
             {"verify: buffer xy, buffer z"}},
            {"encrypt",
             [&](aKey& k) { (void)k.encrypt(arg); },
             "encrypt",
             {"encrypt: buffer xy", "getError"}},
            {"decrypt",
             [&](aKey& k) { (void)k.decrypt(arg); },
             "decrypt",
             {"decrypt: buffer xy", "getError"}},
            {"isConsistent",
             [&](aKey& k) { (void)k.isConsistent(other, 1); },
             "isConsistent",
             {"isConsistent: key abc, 1"}},
        };
    }

    DoubleServices services;
    FakeHost& host = services.host();
    CallWatch& watch = services.pkixkey().watch();
    aBuf arg{"xy"};
    aBuf second{"z"};
    aKey other{TKey::kSymmetric, kBytes, 3};
    unsigned int slot = 0;
    unsigned int object = 0;
    static constexpr unsigned char tag = 200;
};

TEST_F(KeyTest, EveryCallReachesTheKeyUnderItsGuard) {
    aKey key(TKey::kSymmetric);
    expectForwarded(operations(), key, *key.target(), watch);
}

TEST_F(KeyTest, ErrorOfEveryCallIsTheKeysOwn) {
    aKey key(TKey::kSymmetric);
    for (const auto& row : operations()) {
        SCOPED_TRACE(row.name);
        watch.failAt(row.operation, 1, kOther);
        row.call(key);
        EXPECT_EQ(kOther, key.error());
        (void)key.setVendor(0);
        EXPECT_EQ(kOk, key.error());
    }
}

TEST_F(KeyTest, WithoutKeyNothingIsCalledAndEveryCallSaysSo) {
    watch.record();
    for (const auto& row : operations()) {
        SCOPED_TRACE(row.name);
        aKey none(nullptr);
        EXPECT_EQ(kNoObject, none.error());
        row.call(none);
        EXPECT_EQ(kNoObject, none.error());
    }
    EXPECT_THAT(watch.calls(), IsEmpty());
}

TEST_F(KeyTest, WithoutKeyEveryCallAnswersAsTabled) {
    aKey none(nullptr);
    EXPECT_EQ(TKey::kNone, none.getType());
    EXPECT_EQ(PKI_ALG_NONE, none.getAlg());
    EXPECT_EQ(0, none.getParam(TKey::kBits));
    EXPECT_EQ(0U, none.getVendor());
    const struct {
        const char* name;
        aBuf answer;
    } buffers[] = {
        {"getKey", none.getKey()},
        {"getParam of a tag", none.getParam(tag)},
        {"getParam of bytes", none.getParam(TKey::kModulus)},
        {"getRaw", none.getRaw()},
        {"getKeyId", none.getKeyId()},
        {"sign", none.sign(arg)},
        {"encrypt", none.encrypt(arg)},
        {"decrypt", none.decrypt(arg)},
    };
    for (const auto& row : buffers) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(nullptr, row.answer.target());
        EXPECT_EQ(kNoObject, row.answer.error());
    }
    const struct {
        const char* name;
        Status answer;
    } statuses[] = {
        {"setAlg", none.setAlg(PKI_ALG_RSA)},
        {"setKey", none.setKey(arg)},
        {"setParam of a tag", none.setParam(tag, arg)},
        {"setParam of bytes", none.setParam(TKey::kModulus, arg)},
        {"setParam of a number", none.setParam(TKey::kUsage, 1)},
        {"setRaw of bytes", none.setRaw(kBytes, 3)},
        {"setRaw of a buffer", none.setRaw(arg)},
        {"setTokenId", none.setTokenId(1, 2)},
        {"getTokenId", none.getTokenId(slot, object)},
        {"setKeyId", none.setKeyId(arg)},
        {"setVendor", none.setVendor(1)},
        {"verify", none.verify(arg, second)},
        {"isConsistent", none.isConsistent(other, 0)},
    };
    for (const auto& row : statuses) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(kNoObject, row.answer);
    }
}

TEST_F(KeyTest, WhatIsSetIsGot) {
    aKey key(TKey::kRsa);
    EXPECT_EQ(TKey::kRsa, key.getType());
    EXPECT_EQ(kOk, key.setAlg(PKI_ALG_AES_GCM));
    EXPECT_EQ(PKI_ALG_AES_GCM, key.getAlg());
    EXPECT_EQ(kOk, key.setKey(arg));
    EXPECT_EQ("xy", contents(key.getKey()));
    EXPECT_EQ(kOk, key.setRaw(kBytes, 3));
    EXPECT_EQ("abc", contents(key.getRaw()));
    EXPECT_EQ(kOk, key.setRaw(arg));
    EXPECT_EQ("xy", contents(key.getRaw()));
    EXPECT_EQ(kOk, key.setParam(tag, arg));
    EXPECT_EQ("xy", contents(key.getParam(tag)));
    EXPECT_EQ(kOk, key.setParam(TKey::kModulus, second));
    EXPECT_EQ("z", contents(key.getParam(TKey::kModulus)));
    EXPECT_EQ(kOk, key.setParam(TKey::kUsage, 7));
    EXPECT_EQ(7, key.getParam(TKey::kUsage));
    EXPECT_EQ(kOk, key.setKeyId(second));
    EXPECT_EQ("z", contents(key.getKeyId()));
    EXPECT_EQ(kOk, key.setTokenId(3, 4));
    EXPECT_EQ(kOk, key.getTokenId(slot, object));
    EXPECT_EQ(3U, slot);
    EXPECT_EQ(4U, object);
    EXPECT_EQ(kOk, key.setVendor(5));
    EXPECT_EQ(5U, key.getVendor());
}

TEST_F(KeyTest, SignsAndEncrypts) {
    aKey key(TKey::kSymmetric, kBytes, 3);
    aBuf signature = key.sign(arg);
    EXPECT_EQ(kOk, key.verify(arg, signature));
    EXPECT_EQ(kIo, key.verify(second, signature));
    aBuf cipher = key.encrypt(arg);
    EXPECT_NE("xy", contents(cipher));
    EXPECT_EQ("xy", contents(key.decrypt(cipher)));
    EXPECT_EQ(nullptr, key.decrypt(arg).target());
    EXPECT_EQ(kIo, key.error());
    EXPECT_EQ(kOk, key.isConsistent(other, 0));
}

TEST_F(KeyTest, ArgumentsWithoutObjectArePassedOnAsNull) {
    aKey key(TKey::kSymmetric);
    aBuf noBuf(static_cast<TBuf*>(nullptr));
    aKey noKey(nullptr);
    watch.record();
    EXPECT_EQ(kInvalid, key.setKey(noBuf));
    EXPECT_EQ(kOk, key.isConsistent(noKey, 0));
    EXPECT_THAT(watch.calls(), ElementsAre("setKey: no buffer", "isConsistent: no key, 0"));
}

TEST_F(KeyTest, NewKeysAreMadeByTheService) {
    watch.record();
    const aKey ofType(TKey::kRsa);
    const aKey ofBytes(TKey::kSymmetric, kBytes, 3);
    EXPECT_THAT(watch.calls(), ElementsAre("createTKey: 2", "createTKey: 1, bytes abc"));
    for (const aKey* key : {&ofType, &ofBytes}) {
        ASSERT_NE(nullptr, key->target());
        EXPECT_EQ(1, key->target()->references());
        EXPECT_EQ(kOk, key->error());
    }
}

TEST_F(KeyTest, FailedCreationLeavesAHandleWithoutKey) {
    watch.failAt("createTKey", 1, kNoMemory, CallWatch::kLasting);
    for (const aKey& key : {aKey(TKey::kRsa), aKey(TKey::kSymmetric, kBytes, 3)}) {
        EXPECT_EQ(nullptr, key.target());
        EXPECT_EQ(kNoObject, key.error());
    }
}

TEST(KeyServiceTest, WithoutServiceThereIsNoKey) {
    DoubleServices services;
    services.host().withdraw(kServiceId);
    const aKey key(TKey::kRsa);
    EXPECT_EQ(nullptr, key.target());
    EXPECT_EQ(kNoObject, key.error());
    EXPECT_EQ(1, pkixKeyClnt.uses());
}

TEST(KeyServiceTest, StaysAcquiredUntilTheLastHandleGoes) {
    DoubleServices services;
    {
        const aKey first(TKey::kRsa);
        {
            const aKey second(TKey::kRsa);
            const aKey copy(second);
            EXPECT_EQ(second.target(), copy.target());
            EXPECT_EQ(3, pkixKeyClnt.uses());
        }
        EXPECT_EQ(1, services.host().uses(kServiceId));
    }
    EXPECT_THAT(services.host().calls(),
                ElementsAre("acquire 4128776 by 107", "release 4128776 by 107"));
    EXPECT_EQ(nullptr, pkixKeyClnt.service());
}

}  // namespace
