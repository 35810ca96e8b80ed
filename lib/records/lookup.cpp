#include "lib/records/lookup.h"

namespace fstore {
namespace {

thread_local Lookup* ofThread = nullptr;

}  // namespace

Lookup* Lookup::current() noexcept {
    return ofThread;
}

Lookup::Use::Use(Lookup& lookup) noexcept : before_(std::exchange(ofThread, &lookup)) {}

Lookup::Use::~Use() {
    ofThread = before_;
}

RecordChangeNotice::RecordChangeNotice(Address address) noexcept
    : lookup_(Lookup::current()), address_(std::move(address)) {
    if (lookup_ != nullptr) {
        lookup_->willChange(address_);
    }
}

RecordChangeNotice::~RecordChangeNotice() {
    if (lookup_ != nullptr) {
        lookup_->changed(address_);
    }
}

}  // namespace fstore
