#include "os/base.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace os {
namespace {

thread_local int base = AT_FDCWD;

}  // namespace

Base::Base(int folder) noexcept : before_(exchangeBaseFolder(folder)) {}

Base::~Base() {
    base = before_;
}

int baseFolder() noexcept {
    return base;
}

int exchangeBaseFolder(int folder) noexcept {
    return std::exchange(base, folder);
}

int removeAtBase(const char* path) noexcept {
    const int removed = ::unlinkat(base, path, 0);
    return removed != 0 && errno == EISDIR ? ::unlinkat(base, path, AT_REMOVEDIR) : removed;
}

DIR* opendirAtBase(const char* path) noexcept {
    if (base == AT_FDCWD) {
        return ::opendir(path);
    }
    const int fd = ::openat(base, path, O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_CLOEXEC);
    DIR* const stream = fd < 0 ? nullptr : ::fdopendir(fd);
    if (stream == nullptr && fd >= 0) {
        const int kept = errno;
        (void)::close(fd);
        errno = kept;
    }
    return stream;
}

char* realpathAtBase(const char* path, char* resolved) noexcept {
    if (base == AT_FDCWD || path == nullptr || path[0] == '/' || path[0] == '\0') {
        return ::realpath(path, resolved);
    }
    char absolute[PATH_MAX];
    const int size = std::snprintf(absolute, sizeof absolute, "/proc/self/fd/%d/%s", base, path);
    if (size < 0 || static_cast<std::size_t>(size) >= sizeof absolute) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    return ::realpath(absolute, resolved);
}

}  // namespace os
