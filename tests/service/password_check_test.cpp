// The password and its digest in the record "key".
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "format/dsc_text.h"
#include "service/md5.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fs_fault.h"
#include "tests/support/test_store.h"

namespace {

namespace fs = std::filesystem;
using fault::Call;
using fault::Mode;
using namespace std::string_literals;

std::string digestOf(const std::string& password) {
    std::string digest(16, '\0');
    EXPECT_EQ(1, rk5_MD5Compute(nullptr, reinterpret_cast<unsigned char*>(digest.data()),
                                password.data(), sizeOf(password)));
    return digest;
}

std::string lastBitChanged(std::string digest) {
    digest.back() = static_cast<char>(digest.back() ^ 1);
    return digest;
}
std::string firstBitChanged(std::string digest) {
    digest.front() = static_cast<char>(digest.front() ^ 0x80);
    return digest;
}

// The record "key" with these attributes.
void saveKey(const std::vector<Contents::Attribute>& attributes) {
    aFileStore key;
    ASSERT_EQ(kOk, key.setFolderName("./db"));
    ASSERT_EQ(kOk, key.setName("key"));
    fill(key, {attributes, {}, false});
    ASSERT_EQ(kOk, key.write());
}

Status check(const char* password) {
    return CMN_FILESTORE_S.checkPwd(password);
}

TEST(PasswordCheckTest, WithoutRecordThePasswordIsEmpty) {
    TestStore store("");
    EXPECT_EQ(kOk, check(""));
    EXPECT_EQ(kWrongPassword, check("a"));
    EXPECT_EQ(kWrongPassword, check(" "));
    EXPECT_EQ(kInvalid, check(nullptr));
}

TEST(PasswordCheckTest, DigestIsOfTheBytesOfThePassword) {
    for (const std::string& password : {"secret"s, " leading and trailing "s, "\xc3\xa4\xff\x01"s,
                                        std::string(10000, 'x'), ""s}) {
        SCOPED_TRACE(password.substr(0, 30));
        TestStore store("");
        saveKey({{kTypeBinary, 1, digestOf(password), false}});
        EXPECT_EQ(kOk, check(password.c_str()));
        EXPECT_EQ(kWrongPassword, check((password + "x").c_str()));
        EXPECT_EQ(password.empty() ? kOk : kWrongPassword, check(""));
        EXPECT_EQ(kInvalid, check(nullptr));
    }
}

TEST(PasswordCheckTest, CaseMatters) {
    TestStore store("secret");
    EXPECT_EQ(kWrongPassword, check("Secret"));
}

TEST(PasswordCheckTest, AnswersAsTabled) {
    const std::string right = digestOf("secret");
    const struct {
        const char* name;
        std::vector<Contents::Attribute> attributes;
        Status status;
    } rows[] = {
        {"the digest", {{2, 1, right, false}}, kOk},
        {"other attributes before it",
         {{3, 1, "a\0"s, false}, {2, 2, "b", false}, {2, 1, right, false}},
         kOk},
        {"the first of two is right", {{2, 1, right, false}, {2, 1, digestOf("x"), false}}, kOk},
        {"the first of two is wrong",
         {{2, 1, digestOf("x"), false}, {2, 1, right, false}},
         kWrongPassword},
        {"last bit differs", {{2, 1, lastBitChanged(right), false}}, kWrongPassword},
        {"first bit differs", {{2, 1, firstBitChanged(right), false}}, kWrongPassword},
        {"no attributes", {}, kNoDigest},
        {"another id", {{2, 2, right, false}}, kNoDigest},
        {"another type", {{4, 1, "0123456789abcdef", false}}, kNoDigest},
        {"15 bytes", {{2, 1, right.substr(0, 15), false}}, kNoDigest},
        {"17 bytes", {{2, 1, right + "x", false}}, kNoDigest},
        {"no bytes", {{2, 1, "", false}}, kNoDigest},
        {"a short one before the right one",
         {{2, 1, "short", false}, {2, 1, right, false}},
         kNoDigest},
        {"an encrypted digest", {{2, 1, right, true}}, kNoDigest},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestStore store("");
        saveKey(row.attributes);
        EXPECT_EQ(row.status, check("secret"));
        EXPECT_EQ(row.status == kNoDigest ? kNoDigest : kWrongPassword, check("y"));
        EXPECT_EQ(kInvalid, check(nullptr));
    }
}

TEST(PasswordCheckTest, NeedsNoOpenDatabase) {
    TestStore store("secret");
    store.restart(nullptr);
    EXPECT_EQ(kOk, check("secret"));
    EXPECT_EQ(kWrongPassword, check("other"));
    EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
}

TEST(PasswordCheckTest, UnreadableRecordIsTold) {
    const struct {
        const char* name;
        void (*damage)();
    } rows[] = {
        {"malformed", [] { support::writeFile("db/key.dsc", "no attribute\n"); }},
        {"a NUL at the start", [] { support::writeFile("db/key.dsc", "\0"s); }},
        {"a folder in its place",
         [] {
             fs::remove("db/key.dsc");
             fs::create_directory("db/key.dsc");
         }},
        {"a body that is missing",
         [] { support::writeFile("db/key.dsc", "10000003 00000000 00000003\n"); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestStore store("secret");
        row.damage();
        EXPECT_EQ(kNotOpen, check("secret"));
        EXPECT_EQ(kNotOpen, check(""));
        EXPECT_EQ(kInvalid, check(nullptr));
    }
}

// The digest's context is the one piece of memory whose lack is no lack of the record.
TEST(PasswordCheckTest, DigestThatCannotBeComputedIsTold) {
    TestStore store("secret");
    bool told = false;
    for (long nth = 1;; ++nth) {
        fault::FailingAllocation failing(nth);
        const Status status = check("secret");
        if (!failing.lift()) {
            EXPECT_EQ(kOk, status);
            break;
        }
        told = told || status == kIo;
    }
    EXPECT_TRUE(told);
}

// A record "key" whose replacement was cut off is known under its other name only.
// Without a look there the database would seem to have no password.
TEST(PasswordCheckTest, RecordMovedAsideCounts) {
    TestStore store("secret");
    fs::rename("db/key.dsc", "db/key.dsc.$o$");
    EXPECT_EQ(kWrongPassword, check(""));
    fs::rename("db/key.dsc", "db/key.dsc.$o$");
    EXPECT_EQ(kOk, check("secret"));
    EXPECT_TRUE(fs::exists("db/key.dsc"));
}

// Whatever call or allocation fails, no password is taken for the right one that is
// not, and nothing is changed.
class PasswordCheckFaultTest : public testing::Test {
protected:
    // The fault that is the nth of its kind; lift() tells whether it has struck.
    template <class Fault>
    void neverAccepts(const char* wrong, Fault& fault) {
        const Status status = check(wrong);
        struck_ = fault.lift();
        EXPECT_NE(kOk, status) << wrong;
        if (!struck_) {
            EXPECT_EQ(kWrongPassword, status);
        }
    }

    bool struck_ = true;
};

TEST_F(PasswordCheckFaultTest, FailingCallsAcceptNoWrongPassword) {
    TestStore store("secret");
    const auto before = support::tree("db");
    for (const char* const wrong : {"", "wrong"}) {
        for (const int error : {EIO, EACCES, EMFILE, ENOMEM, EINTR}) {
            for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
                struck_ = true;
                for (int nth = 1; struck_; ++nth) {
                    SCOPED_TRACE("call " + std::to_string(nth) + ", errno " +
                                 std::to_string(error));
                    fault::FailingCall failing(nth, error, mode);
                    neverAccepts(wrong, failing);
                }
            }
        }
    }
    EXPECT_EQ(before, support::tree("db"));
}

TEST_F(PasswordCheckFaultTest, FailingCallsAcceptNoWrongPasswordOfARecordMovedAside) {
    TestStore store("secret");
    const auto before = support::tree("db");
    for (const int error : {EIO, EACCES}) {
        for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
            struck_ = true;
            for (int nth = 1; struck_; ++nth) {
                SCOPED_TRACE("call " + std::to_string(nth) + ", errno " + std::to_string(error));
                if (fs::exists("db/key.dsc")) {
                    fs::rename("db/key.dsc", "db/key.dsc.$o$");
                }
                fault::FailingCall failing(nth, error, mode);
                neverAccepts("", failing);
            }
        }
    }
    EXPECT_EQ(before, support::tree("db"));
}

TEST_F(PasswordCheckFaultTest, FailingCallsRefuseTheRightPasswordAsTabled) {
    TestStore store("secret");
    for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE("call " + std::to_string(nth));
            fault::FailingCall failing(nth, EIO, mode);
            const Status status = check("secret");
            const bool struck = failing.lift();
            EXPECT_TRUE(status == kOk || (struck && status == kNotOpen)) << status;
            EXPECT_TRUE(fault::openHandles().empty());
            EXPECT_EQ(kOk, check("secret"));
            if (!struck) {
                break;
            }
        }
    }
}

TEST_F(PasswordCheckFaultTest, FailingAllocationsAcceptNoWrongPassword) {
    using fault::FailingAllocation;
    TestStore store("secret");
    for (const char* const password : {"", "wrong", "secret"}) {
        for (const auto mode :
             {FailingAllocation::Mode::kOnce, FailingAllocation::Mode::kFromThenOn}) {
            for (long nth = 1;; ++nth) {
                FailingAllocation failing(nth, mode);
                const Status status = check(password);
                const bool struck = failing.lift();
                SCOPED_TRACE("allocation " + std::to_string(nth) + ", password " + password);
                if (!struck) {
                    EXPECT_EQ(password == "secret"s ? kOk : kWrongPassword, status);
                    break;
                }
                EXPECT_NE(password == "secret"s ? kWrongPassword : kOk, status);
                EXPECT_TRUE(status == kNoMemory || status == kNotOpen || status == kIo ||
                            status == kOk || status == kWrongPassword)
                    << status;
            }
        }
    }
}

}  // namespace
