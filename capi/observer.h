// The caller's callbacks as the library's observer.
#ifndef CAPI_OBSERVER_H
#define CAPI_OBSERVER_H

#include <atomic>
#include <cstdint>
#include <string>

#include "capi/filestore.h"
#include "lib/base/observer.h"

namespace capi {

class CallbackObserver final : public fstore::Observer {
public:
    // From now on these are called; a complete structure.
    void use(const filestore_callbacks& callbacks) noexcept { callbacks_ = callbacks; }

    void warn(const std::string& text) override;
    void note(const std::string& text) override;
    void begin(const std::string& what, std::uint64_t steps) override;
    void step() noexcept override;
    void end() noexcept override {}
    bool isCancelled() noexcept override;
    // A database of ours has its key from a KeySource, and asks nobody.
    fstore::SecretText password() override;

private:
    filestore_callbacks callbacks_ = FILESTORE_CALLBACKS_INIT;
    std::string what_;
    std::uint64_t total_ = 0;
    std::atomic<std::uint64_t> done_{0};
};

}  // namespace capi

#endif  // CAPI_OBSERVER_H
