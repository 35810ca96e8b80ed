// scrypt: what makes a guess at a password expensive.
//
// Any thread may call these.
#ifndef LIB_DATABASE_SCRYPT_H
#define LIB_DATABASE_SCRYPT_H

#include <array>
#include <cstdint>

#include "lib/base/secret.h"

namespace fstore {

using Salt = std::array<unsigned char, 32>;

struct ScryptCost {
    static constexpr unsigned int kDefaultLn = 17;

    unsigned int ln = kDefaultLn;  // of N = 2^ln
    unsigned int r = 8;
    unsigned int p = 1;

    bool operator==(const ScryptCost&) const = default;

    std::uint64_t memory() const { return 128 * (std::uint64_t{1} << ln) * r; }  // bytes
    std::uint64_t work() const { return (std::uint64_t{1} << ln) * r * p; }      // N * r * p
};

// 32 bytes. Takes cost.memory() and, at the default cost, about half a second. Throws
// MemoryFailure.
SecretKey scrypt(const SecretText& password, const Salt& salt, const ScryptCost& cost);

// How often this process has run scrypt(): what opens a database without it is fast, and tests
// show that it stays so.
std::uint64_t scryptRuns();

}  // namespace fstore

#endif  // LIB_DATABASE_SCRYPT_H
