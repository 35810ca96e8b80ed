// The framework under many threads. Each test ends with sums that only hold when
// nothing was lost or done twice; the thread sanitizer looks at what lies between,
// the order of locks included.
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/cmn_ref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/cmn_stub.h"
#include "cmn/objmgrfunc.h"
#include "tests/support/fake_host.h"
#include "tests/support/run_together.h"
#include "tests/support/test_objects.h"

namespace {

std::atomic<bool> makesSuccessors{false};

}  // namespace

CMN_GuardedRef* MakeObject(unsigned int type, CMN_GuardedRef& /*old*/) {
    return makesSuccessors ? new TestObject("successor", nullptr, type) : nullptr;
}

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 2000;
constexpr unsigned int kOther = 67;
constexpr unsigned int kService = 111;
const Tuint32ID kServiceID(kService);

using Holder = CMN_GRefPtr<TestObject>;

class ServiceStub : public CMN_ServiceStub<TestObject> {
public:
    ServiceStub() : CMN_ServiceStub(kServiceID) {}
    int twice(int number) { return forward(&TestObject::twice, -1, number); }
};

class ObjectStub : public CMN_ObjectStub<TestObject> {
public:
    using CMN_ObjectStub::CMN_ObjectStub;
    int twice(int number) const { return forward(&TestObject::twice, -1, number); }
};

// A call as a proxy makes it; -1 without an object.
int callThrough(const Holder& holder, int number) {
    return forwardTo(
        holder, [] { return -1; }, [number](TestObject& object) { return object.twice(number); });
}

// Gives every object a guard of its own; no object is left behind.
class FrameworkThreadsTest : public testing::Test {
protected:
    FrameworkThreadsTest() { host.giveNewGuards(); }
    ~FrameworkThreadsTest() override {
        makesSuccessors = false;
        EXPECT_EQ(0, TestObject::alive());
        EXPECT_EQ(nullptr, ObjectManager.getObj());
    }

    FakeHost host;
    const InstalledHost installed{&host};
};

// --- mutexes and counts

TEST_F(FrameworkThreadsTest, RecursiveMutexExcludes) {
    CMN_RecursiveMutex mutex("test");
    int value = 0;  // under `mutex`
    std::atomic<int> entered{0};
    runTogether(kThreads, [&](int) CMN_NO_TSA {
        for (int i = 0; i < kRounds; ++i) {
            if (i % 3 == 0 && !mutex.tryenter()) {
                continue;
            }
            if (i % 3 != 0) {
                mutex.enter();
            }
            mutex.enter();
            ++value;
            ++entered;
            EXPECT_EQ(1, mutex.exit());
            EXPECT_EQ(0, mutex.exit());
        }
    });
    EXPECT_EQ(entered, value);
}

TEST_F(FrameworkThreadsTest, CountsAddUp) {
    Holder kept(new TestObject);
    TestObject& object = *kept.get();
    runTogether(kThreads, [&](int number) {
        for (int i = 0; i < kRounds; ++i) {
            object.addReference();
            if (i % (number + 1) == 0) {
                EXPECT_GT(object.remReference(), 0);
            } else {
                object.addReference();
            }
        }
        for (int i = 0; i < kRounds; ++i) {
            if (i % (number + 1) != 0) {
                object.remReference();
                object.remReference();
            }
        }
    });
    EXPECT_EQ(1, object.references());
}

// --- holders

TEST_F(FrameworkThreadsTest, HoldersComeAndGo) {
    Holder kept(new TestObject);
    const Holder& shared = kept;
    runTogether(kThreads, [&](int) {
        for (int i = 0; i < kRounds; ++i) {
            const Holder copy(shared);
            Holder assigned;
            assigned = copy;
            EXPECT_EQ(2 * i, callThrough(assigned, i));
            assigned = nullptr;
            assigned = shared;
        }
    });
    EXPECT_EQ(1, kept.get()->references());
    EXPECT_EQ(1u, holdersOf(*kept.get()).size());
    EXPECT_EQ(0, kept.get()->getGuard()->calls());
}

TEST_F(FrameworkThreadsTest, LastOfManyHoldersDestroysOnce) {
    for (int round = 0; round < kRounds / 40; ++round) {
        auto* const object = new TestObject;
        CMN_Guard* const guard = object->getGuard();
        std::unique_ptr<Holder> holders[kThreads];
        for (auto& holder : holders) {
            holder = std::make_unique<Holder>(object);
        }
        runTogether(kThreads, [&](int number) { holders[number].reset(); });
        ASSERT_EQ(0, TestObject::alive());
        ASSERT_EQ(1, guard->calls());  // left raised by the one that destroyed
    }
}

// --- stubs

class StubThreadsTest : public FrameworkThreadsTest {
protected:
    StubThreadsTest() { host.offer(kService, service); }
    ~StubThreadsTest() override { host.withdraw(kService); }

    TestObject* const service = new TestObject("service");
    ServiceStub stub;
};

