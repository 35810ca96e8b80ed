// SPDX-License-Identifier: Apache-2.0
// The one seam between this system and the file system.
//
// Every function has the name, arguments, result and errno of the system call
// behind it and does nothing else, not even a retry. The build target chooses
// the definitions: products make the calls; tests can have calls fail, fall short,
// kill the process or lose power. Any thread may call any of them.
#ifndef OS_FS_H
#define OS_FS_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include <cstddef>

// Records of 2 GiB, entries with 64-bit inode numbers and files dated after January
// 2038 are met on 32-bit systems too, and the shapes of `struct stat` must not be mixed.
static_assert(sizeof(off_t) == 8, "compile with _FILE_OFFSET_BITS=64");
static_assert(sizeof(time_t) == 8, "compile with _TIME_BITS=64 as well");

namespace os {

// Descriptors. O_CLOEXEC is the caller's to give; `mode` counts when O_CREAT is set.
[[nodiscard]] int open(const char* path, int flags, mode_t mode) noexcept;
[[nodiscard]] int close(int fd) noexcept;
[[nodiscard]] ssize_t read(int fd, void* data, std::size_t size) noexcept;
[[nodiscard]] ssize_t pread(int fd, void* data, std::size_t size, off_t at) noexcept;
[[nodiscard]] ssize_t write(int fd, const void* data, std::size_t size) noexcept;
[[nodiscard]] ssize_t pwrite(int fd, const void* data, std::size_t size, off_t at) noexcept;
[[nodiscard]] int fstat(int fd, struct stat* status) noexcept;
[[nodiscard]] int fstatfs(int fd, struct statfs* status) noexcept;
// What this host has cached of a file, and has written, is read anew (posix_fadvise).
[[nodiscard]] int forgetPages(int fd) noexcept;

// Durability. startWriteback() begins to write a file's dirty pages and does
// not wait (sync_file_range); it promises nothing and is only a hint.
[[nodiscard]] int fsync(int fd) noexcept;
[[nodiscard]] int syncfs(int fd) noexcept;
int startWriteback(int fd) noexcept;

// The advisory lock of a whole file, which ends with the descriptor.
[[nodiscard]] int flock(int fd, int operation) noexcept;

// Names.
[[nodiscard]] int access(const char* path, int mode) noexcept;
[[nodiscard]] int lstat(const char* path, struct stat* status) noexcept;
[[nodiscard]] int rename(const char* from, const char* to) noexcept;
[[nodiscard]] int renameNew(const char* from, const char* to) noexcept;  // as renameNewAt()
[[nodiscard]] int link(const char* file, const char* to) noexcept;  // a second name, which is new
[[nodiscard]] int remove(const char* path) noexcept;                // a file or an empty folder
[[nodiscard]] int mkdir(const char* path, mode_t mode) noexcept;
[[nodiscard]] int rmdir(const char* path) noexcept;
[[nodiscard]] int utimens(const char* path,
                          const timespec times[2]) noexcept;  // not of a link's target
[[nodiscard]] char* realpath(const char* path, char* resolved) noexcept;

// Directory streams.
[[nodiscard]] DIR* opendir(const char* path) noexcept;
[[nodiscard]] dirent* readdir(DIR* dir) noexcept;
int closedir(DIR* dir) noexcept;

}  // namespace os

#endif  // OS_FS_H
