// Modules in one process, each with a copy of the framework. Whatever is one in a
// module must be one a module: were two registries merged, unloading one module
// would take the other's objects along.
#include <dlfcn.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "cmn/cmn_stub.h"
#include "cmn/objmgrfunc.h"
#include "tests/cmn/modules/twin.h"
#include "tests/support/fake_host.h"
#include "tests/support/run_together.h"
#include "tests/support/short_wait.h"

namespace {

using Holder = CMN_GRefPtr<TTwin>;

// A copy in a shared object, for as long as this lives.
class LoadedTwin {
public:
    explicit LoadedTwin(const std::string& name)
        : path_(MODULE_FOLDER "/" + name + ".so"),
          library_(dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (library_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        copy_ = symbol<decltype(GetTwinCopy)>("GetTwinCopy")();
    }
    LoadedTwin(const LoadedTwin&) = delete;
    LoadedTwin& operator=(const LoadedTwin&) = delete;
    ~LoadedTwin() { unload(); }

    // Expects that the shared object leaves the process's memory, and no object behind.
    void unload() {
        if (library_ != nullptr) {
            EXPECT_EQ(nullptr, copy_->registry->getObj());
            EXPECT_EQ(0, dlclose(library_));
            EXPECT_EQ(nullptr, dlopen(path_.c_str(), RTLD_NOW | RTLD_NOLOAD));
            library_ = nullptr;
        }
    }

    const TwinCopy* operator->() const { return copy_; }
    const TwinCopy& operator*() const { return *copy_; }

    template <class Function>
    Function* symbol(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(library_, name));
    }

private:
    std::string path_;
    void* library_;
    const TwinCopy* copy_;
};

// This program and both shared objects.
class ModuleCopiesTest : public testing::Test {
protected:
    ModuleCopiesTest() {
        *a->manager = &host;
        *b->manager = &host;
        host.giveNewGuards();
    }

    // A call as a proxy makes it; null members without an object.
    static std::pair<int, unsigned int> look(const Holder& holder) {
        return forwardTo(
            holder, [] { return std::pair(0, 0U); },
            [](TTwin& twin) { return std::pair(twin.value(), twin.maker()); });
    }

