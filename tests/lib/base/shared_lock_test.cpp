// Which file systems have locks that hold between hosts.
#include "lib/base/shared_lock.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <string>

#include <gtest/gtest.h>

#include "os/files.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::TempWorkingDir;

constexpr std::uint32_t kNfs = 0x6969;
constexpr std::uint32_t kFuse = 0x65735546;
constexpr std::uint32_t kCifs = 0xFF534D42;
constexpr std::uint32_t kSmb2 = 0xFE534D42;
constexpr std::uint32_t kGfs2 = 0x01161970;

const char* nameOf(LockReach reach) {
    switch (reach) {
        case LockReach::kHost:
            return "one host";
        case LockReach::kHosts:
            return "hosts";
        case LockReach::kUnsure:
            break;
    }
    return "unsure";
}

TEST(SharedLockTest, EachKindHasItsReach) {
    const struct {
        std::uint32_t magic;
        const char *type, *options;
        const char *name, *reach;
    } rows[] = {
        {0xEF53, "ext4", "rw", "ext4", "one host"},
        {0xEF53, "ext3", "rw", "ext4", "one host"},
        {0x58465342, "xfs", "rw", "xfs", "one host"},
        {0x9123683E, "btrfs", "rw", "btrfs", "one host"},
        {0x01021994, "tmpfs", "rw", "tmpfs", "one host"},
        {0x794C7630, "overlay", "rw", "overlay", "one host"},
        {0x2FC12FC1, "zfs", "rw", "zfs", "one host"},
        {0xF2F52010, "f2fs", "rw", "f2fs", "one host"},
        {0x00C36400, "ceph", "rw", "ceph", "hosts"},
        {kNfs, "nfs4", "rw,vers=4.2,local_lock=none", "nfs4", "hosts"},
        {kNfs, "nfs4", "rw,vers=4.2,local_lock=posix", "nfs4", "hosts"},
        {kNfs, "nfs4", "rw,vers=4.2,local_lock=flock", "nfs4", "unsure"},
        {kNfs, "nfs4", "rw,local_lock=all,vers=4.2", "nfs4", "unsure"},
        {kNfs, "nfs", "rw,vers=3,local_lock=none", "nfs", "unsure"},
        {kCifs, "cifs", "rw,vers=1.0", "cifs", "hosts"},
        {kSmb2, "cifs", "rw,vers=3.1.1", "cifs", "hosts"},
        {kSmb2, "smb3", "rw,nobrl", "smb3", "unsure"},
        {kCifs, "cifs", "rw,nobrl,vers=3.1.1", "cifs", "unsure"},
        {kGfs2, "gfs2", "rw", "gfs2", "hosts"},
        {kGfs2, "gfs2", "rw,localflocks", "gfs2", "unsure"},
        {kFuse, "fuse.glusterfs", "rw", "fuse.glusterfs", "hosts"},
        {kFuse, "fuse.sshfs", "rw", "fuse.sshfs", "unsure"},
        {kFuse, "fuse.rclone", "rw", "fuse.rclone", "unsure"},
        {kFuse, "fuse", "rw", "fuse", "unsure"},
        {kFuse, "fuseblk", "rw", "fuseblk", "one host"},
        {kFuse, "virtiofs", "rw", "virtiofs", "unsure"},
        {0x01021997, "9p", "rw", "9p", "unsure"},
        {0x12345678, "new", "rw", "new", "unsure"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.type) + " " + row.options);
        const FileSystem found = judge(row.magic, Mount{row.type, row.options});
        EXPECT_EQ(row.name, found.name);
        EXPECT_STREQ(row.reach, nameOf(found.reach));
    }
}

TEST(SharedLockTest, WithoutTheMountOnlyTheKindCounts) {
    const struct {
        std::uint32_t magic;
        const char *name, *reach;
    } rows[] = {
        {0xEF53, "ext4", "one host"}, {0x00C36400, "ceph", "hosts"}, {kNfs, "nfs", "unsure"},
        {kCifs, "cifs", "unsure"},    {kFuse, "fuse", "unsure"},     {0x1234, "0x1234", "unsure"},
    };
    for (const auto& row : rows) {
        const FileSystem found = judge(row.magic, std::nullopt);
        EXPECT_EQ(row.name, found.name);
        EXPECT_STREQ(row.reach, nameOf(found.reach));
    }
}

TEST(SharedLockTest, AMountIsFoundByItsDevice) {
    const std::string text =
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw,errors=remount-ro\n"
        "short 1 0:50\n"
        "36 22 0:50 / /mnt/a\\040b rw,nosuid shared:9 master:2 - nfs4 h:/ rw,local_lock=none\n"
        "37 22 0:51 / /mnt/g rw,relatime - fuse.glusterfs h:/v rw,user_id=0\n"
        "38 22 0:52 / /mnt/cut rw,relatime - fuse.x\n";
    const auto found = findMount(text, makedev(0, 50));
    ASSERT_TRUE(found);
    EXPECT_EQ("nfs4", found->type);
    EXPECT_EQ("rw,nosuid,rw,local_lock=none", found->options);
    EXPECT_EQ("fuse.glusterfs", findMount(text, makedev(0, 51))->type);
    EXPECT_EQ("ext4", findMount(text, makedev(8, 1))->type);
    EXPECT_FALSE(findMount(text, makedev(0, 52)));
    EXPECT_FALSE(findMount(text, makedev(0, 5)));
    EXPECT_FALSE(findMount("", makedev(0, 50)));
}

TEST(SharedLockTest, TheFileSystemOfAFolder) {
    const TempWorkingDir here;
    const os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
    EXPECT_STREQ("one host", nameOf(fileSystemOf(folder).reach));
    {
        const fault::FileSystemOf ceph(0x00C36400);
        EXPECT_STREQ("hosts", nameOf(fileSystemOf(folder).reach));
    }
    {
        const fault::FileSystemOf other(0x01021997);
        EXPECT_STREQ("unsure", nameOf(fileSystemOf(folder).reach));
    }
    const fault::FailingCall failing(1, EIO, fault::Mode::kOnce, {fault::Call::kFstatfs});
    EXPECT_EQ("unknown", fileSystemOf(folder).name);
}

}  // namespace
}  // namespace fstore
