#include "lib/records/attributes.h"

#include <fstream>
#include <set>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace fstore {
namespace {

TEST(AttributesTest, AnIdIsANumberOrAName) {
    EXPECT_EQ(0x8001u, parseAttributeId("0x8001"));
    EXPECT_EQ(32769u, parseAttributeId("32769"));
    for (const attr::Known& known : attr::kKnown) {
        EXPECT_EQ(known.id, parseAttributeId(known.name));
        EXPECT_EQ(known.name, attributeName(known.id));
    }
    for (const char* const text : {"", "0x", "label ", "-1", "0x100000000", "1x", "Label"}) {
        EXPECT_FALSE(parseAttributeId(text)) << text;
    }
}

TEST(AttributesTest, OtherIdsHaveNoName) {
    for (const unsigned int id : {0u, 0xFFu, 0x113u, 0x8001u, 0xFFFFFFFFu}) {
        EXPECT_EQ("", attributeName(id)) << id;
        EXPECT_FALSE(attr::isText(id)) << id;
    }
}

TEST(AttributesTest, EachHasANameOfItsOwnAndBelongsToTheTool) {
    std::set<std::string_view> names;
    for (const attr::Known& known : attr::kKnown) {
        EXPECT_TRUE(names.insert(known.name).second) << known.name;
        EXPECT_LT(known.id, attr::kFirstOfUser) << known.name;
        EXPECT_NE(known.type, kTypeString) << known.name;
    }
}

// The page aligns its cells.
std::string withSingleBlanks(std::string text) {
    for (std::size_t at = 0; (at = text.find("|  ", at)) != std::string::npos;) {
        text.erase(at + 2, 1);
    }
    return text;
}

// Readers of the format rely on that page alone.
TEST(AttributesTest, TheManualHasTheSameTable) {
    std::string expected = "[[";
    for (const attr::Known& known : attr::kKnown) {
        expected += fmt::format(" *0x{:x}* {}\n:< {}\n| ", known.id, known.type, known.meaning);
    }
    std::ifstream page(MANUAL_PAGE);
    const std::string text{std::istreambuf_iterator<char>(page), {}};
    ASSERT_FALSE(text.empty());
    std::string found = text.substr(text.find("[[ *0x100*"));
    found = found.substr(0, found.find("from *0x8000*"));
    EXPECT_EQ(withSingleBlanks(expected), withSingleBlanks(found));
}

}  // namespace
}  // namespace fstore
