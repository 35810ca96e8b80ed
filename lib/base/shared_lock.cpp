#include "lib/base/shared_lock.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <vector>

#include <fmt/format.h>

#include "os/files.h"
#include "os/fs.h"

namespace fstore {
namespace {

// How the reach of a kind's locks is told.
enum class Rule {
    kOneHost,
    kHosts,
    kHostsUnless,  // the mount has one of the options
    kFuse,         // by the type of the mount
};

struct System {
    std::uint32_t magic;
    Rule rule;
    const char* name;
    std::array<std::string_view, 2> but = {};  // options that make locks local
};

constexpr std::uint32_t kFuseMagic = 0x65735546;
constexpr std::uint32_t kNfsMagic = 0x6969;

constexpr System kSystems[] = {
    {0xEF53, Rule::kOneHost, "ext4"},
    {0x58465342, Rule::kOneHost, "xfs"},
    {0x9123683E, Rule::kOneHost, "btrfs"},
    {0x01021994, Rule::kOneHost, "tmpfs"},
    {0x858458F6, Rule::kOneHost, "ramfs"},
    {0x794C7630, Rule::kOneHost, "overlay"},
    {0x2FC12FC1, Rule::kOneHost, "zfs"},
    {0xF2F52010, Rule::kOneHost, "f2fs"},
    {0xCA451A4E, Rule::kOneHost, "bcachefs"},
    {0x3153464A, Rule::kOneHost, "jfs"},
    {0x52654973, Rule::kOneHost, "reiserfs"},
    {0x3434, Rule::kOneHost, "nilfs2"},
    {0x24051905, Rule::kOneHost, "ubifs"},
    {0x4D44, Rule::kOneHost, "vfat"},
    {0x2011BAB0, Rule::kOneHost, "exfat"},
    {0x7366746E, Rule::kOneHost, "ntfs3"},
    {0x482B, Rule::kOneHost, "hfsplus"},
    {0x15013346, Rule::kOneHost, "udf"},
    {0xF15F, Rule::kOneHost, "ecryptfs"},
    {0x9660, Rule::kOneHost, "iso9660"},
    {0x73717368, Rule::kOneHost, "squashfs"},
    {0xE0F5E1E2, Rule::kOneHost, "erofs"},
    {0x00C36400, Rule::kHosts, "ceph"},
    {kNfsMagic, Rule::kHostsUnless, "nfs", {"local_lock=flock", "local_lock=all"}},
    {0xFF534D42, Rule::kHostsUnless, "cifs", {"nobrl"}},
    {0xFE534D42, Rule::kHostsUnless, "cifs", {"nobrl"}},
    {0x01161970, Rule::kHostsUnless, "gfs2", {"localflocks"}},
    {0x7461636F, Rule::kHostsUnless, "ocfs2", {"localflocks"}},
    {kFuseMagic, Rule::kFuse, "fuse"},
};

// The parts of a text that a character separates.
std::vector<std::string_view> split(std::string_view text, char at) {
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t end = text.find(at);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

bool hasOption(const Mount& mount, std::string_view option) {
    const std::vector<std::string_view> options = split(mount.options, ',');
    return std::ranges::find(options, option) != options.end();
}

// The third version of NFS has its locks from another service, which may not run.
bool holdsBetweenHosts(const System& kind, const Mount& mount) {
    return (kind.magic != kNfsMagic || mount.type == "nfs4") &&
           std::ranges::none_of(kind.but, [&](std::string_view option) {
               return !option.empty() && hasOption(mount, option);
           });
}

// "fuseblk" is a file system on a disk of this host.
LockReach reachOfFuse(const Mount& mount) {
    if (mount.type == "fuse.glusterfs") {
        return LockReach::kHosts;
    }
    return mount.type == "fuseblk" ? LockReach::kHost : LockReach::kUnsure;
}

LockReach reachOf(const System& kind, const std::optional<Mount>& mount) {
    switch (kind.rule) {
        case Rule::kOneHost:
            return LockReach::kHost;
        case Rule::kHosts:
            return LockReach::kHosts;
        case Rule::kHostsUnless:
            return mount && holdsBetweenHosts(kind, *mount) ? LockReach::kHosts
                                                            : LockReach::kUnsure;
        case Rule::kFuse:
            break;
    }
    return mount ? reachOfFuse(*mount) : LockReach::kUnsure;
}

std::string readMounts() {
    constexpr std::size_t kMost = 1 << 24;  // of what only the system writes
    const os::File file = os::openFile("/proc/self/mountinfo", O_RDONLY);
    std::string text;
    std::array<char, 4096> piece{};
    while (file && text.size() < kMost) {
        const ssize_t got = os::readSome(file.get(), piece.data(), piece.size());
        if (got <= 0) {
            break;
        }
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
    return text;
}

}  // namespace

// "36 35 98:0 /root /mnt rw,noatime shared:1 - ext4 /dev/sda rw,errors=continue"
std::optional<Mount> findMount(std::string_view mountinfo, dev_t device) {
    constexpr std::size_t kDevice = 2;
    constexpr std::size_t kOptions = 5;
    const std::string wanted = fmt::format("{}:{}", major(device), minor(device));
    for (const std::string_view line : split(mountinfo, '\n')) {
        const std::vector<std::string_view> words = split(line, ' ');
        if (words.size() <= kOptions || words[kDevice] != wanted) {
            continue;
        }
        const auto dash = std::find(words.begin() + kOptions, words.end(), "-");
        if (words.end() - dash > 3) {
            return Mount{.type = std::string(dash[1]),
                         .options = fmt::format("{},{}", words[kOptions], dash[3])};
        }
    }
    return std::nullopt;
}

FileSystem judge(std::uint32_t magic, const std::optional<Mount>& mount) {
    const auto* const kind = std::ranges::find(kSystems, magic, &System::magic);
    if (kind == std::end(kSystems)) {
        return {.name = mount ? mount->type : fmt::format("0x{:x}", magic),
                .reach = LockReach::kUnsure};
    }
    const bool isNamed = kind->rule == Rule::kOneHost || !mount;
    return {.name = isNamed ? kind->name : mount->type, .reach = reachOf(*kind, mount)};
}

FileSystem fileSystemOf(const os::File& folder) {
    struct statfs system {};
    struct stat status {};
    if (os::fstatfs(folder.get(), &system) != 0 || os::fstat(folder.get(), &status) != 0) {
        return {.name = "unknown", .reach = LockReach::kUnsure};
    }
    const auto magic = static_cast<std::uint32_t>(system.f_type);
    FileSystem found = judge(magic, std::nullopt);
    return found.reach == LockReach::kUnsure ? judge(magic, findMount(readMounts(), status.st_dev))
                                             : found;
}

std::string warningOf(const FileSystem& system) {
    return fmt::format(
        "locks on this file system ({}) may not hold between hosts; let one host write",
        system.name);
}

}  // namespace fstore
