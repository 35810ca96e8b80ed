#include "os/links.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

TEST(LinkTest, SaysWhatItWasMadeWith) {
    const support::TempWorkingDir folder;
    for (const std::string text : {"x", "../elsewhere/", " a\nb ", "\xff"}) {
        ASSERT_TRUE(os::makeLink(text.c_str(), "link"));
        EXPECT_EQ(text, os::readLink("link"));
        std::filesystem::remove("link");
    }
    const std::string longest(PATH_MAX - 1, 'x');
    ASSERT_TRUE(os::makeLink(longest.c_str(), "link"));
    EXPECT_EQ(longest, os::readLink("link"));
}

TEST(LinkTest, ANameThatIsTakenStays) {
    const support::TempWorkingDir folder;
    support::writeFile("file", "stays");
    std::filesystem::create_directory("folder");
    std::filesystem::create_symlink("nowhere", "dangling");
    for (const char* const name : {"file", "folder", "dangling"}) {
        errno = 0;
        EXPECT_FALSE(os::makeLink("other", name));
        EXPECT_EQ(EEXIST, errno) << name;
    }
    EXPECT_EQ("stays", support::readFile("file"));
    EXPECT_EQ("nowhere", os::readLink("dangling"));
}

TEST(LinkTest, FailuresLeaveTheirReason) {
    const support::TempWorkingDir folder;
    support::writeFile("file", "x");
    ASSERT_TRUE(os::makeLink("loop", "loop"));
    const struct {
        const char* path;
        int reading, making;
    } rows[] = {
        {"file/link", ENOTDIR, ENOTDIR},
        {"none/link", ENOENT, ENOENT},
        {"loop/link", ELOOP, ELOOP},
        {"", ENOENT, ENOENT},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_FALSE(os::readLink(row.path));
        EXPECT_EQ(row.reading, errno) << row.path;
        errno = 0;
        EXPECT_FALSE(os::makeLink("text", row.path));
        EXPECT_EQ(row.making, errno) << row.path;
    }
    errno = 0;
    EXPECT_FALSE(os::readLink("file"));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_FALSE(os::makeLink("", "empty"));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_FALSE(os::makeLink(std::string(PATH_MAX, 'x').c_str(), "long"));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

}  // namespace
