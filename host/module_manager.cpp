#include "host/module_manager.h"

#include <map>
#include <string>
#include <thread>
#include <utility>

#include "cmn/cmn_obj_mgr.h"
#include "cmn/no_throw.h"

namespace {

// Runs an operation's body; an exception becomes a status, with its own words.
template <class Body>
Result answer(Body body) noexcept {
    Result result;
    result.status = noThrow(
        [&] {
            result = body();
            return result.status;
        },
        result.message);
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

// A module on its way in or out, kept where the nested calls of modules find it. One that
// has not arrived in the end is stopped and unmapped.
class ModuleManager::InTransit {
public:
    explicit InTransit(Modules& list) : list_(list), module_(list.emplace(list.end())) {}
    InTransit(Modules& list, Modules& from, Modules::iterator leaving)
        : list_(list), module_(leaving) {
        list.splice(list.end(), from, leaving);
    }
    InTransit(const InTransit&) = delete;
    InTransit& operator=(const InTransit&) = delete;
    ~InTransit() {
        if (module_ != list_.end()) {
            module_->stop();  // while it is still in the list
            list_.erase(module_);
        }
    }

    Module& operator*() const { return *module_; }
    Module* operator->() const { return &*module_; }

    void arrive(Modules& to, Modules::iterator before) noexcept {
        to.splice(before, list_, module_);
        module_ = list_.end();
    }

private:
    Modules& list_;
    Modules::iterator module_;
};

ModuleManager::Modules::iterator ModuleManager::find(unsigned int id) {
    auto module = modules_.begin();
    while (module != modules_.end() && module->id() != id) {
        ++module;
    }
    return module;
}

// Another one of `modules` that is the same file, or null.
const Module* ModuleManager::sameFile(const Modules& modules, const Module& module) {
    for (const Module& other : modules) {
        if (&other != &module && module.sameFileAs(other)) {
            return &other;
        }
    }
    return nullptr;
}

Result ModuleManager::load(const char* path, std::optional<unsigned int> expected) {
    return answer([&]() -> Result {
        if (path == nullptr) {
            return {kInvalid, "no path of a module is given"};
        }
        const CMN_Entered entered(lifecycle_);
        InTransit fresh(inTransit_);
        if (Result mapped = fresh->map(path, mapping_); !mapped.ok()) {
            return mapped;
        }
        if (const Module* const other = sameFile(modules_, *fresh)) {
            return inUse(other->id(), "is loaded already from " + other->path());
        }
        if (sameFile(inTransit_, *fresh) != nullptr) {
            return {kAlreadyOpen, fresh->path() + ": is being loaded or unloaded"};
        }
        if (Result started = fresh->start(*this, expected); !started.ok()) {
            return started;
        }
        if (Result admitted = admit(*fresh); !admitted.ok()) {
            return admitted;
        }
        services_.add(fresh->id(), fresh->service());
        fresh.arrive(modules_, modules_.end());
        return {};
    });
}

// Whether no other file of the module is there, or on its way in or out.
Result ModuleManager::admit(const Module& fresh) {
    if (const auto other = find(fresh.id()); other != modules_.end()) {
        return inUse(other->id(), "is loaded already from " + other->path());
    }
    for (const Module& other : inTransit_) {
        if (&other != &fresh && other.service() != nullptr && other.id() == fresh.id()) {
            return inUse(other.id(), "is being loaded or unloaded, from " + other.path());
        }
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
    CMN_ObjectManager& objects = module.objects();
    for (;;) {
        const ServiceTable::Uses seen = services_.uses(module.id());
        if (!seen.byAsker.empty()) {
            return inUse(module.id(), "is used by module " + seen.byAsker.begin()->first);
        }
        // Asked first: an object on its way to its first holder is busy, then held.
        if (objects.isBusy()) {
            return inUse(module.id(), "has a call in progress");
        }
        if (objects.moduleIsUsed() != 0) {
            return inUse(module.id(), "has objects that another module holds");
        }
        if (services_.closeUnused(module.id(), seen)) {
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
        const unsigned int id = modules_.back().id();
        Result unloaded = forceUnload(id);
        if (const auto refused = find(id); refused != modules_.end()) {
            refused->abandon();  // it is being called: better kept than pulled away
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
    CMN_ObjectManager& objects = module.objects();
    // Who was given the service a moment ago is to attach it first. Whoever never
    // does is not waited for any longer than this.
    (void)within(patience_,
                 [&] { return everyUseIsHeld(*module.service(), services_.uses(module.id())); });
    if (!within(patience_, [&] { return !objects.isBusy(); })) {
        return inUse(module.id(), "has calls in progress");
    }
    // A call that has begun since keeps its object; all others are let go of now.
    const Tuint32ID home(module.id());
    if (!within(patience_, [&] { return objects.unhookForeign(home) == 0; })) {
        services_.forget(module.id(), services_.uses(module.id()));  // for the most part void
        return inUse(module.id(), "has calls in progress that began while it was being detached");
    }
    return {};
}

// The module is closed and nobody else holds an object of it.
Result ModuleManager::remove(Modules::iterator module) {
    const unsigned int id = module->id();
    const InTransit leaving(inTransit_, modules_, module);
    leaving->stop();
    const Result detached = letGoOfOthers(id);
    if (!detached.ok()) {
        leaving->abandon();  // what is left of it in others may be called
    }
    Result unmapped = answer([&] { return leaving->unmap(); });
    services_.remove(id);
    services_.forgetAsker(std::to_string(id));
    return detached.ok() ? unmapped : detached;
}

// A holder that the module has left in other modules' objects would be called there
// when its code is gone. Looks before it walks, because walks wait.
Result ModuleManager::letGoOfOthers(unsigned int id) {
    return answer([&]() -> Result {
        const CMN_Entered entered(lifecycle_);
        const Tuint32ID leaving(id);
        const auto letGoOf = [&leaving](CMN_ObjectManager& objects) {
            if (objects.moduleIsUsedBy(leaving) != 0) {
                objects.unhookObjs(leaving);
            }
        };
        for (const Module& other : modules_) {
            letGoOf(other.objects());
        }
        letGoOf(ObjectManager);  // of the host's own services
        return {};
    });
}

Result ModuleManager::replace(unsigned int id, const char* path) {
    return answer([&]() -> Result {
        if (path == nullptr) {
            return {kInvalid, "no path of a module is given"};
        }
        const CMN_Entered entered(lifecycle_);
        if (Result asked = askToBeReplaced(id); !asked.ok()) {
            return asked;
        }
        InTransit fresh(inTransit_);
        if (Result mapped = fresh->map(path, mapping_); !mapped.ok()) {
            return mapped;
        }
        if (const Module* const other = sameFile(modules_, *fresh)) {
            return {kInvalid,
                    fresh->path() + ": is loaded already as module " + std::to_string(other->id())};
        }
        if (sameFile(inTransit_, *fresh) != nullptr) {
            return {kAlreadyOpen, fresh->path() + ": is being loaded or unloaded"};
        }
        if (Result started = fresh->start(*this, id); !started.ok()) {
            return started;
        }
        const auto old = find(id);
        if (old == modules_.end()) {
            return notLoaded(id);  // any more: the new one has unloaded it
        }
        // Nothing has moved yet: whoever is in the way keeps the old module as it is.
        if (!within(patience_, [&] { return !old->objects().isBusy(); })) {
            return inUse(id, "has calls in progress, or an object that nobody holds yet");
        }
        ServiceTable::Uses seen;
        if (!offerInPlaceOf(*old, *fresh, seen)) {
            return inUse(id, "was acquired by someone who holds no reference on its service");
        }
        Result moved = takeOver(*old, *fresh, seen);
        fresh.arrive(modules_, old);
        const InTransit leaving(inTransit_, modules_, old);
        leaving->stop();  // also lets go of what could not be taken over
        Result unmapped = leaving->unmap();
        return moved.ok() ? unmapped : moved;
    });
}

Result ModuleManager::askToBeReplaced(unsigned int id) {
    const auto module = find(id);
    if (module == modules_.end()) {
        return notLoaded(id);
    }
    bool replaceable = false;
    if (Result asked = module->isReplaceable(replaceable); !asked.ok()) {
        return asked;
    }
    return replaceable ? Result{} : inUse(id, "does not let itself be replaced");
}

// The new service is offered at a moment when nobody is between being given the old
// one and attaching it: what he attaches then would be gone.
bool ModuleManager::offerInPlaceOf(const Module& old, const Module& fresh,
                                   ServiceTable::Uses& seen) {
    return within(patience_, [&] {
        seen = services_.uses(old.id());
        return everyUseIsHeld(*old.service(), seen) &&
               services_.exchange(old.id(), fresh.service(), seen);
    });
}

// giveUp() goes on for as long as the old module has an object, so the manager lets
// go of its plain reference on the service. In its place it has a holder, which tells
// what has become of the others.
Result ModuleManager::takeOver(Module& old, Module& fresh, const ServiceTable::Uses& seen) {
    const CMN_GuardedRef* const service = old.service();
    CMN_GRefPtr<CMN_GuardedRef> witness;
    Result moved = answer([&]() -> Result {
        witness = old.service();
        old.letGo();
        guards_.mend();
        return fresh.takeOver(old.objects());
    });
    if (witness.get() == nullptr || witness.get() == service) {
        services_.forget(old.id(), seen);  // who loses the service does not release it
    }
    return moved;
}

CMN_GuardedRef* ModuleManager::moduleService(unsigned int id) {
    const CMN_Entered entered(lifecycle_);
    const auto module = find(id);
    return module == modules_.end() ? nullptr : module->service();
}

void* ModuleManager::symbol(unsigned int id, const char* name) {
    const CMN_Entered entered(lifecycle_);
    const auto module = find(id);
    return module == modules_.end() ? nullptr : module->symbol(name);
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
