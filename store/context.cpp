#include "store/context.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "os/base.h"
#include "os/fs.h"

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

bool Context::mayChange() noexcept {
    if (current == nullptr || current->ask == nullptr || current->ask(current->argument) == kOk) {
        return true;
    }
    errno = EIO;
    return false;
}

int watched::rename(const char* from, const char* to) noexcept {
    return Context::mayChange() ? os::rename(from, to) : -1;
}

int watched::remove(const char* path) noexcept {
    return Context::mayChange() ? os::remove(path) : -1;
}

int watched::rmdir(const char* path) noexcept {
    return Context::mayChange() ? os::rmdir(path) : -1;
}
