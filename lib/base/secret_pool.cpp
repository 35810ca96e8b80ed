#include "lib/base/secret_pool.h"

#include <array>
#include <atomic>
#include <cstdint>

#include "cmn/wipe.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr std::size_t kBlock = 128;  // bytes: P, a key and most passwords take one
constexpr std::size_t kBlocksOfRow = 64;
constexpr std::size_t kRow = kBlock * kBlocksOfRow;  // no piece is larger
constexpr std::size_t kRows = 8;                     // 64 KiB, what the smallest limit allows

// A bit for each block of a row, 1 while it is taken. Blocks of a piece are in one row, so taking
// and giving back is one exchange of its word.
std::array<std::atomic<std::uint64_t>, kRows> taken{};

// Mapped on first use; null when it could not be. Never unmapped: secrets of static objects end
// after everything else.
unsigned char* pool() noexcept {
    static unsigned char* const memory =
        static_cast<unsigned char*>(os::mapForSecrets(kRows * kRow));
    return memory;
}

std::uint64_t maskOf(std::size_t size) noexcept {
    const std::size_t blocks = (size + kBlock - 1) / kBlock;
    return blocks == kBlocksOfRow ? ~std::uint64_t{0} : (std::uint64_t{1} << blocks) - 1;
}

// The number of the first block of the row that the piece got; -1 when it has no room for it.
int takeFrom(std::atomic<std::uint64_t>& row, std::uint64_t mask) noexcept {
    std::uint64_t seen = row.load();
    for (unsigned int shift = 0; shift < kBlocksOfRow && (mask << shift >> shift) == mask;) {
        const std::uint64_t wanted = mask << shift;
        if ((seen & wanted) != 0) {
            ++shift;
        } else if (row.compare_exchange_weak(seen, seen | wanted)) {
            return static_cast<int>(shift);
        }
    }
    return -1;
}

}  // namespace

void* takeFromPool(std::size_t size) noexcept {
    unsigned char* const memory = size != 0 && size <= kRow ? pool() : nullptr;
    if (memory == nullptr) {
        return nullptr;
    }
    for (std::size_t row = 0; row < kRows; ++row) {
        const int block = takeFrom(taken[row], maskOf(size));
        if (block >= 0) {
            return memory + row * kRow + static_cast<std::size_t>(block) * kBlock;
        }
    }
    return nullptr;
}

bool giveToPool(void* memory, std::size_t size) noexcept {
    const auto begin = reinterpret_cast<std::uintptr_t>(pool());
    const auto place = reinterpret_cast<std::uintptr_t>(memory) - begin;
    if (begin == 0 || place >= kRows * kRow) {
        return false;
    }
    wipe(memory, size);
    taken[place / kRow] &= ~(maskOf(size) << place % kRow / kBlock);
    return true;
}

}  // namespace fstore
