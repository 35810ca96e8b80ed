// What every loadable module shows its host: the entry, and the object that
// answers the host's questions. The order of the operations is a binary contract.
#ifndef API_BASE_MODULE_H
#define API_BASE_MODULE_H

#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

class CMN_EXPORT BaseModuleInterface {
public:
    BaseModuleInterface() = default;
    BaseModuleInterface(const BaseModuleInterface&) = delete;
    BaseModuleInterface& operator=(const BaseModuleInterface&) = delete;
    virtual ~BaseModuleInterface() = default;

    virtual unsigned int getModuleID() = 0;  // the value of the module's Tuint32ID
    virtual unsigned int getVersion() = 0;
    virtual unsigned int getBuild() = 0;

    // 1 when a newer file of the module may take over from this one, else 0.
    virtual int isReplaceable() = 0;

    // An object of the given kind for the host itself, or null.
    virtual CMN_GuardedRef* createObject(unsigned int type) = 0;

    // Announces another module to this one; kIo when this one does not care.
    virtual Status addModule(unsigned int id, BaseModuleInterface* module) = 0;

    // The object of the service `id`, or null when this module does not offer it.
    virtual CMN_GuardedRef* getService(const TypifiedID& id) = 0;
};

// The module's entry. The host calls it before any other use of the module with
// its manager and flag 0, and gets the module's object, which the host owns. A
// flag other than 0 only records the manager and gives null. With a null manager,
// after all other use, it stops the module and gives null.
extern "C" CMN_EXPORT BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag);

#endif  // API_BASE_MODULE_H
