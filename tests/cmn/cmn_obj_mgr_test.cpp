#include "cmn/cmn_obj_mgr.h"

#include <functional>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmn/cmn_stub.h"
#include "cmn/objmgrfunc.h"
#include "tests/support/fake_host.h"
#include "tests/support/mutex_probe.h"
#include "tests/support/short_wait.h"
#include "tests/support/test_objects.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kOwn = 107;
constexpr unsigned int kOther = 67;
constexpr unsigned int kThird = 111;

// What MakeObject() of this program makes; nothing unless a test says otherwise.
std::function<CMN_GuardedRef*(unsigned int, CMN_GuardedRef&)> successorOf;

}  // namespace

CMN_GuardedRef* MakeObject(unsigned int type, CMN_GuardedRef& old) {
    return successorOf ? successorOf(type, old) : nullptr;
}

namespace {

using Holder = CMN_GRefPtr<TestObject>;

// The registry is empty before and after each test.
class ObjectManagerTest : public testing::Test {
protected:
    ObjectManagerTest() { EXPECT_EQ(nullptr, ObjectManager.getObj()); }
    ~ObjectManagerTest() override {
        EXPECT_EQ(nullptr, ObjectManager.getObj());
        EXPECT_EQ(0, TestObject::alive());
    }

    TestObject* make(const char* name) { return new TestObject(name, &log); }

    // The names of the registered objects, as a walk meets them.
    std::vector<std::string> registered() {
        EventLog before;
        before.swap(log);
        ObjectManager.finiAll();
        before.swap(log);
        for (std::string& event : before) {
            event.erase(0, std::string("fini ").size());
        }
        return before;
    }

