#include "os/files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace os {
namespace {

// Repeats a call that a signal interrupted.
template <typename Call>
auto uninterrupted(Call call) noexcept {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

EntryType typeOfMode(mode_t mode) noexcept {
    if (S_ISDIR(mode)) {
        return EntryType::kFolder;
    }
    if (S_ISLNK(mode)) {
        return EntryType::kLink;
    }
    return S_ISREG(mode) ? EntryType::kFile : EntryType::kOther;
}

// What a file system answers that has no way to sync a folder: a local one EINVAL, one
// on a server also that the descriptor is none to it, or that the call is not supported.
bool cannotSyncFolders(int error) noexcept {
    return error == EINVAL || error == EBADF || error == ENOTSUP;
}

}  // namespace

File openFile(const char* path, int flags, mode_t mode) noexcept {
    return File(uninterrupted([&] { return os::open(path, flags | O_CLOEXEC, mode); }));
}

File createAnew(const char* path) noexcept {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL;
    File file = openFile(path, kFlags);
    if (!file && errno == EEXIST) {
        const EntryType kind = entryTypeOf(path);
        const bool goes = kind != EntryType::kFolder && kind != EntryType::kUnknown;
        if (goes && os::remove(path) == 0) {
            file = openFile(path, kFlags);
        }
    }
    return file;
}

Dir openFolder(const char* path) noexcept {
    DIR* stream = os::opendir(path);
    while (stream == nullptr && errno == EINTR) {
        stream = os::opendir(path);
    }
    return Dir(stream);
}

Opened openRegular(const char* path, File& file, off_t& size, Links links) noexcept {
    const int noFollow = links == Links::kRefuse ? O_NOFOLLOW : 0;
    File opened = openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | noFollow);
    struct stat status {};
    if (!opened || os::fstat(opened.get(), &status) != 0) {
        return Opened::kFailed;
    }
    if (!S_ISREG(status.st_mode)) {
        return Opened::kNotRegular;
    }
    file = std::move(opened);
    size = status.st_size;
    return Opened::kRegular;
}

ssize_t readSome(int fd, void* data, std::size_t size) noexcept {
    return uninterrupted([&] { return os::read(fd, data, size); });
}

bool readAll(int fd, void* data, std::size_t size) noexcept {
    auto* next = static_cast<char*>(data);
    while (size != 0) {
        const ssize_t got = readSome(fd, next, size);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            errno = 0;
            return false;
        }
        next += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool writeAll(int fd, const void* data, std::size_t size) noexcept {
    const auto* next = static_cast<const char*>(data);
    while (size != 0) {
        const ssize_t stored = uninterrupted([&] { return os::write(fd, next, size); });
        if (stored < 0) {
            return false;
        }
        if (stored == 0) {
            errno = EIO;  // no progress and no reason; asking for ever would hang
            return false;
        }
        next += stored;
        size -= static_cast<std::size_t>(stored);
    }
    return true;
}

File copyInMemory(const File& file) noexcept {
    File copy(::memfd_create("copy", MFD_CLOEXEC));
    char piece[1 << 16];
    ssize_t size = copy ? readSome(file.get(), piece, sizeof piece) : -1;
    for (; size > 0; size = readSome(file.get(), piece, sizeof piece)) {
        if (!writeAll(copy.get(), piece, static_cast<std::size_t>(size))) {
            return File();
        }
    }
    return size < 0 ? File() : std::move(copy);
}

bool closeDurably(File file) noexcept {
    // A sync that failed is not tried again: the system may have dropped the
    // unwritten pages with the error, and the second call would succeed.
    return uninterrupted([&] { return os::fsync(file.get()); }) == 0 && file.close();
}

bool syncFolder(const char* path) noexcept {
    File folder = openFile(path, O_RDONLY | O_DIRECTORY);
    if (!folder) {
        return false;
    }
    const bool synced = uninterrupted([&] { return os::fsync(folder.get()); }) == 0;
    return (synced || cannotSyncFolders(errno)) && folder.close();
}

Presence presence(const char* path) noexcept {
    if (os::access(path, F_OK) == 0) {
        return Presence::kPresent;
    }
    // The last two say that nothing can be reached by this name: no file can have it, or
    // its links lead in a circle.
    const bool isAbsent =
        errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG || errno == ELOOP;
    return isAbsent ? Presence::kAbsent : Presence::kUnknown;
}

dirent* nextEntry(DIR* dir) noexcept {
    dirent* entry = nullptr;
    do {
        errno = 0;  // readdir() tells a failure from the end by errno alone
        entry = os::readdir(dir);
    } while (entry == nullptr && errno == EINTR);
    if (entry == nullptr && errno == ENOENT) {
        errno = 0;
    }
    return entry;
}

EntryType entryType(const dirent& entry) noexcept {
    return entry.d_type == DT_UNKNOWN ? EntryType::kUnknown
                                      : typeOfMode(DTTOIF(static_cast<mode_t>(entry.d_type)));
}

EntryType entryTypeOf(const char* path) noexcept {
    struct stat status {};
    return os::lstat(path, &status) == 0 ? typeOfMode(status.st_mode) : EntryType::kUnknown;
}

}  // namespace os
