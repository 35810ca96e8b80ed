#include "host/module_manager.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include "cmn/status.h"
#include "tests/host/modules/probe.h"
#include "tests/host/probe_files.h"
#include "tests/support/fake_host.h"
#include "tests/support/temp_dir.h"

namespace {

using std::chrono::milliseconds;
using support::TempDir;
using testing::ElementsAre;
using testing::HasSubstr;

constinit const Tuint32ID k201(201);
constinit const Tuint32ID k202(202);
constinit const Tuint32ID kStranger(5);

// What EXPECT_EQ prints is the reason as well.
#define EXPECT_STATUS(expected, operation)                      \
    do {                                                        \
        const Result result = (operation);                      \
        EXPECT_EQ((expected), result.status) << result.message; \
    } while (false)
#define ASSERT_OK(operation)                             \
    do {                                                 \
        const Result result = (operation);               \
        ASSERT_EQ(kOk, result.status) << result.message; \
    } while (false)

class ModuleManagerTest : public testing::Test {
protected:
    Result load(const char* name) { return manager_.load(moduleFile(name).c_str()); }

    CMN_ObjectManager& objectsOf(const char* name) {
        ModuleFile file;
        EXPECT_TRUE(ModuleFile::open(moduleFile(name), file).ok());
        return file.objects();
    }

    std::vector<std::string> events_;  // what the observed module notes, to its very end
    ModuleManager manager_;
    InstalledHost installed_{&manager_};
};

bool isMapped(const char* name) {
    return support::readFile("/proc/self/maps").find(moduleFile(name)) != std::string::npos;
}

// A variable of the environment, by which a probe is told what to do.
class Told {
public:
    Told(std::string name, const std::string& value) : name_(std::move(name)) {
        setenv(name_.c_str(), value.c_str(), 1);
    }
    Told(const Told&) = delete;
    Told& operator=(const Told&) = delete;
    ~Told() { unsetenv(name_.c_str()); }

    // What the probe has put in the place.
    std::string now() const { return std::getenv(name_.c_str()); }

private:
    std::string name_;
};

// A call that stays in progress until it is told to end.
class LongCall {
public:
    explicit LongCall(const aThing& thing)
        : thread_([this, &thing] { thing.wait(&begun_, &end_); }) {
        while (!begun_) {
            std::this_thread::yield();
        }
    }
    LongCall(const LongCall&) = delete;
    LongCall& operator=(const LongCall&) = delete;
    ~LongCall() { end(); }

