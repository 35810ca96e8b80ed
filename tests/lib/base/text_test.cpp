#include "lib/base/text.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

using namespace std::string_literals;

TEST(HexTest, ReadsWhatItPrints) {
    const std::array<unsigned char, 4> bytes{0x00, 0x7f, 0x80, 0xff};
    EXPECT_EQ("007f80ff", toHex(bytes));
    const auto read = fromHex("007F:80ff");
    ASSERT_TRUE(read);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), read->begin(), read->end()));
}

TEST(HexTest, RefusesWhatIsNoPairOfDigits) {
    for (const char* const text : {"0", "0g", ":00", "00:", "00::11", "00 11", "0x00"}) {
        EXPECT_FALSE(fromHex(text)) << text;
    }
    EXPECT_EQ("abc", hexDigits("aBc"));
    EXPECT_FALSE(hexDigits("ab:c"));
}

TEST(PrintableTest, EscapesAsTabled) {
    const struct {
        const char* name;
        std::string text;
        std::string shown;
    } rows[] = {
        {"plain text stays", "a b~", "a b~"},
        {"UTF-8 stays", "Zürich 東京", "Zürich 東京"},
        {"escape sequence", "\033[31mred", "\\x1b[31mred"},
        {"line feed and NUL", "a\nb\0c"s, "a\\x0ab\\x00c"},
        {"control characters of eight bits", "a\u009bb", "a\\x9bb"},
        {"delete", "\x7f", "\\x7f"},
        {"writing turned round", "a\u202eb", "a\\u{202e}b"},
        {"no width", "a\u200bb", "a\\u{200b}b"},
        {"lone byte",
         "a\xff"
         "b",
         "a\\xffb"},
        {"cut character", "a\xe2\x82", "a\\xe2\\x82"},
        {"overlong form", "\xc0\xaf", "\\xc0\\xaf"},
        {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"beyond Unicode", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.shown, printable(row.text));
        EXPECT_TRUE(isUtf8(printable(row.text)));
    }
}

TEST(ColumnsTest, CountsWhatATerminalShows) {
    EXPECT_EQ(3u, columnsOf("abc"));
    EXPECT_EQ(6u, columnsOf("Zürich"));
    EXPECT_EQ(4u, columnsOf("東京"));
    EXPECT_EQ(1u, columnsOf("e\u0301"));
}

TEST(ClippedTest, EndsInAnEllipsisWithinTheColumns) {
    EXPECT_EQ("abc", clipped("abc", 3));
    EXPECT_EQ("ab…", clipped("abcd", 3));
    EXPECT_EQ("…", clipped("abcd", 1));
    EXPECT_EQ("", clipped("abcd", 0));
    EXPECT_EQ("東…", clipped("東京都", 4));
    EXPECT_EQ("東…", clipped("東京都", 3));
}

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

TEST(PeriodTest, ReadsAsTabled) {
    EXPECT_EQ(45, parsePeriod("45s"));
    EXPECT_EQ(90 * 60, parsePeriod("90m"));
    EXPECT_EQ(12 * 3600, parsePeriod("12h"));
    EXPECT_EQ(30 * 86400, parsePeriod("30d"));
    EXPECT_EQ(2 * 7 * 86400, parsePeriod("2w"));
    EXPECT_EQ(365 * 86400, parsePeriod("1y"));
    EXPECT_EQ(0, parsePeriod("0d"));
    EXPECT_TRUE(parsePeriod("10000y"));
    for (const char* const text :
         {"", "d", "30", "-1d", "1.5d", "30 d", "10001y", "99999999999999999999999999d", "1dd"}) {
        EXPECT_FALSE(parsePeriod(text)) << text;
    }
}

TEST(MomentTest, ReadsAsTabled) {
    EXPECT_EQ(0, parseMoment("1970-01-01T00:00:00Z"));
    EXPECT_EQ(951782400, parseMoment("2000-02-29T00:00:00Z"));
    EXPECT_EQ(951782400, parseMoment("2000-02-29t01:30:00+01:30"));
    EXPECT_EQ(951782400, parseMoment("2000-02-28 19:00:00.25-05:00"));
    EXPECT_EQ(253402300799, parseMoment("9999-12-31T23:59:59Z"));
    for (const char* const text :
         {"", "2000-02-30T00:00:00Z", "2000-13-01T00:00:00Z", "2000-01-01T24:00:00Z",
          "2000-01-01T00:60:00Z", "2000-01-01", "2000-01-01T00:00:00", "2000-01-01T00:00:00Zx",
          "2000-01-01T00:00:00+25:00", "20000101T000000Z"}) {
        EXPECT_FALSE(parseMoment(text)) << text;
    }
}

TEST(MomentTest, ReadsWhatItPrints) {
    for (const std::int64_t moment : {std::int64_t{0}, std::int64_t{1700000000},
                                      std::int64_t{253402300799}, std::int64_t{-86400}}) {
        EXPECT_EQ(moment, parseMoment(printMoment(moment)));
    }
    EXPECT_EQ("2000-02-29T00:00:00Z", printMoment(951782400));
}

}  // namespace
}  // namespace fstore
