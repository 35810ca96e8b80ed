#include "tests/support/watched_heap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "tests/support/replaced_heap.h"

namespace {

thread_local WatchedHeap* watching = nullptr;

}  // namespace

WatchedHeap::WatchedHeap(std::size_t size) noexcept : size_(std::min(size, kMaxSize)) {
    watching = this;
}

WatchedHeap::~WatchedHeap() {
    watching = nullptr;
}

void* WatchedHeap::allocate(std::size_t size) noexcept {
    if (size != size_) {
        return std::malloc(size);
    }
    void** const place = std::find(std::begin(live_), std::end(live_), nullptr);
    if (refuses_ || place == std::end(live_)) {
        return nullptr;
    }
    *place = std::malloc(size);
    ++made_;
    return *place;
}

void WatchedHeap::release(const void* memory) noexcept {
    void** const place = std::find(std::begin(live_), std::end(live_), memory);
    if (place != std::end(live_)) {
        *place = nullptr;
        ++freed_;
        std::memcpy(lastFreed_, memory, size_);
    }
}

void* replaced::allocate(std::size_t size) noexcept {
    return watching != nullptr ? watching->allocate(size) : std::malloc(size);
}

void replaced::release(void* memory) noexcept {
    if (watching != nullptr && memory != nullptr) {
        watching->release(memory);
    }
    std::free(memory);
}