TEST_F(StubThreadsTest, UsesOfAServiceStubAddUp) {
    runTogether(kThreads, [&](int) {
        for (int i = 0; i < kRounds; ++i) {
            stub.ref();
            EXPECT_EQ(2 * i, stub.twice(i));  // while used, it is bound
            stub.unref();
        }
    });
    EXPECT_EQ(0, stub.uses());
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_EQ(0, host.uses(kService));
    EXPECT_EQ(1, service->references());
    EXPECT_EQ(0, service->getGuard()->calls());
}

TEST_F(StubThreadsTest, OneThreadAsksTheHostForAll) {
    runTogether(kThreads, [&](int) { EXPECT_EQ(6, stub.twice(3)); });
    EXPECT_EQ(1u, host.calls().size());
    stub.ref();
    stub.unref();
    EXPECT_EQ(0, host.uses(kService));
}

// A call without a use may find the service given back; then it is acquired again.
TEST_F(StubThreadsTest, CallsWithoutAUseFindTheServiceAllTheSame) {
    runTogether(kThreads, [&](int number) {
        for (int i = 0; i < kRounds; ++i) {
            if (number % 2 == 0) {
                EXPECT_EQ(2 * i, stub.twice(i));
            } else {
                stub.ref();
                stub.unref();
            }
        }
    });
    stub.ref();
    stub.unref();
    EXPECT_EQ(0, host.uses(kService));
    EXPECT_EQ(1, service->references());
    EXPECT_EQ(0, service->getGuard()->calls());
}

TEST_F(StubThreadsTest, ObjectStubsKeepTheirServiceInUse) {
    Holder kept(new TestObject);
    runTogether(kThreads, [&](int number) {
        for (int i = 0; i < kRounds / 4; ++i) {
            const ObjectStub own(new TestObject, &stub);
            const ObjectStub shared(kept.get(), &stub);
            ObjectStub copy(number % 2 == 0 ? own : shared);
            EXPECT_EQ(2 * i, copy.twice(i));
            copy = shared;
            EXPECT_EQ(2 * i, copy.twice(i));
            EXPECT_EQ(service, stub.service());
        }
    });
    EXPECT_EQ(0, stub.uses());
    EXPECT_EQ(0, host.uses(kService));
    EXPECT_EQ(1, kept.get()->references());
}

// --- walks of the registry

