#include "tests/modules/secret_heap.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <new>

#include <malloc.h>

namespace {

std::atomic<long> found{0};

void release(void* block) noexcept {
    if (block != nullptr) {
        const auto* const bytes = static_cast<const char*>(block);
        const auto* const end = bytes + malloc_usable_size(block);
        const auto* const markerEnd = std::end(support::kMarker) - 1;
        if (std::search(bytes, end, std::begin(support::kMarker), markerEnd) != end) {
            found.fetch_add(1, std::memory_order_relaxed);
        }
    }
    std::free(block);
}

}  // namespace

long support::freedWithMarker() noexcept {
    return found.load(std::memory_order_relaxed);
}

// Every form is told: a sanitizer replaces those that are not.
void* operator new(std::size_t size) {
    if (void* const block = std::malloc(size)) {
        return block;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return ::operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return std::malloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return std::malloc(size);
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete[](void* block) noexcept {
    release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    release(block);
}
void operator delete[](void* block, std::size_t /*size*/) noexcept {
    release(block);
}
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
    release(block);
}
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept {
    release(block);
}
