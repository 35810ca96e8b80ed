// Memory for passwords and keys that is locked in RAM and left out of core dumps.
//
// One small pool a process: a user may lock little (RLIMIT_MEMLOCK), and what opens a database is
// smaller still. Any thread may call these, also in the child of a fork: there is no lock that
// another thread could have held.
#ifndef LIB_BASE_SECRET_POOL_H
#define LIB_BASE_SECRET_POOL_H

#include <cstddef>

namespace fstore {

// Zeroed memory; null when the pool is full, or the size is 0 or more than a password takes.
[[nodiscard]] void* takeFromPool(std::size_t size) noexcept;

// Wipes what takeFromPool() returned for this size, and takes it back; false for other memory.
[[nodiscard]] bool giveToPool(void* memory, std::size_t size) noexcept;

}  // namespace fstore

#endif  // LIB_BASE_SECRET_POOL_H
