#include "tests/modules/reference_gcm.h"

#include "gtest/gtest.h"
#include "tests/modules/vectors.h"

namespace {

TEST(ReferenceGcmTest, GivesThePublishedAnswers) {
    for (const support::Vector& vector : support::readVectors("aes_gcm.txt")) {
        SCOPED_TRACE(vector.text("tag"));
        const support::Sealed sealed = support::gcm(vector.bytes("key"), vector.bytes("nonce"),
                                                    vector.bytes("aad"), vector.bytes("plain"));
        EXPECT_EQ(vector.text("cipher"), support::toHex(sealed.cipher));
        EXPECT_EQ(vector.text("tag"), support::toHex(sealed.tag));
    }
}

}  // namespace
