// Preloaded into fstore: counts the calls by which it changes what is on disk, of the
// program and of every module it loads, and strikes at one of them.
//
//     CALL_TRAP_COUNT=FILE   writes the number of calls to FILE, when the process ends
//     CALL_TRAP_DIE=N        the process dies in front of its Nth call, as by SIGKILL;
//                            when that is a write, half of it is stored before
//     CALL_TRAP_FAIL=N       the Nth call fails with the number in CALL_TRAP_ERRNO
//     CALL_TRAP_FAIL_FROM=N  that one and all after it fail
//     CALL_TRAP_FULL=N       from the Nth call on the disk is full: what would take room
//                            fails, and what only renames, removes or syncs does not
//     CALL_TRAP_NO_LOCK=1    flock() succeeds and locks nothing
//     CALL_TRAP_NO_UNNAMED=1 there are no files without a name, as on many file systems
//     CALL_TRAP_NO_NAME=N    no file without a name gets one: that fails with errno N
//     CALL_TRAP_SCRYPT=FILE  each derivation with scrypt adds a byte to FILE
//     CALL_TRAP_PAUSE=N      each opening of a descriptor file takes N milliseconds longer
//     CALL_TRAP_STOP=NAME:N  the process stops in front of its Nth call of this function, as by
//                            SIGSTOP; for the functions below that change the disk by a name or a
//                            sync, and for "question": that takes a lock which it has already
//
// Calls that only look are not counted: in front of one, the disk is as in front of the
// next call that changes it.

// Without this, <fcntl.h> gives openat() the name openat64; both have to be told apart here.
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

std::atomic<long> calls{0};

