#include "lib/base/error.h"

#include <cerrno>
#include <functional>
#include <new>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

TEST(ExitCodeTest, EachHasANameOfItsOwn) {
    std::set<std::string> names;
    for (const int code : {0, 1, 2, 3, 4, 5, 6, 9, 14, 33, 35, 36, 40, 50, 59, 74, 125, 130}) {
        EXPECT_TRUE(names.insert(nameOf(code)).second) << code;
        EXPECT_EQ(code, exitCodeOf(static_cast<Status>(code)));
    }
}

TEST(ExitCodeTest, OtherStatusesAreForeign) {
    EXPECT_EQ(125, exitCodeOf(7));
    EXPECT_EQ(125, exitCodeOf(0x80000001));
}

TEST(CheckTest, ThrowsTheStatusWithItsMeaning) {
    check(kOk, "nothing");
    errno = 0;
    try {
        check(kIo, "cannot write keys/a", "keys/a");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(kIo, failure.status());
        EXPECT_EQ("keys/a", failure.path());
        EXPECT_EQ("cannot write keys/a: a file could not be read or written, or encryption failed",
                  std::string(failure.what()));
    }
}

TEST(CheckTest, SaysWhatTheSystemSaid) {
    errno = ENOSPC;
    try {
        check(kIo, "cannot write keys/a", "keys/a");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ("cannot write keys/a: No space left on device", std::string(failure.what()));
    }
    errno = ENOENT;  // somebody has looked for what is not there
    try {
        check(kIo, "cannot write keys/a", "keys/a");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(std::string::npos, std::string(failure.what()).find("No such file"));
    }
}

// A number that the tool gives a meaning of its own is not passed on as if it were that.
TEST(CheckTest, StatusesOfOtherModulesAreToldByNumber) {
    for (const Status status : {kUsage, kFound, kPartial, kInterrupted, Status{16}, Status{777}}) {
        try {
            check(status, "cannot open");
            FAIL();
        } catch (const Failure& failure) {
            EXPECT_EQ(125, failure.exitCode());
            EXPECT_NE(std::string::npos, std::string(failure.what()).find(std::to_string(status)));
        }
    }
}

// Who goes on after a record that cannot be read must not take a lack of memory for one.
TEST(CheckTest, MemoryThatCouldNotBeHadIsNoFailure) {
    const auto byStatus = [] { check(kNoMemory, "cannot read keys/a", "keys/a"); };
    const auto byErrno = [] {
        errno = ENOMEM;
        failWithErrno("read", "keys/a");
    };
    for (const std::function<void()>& failing :
         {std::function<void()>(byStatus), std::function<void()>(byErrno)}) {
        EXPECT_THROW(failing(), std::bad_alloc);
        try {
            failing();
        } catch (const Failure&) {
            FAIL();
        } catch (const MemoryFailure& memory) {
            EXPECT_EQ(kNoMemory, memory.failure().status());
            EXPECT_EQ("keys/a", memory.failure().path());
            EXPECT_EQ(0u, std::string(memory.what()).find("cannot read keys/a: "));
        }
    }
}

}  // namespace
}  // namespace fstore
