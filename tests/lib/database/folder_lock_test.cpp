// The folder of a database: opened by whatever name it has, and there after a loss of power.
#include "lib/database/folder_lock.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::TempWorkingDir;
using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST(FolderLockTest, ANewFolderIsDurableInItsParent) {
    for (const char* const name : {"new", "./new/", "link/new"}) {
        SCOPED_TRACE(name);
        const TempWorkingDir here;
        std::filesystem::create_directory("real");
        std::filesystem::create_directory_symlink("real", "link");
        const Place place{.folder = name};
        FolderLock lock(place);
        const fault::Recorder recorder(fault::kLastingCalls);
        lock.makeAndOpen();
        const auto lines = recorder.lines();
        EXPECT_THAT(lines, Contains(AllOf(StartsWith("fsync "), EndsWith("/.."))));
    }
}

TEST(FolderLockTest, AParentThatCannotBeSyncedIsReported) {
    const TempWorkingDir here;
    const Place place{.folder = "new"};
    FolderLock lock(place);
    const fault::FailingCall failing(1, EIO, fault::Mode::kOnce, {fault::Call::kFsync});
    try {
        lock.makeAndOpen();
        ADD_FAILURE() << "no failure";
    } catch (const Failure& failure) {
        EXPECT_EQ(kIo, failure.status());
        EXPECT_THAT(failure.what(), HasSubstr("contains new"));
    }
}

TEST(FolderLockTest, AParentThatIsNotOursToSyncDoesNoHarm) {
    const TempWorkingDir here;
    std::filesystem::create_directory("old");
    const Place place{.folder = "old"};
    FolderLock lock(place);
    const fault::FailingCall failing(1, EACCES, fault::Mode::kOnce, {fault::Call::kFsync});
    lock.makeAndOpen();
    EXPECT_TRUE(lock.folder());
}

TEST(FolderLockTest, ARelativeNameIsUsedOnce) {
    const TempWorkingDir here;
    const Place place{.folder = "one"};
    FolderLock lock(place);
    lock.makeAndOpen();
    lock.makeAndOpen();
    lock.open();
    EXPECT_EQ(here.path(), std::filesystem::current_path());
    EXPECT_TRUE(std::filesystem::is_empty("one"));
}

}  // namespace
}  // namespace fstore
