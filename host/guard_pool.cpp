#include "host/guard_pool.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace {

constexpr std::size_t kLooks = 2;

// The guard that this thread was given last. A reference keeps it from being given
// out again before the object has taken its own; when the thread asks for the next
// guard, the object has.
class GivenLast {
public:
    GivenLast() = default;
    GivenLast(const GivenLast&) = delete;
    GivenLast& operator=(const GivenLast&) = delete;
    ~GivenLast() { replaceBy(nullptr); }

    // Takes over a reference on `guard`.
    void replaceBy(CMN_Guard* guard) {
        if (CMN_Guard* const before = std::exchange(guard_, guard)) {
            before->remReference();
        }
    }

private:
    CMN_Guard* guard_ = nullptr;
};

thread_local GivenLast givenLast;

}  // namespace

CMN_BUILT_FIRST constinit CMN_RecursiveMutex GuardPool::lock_("guards");

GuardPool::~GuardPool() {
    for (CMN_Guard* const guard : guards_) {
        guard->remReference();
    }
}

// The guard is lowered without the lock: a redirection asks for guards with the
// mutex of another one held. Each count is read once, or the raise of a late caller
// would be taken for what the last object has left.
CMN_Guard* GuardPool::next() {
    CMN_Guard* const guard = take();
    const int left = guard->calls();
    if (left > 0) {
        guard->dec();
    }
    for (int below = left; below < 0; ++below) {
        guard->inc();
    }
    return guard;
}

CMN_Guard* GuardPool::take() {
    const CMN_Entered entered(lock_);
    CMN_Guard* guard = findFree();
    if (guard == nullptr) {
        auto made = std::make_unique<CMN_Guard>(&lock_);
        guards_.push_back(made.get());
        guard = made.release();
        guard->addReference();
    }
    guard->addReference();
    givenLast.replaceBy(guard);
    return guard;
}

// Without an object, a guard is raised by what the release of its last one may have
// left, and by late callers. With more than 1, one of these is still to lower it.
CMN_Guard* GuardPool::findFree() {
    credit_ = std::min(credit_ + kLooks, guards_.size());
    while (credit_ != 0) {
        --credit_;
        hand_ = hand_ + 1 < guards_.size() ? hand_ + 1 : 0;
        CMN_Guard* const guard = guards_[hand_];
        if (guard->references() == 1 && guard->calls() <= 1) {
            return guard;
        }
    }
    return nullptr;
}

void GuardPool::mend() {
    std::vector<CMN_Guard*> guards;
    {
        const CMN_Entered entered(lock_);
        guards = guards_;
    }
    for (CMN_Guard* const guard : guards) {
        for (int below = guard->calls(); below < 0; ++below) {
            guard->inc();
        }
    }
}

std::size_t GuardPool::size() const {
    const CMN_Entered entered(lock_);
    return guards_.size();
}
