// The two handles of the record cipher.
#include "client/crypto_coder_exp.h"

#include <string>

#include "client/s_filestoreC.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/fake_store_srv.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CryptoCoderHandleTest : public testing::Test {
protected:
    CryptoCoderHandleTest() { services.host().offer(107, service.get()); }

    DoubleServices services;
    CMN_GRefPtr<FakeStoreSrv> service{new FakeStoreSrv};
    CMN_GRefPtr<FakeCoder> coder{new FakeCoder};
    aBuf data{"data"};
};

TEST_F(CryptoCoderHandleTest, NewHandlesHaveACipherOfTheService) {
    unsigned int asked = 0;
    service.get()->made = [&](unsigned int kind) {
        asked = kind;
        return new FakeCoder;
    };
    const aCryptoEncoder encoder;
    EXPECT_EQ(0x6B0003U, asked);
    EXPECT_NE(nullptr, encoder.target());
    const aCryptoDecoder decoder;
    EXPECT_NE(nullptr, decoder.target());
    EXPECT_NE(encoder.target(), decoder.target());
}

TEST_F(CryptoCoderHandleTest, WithoutServiceOrWithoutItsCipherTheyAreEmpty) {
    EXPECT_EQ(nullptr, aCryptoEncoder().target()) << "the service makes nothing";
    services.host().withdraw(107);
    EXPECT_EQ(nullptr, aCryptoEncoder().target());
    EXPECT_EQ(nullptr, aCryptoDecoder().target());
}

TEST_F(CryptoCoderHandleTest, EmptyHandlesAnswerThatTheyAreEmpty) {
    aCryptoEncoder encoder(nullptr);
    aCryptoDecoder decoder(nullptr);
    EXPECT_EQ(kNoObject, encoder.setKey(data));
    EXPECT_EQ(kNoObject, decoder.setKey(data));
    EXPECT_EQ(nullptr, encoder.encrypt(data).target());
    EXPECT_EQ(nullptr, decoder.decrypt(data).target());
}

TEST_F(CryptoCoderHandleTest, CallsReachTheCipherUnderItsGuard) {
    coder.get()->answer = 77;
    aCryptoEncoder encoder(coder.get());
    aCryptoDecoder decoder(coder.get());
    EXPECT_EQ(77U, encoder.setKey(data));
    EXPECT_EQ(77U, decoder.setKey(data));
    EXPECT_EQ("data", bytesOf(encoder.encrypt(data).target()));
    EXPECT_EQ("data", bytesOf(decoder.decrypt(data).target()));
    EXPECT_THAT(coder.get()->calls, ElementsAre(AskedFor{"setKey", 1}, AskedFor{"setKey", 1},
                                                AskedFor{"encrypt", 1}, AskedFor{"decrypt", 1}));
    EXPECT_EQ(0, coder.get()->getGuard()->calls());
}

TEST_F(CryptoCoderHandleTest, GuardIsLoweredWhenAnExceptionPasses) {
    coder.get()->transform = [](aBuf& /*data*/) -> aBuf { throw DoubleTrouble("cipher"); };
    aCryptoEncoder encoder(coder.get());
    EXPECT_THROW((void)encoder.encrypt(data), DoubleTrouble);
    EXPECT_EQ(0, coder.get()->getGuard()->calls());
}

TEST_F(CryptoCoderHandleTest, CopiesShareTheCipherAndCountTheirUseOfTheService) {
    const int before = FileStoreSrvC.uses();
    {
        const aCryptoEncoder encoder(coder.get());
        const aCryptoEncoder copy(encoder);  // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(encoder.target(), copy.target());
        EXPECT_EQ(before + 2, FileStoreSrvC.uses());
        EXPECT_EQ(3, coder.get()->references());
    }
    EXPECT_EQ(before, FileStoreSrvC.uses());
    EXPECT_EQ(1, coder.get()->references());
}

}  // namespace
