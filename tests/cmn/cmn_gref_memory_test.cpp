// Holders when memory runs out: who cannot be listed as a holder holds nothing.
#include <new>
#include <string>
#include <vector>

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

TEST(GRefMemoryTest, FailedAssignmentOfWhatIsHeldChangesNothing) {
    Holder holder(new TestObject);
    const Holder another(holder);
    EXPECT_TRUE(throwsWithoutMemory([&] { holder = another; }));
    EXPECT_EQ(another.get(), holder.get());
    EXPECT_EQ(2, holder.get()->references());
    EXPECT_EQ(2U, holdersOf(*holder.get()).size());
}

// An index of many holders is a help, and no more.
TEST(GRefMemoryTest, HoldersLeaveALongListWithoutMemory) {
    const long before = fault::liveAllocations();
    {
        const Holder first(new TestObject);
        std::vector<Holder> holders(10 * CMN_HolderList::kNear, first);
        {
            FailingAllocation failing(1, FailingAllocation::Mode::kFromThenOn);
            for (Holder& holder : holders) {
                holder = nullptr;
            }
            EXPECT_TRUE(failing.lift());
        }
        EXPECT_EQ(1, first.get()->references());
        EXPECT_EQ(1U, holdersOf(*first.get()).size());
    }
    EXPECT_EQ(before, fault::liveAllocations());
}

TEST(GRefMemoryTest, IndexThatRunsOutOfMemoryFindsEveryHolder) {
    for (long nth = 1;; ++nth) {
        SCOPED_TRACE("failing allocation " + std::to_string(nth));
        const Holder first(new TestObject);
        std::vector<Holder> holders(3 * CMN_HolderList::kNear, first);
        FailingAllocation failing(nth);
        for (Holder& holder : holders) {
            holder = nullptr;
        }
        const bool hit = failing.lift();
        EXPECT_EQ(1, first.get()->references());
        EXPECT_EQ(1U, holdersOf(*first.get()).size());
        if (!hit) {
            EXPECT_LT(3, nth) << "the index needed no memory";
            break;
        }
    }
}

// Neither when its object goes while it is held by many.
TEST(GRefMemoryTest, NoIndexStaysBehind) {
    const long before = fault::liveAllocations();
    {
        std::vector<TestHolder*> holders;
        {
            const CMN_GRefPtr<TestObject> first(new TestObject);
            for (int i = 0; i < 5 * CMN_HolderList::kNear; ++i) {
                holders.push_back(new TestHolder(67));
                holders.back()->hold(first.get());
            }
            holders.front()->hold(nullptr);
            for (TestHolder* const holder : holders) {
                holder->forget();
            }
            for (int held = first.get()->references(); held > 1; --held) {
                first.get()->CMN_Reference::remReference();
            }
        }
        EXPECT_EQ(0, TestObject::alive());
        for (TestHolder* const holder : holders) {
            delete holder;
        }
    }
    EXPECT_EQ(before, fault::liveAllocations());
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
