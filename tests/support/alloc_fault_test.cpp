#include "tests/support/alloc_fault.h"

#include <new>

#include "gtest/gtest.h"

namespace {

using fault::FailingAllocation;

// Not to be optimised away, unlike an unused new expression.
bool allocates(std::size_t size = 8) {
    void* const memory = ::operator new(size, std::nothrow);
    ::operator delete(memory);
    return memory != nullptr;
}

struct Outcomes {
    bool first, second, third;
    bool operator==(const Outcomes&) const = default;
};

Outcomes threeAllocations(long nth, FailingAllocation::Mode mode, bool& hit) {
    FailingAllocation fault(nth, mode);
    const Outcomes outcomes{allocates(), allocates(), allocates()};
    hit = fault.lift();
    return outcomes;
}

TEST(FailingAllocationTest, StrikesAsPlanned) {
    using Mode = FailingAllocation::Mode;
    const struct {
        const char* name;
        long nth;
        Mode mode;
        Outcomes outcomes;
        bool hit;
    } rows[] = {
        {"first", 1, Mode::kOnce, {false, true, true}, true},
        {"second", 2, Mode::kOnce, {true, false, true}, true},
        {"from the second", 2, Mode::kFromThenOn, {true, false, false}, true},
        {"later", 4, Mode::kOnce, {true, true, true}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        bool hit = false;
        EXPECT_TRUE(row.outcomes == threeAllocations(row.nth, row.mode, hit));
        EXPECT_EQ(row.hit, hit);
        EXPECT_TRUE(allocates());
    }
}

TEST(FailingAllocationTest, SmallOnesNeitherFailNorCount) {
    FailingAllocation fault(2, FailingAllocation::Mode::kFromThenOn, 9);
    const Outcomes small{allocates(8), allocates(8), allocates(8)};
    const Outcomes large{allocates(9), allocates(9), allocates(100)};
    const bool smallOnce = allocates(8);
    EXPECT_TRUE(fault.lift());
    EXPECT_TRUE((small == Outcomes{true, true, true}));
    EXPECT_TRUE((large == Outcomes{true, false, false}));
    EXPECT_TRUE(smallOnce);
}

TEST(FailingAllocationTest, ThrowingFormsThrow) {
    int thrown = 0;
    FailingAllocation fault(1, FailingAllocation::Mode::kFromThenOn);
    try {
        ::operator delete(::operator new(8));
    } catch (const std::bad_alloc&) {
        ++thrown;
    }
    try {
        ::operator delete[](::operator new[](8));
    } catch (const std::bad_alloc&) {
        ++thrown;
    }
    EXPECT_TRUE(fault.lift());
    EXPECT_EQ(2, thrown);
}

TEST(FailingAllocationTest, PausedAllocationsNeitherFailNorCount) {
    FailingAllocation fault(1, FailingAllocation::Mode::kFromThenOn);
    const long before = fault::allocationCount();
    bool allocated = false;
    {
        const fault::AllocationPause pause;
        allocated = allocates();
    }
    const long after = fault::allocationCount();
    EXPECT_FALSE(fault.lift());
    EXPECT_TRUE(allocated);
    EXPECT_EQ(before, after);
}

TEST(LiveAllocationsTest, CountWhatIsNotYetFreed) {
    const long before = fault::liveAllocations();
    void* const one = ::operator new(8);
    void* const many = ::operator new[](8);
    const long during = fault::liveAllocations();
    ::operator delete(one);
    ::operator delete[](many);
    ::operator delete(nullptr);
    EXPECT_EQ(before, fault::liveAllocations());
    EXPECT_EQ(before + 2, during);
}

TEST(PeakMemoryTest, IsTheMostInUseAtATime) {
    ::operator delete(::operator new(1 << 20));
    const fault::PeakMemory peak;
    ::operator delete(::operator new(1000));
    void* const kept = ::operator new(1000);
    ::operator delete(::operator new(1000));
    const long bytes = peak.bytes();
    ::operator delete(kept);
    EXPECT_GE(bytes, 2000);
    EXPECT_LT(bytes, 3000);
}

}  // namespace
