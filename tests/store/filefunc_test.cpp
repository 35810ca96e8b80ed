#include "store/filefunc.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using fault::Calls;
using fault::FailingAllocation;
using fault::FailingCall;
using fault::Mode;
using fault::openHandles;
using fault::ShortCall;
using support::readFile;
using support::TempDir;
using support::TempWorkingDir;
using support::tree;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::UnorderedElementsAre;

using Tree = std::map<std::string, std::string>;
using Entries = std::map<std::string, int>;  // name to isFolder()

void makeFolder(const std::string& path, mode_t mode = 0700) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), mode)) << path << ": " << std::strerror(errno);
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

// Two levels of folders, an empty one, and files of no, some and many bytes.
void makeSample(const std::string& root) {
    makeFolder(root);
    makeFolder(root + "/keys");
    makeFolder(root + "/certificates");
    makeFolder(root + "/certificates/local");
    writeFile(root + "/key.dsc", "line\n");
    writeFile(root + "/empty", "");
    writeFile(root + "/certificates/local/00000001", std::string(40000, 'b'));
    writeFile(root + "/certificates/a.dsc", std::string("\0\xff", 2));
}

std::string faultName(Call call, int error, int nth = 1) {
    return fault::nameOf(call) + std::string(" ") + strerrorname_np(error) + " at call " +
           std::to_string(nth);
}

// How many descriptors the process may have while this lives.
class OpenFileLimit {
public:
    explicit OpenFileLimit(rlim_t limit) {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before_));
        struct rlimit wanted = before_;
        wanted.rlim_cur = std::min(before_.rlim_max, limit);
        EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &wanted));
    }
    OpenFileLimit(const OpenFileLimit&) = delete;
    OpenFileLimit& operator=(const OpenFileLimit&) = delete;
    ~OpenFileLimit() { EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before_)); }

private:
    struct rlimit before_ {};
};

// Runs `operation` with its first, second, ... allocation failing, once and from
// then on, until none is left to fail. Returns how many failed.
int failEveryAllocation(const std::function<void()>& prepare,
                        const std::function<Status()>& operation,
                        const std::function<void(Status, bool hit)>& check) {
    int failed = 0;
    for (const auto mode : {FailingAllocation::Mode::kOnce, FailingAllocation::Mode::kFromThenOn}) {
        bool hit = true;
        for (long nth = 1; hit; ++nth) {
            SCOPED_TRACE(nth);
            prepare();
            const std::size_t handles = openHandles().size();
            FailingAllocation fault(nth, mode);
            const Status status = operation();
            hit = fault.lift();
            check(status, hit);
            EXPECT_EQ(handles, openHandles().size());
            failed += hit ? 1 : 0;
        }
    }
    return failed;
}

// Walks a list to its end; `end` is the status that ended it.
Entries walk(FileList& list, Status& end) {
    Entries entries;
    for (end = list.readFirst(); end == kOk; end = list.readNext()) {
        entries[list.getName()] = list.isFolder();
    }
    return entries;
}

TEST(FileListTest, NewOneIsOnTheCurrentFolderAndClosed) {
    const FileList list;
    EXPECT_STREQ(".", list.getRootFolder());
    EXPECT_EQ(nullptr, list.getName());
    EXPECT_EQ(0, list.isFolder());
}

TEST(FileListTest, NextBeforeFirstIsClosed) {
    FileList list;
    EXPECT_EQ(35U, list.readNext());
}

TEST(FileListTest, NullAndEmptyRootListTheCurrentFolder) {
    const TempWorkingDir dir;
    writeFile("a", "");
    for (const char* const root : {static_cast<const char*>(nullptr), ""}) {
        FileList list;
        ASSERT_EQ(0U, list.setRootFolder("/"));
        EXPECT_STREQ("/", list.getRootFolder());
        ASSERT_EQ(0U, list.setRootFolder(root));
        EXPECT_STREQ(".", list.getRootFolder());
        Status end = kOk;
        EXPECT_EQ((Entries{{".", 1}, {"..", 1}, {"a", 0}}), walk(list, end));
        EXPECT_EQ(36U, end);
    }
}

TEST(FileListTest, TellsFoldersFromAllElseWithoutFollowingLinks) {
    const TempDir dir;
    makeFolder(dir / "folder");
    writeFile(dir / "file", "");
    ASSERT_EQ(0, ::symlink("folder", (dir / "link").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (dir / "dangling").c_str()));
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    const Entries expected{{".", 1},    {"..", 1},       {"folder", 1}, {"file", 0},
                           {"link", 0}, {"dangling", 0}, {"fifo", 0}};
    FileList list;
    ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
    Status end = kOk;
    {
        const fault::Recorder recorder({Call::kLstat});
        EXPECT_EQ(expected, walk(list, end));
        EXPECT_EQ(kEnd, end);
        EXPECT_THAT(recorder.lines(), IsEmpty());  // the listing itself tells
    }
    const fault::UntypedEntries untyped;
    const fault::Recorder recorder({Call::kLstat});
    EXPECT_EQ(expected, walk(list, end));
    EXPECT_EQ(kEnd, end);
    EXPECT_EQ(expected.size(), recorder.events().size());
}

