#include "cmn/cmn_stub.h"

#include <memory>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_host.h"
#include "tests/support/test_objects.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kService = 67;
const Tuint32ID kServiceID(kService);

// Tells what it sees of its guard while it is called.
class Target : public TestObject {
public:
    using TestObject::TestObject;

    int twice(int number) override {
        ++called;
        guardDuringCall = getGuard() == nullptr ? 0 : getGuard()->calls();
        if (number < 0) {
            throw std::runtime_error("refused");
        }
        return TestObject::twice(number);
    }

    int called = 0;
    int guardDuringCall = -1;
};

class ServiceStub : public CMN_ServiceStub<TestObject> {
public:
    explicit ServiceStub(TestObject* target = nullptr) : CMN_ServiceStub(kServiceID, target) {}
    int twice(int number) { return forward(&TestObject::twice, -1, number); }
};

class ObjectStub : public CMN_ObjectStub<TestObject> {
public:
    using CMN_ObjectStub::CMN_ObjectStub;
    int twice(int number) const { return forward(&TestObject::twice, -1, number); }
    void redirect(TestObject* object) { m_ref.replacePointee(object); }
};

// A host that offers one service and holds it, and gives every object one guard.
class StubTest : public testing::Test {
protected:
    StubTest() {
        guard->addReference();
        host.giveGuard(guard);
        service = new Target("service", &log);
        host.offer(kService, service);
    }
    ~StubTest() override {
        host.withdraw(kService);
        EXPECT_EQ(0, TestObject::alive());
        host.giveNoGuards();
        guard->remReference();
    }

    CMN_Guard* const guard = new CMN_Guard;
    FakeHost host;
    const InstalledHost installed{&host};
    EventLog log;
    Target* service;
};

// --- guard locks

TEST_F(StubTest, GuardLockRaisesForAScope) {
    {
        const GuardLock outer(guard);
        EXPECT_EQ(1, guard->calls());
        const GuardLock inner(guard);
        EXPECT_EQ(2, guard->calls());
    }
    EXPECT_EQ(0, guard->calls());
    const GuardLock nothing(nullptr);
}

TEST_F(StubTest, GuardLockVarRaisesTheGuardOfWhatAHolderHolds) {
    CMN_GRefPtr<TestObject> holder;
    TestObject* target = service;
    {
        const GuardLockVar nothing(holder, target);
        EXPECT_EQ(nullptr, target);
        EXPECT_EQ(0, guard->calls());
    }
    holder = service;
    {
        const GuardLockVar raised(holder, target);
        EXPECT_EQ(service, target);
        EXPECT_EQ(1, guard->calls());
    }
    EXPECT_EQ(0, guard->calls());
}

// --- service stubs

using ServiceStubTest = StubTest;

TEST_F(ServiceStubTest, AsksForNothingBeforeItsFirstUse) {
    {
        ServiceStub stub;
        EXPECT_EQ(nullptr, stub.service());
        EXPECT_EQ(0, stub.uses());
    }
    EXPECT_THAT(host.calls(), IsEmpty());
    EXPECT_EQ(0, guard->calls());
}

TEST_F(ServiceStubTest, FirstRefAcquiresAndFurtherOnesCount) {
    ServiceStub stub;
    stub.ref();
    EXPECT_EQ(service, stub.service());
    EXPECT_EQ(2, service->references());
    stub.ref();
    EXPECT_EQ(2, stub.uses());
    EXPECT_EQ(2, service->references());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107"));
}

TEST_F(ServiceStubTest, LastUnrefGivesServiceAndModuleBack) {
    ServiceStub stub;
    stub.ref();
    stub.ref();
    stub.unref();
    EXPECT_EQ(service, stub.service());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107"));
    stub.unref();
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_EQ(0, stub.uses());
    EXPECT_EQ(1, service->references());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));
}

TEST_F(ServiceStubTest, UnrefTooManyIsCountedAndReleasesNothing) {
    ServiceStub stub;
    EXPECT_EQ(8, stub.twice(4));
    stub.unref();
    EXPECT_EQ(-1, stub.uses());
    EXPECT_EQ(service, stub.service());
    stub.ref();
    EXPECT_EQ(0, stub.uses());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107"));
}

TEST_F(ServiceStubTest, IsAcquiredAnewAfterItsLastUnref) {
    ServiceStub stub;
    stub.ref();
    stub.unref();
    stub.ref();
    EXPECT_EQ(service, stub.service());
    stub.unref();
    EXPECT_EQ(0, host.uses(kService));
    EXPECT_EQ(4u, host.calls().size());
}

TEST_F(ServiceStubTest, UnrefThatDestroysTheServiceLeavesTheGuardAlone) {
    ServiceStub stub;
    stub.ref();
    host.withdraw(kService);
    stub.unref();
    EXPECT_THAT(log, ElementsAre("~service"));
    EXPECT_EQ(0, guard->calls());
}

