// SPDX-License-Identifier: Apache-2.0
// The host's module manager: loads modules, finds their services for each other, gives
// their objects guards, and unloads or replaces modules.
//
// An exception that a module throws ends here: the operation fails with kIo or kNoMemory,
// and a message.
//
// Any thread may call any operation. Loading, unloading and replacing exclude each other.
// A module's entry may call them, but not a call of an object of the module concerned, nor
// anyone who holds a lock of the framework (an object's fini(), say), since they wait for
// such calls and locks. What modules ask for (currentGuard, acquireService, releaseModule,
// isLoaded) never waits for them. Locks: see docs/locking.md.
//
// A module is in use when another one has acquired its service or holds one of its
// objects. What it has acquired and holds itself does not count.
#ifndef HOST_MODULE_MANAGER_H
#define HOST_MODULE_MANAGER_H

#include <chrono>
#include <list>
#include <optional>

#include "api/base_module.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"
#include "cmn/status.h"
#include "cmn/thread_annotations.h"
#include "host/guard_pool.h"
#include "host/module.h"
#include "host/result.h"
#include "host/service_table.h"

class ModuleManager final : public TModuleManager {
public:
    ModuleManager() = default;
    ~ModuleManager() override { (void)unloadAll(); }  // nobody is left to report to

    // Loads the module in the file at `path` and starts it.
    //   kInvalid       `path` is null
    //   kMissing       there is no such file
    //   kMalformed     not the file of a module, or of another module than `expected`
    //   kAlreadyOpen   this file, or another one of the module, is loaded, or is being
    //                  loaded or unloaded: its own entry may have called this
    //   kIo, kNoMemory, or what the start of the service returned
    Result load(const char* path, std::optional<unsigned int> expected = {});

    // Stops and unloads a module.
    //   kEnd           it is not loaded
    //   kAlreadyOpen   another module uses it, or a call of one of its objects is in
    //                  progress; nothing has changed
    //   kIo            done, but the module has left objects behind, or something else
    //                  in this process has opened its file: its file stays mapped
    Result unload(unsigned int id);

    // As unload(), also for a module in use: all other modules lose the objects of it that
    // they hold. Callers may go on calling through their handles, and reach nothing; they
    // must not make, assign or destroy handles meanwhile.
    //   kAlreadyOpen   calls were in progress for longer than the patience. If they
    //                  began after this operation, some handles are empty already.
    Result forceUnload(unsigned int id);

    // Unloads every module by force, the newest first. A module that refuses stays mapped
    // and is left alone. Returns the first failure, if any.
    Result unloadAll();

    // Loads the file at `path`, a newer one of module `id`, and lets the new module take
    // over from the old one: holders are redirected to the objects that it makes in place
    // of the old ones, and emptied where it makes none. Uses stay counted if it makes the
    // service. Callers may go on calling, as above. Waits for the end of every call that
    // is in progress on the old module.
    //   as load(), where the file that is loaded already is kInvalid, and
    //   kEnd           module `id` is not loaded
    //   kAlreadyOpen   the module does not let itself be replaced; or, for longer than the
    //                  patience, calls were in progress, an object had no holder yet, or
    //                  someone had acquired its service and held no reference on it. The
    //                  module is as it was
    //   kIo, kNoMemory also when the new module could not make all objects: it has taken
    //                  over, and holders of what it did not make are empty
    Result replace(unsigned int id, const char* path);

    // Offers `service` to all modules as service `id`, in front of that of a module with
    // this number; null ends that. Call it before anyone acquires the service: a stub that
    // has one keeps it. The caller keeps the object alive and has a holder on it.
    void setService(unsigned int id, CMN_GuardedRef* service) { services_.setOwn(id, service); }

    // The service object of module `id` itself, or null. Not counted as a use: only a
    // holder prevents the module's unloading.
    CMN_GuardedRef* moduleService(unsigned int id);

    // What module `id` exports under this plain name, or null. It is there until the module is
    // unloaded or replaced.
    void* symbol(unsigned int id, const char* name);

    // Has what is loaded from now on be this manager's alone, whatever another one in the process
    // maps of the same files (ModuleFile::Mapping::kOwn). Call it before anything is loaded.
    void mapOwn() noexcept { mapping_ = ModuleFile::Mapping::kOwn; }

    // How long forceUnload() and replace() wait for others.
    void setPatience(std::chrono::milliseconds patience);

    // The acquisitions of module `id` that have not been released.
    int uses(unsigned int id) const;
    const GuardPool& guards() const noexcept { return guards_; }

    // TModuleManager: the same operations, with the bare status.
    Status loadModule(const char* path) override;
    Status unloadModule(const TypifiedID& module) override;
    int isLoaded(const TypifiedID& module) override;
    CMN_Guard* currentGuard() override;
    CMN_GuardedRef* acquireService(const TypifiedID& service, const TypifiedID& asker) override;
    void releaseModule(const TypifiedID& module, const TypifiedID& asker) override;

private:
    using Modules = std::list<Module>;
    class InTransit;

    Modules::iterator find(unsigned int id) CMN_REQUIRES(lifecycle_);
    static const Module* sameFile(const Modules& modules, const Module& module);
    Result admit(const Module& fresh) CMN_REQUIRES(lifecycle_);
    Result closeUnused(const Module& module);
    Result detachUsers(const Module& module) CMN_REQUIRES(lifecycle_);
    Result remove(Modules::iterator module) CMN_REQUIRES(lifecycle_);
    Result askToBeReplaced(unsigned int id) CMN_REQUIRES(lifecycle_);
    bool offerInPlaceOf(const Module& old, const Module& fresh, ServiceTable::Uses& seen)
        CMN_REQUIRES(lifecycle_);
    Result takeOver(Module& old, Module& fresh, const ServiceTable::Uses& seen);
    Result letGoOfOthers(unsigned int id);

    // Serialises loading, unloading and replacing. Recursive: a module's entry may
    // load others. The first lock of the order; held while modules are called.
    CMN_RecursiveMutex lifecycle_{"lifecycle"};
    ModuleFile::Mapping mapping_ = ModuleFile::Mapping::kShared;
    GuardPool guards_;  // outlives the modules
    ServiceTable services_;
    Modules modules_ CMN_GUARDED_BY(lifecycle_);  // in the order of loading
    // Those that are being started or stopped. A module that is called meanwhile may ask
    // for any of them.
    Modules inTransit_ CMN_GUARDED_BY(lifecycle_);
    std::chrono::milliseconds patience_ CMN_GUARDED_BY(lifecycle_){2000};
};

#endif  // HOST_MODULE_MANAGER_H
