#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/pki/verify.h"
#include "tests/lib/pki/made_certificates.h"

namespace {

using fstore::ChainVerifier;
using fstore::makeCertificate;
using fstore::makeKey;
using fstore::TestKey;
using fstore::Verdict;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kAuthorities = 12;

std::string authority(int number) {
    return "ca" + std::to_string(number);
}

// Authorities that have all issued each other, "ca0" and so on, and a leaf of the first of them.
class MeshTest : public testing::Test {
protected:
    MeshTest() {
        for (int i = 0; i < kAuthorities; ++i) {
            keys_.push_back(makeKey());
        }
        for (int subject = 0; subject < kAuthorities; ++subject) {
            for (int issuer = 0; issuer < kAuthorities; ++issuer) {
                if (issuer != subject) {
                    add(subject, issuer);
                }
            }
        }
        leaf_ = makeCertificate(
            {.subject = "leaf", .issuer = authority(0), .key = makeKey(), .issuerKey = keys_[0]});
    }

    void add(int subject, int issuer, long toDays = 90) {
        certificates_.push_back(
            makeCertificate({.subject = authority(subject),
                             .issuer = authority(issuer),
                             .key = keys_[static_cast<std::size_t>(subject)],
                             .issuerKey = keys_[static_cast<std::size_t>(issuer)],
                             .fromDays = -9,
                             .toDays = toDays,
                             .serial = ++serial_,
                             .isCa = true}));
    }
    void addRoot(int number, long toDays = 90) { add(number, number, toDays); }

    // In no more time than anybody waits for it: each of them takes milliseconds.
    Verdict verify() const {
        using std::chrono::steady_clock;
        const auto begin = steady_clock::now();
        const Verdict verdict = ChainVerifier(certificates_, {}, {}).verify(leaf_);
        EXPECT_GT(std::chrono::seconds(20), steady_clock::now() - begin);
        return verdict;
    }

    std::vector<TestKey> keys_;
    std::vector<SecretBytes> certificates_;
    SecretBytes leaf_;
    long serial_ = 0;
};

TEST_F(MeshTest, TheShortestPathIsTaken) {
    addRoot(0);
    const Verdict verdict = verify();
    EXPECT_EQ("", verdict.why);
    EXPECT_EQ(1U, verdict.chain.size());
}

TEST_F(MeshTest, ThePathGoesByWhoHasARoot) {
    addRoot(kAuthorities - 1);
    const Verdict verdict = verify();
    EXPECT_EQ("", verdict.why);
    EXPECT_EQ(2U, verdict.chain.size());
}

TEST_F(MeshTest, ARootThatHasEndedIsPassedBy) {
    addRoot(0, -1);
    addRoot(1, -1);
    addRoot(2);
    const Verdict verdict = verify();
    EXPECT_EQ("", verdict.why);
    EXPECT_EQ(2U, verdict.chain.size());
}

TEST_F(MeshTest, WhereEveryRootHasEndedThatIsTheReason) {
    for (int i = 0; i < kAuthorities; ++i) {
        addRoot(i, -1);
    }
    EXPECT_THAT(verify().why, StartsWith("its issuer CN=ca0 expired on"));
}

TEST_F(MeshTest, WithoutARootTheSearchEnds) {
    EXPECT_THAT(verify().why, HasSubstr("only issued each other"));
}

TEST(VerifyTest, TwoThatIssuedEachOtherAreNoRoot) {
    const TestKey a = makeKey();
    const TestKey b = makeKey();
    const std::vector<SecretBytes> certificates = {
        makeCertificate({.subject = "a", .issuer = "b", .key = a, .issuerKey = b, .isCa = true}),
        makeCertificate({.subject = "b", .issuer = "a", .key = b, .issuerKey = a, .isCa = true})};
    const auto leaf =
        makeCertificate({.subject = "leaf", .issuer = "a", .key = makeKey(), .issuerKey = a});
    EXPECT_EQ("no root is in the database: its issuers have only issued each other",
              ChainVerifier(certificates, {}, {}).verify(leaf).why);
}

}  // namespace