TEST_F(ServiceStubTest, WithoutHostUsesCountAndNothingIsReleased) {
    ServiceStub stub;
    const InstalledHost none(nullptr);
    stub.ref();
    EXPECT_EQ(1, stub.uses());
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_EQ(-1, stub.twice(4));
    stub.unref();
    EXPECT_EQ(0, stub.uses());
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(ServiceStubTest, RefusedServiceCountsAndIsAskedForAgain) {
    host.withdraw(kService);
    auto* const later = new Target("later", &log);
    ServiceStub stub;
    stub.ref();
    EXPECT_EQ(1, stub.uses());
    EXPECT_EQ(nullptr, stub.service());
    host.offer(kService, later);
    stub.ref();
    EXPECT_EQ(2, stub.uses());
    EXPECT_EQ(later, stub.service());
    stub.unref();
    EXPECT_EQ(later, stub.service());
    stub.unref();
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_THAT(host.calls(),
                ElementsAre("refuse 67 by 107", "acquire 67 by 107", "release 67 by 107"));
}

TEST_F(ServiceStubTest, UnrefOfARefusedServiceReleasesNothing) {
    host.withdraw(kService);
    ServiceStub stub;
    stub.ref();
    stub.unref();
    EXPECT_EQ(0, stub.uses());
    EXPECT_THAT(host.calls(), ElementsAre("refuse 67 by 107"));
}

TEST_F(ServiceStubTest, ForwardingAcquiresAndKeepsUntilTheNextLastUnref) {
    ServiceStub stub;
    EXPECT_EQ(8, stub.twice(4));
    EXPECT_EQ(service, stub.service());
    EXPECT_EQ(0, stub.uses());
    EXPECT_EQ(10, stub.twice(5));
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107"));
    stub.ref();
    EXPECT_EQ(service, stub.service());
    stub.unref();
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));
    EXPECT_EQ(12, stub.twice(6));
    EXPECT_EQ(1, host.uses(kService));
}

TEST_F(ServiceStubTest, ForwardingToARefusedServiceCallsNothing) {
    host.withdraw(kService);
    ServiceStub stub;
    EXPECT_EQ(-1, stub.twice(4));
    EXPECT_FALSE(stub.acquire());
    EXPECT_THAT(host.calls(), ElementsAre("refuse 67 by 107", "refuse 67 by 107"));
}

TEST_F(ServiceStubTest, ForwardingRaisesTheGuardForTheCall) {
    ServiceStub stub;
    EXPECT_EQ(8, stub.twice(4));
    EXPECT_EQ(1, service->guardDuringCall);
    EXPECT_EQ(0, guard->calls());
}

TEST_F(ServiceStubTest, ForwardingLowersTheGuardWhenAnExceptionPasses) {
    ServiceStub stub;
    EXPECT_THROW(stub.twice(-1), std::runtime_error);
    EXPECT_EQ(1, service->guardDuringCall);
    EXPECT_EQ(0, guard->calls());
}

TEST_F(ServiceStubTest, BuiltOnAnObjectItIsBoundWithoutAskingTheHost) {
    {
        ServiceStub stub(service);
        EXPECT_EQ(service, stub.service());
        EXPECT_EQ(0, stub.uses());
        EXPECT_EQ(8, stub.twice(4));
        EXPECT_THAT(host.calls(), IsEmpty());
    }
    EXPECT_EQ(1, service->references());
    EXPECT_THAT(host.calls(), ElementsAre("release 67 by 107"));
}

TEST_F(ServiceStubTest, DestructionLetsGoLikeAHolder) {
    auto stub = std::make_unique<ServiceStub>();
    stub->ref();
    stub.reset();
    EXPECT_EQ(1, service->references());
    EXPECT_EQ(0, guard->calls());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));

    stub = std::make_unique<ServiceStub>();
    stub->ref();
    host.withdraw(kService);
    stub.reset();
    EXPECT_THAT(log, ElementsAre("~service"));
    EXPECT_EQ(1, guard->calls());  // as of any release that destroys
    EXPECT_EQ(0, host.uses(kService));
}

TEST_F(ServiceStubTest, AssignmentRebindsAndKeepsTheUses) {
    auto* const other = new Target("other", &log);
    ServiceStub stub;
    stub.ref();
    stub = ServiceStub(other);
    EXPECT_EQ(other, stub.service());
    EXPECT_EQ(1, stub.uses());
    EXPECT_EQ(1, service->references());
    EXPECT_EQ(8, stub.twice(4));
    EXPECT_EQ(1, other->called);
}

TEST_F(ServiceStubTest, AssignmentOfAnUnboundStubGivesServiceAndModuleBack) {
    ServiceStub stub;
    stub.ref();
    stub = ServiceStub();
    EXPECT_EQ(nullptr, stub.service());
    EXPECT_EQ(1, service->references());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));
}

// --- object stubs

using ObjectStubTest = StubTest;

TEST_F(ObjectStubTest, HoldsItsTargetAndAUseOfTheService) {
    ServiceStub uses;
    auto* const target = new Target("target", &log);
    {
        const ObjectStub stub(target, &uses);
        EXPECT_EQ(target, stub.target());
        EXPECT_EQ(1, target->references());
        EXPECT_EQ(1, uses.uses());
        EXPECT_EQ(service, uses.service());
    }
    EXPECT_THAT(log, ElementsAre("~target"));
    EXPECT_EQ(0, uses.uses());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));
}

