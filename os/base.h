// Where relative paths begin, for one thread.
//
// That is the process's current folder, as everywhere, until the thread makes a Base: while it
// lives, every call of os/fs.h that this thread makes with a relative path begins at the Base's
// folder instead. So one process can work in many folders at once without chdir(), and a tree
// can be walked from descriptor to descriptor, where no link that somebody puts in the way leads
// elsewhere. Other threads are not concerned.
#ifndef OS_BASE_H
#define OS_BASE_H

#include <dirent.h>

namespace os {

class Base {
public:
    // Relative paths begin at `folder`, an open folder, which stays the caller's and stays
    // open. Bases nest; the thread ends them in the reverse order.
    explicit Base(int folder) noexcept;
    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;
    ~Base();

private:
    int before_;
};

// The folder of the innermost Base of this thread, or AT_FDCWD.
int baseFolder() noexcept;

// For the definitions of os/fs.h: the calls that the system does not offer relative to a
// descriptor. Results and errno as those of the plain calls.
[[nodiscard]] int removeAtBase(const char* path) noexcept;
[[nodiscard]] DIR* opendirAtBase(const char* path) noexcept;
[[nodiscard]] char* realpathAtBase(const char* path, char* resolved) noexcept;

}  // namespace os

#endif  // OS_BASE_H
