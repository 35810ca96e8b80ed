// SPDX-License-Identifier: Apache-2.0
// The host's guards, one for each guarded object.
//
// A caller reads the guard of its holder and raises it before it looks whether the
// object is still there. So it may raise the guard of an object that has just gone, and
// therefore the pool never frees a guard while it lives but uses it again, for another
// object. The late caller then raises and lowers the guard of an object that is not its
// own, which does no harm.
//
// The pool keeps a plain reference on each guard; a guard that has only this one has no
// object. A release that destroyed its object has left the guard raised, by contract; the
// pool lowers it before it hands the guard out again.
//
// Memory stays within about twice the largest number of objects that lived at one time,
// and a guard costs the same on average, however long the objects live: each call adds
// two looks to a credit, and goes round the guards until it finds a free one or the credit
// is spent. Only then it makes a new guard; that is, when more than half of the guards it
// looked at were in use.
//
// Any thread may call any operation, also with locks of the framework held: the
// pool's lock is the last of the lock order.
#ifndef HOST_GUARD_POOL_H
#define HOST_GUARD_POOL_H

#include <cstddef>
#include <vector>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/thread_annotations.h"

class GuardPool {
public:
    GuardPool() = default;
    GuardPool(const GuardPool&) = delete;
    GuardPool& operator=(const GuardPool&) = delete;
    // Guards that objects still use go with these.
    ~GuardPool();

    // A guard that no object uses, not raised. The pool keeps it; the object that it is
    // for takes a reference on it before this thread asks for the next one. Throws
    // std::bad_alloc.
    CMN_Guard* next();

    // Raises the guards whose count has fallen below 0. When two threads let go of an
    // object, one in a destructor and then one by an assignment, the first may lower the
    // guard after the pool has done so; until that is mended, a takeover of objects would
    // wait for the guard's object.
    void mend();

    // The guards made so far.
    std::size_t size() const;

private:
    CMN_Guard* take();
    CMN_Guard* findFree() CMN_REQUIRES(lock_);

    // Guards the state of all pools and the references of all guards: a pool that finds
    // a single reference knows that nobody is about to add another. Shared, because
    // guards may outlive their pool.
    static CMN_RecursiveMutex lock_;

    std::vector<CMN_Guard*> guards_ CMN_GUARDED_BY(lock_);
    std::size_t hand_ CMN_GUARDED_BY(lock_) = 0;    // the guard to look at next
    std::size_t credit_ CMN_GUARDED_BY(lock_) = 0;  // looks that may be taken
};

#endif  // HOST_GUARD_POOL_H
