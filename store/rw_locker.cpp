#include "store/rw_locker.h"

pthread_rwlock_t RWLocker::m_RWMutex = PTHREAD_RWLOCK_INITIALIZER;

void RWLocker::init() noexcept {
    pthread_rwlock_init(&m_RWMutex, nullptr);
}

void RWLocker::destroy() noexcept {
    pthread_rwlock_destroy(&m_RWMutex);
}
