#include "cmn/cmn_gref.h"

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmn/cmn_obj_mgr.h"
#include "tests/support/fake_host.h"
#include "tests/support/mutex_probe.h"
#include "tests/support/short_wait.h"
#include "tests/support/test_objects.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kOwn = 107;
constexpr unsigned int kOther = 67;
const Tuint32ID kSupplier(kOther);

// A guard that the test keeps, and a host that gives it to every new object.
class GuardedTest : public testing::Test {
protected:
    GuardedTest() {
        guard->addReference();
        host.giveGuard(guard);
    }
    ~GuardedTest() override {
        host.giveNoGuards();
        guard->remReference();
        EXPECT_EQ(0, TestObject::alive());
    }

    CMN_Guard* const guard = new CMN_Guard;
    FakeHost host;
    const InstalledHost installed{&host};
};

// --- guards

TEST(GuardTest, CountsUpAndDownAndTellsTheNewCount) {
    CMN_Guard guard;
    EXPECT_EQ(0, guard.calls());
    EXPECT_EQ(1, guard.inc());
    EXPECT_EQ(2, guard.inc());
    EXPECT_EQ(2, guard.calls());
    EXPECT_EQ(1, guard.dec());
    EXPECT_EQ(0, guard.dec());
}

TEST(GuardTest, ChangesUnderItsMutexAndIsReadWithoutIt) {
    CMN_Guard guard;
    guard.lock();
    std::thread other([&] { guard.inc(); });
    for (int i = 0; i < 30; ++i) {
        waitShortly();
    }
    EXPECT_EQ(0, guard.calls());
    guard.unlock();
    other.join();
    EXPECT_EQ(1, guard.calls());
}

// --- the list of holders

class HolderListTest : public testing::Test {
protected:
    std::vector<CMN_GRPHolder*> values() const {
        std::vector<CMN_GRPHolder*> found;
        for (const auto* node = list.first(); node != nullptr; node = node->next) {
            found.push_back(node->value);
        }
        return found;
    }
    // Every node's back-link is the link that leads to it.
    void expectLinked() const {
        for (const auto* node = list.first(); node != nullptr; node = node->next) {
            EXPECT_EQ(node, *node->prevLink);
            if (node->next != nullptr) {
                EXPECT_EQ(&node->next, node->next->prevLink);
            }
        }
    }

    slist<CMN_GRPHolder> list;
    TestHolder a{kOwn};
    TestHolder b{kOwn};
    TestHolder c{kOwn};
};

TEST_F(HolderListTest, StartsEmpty) {
    EXPECT_EQ(nullptr, list.first());
    EXPECT_EQ(0, list.size());
    EXPECT_EQ(nullptr, list.find(&a));
}

TEST_F(HolderListTest, PushFrontPutsTheNewestFirst) {
    list.push_front(&a);
    list.push_front(&b);
    list.push_front(&c);
    EXPECT_THAT(values(), ElementsAre(&c, &b, &a));
    EXPECT_EQ(3, list.size());
    expectLinked();
}

