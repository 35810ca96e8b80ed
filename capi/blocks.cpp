#include "capi/blocks.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include "cmn/wipe.h"

namespace capi {
namespace {

// In front of each block; aligned as the block is to be.
struct alignas(std::max_align_t) Head {
    std::size_t size;  // of the bytes behind it
};

}  // namespace

void* blockOf(std::span<const unsigned char> bytes) {
    const std::size_t size = bytes.size() + 1;
    void* const memory = ::operator new(sizeof(Head) + size);
    Head* const head = new (memory) Head{size};
    auto* const block = reinterpret_cast<unsigned char*>(head + 1);
    *std::copy(bytes.begin(), bytes.end(), block) = 0;
    return block;
}

void freeBlock(void* block) noexcept {
    if (block == nullptr) {
        return;
    }
    Head* const head = static_cast<Head*>(block) - 1;
    wipe(block, head->size);
    ::operator delete(head);
}

}  // namespace capi
