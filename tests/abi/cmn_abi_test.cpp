// The binary contract of the framework: places of virtual operations, offsets of
// fields and sizes, as modules built elsewhere rely on them.
#include <cerrno>
#include <memory>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/cmn_ref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/cmn_stub.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"
#include "tests/support/fake_host.h"
#include "tests/support/raw_object.h"
#include "tests/support/test_objects.h"

namespace {

using testing::ElementsAre;

constexpr std::size_t kWord = sizeof(void*);

static_assert(sizeof(pthread_mutex_t) == shape(24, 40));
static_assert(sizeof(TypifiedID) == shape(8, 16));
static_assert(sizeof(Tuint32ID) == shape(12, 16));
static_assert(sizeof(TstringID) == shape(12, 24));
static_assert(sizeof(CMN_Mutex) == shape(28, 48));
static_assert(sizeof(CMN_RecursiveMutex) == shape(36, 64));
static_assert(sizeof(CMN_Reference) == shape(12, 24));
static_assert(sizeof(CMN_Guard) == shape(44, 72));
static_assert(sizeof(sitem<CMN_GRPHolder>) == 3 * kWord);
static_assert(sizeof(slist<CMN_GRPHolder>) == shape(12, 24));
static_assert(sizeof(CMN_GuardedRef) == shape(76, 136));
static_assert(sizeof(CMN_GRPHolder) == 2 * kWord);
static_assert(sizeof(CMN_GRefPtr<TestObject>) == 5 * kWord);
static_assert(sizeof(DummyHolder) == 6 * kWord);
static_assert(sizeof(CMN_ObjectManager) == shape(40, 72));
static_assert(sizeof(CMN_ServiceStubInterface) == kWord);
static_assert(sizeof(CMN_ServiceStub<TestObject>) == shape(56, 104));
static_assert(sizeof(CMN_ObjectStub<TestObject>) == 7 * kWord);
static_assert(sizeof(GuardLock) == kWord);
static_assert(sizeof(GuardLockVar) == kWord);

// Whether the system mutex at `offset` of an object is locked now.
bool isLocked(void* object, std::size_t offset) {
    auto* const mutex = reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(object) + offset);
    if (pthread_mutex_trylock(mutex) == EBUSY) {
        return true;
    }
    pthread_mutex_unlock(mutex);
    return false;
}

// An object outside of the heap, so that its destructor can be called by place.
template <class T>
struct Room {
    alignas(T) unsigned char bytes[sizeof(T)];
};

// Destructors take two places, complete then deleting; both must run the
// destructor of the whole object.
void expectDestructorsAt(std::size_t place) {
    Room<TestObject> room;
    auto* const inPlace = new (room.bytes) TestObject;
    ASSERT_EQ(1, TestObject::alive());
    callSlot<void()>(static_cast<CMN_Reference*>(inPlace), place);
    EXPECT_EQ(0, TestObject::alive());

    callSlot<void()>(static_cast<CMN_Reference*>(new TestObject), place + 1);
    EXPECT_EQ(0, TestObject::alive());
}

// --- identifiers

TEST(IdentifierAbiTest, PlacesAreAsPublished) {
    EXPECT_EQ(2u, slotOf(&TypifiedID::val_comp));
    EXPECT_EQ(3u, slotOf(&TypifiedID::dump));
    Tuint32ID seven(7);
    Tuint32ID nine(9);
    EXPECT_EQ(1, (callSlot<int(const TypifiedID*)>(&seven, 2, &nine)));
    EXPECT_EQ(-1, (callSlot<int(const TypifiedID*)>(&nine, 2, &seven)));
    TstringID text("a");
    TstringID same("a");
    EXPECT_EQ(0, (callSlot<int(const TypifiedID*)>(&text, 2, &same)));
    callSlot<void()>(&seven, 3);
    callSlot<void()>(new TstringID("freed by its deleting destructor"), 1);
}

