#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/pki/chain.h"
#include "tests/lib/pki/pki_files.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

SecretBytes der(const char* name) {
    return PkiFiles::get().bytes(std::string(name) + ".der");
}

TEST(ChainOfTest, EndsAtTheRoot) {
    const Chain chain = chainOf(der("leaf"), {der("ended"), der("root"), der("leaf")});
    EXPECT_THAT(chain.issuers, ElementsAre(1));
    EXPECT_TRUE(chain.complete);
}

TEST(ChainOfTest, LeadsOverIntermediates) {
    const Chain chain = chainOf(der("deep"), {der("root"), der("middle"), der("leaf")});
    EXPECT_THAT(chain.issuers, ElementsAre(1, 0));
    EXPECT_TRUE(chain.complete);
}

TEST(ChainOfTest, StopsWhereAnIssuerIsNotKnown) {
    const Chain chain = chainOf(der("deep"), {der("middle"), der("leaf")});
    EXPECT_THAT(chain.issuers, ElementsAre(0));
    EXPECT_FALSE(chain.complete);
}

TEST(ChainOfTest, RootNeedsNobody) {
    const Chain chain = chainOf(der("root"), {der("root")});
    EXPECT_THAT(chain.issuers, IsEmpty());
    EXPECT_TRUE(chain.complete);
}

TEST(ChainOfTest, AnotherKeyUnderTheSameNameIsNoIssuer) {
    const Chain chain = chainOf(der("leaf"), {der("impostor")});
    EXPECT_THAT(chain.issuers, IsEmpty());
    EXPECT_FALSE(chain.complete);
}

TEST(ChainOfTest, TakesTheIssuerThatEndsLast) {
    EXPECT_THAT(chainOf(der("deep"), {der("middle"), der("longer"), der("root")}).issuers,
                ElementsAre(1, 2));
    EXPECT_THAT(chainOf(der("deep"), {der("longer"), der("middle"), der("root")}).issuers,
                ElementsAre(0, 2));
}

TEST(ChainOfTest, DamagedCertificatesAreNoIssuers) {
    SecretBytes damaged = der("root");
    damaged[10] = 0;
    EXPECT_THAT(chainOf(der("leaf"), {damaged, der("root"), {}}).issuers, ElementsAre(1));
    EXPECT_THAT(chainOf(damaged, {der("root")}).issuers, IsEmpty());
    EXPECT_FALSE(chainOf(damaged, {der("root")}).complete);
}

}  // namespace
}  // namespace fstore
