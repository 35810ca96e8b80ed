// SPDX-License-Identifier: Apache-2.0
// The intrusive reference count from which every shared object derives.
//
// All counts of a module change under one module-wide recursive mutex, RefMutex,
// unless an object is given a mutex of its own. An object that is counted must
// have been made with `new`: it deletes itself, outside of the mutex, when a
// decrement brings the count from 1 to 0.
#ifndef CMN_CMN_REF_H
#define CMN_CMN_REF_H

#include <atomic>

#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"

class CMN_EXPORT CMN_Reference {
public:
    // Guards all counts of this module, and the module's object registry. It has a cache
    // line to itself, so that reading what lies beside it never waits for counting.
    alignas(64) static CMN_RecursiveMutex RefMutex;

    CMN_Reference() noexcept : CMN_Reference(&RefMutex) {}
    // `m` guards this count; it is not owned and must outlive the object.
    explicit CMN_Reference(CMN_RecursiveMutex* m) noexcept : mutex(m) {}
    // A copy is a new object: count 0 under RefMutex, whatever the source uses.
    CMN_Reference(const CMN_Reference&) noexcept : CMN_Reference() {}
    // Transfers neither a count nor a mutex.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is assigned
    CMN_Reference& operator=(const CMN_Reference&) noexcept { return *this; }

    virtual ~CMN_Reference();

    // The count, read without the mutex: it may be out of date at once.
    int references() const noexcept { return count.load(std::memory_order_relaxed); }

    void addReference();

    // Returns the new count. At 0 the object is gone. Nothing prevents a count below
    // zero: at count 0 the result is -1 and nothing is deleted.
    int remReference();

protected:
    // The lock of the count, for what must be seen together with a change of it.
    CMN_HIDDEN CMN_RecursiveMutex& countLock() const noexcept { return *mutex; }
    // The caller owns that lock. Returns the new count.
    CMN_HIDDEN int changeCount(int by) noexcept {
        const int now = references() + by;
        count.store(now, std::memory_order_relaxed);
        return now;
    }

private:
    CMN_RecursiveMutex* mutex;
    // Changed under *mutex only; atomic for the unlocked reads.
    std::atomic<int> count{0};
};

#endif  // CMN_CMN_REF_H
