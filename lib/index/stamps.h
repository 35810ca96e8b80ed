// What tells that a folder, or a file in it, is still as it was.
//
// Any thread may call these, inside the folder of a database.
#ifndef LIB_INDEX_STAMPS_H
#define LIB_INDEX_STAMPS_H

#include <cstdint>
#include <optional>
#include <string>

namespace fstore {

// Of a folder, which every name that is created, renamed or removed in it changes. The time of the
// last change of its node is in it, too, and nobody sets that: so one that was restored with
// its times is not the one that was there before.
struct FolderStamp {
    std::int64_t device = 0, inode = 0;
    std::int64_t modified = 0, changed = 0;  // nanoseconds since 1970

    // None for what is no folder, and a link is none.
    static std::optional<FolderStamp> of(const std::string& path);

    // The times of files are coarse, and what changes twice within a step of the clock changes them
    // once. So this sets the time of the folder to one that no clock will show again: about ten
    // seconds ago, to a nanosecond that is drawn by lot. None when the system refuses.
    static std::optional<FolderStamp> set(const std::string& path);

    // Whether it is so old that a change from now on shows in it, whoever set it.
    bool isSettled() const;

    bool operator==(const FolderStamp&) const = default;
};

// Of a descriptor.
struct FileStamp {
    std::int64_t inode = 0, size = 0;
    std::int64_t modified = 0, changed = 0;  // nanoseconds since 1970

    // None for what is no regular file.
    static std::optional<FileStamp> of(const std::string& path);

    bool isSettled() const;

    bool operator==(const FileStamp&) const = default;
};

}  // namespace fstore

#endif  // LIB_INDEX_STAMPS_H
