// The read-write lock of a database's record files: one for the database in the process's
// folder, and one for each context.
//
// Records hold it for reading in `read` and `isExist`, for writing in `write` and
// `remove`; lists hold it for writing while they scan a folder, and recryption for
// writing throughout. It is the first lock that an operation takes.
#ifndef STORE_RW_LOCKER_H
#define STORE_RW_LOCKER_H

#include "os/handles.h"
#include "store/context.h"

struct RWLocker {
    // The lock type of a record or list that takes no lock; any other takes it.
    static constexpr int kNoLock = -1;

    static pthread_rwlock_t m_RWMutex;  // of the process's folder

    // That of the database that this thread works on.
    static pthread_rwlock_t* current() noexcept {
        Context* const context = Context::entered();
        return context == nullptr ? &m_RWMutex : &context->lock;
    }

    // The lock that an owner (os::ReadLock, os::WriteLock) takes for this type.
    static pthread_rwlock_t* lockFor(int lockType) noexcept {
        return lockType == kNoLock ? nullptr : current();
    }

    // Start and end of the module; nobody uses the lock meanwhile.
    static void init() noexcept;
    static void destroy() noexcept;
};

#endif  // STORE_RW_LOCKER_H
