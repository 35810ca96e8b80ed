#include "lib/base/recovery_key.h"

#include <array>
#include <numeric>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "lib/base/sha256.h"

namespace fstore {
namespace {

using Key = std::array<unsigned char, kRecoveryKeySize>;

constexpr std::string_view kPrinted = "SD0VB-70W78-TVYAB-04KJG-QR1KH-G3V3W-AT7WT-SFBJW";

// The first bytes of the SHA-256 of a name.
Key keyOf(std::string_view name) {
    const auto digest = sha256({reinterpret_cast<const unsigned char*>(name.data()), name.size()});
    Key key{};
    std::copy_n(digest.begin(), key.size(), key.begin());
    return key;
}

// Keys of every kind: extremes, and some without a pattern.
std::vector<std::string> printedKeys() {
    std::vector<std::string> keys;
    Key key{};
    keys.emplace_back(printRecoveryKey(key).view());
    key.fill(0xff);
    keys.emplace_back(printRecoveryKey(key).view());
    std::iota(key.begin(), key.end(), 0);
    keys.emplace_back(printRecoveryKey(key).view());
    for (const char* const name : {"rec", "one", "two", "three"}) {
        keys.emplace_back(printRecoveryKey(keyOf(name)).view());
    }
    return keys;
}

unsigned int groupAt(std::size_t place) {
    return static_cast<unsigned int>(place / (kRecoveryGroupDigits + 1)) + 1;
}

std::string wrongGroup(unsigned int number) {
    return fmt::format("group {} is mistyped", number);
}

bool standsFor(char typed, char printed) {
    const std::string same = printed == '0' ? "0Oo" : printed == '1' ? "1IiLl" : "";
    return std::toupper(static_cast<unsigned char>(typed)) == printed ||
           same.find(typed) != std::string::npos;
}

TEST(RecoveryKeyTest, PrintsAndReadsTheKnownKey) {
    const Key key = keyOf("rec");
    EXPECT_EQ(kPrinted, printRecoveryKey(key).view());
    const auto read = parseRecoveryKey(kPrinted);
    ASSERT_TRUE(read);
    EXPECT_TRUE(std::ranges::equal(key, *read));
}

TEST(RecoveryKeyTest, EveryBitReturns) {
    for (std::size_t bit = 0; bit < 8 * kRecoveryKeySize; ++bit) {
        Key key{};
        key[bit / 8] = static_cast<unsigned char>(1 << bit % 8);
        const auto read = parseRecoveryKey(printRecoveryKey(key).view());
        ASSERT_TRUE(read) << bit;
        EXPECT_TRUE(std::ranges::equal(key, *read)) << bit;
    }
}

TEST(RecoveryKeyTest, ReadsItAsPeopleTypeIt) {
    const Key key = keyOf("rec");
    for (const char* const typed : {
             "sd0vb-70w78-tvyab-04kjg-qr1kh-g3v3w-at7wt-sfbjw",
             "SD0VB70W78TVYAB04KJGQR1KHG3V3WAT7WTSFBJW",
             "  SdOvB 7oW78\tTVYAB--O4KJG - QRIKH G3V3W AT7WT SFBJW ",
             "SDOVB-7OW78-TVYAB-o4KJG-QRlKH-G3V3W-AT7WT-SFBJW",
             "SD0VB-70W78-TVYAB-04KJG-QRLKH-G3V3W-AT7WT-SFBJW",
             "SD0VB-70W78-TVYAB-04KJG-QRiKH-G3V3W-AT7WT-SFBJW",
         }) {
        const auto read = parseRecoveryKey(typed);
        ASSERT_TRUE(read) << typed;
        EXPECT_TRUE(std::ranges::equal(key, *read)) << typed;
        EXPECT_FALSE(mistypingIn(typed)) << typed;
    }
}

// Every other character at every place: 7 keys, 40 digits, more than 240 characters.
TEST(RecoveryKeyTest, EveryWrongCharacterIsFoundInItsGroup) {
    for (const std::string& printed : printedKeys()) {
        for (std::size_t place = 0; place < printed.size(); ++place) {
            std::string typed = printed;
            for (int value = 0; value < 256 && printed[place] != '-'; ++value) {
                typed[place] = static_cast<char>(value);
                const bool isSkipped =
                    value == ' ' || value == '\t' || value == '\n' || value == '\r' || value == '-';
                if (isSkipped || standsFor(typed[place], printed[place])) {
                    continue;
                }
                ASSERT_FALSE(parseRecoveryKey(typed)) << typed;
                ASSERT_EQ(wrongGroup(groupAt(place)), mistypingIn(typed)) << typed;
            }
        }
    }
}

TEST(RecoveryKeyTest, EverySwapInAGroupIsFoundInIt) {
    for (const std::string& printed : printedKeys()) {
        for (std::size_t a = 0; a < printed.size(); ++a) {
            for (std::size_t b = a + 1; b < printed.size() && groupAt(a) == groupAt(b); ++b) {
                if (printed[a] == printed[b] || printed[a] == '-' || printed[b] == '-') {
                    continue;
                }
                std::string typed = printed;
                std::swap(typed[a], typed[b]);
                ASSERT_FALSE(parseRecoveryKey(typed)) << typed;
                ASSERT_EQ(wrongGroup(groupAt(a)), mistypingIn(typed)) << typed;
            }
        }
    }
}

// Of the key of zeros, too, where groups differ in nothing but their numbers.
TEST(RecoveryKeyTest, EverySwapOfGroupsNamesBoth) {
    for (const std::string& printed : printedKeys()) {
        for (unsigned int a = 1; a <= kRecoveryGroups; ++a) {
            for (unsigned int b = a + 1; b <= kRecoveryGroups; ++b) {
                const auto place = [](unsigned int group) {
                    return (group - 1) * (kRecoveryGroupDigits + 1);
                };
                std::string typed = printed;
                typed.replace(place(a), kRecoveryGroupDigits, printed, place(b),
                              kRecoveryGroupDigits);
                typed.replace(place(b), kRecoveryGroupDigits, printed, place(a),
                              kRecoveryGroupDigits);
                ASSERT_FALSE(parseRecoveryKey(typed)) << typed;
                ASSERT_EQ(fmt::format("groups {} and {} are mistyped", a, b), mistypingIn(typed))
                    << typed;
            }
        }
    }
}

TEST(RecoveryKeyTest, NamesWrongGroupsWhileFourAreRight) {
    EXPECT_EQ("groups 1, 2, 3 and 8 are mistyped",
              mistypingIn("SD0VC-70W79-TVYAC-04KJG-QR1KH-G3V3W-AT7WT-SFBJX"));
    EXPECT_FALSE(mistypingIn("SD0VC-70W79-TVYAC-04KJH-QR1KH-G3V3W-AT7WT-SFBJX"));
}

TEST(RecoveryKeyTest, NamesAWrongCountOfDigits) {
    const std::string printed(kPrinted);
    EXPECT_EQ("a recovery key has 40 digits, and 39 were typed; look at group 8 first",
              mistypingIn(printed.substr(0, printed.size() - 1)));
    EXPECT_EQ("a recovery key has 40 digits, and 35 were typed; look at group 1 first",
              mistypingIn(printed.substr(6)));
    EXPECT_EQ("a recovery key has 40 digits, and 41 were typed", mistypingIn(printed + "0"));
    EXPECT_EQ("a recovery key has 40 digits, and 41 were typed; look at group 3 first",
              mistypingIn("SD0VB-70W78-TTVYAB-04KJG-QR1KH-G3V3W-AT7WT-SFBJW"));
}

TEST(RecoveryKeyTest, APasswordIsNotTakenForAKey) {
    for (const char* const password :
         {"", "-", "correct horse", "correct horse battery staple",
          "0123456789ABCDEFGHJKMNPQRSTVWXYZ01",
          "a much longer phrase of words, with more characters than a key has",
          "forty characters that are not a key at all"}) {
        EXPECT_FALSE(parseRecoveryKey(password)) << password;
        EXPECT_FALSE(mistypingIn(password)) << password;
    }
    EXPECT_FALSE(parseRecoveryKey(std::string(40, '0')));
    EXPECT_FALSE(mistypingIn(std::string(40, '0')));
    EXPECT_FALSE(parseRecoveryKey(std::string(100000, '0')));
}

TEST(RecoveryKeyTest, AGroupThatIsAskedBackIsReadLikeAKey) {
    const SecretText printed = printRecoveryKey(keyOf("rec"));
    EXPECT_TRUE(isRecoveryGroup("SD0VB", printed, 1));
    EXPECT_TRUE(isRecoveryGroup(" sdovb-", printed, 1));
    EXPECT_TRUE(isRecoveryGroup("SFBJW", printed, 8));
    for (const char* const typed : {"", "SD0V", "SD0VB7", "SD0VC", "70W78"}) {
        EXPECT_FALSE(isRecoveryGroup(typed, printed, 1)) << typed;
    }
}

}  // namespace
}  // namespace fstore
