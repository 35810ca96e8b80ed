#include "tests/support/doubles/call_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/cmn_abuf.h"
#include "tests/support/doubles/double_services.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CallWatchTest : public testing::Test {
protected:
    DoubleServices services;
    CallWatch& watch = services.x509cmn().watch();
};

TEST_F(CallWatchTest, RecordsFromWhenItIsAsked) {
    aBuf buf("abc");
    EXPECT_THAT(watch.calls(), IsEmpty());
    watch.record();
    (void)buf.set("de");
    (void)buf.shift(1);
    EXPECT_THAT(watch.calls(), ElementsAre("set: text de", "shift: 1"));
    EXPECT_THAT(watch.raised(), ElementsAre(1, 1));
    watch.record();
    EXPECT_THAT(watch.calls(), IsEmpty());
}

TEST_F(CallWatchTest, FailsTheNthOperationOfTheNameOnce) {
    watch.failAt("createTBuf", 2, kNoMemory);
    EXPECT_NE(nullptr, aBuf().target());
    EXPECT_EQ(nullptr, aBuf().target());
    EXPECT_NE(nullptr, aBuf().target());
    EXPECT_TRUE(watch.lift());
}

TEST_F(CallWatchTest, FailsAllFromTheNthOn) {
    watch.failAt("createTBuf", 2, kNoMemory, CallWatch::kLasting);
    EXPECT_NE(nullptr, aBuf().target());
    EXPECT_EQ(nullptr, aBuf().target());
    EXPECT_EQ(nullptr, aBuf().target());
    EXPECT_TRUE(watch.lift());
    EXPECT_NE(nullptr, aBuf().target());
}

TEST_F(CallWatchTest, TellsThatTheFailureWasNotMet) {
    aBuf buf;
    watch.failAt("set", 2);
    EXPECT_EQ(kOk, buf.set("a"));
    EXPECT_FALSE(watch.lift());
    EXPECT_EQ(kOk, buf.set("b"));
}

TEST_F(CallWatchTest, ThrowsWhereItIsTold) {
    aBuf buf;
    watch.throwAt("set");
    EXPECT_THROW((void)buf.set("a"), DoubleTrouble);
    EXPECT_EQ(kOk, buf.set("b"));
}

TEST(DoubleServicesTest, NextOneFindsNothingOfTheOneBefore) {
    {
        DoubleServices services;
        services.x509cmn().watch().failAt("createTBuf", 1, kNoMemory, CallWatch::kLasting);
        EXPECT_EQ(nullptr, createTBuf());  // and the stub stays bound
        EXPECT_EQ(&services.x509cmn(), theX509Cmn.service());
    }
    EXPECT_EQ(nullptr, theX509Cmn.service());
    EXPECT_EQ(nullptr, ModMgr);
    DoubleServices services;
    EXPECT_NE(nullptr, aBuf().target());
    EXPECT_EQ(0, services.host().uses(DoubleServices::kX509CmnId));
}

}  // namespace
