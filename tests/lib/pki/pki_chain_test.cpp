#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/pki/chain.h"
#include "lib/pki/ossl.h"
#include "tests/lib/pki/made_certificates.h"
#include "tests/lib/pki/pki_files.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using End = IssuerPath::End;

SecretBytes der(const char* name) {
    return PkiFiles::get().bytes(std::string(name) + ".der");
}

TEST(ChainOfTest, EndsAtTheRoot) {
    const Chain chain = chainOf(der("leaf"), {der("ended"), der("root"), der("leaf")});
    EXPECT_THAT(chain.issuers, ElementsAre(1));
    EXPECT_EQ(End::kRoot, chain.end);
}

TEST(ChainOfTest, LeadsOverIntermediates) {
    const Chain chain = chainOf(der("deep"), {der("root"), der("middle"), der("leaf")});
    EXPECT_THAT(chain.issuers, ElementsAre(1, 0));
    EXPECT_EQ(End::kRoot, chain.end);
}

TEST(ChainOfTest, StopsWhereAnIssuerIsNotKnown) {
    const Chain chain = chainOf(der("deep"), {der("middle"), der("leaf")});
    EXPECT_THAT(chain.issuers, ElementsAre(0));
    EXPECT_EQ(End::kNoIssuer, chain.end);
}

TEST(ChainOfTest, RootNeedsNobody) {
    const Chain chain = chainOf(der("root"), {der("root")});
    EXPECT_THAT(chain.issuers, IsEmpty());
    EXPECT_EQ(End::kRoot, chain.end);
}

TEST(ChainOfTest, AnotherKeyUnderTheSameNameIsNoIssuer) {
    const Chain chain = chainOf(der("leaf"), {der("impostor")});
    EXPECT_THAT(chain.issuers, IsEmpty());
    EXPECT_EQ(End::kNoIssuer, chain.end);
}

TEST(ChainOfTest, TakesTheIssuerThatBeganOrEndsLast) {
    EXPECT_THAT(chainOf(der("deep"), {der("middle"), der("longer"), der("root")}).issuers,
                ElementsAre(1, 2));
    EXPECT_THAT(chainOf(der("deep"), {der("longer"), der("middle"), der("root")}).issuers,
                ElementsAre(0, 2));
}

TEST(ChainOfTest, BadIssuerIsBetterThanNone) {
    constexpr std::int64_t kYear = 31'557'600;
    const std::vector<SecretBytes> known{der("middle"), der("longer"), der("root")};
    const Chain later = chainOf(der("deep"), known, {now() + 20 * kYear, {}});
    EXPECT_THAT(later.issuers, ElementsAre(1, 2));
    EXPECT_THAT(later.notInForce, ElementsAre(1, 2));
    const auto isLonger = [](std::size_t issuer) { return issuer == 1; };
    const Chain chain = chainOf(der("deep"), known, {now(), isLonger});
    EXPECT_THAT(chain.issuers, ElementsAre(0, 2));
    EXPECT_THAT(chain.revoked, IsEmpty());
    const Chain revoked = chainOf(der("deep"), known, {now(), [](std::size_t) { return true; }});
    EXPECT_THAT(revoked.issuers, ElementsAre(1, 2));
    EXPECT_THAT(revoked.revoked, ElementsAre(1, 2));
}

TEST(ChainOfTest, DamagedCertificatesAreNoIssuers) {
    SecretBytes damaged = der("root");
    damaged[10] = 0;
    EXPECT_THAT(chainOf(der("leaf"), {damaged, der("root"), {}}).issuers, ElementsAre(1));
    EXPECT_THAT(chainOf(damaged, {der("root")}).issuers, IsEmpty());
    EXPECT_EQ(End::kNoIssuer, chainOf(damaged, {der("root")}).end);
}

void setName(X509_NAME* name, int number) {
    const std::string text = std::to_string(number);
    (void)X509_NAME_add_entry_by_txt(
        name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(text.c_str()), -1, -1, 0);
}

// Certificate 0 is issued by 1, and so on; the last is its own issuer.
std::vector<SecretBytes> chainOfCertificates(int count) {
    const ossl::Pkey key(EVP_EC_gen("P-256"));
    std::vector<SecretBytes> made;
    for (int i = 0; i < count; ++i) {
        const ossl::Certificate certificate(X509_new());
        setName(X509_get_subject_name(certificate.get()), i);
        setName(X509_get_issuer_name(certificate.get()), std::min(i + 1, count - 1));
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 1000);
        X509_set_pubkey(certificate.get(), key.get());
        X509_sign(certificate.get(), key.get(), EVP_sha256());
        made.push_back(ossl::encoded<i2d_X509>(certificate.get()));
    }
    return made;
}

TEST(ChainOfTest, LongestChainIsTheBound) {
    const int most = static_cast<int>(kMostIssuers);
    const auto longest = chainOfCertificates(most + 1);
    const Chain chain = chainOf(longest.front(), longest);
    EXPECT_THAT(chain.issuers, SizeIs(kMostIssuers));
    EXPECT_EQ(End::kRoot, chain.end);
    const auto longer = chainOfCertificates(most + 2);
    EXPECT_THROW((void)chainOf(longer.front(), longer), Failure);
}

