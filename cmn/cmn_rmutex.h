// SPDX-License-Identifier: Apache-2.0
// The framework's two mutexes.
//
// CMN_Mutex is a POSIX mutex with default attributes. CMN_RecursiveMutex is a
// recursive one that the framework builds on such a mutex: any thread may call
// enter() and tryenter(); each success is undone by one exit() of the same
// thread. exit() trusts its caller and does not check it.
#ifndef CMN_CMN_RMUTEX_H
#define CMN_CMN_RMUTEX_H

#include <pthread.h>

#include <atomic>

#include "cmn/export.h"
#include "cmn/thread_annotations.h"

// True when both identify the same thread.
constexpr bool thr_equal(unsigned long a, unsigned long b) noexcept {
    return a == b;
}

class CMN_EXPORT CMN_CAPABILITY("mutex") CMN_Mutex {
public:
    constexpr CMN_Mutex() noexcept = default;
    virtual ~CMN_Mutex();  // the mutex must be free

    CMN_Mutex(const CMN_Mutex&) = delete;
    CMN_Mutex& operator=(const CMN_Mutex&) = delete;

    void lock() CMN_ACQUIRES() CMN_NO_TSA { pthread_mutex_lock(&mutex); }
    void unlock() CMN_RELEASES() CMN_NO_TSA { pthread_mutex_unlock(&mutex); }
    // False, without waiting, when it is not free.
    bool try_lock() CMN_TRY_ACQUIRES(true) CMN_NO_TSA { return pthread_mutex_trylock(&mutex) == 0; }

private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

class CMN_EXPORT CMN_CAPABILITY("mutex") CMN_RecursiveMutex {
public:
    // `name` is a label for the reader of the code; it is not stored.
    constexpr explicit CMN_RecursiveMutex(const char* /*name*/) noexcept {}
    virtual ~CMN_RecursiveMutex();  // the mutex must be free

    CMN_RecursiveMutex(const CMN_RecursiveMutex&) = delete;
    CMN_RecursiveMutex& operator=(const CMN_RecursiveMutex&) = delete;

    // Blocks until the calling thread owns the mutex.
    void enter() CMN_ACQUIRES();

    // As enter(), but returns false at once when another thread is the owner.
    bool tryenter() CMN_TRY_ACQUIRES(true);

    // Returns the number of levels this thread still holds. At 0 the mutex is
    // free, and the result is that of the system unlock: 0 for success.
    int exit() CMN_RELEASES();

private:
    friend class CMN_Entered;
    friend class CMN_EnteredIfFree;

    // enter(), tryenter() and exit() in line, for the framework's own scopes.
    CMN_HIDDEN bool enterAgain(unsigned long self) noexcept;
    CMN_HIDDEN void own(unsigned long self) noexcept;
    CMN_HIDDEN void take();
    CMN_HIDDEN bool tryTake();
    CMN_HIDDEN int give();

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    // Read on the fast path without `mutex`, hence atomic: a thread finds its
    // own identifier here only while it is the owner.
    std::atomic<unsigned int> depth{0};
    std::atomic<unsigned long> owner{0};  // 0 while the mutex is free
};

// Owns a mutex for a scope.
class CMN_SCOPED_CAPABILITY CMN_Locked {
public:
    explicit CMN_Locked(CMN_Mutex& m) CMN_ACQUIRES(m) CMN_NO_TSA : mutex_(m) { mutex_.lock(); }
    ~CMN_Locked() CMN_RELEASES() CMN_NO_TSA { mutex_.unlock(); }

    CMN_Locked(const CMN_Locked&) = delete;
    CMN_Locked& operator=(const CMN_Locked&) = delete;

private:
    CMN_Mutex& mutex_;
};

// The owner alone can find its own identifier in `owner`, so the two unlocked
// reads cannot mislead any other thread; the owner alone then changes `depth`.
inline bool CMN_RecursiveMutex::enterAgain(unsigned long self) noexcept {
    const unsigned int levels = depth.load(std::memory_order_relaxed);
    if (levels == 0 || !thr_equal(owner.load(std::memory_order_relaxed), self)) {
        return false;
    }
    depth.store(levels + 1, std::memory_order_relaxed);
    return true;
}

inline void CMN_RecursiveMutex::own(unsigned long self) noexcept {
    depth.store(1, std::memory_order_relaxed);
    owner.store(self, std::memory_order_relaxed);
}

inline void CMN_RecursiveMutex::take() {
    const unsigned long self = pthread_self();
    if (!enterAgain(self)) {
        pthread_mutex_lock(&mutex);
        own(self);
    }
}

inline bool CMN_RecursiveMutex::tryTake() {
    const unsigned long self = pthread_self();
    if (!enterAgain(self)) {
        if (pthread_mutex_trylock(&mutex) != 0) {
            return false;
        }
        own(self);
    }
    return true;
}

inline int CMN_RecursiveMutex::give() {
    const unsigned int left = depth.load(std::memory_order_relaxed) - 1;
    depth.store(left, std::memory_order_relaxed);
    if (left != 0) {
        return static_cast<int>(left);
    }
    owner.store(0, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex);
}

// Owns a recursive mutex for a scope.
class CMN_SCOPED_CAPABILITY CMN_Entered {
public:
    explicit CMN_Entered(CMN_RecursiveMutex& m) CMN_ACQUIRES(m) CMN_NO_TSA : mutex_(m) {
        mutex_.take();
    }
    ~CMN_Entered() CMN_RELEASES() CMN_NO_TSA { mutex_.give(); }

    CMN_Entered(const CMN_Entered&) = delete;
    CMN_Entered& operator=(const CMN_Entered&) = delete;

private:
    CMN_RecursiveMutex& mutex_;
};

// The same, if that needs no waiting.
class CMN_EnteredIfFree {
public:
    explicit CMN_EnteredIfFree(CMN_RecursiveMutex& m) CMN_NO_TSA
        : entered_(m.tryTake() ? &m : nullptr) {}
    ~CMN_EnteredIfFree() CMN_NO_TSA {
        if (entered_ != nullptr) {
            entered_->give();
        }
    }

    CMN_EnteredIfFree(const CMN_EnteredIfFree&) = delete;
    CMN_EnteredIfFree& operator=(const CMN_EnteredIfFree&) = delete;

    bool isEntered() const noexcept { return entered_ != nullptr; }

private:
    CMN_RecursiveMutex* const entered_;
};

#endif  // CMN_CMN_RMUTEX_H