TEST(IdentifierAbiTest, FieldsAreAsPublished) {
    const Tuint32ID number(0x3f0008);
    EXPECT_EQ(0u, fieldAt<unsigned int>(&number, kWord));
    EXPECT_EQ(0x3f0008u, fieldAt<unsigned int>(&number, shape(8, 12)));
    const TstringID text("module");
    EXPECT_EQ(1u, fieldAt<unsigned int>(&text, kWord));
    EXPECT_STREQ("module", fieldAt<const char*>(&text, shape(8, 16)));
}

// --- mutexes and counts

TEST(MutexAbiTest, SystemMutexFollowsTheTable) {
    CMN_Mutex mutex;
    EXPECT_FALSE(isLocked(&mutex, kWord));
    mutex.lock();
    EXPECT_TRUE(isLocked(&mutex, kWord));
    mutex.unlock();
}

TEST(MutexAbiTest, FieldsOfTheRecursiveMutexAreAsPublished) CMN_NO_TSA {
    CMN_RecursiveMutex mutex("test");
    const auto depth = [&] { return fieldAt<unsigned int>(&mutex, shape(28, 48)); };
    const auto owner = [&] { return fieldAt<unsigned long>(&mutex, shape(32, 56)); };
    EXPECT_EQ(0u, depth());
    EXPECT_EQ(0u, owner());
    mutex.enter();
    mutex.enter();
    EXPECT_TRUE(isLocked(&mutex, kWord));
    EXPECT_EQ(2u, depth());
    EXPECT_EQ(pthread_self(), owner());
    mutex.exit();
    EXPECT_EQ(1u, depth());
    EXPECT_EQ(pthread_self(), owner());
    mutex.exit();
    EXPECT_FALSE(isLocked(&mutex, kWord));
    EXPECT_EQ(0u, depth());
    EXPECT_EQ(0u, owner());
}

TEST(ReferenceAbiTest, DestructorsComeFirst) {
    expectDestructorsAt(0);
}

TEST(ReferenceAbiTest, FieldsAreAsPublished) {
    CMN_RecursiveMutex own("test");
    CMN_Reference counted(&own);
    counted.addReference();
    counted.addReference();
    EXPECT_EQ(&own, fieldAt<CMN_RecursiveMutex*>(&counted, kWord));
    EXPECT_EQ(2, fieldAt<int>(&counted, shape(8, 16)));
    const CMN_Reference shared;
    EXPECT_EQ(&CMN_Reference::RefMutex, fieldAt<CMN_RecursiveMutex*>(&shared, kWord));
}

// --- guards, lists, guarded objects and holders

TEST(GuardAbiTest, FieldsAreMutexThenReferenceThenCounter) {
    auto* const guard = new CMN_Guard;
    guard->addReference();
    guard->inc();
    guard->inc();
    guard->inc();
    guard->lock();
    EXPECT_TRUE(isLocked(guard, kWord));
    guard->unlock();
    EXPECT_EQ(&CMN_Reference::RefMutex,
              fieldAt<CMN_RecursiveMutex*>(guard, sizeof(CMN_Mutex) + kWord));
    EXPECT_EQ(1, fieldAt<int>(guard, sizeof(CMN_Mutex) + shape(8, 16)));
    EXPECT_EQ(3, fieldAt<int>(guard, shape(40, 68)));
    guard->remReference();
}

TEST(HolderListAbiTest, PlacesAreAsPublished) {
    EXPECT_EQ(0u, slotOf(&slist<CMN_GRPHolder>::push_front));
    EXPECT_EQ(1u, slotOf(&slist<CMN_GRPHolder>::eraseitem));
    slist<CMN_GRPHolder> list;
    TestHolder holder(107);
    callSlot<void(CMN_GRPHolder*)>(&list, 0, &holder);
    EXPECT_EQ(1, list.size());
    callSlot<void(sitem<CMN_GRPHolder>*)>(&list, 1, list.first());
    EXPECT_EQ(0, list.size());
}

