// Passwords and keys in memory: wiped whenever it is freed, and kept out of swap and core dumps
// where the system allows it.
#ifndef LIB_BASE_SECRET_H
#define LIB_BASE_SECRET_H

#include <cstddef>
#include <string_view>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/secret_pool.h"

namespace fstore {

// An allocator of memory from the secret pool, and of wiped memory from the heap for what does not
// fit there. For the few secrets that open everything else; bodies of records are SecretBytes.
template <class T>
struct PoolAllocator {
    using value_type = T;

    PoolAllocator() noexcept = default;
    template <class U>
    // NOLINTNEXTLINE(google-explicit-constructor): allocators convert into each other
    PoolAllocator(const PoolAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) {
        void* const memory = takeFromPool(count * sizeof(T));
        return memory != nullptr ? static_cast<T*>(memory) : Heap().allocate(count);
    }
    void deallocate(T* memory, std::size_t count) noexcept {
        if (!giveToPool(memory, count * sizeof(T))) {
            Heap().deallocate(memory, count);
        }
    }

    bool operator==(const PoolAllocator&) const noexcept { return true; }

private:
    using Heap = WipingAllocator<T>;
};

// A key, or the buffer that a password is read into. Reserve its size before filling it.
using SecretKey = std::vector<unsigned char, PoolAllocator<unsigned char>>;

// A password, NUL-terminated for the store. Not a std::string, which keeps short
// texts in itself, where no allocator wipes them.
class SecretText {
public:
    SecretText() : bytes_(1, 0) {}
    explicit SecretText(std::string_view text) {
        bytes_.reserve(text.size() + 1);
        bytes_.assign(text.begin(), text.end());
        bytes_.push_back(0);
    }

    const char* c_str() const noexcept { return reinterpret_cast<const char*>(bytes_.data()); }
    std::size_t size() const noexcept { return bytes_.size() - 1; }
    bool empty() const noexcept { return size() == 0; }
    std::string_view view() const noexcept { return {c_str(), size()}; }

private:
    SecretKey bytes_;  // with the NUL
};

}  // namespace fstore

#endif  // LIB_BASE_SECRET_H