TEST_F(ObjectStubTest, ObjectGoesBeforeItsService) {
    ServiceStub uses;
    const ObjectStub* const stub = new ObjectStub(new Target("target", &log), &uses);
    host.withdraw(kService);
    delete stub;
    EXPECT_THAT(log, ElementsAre("~target", "~service"));
    EXPECT_EQ(0, guard->calls());  // neither is let go of by a holder's destruction
}

TEST_F(ObjectStubTest, ServiceStaysAcquiredUntilTheLastStubIsGone) {
    ServiceStub uses;
    auto first = std::make_unique<ObjectStub>(new Target("first", &log), &uses);
    auto second = std::make_unique<ObjectStub>(new Target("second", &log), &uses);
    EXPECT_EQ(2, uses.uses());
    first.reset();
    EXPECT_EQ(service, uses.service());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107"));
    second.reset();
    EXPECT_EQ(nullptr, uses.service());
    EXPECT_EQ(0, host.uses(kService));
    EXPECT_THAT(host.calls(), ElementsAre("acquire 67 by 107", "release 67 by 107"));
}

TEST_F(ObjectStubTest, WithoutTargetItCallsNothingButTakesAUse) {
    ServiceStub uses;
    const ObjectStub stub(nullptr, &uses);
    EXPECT_EQ(nullptr, stub.target());
    EXPECT_EQ(-1, stub.twice(4));
    EXPECT_EQ(1, uses.uses());
    EXPECT_EQ(0, service->called);
}

TEST_F(ObjectStubTest, WithoutServiceItHoldsItsTargetAlone) {
    {
        const ObjectStub stub(new Target("target", &log), nullptr);
        EXPECT_EQ(8, stub.twice(4));
    }
    EXPECT_THAT(log, ElementsAre("~target"));
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(ObjectStubTest, ForwardingRaisesTheGuardForTheCall) {
    auto* const target = new Target("target", &log);
    const ObjectStub stub(target, nullptr);
    EXPECT_EQ(8, stub.twice(4));
    EXPECT_EQ(1, target->guardDuringCall);
    EXPECT_EQ(0, guard->calls());
    EXPECT_THROW(stub.twice(-1), std::runtime_error);
    EXPECT_EQ(1, target->guardDuringCall);
    EXPECT_EQ(0, guard->calls());
}

TEST_F(ObjectStubTest, ForwardingNeedsNoGuard) {
    host.giveNoGuards();
    const ObjectStub stub(new Target("target", &log), nullptr);
    EXPECT_EQ(8, stub.twice(4));
}

TEST_F(ObjectStubTest, ForwardingReachesTheObjectItWasRedirectedTo) {
    auto* const next = new Target("next", &log);
    ObjectStub stub(new Target("target", &log), nullptr);
    stub.redirect(next);
    EXPECT_EQ(8, stub.twice(4));
    EXPECT_EQ(1, next->called);
    stub.redirect(nullptr);
    EXPECT_EQ(-1, stub.twice(4));
    EXPECT_THAT(log, ElementsAre("~target", "~next"));
}

TEST_F(ObjectStubTest, CopySharesTheTargetAndTakesAUseOfItsOwn) {
    ServiceStub uses;
    auto* const target = new Target("target", &log);
    auto original = std::make_unique<ObjectStub>(target, &uses);
    const ObjectStub copy(*original);
    EXPECT_EQ(target, copy.target());
    EXPECT_EQ(2, target->references());
    EXPECT_EQ(2, uses.uses());
    original.reset();
    EXPECT_EQ(8, copy.twice(4));
    EXPECT_EQ(1, uses.uses());
}

TEST_F(ObjectStubTest, MoveAssignmentTakesTheTargetOverAndKeepsBothServices) {
    ServiceStub uses;
    ObjectStub stub(new Target("first", &log), &uses);
    auto* const second = new Target("second", &log);
    ObjectStub other(second, &uses);
    stub = std::move(other);
    EXPECT_THAT(log, ElementsAre("~first"));
    EXPECT_EQ(second, stub.target());
    EXPECT_EQ(1, second->references());
    EXPECT_EQ(nullptr, other.target());  // NOLINT(bugprone-use-after-move): it is empty now
    EXPECT_EQ(2, uses.uses());
}

TEST_F(ObjectStubTest, AssignmentSharesTheTargetAndKeepsTheService) {
    ServiceStub uses;
    ObjectStub stub(new Target("first", &log), &uses);
    auto* const second = new Target("second", &log);
    {
        const ObjectStub other(second, nullptr);
        stub = other;
    }
    EXPECT_THAT(log, ElementsAre("~first"));
    EXPECT_EQ(second, stub.target());
    EXPECT_EQ(1, second->references());
    EXPECT_EQ(1, uses.uses());
    stub = ObjectStub(nullptr, nullptr);
    EXPECT_EQ(nullptr, stub.target());
    EXPECT_EQ(1, uses.uses());
}

}  // namespace
