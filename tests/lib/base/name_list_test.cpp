#include "lib/base/name_list.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fstore {
namespace {

using testing::ElementsAre;

std::vector<std::string> namesOf(const NameList& list) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < list.size(); ++i) {
        names.emplace_back(list[i]);
    }
    return names;
}

TEST(NameListTest, KeepsNamesInTheirOrderUntilItIsSorted) {
    NameList list;
    for (const char* const name : {"b", "", "a", "\xff", "ab", "B"}) {
        list.add(name);
    }
    EXPECT_THAT(namesOf(list), ElementsAre("b", "", "a", "\xff", "ab", "B"));
    list.sort();
    EXPECT_THAT(namesOf(list), ElementsAre("", "B", "a", "ab", "b", "\xff")) << "by their bytes";
}

TEST(NameListTest, FindsWhatIsThere) {
    NameList list;
    EXPECT_EQ(std::nullopt, list.find("a"));
    for (const char* const name : {"c", "a", "b.dsc"}) {
        list.add(name);
    }
    list.sort();
    EXPECT_EQ(0U, list.find("a"));
    EXPECT_EQ(1U, list.find("b.dsc"));
    EXPECT_EQ(2U, list.find("c"));
    for (const char* const name : {"", "b", "b.dsc2", "d"}) {
        EXPECT_EQ(std::nullopt, list.find(name)) << name;
    }
}

// A name is kept in one piece, wherever in the memory for many it comes to lie.
TEST(NameListTest, KeepsManyNames) {
    constexpr std::size_t kNames = 30'000;
    const auto nameAt = [](std::size_t i) {
        return std::string(i % 256, static_cast<char>('a' + i % 26)) + (i % 256 < 250 ? "." : "");
    };
    NameList list;
    for (std::size_t i = 0; i < kNames; ++i) {
        list.add(nameAt(i));
    }
    ASSERT_EQ(kNames, list.size());
    for (std::size_t i = 0; i < kNames; ++i) {
        ASSERT_EQ(nameAt(i), list[i]) << i;
    }
    list.sort();
    EXPECT_TRUE(list.find(nameAt(77)));
}

TEST(NameListTest, TakesNamesOfFilesOnly) {
    NameList list;
    const std::string longest(255, 'x');
    list.add(longest);
    EXPECT_EQ(longest, list[0]);
    EXPECT_THROW(list.add(longest + "x"), std::length_error);
    EXPECT_EQ(1U, list.size());
}

}  // namespace
}  // namespace fstore
