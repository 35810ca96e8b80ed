// SPDX-License-Identifier: Apache-2.0
// Bytes that may be secret: wiped whenever their memory is freed.
#ifndef CMN_SECRET_BYTES_H
#define CMN_SECRET_BYTES_H

#include <cstddef>
#include <memory>
#include <vector>

#include "cmn/wipe.h"

// An allocator that wipes memory before it frees it, also what a container leaves behind
// when it grows.
template <class T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() noexcept = default;
    template <class U>
    // NOLINTNEXTLINE(google-explicit-constructor): allocators convert into each other
    WipingAllocator(const WipingAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) noexcept {
        wipe(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }

    bool operator==(const WipingAllocator&) const noexcept { return true; }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

#endif  // CMN_SECRET_BYTES_H
