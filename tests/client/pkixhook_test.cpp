#include "client/pkixhook.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_host.h"

namespace {

class Decoded final : public XBase {
public:
    explicit Decoded(bool& isGone) : XBase(1), gone(isGone) {}
    ~Decoded() override { gone = true; }
    Status init() override { return kOk; }
    Status fini() override { return kOk; }

private:
    bool& gone;
};

using XBaseProxy = PKIXAnyObject<XBase>;

// The reference for good, which only a test takes back.
CMN_GRPHolder* keeperOf(XBase& object) {
    return object._getHolders().first()->value;
}

class GetXBaseTest : public testing::Test {
protected:
    bool gone = false;
    Decoded* object = new Decoded(gone);
};

TEST(GetXBaseOfNothingTest, IsNull) {
    const XBaseProxy proxy(nullptr, nullptr);
    EXPECT_EQ(nullptr, getXBase(proxy, 0));
    EXPECT_EQ(nullptr, getXBase(proxy, 1));
}

TEST_F(GetXBaseTest, WithoutKeepTakesNoReference) {
    {
        const XBaseProxy proxy(object, nullptr);
        EXPECT_EQ(object, getXBase(proxy, 0));
        EXPECT_EQ(1, object->references());
    }
    EXPECT_TRUE(gone);
}

TEST_F(GetXBaseTest, WithKeepTheObjectOutlivesItsProxies) {
    {
        const XBaseProxy proxy(object, nullptr);
        EXPECT_EQ(object, getXBase(proxy, 1));
        EXPECT_EQ(2, object->references());
    }
    ASSERT_FALSE(gone);
    EXPECT_EQ(1, object->references());
    EXPECT_EQ(0, object->remReference(keeperOf(*object)));
    EXPECT_TRUE(gone);
}

TEST_F(GetXBaseTest, EveryKeepTakesAReferenceOfItsOwn) {
    const XBaseProxy proxy(object, nullptr);
    (void)getXBase(proxy, 1);
    (void)getXBase(proxy, -1);
    EXPECT_EQ(3, object->references());
    EXPECT_EQ(2, object->remReference(keeperOf(*object)));
    EXPECT_EQ(1, object->remReference(keeperOf(*object)));
}

TEST_F(GetXBaseTest, OneHolderOfThisModuleKeepsAllObjects) {
    bool otherGone = false;
    const XBaseProxy proxy(object, nullptr);
    const XBaseProxy other(new Decoded(otherGone), nullptr);
    CMN_GRPHolder* const keeper = keeperOf(*getXBase(proxy, 1));
    EXPECT_EQ(keeper, keeperOf(*getXBase(other, 1)));
    EXPECT_TRUE(keeper->getModuleID() == ModuleID);
    EXPECT_EQ(nullptr, keeper->heldGuard());
    EXPECT_EQ(1, object->remReference(keeper));
    EXPECT_EQ(1, other.target()->remReference(keeper));
}

TEST_F(GetXBaseTest, KeeperNeverLetsGoByItself) {
    const XBaseProxy proxy(object, nullptr);
    CMN_GRPHolder* const keeper = keeperOf(*getXBase(proxy, 1));
    keeper->replacePointee(nullptr);
    EXPECT_EQ(2, object->references());
    EXPECT_EQ(1, object->remReference(keeper));
}

TEST_F(GetXBaseTest, ManyThreadsKeepAtOnce) {
    const XBaseProxy proxy(object, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&proxy] { (void)getXBase(proxy, 1); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(5, object->references());
    for (int left = 4; left >= 1; --left) {
        EXPECT_EQ(left, object->remReference(keeperOf(*object)));
    }
}

}  // namespace
