// Files that are dated later than 32 bits of seconds can tell are files like any other.
#include <fcntl.h>
#include <sys/stat.h>

#include <ostream>
#include <string>
#include <vector>

#include "client/s_filestoreC.h"
#include "gtest/gtest.h"
#include "store/filefunc.h"
#include "tests/support/test_store.h"

namespace {

// One is past the signed 32-bit seconds, which end on 2038-01-19, the other past the
// unsigned ones, which end on 2106-02-07.
constexpr time_t k2040 = 2'208'988'800;
constexpr time_t kLate2106 = 4'317'000'000;

struct Date {
    const char* name;
    time_t accessed;  // 0: as it is
    time_t changed;
};

constexpr Date kDates[] = {
    {"accessed in 2040", k2040, 0},
    {"changed in 2040", 0, k2040},
    {"accessed in 2106", kLate2106, 0},
    {"changed in 2106", 0, kLate2106},
};

std::ostream& operator<<(std::ostream& out, const Date& date) {
    return out << date.name;
}

timespec timeOf(time_t seconds) {
    return {seconds, seconds == 0 ? UTIME_OMIT : 0};
}

// Dates the file or folder, and makes sure that the file system keeps such dates.
void date(const std::string& path, const Date& date) {
    const timespec times[] = {timeOf(date.accessed), timeOf(date.changed)};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0)) << path;
    struct stat status {};
    ASSERT_EQ(0, ::stat(path.c_str(), &status)) << path;
    ASSERT_TRUE(date.accessed == 0 || status.st_atim.tv_sec == date.accessed) << path;
    ASSERT_TRUE(date.changed == 0 || status.st_mtim.tv_sec == date.changed) << path;
}

const Contents kBefore{{{2, 1, "secret", true}}, "body", true};
const Contents kAfter{{{2, 1, "other", true}}, "another body", true};

// All that there is, what it is in first. Listed before it is dated: the standard library
// of a 32-bit system looks at no such file.
std::vector<std::string> all() {
    std::vector<std::string> paths{"./db"};
    for (const auto& [name, content] : TestStore::files("./db")) {
        paths.push_back("./db/" + name);
    }
    return paths;
}

class LateDatesTest : public testing::TestWithParam<Date> {
protected:
    LateDatesTest() {
        EXPECT_EQ(kOk, TestStore::save("a", kBefore));
        for (const std::string& path : all()) {
            date(path, GetParam());
        }
    }

    TestStore store_;
};

TEST_P(LateDatesTest, Read) {
    EXPECT_EQ(1, TestStore::record("a").isExist());
    Contents contents;
    ASSERT_EQ(kOk, TestStore::tryLoad("a", contents));
    EXPECT_EQ(kBefore, contents);
}

TEST_P(LateDatesTest, List) {
    aFileStoreList list;
    ASSERT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
    EXPECT_EQ(0U, list.isEmpty());
}

TEST_P(LateDatesTest, Open) {
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    EXPECT_EQ(kWrongPassword, CMN_FILESTORE_S.open("wrong"));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
}

TEST_P(LateDatesTest, PrepareFolders) {
    EXPECT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
}

// Nothing of what it replaces stays.
TEST_P(LateDatesTest, Overwrite) {
    ASSERT_EQ(kOk, TestStore::save("a", kAfter));
    EXPECT_EQ(kAfter, TestStore::load("a"));
    EXPECT_EQ(2U, TestStore::files().size());
}

TEST_P(LateDatesTest, Remove) {
    ASSERT_EQ(kOk, TestStore::erase("a"));
    EXPECT_TRUE(TestStore::files().empty());
}

TEST_P(LateDatesTest, ChangeOfPassword) {
    ASSERT_EQ(kOk, CMN_FILESTORE_S.recrypt("secret", "new"));
    EXPECT_EQ(kBefore, TestStore::load("a"));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.checkPwd("new"));
    // The previous database has the dates still, and goes.
    EXPECT_EQ(kOk, CMN_FILESTORE_S.recrypt("new", "newer"));
    EXPECT_EQ(kBefore, TestStore::load("a"));
}

TEST_P(LateDatesTest, CopyAndRemoveFolder) {
    EXPECT_EQ(kOk, copyFolder("./db", "./copy"));
    EXPECT_EQ(TestStore::files("./copy").size() + 1, all().size());
    for (const char* const path : {"./copy", "./copy/keys", "./copy/keys/a.dsc"}) {
        date(path, GetParam());
    }
    EXPECT_EQ(kOk, removeFolder("./copy"));
    EXPECT_TRUE(TestStore::files("./copy").empty());
}

std::string nameOf(const testing::TestParamInfo<Date>& row) {
    std::string name = row.param.name;
    for (char& character : name) {
        character = character == ' ' ? '_' : character;
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(, LateDatesTest, testing::ValuesIn(kDates), nameOf);

}  // namespace
