#include "os/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using fault::Calls;
using fault::FailingCall;
using fault::Mode;
using fault::openHandles;
using fault::ShortCall;
using support::readFile;
using support::TempDir;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

os::File create(const std::string& path) {
    return os::openFile(path.c_str(), O_RDWR | O_CREAT | O_TRUNC);
}

TEST(OpenFileTest, ClosesOnExecAndContinuesWhenInterrupted) {
    const TempDir dir;
    FailingCall fault(1, EINTR, Mode::kOnce, {Call::kOpen});
    const os::File file = create(dir / "a");
    EXPECT_TRUE(fault.lift());
    ASSERT_TRUE(file);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(file.get(), F_GETFD));
}

TEST(OpenFileTest, CreatesWithTheModeThatTheUmaskLeaves) {
    const TempDir dir;
    const mode_t before = ::umask(027);
    const os::File file = create(dir / "a");
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(0, ::fstat(file.get(), &status));
    EXPECT_EQ(0640U, status.st_mode & 0777U);
}

TEST(CreateAnewTest, ReplacesWhateverIsNoFolder) {
    const TempDir dir;
    writeFile(dir / "file", "12345");
    writeFile(dir / "target", "target");
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    ASSERT_EQ(0, ::symlink("target", (dir / "link").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (dir / "dangling").c_str()));
    for (const char* const name : {"absent", "file", "fifo", "link", "dangling"}) {
        SCOPED_TRACE(name);
        const os::File file = os::createAnew((dir / name).c_str());
        ASSERT_TRUE(file);
        struct stat status {};
        ASSERT_EQ(0, ::lstat((dir / name).c_str(), &status));
        EXPECT_TRUE(S_ISREG(status.st_mode));
        EXPECT_EQ(0, status.st_size);
    }
    EXPECT_EQ("target", readFile(dir / "target"));
}

