#include "lib/records/descriptor.h"

#include <gtest/gtest.h>

namespace fstore {
namespace {

TEST(DescriptorTest, ReadsTheLinesOfARecord) {
    const auto lines = parseDescriptor(
        "11000003 00000000 00000003\n"
        "00000003 00000001 alice\n"
        "01000002 00000003 00ff\n"
        "! a comment\n"
        "   \n"
        "zz 1 x\n"
        "00000004 00000007 ");
    ASSERT_EQ(7u, lines.size());
    EXPECT_TRUE(lines[0].namesBody());
    EXPECT_EQ("00000003", lines[0].data);
    EXPECT_EQ("alice", lines[1].data);
    EXPECT_EQ(1u, lines[1].id);
    EXPECT_EQ(kFlagEncrypted, lines[2].type & kFlagEncrypted);
    EXPECT_FALSE(lines[3].isData);
    EXPECT_FALSE(lines[4].isData);
    EXPECT_TRUE(lines[5].isData);
    EXPECT_FALSE(lines[5].isRead);
    EXPECT_EQ("zz 1 x", lines[5].text);
    EXPECT_TRUE(lines[6].isRead);
    EXPECT_EQ("", lines[6].data);
    EXPECT_EQ("00000003", bodyNameOf(lines));
}

TEST(DescriptorTest, OnlyALineWithItsFlagAndId0NamesABody) {
    EXPECT_FALSE(bodyNameOf(parseDescriptor("00000003 00000000 00000003\n")));
    EXPECT_FALSE(bodyNameOf(parseDescriptor("10000003 00000001 00000003\n")));
    EXPECT_EQ("b", bodyNameOf(parseDescriptor("00000003 00000001 a\n10000003 0 b\n")));
    EXPECT_FALSE(bodyNameOf(parseDescriptor("")));
}

TEST(DescriptorTest, NothingAfterANulIsLookedAt) {
    const auto lines = parseDescriptor(std::string_view("10000003 0 a\0b\n", 15));
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("a", lines[0].data);
}

}  // namespace
}  // namespace fstore
