#include "store/context.h"

#include <fcntl.h>

#include <utility>

#include "os/base.h"

namespace {

thread_local Context* current = nullptr;

}  // namespace

Context* Context::entered() noexcept {
    return current;
}

unsigned int Context::enteredId() noexcept {
    return current == nullptr ? 0 : current->id;
}

Context* Context::exchange(Context* next) noexcept {
    (void)os::exchangeBaseFolder(next == nullptr ? AT_FDCWD : next->folder);
    return std::exchange(current, next);
}
