// The lock under which a thread changes a database, asked for right before each step that others
// see.
//
// Where several hosts have the file system, a lock can be lost while its owner waits or sleeps: its
// host was cut off, and another has the lock now. What the owner has prepared until then nobody
// sees; what it renames or removes could be the other's. So it asks first.
//
// Each thread has its own, which is none until it makes an UnderLock.
#ifndef LIB_BASE_HELD_LOCK_H
#define LIB_BASE_HELD_LOCK_H

#include <string>

namespace fstore {

class HeldLock {
public:
    HeldLock() = default;
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    virtual ~HeldLock() = default;

    // Why the lock is no longer surely held; empty as long as it is. What is lost stays lost.
    virtual const std::string& whyLost() noexcept = 0;

    // As it was when that was asked last.
    virtual const std::string& knownLoss() const noexcept = 0;
};

// That of this thread; null for none.
HeldLock* heldLock() noexcept;

// While it lives, the thread works under this lock; null for none. In reverse order.
class UnderLock {
public:
    explicit UnderLock(HeldLock* lock) noexcept;
    UnderLock(const UnderLock&) = delete;
    UnderLock& operator=(const UnderLock&) = delete;
    ~UnderLock();

private:
    HeldLock* const before_;
};

}  // namespace fstore

#endif  // LIB_BASE_HELD_LOCK_H