// Makes, calls and lets go of objects until told to end; some stay half-built,
// registered and held by nobody, for a while.
void makeAndDropObjects(const std::atomic<bool>& end, int number) {
    for (int i = 0; !end; ++i) {
        auto* const object = new TestObject;
        if ((i + number) % 50 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
        const Holder first(object);
        const Holder second(first);
        EXPECT_EQ(2 * i, callThrough(second, i));
    }
}

TEST_F(FrameworkThreadsTest, UnhookingLeavesTheModulesOwnThreadsAlone) {
    Holder kept(new TestObject);
    std::atomic<bool> end{false};
    const Together others(kThreads - 1, [&](int number) { makeAndDropObjects(end, number); });
    for (int round = 0; round < kRounds / 40; ++round) {
        TestHolder foreign[3] = {TestHolder(kOther), TestHolder(kOther), TestHolder(kService)};
        foreign[0].hold(kept.get());
        foreign[1].hold(new TestObject);
        foreign[2].hold(kept.get());
        EXPECT_EQ(1, ObjectManager.moduleIsUsed());
        EXPECT_EQ(2, ObjectManager.unhookObjs(Tuint32ID(kOther)));
        EXPECT_EQ(0, ObjectManager.moduleIsUsedBy(Tuint32ID(kOther)));
        EXPECT_EQ(kept.get(), foreign[2].object());
    }
    end = true;
}

TEST_F(FrameworkThreadsTest, WalksAndQuestionsRunInAllThreads) {
    Holder kept(new TestObject);
    std::atomic<bool> end{false};
    const Together others(2, [&](int number) { makeAndDropObjects(end, number); });
    runTogether(3, [&](int number) {
        for (int round = 0; round < kRounds / 200; ++round) {
            switch ((number + round) % 4) {
                case 0:
                    ObjectManager.finiAll();
                    break;
                case 1:
                    EXPECT_EQ(0, ObjectManager.moduleIsUsed());
                    break;
                case 2:
                    EXPECT_EQ(0, ObjectManager.unhookObjs(Tuint32ID(kOther)));
                    break;
                default:
                    DummyHolder::die(ObjectManager.getObj());
                    break;
            }
        }
    });
    end = true;
}

// The module's threads are gone when fini() detaches everybody, save those that
// hold nothing yet.
TEST_F(FrameworkThreadsTest, FiniWaitsForObjectsThatAreBeingHandedOver) {
    for (int round = 0; round < kRounds / 40; ++round) {
        TestObject* const objects[] = {new TestObject, new TestObject, new TestObject};
        Holder holders[3];
        Together threads(4, [&](int number) {
            if (number == 3) {
                ObjectManager.fini();
            } else {
                holders[number] = objects[number];
            }
        });
    }
}

// The object holds a stub, as a list of records does. Its destruction needs the
// stub's mutex, whose owner may be waiting for the registry.
TEST_F(StubThreadsTest, WalksDestroyObjectsThatHoldStubs) {
    class Keeper : public TestObject {
    public:
        explicit Keeper(ServiceStub& service) : stub_(nullptr, &service) {}

    private:
        ObjectStub stub_;
    };
    std::atomic<bool> end{false};
    const Together others(2, [&](int) {
        while (!end) {
            stub.ref();
            stub.unref();
        }
    });
    for (int round = 0; round < kRounds / 10; ++round) {
        TestHolder foreign(kOther);
        foreign.hold(new Keeper(stub));
        EXPECT_EQ(1, ObjectManager.unhookObjs(Tuint32ID(kOther)));
        EXPECT_EQ(nullptr, foreign.object());
    }
    end = true;
}

// --- takeover

// Objects of an earlier copy of the module: registered with `earlier`, and shared
// by all threads, each of which has a holder of its own on every object.
class TakeOverThreadsTest : public FrameworkThreadsTest {
protected:
    static constexpr int kObjects = 20;

    void makeOldObjects() {
        pObjMgr = &earlier;
        for (int i = 0; i < kObjects; ++i) {
            auto* const object = new TestObject("old");
            for (auto& mine : holders) {
                mine[i] = std::make_unique<Holder>(object);
            }
        }
        pObjMgr = &ObjectManager;
    }

    CMN_ObjectManager earlier;
    std::unique_ptr<Holder> holders[kThreads][kObjects];
};

TEST_F(TakeOverThreadsTest, CallsAndReleasesGoOnDuringATakeover) {
    makesSuccessors = true;
    for (int round = 0; round < kRounds / 100; ++round) {
        makeOldObjects();
        {
            const Together callers(kThreads, [&](int number) {
                auto& mine = holders[number];
                std::minstd_rand random(static_cast<unsigned int>(number) + 1);
                for (int i = 0; i < 20 * kObjects; ++i) {
                    auto& holder = mine[random() % kObjects];
                    if (holder == nullptr) {
                        const Holder newcomer(new TestObject);
                        EXPECT_EQ(2 * i, callThrough(newcomer, i));
                    } else if (random() % 16 == 0) {
                        holder.reset();
                    } else {
                        EXPECT_EQ(2 * i, callThrough(*holder, i));  // old or new, never none
                    }
                }
            });
            ObjectManager.init(&earlier);
        }
        ASSERT_EQ(nullptr, earlier.getObj());
        for (auto& mine : holders) {
            for (auto& holder : mine) {
                if (holder != nullptr) {
                    ASSERT_EQ("successor", holder->get()->name());
                    holder.reset();
                }
            }
        }
        ASSERT_EQ(0, TestObject::alive());
    }
}

TEST_F(TakeOverThreadsTest, TakenFromItsCallersAnObjectIsThereOrNot) {
    makeOldObjects();
    {
        const Together callers(kThreads, [&](int number) {
            for (int i = 0; i < 20 * kObjects; ++i) {
                const int result = callThrough(*holders[number][i % kObjects], i);
                EXPECT_TRUE(result == 2 * i || result == -1) << result;
            }
        });
        ObjectManager.init(&earlier);
    }
    for (const auto& mine : holders) {
        for (const auto& holder : mine) {
            EXPECT_EQ(nullptr, holder->get());
        }
    }
}

// A caller that saw the guard of one object may find the successor of its successor.
TEST_F(TakeOverThreadsTest, TakeoversMayFollowEachOther) {
    makesSuccessors = true;
    makeOldObjects();
    std::atomic<bool> end{false};
    {
        const Together callers(kThreads, [&](int number) {
            for (int i = 0; !end; ++i) {
                EXPECT_EQ(2 * i, callThrough(*holders[number][i % 4], i));
            }
        });
        for (int round = 0; round < kRounds / 20; ++round) {
            CMN_ObjectManager& from = round % 2 == 0 ? earlier : ObjectManager;
            CMN_ObjectManager& to = round % 2 == 0 ? ObjectManager : earlier;
            pObjMgr = &to;
            to.init(&from);
        }
        end = true;
    }
    pObjMgr = &ObjectManager;
    for (auto& mine : holders) {
        for (auto& holder : mine) {
            holder.reset();
        }
    }
}

// One registry after the other meets a walk and a takeover, so that the order of
// their locks is compared.
TEST_F(TakeOverThreadsTest, WalksAndTakeoversTakeTheirLocksInOneOrder) {
    makesSuccessors = true;
    makeOldObjects();
    earlier.finiAll();
    EXPECT_EQ(0, earlier.unhookObjs(Tuint32ID(kOther)));
    ObjectManager.init(&earlier);
    ObjectManager.finiAll();
    EXPECT_EQ(kObjects * kThreads, ObjectManager.unhookObjs(*pModuleID));

    makeOldObjects();
    ObjectManager.init(&earlier);
    ObjectManager.fini();
    makeOldObjects();
    earlier.fini();
}

}  // namespace
