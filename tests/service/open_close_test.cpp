// The open state of the database, and the key that comes and goes with it.
#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fs_fault.h"
#include "tests/support/test_store.h"

namespace {

namespace fs = std::filesystem;

const Contents kSecret{{{2, 1, "attribute", true}}, "body", true};

Status open(const char* password) {
    return CMN_FILESTORE_S.open(password);
}
Status close() {
    return CMN_FILESTORE_S.close();
}

bool encrypts(aCryptoEncoder encoder) {
    aBuf plain("plain");
    return encoder.encrypt(plain).target() != nullptr;
}

// The database is closed, and neither cipher has a key.
void expectClosed() {
    EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
    EXPECT_FALSE(encrypts(CMN_FILESTORE_S.getEncoder()));
    aBuf own("secret");
    aBuf plain("plain");
    aBuf cipher(static_cast<TBuf*>(nullptr));
    ASSERT_EQ(kOk, CMN_FILESTORE_S.encode(own, plain, cipher));
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.getDecoder().decrypt(cipher).target());
    EXPECT_EQ(kClosed, close());
}

TEST(OpenCloseTest, GoesRoundBetweenClosedAndOpen) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    store.restart(nullptr);
    expectClosed();
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);
        EXPECT_EQ(kOk, open("secret"));
        EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
        EXPECT_EQ(kAlreadyOpen, open("secret"));
        EXPECT_EQ(kAlreadyOpen, open("wrong"));
        EXPECT_EQ(kAlreadyOpen, open(nullptr));
        EXPECT_EQ(kSecret, TestStore::load("a"));
        EXPECT_EQ(kOk, close());
        expectClosed();
    }
}

TEST(OpenCloseTest, EmptyPasswordIsAKeyLikeAnyOther) {
    TestStore store("");
    ASSERT_EQ(kOk, close());
    EXPECT_EQ(kWrongPassword, open("any"));
    expectClosed();
    EXPECT_EQ(kOk, open(""));
    aBuf plain("plain");
    aBuf cipher = CMN_FILESTORE_S.getEncoder().encrypt(plain);
    ASSERT_NE(nullptr, cipher.target());
    aBuf out;
    EXPECT_EQ(kOk, CMN_FILESTORE_S.decode(aBuf(""), cipher, out));
    EXPECT_EQ("plain", bytesOf(out.target()));
}

TEST(OpenCloseTest, PasswordIsAskedAfterFirst) {
    const struct {
        const char* name;
        const char* password;
        const char* record;  // in place of the password record; null: it stays
        Status status;
    } rows[] = {
        {"null", nullptr, nullptr, kInvalid},
        {"wrong", "wrong", nullptr, kWrongPassword},
        {"unreadable record", "secret", "no attribute\n", kNotOpen},
        {"record without digest", "secret", "00000003 00000001 text\n", kNoDigest},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestStore store("secret");
        store.restart(nullptr);
        if (row.record != nullptr) {
            support::writeFile("db/key.dsc", row.record);
        }
        EXPECT_EQ(row.status, open(row.password));
        expectClosed();
    }
}

TEST(OpenCloseTest, FailureLeavesNoKeyBehind) {
    const struct {
        const char* name;
        const char* service;  // whose
        const char* call;     // fails
        int nth;
    } rows[] = {
        {"buffer of the key", "x509cmn", "createTBuf", 1},
        {"key of the encoder", "pkcs5", "getKey", 1},
        {"key of the decoder", "pkcs5", "getKey", 2},
        {"encryption object of the encoder", "pkcs5", "createObject", 1},
        {"encryption object of the decoder", "pkcs5", "createObject", 2},
    };
    for (const auto& row : rows) {
        for (const auto lasting : {CallWatch::kOnce, CallWatch::kLasting}) {
            SCOPED_TRACE(std::string(row.name) + (lasting ? ", for good" : ", once"));
            TestStore store("secret");
            ASSERT_EQ(kOk, TestStore::save("a", kSecret));
            store.restart(nullptr);
            CallWatch& watch = row.service == std::string("pkcs5")
                                   ? store.services().pkcs5().watch()
                                   : store.services().x509cmn().watch();
            watch.failAt(row.call, row.nth, kNoMemory, lasting);
            EXPECT_EQ(kIo, open("secret"));
            EXPECT_TRUE(watch.lift());
            expectClosed();
            EXPECT_EQ(kOk, open("secret"));
            EXPECT_EQ(kSecret, TestStore::load("a"));
        }
    }
}

