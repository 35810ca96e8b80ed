// Whether anything was created, renamed or removed in "./db" since somebody looked, or another
// folder has taken its place.
//
// For one thread, inside the folder, which other processes cannot change meanwhile.
#ifndef LIB_DATABASE_STAMP_H
#define LIB_DATABASE_STAMP_H

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace fstore {

class Stamp {
public:
    // That of "./db" as it is now. None when it has changed so lately that another change could get
    // the same time, as the times of files are coarse; when it is dated in the future; and when it
    // is no folder or cannot be examined.
    static std::optional<Stamp> take();

    bool operator==(const Stamp&) const = default;

private:
    dev_t device_ = 0;
    ino_t inode_ = 0;
    std::int64_t changed_ = 0, modified_ = 0;  // nanoseconds since 1970
};

}  // namespace fstore

#endif  // LIB_DATABASE_STAMP_H