    EventLog log;
};

// --- entering and leaving

TEST_F(ObjectManagerTest, ObjectsEnterInFront) {
    const Holder a(make("a"));
    const Holder b(make("b"));
    const Holder c(make("c"));
    EXPECT_THAT(registered(), ElementsAre("c", "b", "a"));
}

TEST_F(ObjectManagerTest, ObjectsLeaveWhereverTheyStand) {
    const struct {
        const char* name;
        int gone;
        std::vector<std::string> left;
    } rows[] = {
        {"newest", 2, {"b", "a"}},
        {"middle", 1, {"c", "a"}},
        {"oldest", 0, {"c", "b"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Holder holders[3];
        holders[0] = make("a");
        holders[1] = make("b");
        holders[2] = make("c");
        holders[row.gone] = nullptr;
        EXPECT_EQ(row.left, registered());
        const Holder next(make("d"));  // what is left can be built upon
        EXPECT_EQ("d", registered().front());
        EXPECT_EQ(3u, registered().size());
    }
}

TEST_F(ObjectManagerTest, EnteringAndLeavingWaitForTheSharedLock) {
    std::unique_ptr<Holder> holder;
    std::thread other;
    {
        const CMN_Entered entered(CMN_Reference::RefMutex);
        other = std::thread([&] { holder = std::make_unique<Holder>(make("a")); });
        for (int i = 0; i < 30; ++i) {
            waitShortly();
        }
        EXPECT_EQ(nullptr, ObjectManager.getObj());
    }
    other.join();
    EXPECT_THAT(registered(), ElementsAre("a"));
}

// --- getObj

TEST_F(ObjectManagerTest, GetObjPinsTheNewest) {
    const Holder a(make("a"));
    const Holder b(make("b"));
    DummyHolder* const pin = ObjectManager.getObj();
    ASSERT_NE(nullptr, pin);
    EXPECT_EQ(b.get(), pin->object());
    EXPECT_EQ(2, b.get()->references());
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
    pin->die();
    EXPECT_EQ(1, b.get()->references());
}

TEST_F(ObjectManagerTest, GetObjWaitsForAHalfBuiltObjectWithoutTheLock) {
    TestObject* const object = make("a");  // held by nobody yet
    std::atomic<DummyHolder*> pin{nullptr};
    std::thread other([&] { pin = ObjectManager.getObj(); });
    for (int i = 0; i < 30; ++i) {
        waitShortly();
        ASSERT_EQ(nullptr, pin.load());
    }
    const Holder first(object);  // needs the lock
    other.join();
    EXPECT_EQ(object, pin.load()->object());
    pin.load()->die();
}

// --- moduleIsUsed, moduleIsUsedBy

TEST_F(ObjectManagerTest, ModuleWithoutForeignHoldersIsNotUsed) {
    EXPECT_EQ(0, ObjectManager.moduleIsUsed());
    const Holder a(make("a"));
    const Holder b(make("b"));
    TestHolder same(kOwn);  // equal to the module's own identifier, not the same
    same.hold(a.get());
    EXPECT_EQ(0, ObjectManager.moduleIsUsed());
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(ObjectManagerTest, OneForeignHolderAnywhereUsesTheModule) {
    Holder own[3];
    for (Holder& holder : own) {
        holder = make("object");
    }
    for (const Holder& holder : own) {
        TestHolder foreign(kOther);
        foreign.hold(holder.get());
        TestHolder newer(kOwn);
        newer.hold(holder.get());
        EXPECT_EQ(1, ObjectManager.moduleIsUsed());
        EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
        foreign.hold(nullptr);
        EXPECT_EQ(0, ObjectManager.moduleIsUsed());
    }
}

TEST_F(ObjectManagerTest, IdentifierOfAnotherKindUsesTheModule) {
    class TextHolder : public TestHolder {
    public:
        TextHolder() : TestHolder(kOwn) {}
        const TypifiedID& getModuleID() override { return text_; }

    private:
        TstringID text_{"107"};
    };
    const Holder own(make("a"));
    TextHolder foreign;
    foreign.hold(own.get());
    EXPECT_EQ(1, ObjectManager.moduleIsUsed());
    EXPECT_EQ(0, ObjectManager.moduleIsUsedBy(Tuint32ID(kOwn + 1)));
    EXPECT_EQ(1, ObjectManager.moduleIsUsedBy(TstringID("107")));
}

TEST_F(ObjectManagerTest, ModuleIsUsedByTheModulesOfItsHolders) {
    const Holder own(make("a"));
    TestHolder foreign(kOther);
    foreign.hold(own.get());
    EXPECT_EQ(1, ObjectManager.moduleIsUsedBy(Tuint32ID(kOther)));
    EXPECT_EQ(1, ObjectManager.moduleIsUsedBy(Tuint32ID(kOwn)));
    EXPECT_EQ(0, ObjectManager.moduleIsUsedBy(Tuint32ID(kThird)));
    foreign.hold(nullptr);
    EXPECT_EQ(0, ObjectManager.moduleIsUsedBy(Tuint32ID(kOther)));
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(ObjectManagerTest, QuestionsAboutUseDoNotWaitForHalfBuiltObjects) {
    TestObject* const object = make("a");  // held by nobody yet
    EXPECT_EQ(0, ObjectManager.moduleIsUsed());
    EXPECT_EQ(0, ObjectManager.moduleIsUsedBy(Tuint32ID(kOwn)));
    const Holder first(object);
}

// --- unhookObjs

TEST_F(ObjectManagerTest, UnhookWithoutSuchHoldersDetachesNone) {
    EXPECT_EQ(0, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    const Holder own(make("a"));
    TestHolder foreign(kOther, "foreign", &log);
    foreign.hold(own.get());
    EXPECT_EQ(0, ObjectManager.unhookObjs(Tuint32ID(kThird)));
    EXPECT_EQ(2, own.get()->references());
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(ObjectManagerTest, UnhookDetachesTheHoldersOfOneModuleNewestFirst) {
    const Holder own(make("a"));
    TestHolder first(kOther, "first", &log);
    TestHolder stays(kThird, "stays", &log);
    TestHolder second(kOther, "second", &log);
    first.hold(own.get());
    stays.hold(own.get());
    second.hold(own.get());
    EXPECT_EQ(2, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_THAT(log, ElementsAre("second: nothing", "first: nothing"));
    EXPECT_THAT(holdersOf(*own.get()), ElementsAre(&stays, &own));
    EXPECT_EQ(2, own.get()->references());
    EXPECT_EQ(0, ObjectManager.moduleIsUsedBy(Tuint32ID(kOther)));
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(ObjectManagerTest, UnhookDestroysWhatNothingElseHolds) {
    const Holder kept(make("kept"));
    TestHolder foreign[3] = {TestHolder(kOther), TestHolder(kOther), TestHolder(kOther)};
    foreign[0].hold(make("a"));
    foreign[1].hold(kept.get());
    foreign[2].hold(make("b"));
    EXPECT_EQ(3, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_THAT(log, ElementsAre("~b", "~a"));
    EXPECT_THAT(registered(), ElementsAre("kept"));
}

TEST_F(ObjectManagerTest, UnhookCutsLooseWhatDoesNotLetGoAndDoesNotCountIt) {
    auto* const object = make("a");
    const Holder own(object);
    TestHolder stubborn(kOther, "stubborn", &log);
    TestHolder willing(kOther, "willing", &log);
    stubborn.hold(object);
    willing.hold(object);
    stubborn.refuse();
    EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_THAT(log, ElementsAre("willing: nothing", "stubborn: nothing"));
    EXPECT_THAT(holdersOf(*object), ElementsAre(&own));
    EXPECT_EQ(2, object->references());  // what it was counted for is not taken back
    EXPECT_EQ(2, object->remReference(&stubborn));
    stubborn.forget();
    EXPECT_EQ(1, object->CMN_Reference::remReference());
}

TEST_F(ObjectManagerTest, UnhookOfAHolderListedTwiceCountsItOnceAndFreesBothNodes) {
    auto* const object = make("a");
    const Holder own(object);
    TestHolder twice(kOther, "twice", &log);
    twice.hold(object);
    object->addReference(&twice);
    EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_THAT(holdersOf(*object), ElementsAre(&own));
    EXPECT_EQ(1, object->CMN_Reference::remReference());
}

TEST_F(ObjectManagerTest, UnhookOfTheModuleItselfSparesThePins) {
    auto* const object = make("a");
    Holder own(object);
    TestHolder same(kOwn, "same", &log);
    same.hold(object);
    auto* const last = make("b");
    TestHolder onlyOne(kOwn, "only", &log);
    onlyOne.hold(last);
    EXPECT_EQ(3, ObjectManager.unhookObjs(Tuint32ID(kOwn)));
    EXPECT_EQ(nullptr, own.get());
    EXPECT_THAT(log, ElementsAre("only: nothing", "same: nothing", "~b", "~a"));
}

// --- fini

TEST_F(ObjectManagerTest, FiniOfAnEmptyRegistryDoesNothing) {
    ObjectManager.fini();
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(ObjectManagerTest, FiniDetachesEveryHolderOfEveryObject) {
    Holder own(make("a"));
    Holder second(own);
    TestHolder foreign(kOther, "foreign", &log);
    TestHolder third(kThird, "third", &log);
    foreign.hold(own.get());
    third.hold(make("b"));
    ObjectManager.fini();
    EXPECT_EQ(nullptr, own.get());
    EXPECT_EQ(nullptr, second.get());
    EXPECT_EQ(nullptr, foreign.object());
    EXPECT_EQ(nullptr, third.object());
    EXPECT_THAT(log, ElementsAre("third: nothing", "foreign: nothing", "~b", "~a"));
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(ObjectManagerTest, FiniKeepsObjectsThatPlainReferencesKeep) {
    auto* const object = make("a");
    object->addReference();
    Holder own(object);
    ObjectManager.fini();
    EXPECT_EQ(nullptr, own.get());
    EXPECT_EQ(1, object->references());
    EXPECT_THAT(holdersOf(*object), IsEmpty());
    EXPECT_EQ(0, object->remReference());
}

TEST_F(ObjectManagerTest, FiniCutsLooseWhatDoesNotLetGo) {
    auto* const object = make("a");
    TestHolder stubborn(kOther, "stubborn", &log);
    stubborn.hold(object);
    stubborn.refuse();
    ObjectManager.fini();
    EXPECT_THAT(log, ElementsAre("stubborn: nothing"));
    EXPECT_THAT(holdersOf(*object), IsEmpty());
    EXPECT_EQ(1, object->references());
    stubborn.forget();
    EXPECT_EQ(0, object->CMN_Reference::remReference());
}

TEST_F(ObjectManagerTest, FiniReleasesNoModule) {
    const Tuint32ID supplier(kOther);
    FakeHost host;
    const InstalledHost installed(&host);
    Holder owing(make("a"), &supplier);
    ObjectManager.fini();
    EXPECT_THAT(log, ElementsAre("~a"));
    EXPECT_THAT(host.calls(), IsEmpty());
}

// An object may hold another one: its destruction lets the other one go, wherever
// the walk stands.
TEST_F(ObjectManagerTest, WalksSurviveObjectsThatTakeOthersAlong) {
    class Keeper : public TestObject {
    public:
        Keeper(const char* name, EventLog* log, TestObject* kept)
            : TestObject(name, log), kept_(kept) {}

    private:
        Holder kept_;
    };
    TestHolder foreign(kOther);
    TestHolder other(kOther);
    // The kept object stands behind its keeper, and before the other one's.
    auto* const behind = make("behind");
    foreign.hold(new Keeper("keeper of behind", &log, behind));
    auto* const before = new Keeper("between", &log, nullptr);
    other.hold(new Keeper("keeper of between", &log, before));
    EXPECT_EQ(2, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_THAT(log, ElementsAre("~between", "~keeper of between", "~behind", "~keeper of behind"));
}

TEST_F(ObjectManagerTest, WalksDestroyWithoutTheLock) {
    class Asking : public TestObject {
    public:
        explicit Asking(EventLog* log) : TestObject("asking", log) {}
        ~Asking() override { EXPECT_TRUE(isFree(CMN_Reference::RefMutex)); }
    };
    const struct {
        const char* name;
        void (*walk)();
    } rows[] = {
        {"fini", [] { ObjectManager.fini(); }},
        {"unhookObjs", [] { EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther))); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHolder foreign(kOther);
        foreign.hold(new Asking(&log));
        row.walk();
        EXPECT_THAT(log, ElementsAre("~asking"));
        log.clear();
    }
}

// As when a holder lets go for the last time.
TEST_F(ObjectManagerTest, WalksThatDestroyLeaveTheGuardRaised) {
    auto* const guard = new CMN_Guard;
    guard->addReference();
    FakeHost host;
    host.giveGuard(guard);
    const InstalledHost installed(&host);
    const Holder kept(make("kept"));
    Holder taken(make("taken"));
    TestHolder foreign(kOther);
    foreign.hold(kept.get());
    EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_EQ(0, guard->calls());
    foreign.hold(taken.get());
    taken = nullptr;
    EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    EXPECT_THAT(log, ElementsAre("~taken"));
    EXPECT_EQ(1, guard->calls());
    guard->remReference();
}

// --- finiAll

TEST_F(ObjectManagerTest, FiniAllShutsObjectsDownNewestFirstAndKeepsThem) {
    const Holder a(make("a"));
    TestHolder foreign(kOther);
    foreign.hold(make("b"));
    ObjectManager.finiAll();
    EXPECT_THAT(log, ElementsAre("fini b", "fini a"));
    EXPECT_EQ(1, a.get()->references());
    EXPECT_EQ(1, foreign.object()->references());
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(ObjectManagerTest, FiniAllRunsUnderTheLock) {
    class Asking : public TestObject {
    public:
        Status fini() override {
            EXPECT_FALSE(isFree(CMN_Reference::RefMutex));
            return TestObject::fini();
        }
    };
    const CMN_GRefPtr<TestObject> asking(new Asking);
    ObjectManager.finiAll();
}

TEST_F(ObjectManagerTest, FiniAllSurvivesObjectsThatLetOthersGoAndMakeNewOnes) {
    class Changing : public TestObject {
    public:
        explicit Changing(EventLog* log) : TestObject("changing", log), log_(log) {}
        Status fini() override {
            kept = nullptr;
            made = new TestObject("made", log_);
            return TestObject::fini();
        }
        Holder kept;
        Holder made;

    private:
        EventLog* log_;
    };
    const Holder last(make("last"));
    auto* const next = make("next");
    const CMN_GRefPtr<Changing> changing(new Changing(&log));
    changing.get()->kept = next;
    ObjectManager.finiAll();
    EXPECT_THAT(log, ElementsAre("fini changing", "fini next", "fini last", "~next"));
}

// --- what a host asks before and while it unloads a module

TEST_F(ObjectManagerTest, SizeIsTheNumberOfObjects) {
    EXPECT_EQ(0, ObjectManager.size());
    Holder a(make("a"));
    const Holder b(make("b"));
    EXPECT_EQ(2, ObjectManager.size());
    a = nullptr;
    EXPECT_EQ(1, ObjectManager.size());
}

TEST_F(ObjectManagerTest, IsBusyWhileAGuardIsRaisedOrAnObjectIsHalfBuilt) {
    EXPECT_FALSE(ObjectManager.isBusy());
    const Holder unguarded(make("unguarded"));
    EXPECT_FALSE(ObjectManager.isBusy());
    const Holder guarded(make("guarded"));
    auto* const guard = new CMN_Guard;
    guarded.get()->setGuard(guard);
    EXPECT_FALSE(ObjectManager.isBusy());
    guard->inc();
    EXPECT_TRUE(ObjectManager.isBusy());
    guard->dec();
    EXPECT_FALSE(ObjectManager.isBusy());
    TestObject* const halfBuilt = make("held by nobody yet");
    EXPECT_TRUE(ObjectManager.isBusy());
    const Holder first(halfBuilt);
    EXPECT_FALSE(ObjectManager.isBusy());
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

// Who has the mutex of a guard may be waiting for the registry.
TEST_F(ObjectManagerTest, WalksDoNotWaitForAGuard) {
    const Holder kept(make("kept"));
    auto* const guard = new CMN_Guard;
    kept.get()->setGuard(guard);
    TestHolder foreign(kOther, "foreign", &log);
    foreign.hold(kept.get());
    guard->lock();
    EXPECT_TRUE(ObjectManager.isBusy());
    EXPECT_EQ(1, ObjectManager.unhookForeign(Tuint32ID(kOwn)));
    EXPECT_EQ(kept.get(), foreign.object());
    ObjectManager.finiAll();
    EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther)));
    guard->unlock();
    EXPECT_FALSE(ObjectManager.isBusy());
    EXPECT_EQ(0, guard->calls());
    EXPECT_THAT(log, ElementsAre("fini kept", "foreign: nothing"));
}

TEST_F(ObjectManagerTest, UnhookForeignSparesTheModuleItselfAndWhatIsBeingCalled) {
    const Holder idle(make("idle"));
    const Holder called(make("called"));
    called.get()->setGuard(new CMN_Guard);
    called.get()->getGuard()->inc();
    TestHolder ofIdle(kOther, "of idle", &log);
    TestHolder ofCalled(kThird, "of called", &log);
    TestHolder alone(kThird, "alone", &log);
    ofIdle.hold(idle.get());
    ofCalled.hold(called.get());
    alone.hold(make("foreign only"));
    EXPECT_EQ(1, ObjectManager.unhookForeign(Tuint32ID(kOwn)));
    EXPECT_THAT(log, ElementsAre("alone: nothing", "of idle: nothing", "~foreign only"));
    EXPECT_EQ(called.get(), ofCalled.object());
    EXPECT_THAT(holdersOf(*idle.get()), ElementsAre(&idle));
    called.get()->getGuard()->dec();
    EXPECT_EQ(0, ObjectManager.unhookForeign(Tuint32ID(kOwn)));
    EXPECT_EQ(nullptr, ofCalled.object());
    EXPECT_EQ(1, called.get()->references());
}

// --- waiting for objects that nobody holds yet

TEST_F(ObjectManagerTest, WalksWaitForHalfBuiltObjectsWithoutTheLock) {
    const struct {
        const char* name;
        void (*walk)();
    } rows[] = {
        {"finiAll", [] { ObjectManager.finiAll(); }},
        {"unhookObjs", [] { EXPECT_EQ(0, ObjectManager.unhookObjs(Tuint32ID(kOther))); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Holder newest(make("held"));
        TestObject* const object = make("not held yet");
        const Holder oldest(make("held too"));
        std::atomic<bool> done{false};
        std::thread walker([&] {
            row.walk();
            done = true;
        });
        for (int i = 0; i < 30; ++i) {
            waitShortly();
            ASSERT_FALSE(done);
        }
        const Holder first(object);  // needs the lock
        walker.join();
        EXPECT_EQ(1, object->references());
    }
}

// --- init

// An earlier copy of the module, as far as its registry goes.
class TakeOverTest : public ObjectManagerTest {
protected:
    TakeOverTest() { host.giveNewGuards(); }
    ~TakeOverTest() override {
        EXPECT_EQ(nullptr, earlier.getObj());
        successorOf = nullptr;
    }

    // An object of the earlier copy, and one of this module.
    TestObject* makeOld(const char* name, unsigned int type = TestObject::kType) {
        pObjMgr = &earlier;
        auto* const made = new TestObject(name, &log, type);
        pObjMgr = &ObjectManager;
        return made;
    }
    // From now on a successor is made of every object, named "new ".
    void makeSuccessors() {
        successorOf = [this](unsigned int type, CMN_GuardedRef& old) {
            const auto& before = dynamic_cast<TestObject&>(old);
            return new TestObject("new " + before.name(), &log, type);
        };
    }

    CMN_ObjectManager earlier;
    FakeHost host;
    const InstalledHost installed{&host};
};

TEST_F(TakeOverTest, EmptyParentIsTakenOverAtOnce) {
    ObjectManager.init(&earlier);
    EXPECT_EQ(nullptr, ObjectManager.getObj());
}

TEST_F(TakeOverTest, ObjectWithoutSuccessorIsTakenFromAllHoldersAndDestroyed) {
    TestHolder foreign(kOther, "foreign", &log);
    Holder own(makeOld("a"));
    foreign.hold(own.get());
    ObjectManager.init(&earlier);
    EXPECT_THAT(log, ElementsAre("foreign: nothing", "~a"));
    EXPECT_EQ(nullptr, own.get());
    EXPECT_EQ(nullptr, foreign.object());
    EXPECT_EQ(nullptr, earlier.getObj());
    EXPECT_EQ(nullptr, ObjectManager.getObj());
    EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
}

TEST_F(TakeOverTest, SuccessorGetsAllHoldersOldestFirst) {
    makeSuccessors();
    TestHolder first(kOther, "first", &log);
    Holder own;
    TestHolder last(kThird, "last", &log);
    TestObject* const old = makeOld("a", 0x6B0001);
    first.hold(old);
    own = old;
    last.hold(old);

    ObjectManager.init(&earlier);
    EXPECT_THAT(log, ElementsAre("first: new a", "last: new a", "~a"));
    TestObject* const successor = own.get();
    ASSERT_NE(nullptr, successor);
    EXPECT_EQ(successor, first.object());
    EXPECT_EQ(successor, last.object());
    EXPECT_EQ(0x6B0001u, successor->getType());
    EXPECT_EQ(3, successor->references());
    EXPECT_THAT(holdersOf(*successor), ElementsAre(&last, &own, &first));
    EXPECT_EQ(successor->getGuard(), own.heldGuard());
    EXPECT_THAT(registered(), ElementsAre("new a"));
}

TEST_F(TakeOverTest, FactoryIsAskedForTheTypeOfEachObject) {
    std::vector<std::pair<unsigned int, CMN_GuardedRef*>> asked;
    successorOf = [&](unsigned int type, CMN_GuardedRef& old) -> CMN_GuardedRef* {
        asked.emplace_back(type, &old);
        return type == 2 ? new TestObject("new", &log, type) : nullptr;
    };
    TestObject* const a = makeOld("a", 1);
    TestObject* const b = makeOld("b", 2);
    Holder holdsA(a);
    Holder holdsB(b);
    a->setType(3);  // the type at that time counts
    ObjectManager.init(&earlier);
    EXPECT_THAT(asked, ElementsAre(std::pair(2u, b), std::pair(3u, a)));
    EXPECT_EQ(nullptr, holdsA.get());
    EXPECT_EQ("new", holdsB.get()->name());
    EXPECT_THAT(log, ElementsAre("~b", "~a"));
}

TEST_F(TakeOverTest, GiveUpAsksTheFactoryItIsGiven) {
    successorOf = [](unsigned int, CMN_GuardedRef&) -> CMN_GuardedRef* {
        ADD_FAILURE() << "the module's own factory";
        return nullptr;
    };
    Holder own(makeOld("a", 0x6B0001));
    earlier.giveUp([](unsigned int type, CMN_GuardedRef& old) -> CMN_GuardedRef* {
        return new TestObject("for " + dynamic_cast<TestObject&>(old).name(), nullptr, type);
    });
    EXPECT_EQ("for a", own.get()->name());
    EXPECT_EQ(0x6B0001U, own.get()->getType());
    EXPECT_THAT(log, ElementsAre("~a"));
    EXPECT_EQ(nullptr, earlier.getObj());
}

TEST_F(TakeOverTest, ObjectsOfTheModuleItselfStay) {
    makeSuccessors();
    const Holder mine(make("mine"));
    Holder taken(makeOld("a"));
    ObjectManager.init(&earlier);
    EXPECT_THAT(registered(), ElementsAre("new a", "mine"));
    EXPECT_EQ("mine", mine.get()->name());
    EXPECT_EQ(1, mine.get()->references());
}

TEST_F(TakeOverTest, ReleasesNoModule) {
    const Tuint32ID supplier(kOther);
    Holder owing(makeOld("a"), &supplier);
    ObjectManager.init(&earlier);
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(TakeOverTest, ObjectWithoutGuardIsTakenOver) {
    makeSuccessors();
    host.giveNoGuards();
    Holder own(makeOld("a"));
    ObjectManager.init(&earlier);
    EXPECT_EQ("new a", own.get()->name());
    EXPECT_EQ(nullptr, own.heldGuard());
}

TEST_F(TakeOverTest, WaitsUntilNoCallIsInProgress) {
    makeSuccessors();
    TestObject* const old = makeOld("a");
    Holder own(old);
    CMN_Guard* const guard = old->getGuard();
    guard->inc();
    guard->inc();
    std::thread taking([this] { ObjectManager.init(&earlier); });
    for (int i = 0; i < 30; ++i) {
        waitShortly();
        ASSERT_EQ(old, own.get());
    }
    guard->dec();
    for (int i = 0; i < 30; ++i) {
        waitShortly();
        ASSERT_EQ(old, own.get());
    }
    old->addReference();  // a call may count and list as it likes meanwhile
    EXPECT_NE(0, old->remReference());
    guard->dec();
    taking.join();
    EXPECT_EQ("new a", own.get()->name());
}

TEST_F(TakeOverTest, HoldsTheGuardsMutexWhileItRedirects) {
    TestObject* const old = makeOld("a");
    CMN_Guard* const guard = old->getGuard();
    std::thread caller;
    successorOf = [&](unsigned int, CMN_GuardedRef&) {
        caller = std::thread([guard] { guard->inc(); });
        for (int i = 0; i < 30; ++i) {
            waitShortly();
            EXPECT_EQ(0, guard->calls());
        }
        return nullptr;
    };
    Holder own(old);
    ObjectManager.init(&earlier);
    caller.join();
    EXPECT_EQ(2, guard->calls());  // the caller's, and that of the release that destroyed
}

// A factory is a module's own code, and may do anything but call the old object.
TEST_F(TakeOverTest, FactoryRunsWithTheGuardLockedAndNothingElse) {
    TestObject* const old = makeOld("a");
    successorOf = [&](unsigned int, CMN_GuardedRef&) -> CMN_GuardedRef* {
        EXPECT_FALSE(isFree(static_cast<CMN_Mutex&>(*old->getGuard())));
        EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
        std::thread([&] { EXPECT_EQ(2U, holdersOf(*old).size()); }).join();  // locks the list
        return new TestObject("new", &log);
    };
    Holder own(old);
    ObjectManager.init(&earlier);
    EXPECT_EQ("new", own.get()->name());
}

// The stub's mutex is taken by a thread that waits for the registry.
TEST_F(TakeOverTest, FactoryMayUseAServiceThatIsJustBeingFound) {
    class Finding : public FakeHost {
    public:
        CMN_GuardedRef* acquireService(const TypifiedID& service,
                                       const TypifiedID& asker) override {
            inside = true;
            while (!goOn) {
                waitShortly();
            }
            const Holder anObject(new TestObject);  // needs the registry
            return FakeHost::acquireService(service, asker);
        }
        std::atomic<bool> inside{false};
        std::atomic<bool> goOn{false};
    };
    Finding finding;
    const InstalledHost finds(&finding);
    const Holder service(make("service"));
    finding.offer(kOther, service.get());
    const Tuint32ID other(kOther);
    {
        CMN_ServiceStub<TestObject> stub(other);
        Holder own(makeOld("a"));
        std::thread asking([&] { EXPECT_TRUE(stub.acquire()); });
        while (!finding.inside) {
            waitShortly();
        }
        successorOf = [&](unsigned int, CMN_GuardedRef&) -> CMN_GuardedRef* {
            finding.goOn = true;
            EXPECT_TRUE(stub.acquire());
            return new TestObject("new " + stub.service()->name(), &log);
        };
        ObjectManager.init(&earlier);
        asking.join();
        EXPECT_EQ("new service", own.get()->name());
    }
    finding.withdraw(kOther);
}

// Its last holder may let go while the factory is at work.
TEST_F(TakeOverTest, SuccessorThatNobodyHoldsInTheEndGoes) {
    Holder own(makeOld("a"));
    successorOf = [&](unsigned int, CMN_GuardedRef&) {
        auto* const made = new TestObject("new a", &log);
        own = nullptr;
        return made;
    };
    ObjectManager.init(&earlier);
    EXPECT_THAT(log, testing::UnorderedElementsAre("~new a", "~a"));
    EXPECT_THAT(registered(), IsEmpty());
}

// Who lowers a guard that a destruction left raised is the host's affair; until
// then no further object of that guard is taken over.
TEST_F(TakeOverTest, GuardThatADestructionLeftRaisedHoldsUpTheNextObject) {
    auto* const shared = new CMN_Guard;
    shared->addReference();
    host.giveGuard(shared);
    Holder a(makeOld("a"));
    Holder b(makeOld("b"));
    std::thread taking([this] { ObjectManager.init(&earlier); });
    while (shared->calls() == 0) {
        waitShortly();
    }
    EXPECT_EQ(1, shared->calls());
    EXPECT_EQ(nullptr, b.get());
    EXPECT_EQ("a", a.get()->name());
    shared->dec();
    taking.join();
    EXPECT_EQ(nullptr, a.get());
    EXPECT_EQ(1, shared->calls());
    shared->remReference();
}

TEST_F(TakeOverTest, DoesNotEndBeforePlainReferencesAreDropped) {
    makeSuccessors();
    TestObject* const old = makeOld("a");
    old->addReference();
    Holder own(old);
    std::atomic<bool> done{false};
    std::thread taking([&] {
        ObjectManager.init(&earlier);
        done = true;
    });
    while (own.get() == old) {
        waitShortly();
    }
    for (int i = 0; i < 30; ++i) {
        waitShortly();
        ASSERT_FALSE(done);
    }
    EXPECT_EQ("new a", own.get()->name());
    old->remReference();
    taking.join();
    EXPECT_THAT(log, ElementsAre("~a"));
    EXPECT_THAT(registered(), ElementsAre("new a"));  // one successor, not one a round
}

}  // namespace
