#include "capi/forks.h"

#include <atomic>

#include "lib/base/error.h"
#include "os/process.h"

namespace capi {
namespace {

std::atomic<unsigned int> inside{0};
std::atomic<unsigned int> generation{0};
std::atomic<bool> torn{false};

void inChild() noexcept {
    ++generation;
    if (inside.exchange(0) != 0) {
        torn = true;
    }
}

}  // namespace

Operation::Operation() {
    ++inside;
    if (wasTorn()) {
        --inside;
        throw fstore::Failure(kClosed,
                              "this process was forked while another thread of its parent used a "
                              "database; open databases in a process of its own");
    }
}

Operation::~Operation() {
    --inside;
}

unsigned int forks() noexcept {
    return generation;
}

bool wasTorn() noexcept {
    return torn;
}

void watchForks() {
    static const bool watching = os::callInChildren(&inChild);
    if (!watching) {
        throw fstore::MemoryFailure("out of memory");
    }
}

}  // namespace capi
