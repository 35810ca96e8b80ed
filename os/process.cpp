#include "os/process.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "os/files.h"
#include "os/terminal_echo.h"

namespace os {
namespace {

constexpr int kInterruptedExit = 130;

std::optional<mode_t> given;  // the umask that keepSecrets() found

// The path that a handler removes. It may be cut short by a handler that runs in
// the midst of a change: the flag says whether it is whole.
char removedPath[PATH_MAX];
volatile sig_atomic_t removedPathIsWhole = 0;

void onSignal(int number) noexcept {
    restoreEcho();
    if (removedPathIsWhole != 0) {
        (void)::unlink(removedPath);  // not through the seam: only this call may be made here
    }
    if (number == SIGINT) {
        ::_exit(kInterruptedExit);
    }
    ::signal(number, SIG_DFL);
    (void)::raise(number);  // delivered when this handler returns
}

}  // namespace

bool occupyStandardStreams() noexcept {
    for (int fd = 0; fd <= 2; ++fd) {
        // The lowest free number is what open() gives, so the order fills the gaps.
        if (::fcntl(fd, F_GETFD) < 0 && os::open("/dev/null", O_RDWR, 0) != fd) {
            return false;
        }
    }
    return true;
}

bool keepSecrets() noexcept {
    const rlimit none{0, 0};
    const mode_t mask = ::umask(S_IRWXG | S_IRWXO);
    given = given.value_or(mask);
    const bool noCore = ::setrlimit(RLIMIT_CORE, &none) == 0;
    return ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 && noCore;
}

void installSignalHandlers() noexcept {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigfillset(&action.sa_mask);
    for (const int number : {SIGINT, SIGHUP, SIGTERM}) {
        struct sigaction before {};
        // What the parent ignores (nohup) stays ignored.
        if (::sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
            (void)::sigaction(number, &action, nullptr);
        }
    }
    ::signal(SIGPIPE, SIG_IGN);
}

void removeOnSignal(const char* path) noexcept {
    removedPathIsWhole = 0;
    const std::size_t size = path == nullptr ? 0 : std::strlen(path) + 1;
    if (size != 0 && size <= sizeof removedPath) {
        std::memcpy(removedPath, path, size);
        removedPathIsWhole = 1;
    }
}

mode_t givenMask() noexcept {
    if (given) {
        return *given;
    }
    const mode_t mask = ::umask(S_IRWXG | S_IRWXO);  // asking is setting
    ::umask(mask);
    return mask;
}

std::string currentFolder() {
    char* const path = os::realpath(".", nullptr);
    if (path == nullptr) {
        return {};
    }
    std::string folder(path);
    std::free(path);
    return folder;
}

void forgetVariable(const char* name) noexcept {
    // For a program that has one thread still.
    if (char* const value = std::getenv(name)) {  // NOLINT(concurrency-mt-unsafe)
        ::explicit_bzero(value, std::strlen(value));
        (void)::unsetenv(name);  // NOLINT(concurrency-mt-unsafe)
    }
}

Locked lockFile(const File& file, LockKind kind, double seconds) noexcept {
    constexpr std::chrono::milliseconds kPause(20);
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(seconds));
    const int operation = (kind == LockKind::kShared ? LOCK_SH : LOCK_EX) | LOCK_NB;
    for (;;) {
        if (::flock(file.get(), operation) == 0) {
            return Locked::kYes;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return Locked::kFailed;
        }
        // The system's own wait has no limit but a signal; asking again has one.
        if (std::chrono::steady_clock::now() >= end) {
            return Locked::kBusy;
        }
        std::this_thread::sleep_for(kPause);
    }
}

bool setPermissions(const File& file, mode_t mode) noexcept {
    return ::fchmod(file.get(), mode) == 0;
}

bool unlockFile(const File& file) noexcept {
    return ::flock(file.get(), LOCK_UN) == 0;
}

}  // namespace os
