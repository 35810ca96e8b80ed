// The faults themselves: a harness that does nothing would pass every test.
#include "tests/support/fs_fault.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "os/fs.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using fault::Calls;
using fault::FailingCall;
using fault::Mode;
using fault::Recorder;
using fault::ShortCall;
using support::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

// How the next calls of access() on an existing name end: their errno, 0 for success.
std::vector<int> accesses(int count) {
    std::vector<int> outcomes;
    for (int i = 0; i < count; ++i) {
        outcomes.push_back(os::access(".", F_OK) == 0 ? 0 : errno);
    }
    return outcomes;
}

TEST(FailingCallTest, StrikesAsPlanned) {
    const struct {
        const char* name;
        int nth;
        int error;
        Mode mode;
        std::vector<int> outcomes;
    } rows[] = {
        {"first", 1, EIO, Mode::kOnce, {EIO, 0, 0, 0}},
        {"third", 3, EIO, Mode::kOnce, {0, 0, EIO, 0}},
        {"from the second", 2, ENOSPC, Mode::kFromThenOn, {0, ENOSPC, ENOSPC, ENOSPC}},
        {"signals", 1, EINTR, Mode::kFromThenOn, {EINTR, 0, EINTR, 0}},
        {"later than the calls", 5, EIO, Mode::kOnce, {0, 0, 0, 0}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FailingCall fault(row.nth, row.error, row.mode);
        EXPECT_EQ(row.outcomes, accesses(4));
        EXPECT_EQ(row.nth <= 4, fault.hit());
        EXPECT_EQ(row.nth <= 4, fault.lift());
        EXPECT_EQ(row.nth <= 4, fault.lift());
        EXPECT_THAT(accesses(2), ElementsAre(0, 0));
    }
}

TEST(FailingCallTest, EndsWithItsObject) {
    { const FailingCall fault(1, EIO, Mode::kFromThenOn); }
    EXPECT_THAT(accesses(1), ElementsAre(0));
}

TEST(FailingCallTest, CountsOnlyTheKindsItIsAbout) {
    FailingCall fault(1, EIO, Mode::kOnce, {Call::kRmdir});
    EXPECT_THAT(accesses(2), ElementsAre(0, 0));
    EXPECT_EQ(-1, os::rmdir("never made"));
    EXPECT_EQ(EIO, errno);
    EXPECT_TRUE(fault.lift());
}

TEST(FailingCallTest, StrikesTheCallsOfAllThreads) {
    FailingCall fault(1, EIO);
    std::vector<int> outcomes;
    std::thread([&] { outcomes = accesses(1); }).join();
    EXPECT_THAT(outcomes, ElementsAre(EIO));
}

// Each kind of call, made once, and with success unless a plan says otherwise.
void callEverything(const std::string& base) {
    char buffer[4096];
    struct stat status {};
    const timespec times[2] = {{0, UTIME_OMIT}, {1, 2}};
    const std::string file = base + "/file";
    const std::string other = base + "/other";
    const std::string folder = base + "/folder";
    const int fd = os::open(file.c_str(), O_RDWR | O_CREAT, 0600);
    (void)os::write(fd, "x", 1);
    (void)os::read(fd, buffer, 1);
    (void)os::fstat(fd, &status);
    (void)os::fsync(fd);
    (void)os::syncfs(fd);
    (void)os::startWriteback(fd);
    (void)os::flock(fd, LOCK_EX | LOCK_NB);
    struct statfs system {};
    (void)os::fstatfs(fd, &system);
    (void)os::forgetPages(fd);
    (void)os::access(file.c_str(), F_OK);
    (void)os::lstat(file.c_str(), &status);
    (void)os::utimens(file.c_str(), times);
    (void)os::link(file.c_str(), (base + "/second").c_str());
    (void)::unlink((base + "/second").c_str());
    (void)os::rename(file.c_str(), other.c_str());
    (void)os::remove(other.c_str());
    (void)os::mkdir(folder.c_str(), 0700);
    DIR* const dir = os::opendir(folder.c_str());
    if (dir != nullptr) {
        (void)os::readdir(dir);
        (void)os::closedir(dir);
    }
    (void)os::rmdir(folder.c_str());
    (void)os::realpath(base.c_str(), buffer);
    (void)os::close(fd);
}

TEST(SeamTest, EveryKindIsCountedRecordedAndCanFail) {
    for (int kind = 0; kind < fault::kCallKinds; ++kind) {
        const Call call = static_cast<Call>(kind);
        SCOPED_TRACE(fault::nameOf(call));
        EXPECT_FALSE(fault::errnosOf(call).empty());
        const TempDir dir;
        const long before = fault::callCount({call});
        {
            const Recorder recorder({call});
            callEverything(dir.path());
            ASSERT_EQ(1U, recorder.events().size());
            EXPECT_EQ(0, recorder.events()[0].error);
        }
        EXPECT_EQ(before + 1, fault::callCount({call}));
        EXPECT_THAT(fault::openHandles(), IsEmpty());
        EXPECT_THAT(support::tree(dir.path()), IsEmpty());
        const Recorder recorder({call});
        FailingCall fault(1, EIO, Mode::kOnce, {call});
        callEverything(dir.path());
        EXPECT_TRUE(fault.lift());
        EXPECT_EQ(EIO, recorder.events()[0].error);
        EXPECT_TRUE(recorder.events()[0].struck);
        EXPECT_THAT(fault::openHandles(), IsEmpty());  // also after a close that failed
    }
}

TEST(SeamTest, FailedOpeningsOpenNothing) {
    const FailingCall fault(1, EMFILE, Mode::kFromThenOn);
    EXPECT_EQ(-1, os::open(".", O_RDONLY, 0));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_EQ(nullptr, os::opendir("."));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_THAT(fault::openHandles(), IsEmpty());
}

TEST(SeamTest, OpenHandlesAreListedUntilClosed) {
    const TempDir dir;
    const int fd = os::open((dir / "a").c_str(), O_WRONLY | O_CREAT, 0600);
    DIR* const stream = os::opendir(dir.path().c_str());
    EXPECT_THAT(fault::openHandles(), ElementsAre(dir.path(), dir / "a"));
    EXPECT_EQ(0, os::close(fd));
    EXPECT_EQ(0, os::closedir(stream));
    EXPECT_THAT(fault::openHandles(), IsEmpty());
}

TEST(ShortCallTest, MovesLessAndSkipsCallsItCannotShorten) {
    const TempDir dir;
    const int fd = os::open((dir / "a").c_str(), O_RDWR | O_CREAT, 0600);
    ShortCall fault(2);
    EXPECT_EQ(1, os::write(fd, "a", 1));  // not counted
    EXPECT_EQ(4, os::write(fd, "bcde", 4));
    EXPECT_EQ(2, os::write(fd, "fghi", 4));
    EXPECT_EQ(4, os::write(fd, "jklm", 4));
    EXPECT_TRUE(fault.lift());
    EXPECT_EQ("abcdefgjklm", support::readFile(dir / "a"));
    {
        const ShortCall nothing(1, Mode::kFromThenOn, 0);
        char byte = 0;
        EXPECT_EQ(0, os::write(fd, "x", 1));
        EXPECT_EQ(0, os::read(fd, &byte, 1));
    }
    EXPECT_EQ(0, os::close(fd));
}

TEST(UntypedEntriesTest, HidesTheTypeAndNothingElse) {
    const auto typeOfFirst = [] {
        DIR* const dir = os::opendir(".");
        const auto type = os::readdir(dir)->d_type;
        (void)os::closedir(dir);
        return type;
    };
    {
        const fault::UntypedEntries untyped;
        EXPECT_EQ(DT_UNKNOWN, typeOfFirst());
    }
    EXPECT_NE(DT_UNKNOWN, typeOfFirst());
}

TEST(TakenNamesTest, AreAsManyAsAskedFor) {
    const auto present = [] { return os::access("never made", F_OK) == 0; };
    fault::TakenNames taken(2);
    EXPECT_TRUE(present());
    EXPECT_TRUE(present());
    EXPECT_FALSE(present());
    EXPECT_TRUE(taken.lift());
    EXPECT_FALSE(present());
}

TEST(DyingCallTest, EndsTheChildBeforeTheCall) {
    const TempDir dir;
    const auto makeThree = [&] {
        for (const char* const name : {"1", "2", "3"}) {
            if (os::mkdir((dir / name).c_str(), 0700) != 0) {
                return 1;
            }
        }
        return 0;
    };
    EXPECT_EQ(fault::kDeath, fault::inChild([&] {
                  const fault::DyingCall fault(3);
                  return makeThree();
              }));
    EXPECT_EQ(2U, support::tree(dir.path()).size());
    EXPECT_EQ(1, fault::inChild(makeThree));
    EXPECT_EQ(128 + SIGKILL, fault::inChild([] { return ::raise(SIGKILL); }));
}

TEST(RecorderTest, LinesReadLikeTheDocumentedOrder) {
    const TempDir dir;
    const support::WorkingDir inside(dir.path());
    const Recorder recorder;
    const int fd = os::open("./x.$n$", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    EXPECT_EQ(5, os::write(fd, "hello", 5));
    EXPECT_EQ(0, os::fsync(fd));
    EXPECT_EQ(0, os::close(fd));
    EXPECT_EQ(0, os::rename("./x.$n$", "./x"));
    EXPECT_EQ(-1, os::remove("./absent"));
    EXPECT_THAT(
        recorder.lines(),
        ElementsAre("open ./x.$n$ wronly|creat|trunc", "write ./x.$n$ 5", "fsync ./x.$n$",
                    "close ./x.$n$", "rename ./x.$n$ ./x", "remove ./absent failed ENOENT"));
}

TEST(RecorderTest, EventsHoldWhatAStateIsRebuiltFrom) {
    const TempDir dir;
    const std::string path = dir / "a";
    const Recorder recorder(fault::kLastingCalls);
    int fd = os::open(path.c_str(), O_WRONLY | O_CREAT, 0640);
    EXPECT_EQ(3, os::write(fd, "abc", 3));
    EXPECT_EQ(0, os::access(path.c_str(), F_OK));  // changes nothing: not kept
    EXPECT_EQ(2, os::write(fd, "de", 2));
    EXPECT_EQ(0, os::close(fd));
    fd = os::open(path.c_str(), O_WRONLY | O_APPEND, 0);
    EXPECT_EQ(1, os::write(fd, "f", 1));
    EXPECT_EQ(0, os::close(fd));

    const std::vector<fault::Event> events = recorder.events();
    ASSERT_EQ(7U, events.size());
    EXPECT_EQ(0640U, events[0].mode);
    EXPECT_NE(0U, events[0].handle);
    EXPECT_EQ(events[0].handle, events[1].handle);
    EXPECT_EQ(events[0].handle, events[3].handle);
    EXPECT_NE(events[0].handle, events[4].handle);
    EXPECT_EQ("abc", events[1].data);
    EXPECT_EQ(0, events[1].offset);
    EXPECT_EQ("de", events[2].data);
    EXPECT_EQ(3, events[2].offset);
    EXPECT_EQ("f", events[5].data);
    EXPECT_EQ(5, events[5].offset);
}

}  // namespace