TEST(ChainOfTest, IssuersOfOneKeyTakeOneSignature) {
    std::vector<SecretBytes> known(kMostSignatures + 1, der("middle"));
    known.push_back(der("root"));
    EXPECT_EQ(End::kRoot, chainOf(der("leaf"), known).end);
    EXPECT_THAT(chainOf(der("deep"), known).issuers, ElementsAre(0, kMostSignatures + 1));
}

TEST(ChainOfTest, IssuersInPlentyAreRefusedBeforeTheyTakeLong) {
    const SecretBytes leaf = chainOfCertificates(2).front();
    std::vector<SecretBytes> known;
    while (known.size() <= kMostSignatures) {
        known.push_back(chainOfCertificates(2).back());  // of the same name, and another key
    }
    EXPECT_THROW((void)chainOf(leaf, known), Failure);
}

// Two authorities that have issued each other, and who of them has a root.
class CrossedTest : public testing::Test {
protected:
    SecretBytes by(const std::string& subject, const std::string& issuer, long fromDays = -9,
                   long toDays = 90) {
        return makeCertificate({.subject = subject,
                                .issuer = issuer,
                                .key = keyOf(subject),
                                .issuerKey = keyOf(issuer),
                                .fromDays = fromDays,
                                .toDays = toDays,
                                .serial = ++serial_,
                                .isCa = true});
    }

    const TestKey& keyOf(const std::string& name) {
        return keys_.emplace(name, makeKey()).first->second;
    }

    std::map<std::string, TestKey> keys_;
    long serial_ = 0;
};

TEST_F(CrossedTest, TheShortestWayToARootIsTaken) {
    const std::vector<SecretBytes> known{by("a", "b", -1), by("b", "a", -1), by("b", "b"),
                                         by("a", "a")};
    const Chain chain = chainOf(by("leaf", "a"), known);
    EXPECT_THAT(chain.issuers, ElementsAre(3));
    EXPECT_EQ(End::kRoot, chain.end);
}

TEST_F(CrossedTest, NoCertificateIsInItTwice) {
    const SecretBytes a = by("a", "b");
    const SecretBytes b = by("b", "a");
    const Chain own = chainOf(a, {a, b});
    EXPECT_THAT(own.issuers, ElementsAre(1));
    EXPECT_EQ(End::kCircle, own.end);
    const Chain copies = chainOf(by("leaf", "a"), {a, a, b, b, a});
    EXPECT_THAT(copies.issuers, ElementsAre(0, 2));
    EXPECT_EQ(End::kCircle, copies.end);
}

TEST_F(CrossedTest, WhoIsInForceComesBeforeAShorterWay) {
    const Chain chain =
        chainOf(by("leaf", "a"), {by("a", "a", -9, -1), by("a", "b"), by("b", "b")});
    EXPECT_THAT(chain.issuers, ElementsAre(1, 2));
    EXPECT_THAT(chain.notInForce, IsEmpty());
}

TEST_F(CrossedTest, WhoIsInForceComesBeforeARootOfAnother) {
    const Chain chain = chainOf(by("leaf", "a"), {by("a", "a", -9, -1), by("a", "b")});
    EXPECT_THAT(chain.issuers, ElementsAre(1));
    EXPECT_THAT(chain.notInForce, IsEmpty());
    EXPECT_EQ(End::kNoIssuer, chain.end);
}

TEST_F(CrossedTest, WhoIsNotRevokedComesBeforeAShorterWay) {
    const Chain chain = chainOf(by("leaf", "a"), {by("a", "a"), by("a", "b"), by("b", "b")},
                                {now(), [](std::size_t issuer) { return issuer == 0; }});
    EXPECT_THAT(chain.issuers, ElementsAre(1, 2));
    EXPECT_THAT(chain.revoked, IsEmpty());
}

TEST_F(CrossedTest, WhatHasTheNameOfARootButAnotherKeysSignatureIsNone) {
    const TestKey old = makeKey();
    const auto rooted = [&](const TestKey& key) {
        return makeCertificate({.subject = "a", .issuer = "a", .key = key, .issuerKey = old});
    };
    const std::vector<SecretBytes> known{rooted(keyOf("a"))};
    const Chain chain = chainOf(by("leaf", "a"), known);
    EXPECT_THAT(chain.issuers, ElementsAre(0));
    EXPECT_EQ(End::kNoIssuer, chain.end);
    EXPECT_THAT(chainOf(by("leaf", "a"), {known[0], rooted(old)}).issuers, ElementsAre(0, 1));
}

// As many as need more than anybody could follow all ways.
TEST_F(CrossedTest, ManyThatHaveIssuedEachOtherEndInACircle) {
    std::vector<SecretBytes> known;
    for (int subject = 0; subject < 12; ++subject) {
        for (int issuer = 0; issuer < 12; ++issuer) {
            if (subject != issuer) {
                known.push_back(by(std::to_string(subject), std::to_string(issuer)));
            }
        }
    }
    EXPECT_EQ(End::kCircle, chainOf(by("leaf", "0"), known).end);
    known.push_back(by("11", "11"));
    EXPECT_THAT(chainOf(by("leaf", "0"), known).issuers, SizeIs(2));
}

}  // namespace
}  // namespace fstore