TEST(HolderListAbiTest, FieldsAreAsPublished) {
    using Node = sitem<CMN_GRPHolder>;
    slist<CMN_GRPHolder> list;
    TestHolder older(107);
    TestHolder newer(107);
    list.push_front(&older);
    list.push_front(&newer);
    EXPECT_EQ(2, fieldAt<int>(&list, 2 * kWord));
    Node* const first = fieldAt<Node*>(&list, kWord);
    Node* const second = fieldAt<Node*>(first, 0);
    EXPECT_EQ(nullptr, fieldAt<Node*>(second, 0));
    EXPECT_EQ(reinterpret_cast<char*>(&list) + kWord, fieldAt<char*>(first, kWord));
    EXPECT_EQ(reinterpret_cast<char*>(first), fieldAt<char*>(second, kWord));
    EXPECT_EQ(&newer, fieldAt<CMN_GRPHolder*>(first, 2 * kWord));
    EXPECT_EQ(&older, fieldAt<CMN_GRPHolder*>(second, 2 * kWord));
}

TEST(GuardedRefAbiTest, PlacesAreAsPublished) {
    EXPECT_EQ(2u, slotOf(&CMN_GuardedRef::init));
    EXPECT_EQ(3u, slotOf(&CMN_GuardedRef::fini));
    EventLog log;
    const CMN_GRefPtr<TestObject> holder(new TestObject("object", &log));
    EXPECT_EQ(kOk, callSlot<Status()>(holder.get(), 2));
    EXPECT_EQ(kOk, callSlot<Status()>(holder.get(), 3));
    EXPECT_THAT(log, ElementsAre("init object", "fini object"));
}

TEST(GuardedRefAbiTest, FieldsAreAsPublished) {
    constexpr std::size_t kHolders = shape(16, 24);
    constexpr std::size_t kHolderMutex = shape(32, 56);
    constexpr std::size_t kPrevLink = shape(68, 120);
    constexpr std::size_t kNext = shape(72, 128);
    auto* const guard = new CMN_Guard;
    FakeHost host;
    host.giveGuard(guard);
    const InstalledHost installed(&host);
    CMN_GRefPtr<TestObject> older(new TestObject("", nullptr, 0x6B0001));
    CMN_GRefPtr<TestObject> newer(new TestObject("", nullptr, 0x6B0002));
    auto* const object = static_cast<CMN_GuardedRef*>(newer.get());

    EXPECT_EQ(0x6B0002u, fieldAt<unsigned int>(object, shape(12, 20)));
    EXPECT_EQ(reinterpret_cast<char*>(object) + kHolders,
              reinterpret_cast<char*>(&object->_getHolders()));
    EXPECT_EQ(guard, fieldAt<CMN_Guard*>(object, shape(28, 48)));
    EXPECT_FALSE(isLocked(object, kHolderMutex + kWord));
    object->lockHolderList();
    EXPECT_TRUE(isLocked(object, kHolderMutex + kWord));
    object->unlockHolderList();

    EXPECT_EQ(older.get(), fieldAt<CMN_GuardedRef*>(object, kNext));
    EXPECT_EQ(reinterpret_cast<char*>(&ObjectManager) + shape(36, 64),
              fieldAt<char*>(object, kPrevLink));
    EXPECT_EQ(nullptr, fieldAt<CMN_GuardedRef*>(older.get(), kNext));
    EXPECT_EQ(reinterpret_cast<char*>(object) + kNext, fieldAt<char*>(older.get(), kPrevLink));
}

TEST(HolderAbiTest, PlacesAreAsPublished) {
    EXPECT_EQ(0u, slotOf(&CMN_GRPHolder::replacePointee));
    EXPECT_EQ(1u, slotOf(&CMN_GRPHolder::getModuleID));
    auto* const object = new TestObject;
    CMN_GRefPtr<TestObject> holder;
    callSlot<void(CMN_GuardedRef*)>(&holder, 0, object);
    EXPECT_EQ(object, holder.get());
    EXPECT_EQ(pModuleID, callSlot<const TypifiedID*()>(&holder, 1));
}

TEST(HolderAbiTest, FieldsAreAsPublished) {
    auto* const guard = new CMN_Guard;
    FakeHost host;
    host.giveGuard(guard);
    const InstalledHost installed(&host);
    const Tuint32ID supplier(67);
    const CMN_GRefPtr<TestObject> holder(new TestObject, &supplier);
    EXPECT_EQ(guard, fieldAt<CMN_Guard*>(&holder, kWord));
    EXPECT_EQ(&supplier, fieldAt<const TypifiedID*>(&holder, 2 * kWord));
    EXPECT_EQ(holder.get(), fieldAt<TestObject*>(&holder, 3 * kWord));
    EXPECT_EQ(pModuleID, fieldAt<const TypifiedID*>(&holder, 4 * kWord));
}

