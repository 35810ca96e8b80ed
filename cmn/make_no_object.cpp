// MakeObject for modules whose objects do not outlive them.
#include "cmn/objmgrfunc.h"

CMN_GuardedRef* MakeObject(unsigned int /*type*/, CMN_GuardedRef& /*old*/) {
    return nullptr;
}
