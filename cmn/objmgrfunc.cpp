#include "cmn/objmgrfunc.h"

CMN_ObjectManager* GetObjectManager() {
    return &ObjectManager;
}

CMN_ObjectManager* InitObjectManager() {
    return &ObjectManager;
}
