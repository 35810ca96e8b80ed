// The record cipher, on a double of the encryption service that tells what it is
// asked and fails when it is told to.
#include "store/crypto_coder.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/doubles/idle.h"
#include "tests/support/test_store.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
}

std::string text(const aBuf& buffer) {
    return buffer.target() == nullptr ? "(nothing)" : bytesOf(buffer.target());
}

class CryptoCoderTest : public testing::Test {
protected:
    Status setKey(const char* password) {
        aBuf key(password);
        return coder.setKey(key);
    }

    static std::string encrypted(CryptoCoder& with, const char* plain) {
        aBuf data(plain);
        return text(with.encrypt(data));
    }

    static std::string decrypted(CryptoCoder& with, const std::string& cipher) {
        aBuf data(dataOf(cipher), sizeOf(cipher));
        return text(with.decrypt(data));
    }

    TestStore store;
    CallWatch& watch = store.services().pkcs5().watch();
    CMN_GRefPtr<CryptoCoder> held{new CryptoCoder};
    CryptoCoder& coder = *held.get();
};

TEST_F(CryptoCoderTest, KeyIsMadeOfTheseParametersInThisOrder) {
    watch.record();
    EXPECT_EQ(kOk, setKey("secret"));
    EXPECT_THAT(watch.calls(), ElementsAre("createObject: 0",                     //
                                           "select: 1", "supply: buffer secret",  //
                                           "select: 2", "supply: buffer ",        // an empty salt
                                           "select: 3", "supply: number 1000",    //
                                           "select: 5", "supply: number 16",   // before parameter 4
                                           "select: 4", "supply: alg 131072",  //
                                           "select: 6", "supply: alg 9",       //
                                           "getKey"));
}

// A service may remember an error, or report one until it has all of its parameters:
// the key alone tells.
TEST_F(CryptoCoderTest, KeyDecidesWhateverTheServiceReportsBefore) {
    watch.failAt("error", 1, kInvalid, CallWatch::kLasting);
    EXPECT_EQ(kOk, setKey("secret"));
    (void)watch.lift();
    EXPECT_EQ("plain", decrypted(coder, encrypted(coder, "plain")));
}

TEST_F(CryptoCoderTest, EncryptsAndDecryptsByTheKeptObjectAlone) {
    ASSERT_EQ(kOk, setKey("secret"));
    watch.record();
    const std::string cipher = encrypted(coder, "plain");
    EXPECT_EQ("plain", decrypted(coder, cipher));
    EXPECT_THAT(watch.calls(), ElementsAre("encrypt: buffer plain", "decrypt: buffer " + cipher));
    EXPECT_THAT(watch.raised(), Each(1)) << "its guard is raised";
}

TEST_F(CryptoCoderTest, LeavesTheInputAsItWas) {
    ASSERT_EQ(kOk, setKey("secret"));
    aBuf data("plain");
    aBuf cipher = coder.encrypt(data);
    EXPECT_EQ("plain", text(data));
    const std::string before = text(cipher);
    EXPECT_EQ("plain", text(coder.decrypt(cipher)));
    EXPECT_EQ(before, text(cipher));
}

TEST_F(CryptoCoderTest, WithoutKeyThereIsNoResult) {
    EXPECT_EQ("(nothing)", encrypted(coder, "plain"));
    EXPECT_EQ("(nothing)", decrypted(coder, "cipher"));
    ASSERT_EQ(kOk, setKey("secret"));
    const std::string cipher = encrypted(coder, "plain");
    aBuf none = noBuffer();
    EXPECT_EQ(kOk, coder.setKey(none)) << "removes the key";
    EXPECT_EQ("(nothing)", encrypted(coder, "plain"));
    EXPECT_EQ("(nothing)", decrypted(coder, cipher));
    EXPECT_EQ(kOk, coder.setKey(none)) << "also when there is none";
}

TEST_F(CryptoCoderTest, NoDataHasNoResult) {
    ASSERT_EQ(kOk, setKey("secret"));
    aBuf none = noBuffer();
    EXPECT_EQ(nullptr, coder.encrypt(none).target());
    EXPECT_EQ(nullptr, coder.decrypt(none).target());
}

TEST_F(CryptoCoderTest, EmptyPasswordIsAKey) {
    EXPECT_EQ(kOk, setKey(""));
    EXPECT_EQ("plain", decrypted(coder, encrypted(coder, "plain")));
}

