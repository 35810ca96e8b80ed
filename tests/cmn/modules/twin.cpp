#include "tests/cmn/modules/twin.h"

#include "cmn/objmgrfunc.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(TWIN_ID);

namespace {

class Twin : public TTwin {
public:
    static constexpr unsigned int kType = 1;

    explicit Twin(int number) : TTwin(kType), value_(number) {}
    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    int value() override { return value_; }
    unsigned int maker() override { return ModuleID.value(); }

private:
    int value_;
};

TTwin* make(int value) {
    return new Twin(value);
}

void takeOver(CMN_ObjectManager* from) {
    ObjectManager.init(from);
}

constexpr TwinCopy kThisCopy = {&ModuleID,      &pModuleID, &CMN_Reference::RefMutex,
                                &ObjectManager, &pObjMgr,   &ModMgr,
                                make,           takeOver};

}  // namespace

const TwinCopy* GetTwinCopy() {
    return &kThisCopy;
}

CMN_GuardedRef* MakeObject(unsigned int type, CMN_GuardedRef& old) {
    return type == Twin::kType ? make(static_cast<TTwin&>(old).value()) : nullptr;
}
