#include "tests/support/alloc_fault.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdlib>

#include <malloc.h>

#include "tests/support/replaced_heap.h"

namespace {

std::atomic<long> made{0};
std::atomic<long> live{0};
std::atomic<long> liveBytes{0};
std::atomic<long> peakBytes{0};
std::atomic<long> remaining{LONG_MAX};  // calls until the fault strikes
std::atomic<std::size_t> leastSize{0};
std::atomic<bool> lasting{false};
std::atomic<bool> struck{false};
thread_local int pauseDepth = 0;

bool fails(std::size_t size) noexcept {
    if (pauseDepth > 0) {
        return false;
    }
    made.fetch_add(1, std::memory_order_relaxed);
    if (remaining.load(std::memory_order_relaxed) == LONG_MAX ||
        size < leastSize.load(std::memory_order_relaxed)) {
        return false;
    }
    const long left = remaining.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (left > 0 || (left < 0 && !lasting.load(std::memory_order_relaxed))) {
        return false;
    }
    struck.store(true, std::memory_order_relaxed);
    return true;
}

void took(long bytes) noexcept {
    const long now = liveBytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    long peak = peakBytes.load(std::memory_order_relaxed);
    while (peak < now && !peakBytes.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

}  // namespace

namespace fault {

FailingAllocation::FailingAllocation(long nth, Mode mode, std::size_t atLeast) noexcept {
    struck = false;
    leastSize = atLeast;
    lasting = mode == Mode::kFromThenOn;
    remaining = nth;
}

FailingAllocation::~FailingAllocation() {
    (void)lift();
}

bool FailingAllocation::lift() noexcept {
    remaining = LONG_MAX;
    return struck;
}

long allocationCount() noexcept {
    return made;
}

long liveAllocations() noexcept {
    return live;
}

PeakMemory::PeakMemory() noexcept : before_(liveBytes) {
    peakBytes = before_;
}

long PeakMemory::bytes() const noexcept {
    return peakBytes - before_;
}

void shiftAllocationPause(int by) noexcept {
    pauseDepth += by;
}

}  // namespace fault

void* replaced::allocate(std::size_t size) noexcept {
    void* const memory = fails(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory != nullptr) {
        live.fetch_add(1, std::memory_order_relaxed);
        took(static_cast<long>(malloc_usable_size(memory)));
    }
    return memory;
}

void replaced::release(void* memory) noexcept {
    if (memory != nullptr) {
        live.fetch_sub(1, std::memory_order_relaxed);
        liveBytes.fetch_sub(static_cast<long>(malloc_usable_size(memory)),
                            std::memory_order_relaxed);
        std::free(memory);
    }
}
