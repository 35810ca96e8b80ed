#include "lib/index/stamps.h"

#include <algorithm>
#include <random>

#include "lib/base/time.h"
#include "os/fs.h"

namespace fstore {
namespace {

// More than the step of any clock that file systems take their times from.
constexpr std::int64_t kSettled = 2 * kSecond;
constexpr std::int64_t kAgo = 10;  // seconds

// One that is dated in the future is not settled either: the clock was set back.
bool isOld(std::int64_t modified, std::int64_t changed) {
    return nanosecondsNow() - std::max(modified, changed) > kSettled;
}

}  // namespace

std::optional<FolderStamp> FolderStamp::of(const std::string& path) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return std::nullopt;
    }
    return FolderStamp{static_cast<std::int64_t>(status.st_dev),
                       static_cast<std::int64_t>(status.st_ino), nanoseconds(status.st_mtim),
                       nanoseconds(status.st_ctim)};
}

std::optional<FolderStamp> FolderStamp::set(const std::string& path) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(nanosecondsNow() / kSecond - kAgo);
    times[1].tv_nsec = 1 + static_cast<long>(std::random_device{}() % (kSecond - 1));
    if (os::utimens(path.c_str(), times) != 0) {
        return std::nullopt;
    }
    // Where times are kept in whole seconds, nothing tells this one from the next.
    auto stamp = of(path);
    return stamp && stamp->modified == nanoseconds(times[1]) ? stamp : std::nullopt;
}

bool FolderStamp::isSettled() const {
    return isOld(modified, changed);
}

std::optional<FileStamp> FileStamp::of(const std::string& path) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return FileStamp{static_cast<std::int64_t>(status.st_ino),
                     static_cast<std::int64_t>(status.st_size), nanoseconds(status.st_mtim),
                     nanoseconds(status.st_ctim)};
}

bool FileStamp::isSettled() const {
    return isOld(modified, changed);
}

}  // namespace fstore
