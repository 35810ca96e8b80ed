// One small module in several copies: as two shared objects, and linked into the
// test program, which thereby has every class and every global of theirs too.
#ifndef TESTS_CMN_MODULES_TWIN_H
#define TESTS_CMN_MODULES_TWIN_H

#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"

class CMN_EXPORT TTwin : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    virtual int value() = 0;
    // The number of the module whose object this is.
    virtual unsigned int maker() = 0;
};

// What a copy calls its own.
struct TwinCopy {
    Tuint32ID* moduleID;
    const TypifiedID* const* ownID;
    CMN_RecursiveMutex* refMutex;
    CMN_ObjectManager* registry;
    CMN_ObjectManager* const* ownRegistry;
    TModuleManager** manager;
    TTwin* (*make)(int value);
    // Takes over the objects of another copy's registry, with their values.
    void (*takeOver)(CMN_ObjectManager* from);
};

extern "C" CMN_EXPORT const TwinCopy* GetTwinCopy();

#endif  // TESTS_CMN_MODULES_TWIN_H
