// Each call to the file system of each C function fails once: the answer is a status, and the
// handle is usable afterwards.
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "tests/capi/operations.h"
#include "tests/support/fs_fault.h"

namespace capi_test {
namespace {

// The modules whose file system is the one that fails, found before the first of them is loaded.
[[maybe_unused]] const int kFound = ::setenv("FILESTORE_MODULES", MODULES, 1);

class CapiFaultTest : public OperationsTest {
protected:
    // What failures have left behind goes, so that no operation takes longer each time.
    void clean() {
        filestore_check_options options = FILESTORE_CHECK_OPTIONS_INIT;
        options.flags = FILESTORE_CHECK_REPAIR;
        EXPECT_EQ(FILESTORE_OK, filestore_check(db_.get(), &options, nullptr, nullptr));
        std::filesystem::remove_all(folder_ / "db.lost");
    }
};

TEST_F(CapiFaultTest, EachCallFailsOnce) {
    for (const Operation& operation : operations()) {
        int failures = 0;
        for (int nth = 1;; ++nth) {
            clean();
            operation.before();
            fault::FailingCall failing(nth, EIO);
            const filestore_status status = operation.run();
            if (!failing.lift()) {
                EXPECT_EQ(FILESTORE_OK, status) << operation.name;
                break;
            }
            ++failures;
            EXPECT_NE(FILESTORE_FOREIGN, status) << operation.name << ", call " << nth;
            if (nth % 4 == 0) {
                expectUsable(operation.name);
            }
        }
        EXPECT_GT(failures, 5) << operation.name;
        expectUsable(operation.name);
    }
}

TEST_F(CapiFaultTest, ALockThatMayNotHoldBetweenHostsCanBeRefused) {
    constexpr std::uint32_t kFuse = 0x65735546;
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    options.flags = FILESTORE_REQUIRE_SHARED_LOCK;
    filestore_db* handle = nullptr;
    ASSERT_EQ(FILESTORE_OK, filestore_open(folder_.path().c_str(), &options, &handle, nullptr));
    const Db careful(handle);
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(careful, "keys/none"));  // of a disk of this host
    const fault::FileSystemOf fuse(kFuse);
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/none"));
    handle = nullptr;
    ASSERT_EQ(FILESTORE_OK, filestore_open(folder_.path().c_str(), &options, &handle, nullptr));
    const Db elsewhere(handle);
    EXPECT_EQ(FILESTORE_USAGE, statusOfGet(elsewhere, "keys/none"));
    EXPECT_EQ(FILESTORE_USAGE, statusOfPut(elsewhere, "keys/new", "x"));
}

}  // namespace
}  // namespace capi_test