long setting(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? 0 : std::atol(value);
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

[[noreturn]] void die() {
    (void)raise(SIGKILL);
    _exit(1);
}

enum class Fate { kGoOn, kFail, kDie };

// Whether a call takes room on the disk.
enum class Room { kNone, kTaken };

Fate nextCall(Room room) {
    static const long dieAt = setting("CALL_TRAP_DIE");
    static const long failAt = setting("CALL_TRAP_FAIL");
    static const long failFrom = setting("CALL_TRAP_FAIL_FROM");
    static const long fullFrom = setting("CALL_TRAP_FULL");
    const long number = ++calls;
    if (number == dieAt) {
        return Fate::kDie;
    }
    if (number == failAt || (failFrom != 0 && number >= failFrom)) {
        errno = static_cast<int>(setting("CALL_TRAP_ERRNO"));
        return Fate::kFail;
    }
    if (fullFrom != 0 && number >= fullFrom && room == Room::kTaken) {
        errno = ENOSPC;
        return Fate::kFail;
    }
    return Fate::kGoOn;
}

void stopAt(std::string_view name) {
    static const char* const wanted = std::getenv("CALL_TRAP_STOP");
    static std::atomic<long> turns{0};
    if (wanted == nullptr) {
        return;
    }
    const std::string_view text = wanted;
    const std::size_t colon = text.find(':');
    if (text.substr(0, colon) == name && ++turns == std::atol(wanted + colon + 1)) {
        (void)raise(SIGSTOP);
    }
}

// The call of the function `name`, unless its turn has come.
template <class Result, class... Args>
Result pass(Room room, const char* name, Args... args) {
    stopAt(name);
    switch (nextCall(room)) {
        case Fate::kDie:
            die();
        case Fate::kFail:
            return static_cast<Result>(-1);
        case Fate::kGoOn:
            break;
    }
    return next<Result(Args...)>(name)(args...);
}

void pauseAt(const char* path) {
    static const long pause = setting("CALL_TRAP_PAUSE");
    const std::string_view name = path;
    if (pause != 0 && name.ends_with(".dsc")) {
        (void)usleep(static_cast<useconds_t>(pause) * 1000);
    }
}

int openFile(const char* name, int folder, const char* path, int flags, mode_t mode) {
    pauseAt(path);
    static const bool knowsUnnamed = setting("CALL_TRAP_NO_UNNAMED") == 0;
    if ((flags & O_TMPFILE) == O_TMPFILE && !knowsUnnamed) {
        errno = EOPNOTSUPP;
        return -1;
    }
    if ((flags & (O_CREAT | O_TRUNC)) == 0) {
        return next<int(int, const char*, int, ...)>(name)(folder, path, flags, mode);
    }
    switch (nextCall(Room::kTaken)) {
        case Fate::kDie:
            die();
        case Fate::kFail:
            return -1;
        case Fate::kGoOn:
            break;
    }
    return next<int(int, const char*, int, ...)>(name)(folder, path, flags, mode);
}

bool isOnDisk(int fd) {
    struct stat status {};
    return fd > 2 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

template <class Offset>
ssize_t writeAt(const char* name, int fd, const void* data, size_t size, Offset at) {
    auto* const real = next<ssize_t(int, const void*, size_t, Offset)>(name);
    switch (nextCall(Room::kTaken)) {
        case Fate::kDie:
            (void)real(fd, data, size / 2, at);
            die();
        case Fate::kFail:
            return -1;
        case Fate::kGoOn:
            break;
    }
    return real(fd, data, size, at);
}

void countScrypt() {
    const char* const path = std::getenv("CALL_TRAP_SCRYPT");
    std::FILE* const file = path == nullptr ? nullptr : std::fopen(path, "a");
    if (file != nullptr) {
        std::fputc('s', file);
        std::fclose(file);
    }
}

struct Report {
    ~Report() {
        const char* const path = std::getenv("CALL_TRAP_COUNT");
        std::FILE* const file = path == nullptr ? nullptr : std::fopen(path, "w");
        if (file != nullptr) {
            std::fprintf(file, "%ld\n", calls.load());
            std::fclose(file);
        }
    }
} report;

}  // namespace

extern "C" {

int openat(int folder, const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    return openFile("openat", folder, path, flags, mode);
}

int openat64(int folder, const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    return openFile("openat64", folder, path, flags, mode);
}

ssize_t write(int fd, const void* data, size_t size) {
    auto* const real = next<ssize_t(int, const void*, size_t)>("write");
    if (!isOnDisk(fd)) {
        return real(fd, data, size);
    }
    switch (nextCall(Room::kTaken)) {
        case Fate::kDie:
            (void)real(fd, data, size / 2);
            die();
        case Fate::kFail:
            return -1;
        case Fate::kGoOn:
            break;
    }
    return real(fd, data, size);
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as the system has them
ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
    return writeAt<off_t>("pwrite", fd, data, size, at);
}
ssize_t pwrite64(int fd, const void* data, size_t size, off64_t at) {
    return writeAt<off64_t>("pwrite64", fd, data, size, at);
}

int fsync(int fd) {
    return pass<int>(Room::kNone, "fsync", fd);
}
int syncfs(int fd) noexcept {
    return pass<int>(Room::kNone, "syncfs", fd);
}
int renameat(int from, const char* name, int to, const char* newName) noexcept {
    return pass<int>(Room::kNone, "renameat", from, name, to, newName);
}
int renameat2(int from, const char* name, int to, const char* newName,
              unsigned int flags) noexcept {
    return pass<int>(Room::kNone, "renameat2", from, name, to, newName, flags);
}
int unlinkat(int folder, const char* path, int flags) noexcept {
    return pass<int>(Room::kNone, "unlinkat", folder, path, flags);
}
int mkdirat(int folder, const char* path, mode_t mode) noexcept {
    return pass<int>(Room::kTaken, "mkdirat", folder, path, mode);
}

int linkat(int from, const char* name, int to, const char* newName, int flags) noexcept {
    static const long refusal = setting("CALL_TRAP_NO_NAME");
    if (refusal != 0 && (flags & AT_SYMLINK_FOLLOW) != 0) {
        errno = static_cast<int>(refusal);
        return -1;
    }
    return pass<int>(Room::kTaken, "linkat", from, name, to, newName, flags);
}
int symlinkat(const char* text, int folder, const char* path) noexcept {
    return pass<int>(Room::kTaken, "symlinkat", text, folder, path);
}

// OpenSSL's: whoever derives fetches the function first.
void* EVP_KDF_fetch(void* library, const char* algorithm, const char* properties) {
    if (std::string_view(algorithm) == "SCRYPT") {
        countScrypt();
    }
    return next<void*(void*, const char*, const char*)>("EVP_KDF_fetch")(library, algorithm,
                                                                         properties);
}

int flock(int fd, int operation) noexcept {
    static std::atomic<int> held{-1};  // one is enough: that of the lock file is the first
    if (operation == (LOCK_EX | LOCK_NB) && held == fd) {
        stopAt("question");
    }
    static const bool locks = setting("CALL_TRAP_NO_LOCK") == 0;
    const int result = locks ? next<int(int, int)>("flock")(fd, operation) : 0;
    if (result == 0 && (operation & LOCK_EX) != 0 && held == -1) {
        held = fd;
    } else if ((operation & LOCK_UN) != 0 && held == fd) {
        held = -1;
    }
    return result;
}

}  // extern "C"
