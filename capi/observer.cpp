#include "capi/observer.h"

#include "lib/base/error.h"

namespace capi {

void CallbackObserver::warn(const std::string& text) {
    if (callbacks_.warn != nullptr) {
        callbacks_.warn(callbacks_.user, text.c_str());
    }
}

void CallbackObserver::note(const std::string& text) {
    if (callbacks_.note != nullptr) {
        callbacks_.note(callbacks_.user, text.c_str());
    }
}

void CallbackObserver::begin(const std::string& what, std::uint64_t steps) {
    what_ = what;
    total_ = steps;
    done_ = 0;
}

void CallbackObserver::step() noexcept {
    const std::uint64_t done = ++done_;
    if (callbacks_.progress != nullptr) {
        callbacks_.progress(callbacks_.user, what_.c_str(), done, total_);
    }
}

bool CallbackObserver::isCancelled() noexcept {
    return callbacks_.cancelled != nullptr && callbacks_.cancelled(callbacks_.user) != 0;
}

fstore::SecretText CallbackObserver::password() {
    throw fstore::Failure(fstore::kUsage, "no password was given");
}

}  // namespace capi
