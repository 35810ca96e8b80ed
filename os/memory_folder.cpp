#include "os/memory_folder.h"

#include <fcntl.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <utility>

#include <ftw.h>
#include <linux/magic.h>

#include "os/files.h"

namespace os {
namespace {

bool isInMemory(const char* path) noexcept {
    struct statfs status {};
    if (::statfs(path, &status) != 0) {
        return false;
    }
    const auto system = static_cast<unsigned int>(status.f_type);
    return system == TMPFS_MAGIC || system == RAMFS_MAGIC;
}

void overwrite(const char* path, off_t size) noexcept {
    constexpr char kZeros[4096] = {};
    const File file = openFile(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK);
    while (file && size > 0) {
        const auto piece = std::min<off_t>(size, sizeof kZeros);
        if (!writeAll(file.get(), kZeros, static_cast<std::size_t>(piece))) {
            return;
        }
        size -= piece;
    }
}

int clean(const char* path, const struct stat* status, int /*kind*/, FTW* /*at*/) noexcept {
    if (S_ISREG(status->st_mode)) {
        overwrite(path, status->st_size);
    }
    (void)os::remove(path);
    return 0;
}

// The second process: away from the terminal and its signals, with no file but the one that ends
// when the first one does.
[[noreturn]] void waitAndClean(const std::string& path, const File& lifeline) noexcept {
    (void)::setsid();
    for (const int number : {SIGINT, SIGHUP, SIGTERM, SIGQUIT}) {
        (void)::signal(number, SIG_IGN);
    }
    const int kept = ::dup2(lifeline.get(), 0);
    (void)::close_range(1, ~0U, 0);
    char nothing = 0;
    while (kept == 0 && readSome(0, &nothing, 1) > 0) {
    }
    constexpr int kMostOpen = 16;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this process has one thread
    (void)::nftw(path.c_str(), clean, kMostOpen, FTW_DEPTH | FTW_PHYS);
    ::_exit(0);
}

}  // namespace

MemoryFolder::MemoryFolder() noexcept {
    const char* const ofUser = ::secure_getenv("XDG_RUNTIME_DIR");
    for (const char* const place : {"/dev/shm", ofUser}) {
        if (place == nullptr || !isInMemory(place)) {
            continue;
        }
        try {
            path_ = std::string(place) + "/fstore-XXXXXX";
        } catch (const std::bad_alloc&) {
            return;
        }
        if (::mkdtemp(path_.data()) != nullptr) {
            if (!startCleaner()) {
                (void)os::rmdir(path_.c_str());
                path_.clear();
            }
            return;
        }
        path_.clear();
    }
}

bool MemoryFolder::startCleaner() noexcept {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const File waited(ends[0]);
    File lifeline(ends[1]);
    cleaner_ = ::fork();
    if (cleaner_ == 0) {
        waitAndClean(path_, waited);
    }
    lifeline_ = std::move(lifeline);
    return cleaner_ > 0;
}

MemoryFolder::~MemoryFolder() {
    if (path_.empty()) {
        return;
    }
    (void)lifeline_.close();
    while (::waitpid(cleaner_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace os
