#include "cmn/cmn_ref.h"

alignas(64) CMN_BUILT_FIRST constinit CMN_RecursiveMutex CMN_Reference::RefMutex("RefMutex");

CMN_Reference::~CMN_Reference() = default;

void CMN_Reference::addReference() {
    addToCount(1);
}

int CMN_Reference::remReference() {
    return drop();
}
