// Patterns for texts.
//
// All functions are pure and any thread may call them.
#ifndef LIB_BASE_GLOB_H
#define LIB_BASE_GLOB_H

#include <string>
#include <string_view>

namespace fstore {

// Whether the whole text matches: "*" stands for any characters, "?" for one byte,
// "[...]" for one of a set with ranges and "!" or "^" first for all others, "\" makes
// the next character plain. Letters of ASCII match in either case.
bool matchesGlob(std::string_view pattern, std::string_view text);

// Whether a text has what the user looks for: a pattern that matches all of it, or
// words without "*", "?" and "[" that stand anywhere in it.
bool hasPattern(std::string_view pattern, std::string_view text);

}  // namespace fstore

#endif  // LIB_BASE_GLOB_H