    const TwinCopy& own = *GetTwinCopy();
    FakeHost host;
    LoadedTwin a{"twin_a"};
    LoadedTwin b{"twin_b"};
};

TEST_F(ModuleCopiesTest, HaveEachTheirOwnGlobals) {
    const TwinCopy* const copies[] = {&own, &*a, &*b};
    const unsigned int numbers[] = {107, 201, 202};
    for (int i = 0; i < 3; ++i) {
        const TwinCopy& one = *copies[i];
        const TwinCopy& other = *copies[(i + 1) % 3];
        EXPECT_EQ(numbers[i], one.moduleID->value());
        EXPECT_EQ(one.moduleID, *one.ownID);
        EXPECT_EQ(one.registry, *one.ownRegistry);
        EXPECT_NE(one.moduleID, other.moduleID);
        EXPECT_NE(one.ownID, other.ownID);
        EXPECT_NE(one.refMutex, other.refMutex);
        EXPECT_NE(one.registry, other.registry);
        EXPECT_NE(one.ownRegistry, other.ownRegistry);
        EXPECT_NE(one.manager, other.manager);
        EXPECT_NE(one.make, other.make);
    }
}

TEST_F(ModuleCopiesTest, GiveTheHostTheirOwnRegistry) {
    for (const LoadedTwin* const module : {&a, &b}) {
        const auto get = module->symbol<decltype(GetObjectManager)>("GetObjectManager");
        const auto start = module->symbol<decltype(InitObjectManager)>("InitObjectManager");
        ASSERT_NE(nullptr, get);
        ASSERT_NE(nullptr, start);
        EXPECT_EQ((*module)->registry, get());
        EXPECT_EQ((*module)->registry, start());
    }
    EXPECT_EQ(own.registry, GetObjectManager());
}

TEST_F(ModuleCopiesTest, AreToldTheirHostOneByOne) {
    *a->manager = nullptr;
    EXPECT_EQ(&host, *b->manager);
    EXPECT_EQ(nullptr, ModMgr);
    const InstalledHost installed(&host);
    EXPECT_EQ(nullptr, *a->manager);
    const Holder unguarded(a->make(1));
    const Holder guarded(b->make(1));
    EXPECT_EQ(nullptr, unguarded.heldGuard());
    EXPECT_NE(nullptr, guarded.heldGuard());
}

TEST_F(ModuleCopiesTest, RegisterTheirObjectsInTheirOwnRegistry) {
    const Holder holder(a->make(7));
    EXPECT_EQ(std::pair(7, 201U), look(holder));
    DummyHolder* const pin = a->registry->getObj();
    ASSERT_NE(nullptr, pin);
    EXPECT_EQ(holder.get(), pin->object());
    pin->die();
    EXPECT_EQ(nullptr, b->registry->getObj());
    EXPECT_EQ(nullptr, own.registry->getObj());
}

TEST_F(ModuleCopiesTest, KnowWhichModuleAHolderLivesIn) {
    const Holder holder(a->make(7));
    EXPECT_EQ(1, a->registry->moduleIsUsed());  // by this program
    EXPECT_EQ(1, a->registry->moduleIsUsedBy(*own.moduleID));
    EXPECT_EQ(0, a->registry->moduleIsUsedBy(*a->moduleID));
    EXPECT_EQ(0, b->registry->moduleIsUsed());

    const Holder mine(own.make(7));
    EXPECT_EQ(0, own.registry->moduleIsUsed());
}

TEST_F(ModuleCopiesTest, CountUnderTheirOwnMutex) {
    const Holder holder(a->make(7));
    TTwin& twin = *holder.get();
    {
        const CMN_Entered mine(*own.refMutex);
        const CMN_Entered others(*b->refMutex);
        std::thread([&twin] { twin.addReference(); }).join();
    }
    EXPECT_EQ(2, twin.references());
    std::thread waiting;
    {
        const CMN_Entered entered(*a->refMutex);
        waiting = std::thread([&twin] { twin.remReference(); });
        for (int i = 0; i < 30; ++i) {
            waitShortly();
        }
        EXPECT_EQ(2, twin.references());
    }
    waiting.join();
    EXPECT_EQ(1, twin.references());
}

TEST_F(ModuleCopiesTest, LetADepartingModuleGo) {
    Holder ofA(a->make(1));
    Holder ofB(b->make(2));
    EXPECT_EQ(1, a->registry->unhookObjs(*own.moduleID));
    EXPECT_EQ(nullptr, ofA.get());
    EXPECT_EQ(std::pair(2, 202U), look(ofB));
}

TEST_F(ModuleCopiesTest, UnloadAndLoadAgain) {
    a.unload();
    for (int round = 0; round < 3; ++round) {
        const LoadedTwin again("twin_a");
        EXPECT_EQ(201U, again->moduleID->value());
        EXPECT_EQ(nullptr, *again->manager);
        const Holder holder(again->make(round));
        EXPECT_EQ(std::pair(round, 201U), look(holder));
    }
    const Holder other(b->make(5));
    EXPECT_EQ(std::pair(5, 202U), look(other));
}

TEST_F(ModuleCopiesTest, TakeEachOthersObjectsOver) {
    Holder one(a->make(1));
    Holder two(a->make(2));
    Holder shared(two);
    b->takeOver(a->registry);
    a.unload();
    EXPECT_EQ(std::pair(1, 202U), look(one));
    EXPECT_EQ(std::pair(2, 202U), look(two));
    EXPECT_EQ(two.get(), shared.get());
    EXPECT_EQ(2, two.get()->references());
    EXPECT_EQ(1, b->registry->moduleIsUsed());

    const LoadedTwin next("twin_a");
    next->takeOver(b->registry);
    b.unload();
    EXPECT_EQ(std::pair(1, 201U), look(one));
    EXPECT_EQ(two.get(), shared.get());
    one = nullptr;
    two = nullptr;
    shared = nullptr;
}

TEST_F(ModuleCopiesTest, AreReplacedWhileOtherThreadsUseThem) {
    std::atomic<bool> end{false};
    Holder lasting[4];
    for (int i = 0; i < 4; ++i) {
        lasting[i] = a->make(i);
    }
    {
        const Together users(4, [&](int number) {
            while (!end) {
                Holder passing(a->make(10));  // half-built for a moment
                EXPECT_EQ(10, look(passing).first);
                EXPECT_EQ(number, look(lasting[number]).first);
            }
        });
        for (int round = 0; round < 10; ++round) {
            b->takeOver(a->registry);
        }
        end = true;
    }
    b->takeOver(a->registry);
    a.unload();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(std::pair(i, 202U), look(lasting[i]));
    }
}

}  // namespace
