// SPDX-License-Identifier: Apache-2.0
// The host's module manager, as the modules see it.
//
// The host implements it and hands it to each module's GetInterfaceClass. Every
// operation may be called from any thread, also from within a call into the
// host. The order of the operations is a binary contract between host and modules.
#ifndef CMN_HOST_MGR_H
#define CMN_HOST_MGR_H

#include "cmn/export.h"
#include "cmn/status.h"

class CMN_Guard;
class CMN_GuardedRef;
class TypifiedID;

class CMN_EXPORT TModuleManager {
public:
    TModuleManager() = default;
    TModuleManager(const TModuleManager&) = delete;
    TModuleManager& operator=(const TModuleManager&) = delete;
    virtual ~TModuleManager() = default;

    // Loads the module in the file at `path` and starts it.
    virtual Status loadModule(const char* path) = 0;

    // Stops and unloads a module that no other module uses.
    virtual Status unloadModule(const TypifiedID& module) = 0;

    // 1 while the module is loaded, else 0.
    virtual int isLoaded(const TypifiedID& module) = 0;

    // The guard for an object that is being built, or null for none. The object
    // takes a reference on it for its lifetime; the host owns the guard.
    virtual CMN_Guard* currentGuard() = 0;

    // The service object of a module, on behalf of the module `asker`; null when
    // there is none. A result counts as one use of the service's module, which
    // releaseModule() ends. The caller takes its own reference on the object.
    virtual CMN_GuardedRef* acquireService(const TypifiedID& service, const TypifiedID& asker) = 0;

    // Ends one use of `module` by `asker`. Ignored if there is none.
    virtual void releaseModule(const TypifiedID& module, const TypifiedID& asker) = 0;
};

// The manager that was given to this module; null before that.
extern TModuleManager* ModMgr;

#endif  // CMN_HOST_MGR_H
