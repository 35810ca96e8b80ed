// The two ways in which a host may own a module's object, tried on the store as it ships:
// whatever the order, everything is gone in the end, once, and the key with it.
#include <dlfcn.h>

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "api/base_module.h"
#include "api/t_filestore_srv.h"
#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "client/s_filestoreC.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/objmgrfunc.h"
#include "tests/support/temp_dir.h"
#include "tests/system/store_modules.h"

namespace {

constexpr unsigned int kStore = 107;

// A host that does what it has to and no more: it has no reference on what it offers.
class BareHost final : public TModuleManager {
public:
    BareHost() = default;
    ~BareHost() override {
        for (CMN_Guard* const guard : guards_) {
            EXPECT_EQ(1, guard->references()) << "an object was left behind";
            guard->remReference();
        }
    }

    void offer(unsigned int id, CMN_GuardedRef* service) { offers_[id] = service; }
    // The uses of each module by each asker.
    std::map<std::pair<std::optional<unsigned int>, std::optional<unsigned int>>, int> uses;

    Status loadModule(const char* /*path*/) override { return kMissing; }
    Status unloadModule(const TypifiedID& /*module*/) override { return kIo; }
    int isLoaded(const TypifiedID& module) override {
        return offers_[numberOf(module)] != nullptr ? 1 : 0;
    }
    CMN_Guard* currentGuard() override {
        guards_.push_back(new CMN_Guard);
        guards_.back()->addReference();
        return guards_.back();
    }
    CMN_GuardedRef* acquireService(const TypifiedID& service, const TypifiedID& asker) override {
        CMN_GuardedRef* const found = offers_[numberOf(service)];
        uses[{numberOf(service), numberOf(asker)}] += found != nullptr ? 1 : 0;
        return found;
    }
    // One that was never taken is ignored.
    void releaseModule(const TypifiedID& module, const TypifiedID& asker) override {
        int& count = uses[{numberOf(module), numberOf(asker)}];
        count -= count > 0 ? 1 : 0;
    }

private:
    std::map<std::optional<unsigned int>, CMN_GuardedRef*> offers_;
    std::vector<CMN_Guard*> guards_;
};

// A module in its file, from its entry to its unmapping.
class Mapped {
public:
    Mapped(BareHost& host, const std::string& path)
        : host_(host), library_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (library_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        object_ = entry()(&host, 0);
        id_ = object_->getModuleID();
        service_ = object_->getService(Tuint32ID(id_));
        host.offer(id_, service_);
    }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;
    ~Mapped() {
        EXPECT_EQ(0, objects().size()) << "of module " << id_;
        dlclose(library_);
    }

    unsigned int id() const { return id_; }
    CMN_GuardedRef& service() const { return *service_; }
    CMN_ObjectManager& objects() const {
        return *symbol<decltype(GetObjectManager)>("GetObjectManager")();
    }

    BaseModuleInterface* startAgain() const { return entry()(&host_, 0); }
    void stop() const { EXPECT_EQ(nullptr, entry()(nullptr, 0)); }
    void remove() {
        host_.offer(id_, nullptr);
        delete object_;
    }

private:
    template <class Function>
    Function* symbol(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(library_, name));
    }
    decltype(GetInterfaceClass)* entry() const {
        return symbol<decltype(GetInterfaceClass)>("GetInterfaceClass");
    }

    BareHost& host_;
    void* library_;
    BaseModuleInterface* object_ = nullptr;
    CMN_GuardedRef* service_ = nullptr;
    unsigned int id_ = 0;
};

// The store and the services that it calls, each on a host that deletes it in the end; how
// the store ends is the test's affair.
class System {
public:
    explicit System(const StoreHost::Setup& setup) {
        ModMgr = &host_;
        for (const std::string& module : setup.modules) {
            modules_.push_back(std::make_unique<Mapped>(host_, setup.folder + "/" + module));
        }
    }
    System(const System&) = delete;
    System& operator=(const System&) = delete;
    ~System() {
        theX509Cmn = X509CmnSrv();
        modules_.pop_back();
        EXPECT_FALSE(isMapped("filestore.so"));
        for (; !modules_.empty(); modules_.pop_back()) {
            modules_.back()->stop();
            modules_.back()->remove();
        }
        for (const auto& [who, count] : host_.uses) {
            EXPECT_EQ(0, count) << "uses of " << *who.first << " by " << *who.second;
        }
        ModMgr = nullptr;
    }

    Mapped& store() { return *modules_.back(); }  // the last one in the list
    TFileStoreSrv& service() { return static_cast<TFileStoreSrv&>(store().service()); }

    int& ownUsesOfStore() { return host_.uses[{kStore, ModuleID.value()}]; }

    void open() {
        EXPECT_EQ(kOk, service().prepareDBFolders());
        EXPECT_EQ(kOk, service().open(""));
    }

private:
    support::TempWorkingDir dir_;
    BareHost host_;
    std::vector<std::unique_ptr<Mapped>> modules_;
};

