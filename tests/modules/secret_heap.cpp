#include "tests/modules/secret_heap.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>

#include <malloc.h>

#include "tests/support/replaced_heap.h"

namespace {

std::atomic<long> found{0};

}  // namespace

long support::freedWithMarker() noexcept {
    return found.load(std::memory_order_relaxed);
}

void* replaced::allocate(std::size_t size) noexcept {
    return std::malloc(size);
}

void replaced::release(void* block) noexcept {
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
