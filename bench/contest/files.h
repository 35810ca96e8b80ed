// Steps with files that several contenders take, each of which must succeed.
#ifndef BENCH_CONTEST_FILES_H
#define BENCH_CONTEST_FILES_H

#include <fcntl.h>

#include <string>

#include "bench/contest/contender.h"
#include "os/fs.h"

inline bool exists(const std::string& path) {
    return os::access(path.c_str(), F_OK) == 0;
}

inline void renameFile(const std::string& from, const std::string& to) {
    require(os::rename(from.c_str(), to.c_str()) == 0, "a file is not renamed");
}

inline void removeFile(const std::string& path) {
    require(os::remove(path.c_str()) == 0, "a file is not removed");
}

inline void syncFolder(const std::string& folder) {
    const int fd = os::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    require(fd >= 0 && os::fsync(fd) == 0 && os::close(fd) == 0,
            "a folder does not become durable");
}

// Waits until all that the current folder's disk was given is on it.
inline void syncDisk() {
    const int fd = os::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    require(fd >= 0 && os::syncfs(fd) == 0 && os::close(fd) == 0, "the disk does not sync");
}

#endif  // BENCH_CONTEST_FILES_H
