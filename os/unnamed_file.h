// Files that no folder knows, until they are given a name.
//
// As os/fs.h a seam: the build target chooses the definitions. Any thread may call these; relative
// paths begin at its os::Base. A failure leaves its reason in errno.
#ifndef OS_UNNAMED_FILE_H
#define OS_UNNAMED_FILE_H

#include "os/handles.h"

namespace os {

// A new file for its owner alone, open for writing, that will be in this folder. An empty File
// where the file system has no such files (EOPNOTSUPP, EISDIR, EINVAL), and on failure. It is gone
// with its last descriptor.
[[nodiscard]] File openUnnamed(const char* folder) noexcept;

// Opens anew what a descriptor of this process has open, whether it has a name or not; an empty
// File on failure, as where /proc is not mounted.
[[nodiscard]] File reopen(const File& file, int flags) noexcept;

// Gives the file a name in its folder; false with EEXIST when something has it.
[[nodiscard]] bool giveName(const File& file, const char* path) noexcept;

}  // namespace os

#endif  // OS_UNNAMED_FILE_H
