// A new name that takes nobody's place.
#ifndef OS_RENAME_NEW_H
#define OS_RENAME_NEW_H

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

namespace os {

// As renameat() within one folder, but fails with EEXIST when something has the name `to`. Some
// network file systems know no such call; there it replaces, and the caller's own look has to do.
[[nodiscard]] inline int renameNewAt(int folder, const char* from, const char* to) noexcept {
    if (::renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    return errno == EINVAL || errno == ENOSYS ? ::renameat(folder, from, folder, to) : -1;
}

}  // namespace os

#endif  // OS_RENAME_NEW_H
