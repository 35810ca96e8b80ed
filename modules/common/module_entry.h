// What the entries of our service modules have in common.
//
// A module's service object is its module object as well: the host asks it for
// itself with getService(). The module holds it until it is stopped; who deletes it, and
// when, is said in api/base_module.h.
#ifndef MODULES_COMMON_MODULE_ENTRY_H
#define MODULES_COMMON_MODULE_ENTRY_H

#include "api/base_module.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/host_mgr.h"
#include "cmn/host_owned.h"
#include "cmn/id_type.h"
#include "cmn/no_throw.h"
#include "cmn/status.h"

// What all our modules answer alike. It stands apart from the service, which may
// have operations of the same names.
class ModuleAnswers : public BaseModuleInterface {
public:
    unsigned int getModuleID() override { return ModuleID.value(); }
    unsigned int getVersion() override { return 1; }
    unsigned int getBuild() override { return 1; }
    // Objects of the module live on in other modules, and a newer file of it could
    // not make successors of them.
    int isReplaceable() override { return 0; }
    CMN_GuardedRef* createObject(unsigned int /*type*/) override { return nullptr; }
    Status addModule(unsigned int /*id*/, BaseModuleInterface* /*module*/) override { return kIo; }
};

// The module object of a module with the one service `Service`, an interface that
// derives from CMN_GuardedRef. The module derives its service from this.
template <class Service>
class ServiceModule : public ModuleAnswers, public Service {
public:
    CMN_GuardedRef* getService(const TypifiedID& id) override {
        return id == ModuleID ? static_cast<CMN_GuardedRef*>(this) : nullptr;
    }

    Status init() override { return kOk; }
    Status fini() override { return kOk; }

protected:
    explicit ServiceModule(unsigned int objectType) : Service(objectType) {}
    // The host may delete the service while it is held.
    ~ServiceModule() override {
        this->CMN_Reference::addReference();
        this->detachAll();
    }
};

// The module's own holder on its service, from the entry until the module is stopped.
template <class Implementation>
inline CMN_GRefPtr<Implementation> ownService;

// Ends that.
template <class Implementation>
void letGoOfService() {
    if (Implementation* const own = ownService<Implementation>.get()) {
        leaveToHost(*own, [] { ownService<Implementation> = nullptr; });
    }
}

// The body of a module's GetInterfaceClass: `Implementation` is the module's
// service, `stop()` gives back what the module holds of other modules. Null also
// when the service cannot be made.
template <class Implementation, class Stop>
BaseModuleInterface* serveEntry(TModuleManager* manager, int flag, Stop stop) noexcept {
    BaseModuleInterface* made = nullptr;
    (void)noThrow([&] {  // a module that was not made is told by null
        if (manager == nullptr) {
            ObjectManager.finiAll();
            letGoOfService<Implementation>();
            stop();
            return kOk;
        }
        ModMgr = manager;
        if (flag == 0) {
            letGoOfService<Implementation>();  // of one that was made before
            // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): noThrow() handles it
            ownService<Implementation> = new Implementation;
            made = ownService<Implementation>.get();
        }
        return kOk;
    });
    return made;
}

#endif  // MODULES_COMMON_MODULE_ENTRY_H
