#include "tests/support/replaced_heap.h"

#include <new>

namespace {

void* allocateOrThrow(std::size_t size) {
    void* const memory = replaced::allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

// All forms are replaced, not only the one that the others are built on by
// default: sanitizers bring complete sets of their own.
void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return replaced::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return replaced::allocate(size);
}
void operator delete(void* memory) noexcept {
    replaced::release(memory);
}
void operator delete[](void* memory) noexcept {
    replaced::release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    replaced::release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    replaced::release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    replaced::release(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    replaced::release(memory);
}
