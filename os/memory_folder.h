// A folder for files with secrets that another program is to read and change by their names.
//
// Its files are in memory, in a folder that only this user may enter, and never on a disk, but for
// what the system swaps. Whatever becomes of this process, also when it is killed, what is in the
// folder is overwritten and removed: a second process waits for that, and for nothing else. When
// that one is killed as well, the next folder of the same user that is made does it: the lock on a
// folder ends with these two processes, and what is not locked has no owner.
//
// For a program's main thread, while there is no other.
#ifndef OS_MEMORY_FOLDER_H
#define OS_MEMORY_FOLDER_H

#include <sys/types.h>

#include <string>

#include "os/handles.h"

namespace os {

class MemoryFolder {
public:
    MemoryFolder() noexcept;
    MemoryFolder(const MemoryFolder&) = delete;
    MemoryFolder& operator=(const MemoryFolder&) = delete;
    ~MemoryFolder();  // when it returns, nothing is left

    // Empty when there is no file system in memory, or the second process could not be started.
    const std::string& path() const noexcept { return path_; }

private:
    enum class Made { kMine, kLost, kFailed };
    Made makeIn(const std::string& place);
    bool startCleaner() noexcept;

    std::string path_;
    std::string lockPath_;  // of a file in it
    File lock_;
    File lifeline_;  // its end is what the second process waits for
    pid_t cleaner_ = 0;
};

}  // namespace os

#endif  // OS_MEMORY_FOLDER_H
