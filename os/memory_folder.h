// A folder for files with secrets that another program is to read and change by their names.
//
// Its files are in memory, in a folder that only this user may enter, and never on a disk, but for
// what the system swaps. Whatever becomes of this process, also when it is killed, what is in the
// folder is overwritten and removed: a second process waits for that, and for nothing else.
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
    bool startCleaner() noexcept;

    std::string path_;
    File lifeline_;  // its end is what the second process waits for
    pid_t cleaner_ = 0;
};

}  // namespace os

#endif  // OS_MEMORY_FOLDER_H
