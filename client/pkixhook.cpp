#include "client/pkixhook.h"

namespace {

// Destroyed never, as its destructor is trivial: the lists that name it may be
// looked at until the process is gone.
XBaseHolder& keeper() {
    static XBaseHolder holder;
    return holder;
}

}  // namespace

XBase* getXBase(const PKIXAnyObject<XBase>& obj, int keep) {
    XBase* const object = obj.target();
    if (keep != 0 && object != nullptr) {
        object->addReference(&keeper());
    }
    return object;
}
