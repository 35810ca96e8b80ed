// Whichever allocation of a module fails, its operations answer with a status and
// no object, leak nothing, and work again afterwards.
//
// The operations are called without proxies: those would allocate, too.
#include <functional>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "tests/modules/services.h"
#include "tests/support/alloc_fault.h"

namespace {

using fault::FailingAllocation;

// An operation on objects that stand before and after it: true when it succeeded.
struct Operation {
    const char* name;
    std::function<bool()> call;
};

// An object that nobody holds goes as it came.
template <class T>
bool made(T* object) {
    const std::unique_ptr<T> owner(object);
    return object != nullptr;
}

void failEachAllocationOf(const Operation& operation, const std::function<Status()>& lastStatus) {
    ASSERT_TRUE(operation.call()) << operation.name;  // what happens once has happened then
    int failures = 0;
    for (const auto mode : {FailingAllocation::Mode::kOnce, FailingAllocation::Mode::kFromThenOn}) {
        for (long nth = 1;; ++nth) {
            const long before = fault::liveAllocations();
            FailingAllocation failing(nth, mode);
            const bool succeeded = operation.call();
            const Status status = lastStatus();
            const bool hit = failing.lift();
            const bool again = operation.call();
            const long after = fault::liveAllocations();

            SCOPED_TRACE(std::string(operation.name) + ", allocation " + std::to_string(nth));
            EXPECT_TRUE(succeeded ? status == kOk : status == kNoMemory || status == kNoObject)
                << status;
            EXPECT_TRUE(succeeded || hit);
            failures += succeeded ? 0 : 1;
            EXPECT_TRUE(again);
            EXPECT_EQ(before, after);
            if (!hit) {
                break;
            }
        }
    }
    EXPECT_LT(0, failures) << operation.name;
}

aKey keyOf(TKey::key_type_t type, const std::string& bytes) {
    return aKey(type, reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<unsigned int>(bytes.size()));
}

TEST(ModulesFaultTest, Pkcs5SurvivesEveryFailedAllocation) {
    Services services;
    services.host.giveNoGuards();  // which it keeps, and which would look like leaks
    mmPBES proxy(PBES::kPbkdf2);
    mmP12PBKDF kdfProxy;
    const aHashMap map;
    const aBuf password = bufOf(std::string(200, 'p'));
    const aBuf plain = bufOf(std::string(1000, 'm'));
    proxy << PBES::kPassword << password << PBES::kSalt << password << PBES::kIterations << 1U
          << PBES::kKeyLength << 16U << PBES::kFirstAlg << PKI_ALG_PBKDF2_HMAC_SHA256
          << PBES::kSecondAlg << PKI_ALG_AES_GCM;
    kdfProxy << PBES::kPassword << password << PBES::kSalt << password << PBES::kIterations << 1U
             << PBES::kKeyLength << 16U << PBES::kFirstAlg << PKI_ALG_SHA1;
    const aBuf cipher = proxy.encrypt(plain);
    const aKey key = keyOf(TKey::kSymmetric, std::string(32, 'k'));
    PBES& pbes = *proxy.target();
    P12PBKDF& kdf = *kdfProxy.target();
    HashMap& values = *map.target();
    PKCS5_Interface& service = *pkcs5srv.service();

    const auto reset = [&] {  // the key must be derived again
        return pbes.select(PBES::kIterations) == kOk && pbes.supply(1U) == kOk;
    };
    const Operation operations[] = {
        {"scheme", [&] { return made(service.createObject(PKCS5_Interface::kPbes0)); }},
        {"derivation", [&] { return made(service.createObject(PKCS5_Interface::kP12Pbkdf)); }},
        {"map", [&] { return made(service.createObject(PKCS5_Interface::kHashMap)); }},
        {"bytes",
         [&] { return pbes.select(PBES::kSalt) == kOk && pbes.supply(password.target()) == kOk; }},
        {"derive", [&] { return reset() && made(pbes.getKey()); }},
        {"derive and encrypt", [&] { return reset() && made(pbes.encrypt(plain.target())); }},
        {"encrypt", [&] { return made(pbes.encrypt(plain.target())); }},
        {"decrypt", [&] { return made(pbes.decrypt(cipher.target())); }},
        {"set key", [&] { return pbes.setKey(key.target()) == kOk && reset(); }},
        {"derive for a purpose", [&] { return made(kdf.getKey(P12PBKDF::kMacKey)); }},
        {"add", [&] { return values.add(password.target(), plain.target()) == kOk; }},
        {"find", [&] { return made(values.find(password.target())); }},
    };
    for (const Operation& operation : operations) {
        failEachAllocationOf(operation, [&] { return pbes.error(); });
    }
    EXPECT_EQ(textOf(plain), textOf(proxy.decrypt(cipher)));
}

TEST(ModulesFaultTest, KeysSurviveEveryFailedAllocation) {
    Services services;
    services.host.giveNoGuards();  // which it keeps, and which would look like leaks
    const aBuf bytes = bufOf(std::string(200, 'b'));
    const std::string scalar(32, '\1');
    const aBuf raw = bufOf(scalar);
    const aKey ec = keyOf(TKey::kEcP256, scalar);
    aKey changed = keyOf(TKey::kEcP256, std::string(32, '\2'));
    aKey aes = keyOf(TKey::kSymmetric, std::string(16, 'k'));
    aBuf attached = bufOf(std::string(300, 't'));
    ASSERT_EQ(kOk, aes.setParam(static_cast<unsigned char>(1), attached));
    const aBuf encoded = ec.getKey();
    const aBuf cipher(aes.target()->encrypt(bytes.target()));
    TKey& key = *ec.target();
    TKey& symmetric = *aes.target();
    TPkixKeyService& service = *pkixKeyClnt.service();

    const Operation operations[] = {
        {"no type", [&] { return made(service.createTKey()); }},
        {"symmetric",
         [&] { return made(service.createTKey(TKey::kSymmetric, raw.target()->data(), 32)); }},
        {"EC", [&] { return made(service.createTKey(TKey::kEcP256, raw.target()->data(), 32)); }},
        {"duplicate", [&] { return made(symmetric.duplicate()); }},
        {"set key", [&] { return changed.target()->setKey(encoded.target()) == kOk; }},
        {"set raw", [&] { return changed.target()->setRaw(raw.target()) == kOk; }},
        {"attach",
         [&] { return symmetric.setParam(static_cast<unsigned char>(2), bytes.target()) == kOk; }},
        {"attached", [&] { return made(symmetric.getParam(static_cast<unsigned char>(1))); }},
        {"set identifier",
         [&] {
             const std::unique_ptr<TKey> fresh(service.createTKey());
             return fresh != nullptr && fresh->setKeyId(bytes.target()) == kOk;
         }},
        {"identifier", [&] { return made(key.getKeyId()); }},
        {"encoded", [&] { return made(key.getKey()); }},
        {"raw", [&] { return made(key.getRaw()); }},
        {"public part", [&] { return made(key.getParam(TKey::kPublicKeyInfo)); }},
        {"sign", [&] { return made(key.sign(bytes.target())); }},
        {"encrypt", [&] { return made(symmetric.encrypt(bytes.target())); }},
        {"decrypt", [&] { return made(symmetric.decrypt(cipher.target())); }},
    };
    for (const Operation& operation : operations) {
        failEachAllocationOf(operation, [&] { return key.getError(); });
    }
}

}  // namespace
