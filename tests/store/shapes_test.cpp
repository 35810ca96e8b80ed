// Databases cross between 32-bit and 64-bit builds: what either has written both read,
// and what they write are the same bytes.
#include <map>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/store/shape_database.h"
#include "tests/support/temp_dir.h"

namespace {

using Files = std::map<std::string, std::string>;

Files kept(const std::string& shape) {
    return support::tree(TEST_DATA "/shapes/" + shape);
}

// A record's files without the name of its body, which counts the files of a process.
struct Stored {
    std::string descriptor;
    std::string body;

    bool operator==(const Stored&) const = default;
};

Stored storedAs(const Files& files, const std::string& name) {
    Stored stored{files.at(name + ".dsc"), {}};
    const std::string reference = stored.descriptor.substr(0, stored.descriptor.find('\n'));
    if (reference.starts_with("1")) {
        const std::string body = reference.substr(18);
        stored.body = files.at(body);
        stored.descriptor.replace(18, body.size(), "BODY");
    }
    return stored;
}

class ShapesTest : public testing::TestWithParam<std::string> {
protected:
    TestStore store{kShapePassword};
};

TEST_P(ShapesTest, ReadsWhatTheShapeHasWritten) {
    for (const auto& [name, content] : kept(GetParam())) {
        support::writeFile(store.path(name), content);
    }
    for (const auto& [name, contents] : shapeRecords()) {
        EXPECT_EQ(contents, TestStore::load(name)) << name;
    }
    aFileStoreList list;
    ASSERT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
    std::size_t count = 0;
    for (aFileStore record = list.getFirst(); record.target() != nullptr; record = list.getNext()) {
        ++count;
    }
    EXPECT_EQ(shapeRecords().size(), count);
}

TEST_P(ShapesTest, WritesTheSameBytes) {
    ASSERT_TRUE(writeShapeRecords());
    const Files now = TestStore::files();
    const Files before = kept(GetParam());
    EXPECT_EQ(before.size(), now.size());
    for (const auto& [name, contents] : shapeRecords()) {
        EXPECT_EQ(storedAs(before, name), storedAs(now, name)) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(, ShapesTest, testing::Values("m32", "m64"),
                         [](const auto& param) { return param.param; });

TEST(KeptShapesTest, BothShapesHaveWrittenTheSameFiles) {
    EXPECT_FALSE(kept("m32").empty());
    EXPECT_EQ(kept("m32"), kept("m64"));
}

}  // namespace
