#include "cmn/cmn_ref.h"

CMN_BUILT_FIRST constinit CMN_RecursiveMutex CMN_Reference::RefMutex("RefMutex");

CMN_Reference::~CMN_Reference() = default;

void CMN_Reference::addReference() {
    const CMN_Entered entered(*mutex);
    count.store(references() + 1, std::memory_order_relaxed);
}

int CMN_Reference::remReference() {
    int left = 0;
    {
        const CMN_Entered entered(*mutex);
        left = references() - 1;
        count.store(left, std::memory_order_relaxed);
    }
    // Outside of the mutex, so that a destructor may take it itself.
    if (left == 0) {
        delete this;
    }
    return left;
}
