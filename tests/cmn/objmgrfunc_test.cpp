#include "cmn/objmgrfunc.h"

#include <gtest/gtest.h>

#include "tests/support/test_objects.h"

namespace {

TEST(ObjMgrFuncTest, BothGiveTheModulesManager) {
    EXPECT_EQ(&ObjectManager, GetObjectManager());
    EXPECT_EQ(&ObjectManager, InitObjectManager());
    EXPECT_EQ(&ObjectManager, pObjMgr);
}

TEST(ObjMgrFuncTest, ModuleWithoutSuccessorsMakesNone) {
    const CMN_GRefPtr<TestObject> old(new TestObject);
    for (const unsigned int type : {0u, 1u, old.get()->getType(), 0x6B0001u, 0xFFFFFFFFu}) {
        EXPECT_EQ(nullptr, MakeObject(type, *old.get()));
    }
    EXPECT_EQ(1, TestObject::alive());
}

}  // namespace
