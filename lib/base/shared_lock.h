// Whether the lock of a file holds between the hosts that have its file system.
//
// No program can try it out alone: two descriptors of one host exclude each other anywhere. So it
// is known of each kind of file system, and of the options of its mount.
//
// Any thread may call any of these.
#ifndef LIB_BASE_SHARED_LOCK_H
#define LIB_BASE_SHARED_LOCK_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "os/handles.h"

namespace fstore {

enum class LockReach {
    kHost,    // one host has the file system, as far as the system tells
    kHosts,   // several may have it, and the lock of one is known to all
    kUnsure,  // several may have it, and each may have locks of its own
};

struct FileSystem {
    std::string name;  // "ext4", "fuse.sshfs"; a number for one that has no name here
    LockReach reach = LockReach::kUnsure;
};

// What the system tells of a mount.
struct Mount {
    std::string type;     // "nfs4"
    std::string options;  // "rw,relatime,vers=4.2,local_lock=none"
};

// The first mount of this device in the text of /proc/self/mountinfo.
std::optional<Mount> findMount(std::string_view mountinfo, dev_t device);

// `magic` is statfs's f_type.
FileSystem judge(std::uint32_t magic, const std::optional<Mount>& mount);

// That of an open folder. One that cannot be examined is unknown, and so unsure.
FileSystem fileSystemOf(const os::File& folder);

// "locks on this file system (NAME) may not hold between hosts; let one host write"
std::string warningOf(const FileSystem& system);

}  // namespace fstore

#endif  // LIB_BASE_SHARED_LOCK_H