TEST(CreateAnewTest, LeavesAFolderAndWhatItCannotExamine) {
    const TempDir dir;
    ASSERT_EQ(0, ::mkdir((dir / "folder").c_str(), 0700));
    EXPECT_FALSE(os::createAnew((dir / "folder").c_str()));
    EXPECT_FALSE(os::createAnew((dir / "absent/below").c_str()));
    writeFile(dir / "file", "12345");
    for (const Call call : {Call::kLstat, Call::kRemove}) {
        FailingCall fault(1, EIO, Mode::kOnce, {call});
        EXPECT_FALSE(os::createAnew((dir / "file").c_str()));
        EXPECT_TRUE(fault.lift());
        EXPECT_EQ("12345", readFile(dir / "file"));
    }
    FailingCall fault(2, EMFILE, Mode::kOnce, {Call::kOpen});
    EXPECT_FALSE(os::createAnew((dir / "file").c_str()));
    EXPECT_TRUE(fault.lift());
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(OpenRegularTest, TellsWhatIsThere) {
    const TempDir dir;
    writeFile(dir / "file", "12345");
    ASSERT_EQ(0, ::mkdir((dir / "folder").c_str(), 0700));
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    ASSERT_EQ(0, ::symlink("file", (dir / "link").c_str()));
    ASSERT_EQ(0, ::symlink("folder", (dir / "folder link").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (dir / "dangling").c_str()));
    const struct {
        const char* name;
        os::Opened outcome;
    } rows[] = {
        {"file", os::Opened::kRegular},           {"link", os::Opened::kRegular},
        {"folder", os::Opened::kNotRegular},      {"fifo", os::Opened::kNotRegular},
        {"folder link", os::Opened::kNotRegular}, {"dangling", os::Opened::kFailed},
        {"absent", os::Opened::kFailed},          {"file/below", os::Opened::kFailed},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        os::File file;
        off_t size = -1;
        EXPECT_EQ(row.outcome, os::openRegular((dir / row.name).c_str(), file, size));
        EXPECT_EQ(row.outcome == os::Opened::kRegular, static_cast<bool>(file));
        EXPECT_EQ(row.outcome == os::Opened::kRegular ? 5 : -1, size);
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(OpenRegularTest, ALinkIsRefusedWhereItIsToBe) {
    const TempDir dir;
    writeFile(dir / "file", "bytes");
    ASSERT_EQ(0, ::symlink("file", (dir / "link").c_str()));
    os::File file;
    off_t size = -1;
    EXPECT_EQ(os::Opened::kFailed,
              os::openRegular((dir / "link").c_str(), file, size, os::Links::kRefuse));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(os::Opened::kRegular,
              os::openRegular((dir / "file").c_str(), file, size, os::Links::kRefuse));
}

TEST(OpenRegularTest, SizesPastFourGigabytesAreTold) {
    const TempDir dir;
    const off_t large = (off_t{5} << 30) + 1;
    writeFile(dir / "sparse", "");
    ASSERT_EQ(0, ::truncate((dir / "sparse").c_str(), large));
    os::File file;
    off_t size = 0;
    ASSERT_EQ(os::Opened::kRegular, os::openRegular((dir / "sparse").c_str(), file, size));
    EXPECT_EQ(large, size);
}

TEST(OpenRegularTest, FailureOfAnyCallIsToldWithItsReason) {
    const TempDir dir;
    writeFile(dir / "a", "x");
    for (const Call call : {Call::kOpen, Call::kFstat}) {
        for (const int error : fault::errnosOf(call)) {
            SCOPED_TRACE(fault::nameOf(call) + std::string(" ") + strerrorname_np(error));
            os::File file;
            off_t size = 0;
            FailingCall fault(1, error, Mode::kOnce, {call});
            const os::Opened outcome = os::openRegular((dir / "a").c_str(), file, size);
            const int reason = errno;
            EXPECT_TRUE(fault.lift());
            if (error == EINTR) {
                EXPECT_EQ(os::Opened::kRegular, outcome);
                continue;
            }
            EXPECT_EQ(os::Opened::kFailed, outcome);
            EXPECT_EQ(error, reason);
            EXPECT_THAT(openHandles(), IsEmpty());
        }
    }
}

struct TransferFault {
    const char* name;
    int error;           // 0: the call falls short instead
    std::size_t atMost;  // bytes that a short call moves
    Mode mode;
    bool succeeds;
    int reason;  // errno of a failure
};

TEST(WriteAllTest, ContinuesWhatFallsShortAndFailsOtherwise) {
    const TransferFault rows[] = {
        {"short once", 0, SIZE_MAX, Mode::kOnce, true, 0},
        {"always short", 0, SIZE_MAX, Mode::kFromThenOn, true, 0},
        {"one byte at a time", 0, 1, Mode::kFromThenOn, true, 0},
        {"interrupted once", EINTR, 0, Mode::kOnce, true, 0},
        {"interrupted again and again", EINTR, 0, Mode::kFromThenOn, true, 0},
        {"no progress", 0, 0, Mode::kOnce, false, EIO},
        {"full", ENOSPC, 0, Mode::kOnce, false, ENOSPC},
    };
    const std::string bytes = "0123456789abcdef";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        const os::File file = create(dir / "a");
        bool written = false;
        int reason = 0;
        if (row.error != 0) {
            const FailingCall fault(1, row.error, row.mode, {Call::kWrite});
            written = os::writeAll(file.get(), bytes.data(), bytes.size());
            reason = errno;
            EXPECT_TRUE(fault.hit());
        } else {
            const ShortCall fault(1, row.mode, row.atMost);
            written = os::writeAll(file.get(), bytes.data(), bytes.size());
            reason = errno;
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(row.succeeds, written);
        if (row.succeeds) {
            EXPECT_EQ(bytes, readFile(dir / "a"));
        } else {
            EXPECT_EQ(row.reason, reason);
        }
    }
}

TEST(WriteAllTest, NothingToWriteMakesNoCall) {
    const long before = fault::callCount();
    EXPECT_TRUE(os::writeAll(-1, nullptr, 0));
    EXPECT_EQ(before, fault::callCount());
}

TEST(ReadAllTest, ContinuesWhatFallsShortAndFailsOtherwise) {
    const TransferFault rows[] = {
        {"short once", 0, SIZE_MAX, Mode::kOnce, true, 0},
        {"one byte at a time", 0, 1, Mode::kFromThenOn, true, 0},
        {"interrupted again and again", EINTR, 0, Mode::kFromThenOn, true, 0},
        {"ends early", 0, 0, Mode::kOnce, false, 0},
        {"damaged", EIO, 0, Mode::kOnce, false, EIO},
    };
    const TempDir dir;
    const std::string bytes = "0123456789abcdef";
    writeFile(dir / "a", bytes);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        os::File file;
        off_t size = 0;
        ASSERT_EQ(os::Opened::kRegular, os::openRegular((dir / "a").c_str(), file, size));
        std::string got(bytes.size(), '?');
        bool read = false;
        int reason = 0;
        if (row.error != 0) {
            const FailingCall fault(1, row.error, row.mode, {Call::kRead});
            read = os::readAll(file.get(), got.data(), got.size());
            reason = errno;
            EXPECT_TRUE(fault.hit());
        } else {
            const ShortCall fault(1, row.mode, row.atMost);
            read = os::readAll(file.get(), got.data(), got.size());
            reason = errno;
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(row.succeeds, read);
        if (row.succeeds) {
            EXPECT_EQ(bytes, got);
        } else {
            EXPECT_EQ(row.reason, reason);
        }
    }
}

TEST(ReadAllTest, FileShorterThanAskedForIsAFailure) {
    const TempDir dir;
    writeFile(dir / "a", "abc");
    os::File file;
    off_t size = 0;
    ASSERT_EQ(os::Opened::kRegular, os::openRegular((dir / "a").c_str(), file, size));
    char buffer[4];
    errno = ENOSPC;
    EXPECT_FALSE(os::readAll(file.get(), buffer, sizeof buffer));
    EXPECT_EQ(0, errno);
}

TEST(SyncCloseTest, SyncsThenCloses) {
    const TempDir dir;
    os::File file = create(dir / "a");
    const fault::Recorder recorder;
    EXPECT_TRUE(os::closeDurably(std::move(file)));
    EXPECT_THAT(recorder.lines(), ElementsAre("fsync " + dir / "a", "close " + dir / "a"));
}

TEST(SyncCloseTest, AnyFailureIsToldAndLeaksNothing) {
    const TempDir dir;
    for (const Call call : {Call::kFsync, Call::kClose}) {
        for (const int error : fault::errnosOf(call)) {
            SCOPED_TRACE(fault::nameOf(call) + std::string(" ") + strerrorname_np(error));
            os::File file = create(dir / "a");
            FailingCall fault(1, error, Mode::kFromThenOn, {call});
            const bool closed = os::closeDurably(std::move(file));
            const int reason = errno;
            EXPECT_TRUE(fault.lift());
            EXPECT_EQ(error == EINTR, closed);
            if (!closed) {
                EXPECT_EQ(error, reason);
            }
            EXPECT_THAT(openHandles(), IsEmpty());
        }
    }
}

// A second sync after a failed one would succeed without the lost bytes.
TEST(SyncCloseTest, FailedSyncIsNotTriedAgain) {
    const TempDir dir;
    os::File file = create(dir / "a");
    const FailingCall fault(1, EIO, Mode::kOnce, {Call::kFsync});
    EXPECT_FALSE(os::closeDurably(std::move(file)));
}

TEST(SyncFolderTest, OpensSyncsAndCloses) {
    const TempDir dir;
    const fault::Recorder recorder;
    EXPECT_TRUE(os::syncFolder(dir.path().c_str()));
    EXPECT_THAT(recorder.lines(), ElementsAre("open " + dir.path() + " rdonly|directory",
                                              "fsync " + dir.path(), "close " + dir.path()));
}

TEST(SyncFolderTest, WhatIsNoFolderCannotBeSynced) {
    const TempDir dir;
    writeFile(dir / "file", "x");
    EXPECT_FALSE(os::syncFolder((dir / "file").c_str()));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_FALSE(os::syncFolder((dir / "absent").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(SyncFolderTest, AnyFailureIsToldAndLeaksNothing) {
    const TempDir dir;
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        FailingCall fault(nth, EIO);
        EXPECT_FALSE(os::syncFolder(dir.path().c_str()));
        EXPECT_EQ(EIO, errno);
        EXPECT_TRUE(fault.lift());
        EXPECT_THAT(openHandles(), IsEmpty());
    }
}

// Nothing could ever be written where it does not; a sync that fails is another matter.
TEST(SyncFolderTest, FileSystemThatCannotIsNoFailure) {
    const TempDir dir;
    std::vector<int> errors = fault::errnosOf(Call::kFsync);
    errors.insert(errors.end(), {EBADF, ENOTSUP});
    for (const int error : errors) {
        SCOPED_TRACE(strerrorname_np(error));
        const bool isInterrupted = error == EINTR;
        const bool cannot = error == EINVAL || error == EBADF || error == ENOTSUP;
        FailingCall fault(1, error, Mode::kOnce, {Call::kFsync});
        EXPECT_EQ(isInterrupted || cannot, os::syncFolder(dir.path().c_str()));
        EXPECT_TRUE(fault.lift());
        EXPECT_THAT(openHandles(), IsEmpty());
    }
}

TEST(PresenceTest, OnlyTheSystemsWordMakesANameAbsent) {
    const TempDir dir;
    writeFile(dir / "file", "x");
    ASSERT_EQ(0, ::symlink("loop", (dir / "loop").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (dir / "dangling").c_str()));
    const struct {
        std::string path;
        os::Presence presence;
    } rows[] = {
        {dir / "file", os::Presence::kPresent},
        {dir.path(), os::Presence::kPresent},
        {dir / "absent", os::Presence::kAbsent},
        {dir / "file/below", os::Presence::kAbsent},
        {dir / "dangling", os::Presence::kAbsent},
        {dir / "loop", os::Presence::kAbsent},
        {dir / "loop/below", os::Presence::kAbsent},
        {dir / std::string(300, 'n'), os::Presence::kAbsent},
        {dir / std::string(5000, '/') + "file", os::Presence::kAbsent},
        {"", os::Presence::kAbsent},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(row.presence, os::presence(row.path.c_str()));
    }
    for (const int error : fault::errnosOf(Call::kAccess)) {
        SCOPED_TRACE(strerrorname_np(error));
        const FailingCall fault(1, error);
        EXPECT_EQ(os::Presence::kUnknown, os::presence((dir / "file").c_str()));
    }
}

std::set<std::string> listed(const std::string& path, int& reason) {
    std::set<std::string> names;
    const os::Dir folder = os::openFolder(path.c_str());
    errno = ENOSPC;  // must not be taken for the listing's
    while (const dirent* const entry = os::nextEntry(folder.get())) {
        names.insert(entry->d_name);
    }
    reason = errno;
    return names;
}

TEST(NextEntryTest, TellsTheEndFromAFailure) {
    const TempDir dir;
    writeFile(dir / "a", "");
    int reason = -1;
    EXPECT_THAT(listed(dir.path(), reason), ElementsAre(".", "..", "a"));
    EXPECT_EQ(0, reason);
    for (int nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        const FailingCall fault(nth, EIO, Mode::kOnce, {Call::kReaddir});
        EXPECT_EQ(static_cast<std::size_t>(nth - 1), listed(dir.path(), reason).size());
        EXPECT_EQ(EIO, reason);
    }
}

TEST(NextEntryTest, InterruptedListingIsContinued) {
    const TempDir dir;
    writeFile(dir / "a", "");
    const FailingCall fault(1, EINTR, Mode::kFromThenOn, {Call::kOpendir, Call::kReaddir});
    int reason = -1;
    EXPECT_THAT(listed(dir.path(), reason), ElementsAre(".", "..", "a"));
    EXPECT_EQ(0, reason);
}

TEST(NextEntryTest, RemovedFolderHasEnded) {
    const TempDir dir;
    ASSERT_EQ(0, ::mkdir((dir / "gone").c_str(), 0700));
    const os::Dir folder = os::openFolder((dir / "gone").c_str());
    ASSERT_EQ(0, ::rmdir((dir / "gone").c_str()));
    EXPECT_EQ(nullptr, os::nextEntry(folder.get()));
    EXPECT_EQ(0, errno);
}

TEST(EntryTypeTest, ListingAndQuestionAgree) {
    const TempDir dir;
    writeFile(dir / "file", "");
    ASSERT_EQ(0, ::mkdir((dir / "folder").c_str(), 0700));
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    ASSERT_EQ(0, ::symlink("folder", (dir / "link").c_str()));
    const std::map<std::string, os::EntryType> expected{
        {".", os::EntryType::kFolder},   {"..", os::EntryType::kFolder},
        {"file", os::EntryType::kFile},  {"folder", os::EntryType::kFolder},
        {"fifo", os::EntryType::kOther}, {"link", os::EntryType::kLink}};
    std::map<std::string, os::EntryType> told;
    const os::Dir folder = os::openFolder(dir.path().c_str());
    while (const dirent* const entry = os::nextEntry(folder.get())) {
        told[entry->d_name] = os::entryType(*entry);
        EXPECT_EQ(expected.at(entry->d_name), os::entryTypeOf((dir / entry->d_name).c_str()));
    }
    EXPECT_EQ(expected, told);
}

TEST(EntryTypeTest, WhatIsNotToldOrCannotBeExaminedIsUnknown) {
    const TempDir dir;
    {
        const fault::UntypedEntries untyped;
        const os::Dir folder = os::openFolder(dir.path().c_str());
        const dirent* const entry = os::nextEntry(folder.get());
        ASSERT_NE(nullptr, entry);
        EXPECT_EQ(os::EntryType::kUnknown, os::entryType(*entry));
    }
    EXPECT_EQ(os::EntryType::kUnknown, os::entryTypeOf((dir / "absent").c_str()));
    const FailingCall fault(1, EIO);
    EXPECT_EQ(os::EntryType::kUnknown, os::entryTypeOf(dir.path().c_str()));
}

}  // namespace