TEST_F(HolderListTest, EraseitemUnlinksOneNodeWhereverItStands) {
    const struct {
        const char* name;
        const TestHolder* erased;
        std::vector<CMN_GRPHolder*> left;
    } rows[] = {
        {"first", &c, {&b, &a}},
        {"middle", &b, {&c, &a}},
        {"last", &a, {&c, &b}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        while (list.first() != nullptr) {
            list.eraseitem(list.first());
        }
        for (TestHolder* holder : {&a, &b, &c}) {
            list.push_front(holder);
        }
        list.eraseitem(list.find(row.erased));
        EXPECT_EQ(row.left, values());
        EXPECT_EQ(2, list.size());
        expectLinked();
    }
}

TEST_F(HolderListTest, EraseitemIgnoresNull) {
    list.push_front(&a);
    list.eraseitem(nullptr);
    EXPECT_THAT(values(), ElementsAre(&a));
    EXPECT_EQ(1, list.size());
}

TEST_F(HolderListTest, FindGivesTheNewestNodeOfAHolder) {
    list.push_front(&a);
    list.push_front(&a);
    EXPECT_EQ(list.first(), list.find(&a));
    EXPECT_EQ(nullptr, list.find(&b));
}

// --- guarded objects

using GuardedRefTest = GuardedTest;

TEST_F(GuardedRefTest, StartsWithoutReferencesAndHolders) {
    TestObject object("", nullptr, 0x6B0001);
    EXPECT_EQ(0, object.references());
    EXPECT_EQ(0x6B0001u, object.getType());
    EXPECT_THAT(holdersOf(object), IsEmpty());
}

TEST_F(GuardedRefTest, TypeCanBeChanged) {
    TestObject object;
    object.setType(0xFFFFFFFF);
    EXPECT_EQ(0xFFFFFFFFu, object.getType());
}

TEST_F(GuardedRefTest, TakesAReferenceOnTheHostsGuardForItsLife) {
    ASSERT_EQ(1, guard->references());
    {
        const TestObject object;
        EXPECT_EQ(guard, object.getGuard());
        EXPECT_EQ(2, guard->references());
        EXPECT_EQ(0, guard->calls());
    }
    EXPECT_EQ(1, guard->references());
}

TEST_F(GuardedRefTest, HasNoGuardWithoutOneOfTheHost) {
    host.giveNoGuards();
    EXPECT_EQ(nullptr, TestObject().getGuard());
    const InstalledHost none(nullptr);
    EXPECT_EQ(nullptr, TestObject().getGuard());
}

TEST_F(GuardedRefTest, LastObjectOfAGuardDestroysIt) {
    auto* const shared = new CMN_Guard;
    host.giveGuard(shared);
    auto first = std::make_unique<TestObject>();
    auto second = std::make_unique<TestObject>();
    EXPECT_EQ(2, shared->references());
    first.reset();
    EXPECT_EQ(1, shared->references());
    second.reset();  // the sanitizers see whether the guard went with it
}

TEST_F(GuardedRefTest, SetGuardMovesTheReference) {
    auto* const next = new CMN_Guard;
    next->addReference();
    {
        TestObject object;
        object.setGuard(next);
        EXPECT_EQ(next, object.getGuard());
        EXPECT_EQ(1, guard->references());
        EXPECT_EQ(2, next->references());
    }
    host.giveNoGuards();
    {
        TestObject unguarded;
        unguarded.setGuard(next);
        EXPECT_EQ(next, unguarded.getGuard());
        EXPECT_EQ(2, next->references());
    }
    EXPECT_EQ(1, next->references());
    next->remReference();
}

// A guard may have no other reference than the object's.
TEST_F(GuardedRefTest, SetGuardOfTheGuardThatItHasKeepsIt) {
    class Watched : public CMN_Guard {
    public:
        explicit Watched(bool& gone) : gone_(gone) {}
        ~Watched() override { gone_ = true; }

    private:
        bool& gone_;
    };
    bool gone = false;
    auto* const own = new Watched(gone);
    {
        TestObject object;
        object.setGuard(own);
        object.setGuard(own);
        ASSERT_FALSE(gone);
        EXPECT_EQ(own, object.getGuard());
        EXPECT_EQ(1, own->references());
    }
    EXPECT_TRUE(gone);
}

TEST_F(GuardedRefTest, CopyHasTypeAndGuardButNoHolders) {
    TestObject source("source", nullptr, 0x6B0003);
    TestHolder holder(kOther);
    source.addReference(&holder);
    source.CMN_Reference::addReference();
    host.giveNoGuards();  // the copy's guard is the source's, not the host's
    {
        TestObject copy(source);
        EXPECT_EQ(0x6B0003u, copy.getType());
        EXPECT_EQ(guard, copy.getGuard());
        EXPECT_EQ(3, guard->references());
        EXPECT_EQ(0, copy.references());
        EXPECT_THAT(holdersOf(copy), IsEmpty());
    }
    EXPECT_EQ(2, guard->references());
    EXPECT_EQ(2, source.references());
    EXPECT_THAT(holdersOf(source), ElementsAre(&holder));
}

TEST_F(GuardedRefTest, CopyIsRegisteredLikeAnyNewObject) {
    auto* const source = new TestObject("source");
    const CMN_GRefPtr<TestObject> held(source);
    const CMN_GRefPtr<TestObject> heldCopy(new TestObject(*source));
    DummyHolder* const pin = ObjectManager.getObj();
    ASSERT_NE(nullptr, pin);
    EXPECT_EQ(heldCopy.get(), pin->object());
    pin->die();
}

TEST_F(GuardedRefTest, AddReferenceCountsAndListsNewestFirst) {
    TestObject object;
    TestHolder a(kOwn);
    TestHolder b(kOther);
    object.addReference(&a);
    object.addReference(&b);
    EXPECT_EQ(2, object.references());
    EXPECT_THAT(holdersOf(object), ElementsAre(&b, &a));
}

TEST_F(GuardedRefTest, RemReferenceOfAHolderThatIsNotListedChangesNothing) {
    TestObject object;
    TestHolder listed(kOwn);
    TestHolder stranger(kOther);
    EXPECT_EQ(0, object.remReference(&stranger));
    object.addReference(&listed);
    object.CMN_Reference::addReference();
    EXPECT_EQ(2, object.remReference(&stranger));
    EXPECT_EQ(2, object.references());
    EXPECT_THAT(holdersOf(object), ElementsAre(&listed));
}

TEST_F(GuardedRefTest, HolderAddedTwiceIsListedTwiceAndLeavesNewestFirst) {
    auto* const object = new TestObject;
    TestHolder a(kOwn);
    TestHolder b(kOwn);
    object->addReference(&a);
    object->addReference(&b);
    object->addReference(&a);
    EXPECT_THAT(holdersOf(*object), ElementsAre(&a, &b, &a));
    EXPECT_EQ(2, object->remReference(&a));
    EXPECT_THAT(holdersOf(*object), ElementsAre(&b, &a));
    EXPECT_EQ(1, object->remReference(&a));
    EXPECT_THAT(holdersOf(*object), ElementsAre(&b));
    EXPECT_EQ(1, object->remReference(&a));
    EXPECT_EQ(0, object->remReference(&b));
    EXPECT_EQ(0, TestObject::alive());
}

TEST_F(GuardedRefTest, PlainReferencesKeepTheObjectWithoutAHolder) {
    auto* const object = new TestObject;
    TestHolder holder(kOwn);
    object->addReference(&holder);
    object->addReference();
    EXPECT_EQ(1, object->remReference(&holder));
    EXPECT_THAT(holdersOf(*object), IsEmpty());
    EXPECT_EQ(0, object->remReference());
    EXPECT_EQ(0, TestObject::alive());
}

TEST_F(GuardedRefTest, DestructionFreesTheListWithoutCallingTheHolders) {
    EventLog log;
    TestHolder holder(kOther, "holder", &log);
    {
        TestObject object;
        holder.hold(&object);
    }
    holder.forget();
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(GuardedRefTest, DestructionOfTheLastReferenceRunsOutsideOfItsLocks) {
    class Asking : public TestObject {
    public:
        ~Asking() override {
            EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
            std::thread([this] { EXPECT_THAT(holdersOf(*this), IsEmpty()); }).join();
        }
    };
    CMN_GRefPtr<TestObject> holder(new Asking);
    holder = nullptr;
    EXPECT_EQ(0, TestObject::alive());
}

TEST_F(GuardedRefTest, HolderListIsLockedAgainstOtherThreadsOnly) {
    TestObject object;
    TestHolder own(kOwn);
    TestHolder others(kOther);
    object.lockHolderList();
    object.lockHolderList();
    object.addReference(&own);
    std::thread other([&] { object.addReference(&others); });
    while (object.references() != 2) {  // counted before the list is locked
        waitShortly();
    }
    EXPECT_THAT(holdersOf(object), ElementsAre(&own));
    object.unlockHolderList();
    object.unlockHolderList();
    other.join();
    EXPECT_THAT(holdersOf(object), ElementsAre(&others, &own));
}

// A host that asks who holds an object must not meet it between count and list.
TEST_F(GuardedRefTest, CountAndListAgreeForWhoHasTheRegistry) {
    constexpr int kLooks = 20'000;
    TestObject object;
    TestHolder own(kOwn);
    object.addReference(&own);
    std::atomic<bool> stop{false};
    std::thread other([&] {
        TestHolder others(kOther);
        while (!stop) {
            object.addReference(&others);
            object.remReference(&others);
        }
    });
    int differing = 0;
    int shared = 0;
    for (int i = 0; i < kLooks || shared == 0; ++i) {
        const CMN_Entered registry(CMN_Reference::RefMutex);
        const auto listed = static_cast<int>(holdersOf(object).size());
        differing += listed == object.references() ? 0 : 1;
        shared += listed == 2 ? 1 : 0;
    }
    stop = true;
    other.join();
    EXPECT_EQ(0, differing);
    EXPECT_EQ(1, object.references());
}

// Whoever has a holder list may want the registry next: nobody waits for the list with it.
TEST_F(GuardedRefTest, ListInUseIsWaitedForWithoutTheRegistry) {
    TestObject object;
    TestHolder own(kOwn);
    TestHolder others(kOther);
    object.addReference(&own);
    object.lockHolderList();
    std::thread adding([&] { object.addReference(&others); });
    while (object.references() != 2) {
        waitShortly();
    }
    object.addReference(&own);
    object.unlockHolderList();
    adding.join();
    object.lockHolderList();
    std::thread leaving([&] { object.remReference(&others); });
    EXPECT_EQ(2, object.remReference(&own));
    object.unlockHolderList();
    leaving.join();
    EXPECT_EQ(1, object.references());
    EXPECT_THAT(holdersOf(object), ElementsAre(&own));
}

TEST_F(GuardedRefTest, UpdateHoldersRedirectsOldestFirst) {
    EventLog log;
    auto* const old = new TestObject("old", &log);
    auto* const successor = new TestObject("new", &log);
    const CMN_GRefPtr<CMN_GuardedRef> pin(successor);
    TestHolder a(kOwn, "A", &log);
    TestHolder b(kOther, "B", &log);
    a.hold(old);
    b.hold(old);
    old->addReference();  // so that it outlives the lock on its holders
    old->lockHolderList();
    successor->updateHolders(old->_getHolders());
    EXPECT_THAT(holdersOf(*old), IsEmpty());
    old->unlockHolderList();
    EXPECT_THAT(log, ElementsAre("A: new", "B: new"));
    EXPECT_EQ(successor, a.object());
    EXPECT_EQ(successor, b.object());
    EXPECT_EQ(3, successor->references());
    EXPECT_THAT(holdersOf(*successor), ElementsAre(&b, &a, &pin));
    EXPECT_EQ(0, old->remReference());
}

TEST_F(GuardedRefTest, UpdateHoldersOfNothingDetachesThemAll) {
    EventLog log;
    TestObject old("old");
    TestHolder a(kOwn, "A", &log);
    TestHolder b(kOther, "B", &log);
    old.addReference();
    a.hold(&old);
    b.hold(&old);
    old.lockHolderList();
    CMN_GuardedRef::redirectHolders(nullptr, old._getHolders());
    old.unlockHolderList();
    EXPECT_THAT(log, ElementsAre("A: nothing", "B: nothing"));
    EXPECT_EQ(nullptr, a.object());
    EXPECT_EQ(1, old.references());
}

// --- holders

using HolderTest = GuardedTest;
using Holder = CMN_GRefPtr<TestObject>;

TEST_F(HolderTest, EmptyOneHoldsNothingAndReleasesNothing) {
    {
        CMN_GRefPtr<TestObject> empty;
        EXPECT_EQ(nullptr, empty.get());
        EXPECT_EQ(nullptr, empty.heldGuard());
        EXPECT_EQ(nullptr, empty.supplier());
        const CMN_GRefPtr<TestObject> owing(nullptr, &kSupplier);
        EXPECT_EQ(&kSupplier, owing.supplier());
    }
    EXPECT_THAT(host.calls(), IsEmpty());
    EXPECT_EQ(0, guard->calls());
}

TEST_F(HolderTest, LivesInItsOwnModule) {
    CMN_GRefPtr<TestObject> empty;
    EXPECT_EQ(pModuleID, &empty.getModuleID());
    CMN_GRefPtr<TestObject> full(new TestObject, &kSupplier);
    EXPECT_EQ(pModuleID, &full.getModuleID());
}

TEST_F(HolderTest, ConstructionAttaches) {
    auto* const object = new TestObject;
    const CMN_GRefPtr<TestObject> holder(object);
    EXPECT_EQ(object, holder.get());
    EXPECT_EQ(guard, holder.heldGuard());
    EXPECT_EQ(1, object->references());
    EXPECT_THAT(holdersOf(*object), ElementsAre(&holder));
    EXPECT_EQ(0, guard->calls());
}

TEST_F(HolderTest, CopySharesTheObjectAndOwesNoRelease) {
    auto* const object = new TestObject;
    {
        const CMN_GRefPtr<TestObject> holder(object, &kSupplier);
        const CMN_GRefPtr<TestObject> copy(holder);
        EXPECT_EQ(object, copy.get());
        EXPECT_EQ(guard, copy.heldGuard());
        EXPECT_EQ(nullptr, copy.supplier());
        EXPECT_THAT(holdersOf(*object), ElementsAre(&copy, &holder));
    }
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
}

TEST_F(HolderTest, DestructionOfTheLastHolderDestroysAndLeavesTheGuardRaised) {
    { const CMN_GRefPtr<TestObject> holder(new TestObject); }
    EXPECT_EQ(0, TestObject::alive());
    EXPECT_EQ(1, guard->calls());
}

TEST_F(HolderTest, DestructionOfOneOfTwoHoldersLeavesTheGuardAsItWas) {
    auto* const object = new TestObject;
    auto first = std::make_unique<CMN_GRefPtr<TestObject>>(object);
    const CMN_GRefPtr<TestObject> second(object);
    guard->inc();
    first.reset();
    EXPECT_EQ(1, guard->calls());
    EXPECT_EQ(1, object->references());
    EXPECT_THAT(holdersOf(*object), ElementsAre(&second));
}

TEST_F(HolderTest, GuardIsRaisedWhileDestructionLetsGo) {
    class Watching : public TestObject {
    public:
        Watching(CMN_Guard* watched, int& seen) : watched_(watched), seen_(seen) {}
        ~Watching() override { seen_ = watched_->calls(); }

    private:
        CMN_Guard* watched_;
        int& seen_;
    };
    int seen = -1;
    { const CMN_GRefPtr<TestObject> holder(new Watching(guard, seen)); }
    EXPECT_EQ(1, seen);
}

TEST_F(HolderTest, DestructionReleasesTheModuleAfterTheObject) {
    class Watching : public TestObject {
    public:
        explicit Watching(FakeHost& host) : host_(host) {}
        ~Watching() override { EXPECT_THAT(host_.calls(), IsEmpty()); }

    private:
        FakeHost& host_;
    };
    { const CMN_GRefPtr<TestObject> holder(new Watching(host), &kSupplier); }
    EXPECT_EQ(0, TestObject::alive());
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
}

TEST_F(HolderTest, DestructionReleasesTheModuleOfAnObjectThatSurvives) {
    auto* const object = new TestObject;
    const CMN_GRefPtr<TestObject> other(object);
    { const CMN_GRefPtr<TestObject> holder(object, &kSupplier); }
    EXPECT_EQ(1, TestObject::alive());
    EXPECT_EQ(0, guard->calls());
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
}

TEST_F(HolderTest, WithoutHostOrGuardItLetsGoAllTheSame) {
    host.giveNoGuards();
    auto* const object = new TestObject;
    const InstalledHost none(nullptr);
    { const CMN_GRefPtr<TestObject> holder(object, &kSupplier); }
    EXPECT_EQ(0, TestObject::alive());
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(HolderTest, AssignmentLetsGoThenAttaches) {
    EventLog log;
    auto* const second = new TestObject("second", &log);
    auto* const nextGuard = new CMN_Guard;
    second->setGuard(nextGuard);
    CMN_GRefPtr<TestObject> holder(new TestObject("first", &log), &kSupplier);
    holder = second;
    EXPECT_THAT(log, ElementsAre("~first"));
    EXPECT_EQ(second, holder.get());
    EXPECT_EQ(nextGuard, holder.heldGuard());
    EXPECT_EQ(1, second->references());
    EXPECT_THAT(holdersOf(*second), ElementsAre(&holder));
    EXPECT_EQ(&kSupplier, holder.supplier());
    EXPECT_THAT(host.calls(), IsEmpty());  // the module is still in use
    EXPECT_EQ(0, guard->calls());          // assignment does not raise guards
}

TEST_F(HolderTest, AssignmentOfAHolderSharesItsObject) {
    auto* const object = new TestObject;
    const CMN_GRefPtr<TestObject> source(object, &kSupplier);
    CMN_GRefPtr<TestObject> target;
    target = source;
    EXPECT_EQ(object, target.get());
    EXPECT_EQ(nullptr, target.supplier());
    EXPECT_THAT(holdersOf(*object), ElementsAre(&target, &source));
}

TEST_F(HolderTest, AssignmentOfAnEmptyHolderReleasesTheModuleOnce) {
    CMN_GRefPtr<TestObject> holder(new TestObject, &kSupplier);
    holder = CMN_GRefPtr<TestObject>();
    EXPECT_EQ(nullptr, holder.get());
    EXPECT_EQ(0, TestObject::alive());
    EXPECT_EQ(&kSupplier, holder.supplier());
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
    holder = nullptr;  // holds nothing any more, so nothing is owed
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
}

// Once its module is released it may be unloaded, so no other thread may find the
// object through the holder any more.
TEST_F(HolderTest, AssignmentOfAnEmptyHolderShowsNothingBeforeItReleases) {
    class Looking : public FakeHost {
    public:
        explicit Looking(CMN_GRefPtr<TestObject>& holder) : holder_(holder) {}
        void releaseModule(const TypifiedID& module, const TypifiedID& asker) override {
            EXPECT_EQ(nullptr, holder_.get());
            FakeHost::releaseModule(module, asker);
        }

    private:
        CMN_GRefPtr<TestObject>& holder_;
    };
    CMN_GRefPtr<TestObject> holder(new TestObject, &kSupplier);
    Looking looking(holder);
    const InstalledHost looks(&looking);
    holder = nullptr;
    EXPECT_THAT(looking.calls(), ElementsAre("release 67 by 107"));
}

TEST_F(HolderTest, AssignmentOfNothingWithoutSupplierReleasesNoModule) {
    CMN_GRefPtr<TestObject> holder(new TestObject);
    holder = nullptr;
    EXPECT_EQ(0, TestObject::alive());
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(HolderTest, AssignmentOfWhatItHoldsKeepsIt) {
    auto* const object = new TestObject;
    CMN_GRefPtr<TestObject> holder(object, &kSupplier);
    const CMN_GRefPtr<TestObject>& same = holder;
    holder = same;
    holder = object;
    EXPECT_EQ(object, holder.get());
    EXPECT_EQ(1, object->references());
    EXPECT_THAT(host.calls(), IsEmpty());
}

// As if it had let go and come back.
TEST_F(HolderTest, AssignmentOfWhatItHoldsMakesItTheNewestWithThePresentGuard) {
    auto* const object = new TestObject;
    Holder holder(object);
    const Holder another(object);
    auto* const later = new CMN_Guard;
    object->setGuard(later);
    holder = another;
    EXPECT_THAT(holdersOf(*object), ElementsAre(&holder, &another));
    EXPECT_EQ(2, object->references());
    EXPECT_EQ(later, holder.heldGuard());
    object->setGuard(guard);
    holder = object;
    EXPECT_EQ(guard, holder.heldGuard());
}

// The framework has cut it loose: it holds the object and is not listed.
TEST_F(HolderTest, AssignmentOfWhatItHoldsListsItAgain) {
    const Holder kept(new TestObject);
    Holder holder(kept);
    ASSERT_EQ(1, kept.get()->remReference(&holder));
    holder = kept;
    EXPECT_THAT(holdersOf(*kept.get()), ElementsAre(&holder, &kept));
    EXPECT_EQ(2, kept.get()->references());
}

TEST_F(HolderTest, TakingOverPassesTheReferenceOnAndLeavesTheOtherEmpty) {
    const Holder oldest(new TestObject);
    TestObject* const object = oldest.get();
    Holder from(object);
    const Holder newest(object);
    Holder to;
    to.takeOver(from);
    EXPECT_EQ(object, to.get());
    EXPECT_EQ(guard, to.heldGuard());
    EXPECT_EQ(nullptr, from.get());
    EXPECT_EQ(3, object->references());
    EXPECT_THAT(holdersOf(*object), ElementsAre(&newest, &to, &oldest));
}

TEST_F(HolderTest, TakingOverLetsGoOfWhatWasHeld) {
    Holder from(new TestObject("kept"));
    Holder to(new TestObject("gone"));
    to.takeOver(from);
    EXPECT_EQ(1, TestObject::alive());
    EXPECT_EQ(1, to.get()->references());
}

TEST_F(HolderTest, TakingOverNothingHoldsNothing) {
    Holder from;
    Holder to(new TestObject);
    to.takeOver(from);
    EXPECT_EQ(nullptr, to.get());
    EXPECT_EQ(0, TestObject::alive());
}

TEST_F(HolderTest, TakingOverWhatItHoldsLeavesTheOtherEmpty) {
    Holder from(new TestObject);
    Holder to(from.get());
    to.takeOver(from);
    EXPECT_EQ(nullptr, from.get());
    ASSERT_NE(nullptr, to.get());
    EXPECT_EQ(1, to.get()->references());
    EXPECT_THAT(holdersOf(*to.get()), ElementsAre(&to));
    EXPECT_EQ(0, guard->calls());
}

TEST_F(HolderTest, TakingOverItselfChangesNothing) {
    Holder holder(new TestObject);
    holder.takeOver(holder);
    ASSERT_NE(nullptr, holder.get());
    EXPECT_EQ(1, holder.get()->references());
}

// The framework has cut the other loose: it holds the object and is not listed.
TEST_F(HolderTest, TakingOverFromAHolderThatIsNotListedAttachesAnew) {
    const Holder kept(new TestObject);
    Holder from(kept.get());
    ASSERT_EQ(1, kept.get()->remReference(&from));
    Holder to;
    to.takeOver(from);
    EXPECT_THAT(holdersOf(*kept.get()), ElementsAre(&to, &kept));
    EXPECT_EQ(2, kept.get()->references());
}

TEST_F(HolderTest, WhatWasTakenOverIsRedirectedLikeAnyHolder) {
    const Holder successor(new TestObject("new"));
    Holder from(new TestObject("old"));
    Holder to;
    to.takeOver(from);
    TestObject& old = *to.get();
    old.lockHolderList();
    const Holder pin(&old);
    CMN_GuardedRef::redirectHolders(successor.get(), old._getHolders(), &pin);
    old.unlockHolderList();
    EXPECT_EQ(successor.get(), to.get());
    EXPECT_EQ(nullptr, from.get());
}

TEST_F(HolderTest, ReplacePointeeAttachesTheReplacement) {
    EventLog log;
    auto* const second = new TestObject("second", &log);
    auto* const nextGuard = new CMN_Guard;
    second->setGuard(nextGuard);
    CMN_GRefPtr<TestObject> holder(new TestObject("first", &log), &kSupplier);
    holder.replacePointee(second);
    EXPECT_THAT(log, ElementsAre("~first"));
    EXPECT_EQ(second, holder.get());
    EXPECT_EQ(nextGuard, holder.heldGuard());
    EXPECT_THAT(holdersOf(*second), ElementsAre(&holder));
    EXPECT_EQ(0, guard->calls());
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(HolderTest, ReplacePointeeByNothingReleasesNoModule) {
    {
        CMN_GRefPtr<TestObject> holder(new TestObject, &kSupplier);
        holder.replacePointee(nullptr);
        EXPECT_EQ(nullptr, holder.get());
        EXPECT_EQ(0, TestObject::alive());
        holder.replacePointee(nullptr);
    }
    EXPECT_THAT(host.calls(), IsEmpty());
}

// An interface first and the guarded object second, as services have it.
class Interface {
public:
    Interface() = default;
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;
    virtual ~Interface() = default;
    virtual int answer() = 0;
};
class Service : public Interface, public TestObject {
public:
    int answer() override { return 42; }
};

TEST_F(HolderTest, ConvertsBetweenInterfaceAndGuardedObject) {
    auto* const service = new Service;
    CMN_GuardedRef* const guarded = service;
    ASSERT_NE(static_cast<void*>(service), static_cast<void*>(guarded));
    CMN_GRefPtr<Service> holder;
    holder.replacePointee(guarded);
    EXPECT_EQ(service, holder.get());
    EXPECT_EQ(42, holder.get()->answer());
    holder.replacePointee(nullptr);
    EXPECT_EQ(nullptr, holder.get());
}

// --- pins

using DummyHolderTest = GuardedTest;

TEST_F(DummyHolderTest, PinsAnObjectThatSomeoneHolds) {
    auto* const object = new TestObject;
    const CMN_GRefPtr<TestObject> holder(object);
    auto* const pin = new DummyHolder(object);
    EXPECT_EQ(object, pin->object());
    EXPECT_EQ(2, object->references());
    EXPECT_THAT(holdersOf(*object), ElementsAre(pin->holder(), &holder));
    pin->die();
    EXPECT_EQ(1, object->references());
    EXPECT_EQ(0, guard->calls());
}

TEST_F(DummyHolderTest, LivesInItsOwnModule) {
    auto* const object = new TestObject;
    const CMN_GRefPtr<TestObject> holder(object);
    auto* const pin = new DummyHolder(object);
    object->lockHolderList();
    EXPECT_EQ(pModuleID, &object->_getHolders().first()->value->getModuleID());
    object->unlockHolderList();
    pin->die();
}

TEST_F(DummyHolderTest, WaitsUntilTheObjectHasItsFirstHolder) {
    auto* const object = new TestObject;
    std::atomic<DummyHolder*> pin{nullptr};
    std::thread other([&] { pin = new DummyHolder(object); });
    while (object->references() != 1) {
        waitShortly();
    }
    for (int i = 0; i < 30; ++i) {
        waitShortly();
        ASSERT_EQ(nullptr, pin.load());
    }
    const CMN_GRefPtr<TestObject> first(object);
    other.join();
    ASSERT_NE(nullptr, pin.load());
    pin.load()->die();
    EXPECT_EQ(1, object->references());
}

TEST_F(DummyHolderTest, LastPinDestroysTheObject) {
    auto* const object = new TestObject;
    CMN_GRefPtr<TestObject> holder(object);
    auto* const pin = new DummyHolder(object);
    holder = nullptr;
    EXPECT_EQ(1, TestObject::alive());
    pin->die();
    EXPECT_EQ(0, TestObject::alive());
    EXPECT_EQ(1, guard->calls());
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(DummyHolderTest, NothingIsPinnedByAPinOnNothing) {
    auto* const pin = new DummyHolder(nullptr);
    EXPECT_EQ(nullptr, pin->object());
    pin->die();
    DummyHolder::die(nullptr);
    EXPECT_EQ(0, guard->calls());
}

}  // namespace
