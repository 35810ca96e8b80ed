// SPDX-License-Identifier: Apache-2.0
// The functions through which a host reaches a module's object manager, exported
// by every module under these plain names.
#ifndef CMN_OBJMGRFUNC_H
#define CMN_OBJMGRFUNC_H

#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/export.h"

extern "C" {

// Both return the module's manager and do nothing else.
CMN_EXPORT CMN_ObjectManager* GetObjectManager();
CMN_EXPORT CMN_ObjectManager* InitObjectManager();

// Each module's factory for a successor to `old`, an object of an earlier copy of
// the module: a new object of this module, or null when it makes none of the type.
CMN_EXPORT CMN_GuardedRef* MakeObject(unsigned int type, CMN_GuardedRef& old);
}

#endif  // CMN_OBJMGRFUNC_H
