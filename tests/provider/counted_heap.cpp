#include "tests/provider/counted_heap.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#include <malloc.h>

namespace {

std::atomic<long> blocks{0};
std::atomic<long> bytes{0};

void* added(void* block) noexcept {
    if (block != nullptr) {
        ++blocks;
        bytes += static_cast<long>(malloc_usable_size(block));
    }
    return block;
}

void subtract(void* block) noexcept {
    if (block != nullptr) {
        --blocks;
        bytes -= static_cast<long>(malloc_usable_size(block));
    }
}

}  // namespace

counted::Heap counted::heap() noexcept {
    return {blocks, bytes};
}

// The C library calls its own functions by these names, for who replaces them.
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) noexcept {
    return added(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return added(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) noexcept {
    subtract(block);
    void* const moved = __libc_realloc(block, size);
    if (moved == nullptr && size != 0) {
        (void)added(block);  // it stays
    }
    return added(moved);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return added(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) noexcept {
    subtract(block);
    __libc_free(block);
}

}  // extern "C"
