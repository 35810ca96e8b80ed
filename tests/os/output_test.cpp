#include "os/output.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "os/files.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using os::Output;
using support::namesIn;
using support::readFile;
using support::TempDir;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

bool save(const std::string& path, const std::string& text) {
    Output file;
    return file.open(path) == Output::Opened::kReady &&
           os::writeAll(file.fd(), text.data(), text.size()) && file.commit();
}

mode_t typeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status.st_mode & S_IFMT;
}

TEST(OutputTest, ReplacesAFileAsAWhole) {
    const TempDir dir;
    writeFile(dir / "file", "old");
    {
        Output file;
        ASSERT_EQ(Output::Opened::kReady, file.open(dir / "file"));
        ASSERT_TRUE(os::writeAll(file.fd(), "new", 3));
        EXPECT_EQ("old", readFile(dir / "file"));
        ASSERT_TRUE(file.commit());
    }
    EXPECT_EQ("new", readFile(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
}

TEST(OutputTest, WithoutCommitNothingIsLeft) {
    const TempDir dir;
    writeFile(dir / "file", "old");
    for (const char* const name : {"file", "another"}) {
        Output file;
        ASSERT_EQ(Output::Opened::kReady, file.open(dir / name));
        ASSERT_TRUE(os::writeAll(file.fd(), "new", 3));
    }
    EXPECT_EQ("old", readFile(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
}

TEST(OutputTest, NameMayBeAsLongAsNamesAre) {
    const TempDir dir;
    const std::string longest(255, 'n');
    EXPECT_TRUE(save(dir / longest, "text"));
    EXPECT_EQ("text", readFile(dir / longest));
    EXPECT_FALSE(save(dir / std::string(256, 'n'), "text"));
    EXPECT_THAT(namesIn(dir), ElementsAre(longest));
}

TEST(OutputTest, LinksAreRefusedWhereverTheyLead) {
    const TempDir dir;
    writeFile(dir / "target", "target");
    ASSERT_EQ(0, symlink("target", (dir / "link").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (dir / "dangling").c_str()));
    ASSERT_EQ(0, symlink("circle", (dir / "circle").c_str()));
    ASSERT_EQ(0, symlink("/dev/null", (dir / "null").c_str()));
    const auto before = support::tree(dir.path());
    for (const char* const name : {"link", "dangling", "circle", "null"}) {
        SCOPED_TRACE(name);
        Output file;
        EXPECT_EQ(Output::Opened::kLink, file.open(dir / name));
        EXPECT_EQ(S_IFLNK, typeOf(dir / name));
    }
    EXPECT_EQ(before, support::tree(dir.path()));
}

TEST(OutputTest, LinkedFolderIsAFolderLikeAnother) {
    const TempDir dir;
    ASSERT_EQ(0, mkdir((dir / "folder").c_str(), 0700));
    ASSERT_EQ(0, symlink("folder", (dir / "link").c_str()));
    EXPECT_TRUE(save(dir / "link/file", "text"));
    EXPECT_EQ("text", readFile(dir / "folder/file"));
}

TEST(OutputTest, WhatCannotBeWrittenFails) {
    const TempDir dir;
    ASSERT_EQ(0, mkdir((dir / "folder").c_str(), 0700));
    const auto before = support::tree(dir.path());
    for (const std::string& path :
         {dir / "folder", dir / "folder/", dir / "absent/", dir / "absent/file", std::string()}) {
        SCOPED_TRACE(path);
        Output file;
        EXPECT_EQ(Output::Opened::kFailed, file.open(path));
    }
    EXPECT_EQ(before, support::tree(dir.path()));
}

TEST(OutputTest, FifoIsWrittenThrough) {
    const TempDir dir;
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
    std::string got;
    std::thread reader([&] { got = readFile(dir / "fifo"); });
    EXPECT_TRUE(save(dir / "fifo", "text"));
    reader.join();
    EXPECT_EQ("text", got);
    EXPECT_EQ(S_IFIFO, typeOf(dir / "fifo"));
    EXPECT_THAT(namesIn(dir), ElementsAre("fifo"));
}

TEST(OutputTest, DeviceIsWrittenThrough) {
    const os::File terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(terminal);
    ASSERT_EQ(0, grantpt(terminal.get()));
    ASSERT_EQ(0, unlockpt(terminal.get()));
    const std::string device = ptsname(terminal.get());  // NOLINT(concurrency-mt-unsafe)
    ASSERT_TRUE(save(device, "text"));
    EXPECT_EQ(S_IFCHR, typeOf(device));
    char got[4];
    EXPECT_TRUE(os::readAll(terminal.get(), got, sizeof got));
    EXPECT_EQ("text", std::string(got, sizeof got));
}

// Whatever they are: here the end of a file, which a new opening would overwrite.
TEST(OutputTest, OwnDescriptorsAreWrittenThrough) {
    const TempDir dir;
    for (const std::string& path : {std::string("/dev/stdout"), std::string("/dev/stderr"),
                                    std::string("/dev/fd/1"), std::string("/proc/self/fd/2")}) {
        SCOPED_TRACE(path);
        writeFile(dir / "log", "before ");
        EXPECT_EQ(0, fault::inChild([&] {
                      const int log = ::open((dir / "log").c_str(), O_WRONLY | O_APPEND);
                      (void)dup2(log, 1);
                      (void)dup2(log, 2);
                      // Root could harm the system, should it replace what it was given.
                      const bool harmless = getuid() != 0 || setuid(65534) == 0;
                      return harmless && save(path, "text") && write(1, " after", 6) == 6 ? 0 : 1;
                  }));
        EXPECT_EQ("before text after", readFile(dir / "log"));
    }
    for (const char* const path : {"/dev/fd/", "/dev/fd/x", "/dev/fd/-1", "/dev/fd/99999"}) {
        EXPECT_FALSE(save(path, "text")) << path;
    }
}

// ---- what is left behind

std::string leftover(const TempDir& dir, const std::string& name, char digit) {
    return dir / ("." + name + ".new-5d0c9e7b-" + digit);
}

TEST(OutputTest, LeftoversOfTheNameAreRemovedAndNoOthers) {
    const TempDir dir;
    for (const char digit : {'0', '3', '7'}) {
        writeFile(leftover(dir, "file", digit), "left");
    }
    const std::string kept[] = {leftover(dir, "file", '8'),    leftover(dir, "other", '0'),
                                dir / ".file.new-5d0c9e7b-",   dir / "file.new-5d0c9e7b-0",
                                dir / ".file.new-5d0c9e7b-00", dir / ".file.new-0"};
    for (const std::string& path : kept) {
        writeFile(path, "kept");
    }
    ASSERT_TRUE(save(dir / "file", "text"));
    EXPECT_EQ("text", readFile(dir / "file"));
    EXPECT_EQ(1 + std::size(kept), support::tree(dir.path()).size());
    for (const std::string& path : kept) {
        EXPECT_EQ("kept", readFile(path)) << path;
    }
}

TEST(OutputTest, WhatIsNoDraftIsLeftAlone) {
    const TempDir dir;
    writeFile(dir / "target", "target");
    ASSERT_EQ(0, symlink("target", leftover(dir, "file", '0').c_str()));
    ASSERT_EQ(0, mkdir(leftover(dir, "file", '1').c_str(), 0700));
    ASSERT_EQ(0, mkfifo(leftover(dir, "file", '2').c_str(), 0600));
    ASSERT_TRUE(save(dir / "file", "text"));
    EXPECT_EQ("text", readFile(dir / "file"));
    EXPECT_EQ("target", readFile(dir / "target"));
    EXPECT_EQ(S_IFLNK, typeOf(leftover(dir, "file", '0')));
    EXPECT_EQ(S_IFDIR, typeOf(leftover(dir, "file", '1')));
    EXPECT_EQ(S_IFIFO, typeOf(leftover(dir, "file", '2')));
}

TEST(OutputTest, NoPlaceAtAllIsAFailure) {
    const TempDir dir;
    for (char digit = '0'; digit != '8'; ++digit) {
        ASSERT_EQ(0, mkdir(leftover(dir, "file", digit).c_str(), 0700));
    }
    EXPECT_FALSE(save(dir / "file", "text"));
    EXPECT_EQ(8U, support::tree(dir.path()).size());
}

TEST(OutputTest, DraftsOfOthersThatLiveAreLeftAlone) {
    const TempDir dir;
    Output first;
    ASSERT_EQ(Output::Opened::kReady, first.open(dir / "file"));
    ASSERT_TRUE(os::writeAll(first.fd(), "first", 5));
    Output second;
    ASSERT_EQ(Output::Opened::kReady, second.open(dir / "file"));
    ASSERT_TRUE(os::writeAll(second.fd(), "second", 6));
    ASSERT_TRUE(save(dir / "file", "third"));
    EXPECT_EQ("third", readFile(dir / "file"));
    ASSERT_TRUE(second.commit());
    EXPECT_EQ("second", readFile(dir / "file"));
    ASSERT_TRUE(first.commit());
    EXPECT_EQ("first", readFile(dir / "file"));
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
}

TEST(OutputTest, KilledAtAnyCallLeavesNothingForLong) {
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        const TempDir dir;
        writeFile(dir / "file", "old");
        const int code = fault::inChild([&] {
            const fault::DyingCall dying(nth);
            return save(dir / "file", "new") ? 0 : 1;
        });
        const std::string found = readFile(dir / "file");
        EXPECT_TRUE(found == "old" || found == "new") << found;
        ASSERT_TRUE(save(dir / "file", "newer"));
        EXPECT_EQ("newer", readFile(dir / "file"));
        EXPECT_THAT(namesIn(dir), ElementsAre("file"));
        if (code != fault::kDeath) {
            EXPECT_EQ(0, code);
            EXPECT_LT(15, nth) << "there were calls to die at";
            break;
        }
    }
}

TEST(OutputTest, FailingCallLeavesTheOldFileOrTheNew) {
    for (const Call call : {Call::kOpen, Call::kFlock, Call::kFstat, Call::kLstat, Call::kRemove,
                            Call::kFsync, Call::kClose, Call::kRename}) {
        for (const int error : fault::errnosOf(call)) {
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(std::string(fault::nameOf(call)) + ' ' + std::to_string(nth) +
                             " fails with " + std::to_string(error));
                const TempDir dir;
                writeFile(dir / "file", "old");
                writeFile(leftover(dir, "file", '0'), "left");
                fault::FailingCall failing(nth, error, fault::Mode::kOnce, {call});
                const bool saved = save(dir / "file", "new");
                const bool hit = failing.lift();
                const std::string found = readFile(dir / "file");
                EXPECT_TRUE(found == "new" || (!saved && hit && found == "old")) << found;
                EXPECT_THAT(fault::openHandles(), IsEmpty());
                ASSERT_TRUE(save(dir / "file", "newer"));
                EXPECT_THAT(namesIn(dir), ElementsAre("file"));
                if (!hit) {
                    break;
                }
            }
        }
    }
}

// A file system without locks: nothing is taken for a leftover.
TEST(OutputTest, WithoutLocksDraftsOfOthersAreLeftAlone) {
    const TempDir dir;
    writeFile(leftover(dir, "file", '0'), "left");
    const fault::FailingCall failing(1, ENOTSUP, fault::Mode::kFromThenOn, {Call::kFlock});
    ASSERT_TRUE(save(dir / "file", "text"));
    EXPECT_EQ("text", readFile(dir / "file"));
    EXPECT_EQ("left", readFile(leftover(dir, "file", '0')));
    EXPECT_EQ(2U, support::tree(dir.path()).size());
}

TEST(OutputTest, ManyAtATimeAreWholeAndLeaveNothing) {
    const TempDir dir;
    std::atomic<int> failures{0};
    std::atomic<bool> ended{false};
    writeFile(dir / "file", std::string(10'000, 'a'));
    std::thread reader([&] {
        while (!ended) {
            const std::string found = readFile(dir / "file");
            failures += found == std::string(10'000, found.empty() ? '?' : found[0]) ? 0 : 1;
        }
    });
    std::vector<std::thread> writers;
    for (int i = 0; i != 12; ++i) {
        writers.emplace_back([&, i] {
            for (int round = 0; round != 20; ++round) {
                failures +=
                    save(dir / "file", std::string(10'000, static_cast<char>('a' + i))) ? 0 : 1;
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    ended = true;
    reader.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_THAT(namesIn(dir), ElementsAre("file"));
}

}  // namespace
