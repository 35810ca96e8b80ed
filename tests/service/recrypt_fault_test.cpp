// Whatever fails while the password is changed, exactly one of the two passwords opens
// the database afterwards, and opens all of it; and success means the new one.
#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "tests/service/recrypt_database.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fs_fault.h"

namespace {

using testing::IsEmpty;

class RecryptFaultTest : public testing::Test {
protected:
    RecryptFaultTest() { RecryptDatabase::keep(); }

    // Changes the password with `fault` in force; true when the fault has struck.
    template <class Fault>
    bool changeUnder(Fault&& fault) {
        const Status status = CMN_FILESTORE_S.recrypt("old", "new");
        const bool struck = fault.lift();
        EXPECT_TRUE(struck || status == kOk) << status;
        EXPECT_THAT(fault::openHandles(), IsEmpty());
        RecryptDatabase::expectUnlocked();
        const std::string right = db_.expectOneOpens("old", "new");
        EXPECT_TRUE(status != kOk || right == "new");
        return struck;
    }

    // As above, for each fault that `make(nth)` gives, until one does not strike.
    template <class Make>
    int changeUnderEach(Make make) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE("fault " + std::to_string(nth));
            db_.beginAgain("old");
            if (!changeUnder(make(nth)) || HasFatalFailure()) {
                return nth - 1;
            }
        }
    }

    RecryptDatabase db_;
};

// For the large record memory is short, which it is not for small ones: what proves that
// the key works must not prove too little. Also when the module of the cipher does not tell
// that it was memory.
TEST_F(RecryptFaultTest, MemoryForWhatIsLargeIsShort) {
    using fault::FailingAllocation;
    CallWatch& watch = db_.store.services().pkcs5().watch();
    for (const bool told : {true, false}) {
        SCOPED_TRACE(told ? "the module tells" : "the module does not tell");
        for (const std::size_t size : {2000, 4000}) {
            for (const auto mode :
                 {FailingAllocation::Mode::kOnce, FailingAllocation::Mode::kFromThenOn}) {
                SCOPED_TRACE(size);
                const int allocations = changeUnderEach([&](int nth) {
                    if (!told) {
                        watch.failAt("error", 1, kIo, CallWatch::kLasting);
                    }
                    return FailingAllocation(nth, mode, size);
                });
                EXPECT_LT(5, allocations);
                (void)watch.lift();
            }
        }
    }
}

// What the doubled services do, made to fail.
class FailingService {
public:
    FailingService(CallWatch& watch, const char* call, int nth, CallWatch::Lasting lasting)
        : watch_(watch) {
        watch_.failAt(call, nth, kNoMemory, lasting);
    }
    bool lift() { return watch_.lift(); }

private:
    CallWatch& watch_;
};

class ThrowingService {
public:
    ThrowingService(CallWatch& watch, const char* call, int nth) : watch_(watch) {
        watch_.throwAt(call, nth);
    }
    bool lift() { return watch_.lift(); }

private:
    CallWatch& watch_;
};

TEST_F(RecryptFaultTest, EveryFileSystemCallFailsOnce) {
    const int calls = changeUnderEach([](int nth) { return fault::FailingCall(nth, EIO); });
    EXPECT_LT(200, calls);
}

TEST_F(RecryptFaultTest, EveryFileSystemCallFailsFromThenOn) {
    const int calls = changeUnderEach(
        [](int nth) { return fault::FailingCall(nth, ENOSPC, fault::Mode::kFromThenOn); });
    EXPECT_LT(200, calls);
}

TEST_F(RecryptFaultTest, EveryTransferFallsShort) {
    const int calls = changeUnderEach([](int nth) { return fault::ShortCall(nth); });
    EXPECT_LT(20, calls);
}

TEST_F(RecryptFaultTest, EveryAllocationFailsOnce) {
    const int allocations = changeUnderEach([](int nth) { return fault::FailingAllocation(nth); });
    EXPECT_LT(500, allocations);
}

// The first that fails is not the last, so a few of them tell it all.
TEST_F(RecryptFaultTest, AllocationsFailFromThenOn) {
    using fault::FailingAllocation;
    changeUnderEach(
        [](int nth) { return FailingAllocation(7L * nth, FailingAllocation::Mode::kFromThenOn); });
}

TEST_F(RecryptFaultTest, EveryOperationOfAServiceFailsOrThrows) {
    const struct {
        const char* call;
        bool isPkcs5;
    } rows[] = {
        {"createTBuf", false},  {"data", false},   {"length", false},
        {"createObject", true}, {"select", true},  {"supply", true},
        {"getKey", true},       {"encrypt", true}, {"decrypt", true},
    };
    for (const auto& row : rows) {
        CallWatch& watch = row.isPkcs5 ? db_.store.services().pkcs5().watch()
                                       : db_.store.services().x509cmn().watch();
        for (const auto lasting : {CallWatch::kOnce, CallWatch::kLasting}) {
            SCOPED_TRACE(std::string(row.call) + (lasting ? " fails from then on" : " fails once"));
            changeUnderEach([&](int nth) { return FailingService(watch, row.call, nth, lasting); });
        }
        SCOPED_TRACE(std::string(row.call) + " throws");
        changeUnderEach([&](int nth) { return ThrowingService(watch, row.call, nth); });
    }
}

}  // namespace