TEST(DummyHolderAbiTest, PinFollowsTheTableAndDieComesFirst) {
    CMN_GRefPtr<TestObject> holder(new TestObject);
    auto* const pin = new DummyHolder(holder.get());
    EXPECT_EQ(reinterpret_cast<const char*>(pin) + kWord,
              reinterpret_cast<const char*>(pin->holder()));
    EXPECT_EQ(holder.get(), fieldAt<CMN_GuardedRef*>(pin, 4 * kWord));
    EXPECT_EQ(2, holder.get()->references());
    callSlot<void()>(pin, 0);
    EXPECT_EQ(1, holder.get()->references());
}

// --- object manager

TEST(ObjectManagerAbiTest, PlacesAreAsPublished) {
    EXPECT_EQ(0u, slotOf(&CMN_ObjectManager::fini));
    EXPECT_EQ(1u, slotOf(&CMN_ObjectManager::moduleIsUsed));
    TestHolder foreign(67);
    foreign.hold(new TestObject);
    EXPECT_EQ(1, callSlot<int()>(&ObjectManager, 1));
    callSlot<void()>(&ObjectManager, 0);
    EXPECT_EQ(nullptr, foreign.object());
    EXPECT_EQ(0, callSlot<int()>(&ObjectManager, 1));
}

TEST(ObjectManagerAbiTest, FieldsAreAsPublished) {
    EXPECT_FALSE(isLocked(&ObjectManager, 2 * kWord));
    EXPECT_EQ(&CMN_Reference::RefMutex,
              fieldAt<CMN_RecursiveMutex*>(&ObjectManager, shape(32, 56)));
    EXPECT_EQ(nullptr, fieldAt<CMN_GuardedRef*>(&ObjectManager, shape(36, 64)));
    const CMN_GRefPtr<TestObject> holder(new TestObject);
    EXPECT_EQ(holder.get(), fieldAt<CMN_GuardedRef*>(&ObjectManager, shape(36, 64)));
}

TEST(ObjectManagerAbiTest, ObjectThatLeftHasNoLinks) {
    constexpr std::size_t kPrevLink = shape(68, 120);
    constexpr std::size_t kNext = shape(72, 128);
    const CMN_GRefPtr<TestObject> oldest(new TestObject);
    const CMN_GRefPtr<TestObject> middle(new TestObject);
    const CMN_GRefPtr<TestObject> newest(new TestObject);
    ObjectManager.removeObj(middle.get());
    EXPECT_EQ(nullptr, fieldAt<void*>(middle.get(), kPrevLink));
    EXPECT_EQ(nullptr, fieldAt<void*>(middle.get(), kNext));
    EXPECT_EQ(oldest.get(), fieldAt<CMN_GuardedRef*>(newest.get(), kNext));
    EXPECT_EQ(reinterpret_cast<char*>(newest.get()) + kNext,
              fieldAt<char*>(oldest.get(), kPrevLink));
    ObjectManager.storeObj(middle.get());
    EXPECT_EQ(newest.get(), fieldAt<CMN_GuardedRef*>(middle.get(), kNext));
    EXPECT_EQ(reinterpret_cast<char*>(middle.get()) + kNext,
              fieldAt<char*>(newest.get(), kPrevLink));
}

// --- stubs

