#include "host/module_manager.h"

#include <map>
#include <string>
#include <thread>
#include <utility>

#include "cmn/cmn_obj_mgr.h"
#include "cmn/no_throw.h"

namespace {

// Runs an operation's body; an exception becomes a status without words.
template <class Body>
Result answer(Body body) {
    Result result;
    const Status status = noThrow([&] {
        result = body();
        return result.status;
    });
    result.status = status;
    return result;
}

Result notLoaded(unsigned int id) {
    return {kEnd, "module " + std::to_string(id) + " is not loaded"};
}

Result inUse(unsigned int id, const std::string& reason) {
    return {kAlreadyOpen, "module " + std::to_string(id) + " " + reason};
}

// Asks again and again, without haste, until the answer is yes or the time is over.
template <class Question>
bool within(std::chrono::milliseconds patience, Question question) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!question()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class HolderListLock {
public:
    explicit HolderListLock(CMN_GuardedRef& object) : object_(object) { object_.lockHolderList(); }
    HolderListLock(const HolderListLock&) = delete;
    HolderListLock& operator=(const HolderListLock&) = delete;
    ~HolderListLock() { object_.unlockHolderList(); }

private:
    CMN_GuardedRef& object_;
};

// False while someone has been given the service and has not attached it, or has
// let go of it and has not released its module.
bool everyUseIsHeld(CMN_GuardedRef& service, const ServiceTable::Uses& uses) {
    std::map<std::string, int> held;
    {
        const HolderListLock locked(service);
        for (const auto* node = service._getHolders().first(); node != nullptr; node = node->next) {
            ++held[nameOf(node->value->getModuleID())];
        }
    }
    for (const auto& [asker, count] : uses.byAsker) {
        if (held[asker] < count) {
            return false;
        }
    }
    return true;
}

}  // namespace

ModuleManager::Modules::iterator ModuleManager::find(unsigned int id) {
    auto module = modules_.begin();
    while (module != modules_.end() && module->id != id) {
        ++module;
    }
    return module;
}

Result ModuleManager::load(const char* path, std::optional<unsigned int> expected) {
    return answer([&]() -> Result {
        if (path == nullptr) {
            return {kInvalid, "no path of a module is given"};
        }
        const CMN_Entered entered(lifecycle_);
        Modules loading(1);
        Module& module = loading.front();
        if (Result opened = ModuleFile::open(path, module.file); !opened.ok()) {
            return opened;
        }
        for (const Module& other : modules_) {
            if (module.file.sameAs(other.file)) {
                return inUse(other.id, "is loaded already from " + other.file.path());
            }
        }
        if (Result started = start(module, expected); !started.ok()) {
            return started;
        }
        if (const auto other = find(module.id); other != modules_.end()) {
            shutDown(module);
            return inUse(other->id, "is loaded already from " + other->file.path());
        }
        const Status added = noThrow([&] {
            services_.add(module.id, module.service);
            return kOk;
        });
        if (added != kOk) {
            shutDown(module);
            return {added, {}};
        }
        modules_.splice(modules_.end(), loading);
        return {};
    });
}

// Brings a mapped module to life; after a failure it is as it was before.
Result ModuleManager::start(Module& module, std::optional<unsigned int> expected) {
    const ModuleFile& file = module.file;
    const Status called = noThrow([&] {
        module.face = file.entry()(this, 0);
        return kOk;
    });
    if (called != kOk || module.face == nullptr) {
        return {called != kOk ? called : kMalformed, file.path() + ": its entry gives no object"};
    }
    module.id = module.face->getModuleID();
    module.service = module.face->getService(Tuint32ID(module.id));
    if (module.service == nullptr) {
        // What its entry has made has no owner who could take it back.
        Result refused{kMalformed, file.path() + ": stays mapped: offers no service of its own"};
        module.file.abandon();
        return refused;
    }
    module.service->addReference();
    if (expected && module.id != *expected) {
        shutDown(module);
        return {kMalformed, file.path() + ": is module " + std::to_string(module.id) + ", not " +
                                std::to_string(*expected)};
    }
    if (const Status begun = module.service->init(); begun != kOk) {
        shutDown(module);
        return {begun, file.path() + ": its service does not start"};
    }
    return {};
}

