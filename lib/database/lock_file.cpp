#include "lib/database/lock_file.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

// Opens nothing else than a file of this name, and does not wait for the reader of a FIFO.
constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr mode_t kOwnMode = S_IRUSR | S_IWUSR;

// Of what the file is for: "./db", or, before there is one, the folder.
struct Owner {
    uid_t user;
    gid_t group;
    mode_t others;  // what a group and others may do
};

Owner ownerOfDatabase() {
    constexpr mode_t kOthers = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    struct stat status {};
    if (os::lstat(layout::kLive, &status) == 0 && S_ISDIR(status.st_mode)) {
        return {status.st_uid, status.st_gid, status.st_mode & kOthers};
    }
    if (os::lstat(".", &status) != 0) {
        failWithErrno("look at", ".");
    }
    return {status.st_uid, status.st_gid, 0};
}

bool isOwn(const Owner& owner) {
    struct stat status {};
    status.st_uid = owner.user;
    return os::isOwn(status);
}

bool isMissingRight(int error) {
    return error == EACCES || error == EPERM || error == EROFS;
}

// What keeps a reader from a lock file, and is no reason to fail: it never had one before.
bool isTolerable(int error) {
    return isMissingRight(error) || error == ENOENT || error == ENOSPC || error == EDQUOT;
}

[[noreturn]] void refuseLockFile(const char* what) {
    throw Failure(kInvalid,
                  fmt::format("{} is {}, and the database needs a file of this name for its lock",
                              layout::kLockFile, what),
                  Advice{"move it elsewhere"}, layout::kLockFile);
}

[[noreturn]] void failToOpen() {
    switch (errno) {
        case ELOOP:
            refuseLockFile("a link, which fstore does not follow");
        case EISDIR:
        case ENXIO:
        case ENODEV:
            refuseLockFile("not a file");
        default:
            failWithErrno("open the lock file", layout::kLockFile);
    }
}

// What somebody has written there would be overwritten. Read only where the size leaves it open.
void requireHolder(const os::File& file, off_t size) {
    if (size == 0 || size == static_cast<off_t>(kHolderSize)) {
        return;
    }
    std::array<char, kHolderSize + 1> text{};
    const ssize_t got = os::pread(file.get(), text.data(), text.size(), 0);
    if (got < 0) {
        failWithErrno("read", layout::kLockFile);
    }
    if (!mayBeHolder({text.data(), static_cast<std::size_t>(got)})) {
        refuseLockFile("a file with something else in it");
    }
}

// Whoever may work with the database may lock it. What the system refuses is left as it is: who
// cannot open the file then is told so.
void share(const os::File& file, const Owner& owner) {
    const auto kept = static_cast<uid_t>(-1);
    (void)os::giveTo(file, os::isRoot() ? owner.user : kept, owner.group);
    if (owner.others != 0) {
        (void)os::setPermissions(file, kOwnMode | owner.others);
    }
}

}  // namespace

bool LockFile::open(Use use) {
    if (file_ && (isWritable_ || use == Use::kRead)) {
        return true;
    }
    constexpr int kAttempts = 100;  // somebody may remove it as often
    close();
    fault_.clear();
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (openExisting(use)) {
            examine();
            return true;
        }
        if (errno == ENOENT) {
            if (use != Use::kMake && !folderState().hasDatabase()) {
                return false;
            }
            errno = ENOENT;
            if ((use != Use::kRead || isOwn(ownerOfDatabase())) && make()) {
                examine();
                return true;
            }
        }
        if (use == Use::kRead && isTolerable(errno)) {
            fault_ = std::generic_category().message(errno);
            return false;
        }
        if (errno != EEXIST) {
            failToOpen();
        }
    }
    failToOpen();
}

bool LockFile::openExisting(Use use) {
    file_ = os::openFile(layout::kLockFile, O_RDWR | kFlags);
    isWritable_ = static_cast<bool>(file_);
    if (!file_ && use == Use::kRead && isMissingRight(errno)) {
        file_ = os::openFile(layout::kLockFile, O_RDONLY | kFlags);
    }
    return static_cast<bool>(file_);
}

bool LockFile::make() {
    file_ = os::openFile(layout::kLockFile, O_RDWR | O_CREAT | O_EXCL | kFlags, kOwnMode);
    isWritable_ = static_cast<bool>(file_);
    if (file_) {
        share(file_, ownerOfDatabase());
    }
    return isWritable_;
}

void LockFile::examine() {
    struct stat status {};
    if (os::fstat(file_.get(), &status) != 0) {
        failWithErrno("look at", layout::kLockFile);
    }
    if (!S_ISREG(status.st_mode)) {
        refuseLockFile("not a file");
    }
    requireHolder(file_, status.st_size);
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

bool LockFile::isCurrent() const {
    struct stat named {};
    if (os::lstat(layout::kLockFile, &named) != 0) {
        if (errno == ENOENT) {
            return false;
        }
        failWithErrno("look at", layout::kLockFile);
    }
    return named.st_dev == device_ && named.st_ino == inode_;
}

bool LockFile::write(const LockHolder& holder) const {
    const std::string line = print(holder);
    ssize_t written = 0;
    do {
        written = os::pwrite(file_.get(), line.data(), line.size(), 0);
    } while (written < 0 && errno == EINTR);
    if (written >= 0 && static_cast<std::size_t>(written) < line.size()) {
        errno = ENOSPC;  // what a call that stores a part runs into
        return false;
    }
    return written >= 0;
}

}  // namespace fstore
