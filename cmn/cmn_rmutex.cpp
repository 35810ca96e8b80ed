#include "cmn/cmn_rmutex.h"

CMN_Mutex::~CMN_Mutex() {
    pthread_mutex_destroy(&mutex);
}

CMN_RecursiveMutex::~CMN_RecursiveMutex() {
    pthread_mutex_destroy(&mutex);
}

// The owner alone can find its own identifier in `owner`, so the two unlocked
// reads cannot mislead any other thread; the owner alone then changes `depth`.
bool CMN_RecursiveMutex::enterAgain(unsigned long self) noexcept {
    const unsigned int levels = depth.load(std::memory_order_relaxed);
    if (levels == 0 || !thr_equal(owner.load(std::memory_order_relaxed), self)) {
        return false;
    }
    depth.store(levels + 1, std::memory_order_relaxed);
    return true;
}

void CMN_RecursiveMutex::enter() CMN_NO_TSA {
    const unsigned long self = pthread_self();
    if (enterAgain(self)) {
        return;
    }
    pthread_mutex_lock(&mutex);
    depth.store(1, std::memory_order_relaxed);
    owner.store(self, std::memory_order_relaxed);
}

bool CMN_RecursiveMutex::tryenter() CMN_NO_TSA {
    const unsigned long self = pthread_self();
    if (enterAgain(self)) {
        return true;
    }
    if (pthread_mutex_trylock(&mutex) != 0) {
        return false;
    }
    depth.store(1, std::memory_order_relaxed);
    owner.store(self, std::memory_order_relaxed);
    return true;
}

int CMN_RecursiveMutex::exit() CMN_NO_TSA {
    const unsigned int left = depth.load(std::memory_order_relaxed) - 1;
    depth.store(left, std::memory_order_relaxed);
    if (left != 0) {
        return static_cast<int>(left);
    }
    owner.store(0, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex);
}
