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

// The same with the ellipsis in its middle: of an address, folder and name tell something.
std::string clippedInside(std::string_view text, std::size_t columns);

// The text in lines of at most `columns` columns, broken at blanks, and inside of a word that is
// wider. Lines behind the first begin with `indent` blanks, which are fewer than `columns`; `used`
// columns of the first are taken already.
std::string wrapped(std::string_view text, std::size_t columns, std::size_t indent,
                    std::size_t used);

}  // namespace fstore

#endif  // LIB_BASE_PRINTABLE_H