Result ModuleManager::unload(unsigned int id) {
    return answer([&]() -> Result {
        const CMN_Entered entered(lifecycle_);
        const auto module = find(id);
        if (module == modules_.end()) {
            return notLoaded(id);
        }
        if (Result closed = closeUnused(*module); !closed.ok()) {
            return closed;
        }
        return remove(module);
    });
}

// What is seen here stands still only while nobody has a use: with one, a thread
// may come by an object and give the use back between two looks. So there must be
// no use before the looks, and no acquisition up to their end.
Result ModuleManager::closeUnused(const Module& module) {
    CMN_ObjectManager& objects = module.file.objects();
    for (;;) {
        const ServiceTable::Uses seen = services_.uses(module.id);
        if (!seen.byAsker.empty()) {
            return inUse(module.id, "is used by module " + seen.byAsker.begin()->first);
        }
        // Asked first: an object on its way to its first holder is busy, then held.
        if (objects.isBusy()) {
            return inUse(module.id, "has a call in progress");
        }
        if (objects.moduleIsUsed() != 0) {
            return inUse(module.id, "has objects that another module holds");
        }
        if (services_.closeUnused(module.id, seen)) {
            return {};
        }
    }
}

Result ModuleManager::forceUnload(unsigned int id) {
    return answer([&]() -> Result {
        const CMN_Entered entered(lifecycle_);
        const auto module = find(id);
        if (module == modules_.end()) {
            return notLoaded(id);
        }
        services_.close(id);
        if (Result detached = detachUsers(*module); !detached.ok()) {
            services_.reopen(id);
            return detached;
        }
        return remove(module);
    });
}

Result ModuleManager::unloadAll() {
    const CMN_Entered entered(lifecycle_);
    Result first;
    while (!modules_.empty()) {
        const unsigned int id = modules_.back().id;
        Result unloaded = forceUnload(id);
        if (const auto refused = find(id); refused != modules_.end()) {
            refused->file.abandon();  // it is being called: better kept than pulled away
            modules_.erase(refused);
            services_.remove(id);
        }
        if (first.ok()) {
            first = std::move(unloaded);
        }
    }
    return first;
}

Result ModuleManager::detachUsers(const Module& module) {
    CMN_ObjectManager& objects = module.file.objects();
    // Who was given the service a moment ago is to attach it first. Whoever never
    // does is not waited for any longer than this.
    (void)within(patience_,
                 [&] { return everyUseIsHeld(*module.service, services_.uses(module.id)); });
    if (!within(patience_, [&] { return !objects.isBusy(); })) {
        return inUse(module.id, "has calls in progress");
    }
    // A call that has begun since keeps its object; all others are let go of now.
    const Tuint32ID home(module.id);
    if (!within(patience_, [&] { return objects.unhookForeign(home) == 0; })) {
        services_.forget(module.id, services_.uses(module.id));  // for the most part void
        return inUse(module.id, "has calls in progress that began while it was being detached");
    }
    return {};
}

// The module is closed and nobody else holds an object of it.
Result ModuleManager::remove(Modules::iterator module) {
    const unsigned int id = module->id;
    shutDown(*module);
    letGoOfOthers(id);
    Result unmapped = unmap(*module);
    modules_.erase(module);
    services_.remove(id);
    services_.forgetAsker(std::to_string(id));
    return unmapped;
}

// The entry stops the module's objects. Holders of its own that are left, static
// ones above all, let go before the manager does, whose reference is then the last.
void ModuleManager::shutDown(Module& module) {
    (void)noThrow([&] {
        module.file.entry()(nullptr, 0);
        module.file.objects().fini();
        return kOk;
    });
    if (CMN_GuardedRef* const service = std::exchange(module.service, nullptr)) {
        service->remReference();
    }
}

// A holder that the module has left in other modules' objects would be called there
// when its code is gone. Looks before it walks, because walks wait.
void ModuleManager::letGoOfOthers(unsigned int id) {
    const Tuint32ID leaving(id);
    const auto letGoOf = [&leaving](CMN_ObjectManager& objects) {
        if (objects.moduleIsUsedBy(leaving) != 0) {
            objects.unhookObjs(leaving);
        }
    };
    for (const Module& other : modules_) {
        if (other.id != id) {
            letGoOf(other.file.objects());
        }
    }
    letGoOf(ObjectManager);  // of the host's own services
}

