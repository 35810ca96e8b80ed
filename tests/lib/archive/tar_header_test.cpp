#include "lib/archive/tar_header.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

namespace fstore::tar {
namespace {

Block blockOf(const Header& header) {
    const auto bytes = print(header);
    EXPECT_EQ(kBlock, bytes.size());
    Block block{};
    std::copy_n(bytes.begin(), kBlock, block.begin());
    return block;
}

TEST(TarHeaderTest, ParsesWhatItPrints) {
    const Header rows[] = {{Type::kFile, 0600, 0, "db/a"},
                           {Type::kFile, 0777, kMostSize, "db/a"},
                           {Type::kFolder, 0, 0, std::string(100, 'p')}};
    for (const Header& header : rows) {
        EXPECT_EQ(header, parse(blockOf(header))) << header.path;
    }
}

TEST(TarHeaderTest, AnyOtherBlockIsRefused) {
    const Block block = blockOf({Type::kFile, 0600, 1234, "db/key.dsc"});
    for (std::size_t i = 0; i < block.size(); ++i) {
        for (int bit = 1; bit < 256; bit *= 2) {
            Block changed = block;
            changed[i] = static_cast<unsigned char>(changed[i] ^ bit);
            EXPECT_EQ(std::nullopt, parse(changed)) << i;
        }
    }
    EXPECT_EQ(std::nullopt, parse(Block{}));
}

TEST(TarHeaderTest, LongPathStandsBeforeItsHeader) {
    const std::string path(101, 'p');
    const auto bytes = print({Type::kFile, 0600, 0, path});
    EXPECT_EQ(3 * kBlock, bytes.size());
    EXPECT_EQ('x', bytes[156]);
    const std::string record(bytes.begin() + kBlock, bytes.begin() + kBlock + 111);
    EXPECT_EQ("111 path=" + path + "\n", record);
    EXPECT_EQ(path, parseLongPath(record));
}

TEST(TarHeaderTest, LongPathCountsItself) {
    for (const std::size_t size : {101U, 989U, 990U, 991U, 992U, 993U, 4095U}) {
        const std::string record = printLongPath(std::string(size, 'p'));
        EXPECT_EQ(record.size(), std::stoul(record)) << size;
        EXPECT_EQ(std::string(size, 'p'), parseLongPath(record)) << size;
    }
}

TEST(TarHeaderTest, LongPathInAnotherFormIsRefused) {
    const std::string path(101, 'p');
    for (const std::string& record :
         {"112 path=" + path + "\n", "0111 path=" + path + "\n", "111 Path=" + path + "\n",
          "111 path=" + path, printLongPath("short"), printLongPath(std::string(4096, 'p')),
          printLongPath(path) + printLongPath(path), std::string()}) {
        EXPECT_EQ(std::nullopt, parseLongPath(record)) << record.substr(0, 20);
    }
}

TEST(TarHeaderTest, PaddingFillsTheBlock) {
    EXPECT_EQ(0u, paddingOf(0));
    EXPECT_EQ(511u, paddingOf(1));
    EXPECT_EQ(1u, paddingOf(511));
    EXPECT_EQ(0u, paddingOf(512));
    EXPECT_EQ(511u, paddingOf(0x1'0000'0001));
}

}  // namespace
}  // namespace fstore::tar
