// Holders when memory runs out: who cannot be listed as a holder holds nothing.
#include <new>

#include <gtest/gtest.h>

#include "cmn/cmn_gref.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/test_objects.h"

namespace {

using fault::FailingAllocation;
using Holder = CMN_GRefPtr<TestObject>;

template <class Action>
bool throwsWithoutMemory(Action action) {
    FailingAllocation failing(1);
    try {
        action();
    } catch (const std::bad_alloc&) {
        return failing.lift();
    }
    return false;
}

TEST(GRefMemoryTest, ObjectThatNobodyElseHoldsGoes) {
    auto* const object = new TestObject;
    EXPECT_TRUE(throwsWithoutMemory([&] { const Holder holder(object); }));
    EXPECT_EQ(0, TestObject::alive());
}

TEST(GRefMemoryTest, ObjectThatIsHeldStaysAsItWas) {
    const Holder first(new TestObject);
    TestObject& object = *first.get();
    EXPECT_TRUE(throwsWithoutMemory([&] { const Holder second(&object); }));
    EXPECT_EQ(1, object.references());
    EXPECT_EQ(1U, holdersOf(object).size());
}

TEST(GRefMemoryTest, FailedAssignmentHoldsNothing) {
    const Holder kept(new TestObject("new"));
    Holder holder(new TestObject("old"));
    EXPECT_TRUE(throwsWithoutMemory([&] { holder = kept; }));
    EXPECT_EQ(nullptr, holder.get());
    EXPECT_EQ(1, TestObject::alive());
    holder = kept;
    EXPECT_EQ(2, kept.get()->references());
}

TEST(GRefMemoryTest, TakingOverNeedsNone) {
    Holder from(new TestObject);
    Holder to;
    EXPECT_FALSE(throwsWithoutMemory([&] { to.takeOver(from); }));
    EXPECT_NE(nullptr, to.get());
}

TEST(GRefMemoryTest, FailedTakingOverFromAHolderThatIsNotListedHoldsNothing) {
    const Holder kept(new TestObject);
    Holder from(kept.get());
    ASSERT_EQ(1, kept.get()->remReference(&from));
    Holder to;
    EXPECT_TRUE(throwsWithoutMemory([&] { to.takeOver(from); }));
    EXPECT_EQ(nullptr, to.get());
    EXPECT_EQ(1, kept.get()->references());
}

TEST(GRefMemoryTest, FailedRedirectionHoldsNothing) {
    const Holder kept(new TestObject("new"));
    Holder holder(new TestObject("old"));
    EXPECT_TRUE(throwsWithoutMemory([&] { holder.replacePointee(kept.get()); }));
    EXPECT_EQ(nullptr, holder.get());
    EXPECT_EQ(1, TestObject::alive());
}

}  // namespace
