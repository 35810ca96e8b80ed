#include "lib/database/stamp.h"

#include <algorithm>

#include "format/layout.h"
#include "lib/base/time.h"
#include "os/fs.h"

namespace fstore {
namespace {

// Several times the step of the clock that file systems take their times from.
constexpr std::int64_t kSettledAfter = kSecond / 20;

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
    const bool settled = nanosecondsNow() - latest > kSettledAfter;
    return settled ? std::optional(stamp) : std::nullopt;
}

}  // namespace fstore
