#include "os/memory_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>

#include <ftw.h>
#include <linux/magic.h>

#include "os/files.h"
#include "os/fs.h"

namespace os {
namespace {

bool isInMemory(const char* path) noexcept {
    struct statfs status {};
    if (::statfs(path, &status) != 0) {
        return false;
    }
    const auto system = static_cast<unsigned int>(status.f_type);
    return system == TMPFS_MAGIC || system == RAMFS_MAGIC;
}

constexpr std::string_view kPrefix = "fstore-";
constexpr std::string_view kRandom = "XXXXXX";
// The file that is locked, and by which such a folder is known. The number was drawn by lot, once:
// nobody else gives a file such a name.
constexpr std::string_view kLock = ".fstore-83f1c2d6-lock";
constexpr mode_t kPermissions = 07777;
constexpr mode_t kForOwner = S_IRUSR | S_IWUSR;

// Only where there are bytes: in a file of holes zeros would need memory that it does not have.
void overwrite(const char* path) noexcept {
    constexpr char kZeros[4096] = {};
    const File file = openFile(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK);
    off_t end = 0;
    for (off_t at = ::lseek(file.get(), 0, SEEK_DATA); at >= 0;
         at = ::lseek(file.get(), end, SEEK_DATA)) {
        end = ::lseek(file.get(), at, SEEK_HOLE);
        if (::lseek(file.get(), at, SEEK_SET) < 0) {
            return;
        }
        for (; at < end; at += static_cast<off_t>(sizeof kZeros)) {
            const auto piece = std::min<off_t>(end - at, sizeof kZeros);
            if (!writeAll(file.get(), kZeros, static_cast<std::size_t>(piece))) {
                return;
            }
        }
    }
}

// All but the lock, which goes last: whoever goes on after a death has to know the folder.
int clean(const char* path, const struct stat* status, int /*kind*/, FTW* at) noexcept {
    if (at->level == 1 && path + at->base == kLock) {
        return 0;
    }
    // What has another name is also somebody's elsewhere; of two names in here one goes first.
    if (S_ISREG(status->st_mode) && status->st_nlink == 1) {
        overwrite(path);
    }
    (void)os::remove(path);
    return 0;
}

std::string lockIn(const std::string& folder) {
    return (folder + "/").append(kLock);
}

void cleanAll(const std::string& folder, const std::string& lock) noexcept {
    constexpr int kMostOpen = 16;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this process has one thread
    (void)::nftw(folder.c_str(), clean, kMostOpen, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
    (void)os::remove(lock.c_str());
    (void)os::rmdir(folder.c_str());
}

bool isStillNamed(const std::string& path, const File& file) noexcept {
    struct stat named {};
    struct stat opened {};
    return os::lstat(path.c_str(), &named) == 0 && os::fstat(file.get(), &opened) == 0 &&
           named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

bool tryLock(const File& file) noexcept {
    return os::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

// Whether it is one that only this user can enter.
bool isOwnFolder(const std::string& path) noexcept {
    struct stat status {};
    return os::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == ::geteuid() && (status.st_mode & kPermissions) == S_IRWXU;
}

// The lock of a folder that was made here, open; an empty File for any other.
File openLock(const std::string& path) noexcept {
    File lock = openFile(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    const bool isOurs = lock && os::fstat(lock.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                        status.st_uid == ::geteuid() &&
                        (status.st_mode & kPermissions) == kForOwner;
    return isOurs ? std::move(lock) : File();
}

// Of the folders in there those whose owner is dead. One that is just being made may be locked here
// first: its maker notices, and makes another one.
void cleanLeftovers(const std::string& place) {
    const Dir listed = openFolder(place.c_str());
    while (const dirent* const entry = listed ? nextEntry(listed.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        if (name.size() != kPrefix.size() + kRandom.size() || !name.starts_with(kPrefix)) {
            continue;
        }
        const std::string folder = (place + "/").append(name);
        const std::string path = lockIn(folder);
        const File lock = isOwnFolder(folder) ? openLock(path) : File();
        if (lock && tryLock(lock) && isStillNamed(path, lock)) {
            cleanAll(folder, path);
        }
    }
}

// The second process: away from the terminal and its signals, with no files but the one that ends
// when the first one does, and the lock.
[[noreturn]] void waitAndClean(const std::string& folder, const std::string& path,
                               const File& lifeline, const File& lock) noexcept {
    (void)::setsid();
    for (const int number : {SIGINT, SIGHUP, SIGTERM, SIGQUIT}) {
        (void)::signal(number, SIG_IGN);
    }
    constexpr int kFirst = 3;  // behind what the two may take the place of
    const int locked = ::fcntl(lock.get(), F_DUPFD, kFirst);
    const int kept = ::dup2(lifeline.get(), 0);
    (void)::dup2(locked, 1);
    (void)::close_range(2, ~0U, 0);
    char nothing = 0;
    while (kept == 0 && readSome(0, &nothing, 1) > 0) {
    }
    cleanAll(folder, path);
    ::_exit(0);
}

}  // namespace

MemoryFolder::MemoryFolder() noexcept {
    constexpr int kAttempts = 100;  // somebody may take as many for leftovers
    const char* const ofUser = ::secure_getenv("XDG_RUNTIME_DIR");
    for (const char* const place : {"/dev/shm", ofUser}) {
        if (place == nullptr || !isInMemory(place)) {
            continue;
        }
        try {
            cleanLeftovers(place);
            Made made = Made::kLost;
            for (int attempt = 0; made == Made::kLost && attempt < kAttempts; ++attempt) {
                made = makeIn(place);
            }
            if (made == Made::kMine) {
                return;
            }
        } catch (const std::bad_alloc&) {
            return;
        }
    }
}

// Where files cannot be locked, nobody takes a folder for a leftover.
MemoryFolder::Made MemoryFolder::makeIn(const std::string& place) {
    std::string folder = (place + "/").append(kPrefix).append(kRandom);
    if (::mkdtemp(folder.data()) == nullptr) {
        return Made::kFailed;
    }
    path_ = std::move(folder);
    lockPath_ = lockIn(path_);
    lock_ = openFile(lockPath_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, kForOwner);
    if (lock_ && ((!tryLock(lock_) && errno == EWOULDBLOCK) || !isStillNamed(lockPath_, lock_))) {
        path_.clear();
        return Made::kLost;
    }
    if (!lock_ || !startCleaner()) {
        (void)os::remove(lockPath_.c_str());
        (void)os::rmdir(path_.c_str());
        path_.clear();
        return Made::kFailed;
    }
    return Made::kMine;
}

bool MemoryFolder::startCleaner() noexcept {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const File waited(ends[0]);
    File lifeline(ends[1]);
    cleaner_ = ::fork();
    if (cleaner_ == 0) {
        waitAndClean(path_, lockPath_, waited, lock_);
    }
    lifeline_ = std::move(lifeline);
    return cleaner_ > 0;
}

MemoryFolder::~MemoryFolder() {
    if (path_.empty()) {
        return;
    }
    (void)lifeline_.close();
    while (::waitpid(cleaner_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace os
