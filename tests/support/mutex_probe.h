// Looks at locks from a thread that owns nothing.
#ifndef TESTS_SUPPORT_MUTEX_PROBE_H
#define TESTS_SUPPORT_MUTEX_PROBE_H

#include <thread>

#include "cmn/cmn_rmutex.h"
#include "cmn/thread_annotations.h"

// Whether another thread could have the mutex now.
inline bool isFree(CMN_RecursiveMutex& mutex) {
    bool had = false;
    std::thread([&]() CMN_NO_TSA {
        had = mutex.tryenter();
        if (had) {
            mutex.exit();
        }
    }).join();
    return had;
}

inline bool isFree(CMN_Mutex& mutex) {
    bool had = false;
    std::thread([&]() CMN_NO_TSA {
        had = mutex.try_lock();
        if (had) {
            mutex.unlock();
        }
    }).join();
    return had;
}

#endif  // TESTS_SUPPORT_MUTEX_PROBE_H
