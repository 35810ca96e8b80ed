#include "lib/base/glob.h"

namespace fstore {
namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// One element of a pattern: how long it is, and whether it takes the character.
struct Element {
    std::size_t length;
    bool matches;
};

Element matchSet(std::string_view pattern, char c) {
    std::size_t at = 1;
    const bool others = at < pattern.size() && (pattern[at] == '!' || pattern[at] == '^');
    at += others ? 1 : 0;
    const std::size_t first = at;
    bool found = false;
    // A "]" in the first place belongs to the set.
    for (; at < pattern.size() && (pattern[at] != ']' || at == first); ++at) {
        const char low = lower(pattern[at]);
        if (at + 2 < pattern.size() && pattern[at + 1] == '-' && pattern[at + 2] != ']') {
            found = found || (low <= lower(c) && lower(c) <= lower(pattern[at + 2]));
            at += 2;
        } else {
            found = found || low == lower(c);
        }
    }
    if (at >= pattern.size()) {
        return {1, c == '['};  // no set without its end: a plain bracket
    }
    return {at + 1, found != others};
}

Element matchElement(std::string_view pattern, char c) {
    if (pattern[0] == '?') {
        return {1, true};
    }
    if (pattern[0] == '[') {
        return matchSet(pattern, c);
    }
    if (pattern[0] == '\\' && pattern.size() > 1) {
        return {2, lower(pattern[1]) == lower(c)};
    }
    return {1, lower(pattern[0]) == lower(c)};
}

}  // namespace

bool matchesGlob(std::string_view pattern, std::string_view text) {
    // After a mismatch only the last "*" has to take one character more: what an
    // earlier one could take instead, the last one can as well.
    std::size_t p = 0, t = 0;
    std::size_t afterStar = std::string_view::npos, starTook = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            afterStar = ++p;
            starTook = t;
            continue;
        }
        const Element element =
            p < pattern.size() ? matchElement(pattern.substr(p), text[t]) : Element{0, false};
        if (element.matches) {
            p += element.length;
            ++t;
        } else if (afterStar != std::string_view::npos) {
            p = afterStar;
            t = ++starTook;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

bool hasPattern(std::string_view pattern, std::string_view text) {
    const bool isPlain = pattern.find_first_of("*?[") == std::string_view::npos;
    return matchesGlob(isPlain ? "*" + std::string(pattern) + "*" : std::string(pattern), text);
}

}  // namespace fstore
