// What is to be shown of os/base.h, above either definition of the seam.
#ifndef TESTS_OS_BASE_CASES_H
#define TESTS_OS_BASE_CASES_H

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "os/base.h"
#include "os/files.h"
#include "os/fs.h"
#include "tests/support/temp_dir.h"

namespace {

// Two folders with the same names in them; neither is the current one.
class BaseTest : public testing::Test {
protected:
    BaseTest() {
        for (const char* const name : {"a", "b"}) {
            std::filesystem::create_directories(dir_ / name + "/sub");
            support::writeFile(dir_ / name + "/sub/file", std::string("of ") + name);
        }
    }

    os::File open(const std::string& name) const {
        return os::openFile((dir_ / name).c_str(), O_RDONLY | O_DIRECTORY);
    }

    static std::string read(const char* path) {
        os::File file;
        off_t size = 0;
        if (os::openRegular(path, file, size) != os::Opened::kRegular) {
            return "none";
        }
        std::string bytes(static_cast<std::size_t>(size), '\0');
        return os::readAll(file.get(), bytes.data(), bytes.size()) ? bytes : "unreadable";
    }

    const support::TempDir dir_;
};

TEST_F(BaseTest, RelativePathsBeginThere) {
    const os::File a = open("a");
    const os::File b = open("b");
    EXPECT_EQ("none", read("sub/file"));
    {
        const os::Base inA(a.get());
        EXPECT_EQ("of a", read("sub/file"));
        EXPECT_EQ("of a", read("./sub/file"));
        {
            const os::Base inB(b.get());
            EXPECT_EQ("of b", read("sub/file"));
        }
        EXPECT_EQ("of a", read("sub/file"));
        EXPECT_EQ("of b", read((dir_ / "b/sub/file").c_str()))
            << "an absolute path stays what it is";
    }
    EXPECT_EQ("none", read("sub/file"));
    EXPECT_EQ(AT_FDCWD, os::baseFolder());
}

TEST_F(BaseTest, EachThreadHasItsOwn) {
    const os::File a = open("a");
    const os::File b = open("b");
    const os::Base inA(a.get());
    std::string seen;
    std::string without;
    std::thread other([&] {
        without = read("sub/file");
        const os::Base inB(b.get());
        seen = read("sub/file");
    });
    other.join();
    EXPECT_EQ("none", without);
    EXPECT_EQ("of b", seen);
    EXPECT_EQ("of a", read("sub/file"));
}

TEST_F(BaseTest, EveryCallOnNamesBeginsThere) {
    const os::File a = open("a");
    const os::Base inA(a.get());
    struct stat status {};
    EXPECT_EQ(0, os::mkdir("new", 0750));
    EXPECT_EQ(0, os::access("new", F_OK));
    EXPECT_EQ(0, os::lstat("new", &status));
    EXPECT_EQ(0, os::rename("sub/file", "new/file"));
    EXPECT_EQ(0, os::rmdir("sub"));
    EXPECT_TRUE(os::syncFolder("new"));
    EXPECT_TRUE(std::filesystem::exists(dir_ / "a/new/file"));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "a/sub"));
    char resolved[PATH_MAX];
    ASSERT_NE(nullptr, os::realpath("new/../new", resolved));
    EXPECT_EQ(dir_ / "a/new", resolved);
    EXPECT_EQ(0, os::remove("new/file"));
    EXPECT_EQ(0, os::remove("new")) << "an empty folder, too";
    EXPECT_NE(0, os::remove("new"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_TRUE(std::filesystem::exists(dir_ / "b/sub/file"));
}

TEST_F(BaseTest, AFolderIsListedFromThere) {
    const os::File a = open("a");
    const os::Base inA(a.get());
    const os::Dir listed = os::openFolder("sub");
    ASSERT_TRUE(listed);
    bool found = false;
    while (const dirent* const entry = os::nextEntry(listed.get())) {
        found = found || std::string(entry->d_name) == "file";
    }
    EXPECT_TRUE(found);
    EXPECT_FALSE(os::openFolder("absent"));
    EXPECT_FALSE(os::openFolder("sub/file"));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(BaseTest, AFolderThatMovesStaysTheBase) {
    const os::File a = open("a");
    const os::Base inA(a.get());
    std::filesystem::rename(dir_ / "a", dir_ / "c");
    std::filesystem::create_directory_symlink(dir_ / "b", dir_ / "a");
    EXPECT_EQ("of a", read("sub/file"));
}

}  // namespace

#endif  // TESTS_OS_BASE_CASES_H
