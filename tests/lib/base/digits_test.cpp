#include "lib/base/digits.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace fstore {
namespace {

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

TEST(NumberTest, IsDecimalOrBehind0x) {
    EXPECT_EQ(0u, parseNumber("0"));
    EXPECT_EQ(4294967295u, parseNumber("4294967295"));
    EXPECT_EQ(0x8001u, parseNumber("0x8001"));
    EXPECT_EQ(0xABu, parseNumber("0XaB"));
    for (const char* const text :
         {"", "0x", " 1", "1 ", "-1", "+1", "4294967296", "0x100000000", "1x", "0x0x1"}) {
        EXPECT_FALSE(parseNumber(text)) << text;
    }
}

}  // namespace
}  // namespace fstore
