#include "format/dsc_text.h"

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/scanned_line.h"

using namespace std::string_literals;

namespace {

const unsigned char* bytesOf(const std::string& data) {
    return reinterpret_cast<const unsigned char*>(data.data());
}

// A number's four bytes as they lie in memory.
std::string number(unsigned int value) {
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// ---------------------------------------------------------------- DataToPrint

TEST(DataToPrintTest, PrintsAsTabled) {
    const struct {
        const char* name;
        unsigned int type;
        std::string data;
        Status status;
        std::string text;
    } rows[] = {
        {"number", 1, number(42), kOk, "0000002a"},
        {"largest number", 1, number(0xfedcba98), kOk, "fedcba98"},
        {"number of three bytes", 1, "abc", kMalformed, ""},
        {"number of five bytes", 1, "abcde", kMalformed, ""},
        {"number of no bytes", 1, "", kMalformed, ""},
        {"binary", 2, "\x01\xab\xff", kOk, "01abff"},
        {"no binary bytes", 2, "", kOk, ""},
        {"binary with zero bytes", 2, "\0\n\0"s, kOk, "000a00"},
        {"string", 3, "alice\0"s, kOk, "alice"},
        {"string up to its first NUL", 3, "ab\0cd\0"s, kOk, "ab"},
        {"string without NUL", 3, "ab", kOk, "ab"},
        {"empty string", 3, "\0"s, kOk, ""},
        {"string of no bytes", 3, "", kOk, ""},
        {"text", 4, "alice", kOk, "alice"},
        {"text up to its first NUL", 4, "ab\0cd"s, kOk, "ab"},
        {"empty text", 4, "", kOk, ""},
        {"text that is not ASCII", 4, "\xc3\xa4\x80\xff", kOk, "\xc3\xa4\x80\xff"},
        {"type 0", 0, "abcd", kMalformed, ""},
        {"type 5", 5, "abcd", kMalformed, ""},
        {"type 15", 15, "abcd", kMalformed, ""},
        {"flags do not choose", 0xfffffff2, "\x01", kOk, "01"},
        {"type in bits above 3 is none", 0x20, "\x01", kMalformed, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string out = "before";
        EXPECT_EQ(row.status, DataToPrint(row.type, bytesOf(row.data),
                                          static_cast<unsigned int>(row.data.size()), out));
        EXPECT_EQ(row.status == kOk ? row.text : "before", out);
    }
}

TEST(DataToPrintTest, NullDataIsInvalidBeforeAllElse) {
    std::string out = "before";
    EXPECT_EQ(kInvalid, DataToPrint(2, nullptr, 0, out));
    EXPECT_EQ(kInvalid, DataToPrint(9, nullptr, 0, out));
    EXPECT_EQ("before", out);
}

TEST(DataToPrintTest, PrintsEveryByteAsPrintfDoes) {
    std::string data;
    std::string expected;
    for (int i = 0; i < 256; ++i) {
        data += static_cast<char>(i);
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned int>(i));
        expected += pair;
    }
    std::string out;
    ASSERT_EQ(kOk, DataToPrint(2, bytesOf(data), 256, out));
    EXPECT_EQ(expected, out);
}

// ---------------------------------------------------------------- PrintToData

TEST(PrintToDataTest, ReadsAsTabled) {
    const struct {
        const char* name;
        unsigned int type;
        std::string text;
        unsigned int room;
        Status status;
        unsigned int size;
        std::string data;  // the bytes that are at `out` then
    } rows[] = {
        {"number", 1, "0000002a", 4, kOk, 4, number(42)},
        {"number with sign, prefix and white space", 1, " \t-0X2a", 9, kOk, 4, number(-42U)},
        {"number followed by text", 1, "2ag", 4, kOk, 4, number(42)},
        {"no room for a number", 1, "0000002a", 3, kTooSmall, 4, ""},
        {"no room comes before no number", 1, "zz", 0, kTooSmall, 4, ""},
        {"no number", 1, "zz", 4, kMalformed, 0, ""},
        {"empty number", 1, "", 4, kMalformed, 0, ""},
        {"sign alone", 1, "-", 4, kMalformed, 0, ""},
        {"binary", 2, "01abff", 3, kOk, 3, "\x01\xab\xff"},
        {"binary in both cases", 2, "aBCdEf", 9, kOk, 3, "\xab\xcd\xef"},
        {"binary of nothing", 2, "", 9, kOk, 0, ""},
        {"lone last digit", 2, "abc", 9, kOk, 2, "\xab\x0c"},
        {"lone digit", 2, "F", 9, kOk, 1, "\x0f"},
        {"lone digit before white space", 2, "abc 12", 9, kOk, 2, "\xab\x0c"},
        {"lone digit without room", 2, "abc", 1, kOk, 1, "\xab"},
        {"binary up to white space", 2, "ab\tzz", 9, kOk, 1, "\xab"},
        {"white space at once", 2, " ab", 9, kOk, 0, ""},
        {"binary as far as there is room", 2, "01abff", 2, kOk, 2, "\x01\xab"},
        {"behind full room nothing is looked at", 2, "01zz", 1, kOk, 1, "\x01"},
        {"no room at all", 2, "zz", 0, kOk, 0, ""},
        {"bad first pair", 2, "zz", 9, kMalformed, 0, ""},
        {"bad second digit", 2, "01az", 9, kMalformed, 1, "\x01"},
        {"bad first digit", 2, "01za", 9, kMalformed, 1, "\x01"},
        {"bad lone character", 2, "01z", 9, kMalformed, 1, "\x01"},
        {"prefix is no pair", 2, "0x01", 9, kMalformed, 0, ""},
        {"sign is no digit", 2, "+1", 9, kMalformed, 0, ""},
        {"byte above 127", 2, "\xe4\xe4", 9, kMalformed, 0, ""},
        {"string", 3, "ab c", 5, kOk, 5, "ab c\0"s},
        {"string keeps leading white space", 3, "  a", 9, kOk, 4, "  a\0"s},
        {"empty string", 3, "", 1, kOk, 1, "\0"s},
        {"string without room for its NUL", 3, "abc", 3, kTooSmall, 4, ""},
        {"text", 4, "abc", 3, kOk, 3, "abc"},
        {"empty text", 4, "", 0, kOk, 0, ""},
        {"text without room", 4, "abc", 2, kTooSmall, 3, ""},
        {"type 0", 0, "00", 9, kMalformed, 0, ""},
        {"type 5", 5, "00", 9, kMalformed, 0, ""},
        {"type 15", 15, "00", 9, kMalformed, 0, ""},
        {"flags do not choose", 0xfffffff2, "01", 9, kOk, 1, "\x01"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // Exactly the room that is promised, so that a sanitizer sees each byte beyond.
        const auto out = std::make_unique<unsigned char[]>(row.room);
        unsigned int size = row.room;
        EXPECT_EQ(row.status, PrintToData(row.type, row.text.c_str(), out.get(), size));
        EXPECT_EQ(row.size, size);
        EXPECT_EQ(row.data, std::string(reinterpret_cast<const char*>(out.get()), row.data.size()));
    }
}

TEST(PrintToDataTest, NullsAreInvalidAndLeaveSize) {
    unsigned char out[8];
    unsigned int size = 8;
    const char* const none = nullptr;
    EXPECT_EQ(kInvalid, PrintToData(3, none, out, size));
    EXPECT_EQ(kInvalid, PrintToData(3, "abc", nullptr, size));
    EXPECT_EQ(kInvalid, PrintToData(9, "abc", nullptr, size));
    EXPECT_EQ(8U, size);
}

TEST(PrintToDataTest, ReadsEveryPairAsHexadecimalOrRefusesIt) {
    for (int first = 1; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            const char text[] = {static_cast<char>(first), static_cast<char>(second), '\0'};
            const bool space = std::strchr(" \t\n\v\f\r", first) != nullptr;
            const bool lone = std::strchr(" \t\n\v\f\r", second) != nullptr;
            const bool good = std::isxdigit(first) && (lone || std::isxdigit(second));
            unsigned char out[2] = {};
            unsigned int size = sizeof out;
            const Status status = PrintToData(2, text, out, size);
            ASSERT_EQ(space || good ? kOk : kMalformed, status) << first << ' ' << second;
            ASSERT_EQ(good && !space ? 1U : 0U, size) << first << ' ' << second;
            if (size == 1) {
                ASSERT_EQ(std::stoul(text, nullptr, 16), out[0]);
            }
        }
    }
}

TEST(PrintToDataTest, ViewEndsWhereItSays) {
    const char text[] = "12345678";
    for (const unsigned int type : {1U, 2U, 3U, 4U}) {
        unsigned char out[4] = {};
        unsigned int size = sizeof out;
        ASSERT_EQ(kOk, PrintToData(type, std::string_view(text, 2), out, size));
        const std::string expected[] = {number(0x12), "\x12", "12\0"s, "12"};
        EXPECT_EQ(expected[type - 1], std::string(reinterpret_cast<const char*>(out), size));
    }
}

TEST(PrintToDataTest, ViewOfNothingIsAnEmptyText) {
    unsigned char out[4] = {9};
    unsigned int size = sizeof out;
    EXPECT_EQ(kOk, PrintToData(2, std::string_view(), out, size));
    EXPECT_EQ(0U, size);
    size = sizeof out;
    EXPECT_EQ(kOk, PrintToData(3, std::string_view(), out, size));
    EXPECT_EQ(1U, size);
    EXPECT_EQ(0, out[0]);
}

// ------------------------------------------------------------- heads of lines

struct ScannedHead {
    Status status = kMalformed;
    unsigned int type = 0;
    unsigned int id = 0;
    std::string text;

    bool operator==(const ScannedHead&) const = default;
};

void PrintTo(const ScannedHead& head, std::ostream* out) {
    *out << head.status << ": " << head.type << ", " << head.id << ", "
         << testing::PrintToString(head.text);
}

// What the C library itself takes from the line.
ScannedHead oracleHead(const std::string& line) {
    const std::optional<ScannedLine> scanned = scanLine(line);
    return scanned ? ScannedHead{kOk, scanned->type, scanned->id, scanned->text} : ScannedHead{};
}

ScannedHead parsedHead(const std::string& line) {
    DscHead head;
    if (const Status s = parseDscHead(line.c_str(), head); s != kOk) {
        return {s, 0, 0, ""};
    }
    return {kOk, head.type, head.id, std::string(head.text)};
}

TEST(DscHeadTest, ReadsWhatTheLibraryReads) {
    const struct {
        const char* name;
        const char* line;
    } rows[] = {
        {"as it is written", "00000003 00000001 alice"},
        {"flags in the type word", "11000003 00000000 00000003"},
        {"nothing behind the id", "00000002 00000007"},
        {"a blank behind the id", "00000002 00000007 "},
        {"blanks before the text", "00000003 00000001    padded"},
        {"blanks behind the text", "00000003 00000001 padded   "},
        {"blanks inside the text", "00000003 00000001 a  b"},
        {"all white space before the items", " \t\n\v\f\r3 \t\n\v\f\r1 \t\n\v\f\rx"},
        {"text up to the line feed", "3 1 abc\ndef"},
        {"line feed before the text", "3 1 \n\nabc\n"},
        {"carriage return at the end", "3 1 abc\r"},
        {"short numbers", "3 1 x"},
        {"upper case", "0000000A 0000000F x"},
        {"no blank between number and text", "3 1xyz"},
        {"digits that are text", "00000003 00000001 00000001"},
        {"text that continues the id", "00000003 00000001abc"},
        {"signs", "+3 -1 x"},
        {"second sign ends the first number", "3-1 x"},
        {"sign alone", "- 1 x"},
        {"two signs", "--3 1 x"},
        {"sign of the id alone", "3 + x"},
        {"prefixes", "0x3 0X1 x"},
        {"sign and prefix", "-0x3 +0X1 x"},
        {"prefix without digits", "0x 1 x"},
        {"prefix without digits before a letter", "0xg 1 x"},
        {"prefix without digits at the end", "3 0x"},
        {"two prefixes", "0x0x3 1 x"},
        {"zero before a letter", "0y 1 x"},
        {"prefix behind two zeros", "00x3 1 x"},
        {"largest of 32 bits", "ffffffff ffffffff x"},
        {"9 digits", "123456789 1fffffffe x"},
        {"16 digits", "123456789abcdef0 ffffffffffffffff x"},
        {"17 digits", "123456789abcdef01 10000000000000000 x"},
        {"17 digits, the first 0", "0123456789abcdef0 00000000000000001 x"},
        {"negative of 9 digits", "-123456789 -100000000 x"},
        {"negative of 17 digits", "-123456789abcdef01 -10000000000000000 x"},
        {"negative zero", "-0 -0x0 x"},
        {"comment", "! comment"},
        {"empty", ""},
        {"blanks", "   "},
        {"one number", "3"},
        {"one number and a blank", "3 "},
        {"no number first", "zz 1 x"},
        {"no number second", "1 zz x"},
        {"not ASCII", "3 1 \xc3\xa4\xff\x80"},
        {"not ASCII before the number", "\xa0\x33 1 x"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(oracleHead(row.line), parsedHead(row.line));
    }
}

TEST(DscHeadTest, ReadsWhatTheLibraryReadsInRandomLines) {
    const char* const pieces[] = {"0",  "1",  "7",  "9",        "a",  "f",       "A",    "F",   "g",
                                  "x",  "X",  "0x", "0X",       "-",  "+",       " ",    " ",   " ",
                                  "\t", "\n", "\v", "\f",       "\r", "!",       "%",    "/",   ":",
                                  "@",  "G",  "`",  "ffffffff", "00", "0000000", "\x7f", "\x80"};
    std::mt19937 random(20);
    std::uniform_int_distribution<std::size_t> piece(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> count(0, 24);
    std::uniform_int_distribution<int> byte(1, 255);
    int good = 0;
    for (int round = 0; round < 400'000; ++round) {
        std::string line;
        for (int left = count(random); left > 0; --left) {
            line += left % 16 == 15 ? std::string(1, static_cast<char>(byte(random)))
                                    : pieces[piece(random)];
        }
        const ScannedHead expected = oracleHead(line);
        good += expected.status == kOk ? 1 : 0;
        ASSERT_EQ(expected, parsedHead(line)) << testing::PrintToString(line);
    }
    EXPECT_GT(good, 20'000);  // the lines are not all alike
}

TEST(DscHeadTest, ReadsWhatTheLibraryReadsInNumbersOfAnyLength) {
    std::mt19937 random(21);
    std::uniform_int_distribution<std::size_t> length(1, 40);
    std::uniform_int_distribution<unsigned int> digit(0, 15);
    std::uniform_int_distribution<std::size_t> sign(0, 5);
    const char* const signs[] = {"", "-", "+", "0x", "-0x", "0"};
    for (int round = 0; round < 100'000; ++round) {
        std::string line;
        for (int i = 0; i < 2; ++i) {
            line += signs[sign(random)];
            for (std::size_t left = length(random); left > 0; --left) {
                line += "0123456789abcdef"[digit(random)];
            }
            line += ' ';
        }
        ASSERT_EQ(oracleHead(line), parsedHead(line)) << line;
    }
}

// Told without the library's help, whose own numbers differ between builds.
TEST(DscHeadTest, ReadsNumbersAlikeInEveryBuild) {
    const struct {
        const char* text;
        unsigned int value;
    } rows[] = {
        {"ffffffff", 0xffffffff},
        {"100000000", 0xffffffff},
        {"123456789", 0xffffffff},
        {"fffffffffffffffe", 0xffffffff},
        {"10000000000000000", 0xffffffff},
        {"123456789abcdef01", 0xffffffff},
        {"0x100000000", 0xffffffff},
        {"+100000000", 0xffffffff},
        {"-1", 0xffffffff},
        {"-2a", 0xffffffd6},
        {"-80000000", 0x80000000},
        {"-fffffffe", 2},
        {"-ffffffff", 1},
        {"-0xffffffff", 1},
        {"-100000000", 0xffffffff},
        {"-fffffffffffffffe", 0xffffffff},
        {"-10000000000000001", 0xffffffff},
        {"-0", 0},
        {"000000000000000000002a", 0x2a},
        {"-000000000000000000002a", 0xffffffd6},
        {"0x000000000000000000002a", 0x2a},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const std::string text = row.text;
        EXPECT_EQ((ScannedHead{kOk, row.value, row.value, "x"}),
                  parsedHead(text + ' ' + text + " x"));
        std::string data(sizeof row.value, '\0');
        unsigned int size = sizeof row.value;
        EXPECT_EQ(kOk, PrintToData(kTypeNumber, row.text,
                                   reinterpret_cast<unsigned char*>(data.data()), size));
        EXPECT_EQ(number(row.value), data);
    }
}

TEST(DscHeadTest, TextLiesInTheLine) {
    const char line[] = "00000003 00000001 alice";
    DscHead head;
    ASSERT_EQ(kOk, parseDscHead(line, head));
    EXPECT_EQ(line + 18, head.text.data());
    EXPECT_EQ("alice", head.text);
}

TEST(RoomForDataTest, IsNeitherTooSmallNorTooLargeForDigits) {
    const std::string digits(9, '7');
    for (const unsigned int type : {1U, 2U, 3U, 4U, 0x11000002U}) {
        for (std::size_t length = 1; length <= digits.size(); ++length) {
            const DscHead head{type, 1, std::string_view(digits).substr(0, length)};
            const std::size_t room = roomForData(head);
            const auto out = std::make_unique<unsigned char[]>(room);
            unsigned int size = static_cast<unsigned int>(room);
            EXPECT_EQ(kOk, PrintToData(type, head.text, out.get(), size));
            EXPECT_EQ(room, size);
        }
    }
    EXPECT_EQ(0U, roomForData({5, 1, "not readable"}));
    EXPECT_EQ(1U, roomForData({3, 1, ""}));
}

TEST(DscHeadTest, NullLineIsInvalid) {
    DscHead head;
    EXPECT_EQ(kInvalid, parseDscHead(nullptr, head));
}

// ---------------------------------------------------------------- whole lines

TEST(DscLineTest, ParsesAsTabled) {
    const struct {
        const char* name;
        const char* line;
        Status status;
        unsigned int type;
        unsigned int id;
        std::string data;  // compared when status is kOk, as are type and id
    } rows[] = {
        {"body reference", "11000003 00000000 00000003", kOk, 0x11000003, 0, "00000003\0"s},
        {"string", "00000003 00000001 alice", kOk, 3, 1, "alice\0"s},
        {"number", "00000001 00000002 0000002a", kOk, 1, 2, number(42)},
        {"binary", "00000002 00000003 01abff", kOk, 2, 3, "\x01\xab\xff"},
        {"encrypted binary", "01000002 00000003 01abff", kOk, 0x01000002, 3, "\x01\xab\xff"},
        {"text", "00000004 00000001 alice", kOk, 4, 1, "alice"},
        {"lone last digit", "00000002 00000007 abc", kOk, 2, 7, "\xab\x0c"},
        {"binary without digits", "00000002 00000007 ", kOk, 2, 7, ""},
        {"binary up to white space", "00000002 00000007 ab cd", kOk, 2, 7, "\xab"},
        {"binary with a bad pair", "00000002 00000007 abxx", kMalformed, 0, 0, ""},
        {"number without digits", "00000001 00000007 ", kMalformed, 0, 0, ""},
        {"number before text", "00000001 00000007 7 of 9", kOk, 1, 7, number(7)},
        {"leading blanks are lost", "00000003 00000001    padded", kOk, 3, 1, "padded\0"s},
        {"trailing blanks stay", "00000003 00000001 padded  ", kOk, 3, 1, "padded  \0"s},
        {"empty string", "00000003 00000001 ", kOk, 3, 1, "\0"s},
        {"empty text", "00000004 00000001 ", kOk, 4, 1, ""},
        {"text ends at a line feed", "00000004 00000001 ab\ncd", kOk, 4, 1, "ab"},
        {"binary ends at a line feed", "00000002 00000001 ab\nzz", kOk, 2, 1, "\xab"},
        {"fewer than two numbers", "zz 1 x", kMalformed, 0, 0, ""},
        {"type 0", "00000000 00000001 x", kMalformed, 0, 0, ""},
        {"type 5", "00000005 00000001 x", kMalformed, 0, 0, ""},
        {"type 15", "0000000f 00000001 x", kMalformed, 0, 0, ""},
        {"flags do not choose", "fffffff4 00000001 x", kOk, 0xfffffff4, 1, "x"},
        {"null", nullptr, kInvalid, 0, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        DscLine got{77, 78, "before"};
        EXPECT_EQ(row.status, parseDscLine(row.line, got));
        if (row.status == kOk) {
            EXPECT_EQ(row.type, got.type);
            EXPECT_EQ(row.id, got.id);
            EXPECT_EQ(row.data, got.data);
        } else {
            EXPECT_EQ("before", got.data);
        }
    }
}

TEST(DscLineTest, PrintsAsTabled) {
    const struct {
        const char* name;
        DscLine value;
        Status status;
        const char* line;
    } rows[] = {
        {"body reference", {0x11000003, 0, "00000003\0"s}, kOk, "11000003 00000000 00000003"},
        {"string", {3, 1, "alice\0"s}, kOk, "00000003 00000001 alice"},
        {"number", {1, 2, number(42)}, kOk, "00000001 00000002 0000002a"},
        {"binary", {2, 3, "\x01\xab\xff"}, kOk, "00000002 00000003 01abff"},
        {"encrypted binary", {0x01000002, 3, "\x01\xab\xff"}, kOk, "01000002 00000003 01abff"},
        {"empty data leaves the blank", {2, 7, ""}, kOk, "00000002 00000007 "},
        {"all bits of both words", {0xfffffff4, 0xffffffff, "x"}, kOk, "fffffff4 ffffffff x"},
        {"number of three bytes", {1, 2, "abc"}, kMalformed, ""},
        {"type 5", {5, 2, "abc"}, kMalformed, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string text = "before";
        EXPECT_EQ(row.status, printDscLine(row.value, text));
        EXPECT_EQ(row.line, text);
    }
}

TEST(DscLineTest, StringWithNulInsideComesBackShort) {
    std::string text;
    ASSERT_EQ(kOk, printDscLine({3, 1, "ab\0cd\0"s}, text));
    DscLine back;
    ASSERT_EQ(kOk, parseDscLine(text.c_str(), back));
    EXPECT_EQ("ab\0"s, back.data);
}

TEST(DscLineTest, AppendLeavesWhatStandsBeforeIt) {
    std::string out = "00000003 00000001 a\n";
    const std::string before = out;
    EXPECT_EQ(kInvalid, appendDscLine(2, 1, nullptr, 0, out));
    EXPECT_EQ(kMalformed, appendDscLine(6, 1, bytesOf(before), 1, out));
    EXPECT_EQ(kMalformed, appendDscLine(1, 1, bytesOf(before), 1, out));
    EXPECT_EQ(before, out);
    EXPECT_EQ(kOk, appendDscLine(2, 2, bytesOf("\x7f"), 1, out));
    EXPECT_EQ(before + "00000002 00000002 7f", out);
}

TEST(DscLineTest, HeadIsPrintedAsPrintfDoes) {
    std::mt19937 random(22);
    for (int round = 0; round < 1000; ++round) {
        const unsigned int type = (static_cast<unsigned int>(random()) & ~kTypeMask) | kTypeText;
        const unsigned int id = static_cast<unsigned int>(random());
        char expected[32];
        std::snprintf(expected, sizeof expected, "%08x %08x ", type, id);
        std::string text;
        ASSERT_EQ(kOk, printDscLine({type, id, ""}, text));
        ASSERT_EQ(expected, text);
    }
}

TEST(DscLineTest, WhatWasPrintedParsesToTheSameValue) {
    std::mt19937 random(23);
    std::uniform_int_distribution<std::size_t> length(0, 300);
    std::uniform_int_distribution<unsigned int> type(1, 4);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> visible('!', 0xff);
    for (int round = 0; round < 20'000; ++round) {
        DscLine value{type(random) | (static_cast<unsigned int>(random()) & ~kTypeMask),
                      static_cast<unsigned int>(random()), ""};
        const unsigned int rule = value.type & kTypeMask;
        const std::size_t size = rule == kTypeNumber ? 4 : length(random);
        for (std::size_t i = 0; i < size; ++i) {
            const bool any = rule == kTypeNumber || rule == kTypeBinary;
            value.data += static_cast<char>(any ? byte(random) : visible(random));
        }
        if (rule == kTypeString) {
            value.data += '\0';
        }
        std::string text;
        DscLine back;
        ASSERT_EQ(kOk, printDscLine(value, text));
        ASSERT_EQ(kOk, parseDscLine(text.c_str(), back));
        ASSERT_EQ(value.type, back.type);
        ASSERT_EQ(value.id, back.id);
        ASSERT_EQ(value.data, back.data);
    }
}

TEST(DscLineTest, WhatParsesPrints) {
    const char* const lines[] = {
        "0x3 -1  \t a b ", "1 2 -0x7 trailing", "2 0 abcde", "4 1 x\ny", " \n2\n2\nAB cd", "3 0",
    };
    for (const char* line : lines) {
        SCOPED_TRACE(line);
        DscLine value;
        DscLine again;
        std::string text;
        ASSERT_EQ(kOk, parseDscLine(line, value));
        ASSERT_EQ(kOk, printDscLine(value, text));
        ASSERT_EQ(kOk, parseDscLine(text.c_str(), again));
        EXPECT_EQ(value.type, again.type);
        EXPECT_EQ(value.id, again.id);
        EXPECT_EQ(value.data, again.data);
    }
}

// -------------------------------------------------------------------- reading

struct Reading {
    std::vector<std::string> lines;
    Status status = kOk;

    bool operator==(const Reading&) const = default;
};

void PrintTo(const Reading& reading, std::ostream* out) {
    *out << "status " << reading.status << " after " << testing::PrintToString(reading.lines);
}

// The loop that defines what a line is, over a real stream.
Reading oracleReading(std::string bytes) {
    Reading got;
    FILE* const file = fmemopen(bytes.data(), bytes.size(), "r");
    std::vector<char> buffer(1024);
    while (got.status == kOk) {
        if (std::fgets(buffer.data(), static_cast<int>(buffer.size()), file) == nullptr) {
            got.status = kEnd;
            break;
        }
        if (std::strlen(buffer.data()) == 0) {
            got.status = kMalformed;
            break;
        }
        while (buffer[std::strlen(buffer.data()) - 1] != '\n' && std::feof(file) == 0) {
            const std::size_t length = std::strlen(buffer.data());
            buffer.resize(buffer.size() + 1024);
            if (std::fgets(&buffer[length], static_cast<int>(buffer.size() - length), file) ==
                nullptr) {
                buffer[length] = '\0';
            }
        }
        std::string line = buffer.data();
        if (line.back() == '\n') {
            line.pop_back();
        }
        buffer.resize(1024);
        const std::size_t first = line.find_first_not_of(" \t\n\v\f\r");
        if (first != std::string::npos && line[first] != '!') {
            got.lines.push_back(std::move(line));
        }
    }
    std::fclose(file);
    return got;
}

Reading productReading(std::string bytes) {
    Reading got;
    // Exactly one byte more than the descriptor, so that a sanitizer sees each one beyond.
    const auto buffer = std::make_unique<char[]>(bytes.size() + 1);
    std::memcpy(buffer.get(), bytes.data(), bytes.size());
    buffer[bytes.size()] = 'X';
    DscLineReader reader(buffer.get(), bytes.size());
    const char* line = nullptr;
    std::vector<const char*> lines;
    while ((got.status = reader.next(line)) == kOk) {
        lines.push_back(line);
    }
    // Read only now: the lines stay as they are while the reader goes on.
    got.lines.assign(lines.begin(), lines.end());
    return got;
}

TEST(DscLineReaderTest, ReadsAsTabled) {
    const std::string kLong(5000, 'x');
    const struct {
        const char* name;
        std::string bytes;
        Reading expected;
    } rows[] = {
        {"nothing", "", {{}, kEnd}},
        {"one line", "3 1 a\n", {{"3 1 a"}, kEnd}},
        {"last line without line feed", "3 1 a\n3 2 b", {{"3 1 a", "3 2 b"}, kEnd}},
        {"comments and blank lines",
         "! comment\n   \n\n \t\v\f\r\n \t!x\n3 1 a\n!",
         {{"3 1 a"}, kEnd}},
        {"white space at both ends of a line stays", "  3 1 a \r\n", {{"  3 1 a \r"}, kEnd}},
        {"exclamation mark inside", "3 1 !\n", {{"3 1 !"}, kEnd}},
        {"5000 characters", "3 1 " + kLong + "\n3 2 b\n", {{"3 1 " + kLong, "3 2 b"}, kEnd}},
        {"5000 characters without line feed", kLong, {{kLong}, kEnd}},
        {"blank line of 5000 characters", std::string(5000, ' ') + "\na\n", {{"a"}, kEnd}},
        {"NUL at the start", "\0abc\n"s, {{}, kMalformed}},
        {"NUL alone", "\0"s, {{}, kMalformed}},
        {"NUL at the start of the second line", "a\n\0b\n"s, {{"a"}, kMalformed}},
        {"NUL at the start of a comment's successor", "!a\n\0"s, {{}, kMalformed}},
        {"NUL before the line feed glues the next line on",
         "ab\0\ncd\nef\n"s,
         {{"abcd", "ef"}, kEnd}},
        {"NUL inside loses the rest of its line", "ab\0cd\nef\n"s, {{"abef"}, kEnd}},
        {"NUL inside the last line", "ab\0cd"s, {{"ab"}, kEnd}},
        {"NUL inside the last line with line feed", "ab\0cd\n"s, {{"ab"}, kEnd}},
        {"NUL at the start of a glued line", "ab\0cd\n\0ef\ngh\nij\n"s, {{"abgh", "ij"}, kEnd}},
        {"line behind a NUL in a comment is lost", "!\0\n3 1 a\n3 2 b\n"s, {{"3 2 b"}, kEnd}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.expected, oracleReading(row.bytes));
        EXPECT_EQ(row.expected, productReading(row.bytes));
    }
}

// Whatever stands where a buffer of 1024, 2048 or 3072 bytes is full.
TEST(DscLineReaderTest, ReadsAsTheLoopDoesWhereABufferIsFull) {
    const std::string specials[] = {"",      "\n",     "\0"s,     "\n\n",     "\0\n"s, "\n\0"s,
                                    "\0\0"s, "x\0\n"s, "\nx\0y"s, "\0x\n\0"s, "!\n"};
    const std::string tails[] = {
        "", "\n", "z", "z\n", "z\ny\n", "\0z\nyy\n"s, std::string(1100, 'z') + "\ny\n"};
    for (const std::size_t full : {1024U, 2048U, 3072U}) {
        for (std::size_t length = full - 5; length <= full + 3; ++length) {
            for (const std::string& special : specials) {
                for (const std::string& tail : tails) {
                    const std::string bytes = std::string(length, 'a') + special + tail;
                    ASSERT_EQ(oracleReading(bytes), productReading(bytes))
                        << length << " characters, then " << testing::PrintToString(special)
                        << ", then " << tail.size();
                    const std::string cut = "b\0"s + bytes;
                    ASSERT_EQ(oracleReading(cut), productReading(cut))
                        << "NUL, " << length << " characters, then "
                        << testing::PrintToString(special) << ", then " << tail.size();
                }
            }
        }
    }
}

TEST(DscLineReaderTest, ReadsAsTheLoopDoesInRandomBytes) {
    std::mt19937 random(24);
    std::uniform_int_distribution<int> pieces(0, 12);
    std::uniform_int_distribution<int> kind(0, 9);
    std::uniform_int_distribution<std::size_t> small(0, 12);
    std::uniform_int_distribution<std::size_t> large(1000, 1060);
    std::size_t lines = 0;
    std::size_t malformed = 0;
    for (int round = 0; round < 40'000; ++round) {
        std::string bytes;
        for (int left = pieces(random); left > 0; --left) {
            switch (kind(random)) {
                case 0:
                    bytes += std::string(large(random), 'l');
                    break;
                case 1:
                case 2:
                    bytes += '\0';
                    break;
                case 3:
                    bytes += " ";
                    break;
                case 4:
                    bytes += "!";
                    break;
                case 5:
                case 6:
                case 7:
                    bytes += '\n';
                    break;
                default:
                    bytes += std::string(small(random), 's');
                    break;
            }
        }
        const Reading expected = oracleReading(bytes);
        lines += expected.lines.size();
        malformed += expected.status == kMalformed ? 1 : 0;
        ASSERT_EQ(expected, productReading(bytes)) << testing::PrintToString(bytes);
    }
    EXPECT_GT(lines, 20'000U);  // the descriptors are not all alike
    EXPECT_GT(malformed, 1'000U);
}

TEST(DscLineReaderTest, ReadsAStringInPlace) {
    std::string bytes = "00000003 00000001 alice\n00000003 00000002 bob";
    const char* const start = bytes.data();
    DscLineReader reader(bytes.data(), bytes.size());
    const char* line = nullptr;
    ASSERT_EQ(kOk, reader.next(line));
    EXPECT_EQ(start, line);
    ASSERT_EQ(kOk, reader.next(line));
    EXPECT_EQ(start + 24, line);
    EXPECT_STREQ("00000003 00000002 bob", line);
    EXPECT_EQ(kEnd, reader.next(line));
    EXPECT_EQ(kEnd, reader.next(line));
}

TEST(DscLineReaderTest, StaysAtTheMalformedLine) {
    std::string bytes = "a\n\0b\nc\n"s;
    DscLineReader reader(bytes.data(), bytes.size());
    const char* line = nullptr;
    ASSERT_EQ(kOk, reader.next(line));
    EXPECT_EQ(kMalformed, reader.next(line));
    EXPECT_EQ(kMalformed, reader.next(line));
}

// Copying the line for every 1024 bytes would move 2 * 10^12 bytes here.
TEST(DscLineReaderTest, LongLinesTakeLinearTime) {
    std::string bytes(std::size_t{64} << 20, 'x');
    for (std::size_t i = 1; i < bytes.size() / 2; i += 1000) {
        bytes[i] = '\0';
    }
    const auto start = std::chrono::steady_clock::now();
    DscLineReader reader(bytes.data(), bytes.size());
    const char* line = nullptr;
    EXPECT_EQ(kOk, reader.next(line));
    EXPECT_EQ(kEnd, reader.next(line));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

// The four lines that a record with a body, a string, a number and bytes has.
TEST(DscTextTest, DescriptorIsWrittenAndReadWhole) {
    const DscLine values[] = {
        {kFlagBody | kFlagEncrypted | kTypeString, 0, "00000003\0"s},
        {kTypeString, 1, "alice\0"s},
        {kTypeNumber, 2, number(42)},
        {kTypeBinary, 3, "\x01\xab\xff"},
    };
    std::string bytes;
    for (const DscLine& value : values) {
        ASSERT_EQ(kOk, appendDscLine(value.type, value.id, bytesOf(value.data),
                                     static_cast<unsigned int>(value.data.size()), bytes));
        bytes += '\n';
    }
    EXPECT_EQ(
        "11000003 00000000 00000003\n"
        "00000003 00000001 alice\n"
        "00000001 00000002 0000002a\n"
        "00000002 00000003 01abff\n",
        bytes);

    DscLineReader reader(bytes.data(), bytes.size());
    const char* line = nullptr;
    for (const DscLine& value : values) {
        DscLine back;
        ASSERT_EQ(kOk, reader.next(line));
        ASSERT_EQ(kOk, parseDscLine(line, back));
        EXPECT_EQ(value.type, back.type);
        EXPECT_EQ(value.id, back.id);
        EXPECT_EQ(value.data, back.data);
    }
    EXPECT_EQ(kEnd, reader.next(line));
}

}  // namespace
