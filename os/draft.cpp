#include "os/draft.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <thread>
#include <utility>

#include "os/files.h"
#include "os/fs.h"
#include "os/unnamed_file.h"

namespace os {
namespace {

constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr int kPlaces = 8;  // drafts of one name at a time
constexpr int kNoPlace = -1;
constexpr int kAllBusy = -2;
constexpr std::chrono::milliseconds kPause(5);
constexpr int kMostPauses = 2000;
// The number was drawn by lot, once: so who has this name is a draft, whatever rights a file of
// this kind is given. The digit is that of the place.
constexpr const char* kSuffix = ".new-5d0c9e7b-0";
// Room for what a draft's name has more, on file systems with short names, too.
constexpr std::size_t kMostOfName = 100;

std::string folderOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

// The first of the draft's paths. Long names may share it: places are many.
std::string firstPlace(const std::string& folder, std::string_view path) {
    std::string place = folder + "/.";
    place += path.substr(path.rfind('/') + 1).substr(0, kMostOfName);
    place += kSuffix;
    return place;
}

bool isSame(const struct stat& one, const struct stat& other) noexcept {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether the name still is that of the open file.
bool isNamed(const std::string& path, const File& file) noexcept {
    struct stat named {};
    struct stat opened {};
    return os::lstat(path.c_str(), &named) == 0 && os::fstat(file.get(), &opened) == 0 &&
           isSame(named, opened);
}

enum class Lock { kHeld, kBusy, kNone, kFailed };

Lock lockNow(const File& file) noexcept {
    int locked = os::flock(file.get(), LOCK_EX | LOCK_NB);
    while (locked != 0 && errno == EINTR) {
        locked = os::flock(file.get(), LOCK_EX | LOCK_NB);
    }
    if (locked == 0) {
        return Lock::kHeld;
    }
    if (errno == EWOULDBLOCK) {
        return Lock::kBusy;
    }
    // A file system without locks. Nobody takes a draft for a leftover there.
    return errno == ENOTSUP || errno == ENOSYS || errno == EINVAL ? Lock::kNone : Lock::kFailed;
}

enum class Place { kFree, kBusy, kTaken };

// Removes the draft at `place` that nobody is writing any more. What is no draft stays, and so does
// somebody else's: in a folder like /tmp it is theirs to remove. Open for writing, since NFS locks
// nothing else.
Place clear(const std::string& place) noexcept {
    struct stat named {};
    if (os::lstat(place.c_str(), &named) != 0) {
        return errno == ENOENT ? Place::kFree : Place::kTaken;
    }
    if (!S_ISREG(named.st_mode) || named.st_uid != ::geteuid() || named.st_nlink != 1) {
        return Place::kTaken;
    }
    const File left = openFile(place.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    if (!left) {
        return errno == ENOENT ? Place::kFree : Place::kTaken;
    }
    const Lock locked = lockNow(left);
    if (locked != Lock::kHeld) {
        return locked == Lock::kBusy ? Place::kBusy : Place::kTaken;
    }
    // Another one may have removed it, and a third one begun anew, before it was locked.
    if (!isNamed(place, left)) {
        return Place::kBusy;
    }
    return os::remove(place.c_str()) == 0 ? Place::kFree : Place::kTaken;
}

// Whether the system gives no name to a file that has none, here or at all: another way may do.
bool isRefused(int error) noexcept {
    switch (error) {
        case EPERM:
        case EACCES:
        case ENOENT:
        case ENOSYS:
        case EINVAL:
        case EXDEV:
        case EOPNOTSUPP:
            return true;
        default:
            return false;
    }
}

// From where the one is to where the other ends.
bool copyBytes(const File& from, const File& to) noexcept {
    char piece[1 << 14];
    ssize_t size = readSome(from.get(), piece, sizeof piece);
    while (size > 0 && writeAll(to.get(), piece, static_cast<std::size_t>(size))) {
        size = readSome(from.get(), piece, sizeof piece);
    }
    ::explicit_bzero(piece, sizeof piece);
    return size == 0;
}

}  // namespace

bool Draft::open(const std::string& path) {
    path_ = path;
    folder_ = folderOf(path_);
    place_ = firstPlace(folder_, path_);
    if (openWithoutName()) {
        (void)clearPlaces();  // so that what a killed process left does not outlive this one
        return true;
    }
    return claimPlace();
}

// The lock is another opening of the file: it stays when the file is closed, which comes in front
// of naming it, since closing may report that it could not be written.
bool Draft::openWithoutName() noexcept {
    file_ = openUnnamed(folder_.c_str());
    if (file_) {
        lock_ = reopen(file_, O_RDONLY);
    }
    if (!lock_) {
        file_ = File();
    }
    return static_cast<bool>(file_);
}

File Draft::reopenForReading() const noexcept {
    return named_ ? openFile(named_->c_str(), O_RDONLY) : reopen(lock_, O_RDONLY);
}

// All places are looked at, so that no leftover stays, wherever it is. The first free one.
int Draft::clearPlaces() noexcept {
    bool isBusy = false;
    int found = kNoPlace;
    for (int i = 0; i != kPlaces; ++i) {
        place_.back() = static_cast<char>('0' + i);
        const Place state = clear(place_);
        isBusy = isBusy || state == Place::kBusy;
        found = found < 0 && state == Place::kFree ? i : found;
    }
    return found < 0 && isBusy ? kAllBusy : found;
}

// Takes a place that is free.
bool Draft::claimPlace() noexcept {
    for (int pauses = 0;; ++pauses) {
        const int found = clearPlaces();
        if (found >= 0) {
            place_.back() = static_cast<char>('0' + found);
            const Claim claimed = lock_ ? claimByLink() : claim();
            if (claimed != Claim::kBusy) {
                return claimed == Claim::kMine;
            }
        }
        if (found == kNoPlace) {
            inTheWay_ = std::move(place_);
            errno = EEXIST;
            return false;
        }
        if (pauses == kMostPauses) {
            errno = EBUSY;
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
}

// Makes the draft there, unless another one makes or clears it just now.
Draft::Claim Draft::claim() noexcept {
    File lock = openFile(place_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (!lock) {
        return errno == EEXIST ? Claim::kBusy : Claim::kFailed;
    }
    const Lock locked = lockNow(lock);
    if (locked == Lock::kBusy) {
        return Claim::kBusy;  // who has it takes it for a leftover, and removes it
    }
    if (locked == Lock::kHeld && !isNamed(place_, lock)) {
        return Claim::kBusy;
    }
    lock_ = std::move(lock);
    haveName();
    // Another descriptor to write, which is closed before the file gets its name.
    file_ = locked == Lock::kFailed ? File() : openFile(named_->c_str(), O_WRONLY | O_NOFOLLOW);
    return file_ ? Claim::kMine : Claim::kFailed;
}

// Names the file that has none. It is locked before anybody can see it.
Draft::Claim Draft::claimByLink() noexcept {
    if (lockNow(lock_) == Lock::kFailed) {
        return Claim::kFailed;
    }
    if (!giveName(lock_, place_.c_str())) {
        return errno == EEXIST ? Claim::kBusy : Claim::kFailed;
    }
    haveName();
    return Claim::kMine;
}

// A draft with a name and the bytes of the one that the system gives none to.
bool Draft::moveToPlace() noexcept {
    const File unnamed = std::move(lock_);
    struct stat status {};
    return os::fstat(unnamed.get(), &status) == 0 && claimPlace() && copyBytes(unnamed, file_) &&
           ::fchmod(file_.get(), status.st_mode & kPermissions) == 0 &&
           closeDurably(std::move(file_));
}

void Draft::haveName() noexcept {
    named_.emplace(std::move(place_));
    if (watch_ != nullptr) {
        watch_(named_->c_str());
    }
}

bool Draft::commit(Existing existing) noexcept {
    if (!closeDurably(std::move(file_))) {
        return false;
    }
    if (!named_) {
        if (giveName(lock_, path_.c_str())) {
            return true;
        }
        const bool isNamed =
            isRefused(errno) ? moveToPlace()
                             : errno == EEXIST && existing == Existing::kReplaced && claimPlace();
        if (!isNamed) {
            return false;
        }
    }
    const auto rename = existing == Existing::kKept ? os::renameNew : os::rename;
    if (rename(named_->c_str(), path_.c_str()) != 0) {
        return false;
    }
    named_->commit();
    if (watch_ != nullptr) {
        watch_(nullptr);
    }
    return true;
}

bool Draft::syncName() const noexcept {
    return syncFolder(folder_.c_str());
}

}  // namespace os