// An object whose code is gone is worse than a file that stays.
Result ModuleManager::unmap(Module& module) {
    const int left = module.file.objects().size();
    if (left != 0) {
        module.file.abandon();
        return {kIo, module.file.path() + ": stays mapped, for objects that it has left behind: " +
                         std::to_string(left)};
    }
    return module.file.close();
}

Result ModuleManager::replace(unsigned int id, const char* path) {
    return answer([&]() -> Result {
        if (path == nullptr) {
            return {kInvalid, "no path of a module is given"};
        }
        const CMN_Entered entered(lifecycle_);
        const auto module = find(id);
        if (module == modules_.end()) {
            return notLoaded(id);
        }
        if (module->face->isReplaceable() == 0) {
            return inUse(id, "does not let itself be replaced");
        }
        Module fresh;
        if (Result opened = ModuleFile::open(path, fresh.file); !opened.ok()) {
            return opened;
        }
        for (const Module& other : modules_) {
            if (fresh.file.sameAs(other.file)) {
                return {kInvalid, fresh.file.path() + ": is loaded already as module " +
                                      std::to_string(other.id)};
            }
        }
        if (Result started = start(fresh, id); !started.ok()) {
            return started;
        }
        ServiceTable::Uses seen;
        if (!offerInPlaceOf(*module, fresh, seen)) {
            shutDown(fresh);
            return inUse(id, "was acquired by someone who holds no reference on its service");
        }
        const Status moved = noThrow([&] {
            takeOver(*module, fresh, seen);
            return kOk;
        });
        std::swap(*module, fresh);
        shutDown(fresh);  // also lets go of what could not be taken over
        Result unmapped = unmap(fresh);
        return moved == kOk ? unmapped : Result{moved, {}};
    });
}

// The new service is offered at a moment when nobody is between being given the old
// one and attaching it: what he attaches then would be gone.
bool ModuleManager::offerInPlaceOf(const Module& old, const Module& fresh,
                                   ServiceTable::Uses& seen) {
    return within(patience_, [&] {
        seen = services_.uses(old.id);
        return everyUseIsHeld(*old.service, seen) &&
               services_.exchange(old.id, fresh.service, seen);
    });
}

// giveUp() goes on for as long as the old module has an object, so the manager lets
// go of its plain reference on the service. In its place it has a holder, which tells
// what has become of the others.
void ModuleManager::takeOver(Module& old, const Module& fresh, const ServiceTable::Uses& seen) {
    const CMN_GRefPtr<CMN_GuardedRef> witness(old.service);
    std::exchange(old.service, nullptr)->remReference();
    guards_.mend();
    old.file.objects().giveUp(fresh.file.makeObject());
    if (witness.get() == nullptr) {
        services_.forget(old.id, seen);  // who lost the service does not release it
    }
}

CMN_GuardedRef* ModuleManager::moduleService(unsigned int id) {
    const CMN_Entered entered(lifecycle_);
    const auto module = find(id);
    return module == modules_.end() ? nullptr : module->service;
}

void ModuleManager::setPatience(std::chrono::milliseconds patience) {
    const CMN_Entered entered(lifecycle_);
    patience_ = patience;
}

int ModuleManager::uses(unsigned int id) const {
    int all = 0;
    for (const auto& [asker, count] : services_.uses(id).byAsker) {
        all += count;
    }
    return all;
}

Status ModuleManager::loadModule(const char* path) {
    return load(path).status;
}

Status ModuleManager::unloadModule(const TypifiedID& module) {
    const auto id = numberOf(module);
    return id ? unload(*id).status : kEnd;
}

int ModuleManager::isLoaded(const TypifiedID& module) {
    return services_.has(module) ? 1 : 0;
}

CMN_Guard* ModuleManager::currentGuard() {
    CMN_Guard* guard = nullptr;
    (void)noThrow([&] {  // without memory the object does without a guard
        guard = guards_.next();
        return kOk;
    });
    return guard;
}

CMN_GuardedRef* ModuleManager::acquireService(const TypifiedID& service, const TypifiedID& asker) {
    return services_.acquire(service, asker);
}

void ModuleManager::releaseModule(const TypifiedID& module, const TypifiedID& asker) {
    services_.release(module, asker);
}