// What a host does to the store in the end.
struct Owner {
    const char* name;
    bool hasReference;
    bool detachesAll;
    void (*ends)(Mapped&);
};

constexpr Owner kOwners[] = {
    {"deletes after the stop", false, false,
     [](Mapped& store) {
         store.stop();
         store.remove();
     }},
    {"deletes before the stop", false, false,
     [](Mapped& store) {
         store.remove();
         store.stop();
     }},
    {"deletes after the stop, which it repeats, and detaches all", false, true,
     [](Mapped& store) {
         store.stop();
         store.objects().fini();
         store.stop();
         store.remove();
     }},
    {"gives its reference back after the stop", true, false,
     [](Mapped& store) {
         store.stop();
         store.service().CMN_Reference::remReference();
     }},
    {"gives its reference back after the stop, and detaches all", true, true,
     [](Mapped& store) {
         store.stop();
         store.objects().fini();
         store.service().CMN_Reference::remReference();
     }},
    {"gives its reference back before the stop, and deletes", true, false,
     [](Mapped& store) {
         store.service().CMN_Reference::remReference();
         store.stop();
         store.remove();
     }},
};

constexpr const char* kStates[] = {"never opened", "open", "closed again"};

// A cipher of the store, kept by a plain reference.
class KeptCoder {
public:
    explicit KeptCoder(aCryptoEncoder coder) : coder_(coder.target()) {
        coder_->CMN_Reference::addReference();
    }
    KeptCoder(const KeptCoder&) = delete;
    KeptCoder& operator=(const KeptCoder&) = delete;
    ~KeptCoder() { coder_->CMN_Reference::remReference(); }

    bool encrypts() const {
        aBuf data("plain");
        return coder_->encrypt(data).target() != nullptr;
    }

private:
    TCryptoCoder* coder_;
};

class ModuleOwnerTest : public testing::TestWithParam<StoreModules> {};

TEST_P(ModuleOwnerTest, EverythingEndsOnceWhoeverOwnsIt) {
    for (const Owner& owner : kOwners) {
        for (const std::string state : kStates) {
            SCOPED_TRACE(std::string("The host ") + owner.name + "; the database is " + state);
            System system(GetParam().setup);
            if (owner.hasReference) {
                system.service().CMN_Reference::addReference();
            }
            if (state != "never opened") {
                system.open();
            }
            if (state == "closed again") {
                EXPECT_EQ(kOk, system.service().close());
            }
            owner.ends(system.store());
        }
    }
}

// A cipher whose holders were all detached ends before the service, with its key.
TEST_P(ModuleOwnerTest, KeyIsGoneWithTheServiceThatWasOpen) {
    for (const Owner& owner : kOwners) {
        if (owner.detachesAll) {
            continue;
        }
        SCOPED_TRACE(owner.name);
        System system(GetParam().setup);
        if (owner.hasReference) {
            system.service().CMN_Reference::addReference();
        }
        system.open();
        const KeptCoder coder(system.service().getEncoder());
        EXPECT_TRUE(coder.encrypts());
        owner.ends(system.store());
        EXPECT_FALSE(coder.encrypts());
    }
}

// Clients outlive the store's stop, and let go of it when they like.
TEST_P(ModuleOwnerTest, ClientThatLetsGoDeletesNothingOfTheHosts) {
    for (const std::string state : kStates) {
        SCOPED_TRACE(state);
        System system(GetParam().setup);
        if (state != "never opened") {
            system.open();
        }
        aFileStoreSrv client;
        ASSERT_NE(nullptr, client.service());
        system.store().stop();
        client = aFileStoreSrv(nullptr);
        EXPECT_EQ(kStore, system.service().getModuleID());
        system.store().remove();
    }
}

TEST_P(ModuleOwnerTest, ClientOfAServiceThatWasDeletedHoldsNothing) {
    for (const bool isStoppedFirst : {false, true}) {
        System system(GetParam().setup);
        system.open();
        aFileStoreSrv client;
        ASSERT_NE(nullptr, client.service());
        if (isStoppedFirst) {
            system.store().stop();
        }
        system.store().remove();
        EXPECT_EQ(nullptr, client.service());
        EXPECT_EQ(kNoObject, client.close());
        EXPECT_EQ(1, std::exchange(system.ownUsesOfStore(), 0))
            << "who was detached gives none back";
        if (!isStoppedFirst) {
            system.store().stop();
        }
    }
}

TEST_P(ModuleOwnerTest, EachObjectOfTheEntryIsTheHosts) {
    System system(GetParam().setup);
    system.open();
    BaseModuleInterface* const second = system.store().startAgain();
    EXPECT_EQ(kStore, second->getModuleID());
    EXPECT_EQ(kStore, system.service().getModuleID());
    system.store().remove();
    system.store().stop();
    delete second;
}

INSTANTIATE_TEST_SUITE_P(Services, ModuleOwnerTest, testing::ValuesIn(allServices()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
