// Walks, takeovers and stubs when memory runs out: whichever allocation fails, no object
// is pinned afterwards, no lock is held, and no use of a service stays counted.
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cmn/cmn_obj_mgr.h"
#include "cmn/cmn_stub.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fake_host.h"
#include "tests/support/mutex_probe.h"
#include "tests/support/test_objects.h"

namespace {

using fault::FailingAllocation;
using Holder = CMN_GRefPtr<TestObject>;

constexpr unsigned int kOwn = 107;
constexpr unsigned int kOther = 67;

// Three objects, held from here and from another module; one of them from there alone.
class Held {
public:
    Held() {
        for (std::size_t i = 0; i < kObjects; ++i) {
            auto* const made = new TestObject(std::to_string(i));
            foreign_[i]->hold(made);
            if (i != 1) {
                own_[i] = made;
            }
        }
    }

    // Each object that lives has the references of its holders and no other.
    void expectNoPins() const {
        std::size_t references = 0;
        for (std::size_t i = 0; i < kObjects; ++i) {
            const TestObject* const present = own_[i].get();
            references += present != nullptr ? 1 : 0;
            references += foreign_[i]->object() != nullptr ? 1 : 0;
        }
        std::size_t counted = 0;
        for (std::size_t i = 0; i < kObjects; ++i) {
            TestObject* const object =
                own_[i].get() != nullptr ? own_[i].get() : foreign_[i]->object();
            if (object != nullptr) {
                counted += static_cast<std::size_t>(object->references());
                EXPECT_EQ(holdersOf(*object).size(),
                          static_cast<std::size_t>(object->references()));
            }
        }
        EXPECT_EQ(references, counted);
    }

private:
    static constexpr std::size_t kObjects = 3;

    Holder own_[kObjects];
    std::unique_ptr<TestHolder> foreign_[kObjects] = {std::make_unique<TestHolder>(kOther),
                                                      std::make_unique<TestHolder>(kOther),
                                                      std::make_unique<TestHolder>(kOther)};
};

// Fails this allocation of the step, which throws if it has that many. Returns whether it has.
template <class Step>
bool failsAt(long nth, Step step) {
    bool thrown = false;
    FailingAllocation failing(nth);
    try {
        step();
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    const bool hit = failing.lift();
    EXPECT_EQ(hit, thrown);
    return hit;
}

CMN_GuardedRef* successorOf(unsigned int type, CMN_GuardedRef& old) {
    return new TestObject("new " + dynamic_cast<TestObject&>(old).name(), nullptr, type);
}

TEST(WalkMemoryTest, NoPinStaysWhicheverAllocationFails) {
    const struct {
        const char* name;
        bool needsMemory;
        std::function<void()> walk;
    } rows[] = {
        {"getObj", true, [] { ObjectManager.getObj()->die(); }},
        {"moduleIsUsed", false, [] { EXPECT_EQ(1, ObjectManager.moduleIsUsed()); }},
        {"isBusy", false, [] { EXPECT_FALSE(ObjectManager.isBusy()); }},
        {"unhookObjs", true, [] { (void)ObjectManager.unhookObjs(Tuint32ID(kOther)); }},
        {"unhookForeign", true, [] { (void)ObjectManager.unhookForeign(Tuint32ID(kOwn)); }},
        {"fini", true, [] { ObjectManager.fini(); }},
        {"finiAll", true, [] { ObjectManager.finiAll(); }},
        {"giveUp to nobody", true,
         [] {
             ObjectManager.giveUp(
                 [](unsigned int, CMN_GuardedRef&) -> CMN_GuardedRef* { return nullptr; });
         }},
    };
    for (const auto& row : rows) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE(std::string(row.name) + ", failing allocation " + std::to_string(nth));
            const Held held;
            const bool hit = failsAt(nth, [&] { row.walk(); });
            EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
            held.expectNoPins();
            row.walk();
            held.expectNoPins();
            if (!hit) {
                EXPECT_EQ(row.needsMemory, nth > 1);
                break;
            }
        }
        EXPECT_EQ(0, TestObject::alive()) << row.name;
    }
}

// From one registry into another.
TEST(WalkMemoryTest, TakeoverLeavesNoPinAndNoSuccessorThatNobodyHolds) {
    for (long nth = 1;; ++nth) {
        SCOPED_TRACE("failing allocation " + std::to_string(nth));
        CMN_ObjectManager earlier;
        {
            pObjMgr = &earlier;
            const Held held;
            pObjMgr = &ObjectManager;
            const bool hit = failsAt(nth, [&] { earlier.giveUp(successorOf); });
            EXPECT_TRUE(isFree(CMN_Reference::RefMutex));
            held.expectNoPins();
            earlier.giveUp(successorOf);
            EXPECT_EQ(0, earlier.size());
            held.expectNoPins();
            if (!hit) {
                EXPECT_EQ(3, TestObject::alive());
                EXPECT_LT(3, nth);
                break;
            }
        }
        EXPECT_EQ(0, TestObject::alive());
    }
    EXPECT_EQ(0, TestObject::alive());
}

// --- stubs

constinit const Tuint32ID kService(kOther);

class Stub : public CMN_ServiceStub<TestObject> {
public:
    Stub() : CMN_ServiceStub(kService) {}
    int twice(int number) { return forward(&TestObject::twice, -1, number); }
};

TEST(StubMemoryTest, UseOfAServiceThatCannotBeHeldIsGivenBack) {
    const struct {
        const char* name;
        std::function<void(Stub&)> bind;
    } rows[] = {
        {"ref", [](Stub& stub) { stub.ref(); }},
        {"acquire", [](Stub& stub) { EXPECT_TRUE(stub.acquire()); }},
        {"a call", [](Stub& stub) { EXPECT_EQ(42, stub.twice(21)); }},
        {"a stub of an object",
         [](Stub& stub) { const CMN_ObjectStub<TestObject> object(nullptr, &stub); }},
    };
    for (const auto& row : rows) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE(std::string(row.name) + ", failing allocation " + std::to_string(nth));
            FakeHost host;
            const InstalledHost installed(&host);
            host.offer(kOther, new TestObject);
            {
                Stub stub;
                const bool hit = failsAt(nth, [&] { row.bind(stub); });
                if (!hit) {
                    EXPECT_LT(1, nth);
                    break;
                }
                EXPECT_EQ(0, host.uses(kOther));
                EXPECT_EQ(0, stub.uses());
                EXPECT_EQ(nullptr, stub.service());
                row.bind(stub);
            }
            EXPECT_EQ(0, host.uses(kOther));
        }
    }
    EXPECT_EQ(0, TestObject::alive());
}

}  // namespace
