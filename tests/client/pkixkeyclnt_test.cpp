#include "client/pkixkeyclnt.h"

#include <vector>

#include <gtest/gtest.h>

#include "tests/client/forwarding.h"
#include "tests/support/doubles/double_services.h"

namespace {

const unsigned char kBytes[] = {'a', 'b', 'c'};

class KeyClientTest : public testing::Test {
protected:
    DoubleServices services;
};

TEST_F(KeyClientTest, EveryCreationReachesTheServiceUnderItsGuard) {
    std::vector<CMN_GRefPtr<TKey>> made(3);
    const std::vector<ForwardedCall<aPkixKeyClnt>> rows = {
        {"of no type",
         [&](aPkixKeyClnt& srv) { made[0] = srv.createTKey(); },
         "createTKey",
         {"createTKey"}},
        {"of a type",
         [&](aPkixKeyClnt& srv) { made[1] = srv.createTKey(TKey::kRsa); },
         "createTKey",
         {"createTKey: 2"}},
        {"of bytes",
         [&](aPkixKeyClnt& srv) { made[2] = srv.createTKey(TKey::kSymmetric, kBytes, 3); },
         "createTKey",
         {"createTKey: 1, bytes abc"}},
    };
    expectForwarded(rows, pkixKeyClnt, services.pkixkey(), services.pkixkey().watch());
    EXPECT_EQ(TKey::kNone, made[0].get()->getType());
    EXPECT_EQ(TKey::kRsa, made[1].get()->getType());
    EXPECT_EQ("abc", bytesOf(made[2].get()));
}

TEST_F(KeyClientTest, WithoutServiceEveryCreationGivesNull) {
    services.host().withdraw(DoubleServices::kPkixKeyId);
    EXPECT_EQ(nullptr, pkixKeyClnt.createTKey());
    EXPECT_EQ(nullptr, pkixKeyClnt.createTKey(TKey::kRsa));
    EXPECT_EQ(nullptr, pkixKeyClnt.createTKey(TKey::kSymmetric, kBytes, 3));
}

TEST_F(KeyClientTest, WithoutHostEveryCreationGivesNull) {
    const InstalledHost none(nullptr);
    EXPECT_EQ(nullptr, pkixKeyClnt.createTKey());
    EXPECT_EQ(nullptr, pkixKeyClnt.createTKey(TKey::kRsa));
    EXPECT_EQ(nullptr, pkixKeyClnt.createTKey(TKey::kSymmetric, kBytes, 3));
}

}  // namespace
