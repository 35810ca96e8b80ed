#include "tests/support/fake_host.h"

#include <utility>

#include "cmn/id_type.h"
#include "tests/support/alloc_fault.h"

namespace {

// Modules and services have numbers in this system; nothing else is offered here.
unsigned int numberOf(const TypifiedID& id) {
    return dynamic_cast<const Tuint32ID&>(id).value();
}

}  // namespace

FakeHost::~FakeHost() {
    for (CMN_Guard* const guard : made_) {
        guard->remReference();
    }
}

void FakeHost::offer(unsigned int id, CMN_GuardedRef* service) {
    offers_[id] = service;
}

void FakeHost::withdraw(unsigned int id) {
    offers_[id] = nullptr;
}

void FakeHost::giveNoGuards() {
    giveGuard(nullptr);
}

void FakeHost::giveNewGuards() {
    makeGuards_ = true;
}

void FakeHost::giveGuard(CMN_Guard* guard) {
    chosen_ = guard;
    makeGuards_ = false;
}

std::vector<std::string> FakeHost::calls() const {
    const std::lock_guard locked(mutex_);
    return calls_;
}

void FakeHost::forgetCalls() {
    const std::lock_guard locked(mutex_);
    calls_.clear();
}

int FakeHost::uses(unsigned int id) const {
    const std::lock_guard locked(mutex_);
    const auto found = uses_.find(id);
    return found == uses_.end() ? 0 : found->second;
}

Status FakeHost::loadModule(const char* /*path*/) {
    return kMissing;
}

Status FakeHost::unloadModule(const TypifiedID& /*module*/) {
    return kIo;
}

int FakeHost::isLoaded(const TypifiedID& module) {
    const auto found = offers_.find(numberOf(module));
    return found != offers_.end() && found->second.get() != nullptr ? 1 : 0;
}

CMN_Guard* FakeHost::currentGuard() {
    if (!makeGuards_) {
        return chosen_;
    }
    const fault::AllocationPause pause;
    auto* const guard = new CMN_Guard;
    guard->addReference();
    const std::lock_guard locked(mutex_);
    made_.push_back(guard);
    return guard;
}

CMN_GuardedRef* FakeHost::acquireService(const TypifiedID& service, const TypifiedID& asker) {
    const auto found = offers_.find(numberOf(service));
    CMN_GuardedRef* const object = found == offers_.end() ? nullptr : found->second.get();
    record(object == nullptr ? "refuse" : "acquire", service, asker, object == nullptr ? 0 : 1);
    return object;
}

void FakeHost::releaseModule(const TypifiedID& module, const TypifiedID& asker) {
    record("release", module, asker, -1);
}

void FakeHost::record(const char* what, const TypifiedID& module, const TypifiedID& asker,
                      int uses) {
    const fault::AllocationPause pause;
    const unsigned int id = numberOf(module);
    std::string line =
        std::string(what) + ' ' + std::to_string(id) + " by " + std::to_string(numberOf(asker));
    const std::lock_guard locked(mutex_);
    calls_.push_back(std::move(line));
    uses_[id] += uses;
}
