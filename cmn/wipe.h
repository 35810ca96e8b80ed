// SPDX-License-Identifier: Apache-2.0
// Clears memory that held a secret, also when nothing reads it again.
#ifndef CMN_WIPE_H
#define CMN_WIPE_H

#include <cstddef>
#include <cstring>

// Sets `size` bytes at `data` to zero; `data` may be null when `size` is 0. For
// the last use of a buffer, where an optimiser would drop a plain memset.
inline void wipe(void* data, std::size_t size) noexcept {
    if (size == 0) {
        return;
    }
    // g++ makes slow string instructions of a size that it knows; the library knows better.
    __asm__("" : "+r"(size));
    std::memset(data, 0, size);
    // To the compiler this may read whatever `data` leads to, so the zeros must be there.
    __asm__ volatile("" : : "r"(data) : "memory");
}

#endif  // CMN_WIPE_H