TEST_F(CryptoCoderTest, SamePasswordDecryptsElsewhereAndAnotherDoesNot) {
    ASSERT_EQ(kOk, setKey("secret"));
    const std::string cipher = encrypted(coder, "plain");
    const CMN_GRefPtr<CryptoCoder> other(new CryptoCoder);
    aBuf same("secret");
    ASSERT_EQ(kOk, other.get()->setKey(same));
    EXPECT_EQ("plain", decrypted(*other.get(), cipher));
    aBuf another("Secret");
    ASSERT_EQ(kOk, other.get()->setKey(another));
    EXPECT_EQ("(nothing)", decrypted(*other.get(), cipher));
    EXPECT_EQ("(nothing)", decrypted(coder, cipher + "x"));
    EXPECT_EQ("(nothing)", decrypted(coder, ""));
}

TEST_F(CryptoCoderTest, PasswordIsItsBytesAlsoNulAmongThem) {
    const std::string password("a\0b", 3);
    aBuf key(dataOf(password), sizeOf(password));
    ASSERT_EQ(kOk, coder.setKey(key));
    const std::string cipher = encrypted(coder, "plain");
    ASSERT_EQ(kOk, setKey("a"));
    EXPECT_EQ("(nothing)", decrypted(coder, cipher));
}

// Want of memory is told apart from all other failures, which a wrong key is one of.
TEST_F(CryptoCoderTest, WhatDoesNotDecryptTellsWhetherMemoryWasShort) {
    ASSERT_EQ(kOk, setKey("secret"));
    aBuf plain("plain");
    aBuf cipher = coder.encrypt(plain);
    for (const Status failure : {kNoMemory, kIo, kMalformed, kNoObject}) {
        SCOPED_TRACE(failure);
        const Status told = failure == kNoMemory ? kNoMemory : kNoObject;
        watch.failAt("decrypt", 1, failure);
        EXPECT_EQ(told, coder.decrypt(cipher).error());
    }
    EXPECT_EQ(kNoObject, coder.decrypt(plain).error()) << "was never encrypted";
    EXPECT_EQ(kOk, coder.decrypt(cipher).error());
}

// Whatever step of the derivation fails, the key is the one before.
TEST_F(CryptoCoderTest, FailedDerivationKeepsTheKey) {
    ASSERT_EQ(kOk, setKey("secret"));
    const std::string cipher = encrypted(coder, "plain");
    const struct {
        const char* what;
        int times;
        CallWatch& watch;
    } rows[] = {{"createObject", 1, watch},
                {"select", 6, watch},
                {"supply", 6, watch},
                {"getKey", 1, watch},
                {"createTBuf", 2, store.services().x509cmn().watch()},
                {"createTKey", 1, store.services().pkixkey().watch()}};
    aBuf other("other");
    for (const auto& row : rows) {
        int failures = 0;
        for (;; ++failures) {
            SCOPED_TRACE(row.what + std::to_string(failures + 1));
            row.watch.failAt(row.what, failures + 1);
            const Status status = coder.setKey(other);
            if (!row.watch.lift()) {
                EXPECT_EQ(kOk, status);
                break;
            }
            EXPECT_EQ(kIo, status);
            EXPECT_EQ("plain", decrypted(coder, cipher));
        }
        EXPECT_EQ(row.times, failures);
        EXPECT_EQ("(nothing)", decrypted(coder, cipher)) << "the other key is in force";
        ASSERT_EQ(kOk, setKey("secret"));
    }
}

TEST_F(CryptoCoderTest, FailedCipherHasNoResult) {
    ASSERT_EQ(kOk, setKey("secret"));
    const std::string cipher = encrypted(coder, "plain");
    watch.failAt("encrypt");
    EXPECT_EQ("(nothing)", encrypted(coder, "plain"));
    watch.failAt("decrypt");
    EXPECT_EQ("(nothing)", decrypted(coder, cipher));
    EXPECT_EQ("plain", decrypted(coder, cipher));
}

TEST_F(CryptoCoderTest, InitAndFiniDoNothing) {
    ASSERT_EQ(kOk, setKey("secret"));
    EXPECT_EQ(kOk, coder.init());
    EXPECT_EQ(kOk, coder.fini());
    EXPECT_EQ("plain", decrypted(coder, encrypted(coder, "plain")));
}

// Threads.

