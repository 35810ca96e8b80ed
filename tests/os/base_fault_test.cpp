// The faulty seam begins where the real one does, and records whole paths.
#include "tests/os/base_cases.h"
#include "tests/support/fs_fault.h"

namespace {

TEST_F(BaseTest, ARecordHasThePathBehindTheFolder) {
    const os::File a = open("a");
    const os::Base inA(a.get());
    const fault::Recorder recorder;
    EXPECT_EQ(0, os::rename("sub/file", "sub/other"));
    EXPECT_EQ("rename " + (dir_ / "a/sub/file") + " " + (dir_ / "a/sub/other"),
              recorder.lines().at(0));
}

}  // namespace
