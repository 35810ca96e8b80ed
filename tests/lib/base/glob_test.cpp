#include "lib/base/glob.h"

#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

TEST(GlobTest, MatchesAsTabled) {
    const struct {
        const char* pattern;
        const char* text;
        bool matches;
    } rows[] = {
        {"", "", true},
        {"", "a", false},
        {"*", "", true},
        {"*", "abc", true},
        {"a*c", "abbbc", true},
        {"a*c", "abbbd", false},
        {"*b*b*", "abcb", true},
        {"*ab", "aab", true},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"ABC", "abc", true},
        {"[a-c]x", "Bx", true},
        {"[!a-c]x", "bx", false},
        {"[^a-c]x", "dx", true},
        {"[]]", "]", true},
        {"[a", "[a", true},
        {"[a", "a", false},
        {"\\*", "*", true},
        {"\\*", "a", false},
        {"\\", "\\", true},
        {"**", "x", true},
        {"a*", "ba", false},
        {"*.example.org", "www.example.org", true},
        {"[a-]", "-", true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.matches, matchesGlob(row.pattern, row.text))
            << row.pattern << " on " << row.text;
    }
}

// What one star took is not tried again for each later one: this would take for ever.
TEST(GlobTest, ManyStarsTakeNoLongerThanOne) {
    std::string pattern;
    for (int i = 0; i < 40; ++i) {
        pattern += "*a";
    }
    EXPECT_FALSE(matchesGlob(pattern + "*b", std::string(2000, 'a')));
}

TEST(PatternTest, PlainWordsStandAnywhere) {
    EXPECT_TRUE(hasPattern("example", "CN=www.EXAMPLE.org"));
    EXPECT_FALSE(hasPattern("example*", "CN=www.example.org"));
    EXPECT_TRUE(hasPattern("*example*", "CN=www.example.org"));
    EXPECT_TRUE(hasPattern("", ""));
}

}  // namespace
}  // namespace fstore