TEST(OpenCloseTest, CiphersStayAndGetNewKeys) {
    TestStore store("secret");
    aCryptoEncoder encoder = CMN_FILESTORE_S.getEncoder();
    aCryptoDecoder decoder = CMN_FILESTORE_S.getDecoder();
    ASSERT_EQ(kOk, close());
    EXPECT_FALSE(encrypts(encoder));
    ASSERT_EQ(kOk, open("secret"));
    EXPECT_EQ(encoder.target(), CMN_FILESTORE_S.getEncoder().target());
    EXPECT_EQ(decoder.target(), CMN_FILESTORE_S.getDecoder().target());
    aBuf plain("plain");
    aBuf cipher = encoder.encrypt(plain);
    EXPECT_EQ("plain", bytesOf(decoder.decrypt(cipher).target()));
}

TEST(OpenCloseTest, NothingIsLeftOfAKeyThatWasDropped) {
    TestStore store("secret");
    store.host().giveNoGuards();
    const auto round = [&] {
        EXPECT_EQ(kOk, close());
        EXPECT_EQ(kOk, open("secret"));
        store.host().forgetCalls();
        return fault::liveAllocations();
    };
    (void)round();
    const long live = round();
    EXPECT_EQ(live, round());
}

TEST(OpenCloseTest, RecordReadBeforeClosingDecryptsAfterOpening) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    aFileStore record = TestStore::record("a");
    ASSERT_EQ(kOk, record.read());
    ASSERT_EQ(kOk, close());
    EXPECT_EQ(kNotOpen, record.decrypt());
    ASSERT_EQ(kOk, open("secret"));
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(kSecret, contentsOf(record));
}

TEST(OpenCloseTest, FailingCallsLeaveItClosedOrOpenedRight) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    for (const char* const password : {"secret", "wrong", ""}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(std::string(password) + ", call " + std::to_string(nth));
            store.restart(nullptr);
            fault::FailingCall failing(nth, EIO);
            const Status status = open(password);
            const bool struck = failing.lift();
            EXPECT_EQ(status == kOk ? 1 : 0, CMN_FILESTORE_S.isOpen());
            if (status == kOk) {
                EXPECT_STREQ("secret", password);
                EXPECT_EQ(kSecret, TestStore::load("a"));
            } else {
                EXPECT_TRUE(struck ? status == kNotOpen || status == kWrongPassword
                                   : status == kWrongPassword)
                    << status;
                expectClosed();
            }
            if (!struck) {
                break;
            }
        }
    }
}

TEST(OpenCloseTest, FailingAllocationsLeaveItClosedOrOpenedRight) {
    using fault::FailingAllocation;
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    store.restart(nullptr);
    ASSERT_EQ(kOk, open("secret"));
    ASSERT_EQ(kOk, close());
    for (const auto mode : {FailingAllocation::Mode::kOnce, FailingAllocation::Mode::kFromThenOn}) {
        for (long nth = 1;; ++nth) {
            FailingAllocation failing(nth, mode);
            const Status status = open("secret");
            const bool struck = failing.lift();
            SCOPED_TRACE("allocation " + std::to_string(nth));
            EXPECT_EQ(status == kOk ? 1 : 0, CMN_FILESTORE_S.isOpen());
            if (status == kOk) {
                EXPECT_EQ(kSecret, TestStore::load("a"));
                ASSERT_EQ(kOk, close());
            } else {
                EXPECT_TRUE(status == kNoMemory || status == kIo || status == kNotOpen) << status;
            }
            expectClosed();
            if (!struck) {
                EXPECT_EQ(kOk, status);
                break;
            }
        }
    }
}

// A key that cannot be dropped for lack of memory would stay.
TEST(OpenCloseTest, ClosingNeedsNoMemory) {
    TestStore store("secret");
    store.host().giveNoGuards();
    fault::FailingAllocation failing(1, fault::FailingAllocation::Mode::kFromThenOn);
    const Status status = close();
    (void)failing.lift();
    EXPECT_EQ(kOk, status);
    expectClosed();
}

}  // namespace
