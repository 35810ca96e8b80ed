#include "os/handles.h"

#include <fcntl.h>

#include <cerrno>
#include <thread>
#include <type_traits>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using fault::FailingCall;
using fault::openHandles;
using support::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

int openNew(const std::string& path) {
    return os::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
}

TEST(FileTest, OwnersCannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<os::File>);
    EXPECT_FALSE(std::is_copy_assignable_v<os::File>);
    EXPECT_FALSE(std::is_copy_constructible_v<os::Dir>);
    EXPECT_FALSE(std::is_copy_assignable_v<os::Dir>);
    EXPECT_FALSE(std::is_copy_constructible_v<os::TempPath>);
    EXPECT_FALSE(std::is_copy_assignable_v<os::TempPath>);
    EXPECT_FALSE(std::is_copy_constructible_v<os::ReadLock>);
    EXPECT_FALSE(std::is_copy_assignable_v<os::WriteLock>);
}

TEST(FileTest, NewOneIsEmptyAndClosesNothing) {
    const long before = fault::callCount();
    {
        os::File file;
        EXPECT_FALSE(file);
        EXPECT_TRUE(file.close());
        EXPECT_FALSE(os::File(-1));
    }
    EXPECT_EQ(before, fault::callCount());
}

TEST(FileTest, DestructorCloses) {
    const TempDir dir;
    {
        const os::File file(openNew(dir / "a"));
        ASSERT_TRUE(file);
        EXPECT_THAT(openHandles(), ElementsAre(dir / "a"));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(FileTest, MoveHandsTheDescriptorOver) {
    const TempDir dir;
    os::File first(openNew(dir / "a"));
    const int fd = first.get();
    os::File second(std::move(first));
    EXPECT_EQ(fd, second.get());
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): an emptied owner is a promise
    EXPECT_THAT(openHandles(), ElementsAre(dir / "a"));
}

TEST(FileTest, AssignmentClosesTheOldDescriptor) {
    const TempDir dir;
    os::File file(openNew(dir / "a"));
    file = os::File(openNew(dir / "b"));
    EXPECT_THAT(openHandles(), ElementsAre(dir / "b"));
    os::File& same = file;
    file = std::move(same);
    EXPECT_TRUE(file);
    EXPECT_THAT(openHandles(), ElementsAre(dir / "b"));
    file = os::File();
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(FileTest, ReleasedDescriptorStaysOpen) {
    const TempDir dir;
    int fd = -1;
    {
        os::File file(openNew(dir / "a"));
        fd = file.release();
    }
    EXPECT_THAT(openHandles(), ElementsAre(dir / "a"));
    EXPECT_EQ(0, os::close(fd));
}

TEST(FileTest, FailingCloseIsToldOnceAndLeaksNothing) {
    const TempDir dir;
    for (const int error : fault::errnosOf(Call::kClose)) {
        SCOPED_TRACE(error);
        os::File file(openNew(dir / "a"));
        FailingCall fault(1, error, fault::Mode::kOnce, {Call::kClose});
        const bool closed = file.close();
        EXPECT_TRUE(fault.lift());
        EXPECT_EQ(error == EINTR, closed);  // an interrupted close has closed
        EXPECT_FALSE(file);
        EXPECT_THAT(openHandles(), IsEmpty());
    }
}

TEST(FileTest, DestructorLeavesErrnoAlone) {
    const TempDir dir;
    {
        const os::File file(openNew(dir / "a"));
        const FailingCall fault(1, EIO);
        errno = ENOSPC;
    }
    EXPECT_EQ(ENOSPC, errno);
}

TEST(DirTest, DestructorAndAssignmentClose) {
    const TempDir dir;
    {
        os::Dir stream(os::opendir(dir.path().c_str()));
        ASSERT_TRUE(stream);
        EXPECT_THAT(openHandles(), ElementsAre(dir.path()));
        stream = os::Dir(os::opendir("/"));
        EXPECT_THAT(openHandles(), ElementsAre("/"));
        os::Dir other(std::move(stream));
        EXPECT_FALSE(stream);  // NOLINT(bugprone-use-after-move): an emptied owner is a promise
        EXPECT_THAT(openHandles(), ElementsAre("/"));
    }
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(DirTest, CloseEmptiesAndLeavesErrnoAlone) {
    os::Dir stream(os::opendir("/"));
    FailingCall fault(1, EIO, fault::Mode::kOnce, {Call::kClosedir});
    errno = ENOSPC;
    stream.close();
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_TRUE(fault.lift());
    EXPECT_FALSE(stream);
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST(TempPathTest, RemovesUnlessCommitted) {
    const TempDir dir;
    for (const bool commit : {false, true}) {
        SCOPED_TRACE(commit);
        {
            os::TempPath path(dir / "a");
            support::writeFile(path.path(), "x");
            EXPECT_EQ(dir / "a", path.c_str());
            if (commit) {
                path.commit();
            }
        }
        EXPECT_EQ(commit ? 1U : 0U, support::tree(dir.path()).size());
    }
}

TEST(TempPathTest, MovedOneIsTheOnlyOneThatRemoves) {
    const TempDir dir;
    support::writeFile(dir / "a", "x");
    {
        os::TempPath first(dir / "a");
        os::TempPath second(std::move(first));
        second.commit();
    }
    EXPECT_EQ(1U, support::tree(dir.path()).size());
}

TEST(TempPathTest, RemovalLeavesErrnoAlone) {
    const TempDir dir;
    {
        const os::TempPath path(dir / "never made");
        errno = ENOSPC;
    }
    EXPECT_EQ(ENOSPC, errno);
}

class LockTest : public testing::Test {
protected:
    ~LockTest() override { EXPECT_EQ(0, pthread_rwlock_destroy(&lock)); }

    // What another thread is given at once.
    bool othersMayRead() { return fromOther(pthread_rwlock_tryrdlock); }
    bool othersMayWrite() { return fromOther(pthread_rwlock_trywrlock); }

    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;

private:
    bool fromOther(int (*acquire)(pthread_rwlock_t*)) {
        bool given = false;
        std::thread([&] {
            given = acquire(&lock) == 0;
            if (given) {
                pthread_rwlock_unlock(&lock);
            }
        }).join();
        return given;
    }
};

TEST_F(LockTest, ReadersShareAndWritersDoNot) {
    {
        const os::ReadLock held(&lock);
        EXPECT_TRUE(othersMayRead());
        EXPECT_FALSE(othersMayWrite());
    }
    {
        const os::WriteLock held(&lock);
        EXPECT_FALSE(othersMayRead());
        EXPECT_FALSE(othersMayWrite());
    }
    EXPECT_TRUE(othersMayWrite());
}

TEST_F(LockTest, NullTakesNone) {
    const os::ReadLock reader(nullptr);
    const os::WriteLock writer(nullptr);
    EXPECT_TRUE(othersMayWrite());
}

// The inner owner finds the thread protected already and must not give back
// what the outer one holds.
TEST_F(LockTest, OwnerInsideAWriteLockGivesNothingBack) {
    const os::WriteLock outer(&lock);
    { const os::ReadLock inner(&lock); }
    EXPECT_FALSE(othersMayRead());
    { const os::WriteLock inner(&lock); }
    EXPECT_FALSE(othersMayRead());
}

}  // namespace
