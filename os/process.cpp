#include "os/process.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
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
volatile sig_atomic_t killedGroup = 0;
bool handlesSignals = false;
volatile sig_atomic_t notesInterrupt = 0;
std::atomic<bool> interruptNoted{false};
static_assert(std::atomic<bool>::is_always_lock_free);  // for a signal handler

// umask() would set it to know it, for all threads. The system shows it as "Umask:\t0022".
std::optional<mode_t> shownMask() noexcept {
    constexpr std::string_view kHead = "\nUmask:\t";
    char text[4096];
    const File file = openFile("/proc/self/status", O_RDONLY);
    const ssize_t size = file ? readSome(file.get(), text, sizeof text) : -1;
    const std::string_view status(text, size < 0 ? 0 : static_cast<std::size_t>(size));
    const std::size_t found = status.find(kHead);
    if (found == std::string_view::npos) {
        return std::nullopt;
    }
    const char* const first = status.data() + found + kHead.size();
    unsigned int mask = 0;
    const auto read = std::from_chars(first, status.data() + status.size(), mask, 8);
    return read.ec == std::errc() ? std::optional<mode_t>(mask) : std::nullopt;
}

void onSignal(int number) noexcept {
    if (number == SIGINT && notesInterrupt != 0 && !interruptNoted.exchange(true)) {
        return;
    }
    restoreEcho();
    if (removedPathIsWhole != 0) {
        (void)::unlink(removedPath);  // not through the seam: only this call may be made here
    }
    if (killedGroup != 0) {
        (void)::kill(-killedGroup, number);
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
        // The lowest free number is what open() gives, so the order fills the gaps. Each is opened
        // for what nobody does with it.
        const int access = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (::fcntl(fd, F_GETFD) < 0 && os::open("/dev/null", access, 0) != fd) {
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

void* mapForSecrets(std::size_t size) noexcept {
    void* const memory =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    (void)::mlock(memory, size);
    (void)::madvise(memory, size, MADV_DONTDUMP);
    return memory;
}

void installSignalHandlers() noexcept {
    handlesSignals = true;
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigfillset(&action.sa_mask);
    for (const int number : {SIGINT, SIGHUP, SIGTERM, SIGQUIT}) {
        struct sigaction before {};
        // What the parent ignores (nohup) stays ignored.
        if (::sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
            (void)::sigaction(number, &action, nullptr);
        }
    }
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);  // a limit is reached as a disk gets full
}

NotedInterrupt::NotedInterrupt() noexcept {
    interruptNoted = false;
    notesInterrupt = 1;
}

NotedInterrupt::~NotedInterrupt() {
    notesInterrupt = 0;
    interruptNoted = false;
}

bool isInterruptNoted() noexcept {
    return interruptNoted;
}

void removeOnSignal(const char* path) noexcept {
    if (!handlesSignals) {
        return;  // threads of a program that has its own ways may be here at once
    }
    removedPathIsWhole = 0;
    const std::size_t size = path == nullptr ? 0 : std::strlen(path) + 1;
    if (size != 0 && size <= sizeof removedPath) {
        std::memcpy(removedPath, path, size);
        removedPathIsWhole = 1;
    }
}

void killOnSignal(pid_t group) noexcept {
    killedGroup = group;
}

mode_t givenMask() noexcept {
    if (given) {
        return *given;
    }
    return shownMask().value_or(S_IRWXG | S_IRWXO);
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

QuietWrites::QuietWrites() noexcept {
    sigset_t quiet;
    sigemptyset(&quiet);
    sigaddset(&quiet, SIGXFSZ);
    sigaddset(&quiet, SIGPIPE);
    (void)::pthread_sigmask(SIG_BLOCK, &quiet, &before_);
    (void)::sigpending(&pending_);
}

QuietWrites::~QuietWrites() {
    sigset_t quiet;
    for (const int number : {SIGXFSZ, SIGPIPE}) {
        if (sigismember(&pending_, number) == 0) {
            sigemptyset(&quiet);
            sigaddset(&quiet, number);
            const timespec now{0, 0};
            while (::sigtimedwait(&quiet, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
    }
    (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool callInChildren(void (*function)()) noexcept {
    return ::pthread_atfork(nullptr, nullptr, function) == 0;
}

Locked lockFile(const File& file, LockKind kind, double seconds) noexcept {
    constexpr std::chrono::milliseconds kPause(20);
    constexpr double kForever = 1e9;  // thirty years; the clock cannot count to infinity
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(std::min(seconds, kForever)));
    const int operation = (kind == LockKind::kShared ? LOCK_SH : LOCK_EX) | LOCK_NB;
    for (;;) {
        if (os::flock(file.get(), operation) == 0) {
            return Locked::kYes;
        }
        if (errno == EINTR) {
            continue;  // nobody has said yet whether another process has it
        }
        if (errno != EWOULDBLOCK) {
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

bool giveTo(const File& file, uid_t user, gid_t group) noexcept {
    return ::fchown(file.get(), user, group) == 0;
}

bool isRoot() noexcept {
    return ::geteuid() == 0;
}

std::string hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : std::string();
}

long processId() noexcept {
    return ::getpid();
}

std::string programName() {
    return program_invocation_short_name != nullptr ? program_invocation_short_name : "";
}

bool isOwn(const struct stat& status) noexcept {
    return status.st_uid == ::geteuid();
}

bool unlockFile(const File& file) noexcept {
    return os::flock(file.get(), LOCK_UN) == 0;
}

}  // namespace os
