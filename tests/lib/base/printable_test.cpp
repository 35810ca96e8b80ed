#include "lib/base/printable.h"

#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

using namespace std::string_literals;

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

TEST(ClippedTest, KeepsBothEndsOfWhatIsClippedInside) {
    EXPECT_EQ("abc", clippedInside("abc", 3));
    EXPECT_EQ("a…f", clippedInside("abcdef", 3));
    EXPECT_EQ("a…ef", clippedInside("abcdef", 4));
    EXPECT_EQ("…", clippedInside("abcd", 1));
    EXPECT_EQ("", clippedInside("abcd", 0));
    EXPECT_EQ("東…都", clippedInside("東京京都", 5));
    EXPECT_EQ("…都", clippedInside("東京京都", 4));
}

TEST(WrappedTest, BreaksAtBlanks) {
    EXPECT_EQ("", wrapped("", 10, 2, 0));
    EXPECT_EQ("one two", wrapped("one two", 7, 2, 0));
    EXPECT_EQ("one two\n  three", wrapped("one two three", 7, 2, 0));
    EXPECT_EQ("a  b", wrapped("a  b", 7, 2, 0));
    EXPECT_EQ("\n  one", wrapped("one", 7, 2, 6));
    EXPECT_EQ("東\n京", wrapped("東 京", 4, 0, 0));
}

TEST(WrappedTest, BreaksInsideOfAWordThatIsWider) {
    EXPECT_EQ("abcd\n ef", wrapped("abcdef", 4, 1, 0));
    EXPECT_EQ("a\n bcd\n ef\n g", wrapped("a bcdef g", 4, 1, 0));
    EXPECT_EQ("a\nb", wrapped("ab", 1, 0, 0));
    EXPECT_EQ("東\n京", wrapped("東京", 1, 0, 0));
}

}  // namespace
}  // namespace fstore
