// Hexadecimal digits and numbers, as people write them.
//
// All functions are pure and any thread may call them.
#ifndef LIB_BASE_DIGITS_H
#define LIB_BASE_DIGITS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/secret.h"

namespace fstore {

std::string toHex(std::span<const unsigned char> bytes);  // lower case

// The same digits of a secret, appended in memory that is wiped; there should be room.
void appendHex(SecretKey& text, std::span<const unsigned char> secret);

// Pairs of digits of either case; none for anything else. ":" between pairs is
// skipped, as other tools print it.
std::optional<std::vector<unsigned char>> fromHex(std::string_view text);

// Digits only, lower-case; none when there is another character. For prefixes, which
// may end within a byte.
std::optional<std::string> hexDigits(std::string_view text);

// A number of 32 bits, decimal or behind "0x"; none for anything else.
std::optional<std::uint32_t> parseNumber(std::string_view text);

}  // namespace fstore

#endif  // LIB_BASE_DIGITS_H
