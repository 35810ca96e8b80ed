// SPDX-License-Identifier: Apache-2.0
// The end of a module's object, which the host owns: api/base_module.h says how.
#ifndef CMN_HOST_OWNED_H
#define CMN_HOST_OWNED_H

#include "cmn/cmn_gref.h"

// For a module that stops: `letGo()` empties its own holders on `object`. A host that
// has references of its own deletes the object by giving them back. For one that has
// none, and deletes it outright, a reference without a holder stays behind: others may
// still let go of the object, and do not delete it.
template <class LetGo>
void leaveToHost(CMN_GuardedRef& object, LetGo letGo) {
    object.CMN_Reference::addReference();
    letGo();
    if (object.references() > 1 + object._getHolders().size()) {
        object.CMN_Reference::remReference();
    }
}

#endif  // CMN_HOST_OWNED_H
