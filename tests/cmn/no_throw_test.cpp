#include "cmn/no_throw.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(NoThrowTest, PassesTheBodysStatusOn) {
    EXPECT_EQ(kOk, noThrow([] { return kOk; }));
    EXPECT_EQ(kMissing, noThrow([] { return kMissing; }));
    EXPECT_EQ(12345u, noThrow([] { return Status{12345}; }));
}

TEST(NoThrowTest, TurnsExceptionsIntoStatuses) {
    EXPECT_EQ(kNoMemory, noThrow([]() -> Status { throw std::bad_alloc(); }));
    EXPECT_EQ(kNoMemory, noThrow([]() -> Status { throw std::length_error("too long"); }));
    EXPECT_EQ(kIo, noThrow([]() -> Status { throw std::runtime_error("any other"); }));
    EXPECT_EQ(kIo, noThrow([]() -> Status { throw 7; }));
}

TEST(NoThrowTest, SizeThatNoContainerHoldsIsNoMemory) {
    EXPECT_EQ(kNoMemory, noThrow([] {
                  std::string text;
                  text.reserve(text.max_size() + 1);
                  return kOk;
              }));
}

TEST(NoThrowTest, BodyMayBeAnObjectThatIsChanged) {
    int runs = 0;
    auto body = [&runs, own = 0]() mutable {
        runs = ++own;
        return kOk;
    };
    EXPECT_EQ(kOk, noThrow(body));
    EXPECT_EQ(kOk, noThrow(body));
    EXPECT_EQ(2, runs);
}

TEST(NoThrowTest, TellsWhatTheExceptionSays) {
    std::string words;
    EXPECT_EQ(kMissing, noThrow([] { return kMissing; }, words));
    EXPECT_EQ("", words);
    EXPECT_EQ(kIo, noThrow([]() -> Status { throw 7; }, words));
    EXPECT_EQ("", words);
    EXPECT_EQ(kIo, noThrow([]() -> Status { throw std::runtime_error("the reason"); }, words));
    EXPECT_EQ("the reason", words);
    EXPECT_EQ(kNoMemory, noThrow([]() -> Status { throw std::bad_alloc(); }, words));
    EXPECT_EQ("std::bad_alloc", words);
}

}  // namespace
