// Blocks of memory that are handed out: each knows its size, so that all of it is wiped.
//
// Any thread may call any of these.
#ifndef CAPI_BLOCKS_H
#define CAPI_BLOCKS_H

#include <span>

namespace capi {

// A copy of these bytes for filestore_free(), with a NUL behind them, which does not count. Throws
// std::bad_alloc.
void* blockOf(std::span<const unsigned char> bytes);

void freeBlock(void* block) noexcept;

}  // namespace capi

#endif  // CAPI_BLOCKS_H