// An event that threads wait for, for a while.
class Event {
public:
    void happen() {
        const std::lock_guard locked(mutex_);
        happened_ = true;
        changed_.notify_all();
    }
    bool wait() {
        std::unique_lock locked(mutex_);
        return changed_.wait_for(locked, std::chrono::seconds(20), [this] { return happened_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool happened_ = false;
};

// An encryption service whose objects let a test look in while they work.
class SlowPbes final : public IdlePbes {
public:
    using Step = std::function<void()>;

    SlowPbes(Step deriving, Step encrypting)
        : deriving_(std::move(deriving)), encrypting_(std::move(encrypting)) {
        ++alive;
    }
    ~SlowPbes() override { --alive; }

    static inline int alive = 0;

    TKey* getKey() override {
        deriving_();
        return pkixKeyClnt.createTKey(TKey::kSymmetric);
    }
    TBuf* encrypt(TBuf* plain) override {
        encrypting_();
        return createTBuf(plain);
    }
    TBuf* decrypt(TBuf* cipher) override { return createTBuf(cipher); }
    Status error() override { return told; }

    static inline Status told = kOk;  // by error()

private:
    Step deriving_;
    Step encrypting_;
};

class SlowPkcs5 final : public DoublePkcs5 {
public:
    CMN_GuardedRef* createObject(objectName_t /*name*/) override {
        return new SlowPbes(deriving, encrypting);
    }
    SlowPbes::Step deriving = [] {};
    SlowPbes::Step encrypting = [] {};
};

class CryptoCoderThreadTest : public CryptoCoderTest {
protected:
    CryptoCoderThreadTest() { pkcs5srv = PKCS5(slow.get()); }

    CMN_GRefPtr<SlowPkcs5> slow{new SlowPkcs5};
};

TEST_F(CryptoCoderThreadTest, KeepsOneEncryptionObjectWhileItHasAKey) {
    const int before = SlowPbes::alive;
    ASSERT_EQ(kOk, setKey("secret"));
    ASSERT_EQ(kOk, setKey("other"));
    EXPECT_EQ(before + 1, SlowPbes::alive);
    aBuf none = noBuffer();
    ASSERT_EQ(kOk, coder.setKey(none));
    EXPECT_EQ(before, SlowPbes::alive);
    ASSERT_EQ(kOk, setKey("secret"));
    held = nullptr;
    EXPECT_EQ(before, SlowPbes::alive);
}

// An error that sticks, of a parameter long ago, is no reason to refuse: the key decides.
TEST_F(CryptoCoderThreadTest, ServiceWhoseErrorSticksServes) {
    SlowPbes::told = kInvalid;
    EXPECT_EQ(kOk, setKey("secret"));
    aBuf plain("text");
    EXPECT_EQ(4u, coder.encrypt(plain).len());
    SlowPbes::told = kOk;
}

TEST_F(CryptoCoderThreadTest, EncryptsSideBySide) {
    std::atomic<int> inside{0};
    Event both;
    slow.get()->encrypting = [&] {
        if (++inside == 2) {
            both.happen();
        }
        EXPECT_TRUE(both.wait());
    };
    ASSERT_EQ(kOk, setKey("secret"));
    std::thread other([&] { EXPECT_EQ("a", encrypted(coder, "a")); });
    EXPECT_EQ("b", encrypted(coder, "b"));
    other.join();
}

TEST_F(CryptoCoderThreadTest, DerivingAKeyKeepsNobodyWaiting) {
    ASSERT_EQ(kOk, setKey("secret"));
    Event derives;
    Event encryptedMeanwhile;
    slow.get()->deriving = [&] {
        derives.happen();
        EXPECT_TRUE(encryptedMeanwhile.wait());
    };
    std::thread other([&] { EXPECT_EQ(kOk, setKey("other")); });
    EXPECT_TRUE(derives.wait());
    EXPECT_EQ("plain", encrypted(coder, "plain"));
    encryptedMeanwhile.happen();
    other.join();
}

TEST_F(CryptoCoderThreadTest, NewKeyWaitsForWhoIsEncrypting) {
    Event encrypts;
    std::atomic<bool> keySet{false};
    slow.get()->encrypting = [&] {
        encrypts.happen();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(keySet);
    };
    ASSERT_EQ(kOk, setKey("secret"));
    std::thread other([&] { EXPECT_EQ("plain", encrypted(coder, "plain")); });
    EXPECT_TRUE(encrypts.wait());
    EXPECT_EQ(kOk, setKey("other"));
    keySet = true;
    other.join();
}

// Each result is that of one key or of the other, or there is none without a key.
TEST_F(CryptoCoderTest, KeysChangeUnderManyThreads) {
    const CMN_GRefPtr<CryptoCoder> coders[] = {CMN_GRefPtr<CryptoCoder>(new CryptoCoder),
                                               CMN_GRefPtr<CryptoCoder>(new CryptoCoder)};
    aBuf first("first");
    aBuf second("second");
    ASSERT_EQ(kOk, coders[0].get()->setKey(first));
    ASSERT_EQ(kOk, coders[1].get()->setKey(second));
    ASSERT_EQ(kOk, setKey("first"));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                const std::string cipher = encrypted(coder, "plain");
                if (cipher != "(nothing)") {
                    EXPECT_TRUE(decrypted(*coders[0].get(), cipher) == "plain" ||
                                decrypted(*coders[1].get(), cipher) == "plain");
                }
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(kOk, setKey(round % 2 == 0 ? "second" : "first"));
        if (round % 5 == 0) {
            aBuf none = noBuffer();
            EXPECT_EQ(kOk, coder.setKey(none));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
