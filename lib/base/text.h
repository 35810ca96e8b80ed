// Text in and out: hexadecimal digits, what a terminal may show of a text and how
// wide that is, patterns, periods of time and moments.
//
// All functions are pure and any thread may call them.
#ifndef LIB_BASE_TEXT_H
#define LIB_BASE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fstore {

std::string toHex(std::span<const unsigned char> bytes);  // lower case

// Pairs of digits of either case; none for anything else. ":" between pairs is
// skipped, as other tools print it.
std::optional<std::vector<unsigned char>> fromHex(std::string_view text);

// Digits only, lower-case; none when there is another character. For prefixes, which
// may end within a byte.
std::optional<std::string> hexDigits(std::string_view text);

// The text as a terminal may show it: control characters, characters that change
// the direction of writing, and bytes that are not UTF-8 are replaced by "\xNN" or
// "\u{NNNN}"; everything else stays.
std::string printable(std::string_view text);

bool isUtf8(std::string_view text);

// The columns that a printable text takes on a terminal.
std::size_t columnsOf(std::string_view text);

// The text, cut to at most `columns` columns and then ending in an ellipsis.
std::string clipped(std::string_view text, std::size_t columns);

// Whether the whole text matches: "*" stands for any characters, "?" for one byte,
// "[...]" for one of a set with ranges and "!" or "^" first for all others, "\" makes
// the next character plain. Letters of ASCII match in either case.
bool matchesGlob(std::string_view pattern, std::string_view text);

// Seconds of "30d", "12h", "90m", "45s", "2w" or "1y" (365 days); none for anything
// else and for what exceeds 10,000 years.
std::optional<std::int64_t> parsePeriod(std::string_view text);

// Moments are seconds since 1970 in UTC. "2030-01-31T23:59:59Z" in and out; a zone
// offset and a fraction of seconds, which is dropped, are read too.
std::optional<std::int64_t> parseMoment(std::string_view text);
std::string printMoment(std::int64_t moment);

// "20300131T235959Z", for the names of files.
std::string compactMoment(std::int64_t moment);

std::int64_t now();

}  // namespace fstore

#endif  // LIB_BASE_TEXT_H
