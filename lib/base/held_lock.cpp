#include "lib/base/held_lock.h"

#include <utility>

namespace fstore {
namespace {

thread_local HeldLock* current = nullptr;

}  // namespace

HeldLock* heldLock() noexcept {
    return current;
}

UnderLock::UnderLock(HeldLock* lock) noexcept : before_(std::exchange(current, lock)) {}

UnderLock::~UnderLock() {
    current = before_;
}

}  // namespace fstore