TEST(FileListTest, ListsAfreshAndStaysOpenAtItsEnd) {
    const TempDir dir;
    FileList list;
    ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
    Status end = kOk;
    EXPECT_EQ(2U, walk(list, end).size());
    EXPECT_EQ(nullptr, list.getName());
    EXPECT_EQ(36U, list.readNext());
    EXPECT_EQ(36U, list.readNext());
    EXPECT_THAT(openHandles(), ElementsAre(dir.path()));
    writeFile(dir / "new", "");
    const fault::Recorder recorder({Call::kOpendir, Call::kClosedir});
    EXPECT_EQ(3U, walk(list, end).size());
    EXPECT_THAT(openHandles(), ElementsAre(dir.path()));
    EXPECT_THAT(recorder.lines(), ElementsAre("closedir " + dir.path(), "opendir " + dir.path()));
}

TEST(FileListTest, DestructorCloses) {
    {
        FileList list;
        ASSERT_EQ(kOk, list.readFirst());
        EXPECT_THAT(openHandles(), ElementsAre("."));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

// A removed folder that is still somebody's current one has not even ".".
TEST(FileListTest, FolderWithoutEntriesIsAtItsEndAtOnce) {
    const TempDir dir;
    makeFolder(dir / "gone");
    const support::WorkingDir inside(dir / "gone");
    ASSERT_EQ(0, ::rmdir((dir / "gone").c_str()));
    FileList list;
    EXPECT_EQ(36U, list.readFirst());
}

TEST(FileListTest, FolderThatCannotBeOpenedLeavesNoneOpen) {
    const TempDir dir;
    writeFile(dir / "file", "");
    FileList list;
    for (const std::string& path : {dir / "absent", dir / "file"}) {
        SCOPED_TRACE(path);
        ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
        ASSERT_EQ(kOk, list.readFirst());
        ASSERT_EQ(kOk, list.setRootFolder(path.c_str()));
        EXPECT_EQ(9U, list.readFirst());
        EXPECT_EQ(nullptr, list.getName());
        EXPECT_EQ(35U, list.readNext());
        EXPECT_THAT(openHandles(), IsEmpty());
    }
}

TEST(FileListTest, FailuresOfTheSystemAreNine) {
    const TempDir dir;
    for (const Call call : {Call::kOpendir, Call::kReaddir, Call::kLstat}) {
        for (const int error : fault::errnosOf(call)) {
            SCOPED_TRACE(faultName(call, error));
            const fault::UntypedEntries untyped;
            FileList list;
            ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
            FailingCall fault(1, error, Mode::kOnce, {call});
            const Status status = list.readFirst();
            EXPECT_TRUE(fault.lift());
            EXPECT_EQ(error == EINTR ? kOk : 9U, status);
            Status end = kOk;
            EXPECT_EQ(2U, walk(list, end).size());  // it works again
            EXPECT_EQ(kEnd, end);
        }
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

// A failure that was noted elsewhere before, with the same errno, must not make
// a read error look like the end.
TEST(FileListTest, StaleErrnoDoesNotHideAReadError) {
    const TempDir dir;
    FileList list;
    ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
    ASSERT_EQ(kOk, list.readFirst());
    const FailingCall fault(1, EIO, Mode::kOnce, {Call::kReaddir});
    errno = EIO;
    EXPECT_EQ(9U, list.readNext());
}

TEST(FileListTest, EntryThatCannotBeExaminedHasNoName) {
    const TempDir dir;
    const fault::UntypedEntries untyped;
    FileList list;
    ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
    ASSERT_EQ(kOk, list.readFirst());
    const FailingCall fault(1, EIO, Mode::kOnce, {Call::kLstat});
    EXPECT_EQ(9U, list.readNext());
    EXPECT_EQ(nullptr, list.getName());
    EXPECT_EQ(0, list.isFolder());
    EXPECT_EQ(36U, list.readNext());
}

TEST(FileListTest, MemoryThatRunsOutIsAStatus) {
    const TempDir dir;
    const fault::UntypedEntries untyped;
    FileList list;
    Status status = kOk;
    {
        const FailingAllocation fault(1);
        status = list.setRootFolder(dir.path().c_str());
    }
    EXPECT_EQ(1U, status);
    EXPECT_STREQ(".", list.getRootFolder());
    ASSERT_EQ(kOk, list.setRootFolder(dir.path().c_str()));
    {
        const FailingAllocation fault(1);
        status = list.readFirst();
    }
    EXPECT_EQ(1U, status);
    EXPECT_EQ(kOk, list.readFirst());
}

TEST(FileListTest, FieldsAreWhereOtherModulesLookForThem) {
    struct Fields {  // after the pointer that polymorphic objects begin with
        std::string root;
        std::int32_t folder;
        const DIR* stream;
        const dirent* entry;
    };
    EXPECT_EQ(sizeof(void*) + sizeof(Fields), sizeof(FileList));
    FileList list;
    ASSERT_EQ(kOk, list.setRootFolder("/"));
    ASSERT_EQ(kOk, list.readFirst());
    const auto& fields =
        *reinterpret_cast<const Fields*>(reinterpret_cast<const char*>(&list) + sizeof(void*));
    EXPECT_EQ("/", fields.root);
    EXPECT_EQ(1, fields.folder);
    EXPECT_NE(nullptr, fields.stream);
    EXPECT_EQ(list.getName(), fields.entry->d_name);
}

TEST(CopyFileTest, CopiesEveryByte) {
    const TempDir dir;
    std::string bytes;
    for (unsigned i = 0; i < 300000; ++i) {
        bytes += static_cast<char>((i * 7919U >> 3) & 0x7fU);
    }
    for (const std::size_t size :
         std::initializer_list<std::size_t>{0, 1, 4095, 4096, 4097, 16384, 16385, 300000}) {
        SCOPED_TRACE(size);
        writeFile(dir / "from", bytes.substr(0, size));
        writeFile(dir / "to", std::string(400000, 'x'));  // is truncated
        EXPECT_EQ(0U, copyFile((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_EQ(bytes.substr(0, size), readFile(dir / "to"));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(CopyFileTest, EmptyFileMakesAnEmptyTarget) {
    const TempDir dir;
    writeFile(dir / "from", "");
    EXPECT_EQ(0U, copyFile((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ((Tree{{"from", ""}, {"to", ""}}), tree(dir.path()));
}

TEST(CopyFileTest, NewTargetHasTheModeThatTheUmaskLeaves) {
    const TempDir dir;
    writeFile(dir / "from", "x");
    ASSERT_EQ(0, ::chmod((dir / "from").c_str(), 0400));
    const mode_t before = ::umask(027);
    EXPECT_EQ(kOk, copyFile((dir / "from").c_str(), (dir / "to").c_str()));
    ::umask(before);
    EXPECT_EQ(0640U, modeOf(dir / "to"));
}

TEST(CopyFileTest, SourceThatIsNoFileLeavesTheTargetAlone) {
    const TempDir dir;
    makeFolder(dir / "folder");
    ASSERT_EQ(0, ::symlink("folder", (dir / "folder link").c_str()));
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    for (const std::string& from : {dir / "absent", dir / "folder", dir / "folder link",
                                    dir / "fifo", std::string("/dev/zero")}) {
        SCOPED_TRACE(from);
        writeFile(dir / "to", "old");
        EXPECT_EQ(9U, copyFile(from.c_str(), (dir / "to").c_str()));
        EXPECT_EQ("old", readFile(dir / "to"));
        EXPECT_EQ(9U, copyFile(from.c_str(), (dir / "new").c_str()));
        EXPECT_EQ(0U, tree(dir.path()).count("new"));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(CopyFileTest, LinkIsCopiedAsTheFileItLeadsTo) {
    const TempDir dir;
    writeFile(dir / "file", "bytes");
    ASSERT_EQ(0, ::symlink("file", (dir / "link").c_str()));
    EXPECT_EQ(0U, copyFile((dir / "link").c_str(), (dir / "to").c_str()));
    EXPECT_EQ("bytes", tree(dir.path())["to"]);
}

TEST(CopyFileTest, TargetThatCannotBeOpenedIsNineAndStays) {
    const TempDir dir;
    writeFile(dir / "from", "x");
    makeFolder(dir / "folder");
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    const Tree before = tree(dir.path());
    for (const char* const name : {"folder", "no/such/folder", "fifo"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(9U, copyFile((dir / "from").c_str(), (dir / name).c_str()));
        EXPECT_EQ(before, tree(dir.path()));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(CopyFileTest, TargetWithoutRoomIsDeleted) {
    const TempDir dir;
    writeFile(dir / "from", "x");
    ASSERT_EQ(0, ::symlink("/dev/full", (dir / "to").c_str()));
    EXPECT_EQ(9U, copyFile((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ((Tree{{"from", "x"}}), tree(dir.path()));
}

// Each call fails in turn, with every errno that it can have.
void failEveryCallOfCopyFile(Call call, int error, Mode mode) {
    const std::string bytes(40000, 'b');
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
        SCOPED_TRACE(faultName(call, error, nth));
        const TempDir dir;
        writeFile(dir / "from", bytes);
        FailingCall fault(nth, error, mode, {call});
        const Status status = copyFile((dir / "from").c_str(), (dir / "to").c_str());
        hit = fault.lift();
        EXPECT_THAT(openHandles(), IsEmpty());
        if (status == kOk) {
            // The close of the source, the last of all, has nothing to say.
            EXPECT_TRUE(!hit || error == EINTR || (call == Call::kClose && nth == 2));
            EXPECT_EQ((Tree{{"from", bytes}, {"to", bytes}}), tree(dir.path()));
        } else {
            EXPECT_TRUE(hit);
            EXPECT_EQ(9U, status);
            EXPECT_EQ((Tree{{"from", bytes}}), tree(dir.path()));
        }
    }
}

TEST(CopyFileTest, FailureOfAnyCallIsNineOrTheCopyIsWhole) {
    for (const Call call : {Call::kOpen, Call::kFstat, Call::kRead, Call::kWrite, Call::kClose}) {
        for (const int error : fault::errnosOf(call)) {
            failEveryCallOfCopyFile(call, error, Mode::kOnce);
            failEveryCallOfCopyFile(call, error, Mode::kFromThenOn);
        }
    }
}

TEST(CopyFileTest, FailingCloseOfTheTargetIsAFailure) {
    const TempDir dir;
    writeFile(dir / "from", "x");
    const FailingCall fault(1, EDQUOT, Mode::kOnce, {Call::kClose});
    EXPECT_EQ(9U, copyFile((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ((Tree{{"from", "x"}}), tree(dir.path()));
}

TEST(CopyFileTest, ShortTransfersAreContinuedAndStalledOnesFail) {
    const std::string bytes(40000, 'b');
    const struct {
        const char* name;
        Calls calls;
        std::size_t atMost;
        Status status;
    } rows[] = {
        {"reads fall short", {Call::kRead}, SIZE_MAX, kOk},
        {"writes fall short", {Call::kWrite}, SIZE_MAX, kOk},
        {"both fall short", {Call::kRead, Call::kWrite}, 1000, kOk},
        {"a write stores nothing", {Call::kWrite}, 0, kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        writeFile(dir / "from", bytes);
        ShortCall fault(1, Mode::kFromThenOn, row.atMost, row.calls);
        EXPECT_EQ(row.status, copyFile((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_TRUE(fault.lift());
        const Tree expected =
            row.status == kOk ? Tree{{"from", bytes}, {"to", bytes}} : Tree{{"from", bytes}};
        EXPECT_EQ(expected, tree(dir.path()));
    }
}

Status duplicateAll(const char* from, const char* to) {
    return duplicateFolder(from, to, [](std::string_view name) { return name != "own"; });
}

const struct FolderCopy {
    const char* name;
    Status (*copy)(const char*, const char*);
    bool whole;  // fails rather than miss anything, or meet what is there
} kFolderCopies[] = {{"copyFolder", copyFolder, false},
                     {"copyFolder_r", copyFolder_r, false},
                     {"duplicateFolder", duplicateAll, true}};

TEST(CopyFolderTest, NullArgumentIsInvalidAndTouchesNothing) {
    const TempWorkingDir dir;
    for (auto* const copy : {copyFolder, duplicateAll}) {
        EXPECT_EQ(4U, copy(nullptr, "to"));
        EXPECT_EQ(4U, copy(".", nullptr));
        EXPECT_EQ(4U, copy(nullptr, nullptr));
    }
    EXPECT_THAT(tree("."), IsEmpty());
}

TEST(CopyFolderTest, CopiesTheWholeTree) {
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        makeSample(dir / "from");
        EXPECT_EQ(0U, row.copy((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_EQ(7U, tree(dir / "to").size());
        EXPECT_EQ(tree(dir / "from"), tree(dir / "to"));
        EXPECT_THAT(openHandles(), IsEmpty());
    }
}

TEST(CopyFolderTest, CopiesTheWholeTreeWhereListingsTellNoTypes) {
    const TempDir dir;
    makeSample(dir / "from");
    const fault::UntypedEntries untyped;
    EXPECT_EQ(0U, copyFolder((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ(tree(dir / "from"), tree(dir / "to"));
}

TEST(CopyFolderTest, CreatedFoldersHaveMode0750) {
    const TempDir dir;
    makeFolder(dir / "from", 0777);
    makeFolder(dir / "from/sub", 0700);
    const mode_t before = ::umask(0);
    EXPECT_EQ(kOk, copyFolder((dir / "from").c_str(), (dir / "to").c_str()));
    ::umask(before);
    EXPECT_EQ(0750U, modeOf(dir / "to"));
    EXPECT_EQ(0750U, modeOf(dir / "to/sub"));
}

TEST(CopyFolderTest, ExistingTargetKeepsItsOtherContentsOrAll) {
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        makeSample(dir / "from");
        makeFolder(dir / "to", 0700);
        makeFolder(dir / "to/keys");
        writeFile(dir / "to/keys/other", "kept");
        writeFile(dir / "to/key.dsc", "overwritten, and longer than what comes");
        Tree expected = tree(row.whole ? dir / "to" : dir / "from");
        expected["keys/other"] = "kept";
        EXPECT_EQ(row.whole ? 9U : 0U, row.copy((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_EQ(expected, tree(dir / "to"));
        EXPECT_EQ(0700U, modeOf(dir / "to"));
    }
}

TEST(CopyFolderTest, SourceThatCannotBeListedCountsAsEmptyUnlessAllIsWanted) {
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        writeFile(dir / "file", "");
        EXPECT_EQ(row.whole ? 9U : 0U, row.copy((dir / "absent").c_str(), (dir / "1").c_str()));
        EXPECT_EQ(row.whole ? 9U : 0U, row.copy((dir / "file").c_str(), (dir / "2").c_str()));
        EXPECT_EQ((Tree{{"1", "<folder>"}, {"2", "<folder>"}, {"file", ""}}), tree(dir.path()));
    }
}

TEST(CopyFolderTest, ListingThatBreaksOffCountsAsCompleteUnlessAllIsWanted) {
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        makeFolder(dir / "from");
        writeFile(dir / "from/a", "x");
        FailingCall fault(2, EIO, Mode::kFromThenOn, {Call::kReaddir});
        EXPECT_EQ(row.whole ? 9U : 0U, row.copy((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_TRUE(fault.lift());
    }
}

TEST(CopyFolderTest, FileThatEndsBeforeItsSizeCountsAsCompleteUnlessAllIsWanted) {
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        makeFolder(dir / "from");
        writeFile(dir / "from/a", std::string(40000, 'b'));
        const fault::NoLinks copied;
        ShortCall fault(2, Mode::kOnce, 0, {Call::kRead});
        EXPECT_EQ(row.whole ? 9U : 0U, row.copy((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_TRUE(fault.lift());
    }
}

// FileList would list the current folder for "", under names that begin at "/".
TEST(CopyFolderTest, EmptyPathNamesNoFolder) {
    const TempWorkingDir dir;
    writeFile("a", "x");
    EXPECT_EQ(0U, copyFolder("", "to"));
    EXPECT_THAT(tree("to"), IsEmpty());
    EXPECT_EQ(9U, duplicateAll("", "to"));
    EXPECT_EQ(9U, copyFolder(".", ""));
}

TEST(CopyFolderTest, TargetThatCannotBeCreatedIsNine) {
    const TempDir dir;
    makeSample(dir / "from");
    writeFile(dir / "file", "kept");
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(9U, row.copy((dir / "from").c_str(), (dir / "no/such/folder").c_str()));
        EXPECT_EQ(9U, row.copy((dir / "from").c_str(), (dir / "file").c_str()));
        EXPECT_EQ("kept", readFile(dir / "file"));
        for (const int error : fault::errnosOf(Call::kMkdir)) {
            SCOPED_TRACE(faultName(Call::kMkdir, error));
            const TempDir other;
            FailingCall fault(3, error, Mode::kOnce, {Call::kMkdir});
            EXPECT_EQ(9U, row.copy((dir / "from").c_str(), (other / "to").c_str()));
            EXPECT_TRUE(fault.lift());
            EXPECT_THAT(openHandles(), IsEmpty());
        }
    }
}

TEST(CopyFolderTest, LinksAreFollowedToFilesAndFailForFolders) {
    const TempDir dir;
    writeFile(dir / "file", "bytes");
    makeFolder(dir / "folder");
    makeFolder(dir / "from");
    ASSERT_EQ(0, ::symlink("../file", (dir / "from/link").c_str()));
    EXPECT_EQ(0U, copyFolder((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ((Tree{{"link", "bytes"}}), tree(dir / "to"));
    for (const char* const target : {"../folder", "..", "nowhere"}) {
        SCOPED_TRACE(target);
        ASSERT_EQ(0, ::unlink((dir / "from/link").c_str()));
        ASSERT_EQ(0, ::symlink(target, (dir / "from/link").c_str()));
        EXPECT_EQ(9U, copyFolder((dir / "from").c_str(), (dir / "to").c_str()));
    }
}

ino_t inodeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
    return status.st_ino;
}

TEST(DuplicateFolderTest, RegularFilesGetASecondName) {
    const TempDir dir;
    makeSample(dir / "from");
    writeFile(dir / "file", "bytes");
    ASSERT_EQ(0, ::symlink("../file", (dir / "from/link").c_str()));
    writeFile(dir / "from/own", "not replaced");
    const fault::Recorder copied({Call::kWrite});
    EXPECT_EQ(kOk, duplicateAll((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ(inodeOf(dir / "from/key.dsc"), inodeOf(dir / "to/key.dsc"));
    EXPECT_THAT(copied.lines(), UnorderedElementsAre("write " + (dir / "to/link") + " 5",
                                                     "write " + (dir / "to/own") + " 12"));
    EXPECT_EQ("bytes", readFile(dir / "to/link"));
}

// For whatever reason a name is refused, and where listings do not tell what it would be of.
TEST(DuplicateFolderTest, WhatCannotHaveOneIsCopied) {
    const TempDir dir;
    makeSample(dir / "from");
    const auto expectCopied = [&] {
        const TempDir other;
        EXPECT_EQ(kOk, duplicateAll((dir / "from").c_str(), (other / "to").c_str()));
        EXPECT_EQ(tree(dir / "from"), tree(other / "to"));
        EXPECT_NE(inodeOf(dir / "from/key.dsc"), inodeOf(other / "to/key.dsc"));
    };
    for (const int error : fault::errnosOf(Call::kLink)) {
        SCOPED_TRACE(faultName(Call::kLink, error));
        FailingCall fault(1, error, Mode::kFromThenOn, {Call::kLink});
        expectCopied();
        EXPECT_TRUE(fault.lift());
    }
    const fault::UntypedEntries untyped;
    expectCopied();
}

// The name may be that of the same file by now: overwriting it would empty both.
TEST(DuplicateFolderTest, NoNameIsTaken) {
    const TempDir dir;
    makeFolder(dir / "from");
    writeFile(dir / "from/a", "bytes");
    for (const bool links : {true, false}) {
        SCOPED_TRACE(links);
        const auto noLinks = links ? nullptr : std::make_unique<fault::NoLinks>();
        const fault::Meanwhile takes(
            1, [&] { ASSERT_EQ(0, ::link((dir / "from/a").c_str(), (dir / "to/a").c_str())); },
            {Call::kLink});
        EXPECT_EQ(kIo, duplicateAll((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_EQ("bytes", readFile(dir / "from/a"));
        EXPECT_EQ("bytes", readFile(dir / "to/a"));
        EXPECT_EQ(kOk, removeFolder((dir / "to").c_str()));
    }
}

TEST(CopyFolderTest, SpecialFileFailsInsteadOfWaiting) {
    const TempDir dir;
    makeFolder(dir / "from");
    ASSERT_EQ(0, ::mkfifo((dir / "from/fifo").c_str(), 0600));
    EXPECT_EQ(9U, copyFolder((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_THAT(tree(dir / "to"), IsEmpty());
}

bool listingStruck(const fault::Recorder& recorder) {
    const std::vector<fault::Event> events = recorder.events();
    return std::any_of(events.begin(), events.end(),
                       [](const fault::Event& event) { return event.error == EIO; });
}

// Copies a sample folder while its nth call fails; false when it has no nth call.
bool failCallOfFolderCopy(const FolderCopy& row, int nth, Mode mode) {
    SCOPED_TRACE(std::string(row.name) + ", failing call " + std::to_string(nth));
    const TempDir dir;
    makeSample(dir / "from");
    const fault::UntypedEntries untyped;
    const fault::Recorder listings({Call::kOpendir, Call::kReaddir, Call::kLstat});
    FailingCall fault(nth, EIO, mode);
    const Status status = row.copy((dir / "from").c_str(), (dir / "to").c_str());
    const bool hit = fault.lift();

    EXPECT_THAT(openHandles(), IsEmpty());
    EXPECT_TRUE(status == kOk || (hit && status == kIo));
    const Tree from = tree(dir / "from");
    const Tree to = tree(dir / "to");
    if (mode == Mode::kOnce) {  // a lasting failure keeps a broken copy from being deleted
        EXPECT_THAT(to, IsSubsetOf(from));
    }
    if (row.whole && listingStruck(listings)) {
        EXPECT_EQ(kIo, status);
    }
    if (status == kOk && (row.whole || !listingStruck(listings))) {
        EXPECT_EQ(from, to);
    }
    return hit;
}

TEST(CopyFolderTest, FailureOfAnyCallIsToldAndOnlyLostListingsAreForgiven) {
    int struck = 0;
    for (const FolderCopy& row : {kFolderCopies[0], kFolderCopies[2]}) {
        for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
            for (int nth = 1; failCallOfFolderCopy(row, nth, mode); ++nth) {
                ++struck;
            }
        }
    }
    EXPECT_GT(struck, 300);
    RecordProperty("calls_failed", struck);
}

TEST(CopyFolderTest, MemoryThatRunsOutIsOne) {
    for (const auto& row : kFolderCopies) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        makeSample(dir / "from");
        const fault::UntypedEntries untyped;
        const std::string from = dir / "from";
        const std::string to = dir / "to";
        const int failed =
            failEveryAllocation([&] { std::filesystem::remove_all(to); },
                                [&] { return row.copy(from.c_str(), to.c_str()); },
                                [](Status status, bool hit) { EXPECT_EQ(hit ? 1U : 0U, status); });
        EXPECT_EQ(tree(from), tree(to));
        EXPECT_GT(failed, 20);
    }
}

TEST(ClearFolderTest, EmptiesAndKeepsTheFolder) {
    const TempDir dir;
    makeSample(dir / "db");
    writeFile(dir / "other", "kept");
    clearFolder((dir / "db").c_str());
    EXPECT_EQ((Tree{{"db", "<folder>"}, {"other", "kept"}}), tree(dir.path()));
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(ClearFolderTest, WhatCannotBeListedIsLeft) {
    const TempDir dir;
    makeSample(dir / "db");
    const Tree before = tree(dir.path());
    clearFolder((dir / "absent").c_str());
    clearFolder((dir / "db/key.dsc").c_str());
    {
        const FailingCall fault(1, EIO);
        clearFolder((dir / "db").c_str());
    }
    EXPECT_EQ(before, tree(dir.path()));
}

TEST(ClearFolderTest, EmptyPathNamesNoFolder) {
    const TempWorkingDir dir;
    writeFile("a", "x");
    const fault::Recorder recorder;
    clearFolder("");
    EXPECT_THAT(recorder.lines(), IsEmpty());
    EXPECT_EQ(1U, tree(".").size());
}

TEST(ClearFolderTest, OneFailureDoesNotStopTheRest) {
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        const TempDir dir;
        makeFolder(dir / "db");
        writeFile(dir / "db/a", "");
        writeFile(dir / "db/b", "");
        makeFolder(dir / "db/c");
        FailingCall fault(nth, EIO, Mode::kOnce, {Call::kRemove, Call::kRmdir});
        clearFolder((dir / "db").c_str());
        EXPECT_TRUE(fault.lift());
        EXPECT_EQ(1U, tree(dir / "db").size());
    }
}

TEST(ClearFolderTest, LinksAreDeletedAndNotFollowed) {
    const TempDir dir;
    makeFolder(dir / "db");
    makeFolder(dir / "outside");
    writeFile(dir / "outside/a", "kept");
    ASSERT_EQ(0, ::symlink("../outside", (dir / "db/link").c_str()));
    clearFolder((dir / "db").c_str());
    EXPECT_EQ((Tree{{"db", "<folder>"}, {"outside", "<folder>"}, {"outside/a", "kept"}}),
              tree(dir.path()));
}

// With slashes behind it the system would follow it.
TEST(ClearFolderTest, PathThatIsALinkIsDeletedAndNotFollowed) {
    for (const char* const path : {"link", "link/", "link//"}) {
        SCOPED_TRACE(path);
        const TempDir dir;
        makeFolder(dir / "outside");
        writeFile(dir / "outside/a", "kept");
        ASSERT_EQ(0, ::symlink("outside", (dir / "link").c_str()));
        clearFolder((dir / path).c_str());
        EXPECT_EQ((Tree{{"outside", "<folder>"}, {"outside/a", "kept"}}), tree(dir.path()));
    }
}

// A link that cannot be told from a folder is not followed.
TEST(ClearFolderTest, PathThatCannotBeExaminedIsLeft) {
    const TempDir dir;
    makeSample(dir / "db");
    ASSERT_EQ(0, ::symlink("db", (dir / "link").c_str()));
    const Tree before = tree(dir.path());
    for (const int error : fault::errnosOf(Call::kLstat)) {
        SCOPED_TRACE(faultName(Call::kLstat, error));
        const FailingCall fault(1, error, Mode::kOnce, {Call::kLstat});
        clearFolder((dir / "link").c_str());
        EXPECT_EQ(before, tree(dir.path()));
    }
}

TEST(RemoveFolderTest, NullIsInvalid) {
    EXPECT_EQ(4U, removeFolder(nullptr));
}

TEST(RemoveFolderTest, RemovesAllThereIs) {
    const TempDir dir;
    makeSample(dir / "db");
    ASSERT_EQ(0, ::mkfifo((dir / "db/fifo").c_str(), 0600));
    ASSERT_EQ(0, ::symlink("nowhere", (dir / "db/link").c_str()));
    EXPECT_EQ(0U, removeFolder((dir / "db").c_str()));
    EXPECT_THAT(tree(dir.path()), IsEmpty());
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(RemoveFolderTest, AbsentFolderIsASuccess) {
    const TempDir dir;
    EXPECT_EQ(0U, removeFolder((dir / "absent").c_str()));
    EXPECT_EQ(0U, removeFolder((dir / "no/such/folder").c_str()));
}

TEST(RemoveFolderTest, NameThatCannotExistIsASuccess) {
    const TempDir dir;
    ASSERT_EQ(0, ::symlink("loop", (dir / "loop").c_str()));
    EXPECT_EQ(0U, removeFolder((dir / std::string(300, 'n')).c_str()));
    EXPECT_EQ(0U, removeFolder((dir / std::string(300, 'n') + "/below").c_str()));
    EXPECT_EQ(0U, removeFolder((dir / std::string(5000, '/') + "x").c_str()));
    EXPECT_EQ(0U, removeFolder((dir / "loop/below").c_str()));
}

TEST(RemoveFolderTest, PathThatIsALinkGoesAndWhatItLeadsToStays) {
    for (const char* const target : {"outside", "outside/a", "nowhere", "link"}) {
        for (const char* const path : {"link", "link/"}) {
            SCOPED_TRACE(std::string(path) + " to " + target);
            const TempDir dir;
            makeFolder(dir / "outside");
            writeFile(dir / "outside/a", "kept");
            ASSERT_EQ(0, ::symlink(target, (dir / "link").c_str()));
            EXPECT_EQ(0U, removeFolder((dir / path).c_str()));
            EXPECT_EQ((Tree{{"outside", "<folder>"}, {"outside/a", "kept"}}), tree(dir.path()));
        }
    }
}

// Also one that leads nowhere, for which access() finds nothing.
TEST(RemoveFolderTest, LinkThatCannotBeDeletedIsNine) {
    for (const char* const target : {"outside", "nowhere", "link"}) {
        SCOPED_TRACE(target);
        const TempDir dir;
        makeFolder(dir / "outside");
        ASSERT_EQ(0, ::symlink(target, (dir / "link").c_str()));
        FailingCall fault(1, EACCES, Mode::kOnce, {Call::kRemove});
        EXPECT_EQ(9U, removeFolder((dir / "link").c_str()));
        EXPECT_TRUE(fault.lift());
        EXPECT_EQ((Tree{{"link", std::string("-> ") + target}, {"outside", "<folder>"}}),
                  tree(dir.path()));
    }
}

TEST(RemoveFolderTest, WhatIsNoFolderStaysAndIsNine) {
    const TempDir dir;
    writeFile(dir / "file", "x");
    EXPECT_EQ(9U, removeFolder((dir / "file").c_str()));
    EXPECT_EQ((Tree{{"file", "x"}}), tree(dir.path()));
}

TEST(RemoveFolderTest, SuccessIsSaidOnlyWhenNothingIsLeft) {
    int struck = 0;
    for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
        bool hit = true;
        for (int nth = 1; hit; ++nth) {
            SCOPED_TRACE(nth);
            const TempDir dir;
            makeSample(dir / "db");
            const fault::UntypedEntries untyped;
            FailingCall fault(nth, EIO, mode);
            const Status status = removeFolder((dir / "db").c_str());
            hit = fault.lift();
            struck += hit ? 1 : 0;
            EXPECT_THAT(openHandles(), IsEmpty());
            if (status == kOk) {
                EXPECT_THAT(tree(dir.path()), IsEmpty());
            } else {
                EXPECT_EQ(9U, status);
                EXPECT_TRUE(hit);
            }
            EXPECT_EQ(0U, removeFolder((dir / "db").c_str()));  // the fault is gone
        }
    }
    EXPECT_GT(struck, 80);
}

TEST(RemoveFolderTest, FolderThatCannotBeLookedForIsNotTakenForRemoved) {
    const TempDir dir;
    for (const int error : fault::errnosOf(Call::kAccess)) {
        SCOPED_TRACE(faultName(Call::kAccess, error));
        const FailingCall fault(1, error, Mode::kOnce, {Call::kAccess});
        EXPECT_EQ(9U, removeFolder((dir / "absent").c_str()));
    }
}

// With only "." and ".." left to be looked at, the folder can be removed anyway.
TEST(RemoveFolderTest, MemoryThatRunsOutIsNineOrTheFolderIsGone) {
    const TempDir dir;
    const std::string folder = dir / "db";
    const fault::UntypedEntries untyped;
    const int failed = failEveryAllocation(
        [&] {
            EXPECT_EQ(kOk, removeFolder(folder.c_str()));
            makeSample(folder);
        },
        [&] { return removeFolder(folder.c_str()); },
        [&](Status status, bool hit) {
            EXPECT_TRUE(status == kOk || (hit && status == 9U)) << status;
            EXPECT_EQ(status == kOk, tree(dir.path()).empty());
        });
    EXPECT_THAT(tree(dir.path()), IsEmpty());
    EXPECT_GT(failed, 10);
}

// Folders in folders, deeper than any path can name: made and unmade by moving.
class DeepTree {
public:
    explicit DeepTree(const std::string& root) : root_(root) {
        makeFolder(root);
        const support::WorkingDir start(root);
        for (int level = 0; level < kLevels; ++level) {
            EXPECT_EQ(0, ::mkdir("d", 0700));
            EXPECT_EQ(0, ::chdir("d"));
        }
    }
    DeepTree(const DeepTree&) = delete;
    DeepTree& operator=(const DeepTree&) = delete;
    ~DeepTree() {
        const support::WorkingDir start(root_);
        while (::chdir("d") == 0) {
        }
        while (::chdir("..") == 0 && ::rmdir("d") == 0) {
        }
    }

private:
    static constexpr int kLevels = PATH_MAX / 2 + 10;
    const std::string root_;
};

TEST(DeepTreeTest, FolderDeeperThanAPathCanNameFailsInOrder) {
    const TempDir dir;
    const OpenFileLimit enough(PATH_MAX);  // a stream for each level
    const DeepTree from(dir / "from");
    EXPECT_EQ(9U, duplicateAll((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ(9U, removeFolder((dir / "from").c_str()));
    EXPECT_EQ(0U, removeFolder((dir / "to").c_str()));  // every path of the copy has been named
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(DeepTreeTest, CopyOfAFolderIntoItselfEnds) {
    const TempDir dir;
    makeSample(dir / "db");
    {
        const OpenFileLimit few(64);
        EXPECT_EQ(9U, duplicateAll((dir / "db").c_str(), (dir / "db/copy").c_str()));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
    EXPECT_EQ(0U, removeFolder((dir / "db").c_str()));
}

TEST(GetFullPathTest, ResolvesWhatExists) {
    const TempWorkingDir dir;
    makeFolder("folder");
    writeFile("folder/file", "");
    ASSERT_EQ(0, ::symlink("folder", "link"));
    EXPECT_EQ(dir / "folder/file", getFullPath("./link/../folder//file"));
    EXPECT_EQ(dir / "folder/file", getFullPath("link/file"));
    EXPECT_EQ(dir.path(), getFullPath("."));
    EXPECT_EQ("/", getFullPath("/"));
}

TEST(GetFullPathTest, PathOfNothingIsReturnedUnchanged) {
    const TempWorkingDir dir;
    writeFile("file", "");
    for (const std::string& path :
         {std::string("./absent"), std::string("absent/../x"), std::string("file/below"),
          std::string(), std::string(PATH_MAX + 10, 'x')}) {
        EXPECT_EQ(path, getFullPath(path.c_str()));
    }
    EXPECT_EQ("", getFullPath(nullptr));
}

TEST(GetFullPathTest, FailureOfAnyCallReturnsThePathUnchanged) {
    const TempWorkingDir dir;
    writeFile("file", "");
    for (const Call call : {Call::kRealpath, Call::kAccess}) {
        for (const int error : fault::errnosOf(call)) {
            SCOPED_TRACE(faultName(call, error));
            const FailingCall fault(1, error, Mode::kOnce, {call});
            EXPECT_EQ("./file", getFullPath("./file"));
        }
    }
}

TEST(GetFullPathTest, IsEmptyWhenMemoryRunsOut) {
    const TempWorkingDir dir;
    std::string path = "-";
    {
        const FailingAllocation fault(1);
        path = getFullPath(".");
    }
    EXPECT_EQ("", path);
}

}  // namespace
