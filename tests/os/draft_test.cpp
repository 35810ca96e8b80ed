#include "os/draft.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "os/files.h"
#include "os/unnamed_file.h"
#include "tests/support/temp_dir.h"

// On the file system that the tests run on. Where it has unnamed files, drafts have no name; the
// tests of outputs show the others.
namespace {

using os::Draft;
using support::namesIn;
using support::readFile;
using support::TempDir;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using Existing = Draft::Existing;

bool write(const Draft& draft, const std::string& text) {
    return os::writeAll(draft.file().get(), text.data(), text.size());
}

// The machine's file system for temporary files is one that has them, as any of the last ten years.
TEST(DraftTest, HasNoNameBeforeItIsComplete) {
    const TempDir dir;
    {
        Draft draft;
        ASSERT_TRUE(draft.open(dir / "file"));
        ASSERT_TRUE(write(draft, "text"));
        EXPECT_THAT(namesIn(dir), IsEmpty());
    }
    EXPECT_THAT(namesIn(dir), IsEmpty());
    Draft draft;
    ASSERT_TRUE(draft.open(dir / "file"));
    ASSERT_TRUE(write(draft, "text"));
    ASSERT_TRUE(draft.commit(Existing::kKept));
    EXPECT_TRUE(draft.syncName());
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
    EXPECT_EQ("text", readFile(dir / "file"));
    struct stat status {};
    ASSERT_EQ(0, lstat((dir / "file").c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);
}

TEST(DraftTest, IsReadBackBeforeItHasAName) {
    const TempDir dir;
    Draft draft;
    ASSERT_TRUE(draft.open(dir / "file"));
    ASSERT_TRUE(write(draft, "text"));
    const os::File file = draft.reopenForReading();
    ASSERT_TRUE(file);
    char got[4];
    ASSERT_TRUE(os::readAll(file.get(), got, sizeof got));
    EXPECT_EQ("text", std::string(got, sizeof got));
}

TEST(DraftTest, KeepsWhatHasTheName) {
    const TempDir dir;
    Draft draft;
    ASSERT_TRUE(draft.open(dir / "file"));
    ASSERT_TRUE(write(draft, "new"));
    writeFile(dir / "file", "meanwhile");
    EXPECT_FALSE(draft.commit(Existing::kKept));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ("meanwhile", readFile(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
}

TEST(DraftTest, ReplacesWhatHasTheName) {
    const TempDir dir;
    writeFile(dir / "file", "old");
    Draft draft;
    ASSERT_TRUE(draft.open(dir / "file"));
    ASSERT_TRUE(write(draft, "new"));
    EXPECT_EQ("old", readFile(dir / "file"));
    ASSERT_TRUE(draft.commit(Existing::kReplaced));
    EXPECT_EQ("new", readFile(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
}

std::vector<std::string> seen;

TEST(DraftTest, TellsTheNameThatItHasForAMoment) {
    const TempDir dir;
    seen.clear();
    const auto watch = [](const char* path) noexcept {
        seen.emplace_back(path == nullptr ? "none" : path);
    };
    writeFile(dir / "file", "old");
    for (const char* const name : {"file", "another"}) {
        Draft draft(watch);
        ASSERT_TRUE(draft.open(dir / name));
        ASSERT_TRUE(draft.commit(Existing::kReplaced));
    }
    EXPECT_THAT(seen, ElementsAre(dir / ".file.new-5d0c9e7b-0", "none"));
}

TEST(DraftTest, LeftoversGoAndDraftsThatAreHeldStay) {
    const TempDir dir;
    writeFile(dir / "file", "old");
    writeFile(dir / ".file.new-5d0c9e7b-0", "held");
    writeFile(dir / ".file.new-5d0c9e7b-1", "left");
    const os::File held = os::openFile((dir / ".file.new-5d0c9e7b-0").c_str(), O_RDWR);
    ASSERT_EQ(0, flock(held.get(), LOCK_EX));
    Draft draft;
    ASSERT_TRUE(draft.open(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre(".file.new-5d0c9e7b-0", "file"));
    ASSERT_TRUE(write(draft, "new"));
    ASSERT_TRUE(draft.commit(Existing::kReplaced));
    EXPECT_EQ("held", readFile(dir / ".file.new-5d0c9e7b-0"));
    EXPECT_EQ("new", readFile(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre(".file.new-5d0c9e7b-0", "file"));
}

void replaceFileIn(const TempDir& dir) {
    writeFile(dir / "file", "old");
    Draft draft;
    ASSERT_TRUE(draft.open(dir / "file"));
    ASSERT_TRUE(write(draft, "new"));
    ASSERT_TRUE(draft.commit(Existing::kReplaced));
    EXPECT_EQ("new", readFile(dir / "file"));
}

// Whoever names a file so has done it on purpose.
TEST(DraftTest, AFileOfTheUsersIsLeftAlone) {
    const TempDir dir;
    for (const char* const name : {".file.new-0", ".file.new-5d0c9e7b", ".file.new-5d0c9e7b-8"}) {
        writeFile(dir / name, "mine");
    }
    writeFile(dir / "other", "mine");
    ASSERT_EQ(0, link((dir / "other").c_str(), (dir / ".file.new-5d0c9e7b-1").c_str()));
    replaceFileIn(dir);
    EXPECT_THAT(namesIn(dir),
                ElementsAre(".file.new-0", ".file.new-5d0c9e7b", ".file.new-5d0c9e7b-1",
                            ".file.new-5d0c9e7b-8", "file", "other"));
}

TEST(DraftTest, SaysWhatIsInTheWay) {
    const TempDir dir;
    for (char digit = '0'; digit != '8'; ++digit) {
        ASSERT_EQ(0, mkdir((dir / ".file.new-5d0c9e7b-").append(1, digit).c_str(), 0700));
    }
    Draft kept;
    ASSERT_TRUE(kept.open(dir / "file"));
    writeFile(dir / "file", "old");
    EXPECT_FALSE(kept.commit(Existing::kKept));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ("", kept.inTheWay());
    Draft replacing;
    ASSERT_TRUE(replacing.open(dir / "file"));
    EXPECT_FALSE(replacing.commit(Existing::kReplaced));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(dir / ".file.new-5d0c9e7b-7", replacing.inTheWay());
    EXPECT_EQ("old", readFile(dir / "file"));
}

// In a folder like /tmp, and whatever a process of root's may do there. A link stands for what
// belongs to somebody else where the test's user can make no such file.
TEST(DraftTest, WhatOthersOwnIsLeftAlone) {
    const TempDir dir;
    constexpr uid_t kSomebody = 54321;
    writeFile(dir / "theirs", "theirs");
    const bool isTheirs = chown((dir / "theirs").c_str(), kSomebody, kSomebody) == 0;
    ASSERT_EQ(0, isTheirs ? link((dir / "theirs").c_str(), (dir / ".file.new-5d0c9e7b-0").c_str())
                          : symlink("theirs", (dir / ".file.new-5d0c9e7b-0").c_str()));
    replaceFileIn(dir);
    EXPECT_EQ("theirs", readFile(dir / "theirs"));
    EXPECT_THAT(namesIn(dir), ElementsAre(".file.new-5d0c9e7b-0", "file", "theirs"));
}

}  // namespace
