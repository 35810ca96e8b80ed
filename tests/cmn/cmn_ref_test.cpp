#include "cmn/cmn_ref.h"

#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/mutex_probe.h"
#include "tests/support/short_wait.h"

namespace {

// Tells when it goes, and whether its mutex was free then.
class Counted : public CMN_Reference {
public:
    explicit Counted(bool& gone) : gone_(gone) {}
    ~Counted() override {
        gone_ = true;
        EXPECT_TRUE(isFree(RefMutex));
    }

private:
    bool& gone_;
};

TEST(ReferenceTest, StartsWithoutReferences) {
    EXPECT_EQ(0, CMN_Reference().references());
    CMN_RecursiveMutex mutex("test");
    EXPECT_EQ(0, CMN_Reference(&mutex).references());
}

TEST(ReferenceTest, LastReferenceDestroysTheObjectOutsideOfTheMutex) {
    bool gone = false;
    auto* const object = new Counted(gone);
    object->addReference();
    EXPECT_EQ(1, object->references());
    EXPECT_EQ(0, object->remReference());
    EXPECT_TRUE(gone);
}

TEST(ReferenceTest, OneOfTwoReferencesDestroysNothing) {
    bool gone = false;
    auto* const object = new Counted(gone);
    object->addReference();
    object->addReference();
    EXPECT_EQ(2, object->references());
    EXPECT_EQ(1, object->remReference());
    EXPECT_FALSE(gone);
    EXPECT_EQ(0, object->remReference());
    EXPECT_TRUE(gone);
}

TEST(ReferenceTest, GoesBelowZeroWithoutDestroying) {
    bool gone = false;
    const auto object = std::make_unique<Counted>(gone);
    EXPECT_EQ(-1, object->remReference());
    EXPECT_EQ(-1, object->references());
    EXPECT_EQ(-2, object->remReference());
    object->addReference();
    object->addReference();
    EXPECT_EQ(0, object->references());
    EXPECT_FALSE(gone);
}

TEST(ReferenceTest, CopyHasNeitherCountNorMutex) {
    CMN_RecursiveMutex own("test");
    CMN_Reference source(&own);
    for (int i = 0; i < 5; ++i) {
        source.addReference();
    }
    CMN_Reference copy(source);
    EXPECT_EQ(0, copy.references());
    EXPECT_EQ(5, source.references());

    const CMN_Entered taken(own);  // the copy must not wait for it
    std::thread([&] { copy.addReference(); }).join();
    EXPECT_EQ(1, copy.references());
}

TEST(ReferenceTest, AssignmentLeavesCountAndMutex) {
    CMN_RecursiveMutex own("test");
    CMN_Reference source(&own);
    CMN_Reference target;
    for (int i = 0; i < 3; ++i) {
        source.addReference();
    }
    target.addReference();
    EXPECT_EQ(&target, &(target = source));
    EXPECT_EQ(1, target.references());
    EXPECT_EQ(3, source.references());

    const CMN_Entered taken(own);  // the target must not wait for it
    std::thread([&] { target.addReference(); }).join();
    EXPECT_EQ(2, target.references());
}

TEST(ReferenceTest, CountsUnderTheMutexItWasGiven) {
    CMN_RecursiveMutex own("test");
    CMN_Reference object(&own);
    {
        const CMN_Entered taken(CMN_Reference::RefMutex);  // not this object's
        std::thread([&] { object.addReference(); }).join();
    }
    EXPECT_EQ(1, object.references());

    std::thread waiting;
    {
        const CMN_Entered taken(own);
        waiting = std::thread([&] { object.addReference(); });
        for (int i = 0; i < 30; ++i) {
            waitShortly();
        }
        EXPECT_EQ(1, object.references());  // read without the mutex
    }
    waiting.join();
    EXPECT_EQ(2, object.references());
}

TEST(ReferenceTest, OwnerOfTheMutexMayCount) {
    const CMN_Entered taken(CMN_Reference::RefMutex);
    CMN_Reference object;
    object.addReference();
    object.addReference();
    EXPECT_EQ(1, object.remReference());
}

}  // namespace
