#include "host/service_table.h"

#include "cmn/no_throw.h"
#include "cmn/status.h"

namespace {

void giveBack(ServiceTable::Uses& counted, const std::string& asker, int count) noexcept {
    const auto use = counted.byAsker.find(asker);
    if (use != counted.byAsker.end() && (use->second -= count) <= 0) {
        counted.byAsker.erase(use);
    }
}

}  // namespace

std::optional<unsigned int> numberOf(const TypifiedID& id) noexcept {
    if (id.kind() != TypifiedID::kNumber) {
        return std::nullopt;
    }
    return static_cast<const Tuint32ID&>(id).value();
}

std::string nameOf(const TypifiedID& id) {
    if (const auto number = numberOf(id)) {
        return std::to_string(*number);
    }
    return '"' + std::string(static_cast<const TstringID&>(id).text()) + '"';
}

CMN_GuardedRef* ServiceTable::acquire(const TypifiedID& service, const TypifiedID& asker) noexcept {
    const auto id = numberOf(service);
    if (!id) {
        return nullptr;  // modules and their services have numbers
    }
    CMN_GuardedRef* found = nullptr;
    const Status counted = noThrow([&] {
        const CMN_Entered entered(lock_);
        if (const auto own = own_.find(*id); own != own_.end()) {
            found = own->second;
            return kOk;
        }
        const auto module = modules_.find(*id);
        if (module == modules_.end() || !module->second.open) {
            return kEnd;
        }
        if (numberOf(asker) != id) {
            ++module->second.counted.byAsker[nameOf(asker)];
            ++module->second.counted.acquisitions;
        }
        found = module->second.service;
        return kOk;
    });
    return counted == kOk ? found : nullptr;
}

void ServiceTable::release(const TypifiedID& module, const TypifiedID& asker) noexcept {
    (void)noThrow([&] {  // without memory for a name the use stays: the safe side
        const std::string name = nameOf(asker);
        const CMN_Entered entered(lock_);
        const auto id = numberOf(module);
        if (const auto found = id ? modules_.find(*id) : modules_.end(); found != modules_.end()) {
            giveBack(found->second.counted, name, 1);
        }
        return kOk;
    });
}

void ServiceTable::setOwn(unsigned int id, CMN_GuardedRef* service) {
    const CMN_Entered entered(lock_);
    if (service == nullptr) {
        own_.erase(id);
    } else {
        own_[id] = service;
    }
}

void ServiceTable::add(unsigned int id, CMN_GuardedRef* service) {
    const CMN_Entered entered(lock_);
    modules_[id] = Module{service};
}

void ServiceTable::remove(unsigned int id) noexcept {
    const CMN_Entered entered(lock_);
    modules_.erase(id);
}

bool ServiceTable::has(const TypifiedID& id) const noexcept {
    const auto number = numberOf(id);
    const CMN_Entered entered(lock_);
    return number && modules_.count(*number) != 0;
}

void ServiceTable::close(unsigned int id) noexcept {
    const CMN_Entered entered(lock_);
    modules_.find(id)->second.open = false;
}

void ServiceTable::reopen(unsigned int id) noexcept {
    const CMN_Entered entered(lock_);
    modules_.find(id)->second.open = true;
}

ServiceTable::Uses ServiceTable::uses(unsigned int id) const {
    const CMN_Entered entered(lock_);
    const auto module = modules_.find(id);
    return module == modules_.end() ? Uses{} : module->second.counted;
}

bool ServiceTable::closeUnused(unsigned int id, const Uses& seen) noexcept {
    const CMN_Entered entered(lock_);
    Module& module = modules_.find(id)->second;
    if (!module.counted.byAsker.empty() || module.counted.acquisitions != seen.acquisitions) {
        return false;
    }
    module.open = false;
    return true;
}

bool ServiceTable::exchange(unsigned int id, CMN_GuardedRef* service, const Uses& seen) noexcept {
    const CMN_Entered entered(lock_);
    Module& module = modules_.find(id)->second;
    if (module.counted.acquisitions != seen.acquisitions) {
        return false;
    }
    module.service = service;
    return true;
}

void ServiceTable::forget(unsigned int id, const Uses& these) noexcept {
    const CMN_Entered entered(lock_);
    Uses& counted = modules_.find(id)->second.counted;
    for (const auto& [asker, count] : these.byAsker) {
        giveBack(counted, asker, count);
    }
}

void ServiceTable::forgetAsker(const std::string& asker) noexcept {
    const CMN_Entered entered(lock_);
    for (auto& [id, module] : modules_) {
        module.counted.byAsker.erase(asker);
    }
}
