// SPDX-License-Identifier: Apache-2.0
// Owners of what must be given back to the operating system: descriptors, directory
// streams, unfinished files and read-write locks.
//
// Each owner belongs to one thread at a time. Destructors leave errno alone, so the
// reason of a failure survives the clean-up after it.
#ifndef OS_HANDLES_H
#define OS_HANDLES_H

#include <pthread.h>

#include <cerrno>
#include <string>
#include <utility>

#include <sched.h>

#include "os/fs.h"

namespace os {

// A descriptor, or none.
class File {
public:
    File() noexcept = default;
    explicit File(int fd) noexcept : fd_(fd) {}  // negative: none
    File(File&& other) noexcept : fd_(other.release()) {}
    File& operator=(File&& other) noexcept {
        File old(std::exchange(fd_, other.release()));
        return *this;
    }

    // Ignores the result of close: closeDurably() (os/files.h) has closed what had to reach
    // the disk; the rest is being given up or was only read.
    ~File() {
        const int kept = errno;
        (void)close();
        errno = kept;
    }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    int get() const noexcept { return fd_; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // False with errno when the system reports a failure, perhaps that of an earlier
    // write. The descriptor is gone in any case: an interrupted close has closed it, and
    // trying again could close another thread's.
    [[nodiscard]] bool close() noexcept {
        return fd_ < 0 || os::close(release()) == 0 || errno == EINTR;
    }

private:
    int fd_ = -1;
};

// A directory stream, or none.
class Dir {
public:
    Dir() noexcept = default;
    explicit Dir(DIR* stream) noexcept : stream_(stream) {}
    Dir(Dir&& other) noexcept : stream_(std::exchange(other.stream_, nullptr)) {}
    Dir& operator=(Dir&& other) noexcept {
        Dir old(std::exchange(stream_, std::exchange(other.stream_, nullptr)));
        return *this;
    }
    ~Dir() { close(); }

    explicit operator bool() const noexcept { return stream_ != nullptr; }
    DIR* get() const noexcept { return stream_; }

    // Has no result: nobody writes through a directory stream.
    void close() noexcept {
        if (stream_ != nullptr) {
            const int kept = errno;
            (void)os::closedir(std::exchange(stream_, nullptr));
            errno = kept;
        }
    }

private:
    DIR* stream_ = nullptr;
};

// The name of a file that is removed again unless commit() is called. Make it before the
// file, so that no failure can come between the two.
class TempPath {
public:
    explicit TempPath(std::string path) noexcept : path_(std::move(path)) {}
    TempPath(TempPath&& other) noexcept
        : path_(std::move(other.path_)), armed_(std::exchange(other.armed_, false)) {}
    TempPath& operator=(TempPath&&) = delete;
    ~TempPath() {
        if (armed_) {
            const int kept = errno;
            (void)os::remove(path_.c_str());  // the failure that led here is the one to report
            errno = kept;
        }
    }

    const std::string& path() const noexcept { return path_; }
    const char* c_str() const noexcept { return path_.c_str(); }

    // The file stays, or has another name by now.
    void commit() noexcept { armed_ = false; }

private:
    std::string path_;
    bool armed_ = true;
};

// Holds a read-write lock the way `Acquire` takes it. A null lock means "take none". If
// this very thread already holds the lock for writing, the system refuses (EDEADLK); the
// thread is then protected, and only the outer owner unlocks.
template <int (*Acquire)(pthread_rwlock_t*)>
class RwLockOwner {
public:
    explicit RwLockOwner(pthread_rwlock_t* lock) noexcept {
        if (lock == nullptr) {
            return;
        }
        int error = Acquire(lock);
        while (error == EAGAIN) {  // too many readers for the system to count
            sched_yield();
            error = Acquire(lock);
        }
        held_ = error == 0 ? lock : nullptr;
    }
    RwLockOwner(const RwLockOwner&) = delete;
    RwLockOwner& operator=(const RwLockOwner&) = delete;
    ~RwLockOwner() {
        if (held_ != nullptr) {
            (void)pthread_rwlock_unlock(held_);  // cannot fail for the thread that holds it
        }
    }

private:
    pthread_rwlock_t* held_ = nullptr;
};

using ReadLock = RwLockOwner<pthread_rwlock_rdlock>;
using WriteLock = RwLockOwner<pthread_rwlock_wrlock>;

}  // namespace os

#endif  // OS_HANDLES_H
