// What a terminal may show of a text, and how wide that is.
//
// All functions are pure and any thread may call them.
#ifndef LIB_BASE_PRINTABLE_H
#define LIB_BASE_PRINTABLE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace fstore {

// The text as a terminal may show it: control characters, characters that change
// the direction of writing, and bytes that are not UTF-8 are replaced by "\xNN" or
// "\u{NNNN}"; everything else stays.
std::string printable(std::string_view text);

bool isUtf8(std::string_view text);

// The columns that a printable text takes on a terminal.
std::size_t columnsOf(std::string_view text);

// The text, cut to at most `columns` columns and then ending in an ellipsis.
std::string clipped(std::string_view text, std::size_t columns);

}  // namespace fstore

#endif  // LIB_BASE_PRINTABLE_H
