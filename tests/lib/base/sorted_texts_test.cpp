#include "lib/base/sorted_texts.h"

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> textsOf(const SortedTexts& sorted) {
    std::vector<std::string> texts;
    sorted.visit([&](std::string_view text) { texts.emplace_back(text); });
    return texts;
}

TEST(SortedTextsTest, AreInTheOrderOfTheBytesOfTheirKeys) {
    SortedTexts sorted;
    EXPECT_THAT(textsOf(sorted), IsEmpty());
    for (const auto& [key, text] :
         {std::pair("b", "4"), {"\xff", "6"}, {"a", "2"}, {"", "1"}, {"ab", "3"}, {"b", "5"}}) {
        sorted.add(key, text);
    }
    EXPECT_EQ(6U, sorted.size());
    EXPECT_THAT(textsOf(sorted), ElementsAre("1", "2", "3", "4", "5", "6"));
    EXPECT_THAT(textsOf(sorted), ElementsAre("1", "2", "3", "4", "5", "6")) << "again";
}

// More than one part, with keys of which most occur several times, in all of them.
TEST(SortedTextsTest, ManyAreInTheSameOrderAsFew) {
    constexpr std::size_t kTexts = 60'000;
    const std::string filling(200, 'x');
    ASSERT_GT(kTexts * filling.size(), 2 * SortedTexts::kPart);
    std::mt19937 random(1);
    std::vector<std::pair<std::string, std::string>> expected;
    SortedTexts sorted;
    for (std::size_t i = 0; i < kTexts; ++i) {
        const std::string key = std::to_string(random() % 10'000);
        const std::string text = filling + std::to_string(i);
        sorted.add(key, text);
        expected.emplace_back(key, text);
    }
    std::ranges::stable_sort(expected, {}, &std::pair<std::string, std::string>::first);
    const std::vector<std::string> texts = textsOf(sorted);
    ASSERT_EQ(expected.size(), texts.size());
    for (std::size_t i = 0; i < kTexts; ++i) {
        ASSERT_EQ(expected[i].second, texts[i]) << i;
    }
}

}  // namespace
}  // namespace fstore