    void end() {
        end_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::atomic<bool> begun_{false};
    std::atomic<bool> end_{false};
    std::thread thread_;
};

// ---- loading

TEST_F(ModuleManagerTest, LoadedModuleServes) {
    EXPECT_EQ(0, manager_.isLoaded(k201));
    ASSERT_OK(load("probe1"));
    EXPECT_EQ(1, manager_.isLoaded(k201));
    EXPECT_EQ(0, manager_.isLoaded(k202));

    aProbe service(k201);
    EXPECT_EQ(1U, service.version());
    const aThing thing(service);
    thing.setValue(17);
    EXPECT_EQ(17, thing.value());
}

TEST_F(ModuleManagerTest, OperationsOfTheInterfaceAnswerWithTheStatus) {
    TModuleManager& manager = manager_;
    EXPECT_EQ(kInvalid, manager.loadModule(nullptr));
    EXPECT_EQ(kMissing, manager.loadModule("no such file.so"));
    EXPECT_EQ(kOk, manager.loadModule(moduleFile("probe1").c_str()));
    EXPECT_EQ(kAlreadyOpen, manager.loadModule(moduleFile("probe1").c_str()));
    EXPECT_EQ(kEnd, manager.unloadModule(k202));
    EXPECT_EQ(kEnd, manager.unloadModule(TstringID("201")));
    EXPECT_EQ(kOk, manager.unloadModule(k201));
    EXPECT_EQ(kEnd, manager.unloadModule(k201));
}

TEST_F(ModuleManagerTest, OneModuleIsLoadedFromOneFileOnce) {
    const TempDir dir;
    std::filesystem::copy_file(moduleFile("probe1"), dir / "copy.so");
    ASSERT_OK(load("probe1"));
    EXPECT_STATUS(kAlreadyOpen, load("probe1"));
    EXPECT_STATUS(kAlreadyOpen, manager_.load((dir / "copy.so").c_str()));

    aProbe service(k201);
    EXPECT_EQ(1U, service.version()) << "the loaded one is as it was";
}

TEST_F(ModuleManagerTest, RefusalsNameTheFileAndTheReason) {
    const struct {
        const char* file;
        Status status;
        const char* reason;
    } rows[] = {
        {"no such", kMissing, "No such file"},
        {"probe_no_entry", kMalformed, "GetInterfaceClass"},
        {"probe_null_entry", kMalformed, "its entry gives no object"},
        {"probe_no_service", kMalformed, "offers no service"},
        {"probe_failing_init", kNoDigest, "does not start"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        const Result loaded = load(row.file);
        EXPECT_EQ(row.status, loaded.status);
        EXPECT_THAT(loaded.message, HasSubstr(moduleFile(row.file)));
        EXPECT_THAT(loaded.message, HasSubstr(row.reason));
        EXPECT_EQ(0, manager_.isLoaded(Tuint32ID(203)));
    }
}

TEST_F(ModuleManagerTest, RefusedFilesAreUnmapped) {
    for (const char* const name : {"probe_null_entry", "probe_no_service", "probe_failing_init"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(load(name).ok());
        EXPECT_FALSE(isMapped(name));
    }
}

struct Throw {
    const char* where;
    const char* said;  // of the place, in the message
};
struct Thrown {
    const char* what;
    Status status;
    const char* words;
};
constexpr Thrown kThrown[] = {
    {"bad_alloc", kNoMemory, "throws an exception: std::bad_alloc"},
    {"std", kIo, "throws an exception: words of its own"},
    {"own", kIo, "throws an exception"},
    {"number", kIo, "throws an exception"},
};

TEST_F(ModuleManagerTest, ModuleThatThrowsIsRefusedStoppedAndUnmapped) {
    const Throw places[] = {
        {"entry", "its entry"},
        {"getModuleID", "its object"},
        {"getService", "its object"},
        {"init", "its service"},
    };
    for (const Throw& place : places) {
        for (const Thrown& thrown : kThrown) {
            const std::string throws = std::string(place.where) + " " + thrown.what;
            SCOPED_TRACE(throws);
            for (int round = 0; round != 10; ++round) {
                const Told told("PROBE_THROWS", throws);
                const Result loaded = load("probe1");
                ASSERT_EQ(thrown.status, loaded.status);
                ASSERT_THAT(loaded.message, HasSubstr(moduleFile("probe1")));
                ASSERT_THAT(loaded.message, HasSubstr(place.said));
                ASSERT_THAT(loaded.message, HasSubstr(thrown.words));
                ASSERT_EQ(place.where == std::string("entry") ? throws : "stopped", told.now());
                ASSERT_FALSE(isMapped("probe1"));
                ASSERT_EQ(0, manager_.isLoaded(k201));
            }
        }
    }
    EXPECT_GE(2U, manager_.guards().size()) << "no service was left behind";
    EXPECT_STATUS(kOk, load("probe1"));
}

TEST_F(ModuleManagerTest, AnotherModuleThanTheExpectedIsRefused) {
    const Result loaded = manager_.load(moduleFile("probe1").c_str(), 202);
    EXPECT_EQ(kMalformed, loaded.status);
    EXPECT_THAT(loaded.message, HasSubstr("is module 201, not 202"));
    EXPECT_EQ(0, manager_.isLoaded(k201));
    EXPECT_STATUS(kOk, manager_.load(moduleFile("probe1").c_str(), 201));
}

TEST_F(ModuleManagerTest, ModuleThatLoadsItselfIsRefusedTheSecondTime) {
    const Told told("PROBE_201_start", "load " + moduleFile("probe1"));
    ASSERT_OK(load("probe1"));
    EXPECT_EQ(std::to_string(kAlreadyOpen), told.now());
    aProbe service(k201);
    EXPECT_EQ(1U, service.version());
    EXPECT_EQ(0, aThing(service).value());
}

TEST_F(ModuleManagerTest, ModulesThatLoadEachOtherAreLoadedOnce) {
    const Told first("PROBE_201_start", "load " + moduleFile("probe2"));
    const Told second("PROBE_202_start", "load " + moduleFile("probe1"));
    ASSERT_OK(load("probe1"));
    EXPECT_EQ("0", first.now());
    EXPECT_EQ(std::to_string(kAlreadyOpen), second.now());
    EXPECT_EQ(1U, aProbe(k201).version());
    EXPECT_EQ(1U, aProbe(k202).version());
}

// The one that comes second is told apart by its number, and goes without a trace.
TEST_F(ModuleManagerTest, ModuleThatLoadsACopyOfItselfGivesWay) {
    const TempDir dir;
    std::filesystem::copy_file(moduleFile("probe1"), dir / "copy.so");
    const Told told("PROBE_201_start", "load " + (dir / "copy.so"));
    const Result loaded = load("probe1");
    EXPECT_EQ(kAlreadyOpen, loaded.status);
    EXPECT_THAT(loaded.message, HasSubstr(dir / "copy.so"));
    EXPECT_FALSE(isMapped("probe1"));
    EXPECT_EQ(1U, aProbe(k201).version());
}

// ---- services and uses

TEST_F(ModuleManagerTest, UsesAreCountedPerModule) {
    ASSERT_OK(load("probe1"));
    CMN_GuardedRef* const service = manager_.acquireService(k201, kStranger);
    EXPECT_EQ(manager_.moduleService(201), service);
    EXPECT_EQ(nullptr, manager_.acquireService(k202, kStranger));
    EXPECT_EQ(1, manager_.uses(201));
    manager_.releaseModule(k201, kStranger);
    manager_.releaseModule(k201, kStranger);
    EXPECT_EQ(0, manager_.uses(201));
}

TEST_F(ModuleManagerTest, ServiceOfTheHostGoesBeforeThatOfTheModule) {
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    manager_.setService(201, manager_.moduleService(202));
    {
        aProbe service(k201);
        ASSERT_TRUE(service.acquire());
        EXPECT_EQ(202U, service.service()->getModuleID());
    }
    manager_.setService(201, nullptr);
    aProbe service(k201);
    ASSERT_TRUE(service.acquire());
    EXPECT_EQ(201U, service.service()->getModuleID());
    EXPECT_EQ(nullptr, manager_.moduleService(203));
}

TEST_F(ModuleManagerTest, ObjectsThatLiveTogetherHaveGuardsOfTheirOwn) {
    ASSERT_OK(load("probe1"));
    aProbe service(k201);
    const aThing one(service);
    const aThing two(service);
    ASSERT_NE(nullptr, one.target());
    EXPECT_NE(nullptr, one.target()->getGuard());
    EXPECT_NE(one.target()->getGuard(), two.target()->getGuard());
}

TEST_F(ModuleManagerTest, RegistriesOfModulesAreApart) {
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    aProbe first(k201);
    aProbe second(k202);
    const aThing one(first);
    const aThing two(first);
    const aThing three(second);
    EXPECT_EQ(3, objectsOf("probe1").size());
    EXPECT_EQ(2, objectsOf("probe2").size());
    EXPECT_EQ(0, ObjectManager.size()) << "the program has none of its own";
}

// ---- unloading

TEST_F(ModuleManagerTest, ModuleIsStoppedThenItsServiceDeletedThenUnmapped) {
    ASSERT_OK(load("probe1"));
    static_cast<TProbe*>(manager_.moduleService(201))->observe(&events_);
    EXPECT_STATUS(kOk, manager_.unload(201));
    EXPECT_THAT(events_,
                ElementsAre("1 service fini", "1 stopped", "1 service gone", "1 unmapped"));
}

TEST_F(ModuleManagerTest, ObjectApartFromTheServiceIsDeletedToo) {
    const Told told("PROBE_APART", "yes");
    ASSERT_OK(load("probe1"));
    static_cast<TProbe*>(manager_.moduleService(201))->observe(&events_);
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_THAT(events_, ElementsAre("1 object gone", "1 service gone", "1 stopped", "1 unmapped"));
    events_.clear();
    static_cast<TProbe*>(manager_.moduleService(201))->observe(&events_);
    EXPECT_STATUS(kOk, manager_.unload(201));
    EXPECT_THAT(events_, ElementsAre("2 service fini", "2 stopped", "2 service gone",
                                     "2 object gone", "2 unmapped"));
}

TEST_F(ModuleManagerTest, AcquiredModuleIsNotUnloaded) {
    ASSERT_OK(load("probe1"));
    {
        aProbe service(k201);
        EXPECT_EQ(1U, service.version());
        const Result refused = manager_.unload(201);
        EXPECT_EQ(kAlreadyOpen, refused.status);
        EXPECT_THAT(refused.message, HasSubstr("module 201 is used by module 1"));
        EXPECT_EQ(1U, service.version());
    }
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ModuleWithAnObjectThatAnotherHoldsIsNotUnloaded) {
    ASSERT_OK(load("probe1"));
    {
        const CMN_GRefPtr<TThing> thing(
            static_cast<TThing*>(static_cast<TProbe*>(manager_.moduleService(201))->create()));
        EXPECT_EQ(0, manager_.uses(201));
        const Result refused = manager_.unload(201);
        EXPECT_EQ(kAlreadyOpen, refused.status);
        EXPECT_THAT(refused.message, HasSubstr("holds"));
        EXPECT_EQ(0, thing.get()->value());
    }
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ModuleWithAnObjectOnItsWayToAHolderIsNotUnloaded) {
    ASSERT_OK(load("probe1"));
    auto* const made = static_cast<TProbe*>(manager_.moduleService(201))->create();
    EXPECT_STATUS(kAlreadyOpen, manager_.unload(201));
    { const CMN_GRefPtr<CMN_GuardedRef> holder(made); }
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ModuleWithACallInProgressIsNotUnloaded) {
    ASSERT_OK(load("probe1"));
    CMN_Guard* const guard = manager_.moduleService(201)->getGuard();
    guard->inc();
    const Result refused = manager_.unload(201);
    guard->dec();
    EXPECT_EQ(kAlreadyOpen, refused.status);
    EXPECT_THAT(refused.message, HasSubstr("call"));
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ModuleThatUsesItselfIsUnloaded) {
    ASSERT_OK(load("probe1"));
    auto* const service = static_cast<TProbe*>(manager_.moduleService(201));
    service->observe(&events_);
    EXPECT_EQ(kOk, service->keepItself());
    EXPECT_EQ(0, manager_.uses(201));
    EXPECT_STATUS(kOk, manager_.unload(201));
    EXPECT_THAT(events_,
                ElementsAre("1 service fini", "1 stopped", "1 service gone", "1 unmapped"));
}

TEST_F(ModuleManagerTest, WhatAModuleUsesAndHoldsIsFreeWhenItHasGone) {
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    auto* const second = static_cast<TProbe*>(manager_.moduleService(202));
    ASSERT_EQ(kOk, second->keepThingOfOther());
    EXPECT_EQ(1, manager_.uses(201));
    EXPECT_STATUS(kAlreadyOpen, manager_.unload(201));

    EXPECT_STATUS(kOk, manager_.unload(202));
    EXPECT_EQ(0, manager_.uses(201));
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ModuleThatLeavesObjectsBehindStaysMapped) {
    const TempDir dir;  // a file of its own, because it stays to the end of the program
    const std::string path = dir / "leaving.so";
    std::filesystem::copy_file(moduleFile("probe1"), path);
    ASSERT_OK(manager_.load(path.c_str()));
    auto* const left = static_cast<TProbe*>(manager_.moduleService(201))->leaveThing();
    const Result unloaded = manager_.unload(201);
    EXPECT_EQ(kIo, unloaded.status);
    EXPECT_THAT(unloaded.message, HasSubstr("left behind: 1"));
    EXPECT_EQ(0, manager_.isLoaded(k201));

    // Its code is there, so the object can go, and the module can be started again.
    left->CMN_Reference::remReference();
    ASSERT_OK(manager_.load(path.c_str()));
    aProbe service(k201);
    EXPECT_EQ(1U, service.version());
}

TEST_F(ModuleManagerTest, LoadUseAndUnloadLeaveNothingBehind) {
    std::size_t bytes = 0;
    std::size_t guards = 0;
    for (int round = 0; round < 1000; ++round) {
        ASSERT_OK(load("probe1"));
        ASSERT_OK(load("probe2"));
        {
            aProbe service(k202);
            const aThing thing(service);
            ASSERT_EQ(0, thing.value());
            ASSERT_EQ(kOk, service.service()->keepThingOfOther());
        }
        ASSERT_OK(manager_.unload(202));
        ASSERT_OK(manager_.unload(201));
        if (round == 10) {  // the first rounds fill caches
            bytes = mallinfo2().uordblks;
            guards = manager_.guards().size();
        }
    }
    EXPECT_EQ(bytes, mallinfo2().uordblks);  // 0 with an allocator of a sanitizer's
    EXPECT_EQ(guards, manager_.guards().size());
    EXPECT_FALSE(isMapped("probe1"));
    EXPECT_FALSE(isMapped("probe2"));
    EXPECT_EQ(0, ObjectManager.size());
}

TEST_F(ModuleManagerTest, ModuleThatThrowsWhenItIsStoppedIsUnloaded) {
    for (const Thrown& thrown : kThrown) {
        SCOPED_TRACE(thrown.what);
        ASSERT_OK(load("probe1"));
        ASSERT_EQ(kOk, static_cast<TProbe*>(manager_.moduleService(201))->keepItself());
        const Told told("PROBE_THROWS", std::string("stop ") + thrown.what);
        EXPECT_STATUS(kOk, manager_.unload(201));
        EXPECT_EQ("stopped", told.now());
        EXPECT_FALSE(isMapped("probe1"));
    }
}

TEST_F(ModuleManagerTest, ModuleThatIsStoppedCannotBringItselfBack) {
    const std::string wishes[] = {"load " + moduleFile("probe1"), "unload 201"};
    for (const std::string& wish : wishes) {
        SCOPED_TRACE(wish);
        ASSERT_OK(load("probe1"));
        const Told told("PROBE_201_stop", wish);
        EXPECT_STATUS(kOk, manager_.unload(201));
        EXPECT_EQ(std::to_string(wish[0] == 'l' ? kAlreadyOpen : kEnd), told.now());
        EXPECT_FALSE(isMapped("probe1"));
        EXPECT_EQ(0, manager_.isLoaded(k201));
    }
}

// ---- unloading by force

TEST_F(ModuleManagerTest, ForcedUnloadTakesTheObjectsFromTheirHolders) {
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    ASSERT_EQ(kOk, static_cast<TProbe*>(manager_.moduleService(202))->keepThingOfOther());
    aProbe service(k201);
    const aThing thing(service);
    service.service()->observe(&events_);

    EXPECT_STATUS(kOk, manager_.forceUnload(201));
    EXPECT_EQ(nullptr, thing.target());
    EXPECT_EQ(nullptr, service.service());
    EXPECT_EQ(-1, thing.value());
    EXPECT_EQ(0U, service.version());
    EXPECT_THAT(events_, ElementsAre("1 thing gone", "1 thing gone", "1 service fini", "1 stopped",
                                     "1 service gone", "1 unmapped"));

    ASSERT_OK(load("probe1"));
    EXPECT_EQ(1U, service.version()) << "a stub finds the service again";
    EXPECT_EQ(1, manager_.uses(201));
    EXPECT_EQ(-1, thing.value()) << "an object does not come back";
}

TEST_F(ModuleManagerTest, ForcedUnloadOfAModuleThatIsNotUsedIsAnUnload) {
    ASSERT_OK(load("probe1"));
    EXPECT_STATUS(kOk, manager_.forceUnload(201));
    EXPECT_STATUS(kEnd, manager_.forceUnload(201));
}

TEST_F(ModuleManagerTest, ForcedUnloadWaitsForACallInProgress) {
    ASSERT_OK(load("probe1"));
    aProbe service(k201);
    const aThing thing(service);
    LongCall call(thing);
    std::thread ending([&] {
        std::this_thread::sleep_for(milliseconds(50));
        call.end();
    });
    EXPECT_STATUS(kOk, manager_.forceUnload(201));
    ending.join();
    EXPECT_EQ(-1, thing.value());
}

TEST_F(ModuleManagerTest, ForcedUnloadGivesUpWhenACallDoesNotEnd) {
    ASSERT_OK(load("probe1"));
    manager_.setPatience(milliseconds(20));
    aProbe service(k201);
    const aThing thing(service);
    LongCall call(thing);
    const Result refused = manager_.forceUnload(201);
    EXPECT_EQ(kAlreadyOpen, refused.status);
    EXPECT_THAT(refused.message, HasSubstr("calls in progress"));
    call.end();

    EXPECT_EQ(0, thing.value()) << "nothing has changed";
    aProbe another(k201);
    EXPECT_EQ(1U, another.version()) << "it gives its service again";
    EXPECT_STATUS(kOk, manager_.forceUnload(201));
}

TEST_F(ModuleManagerTest, ForcedUnloadIsNotStoppedByAnAcquisitionThatNobodyHolds) {
    ASSERT_OK(load("probe1"));
    manager_.setPatience(milliseconds(20));
    ASSERT_NE(nullptr, manager_.acquireService(k201, kStranger));
    EXPECT_STATUS(kAlreadyOpen, manager_.unload(201));
    EXPECT_STATUS(kOk, manager_.forceUnload(201));
}

TEST_F(ModuleManagerTest, UnloadAllUnloadsTheNewestFirst) {
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    static_cast<TProbe*>(manager_.moduleService(202))->observe(&events_);
    static_cast<TProbe*>(manager_.moduleService(201))->observe(&events_);
    aProbe service(k202);
    ASSERT_TRUE(service.acquire());
    EXPECT_STATUS(kOk, manager_.unloadAll());
    EXPECT_EQ(8U, events_.size());
    EXPECT_EQ(0, manager_.isLoaded(k201));
    EXPECT_EQ(0, manager_.isLoaded(k202));
    EXPECT_EQ(nullptr, service.service());
}

// ---- replacing

TEST_F(ModuleManagerTest, HoldersGoOverToTheObjectsOfTheNewModule) {
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    ASSERT_EQ(kOk, static_cast<TProbe*>(manager_.moduleService(202))->keepThingOfOther());
    aProbe service(k201);
    const aThing thing(service);
    thing.setValue(42);
    service.service()->observe(&events_);
    ASSERT_EQ(kOk, service.service()->keepItself());
    const int uses = manager_.uses(201);

    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_EQ(2U, thing.madeBy());
    EXPECT_EQ(42, thing.value());
    EXPECT_EQ(2U, service.version());
    EXPECT_EQ(manager_.moduleService(201), service.service());
    EXPECT_EQ(uses, manager_.uses(201));
    EXPECT_THAT(events_, ElementsAre("1 thing gone", "1 thing gone", "1 service gone", "1 stopped",
                                     "1 unmapped"));

    aThing(service).setValue(1);
    EXPECT_STATUS(kAlreadyOpen, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ReplacedModuleIsUnloadedWhenItsUsersHaveLetGo) {
    ASSERT_OK(load("probe1"));
    {
        aProbe service(k201);
        const aThing thing(service);
        ASSERT_OK(manager_.replace(201, moduleFile("probe1_remaking").c_str()));
        EXPECT_EQ(0, thing.value());
    }
    EXPECT_EQ(0, manager_.uses(201));
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ObjectsThatTheNewModuleDoesNotMakeAreLost) {
    ASSERT_OK(load("probe1"));
    {
        aProbe service(k201);
        const aThing thing(service);
        EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_dropping").c_str()));
        EXPECT_EQ(nullptr, thing.target());
        EXPECT_EQ(nullptr, service.service());
        EXPECT_EQ(0, manager_.uses(201)) << "a stub without service owes no release";
        EXPECT_EQ(3U, service.version()) << "and acquires the new one";
        EXPECT_EQ(1, manager_.uses(201));
    }
    EXPECT_EQ(0, manager_.uses(201));
    EXPECT_STATUS(kOk, manager_.unload(201));
}

TEST_F(ModuleManagerTest, ModuleThatNobodyUsesIsReplaced) {
    ASSERT_OK(load("probe1"));
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    aProbe service(k201);
    EXPECT_EQ(2U, service.version());
}

TEST_F(ModuleManagerTest, ReplacingGoesOnForever) {
    const TempDir dir;
    std::filesystem::copy_file(moduleFile("probe1_remaking"), dir / "even.so");
    std::filesystem::copy_file(moduleFile("probe1_remaking"), dir / "odd.so");
    ASSERT_OK(load("probe1"));
    aProbe service(k201);
    const aThing thing(service);
    thing.setValue(7);
    std::size_t guards = 0;
    for (int i = 0; i < 200; ++i) {
        ASSERT_OK(manager_.replace(201, (dir / (i % 2 == 0 ? "even.so" : "odd.so")).c_str()));
        ASSERT_EQ(7, thing.value());
        guards = i == 10 ? manager_.guards().size() : guards;
    }
    EXPECT_EQ(guards, manager_.guards().size());
    EXPECT_EQ(1, manager_.uses(201));
}

TEST_F(ModuleManagerTest, ReplaceWaitsForACallInProgress) {
    ASSERT_OK(load("probe1"));
    aProbe service(k201);
    const aThing thing(service);
    LongCall call(thing);
    std::atomic<bool> ended{false};
    std::thread ending([&] {
        std::this_thread::sleep_for(milliseconds(50));
        ended = true;
        call.end();
    });
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_TRUE(ended);
    ending.join();
    EXPECT_EQ(2U, thing.madeBy());
}

TEST_F(ModuleManagerTest, ReplaceGivesUpWhenACallDoesNotEnd) {
    ASSERT_OK(load("probe1"));
    manager_.setPatience(milliseconds(20));
    aProbe service(k201);
    const aThing thing(service);
    LongCall call(thing);
    const Result refused = manager_.replace(201, moduleFile("probe1_remaking").c_str());
    EXPECT_EQ(kAlreadyOpen, refused.status);
    EXPECT_THAT(refused.message, HasSubstr("calls in progress"));
    call.end();

    EXPECT_EQ(1U, thing.madeBy()) << "nothing has changed";
    EXPECT_EQ(1U, service.version());
    EXPECT_EQ(1, manager_.uses(201));
    EXPECT_FALSE(isMapped("probe1_remaking"));
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_EQ(2U, thing.madeBy());
}

TEST_F(ModuleManagerTest, ReplaceGivesUpOnAnObjectThatNobodyTakes) {
    ASSERT_OK(load("probe1"));
    manager_.setPatience(milliseconds(20));
    aProbe service(k201);
    CMN_GuardedRef* const made = service.create();
    EXPECT_STATUS(kAlreadyOpen, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_EQ(1U, service.version()) << "nothing has changed";
    EXPECT_FALSE(isMapped("probe1_remaking"));

    const CMN_GRefPtr<TThing> taken(static_cast<TThing*>(made));
    EXPECT_EQ(1U, taken.get()->madeBy());
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_EQ(2U, taken.get()->madeBy());
}

TEST_F(ModuleManagerTest, ReplaceMendsGuardsFirst) {
    ASSERT_OK(load("probe1"));
    aProbe service(k201);
    const aThing thing(service);
    thing.target()->getGuard()->dec();  // would never be seen at 0
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_EQ(2U, thing.madeBy());
}

TEST_F(ModuleManagerTest, RefusedReplacementsChangeNothing) {
    const TempDir dir;
    std::filesystem::copy_file(moduleFile("probe2"), dir / "copy.so");
    support::writeFile(dir / "text.so", "text");
    ASSERT_OK(load("probe1"));
    ASSERT_OK(load("probe2"));
    const struct {
        const char* name;
        unsigned int id;
        std::string path;
        Status status;
    } rows[] = {
        {"not loaded", 203, moduleFile("probe1"), kEnd},
        {"not replaceable", 202, dir / "copy.so", kAlreadyOpen},
        {"the loaded file", 201, moduleFile("probe1"), kInvalid},
        {"another module's loaded file", 201, moduleFile("probe2"), kInvalid},
        {"another module", 201, dir / "copy.so", kMalformed},
        {"missing", 201, dir / "nothing.so", kMissing},
        {"broken", 201, dir / "text.so", kMalformed},
    };
    aProbe service(k201);
    const aThing thing(service);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_STATUS(row.status, manager_.replace(row.id, row.path.c_str()));
        EXPECT_EQ(1U, thing.madeBy());
        EXPECT_EQ(1U, service.version());
        EXPECT_EQ(1, manager_.uses(201));
    }
    EXPECT_STATUS(kInvalid, manager_.replace(201, nullptr));
}

TEST_F(ModuleManagerTest, ReplacementThatThrowsIsRefused) {
    const Throw places[] = {
        {"isReplaceable", "probe1.so: its object"},
        {"entry", "probe1_remaking.so: its entry"},
        {"getModuleID", "probe1_remaking.so: its object"},
        {"getService", "probe1_remaking.so: its object"},
        {"init", "probe1_remaking.so: its service"},
    };
    ASSERT_OK(load("probe1"));
    aProbe service(k201);
    const aThing thing(service);
    for (const Throw& place : places) {
        for (const Thrown& thrown : kThrown) {
            SCOPED_TRACE(std::string(place.where) + " " + thrown.what);
            const Told told("PROBE_THROWS", std::string(place.where) + " " + thrown.what);
            const Result refused = manager_.replace(201, moduleFile("probe1_remaking").c_str());
            EXPECT_EQ(thrown.status, refused.status);
            EXPECT_THAT(refused.message, HasSubstr(place.said));
            EXPECT_THAT(refused.message, HasSubstr(thrown.words));
            EXPECT_EQ(1U, thing.madeBy());
            EXPECT_EQ(1U, service.version());
            EXPECT_EQ(1, manager_.uses(201));
            EXPECT_FALSE(isMapped("probe1_remaking"));
        }
    }
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
}

TEST_F(ModuleManagerTest, ReplacementWhoseFactoryThrowsTakesOverWithoutTheObjects) {
    for (const Thrown& thrown : kThrown) {
        SCOPED_TRACE(thrown.what);
        ASSERT_OK(load("probe1"));
        {
            aProbe service(k201);
            const aThing thing(service);
            const Told told("PROBE_THROWS", std::string("MakeObject ") + thrown.what);
            const Result replaced = manager_.replace(201, moduleFile("probe1_remaking").c_str());
            EXPECT_EQ(thrown.status, replaced.status);
            EXPECT_THAT(replaced.message, HasSubstr(thrown.words));
            EXPECT_EQ("stopped", told.now());
            EXPECT_FALSE(isMapped("probe1"));
            EXPECT_EQ(nullptr, thing.target());
            EXPECT_EQ(nullptr, service.service());
            EXPECT_EQ(0, manager_.uses(201));
            EXPECT_EQ(2U, service.version()) << "the new module serves";
        }
        EXPECT_STATUS(kOk, manager_.unload(201));
    }
}

TEST_F(ModuleManagerTest, ReplacementThatUnloadsTheOldModuleIsRefused) {
    ASSERT_OK(load("probe1"));
    const Told told("PROBE_201_start", "unload 201");
    EXPECT_STATUS(kEnd, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
    EXPECT_EQ("0", told.now());
    EXPECT_EQ(0, manager_.isLoaded(k201));
    EXPECT_FALSE(isMapped("probe1"));
    EXPECT_FALSE(isMapped("probe1_remaking"));
}

TEST_F(ModuleManagerTest, ReplaceIsRefusedWhileSomeoneHasTheServiceUnheld) {
    ASSERT_OK(load("probe1"));
    manager_.setPatience(milliseconds(20));
    ASSERT_NE(nullptr, manager_.acquireService(k201, kStranger));
    const Result refused = manager_.replace(201, moduleFile("probe1_remaking").c_str());
    EXPECT_EQ(kAlreadyOpen, refused.status);
    EXPECT_THAT(refused.message, HasSubstr("holds no reference"));

    manager_.releaseModule(k201, kStranger);
    EXPECT_STATUS(kOk, manager_.replace(201, moduleFile("probe1_remaking").c_str()));
}

}  // namespace
