// SPDX-License-Identifier: Apache-2.0
// What every loadable module shows its host: the entry, and the object that
// answers the host's questions. The order of the operations is a binary contract.
//
// Who owns what. The object is the host's. From the entry until it is stopped, a module
// that others use holds it as well, so that none of them deletes it by letting go. A host
// does one of two things:
// - It takes a reference with addReference() of the object's other side, CMN_GuardedRef,
//   which getService() gives, before it stops the module, and gives it back with
//   remReference() afterwards. Whoever lets go last then deletes the object.
// - It takes none, or has given them all back before it stops the module, and deletes the
//   object, before it stops the module or afterwards. Who still holds the object then
//   holds nothing. A holder, such as a client's stub, is no reference of the host's.
//
// The order of letting go: other modules let go of their handles and stubs; the host
// stops the module with GetInterfaceClass(nullptr, 0); then it detaches whoever holds an
// object of the module all the same, with fini() of its GetObjectManager(); then the
// object goes, which closes what it has opened, wipes its keys and gives back what it
// uses of other modules, so that the manager and those modules must still be there; then
// the file is unmapped. fini() before the stop detaches the module's own holder as well:
// then only a reference of the host's keeps the object.
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
    // Called by a host that has no reference, and by the last remReference().
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
// its manager and flag 0, and gets the module's object, which the host owns, as said
// above. A flag other than 0 only records the manager and gives null. With a null
// manager, after all other use, it stops the module and gives null.
extern "C" CMN_EXPORT BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag);

#endif  // API_BASE_MODULE_H
