#include "os/output.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <string_view>
#include <thread>
#include <utility>

#include "os/files.h"
#include "os/fs.h"

namespace os {
namespace {

constexpr int kPlaces = 8;  // drafts of one name at a time
constexpr std::chrono::milliseconds kPause(5);
constexpr int kMostPauses = 2000;
// Room for what a draft's name has more, on file systems with short names, too.
constexpr std::size_t kMostOfName = 100;

std::string folderOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

// The draft's path without its digit. Long names may share it: places are many.
std::string draftOf(const std::string& folder, std::string_view path) {
    std::string draft = folder + "/.";
    draft += path.substr(path.rfind('/') + 1).substr(0, kMostOfName);
    draft += ".new-";
    return draft;
}

// The number of a descriptor of this process that the path names, or -1.
int descriptorOf(std::string_view path) noexcept {
    if (path == "/dev/stdout") {
        return 1;
    }
    if (path == "/dev/stderr") {
        return 2;
    }
    for (const std::string_view folder : {"/dev/fd/", "/proc/self/fd/"}) {
        int number = -1;
        if (path.substr(0, folder.size()) == folder) {
            const char* const end = path.data() + path.size();
            const auto read = std::from_chars(path.data() + folder.size(), end, number);
            return read.ec == std::errc() && read.ptr == end ? number : -1;
        }
    }
    return -1;
}

// Whether the name still is that of the open file.
bool isNamed(const std::string& path, const File& file) noexcept {
    struct stat named {};
    struct stat opened {};
    return os::lstat(path.c_str(), &named) == 0 && os::fstat(file.get(), &opened) == 0 &&
           named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
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

// A disk can be synced, a terminal or a pipe cannot and says so.
bool syncIfCan(const File& file) noexcept {
    int synced = os::fsync(file.get());
    while (synced != 0 && errno == EINTR) {
        synced = os::fsync(file.get());
    }
    return synced == 0 || errno == EINVAL;
}

enum class Place { kFree, kBusy, kTaken };

// Removes the draft at `place` that nobody is writing any more. What is no draft stays.
Place clear(const std::string& place) noexcept {
    const File left = openFile(place.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    if (!left) {
        return errno == ENOENT ? Place::kFree : Place::kTaken;
    }
    struct stat status {};
    if (os::fstat(left.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return Place::kTaken;
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

}  // namespace

// Makes the draft in a place that is free, unless another one makes or clears it just now.
Output::Claim Output::claim(const std::string& place) {
    std::string name = place;  // first: nothing may fail once there is a file to remove
    File lock = openFile(place.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (!lock) {
        return errno == EEXIST ? Claim::kBusy : Claim::kFailed;
    }
    const Lock locked = lockNow(lock);
    if (locked == Lock::kBusy) {
        return Claim::kBusy;  // who has it takes it for a leftover, and removes it
    }
    if (locked == Lock::kHeld && !isNamed(place, lock)) {
        return Claim::kBusy;
    }
    draft_.emplace(std::move(name));
    lock_ = std::move(lock);
    // Another descriptor to write, which is closed before the file gets its name.
    file_ = locked == Lock::kFailed ? File() : openFile(place.c_str(), O_WRONLY | O_NOFOLLOW);
    return file_ ? Claim::kMine : Claim::kFailed;
}

// All places are looked at, so that no leftover stays, wherever it is.
bool Output::openDraft() {
    folder_ = folderOf(path_);
    std::string place = draftOf(folder_, path_);
    const std::size_t digit = place.size();
    place += '0';
    for (int pauses = 0;; ++pauses) {
        bool isBusy = false;
        int found = -1;
        for (int i = 0; i != kPlaces; ++i) {
            place[digit] = static_cast<char>('0' + i);
            const Place state = clear(place);
            isBusy = isBusy || state == Place::kBusy;
            found = found < 0 && state == Place::kFree ? i : found;
        }
        if (found >= 0) {
            place[digit] = static_cast<char>('0' + found);
            const Claim claimed = claim(place);
            if (claimed != Claim::kBusy) {
                return claimed == Claim::kMine;
            }
            isBusy = true;
        }
        if (!isBusy || pauses == kMostPauses) {
            errno = isBusy ? EBUSY : EEXIST;
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
}

// Opens it anew, and looks again at what it is: the name may be another file's by now.
bool Output::openThrough(const char* path) noexcept {
    file_ = openFile(path, O_WRONLY | O_NOCTTY | O_NOFOLLOW);
    struct stat status {};
    if (!file_ || os::fstat(file_.get(), &status) != 0) {
        return false;
    }
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
        errno = EBUSY;
        return false;
    }
    return true;
}

Output::Opened Output::open(const std::string& path) {
    path_ = path;
    through_ = descriptorOf(path_);
    if (through_ >= 0) {
        return Opened::kReady;
    }
    switch (entryTypeOf(path_.c_str())) {
        case EntryType::kLink:
            return Opened::kLink;
        case EntryType::kFolder:
            errno = EISDIR;
            return Opened::kFailed;
        case EntryType::kOther:
            return openThrough(path_.c_str()) ? Opened::kReady : Opened::kFailed;
        case EntryType::kUnknown:
            if (errno != ENOENT || path_.empty() || path_.back() == '/') {
                return Opened::kFailed;
            }
            [[fallthrough]];
        case EntryType::kFile:
            break;
    }
    return openDraft() ? Opened::kReady : Opened::kFailed;
}

bool Output::commit() noexcept {
    if (through_ >= 0) {
        return true;
    }
    if (!draft_) {
        return syncIfCan(file_) && file_.close();
    }
    if (!closeDurably(std::move(file_)) || os::rename(draft_->c_str(), path_.c_str()) != 0) {
        return false;
    }
    draft_->commit();
    return syncFolder(folder_.c_str());
}

}  // namespace os
