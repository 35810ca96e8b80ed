// Memory that runs out when a test wants it to: linking alloc_fault.cpp (target
// alloc_fault) replaces the global operator new and delete of a program.
//
// Allocations of every thread count. Those of malloc() do not: the C library's
// own (streams, folder listings) never fail here.
#ifndef TESTS_SUPPORT_ALLOC_FAULT_H
#define TESTS_SUPPORT_ALLOC_FAULT_H

#include <cstddef>

namespace fault {

// Makes the `nth` allocation from now on fail, counted from 1: operator new
// throws std::bad_alloc, its nothrow forms give null. Those of fewer bytes than
// `atLeast` neither count nor fail, as when memory is short and not used up. One may
// live at a time.
class FailingAllocation {
public:
    enum class Mode { kOnce, kFromThenOn };

    explicit FailingAllocation(long nth, Mode mode = Mode::kOnce, std::size_t atLeast = 0) noexcept;
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
    ~FailingAllocation();

    // Ends the fault; true when an allocation has failed. Call it before the
    // test framework, which allocates too, is asked to judge anything.
    bool lift() noexcept;
};

long allocationCount() noexcept;  // since the program began
long liveAllocations() noexcept;  // made and not yet freed

// How much memory was in use at the same time since this was made, beyond what was
// then. One may live at a time.
class PeakMemory {
public:
    PeakMemory() noexcept;
    PeakMemory(const PeakMemory&) = delete;
    PeakMemory& operator=(const PeakMemory&) = delete;

    long bytes() const noexcept;

private:
    long before_;
};

// Null in programs without alloc_fault.cpp.
[[gnu::weak]] void shiftAllocationPause(int by) noexcept;

// While one lives, allocations of its thread neither fail nor count as calls:
// for test machinery that runs inside the code under test.
class AllocationPause {
public:
    AllocationPause() noexcept { shift(1); }
    AllocationPause(const AllocationPause&) = delete;
    AllocationPause& operator=(const AllocationPause&) = delete;
    ~AllocationPause() { shift(-1); }

private:
    static void shift(int by) noexcept {
        if (shiftAllocationPause != nullptr) {
            shiftAllocationPause(by);
        }
    }
};

}  // namespace fault

#endif  // TESTS_SUPPORT_ALLOC_FAULT_H
