#include "lib/database/stamp.h"

#include <algorithm>
#include <chrono>

#include "format/layout.h"
#include "os/fs.h"

namespace fstore {
namespace {

// Several times the step of the clock that file systems take their times from.
constexpr std::chrono::nanoseconds kSettled = std::chrono::milliseconds(50);

std::int64_t nanoseconds(const timespec& time) {
    constexpr std::int64_t kASecond = 1'000'000'000;
    return std::int64_t{time.tv_sec} * kASecond + time.tv_nsec;
}

std::int64_t nanosecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

}  // namespace

std::optional<Stamp> Stamp::take() {
    struct stat status {};
    if (os::lstat(layout::kLive, &status) != 0 || !S_ISDIR(status.st_mode)) {
        return std::nullopt;
    }
    Stamp stamp;
    stamp.device_ = status.st_dev;
    stamp.inode_ = status.st_ino;
    stamp.changed_ = nanoseconds(status.st_ctim);
    stamp.modified_ = nanoseconds(status.st_mtim);
    const std::int64_t latest = std::max(stamp.changed_, stamp.modified_);
    const bool settled = nanosecondsNow() - latest > kSettled.count();
    return settled ? std::optional(stamp) : std::nullopt;
}

}  // namespace fstore
