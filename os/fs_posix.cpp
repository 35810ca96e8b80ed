#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "os/base.h"
#include "os/fs.h"
#include "os/rename_new.h"
#include "os/unnamed_file.h"

namespace {

// What the system calls an open descriptor.
std::array<char, 32> pathOf(int fd) noexcept {
    std::array<char, 32> path{};
    (void)std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", fd);
    return path;
}

}  // namespace

int os::open(const char* path, int flags, mode_t mode) noexcept {
    return ::openat(baseFolder(), path, flags, mode);
}

int os::close(int fd) noexcept {
    return ::close(fd);
}

ssize_t os::read(int fd, void* data, std::size_t size) noexcept {
    return ::read(fd, data, size);
}

ssize_t os::pread(int fd, void* data, std::size_t size, off_t at) noexcept {
    return ::pread(fd, data, size, at);
}

ssize_t os::write(int fd, const void* data, std::size_t size) noexcept {
    return ::write(fd, data, size);
}

ssize_t os::pwrite(int fd, const void* data, std::size_t size, off_t at) noexcept {
    return ::pwrite(fd, data, size, at);
}

int os::fstatfs(int fd, struct statfs* status) noexcept {
    return ::fstatfs(fd, status);
}

int os::forgetPages(int fd) noexcept {
    errno = ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);  // length 0: to the end
    return errno == 0 ? 0 : -1;
}

int os::fstat(int fd, struct stat* status) noexcept {
    return ::fstat(fd, status);
}

int os::fsync(int fd) noexcept {
    return ::fsync(fd);
}

int os::syncfs(int fd) noexcept {
    return ::syncfs(fd);
}

int os::startWriteback(int fd) noexcept {
    return ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);  // length 0: to the end
}

int os::flock(int fd, int operation) noexcept {
    return ::flock(fd, operation);
}

int os::access(const char* path, int mode) noexcept {
    return ::faccessat(baseFolder(), path, mode, 0);
}

int os::lstat(const char* path, struct stat* status) noexcept {
    return ::fstatat(baseFolder(), path, status, AT_SYMLINK_NOFOLLOW);
}

int os::rename(const char* from, const char* to) noexcept {
    return ::renameat(baseFolder(), from, baseFolder(), to);
}

int os::renameNew(const char* from, const char* to) noexcept {
    return renameNewAt(baseFolder(), from, to);
}

int os::link(const char* file, const char* to) noexcept {
    return ::linkat(baseFolder(), file, baseFolder(), to, 0);
}

int os::remove(const char* path) noexcept {
    return removeAtBase(path);
}

int os::mkdir(const char* path, mode_t mode) noexcept {
    return ::mkdirat(baseFolder(), path, mode);
}

int os::rmdir(const char* path) noexcept {
    return ::unlinkat(baseFolder(), path, AT_REMOVEDIR);
}

int os::utimens(const char* path, const timespec times[2]) noexcept {
    return ::utimensat(baseFolder(), path, times, AT_SYMLINK_NOFOLLOW);
}

char* os::realpath(const char* path, char* resolved) noexcept {
    return realpathAtBase(path, resolved);
}

DIR* os::opendir(const char* path) noexcept {
    return opendirAtBase(path);
}

dirent* os::readdir(DIR* dir) noexcept {
    return ::readdir(dir);  // NOLINT(concurrency-mt-unsafe): safe for a stream of its own
}

int os::closedir(DIR* dir) noexcept {
    return ::closedir(dir);
}

os::File os::openUnnamed(const char* folder) noexcept {
    constexpr mode_t kForOwner = 0600;
    return File(::openat(baseFolder(), folder, O_TMPFILE | O_WRONLY | O_CLOEXEC, kForOwner));
}

os::File os::reopen(const File& file, int flags) noexcept {
    return File(::openat(AT_FDCWD, pathOf(file.get()).data(), flags | O_CLOEXEC));
}

bool os::giveName(const File& file, const char* path) noexcept {
    return ::linkat(AT_FDCWD, pathOf(file.get()).data(), baseFolder(), path, AT_SYMLINK_FOLLOW) ==
           0;
}