TEST(ServiceStubAbiTest, PlacesAreAsPublished) {
    using Stub = CMN_ServiceStub<TestObject>;
    EXPECT_EQ(0u, slotOf(&CMN_ServiceStubInterface::ref));
    EXPECT_EQ(1u, slotOf(&CMN_ServiceStubInterface::unref));
    EXPECT_EQ(0u, slotOf(&Stub::ref));
    EXPECT_EQ(1u, slotOf(&Stub::unref));
    const Tuint32ID service(67);
    auto* const stub = new Stub(service, new TestObject);
    callSlot<void()>(stub, 0);
    EXPECT_EQ(1, stub->uses());
    callSlot<void()>(stub, 1);
    EXPECT_EQ(0, stub->uses());
    EXPECT_EQ(0, TestObject::alive());

    CMN_GRefPtr<TestObject> kept(new TestObject);
    auto* const bound = new Stub(service, kept.get());
    EXPECT_EQ(2, kept.get()->references());
    callSlot<void()>(bound, 3);  // the deleting destructor
    EXPECT_EQ(1, kept.get()->references());
    callSlot<void()>(stub, 3);
}

TEST(ServiceStubAbiTest, FieldsAreAsPublished) {
    class Stub : public CMN_ServiceStub<TestObject> {
    public:
        using CMN_ServiceStub::CMN_ServiceStub;
        const void* holder() const { return &m_ref; }
    };
    const Tuint32ID service(67);
    Stub stub(service);
    EXPECT_EQ(reinterpret_cast<const char*>(&stub) + kWord, stub.holder());
    EXPECT_EQ(&service, fieldAt<const TypifiedID*>(&stub, 3 * kWord));
    stub.ref();
    stub.ref();
    EXPECT_EQ(2, fieldAt<int>(&stub, shape(24, 48)));
    EXPECT_FALSE(isLocked(&stub, shape(28, 56) + kWord));

    // Seen from inside, while the stub asks the host.
    class AskedHost : public FakeHost {
    public:
        CMN_GuardedRef* acquireService(const TypifiedID&, const TypifiedID&) override {
            locked = isLocked(stub, shape(28, 56) + kWord);
            return nullptr;
        }
        void* stub = nullptr;
        bool locked = false;
    };
    AskedHost host;
    host.stub = &stub;
    const InstalledHost installed(&host);
    EXPECT_FALSE(stub.acquire());
    EXPECT_TRUE(host.locked);
}

TEST(ObjectStubAbiTest, DestructorsComeFirst) {
    auto* const stub = new CMN_ObjectStub<TestObject>(new TestObject, nullptr);
    callSlot<void()>(stub, 1);
    EXPECT_EQ(0, TestObject::alive());
}

TEST(ObjectStubAbiTest, FieldsAreAsPublished) {
    const Tuint32ID service(67);
    CMN_ServiceStub<TestObject> uses(service);
    const CMN_ObjectStub<TestObject> stub(new TestObject, &uses);
    EXPECT_EQ(nullptr, fieldAt<const TypifiedID*>(&stub, 3 * kWord));
    EXPECT_EQ(stub.target(), fieldAt<TestObject*>(&stub, 4 * kWord));
    EXPECT_EQ(pModuleID, fieldAt<const TypifiedID*>(&stub, 5 * kWord));
    EXPECT_EQ(&uses, fieldAt<CMN_ServiceStubInterface*>(&stub, 6 * kWord));
}

// --- the host's module manager

TEST(HostAbiTest, PlacesAreAsPublished) {
    EXPECT_EQ(2u, slotOf(&TModuleManager::loadModule));
    EXPECT_EQ(3u, slotOf(&TModuleManager::unloadModule));
    EXPECT_EQ(4u, slotOf(&TModuleManager::isLoaded));
    EXPECT_EQ(5u, slotOf(&TModuleManager::currentGuard));
    EXPECT_EQ(6u, slotOf(&TModuleManager::acquireService));
    EXPECT_EQ(7u, slotOf(&TModuleManager::releaseModule));

    FakeHost host;
    const Tuint32ID module(67);
    callSlot<void(const TypifiedID*, const TypifiedID*)>(static_cast<TModuleManager*>(&host), 7,
                                                         &module, pModuleID);
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
}

// --- the way of looking itself

TEST(SlotOfTest, TellsWhatACallByPlaceReaches) {
    TestObject object;
    const std::size_t twice = slotOf(&TestObject::twice);
    EXPECT_EQ(4u, twice);
    EXPECT_EQ(42, (callSlot<int(int)>(&object, twice, 21)));
    EXPECT_EQ(kNotVirtual, slotOf(&TestObject::name));
}

}  // namespace
