#include "cmn/cmn_ref.h"

alignas(64) CMN_BUILT_FIRST constinit CMN_RecursiveMutex CMN_Reference::RefMutex("RefMutex");

CMN_Reference::~CMN_Reference() = default;

void CMN_Reference::addReference() {
    const CMN_Entered entered(*mutex);
    changeCount(1);
}

// The object goes outside of the mutex, so that its destructor may take it.
int CMN_Reference::remReference() {
    int left = 0;
    {
        const CMN_Entered entered(*mutex);
        left = changeCount(-1);
    }
    if (left == 0) {
        delete this;
    }
    return left;
}
