// Where relative paths begin, for one thread.
//
// That is the process's current folder until the thread makes a Base. While the Base lives,
// every call of os/fs.h that this thread makes with a relative path starts at the Base's folder
// instead. So one process can work in many folders at once without chdir(), and can walk a tree
// from descriptor to descriptor, where no link that somebody puts in the way leads elsewhere.
// Other threads are not affected.
#ifndef OS_BASE_H
#define OS_BASE_H

#include <dirent.h>

namespace os {

class Base {
public:
    // Relative paths start at `folder`, an open folder, which the caller owns and keeps open.
    // Bases nest; the thread destroys them in reverse order.
    explicit Base(int folder) noexcept;
    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;
    ~Base();

private:
    int before_;
};

// The folder of the innermost Base of this thread, or AT_FDCWD.
int baseFolder() noexcept;

// Replaces it, and returns the one before, for those who enter and leave a folder in calls
// of their own. Everyone else makes a Base.
int exchangeBaseFolder(int folder) noexcept;

// For the definitions of os/fs.h: the calls that the system does not offer relative to a
// descriptor. Results and errno as those of the plain calls.
[[nodiscard]] int removeAtBase(const char* path) noexcept;
[[nodiscard]] DIR* opendirAtBase(const char* path) noexcept;
[[nodiscard]] char* realpathAtBase(const char* path, char* resolved) noexcept;

}  // namespace os

#endif  // OS_BASE_H
